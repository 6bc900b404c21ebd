#include <NetBase/service/kyNetServerFolder.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include <Utils/kyPlatform.h>

namespace {

/// A place for installations, removed with all that is in it.
class Installations
{
public:
    Installations()
        : m_root(std::filesystem::temp_directory_path() /
                 ("kyNetServerFolderTest-" + std::to_string(kyPlatform::getProcessId())))
    {
        std::filesystem::remove_all(m_root);
    }
    ~Installations() { std::filesystem::remove_all(m_root); }

    std::string path(const std::string& below) const { return (m_root / below).generic_string(); }

    void install(const std::string& below) const
    {
        std::filesystem::create_directories(m_root / below);
    }

    /// What a service of version 2.0 finds, as a path below the root.
    std::string find(const std::string& ownFolder, const std::string& version) const
    {
        const std::string found = kyNetServerFolder::find(path(ownFolder), "2.0", version);
        const std::string root = m_root.generic_string() + "/";
        return found.rfind(root, 0) == 0 ? found.substr(root.size()) : found;
    }

private:
    std::filesystem::path m_root;
};

} // namespace

TEST(kyNetServerFolder, installationOfTheClientsVersionComesFirst)
{
    const Installations installations;
    installations.install("X-2.0/bin");
    installations.install("X-1.5/bin");
    EXPECT_EQ(installations.find("X-2.0/bin", "1.5"), "X-1.5/bin");
    EXPECT_EQ(installations.find("X-2.0/bin", "2.0"), "X-2.0/bin");
}

TEST(kyNetServerFolder, ownFolderIfNothingFits)
{
    const Installations installations;
    installations.install("X-2.0/bin");
    EXPECT_EQ(installations.find("X-2.0/bin", "1.5"), "X-2.0/bin");
    installations.install("TALOBeta-2.0/bin");
    EXPECT_EQ(installations.find("TALOBeta-2.0/bin", "1.5"), "TALOBeta-2.0/bin");
    EXPECT_EQ(installations.find("missing-2.0/bin", "1.5"), "missing-2.0/bin");
}

TEST(kyNetServerFolder, everyOwnVersionInThePathIsReplaced)
{
    const Installations installations;
    installations.install("A-1.5/B-1.5/bin");
    installations.install("A-2.0/B-1.5/bin");
    EXPECT_EQ(installations.find("A-2.0/B-2.0/bin", "1.5"), "A-1.5/B-1.5/bin");
}

TEST(kyNetServerFolder, onlyAVersionAfterAHyphenIsReplaced)
{
    const Installations installations;
    installations.install("2.0/X-1.5");
    installations.install("1.5/X-1.5");
    EXPECT_EQ(installations.find("2.0/X-2.0", "1.5"), "2.0/X-1.5");
}

TEST(kyNetServerFolder, pathWithoutTheOwnVersionStays)
{
    const Installations installations;
    installations.install("X/bin");
    EXPECT_EQ(installations.find("X/bin", "1.5"), "X/bin");
}

TEST(kyNetServerFolder, otherEditionOfTheClientsVersionIsTakenInTheOrderOfTheEditions)
{
    const Installations installations;
    const std::string own = "TALOAlpha-2.0/bin";
    installations.install(own);
    installations.install("TALOBeta-1.5/bin");
    EXPECT_EQ(installations.find(own, "1.5"), "TALOBeta-1.5/bin");
    installations.install("TALOCluster-1.5/bin");
    EXPECT_EQ(installations.find(own, "1.5"), "TALOCluster-1.5/bin");
    installations.install("TALOAlpha-1.5/bin");
    EXPECT_EQ(installations.find(own, "1.5"), "TALOAlpha-1.5/bin");
}

TEST(kyNetServerFolder, everyEditionFindsEveryOther)
{
    for (const std::string own : {"TALOCluster", "TALOAlpha", "TALOBeta"}) {
        for (const std::string wanted : {"TALOCluster", "TALOAlpha", "TALOBeta"}) {
            const Installations installations;
            installations.install(own + "-2.0/bin");
            installations.install(wanted + "-1.5/bin");
            EXPECT_EQ(installations.find(own + "-2.0/bin", "1.5"), wanted + "-1.5/bin");
        }
    }
}

TEST(kyNetServerFolder, everyOccurrenceOfAnEditionIsReplaced)
{
    const Installations installations;
    installations.install("TALOBeta-1.5/TALOBeta/bin");
    installations.install("TALOCluster-1.5/TALOBeta/bin");
    EXPECT_EQ(installations.find("TALOAlpha-2.0/TALOAlpha/bin", "1.5"),
              "TALOBeta-1.5/TALOBeta/bin");
}

TEST(kyNetServerFolder, earlierEditionInThePathIsReplacedFirst)
{
    const Installations installations;
    installations.install("TALOBeta-1.5/TALOBeta/bin");
    installations.install("TALOCluster-1.5/TALOAlpha/bin");
    // The path names Cluster and Beta: Cluster is replaced by Alpha and Beta before Beta is.
    EXPECT_EQ(installations.find("TALOCluster-2.0/TALOBeta/bin", "1.5"),
              "TALOBeta-1.5/TALOBeta/bin");
}

TEST(kyNetServerFolder, namesAreCaseSensitive)
{
    const Installations installations;
    installations.install("talocluster-2.0/bin");
    installations.install("TALOBeta-1.5/bin");
    EXPECT_EQ(installations.find("talocluster-2.0/bin", "1.5"), "talocluster-2.0/bin");
}

TEST(kyNetServerFolder, fileIsNoInstallation)
{
    const Installations installations;
    installations.install("X-2.0");
    std::ofstream(installations.path("X-1.5")) << "a file";
    EXPECT_EQ(installations.find("X-2.0", "1.5"), "X-2.0");
}

TEST(kyNetServerFolder, onlyDigitsAndDotsBecomePartOfAPath)
{
    const Installations installations;
    installations.install("X-2.0/bin");
    installations.install("X-1.5/bin");
    installations.install("X-SR1/bin");
    installations.install("foreign/bin");
    for (const std::string version : {"1.5/../foreign", "../foreign", "SR1", "1.5 ", " 1.5", "-1.5",
                                      "", "1.5\n", "1,5", "1.5\\..", "%1"}) {
        EXPECT_EQ(installations.find("X-2.0/bin", version), "X-2.0/bin") << version;
    }
    EXPECT_EQ(installations.find("X-2.0/bin", std::string("1.5\0x", 5)), "X-2.0/bin");
}

TEST(kyNetServerFolder, hugeVersionIsNoInstallation)
{
    const Installations installations;
    installations.install("TALOCluster-2.0/bin");
    EXPECT_EQ(installations.find("TALOCluster-2.0/bin", std::string(1 << 20, '9')),
              "TALOCluster-2.0/bin");
    EXPECT_EQ(installations.find("TALOCluster-2.0/bin", std::string(1 << 20, '.')),
              "TALOCluster-2.0/bin");
}
