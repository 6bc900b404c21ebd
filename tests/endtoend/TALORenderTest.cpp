// The renderer, its render servers and the nodes' services, as users meet them: processes.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QtGlobal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <apps/TALORender/PngEncoder.h>
#include <apps/TALORender/RenderCluster.h>
#include <apps/TALORender/SceneImport.h>
#include <apps/TALORender/Studio.h>
#include <apps/common/ServiceClient.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestKey.h>
#include <tests/apps/kyTestModel.h>
#include <tests/apps/kyTestPng.h>
#include <tests/apps/kyTestScene.h>
#include <tests/support/kyTestProcesses.h>
#include <tests/support/kyTestProgram.h>
#include <tests/support/kyTestRegex.h>
#include <tests/support/kyTestSocket.h>
#include <tests/support/kyTestWait.h>

namespace {

using testing::HasSubstr;

/// Enough paths that a picture takes seconds: time to kill somebody in the middle of it.
constexpr const char* s_longSamples = "40";
/// Paths for a picture that will never be finished.
constexpr const char* s_endlessSamples = "100000";

std::string renderPath()
{
    return kyTest::programPath("TALORender");
}

std::vector<long long> findServers()
{
    return kyTest::findDescendants("TALOClusterServer");
}

/// A node: a service that runs here, on a port of its own.
class Node
{
public:
    explicit Node(const std::vector<std::string>& more = {})
        : m_service(kyTest::programPath("TALOClusterService"), withPort(more))
    {
        const std::string line = m_service.readLine();
        const std::string prefix = "listening on port ";
        EXPECT_EQ(line.substr(0, prefix.size()), prefix);
        m_port = std::stoi(line.substr(prefix.size()));
    }

    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }
    NodeAddress nodeAddress() const { return {"127.0.0.1", m_port}; }
    ServiceClient client() const { return ServiceClient(NodeAddress{"127.0.0.1", m_port}); }

private:
    static std::vector<std::string> withPort(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--port", "0"});
        return arguments;
    }

    kyTest::Program m_service;
    int m_port = 0;
};

/// The number that stands behind the words, in any line.
std::uint64_t numberBehind(const std::string& text, const std::string& words)
{
    const std::size_t place = text.find(words);
    return place == std::string::npos ? 0 : std::stoull(text.substr(place + words.size()));
}

/// A node whose render servers break their promises.
class LyingNode : public Node
{
public:
    /// The lie, as kyTestLyingServer knows it.
    explicit LyingNode(const char* lie) : Node(arguments(lie)) {}

private:
    static std::vector<std::string> arguments(const char* lie)
    {
        // The service inherits it, and its servers from there.
        qputenv("KY_TEST_LIE", lie);
        return {"--server", KY_TEST_BINARY_DIR "/tests/kyTestLyingServer"};
    }
};

/// The part of the renderer that talks to servers, within the test's process.
class Cluster
{
public:
    using Settings = render::RenderCluster::Settings;

    explicit Cluster(const Settings& settings)
        : m_cluster(settings, [this](const std::string& text) { warnings.push_back(text); })
    {
    }

    static Settings settings(const Node& node, int servers, bool isRelayed)
    {
        Settings result;
        result.nodes = {node.nodeAddress()};
        result.servers = servers;
        result.isRelayed = isRelayed;
        // Not much, but no server of a test on a loaded machine is so slow.
        result.patience = 5.0;
        return result;
    }

    render::RenderCluster* operator->() { return &m_cluster; }

    std::vector<kyTest::Picture> render(const std::vector<render::Frame>& frames)
    {
        std::vector<kyTest::Picture> pictures(frames.size());
        m_cluster.render(frames, [&](std::size_t i, const render::Image& image) {
            pictures[i] = {image.getWidth(), image.getHeight(), image.develop()};
        });
        return pictures;
    }

    /// What it complained of.
    std::vector<std::string> warnings;

private:
    render::RenderCluster m_cluster;
};

/// A stage with so many triangles that its way takes a while, and frames to take of it.
struct Stage
{
    explicit Stage(int rings) : studio(render::buildStudio(kyTest::makeBall(rings), 4.0F / 3.0F)) {}

    std::vector<render::Frame> frames(int count, std::uint32_t width, std::uint32_t samples) const
    {
        std::vector<render::Frame> result;
        for (int i = 0; i < count; ++i) {
            result.push_back(
                {render::orbit(studio.camera, 360.0 * i / count), width, width * 3 / 4, samples});
        }
        return result;
    }

    /// What one server alone makes of the frames.
    std::vector<kyTest::Picture> renderAlone(const std::vector<render::Frame>& frames) const
    {
        const Node node;
        Cluster cluster(Cluster::settings(node, 1, false));
        cluster->loadScene(studio.scene);
        std::vector<kyTest::Picture> pictures;
        for (const render::Frame& frame : frames) {
            pictures.push_back(cluster.render({frame}).front());
        }
        return pictures;
    }

    render::Studio studio;
};

/// A process that is suspended, and goes on at the end of the test.
class Suspended
{
public:
    explicit Suspended(long long processId) : m_processId(processId)
    {
        kyTest::suspendProcess(m_processId);
    }
    ~Suspended() { kyTest::resumeProcess(m_processId); }

    Suspended(const Suspended&) = delete;
    Suspended& operator=(const Suspended&) = delete;

private:
    long long m_processId;
};

/// Waits until the process has used so much more processor time.
void waitForWork(long long process, double seconds)
{
    const double before = kyTest::getProcessorSeconds(process);
    EXPECT_TRUE(
        kyTest::waitUntil([&] { return kyTest::getProcessorSeconds(process) > before + seconds; }));
}

constexpr const char* s_hangingPattern =
    "Lost server [1-7] on 127.0.0.1:[0-9]+: It gave no answer within [0-9.]+ seconds";

class TALORender : public testing::Test
{
protected:
    using Words = std::vector<std::string>;

    /// The command line for a picture on the nodes.
    Words arguments(const Words& nodes, int servers, const std::string& samples = "2",
                    const Words& more = {}) const
    {
        std::vector<std::string> result{
            m_scene,  "-o",      m_output,    "--servers", std::to_string(servers),
            "--size", "200x150", "--samples", samples};
        for (const std::string& node : nodes) {
            result.insert(result.end(), {"--node", node});
        }
        result.insert(result.end(), more.begin(), more.end());
        return result;
    }

    kyTest::ProgramResult render(const Words& nodes, int servers, const std::string& samples = "2",
                                 const Words& more = {})
    {
        return kyTest::runProgram(renderPath(), arguments(nodes, servers, samples, more));
    }

    kyTest::Picture picture() const { return pictureIn(m_output); }
    kyTest::Picture picture(int number) const
    {
        return pictureIn(m_folder.path("out-000" + std::to_string(number) + ".png"));
    }
    static kyTest::Picture pictureIn(const std::string& path)
    {
        return kyTest::decodePng(kyTest::readFile(path));
    }

    /// Renders with these arguments more, which must succeed without a word and make the picture.
    void expectPicture(const kyTest::Picture& expected, const Words& nodes, int servers,
                       const Words& more)
    {
        const kyTest::ProgramResult result = render(nodes, servers, "2", more);
        EXPECT_EQ(result.exitCode, 0) << testing::PrintToString(more);
        EXPECT_EQ(result.errors, "") << testing::PrintToString(more);
        EXPECT_TRUE(picture() == expected) << testing::PrintToString(more);
        std::filesystem::remove(m_output);
    }

    /// The picture that one server alone makes.
    kyTest::Picture reference(const std::string& samples = "2")
    {
        const Node node;
        const kyTest::ProgramResult result = render({node.address()}, 1, samples);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        const kyTest::Picture reference = picture();
        std::filesystem::remove(m_output);
        return reference;
    }

    /// Waits until so many servers are rendering; returns their process ids.
    static std::vector<long long> waitForRendering(std::size_t count)
    {
        std::vector<long long> servers;
        EXPECT_TRUE(kyTest::waitUntil([&] {
            servers = findServers();
            return servers.size() == count &&
                   std::all_of(servers.begin(), servers.end(), [](long long server) {
                       return kyTest::getProcessorSeconds(server) > 0.1;
                   });
        }));
        return servers;
    }

    static bool haveEnded(const std::vector<long long>& servers, std::chrono::seconds limit)
    {
        return kyTest::waitUntil(
            [&] { return std::none_of(servers.begin(), servers.end(), kyTest::isAlive); }, limit);
    }

    /// What the renderer says of bad input, and that it has ended with 1 and left no file.
    std::string complaint(const std::vector<std::string>& commandLine)
    {
        const std::ptrdiff_t files = m_folder.count();
        const kyTest::ProgramResult result = kyTest::runProgram(renderPath(), commandLine);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.output, "");
        EXPECT_FALSE(std::filesystem::exists(m_output));
        EXPECT_EQ(m_folder.count(), files);
        return result.errors;
    }

    kyTest::Folder m_folder;
    std::string m_scene = m_folder.write("scene.obj", kyTest::makeModel());
    std::string m_output = m_folder.path("out.png");
};

} // namespace

TEST_F(TALORender, fourServersOnTwoNodesMakeThePictureOfOne)
{
    const kyTest::Picture alone = reference();
    EXPECT_EQ(alone.width, 200U);
    EXPECT_EQ(alone.height, 150U);
    EXPECT_NE(std::count(alone.pixels.begin(), alone.pixels.end(), alone.pixels[0]),
              static_cast<std::ptrdiff_t>(alone.pixels.size()));

    const Node one;
    const Node other;
    const kyTest::ProgramResult result = render({one.address(), other.address()}, 4);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(picture() == alone);
    EXPECT_EQ(m_folder.count(), 2);
}

TEST_F(TALORender, printsWhatEachServerDid)
{
    const Node one;
    const Node other;
    const kyTest::ProgramResult result = render({one.address(), other.address()}, 4);
    ASSERT_EQ(result.exitCode, 0);

    std::istringstream lines(result.output);
    std::string line;
    std::getline(lines, line);
    std::istringstream titles(line);
    Words words{std::istream_iterator<std::string>(titles), {}};
    EXPECT_EQ(words, (Words{"node", "server", "tiles", "seconds", "bytes", "sent", "compressed",
                            "received", "compressed"}));
    std::uint64_t allTiles = 0;
    std::uint64_t raw = 0;
    std::uint64_t compressed = 0;
    for (const Node* node : {&one, &other, &one, &other}) {
        std::getline(lines, line);
        std::istringstream fields(line);
        std::string address;
        std::uint64_t id = 0;
        std::uint64_t tiles = 0;
        double seconds = -1.0;
        std::uint64_t sent = 0;
        std::uint64_t sentCompressed = 0;
        std::uint64_t received = 0;
        std::uint64_t receivedCompressed = 0;
        fields >> address >> id >> tiles >> seconds >> sent >> sentCompressed >> received >>
            receivedCompressed;
        EXPECT_EQ(address, node->address());
        EXPECT_TRUE(id == 1 || id == 2) << line;
        EXPECT_GE(seconds, 0.0);
        // The scene and its orders went there, its tiles came back with 12 bytes a pixel.
        EXPECT_GT(sent, 1000U) << line;
        EXPECT_LE(sentCompressed, sent) << line;
        EXPECT_GT(sentCompressed, 100U) << line;
        EXPECT_GE(received, tiles * 12U * 8U * 22U) << line;
        EXPECT_LE(receivedCompressed, received) << line;
        allTiles += tiles;
        raw += sent + received;
        compressed += sentCompressed + receivedCompressed;
    }
    EXPECT_EQ(allTiles, 7U * 5U);
    EXPECT_EQ(numberBehind(result.output, "\nraw:"), raw);
    EXPECT_EQ(numberBehind(result.output, "\ncompressed:"), compressed);
    EXPECT_GT(numberBehind(result.output, "\nscene:"), 1000U);
    EXPECT_THAT(result.output, HasSubstr("bytes left the application for 4 servers, "));
    EXPECT_THAT(result.output,
                HasSubstr("\n" + m_output + ": 200x150, 2 samples per pixel, 24 triangles, "));
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 9);
}

TEST_F(TALORender, serversWithoutEmbreeMakeOnePictureWhateverTheirNumber)
{
    const auto renderPlain = [this](int servers) {
        const Node node({"--server", KY_TEST_BINARY_DIR "/tests/kyTestPlainServer"});
        const kyTest::ProgramResult result = render({node.address()}, servers);
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        const std::string count = std::to_string(servers) + " of " + std::to_string(servers);
        EXPECT_THAT(result.output, HasSubstr("\nrays:       cast without Embree by " + count));
        return picture();
    };
    const kyTest::Picture alone = renderPlain(1);
    EXPECT_GT(std::set<unsigned char>(alone.pixels.begin(), alone.pixels.end()).size(), 10U);
    EXPECT_TRUE(renderPlain(3) == alone);
}

TEST_F(TALORender, everyCompressionMakesTheSamePicture)
{
    const kyTest::Picture alone = reference();
    const Node one;
    const Node other;
    for (const char* method : {"none", "lz4", "zstd"}) {
        expectPicture(alone, {one.address(), other.address()}, 4, {"--image-compression", method});
    }
}

TEST_F(TALORender, picturesAreCompressedOnlyWhenTheyShallBe)
{
    // A white wall compresses well.
    const Node node;
    const auto received = [&](const char* method, const char* kind) {
        const kyTest::ProgramResult result =
            render({node.address()}, 1, "1", {"--image-compression", method});
        const std::string total = result.output.substr(result.output.find(kind));
        return numberBehind(total, "sent, ");
    };
    EXPECT_EQ(received("none", "\nraw:"), received("none", "\ncompressed:"));
    EXPECT_LT(received("zstd", "\ncompressed:"), received("zstd", "\nraw:"));
    EXPECT_EQ(received("zstd", "\nraw:"), received("none", "\nraw:"));
}

TEST_F(TALORender, aRelayMakesTheSamePicture)
{
    const kyTest::Picture alone = reference();
    const Node one;
    const Node other;
    expectPicture(alone, {one.address()}, 4, {"--relay", "tree"});
    expectPicture(alone, {one.address()}, 7, {"--relay", "tree"});
    expectPicture(alone, {one.address(), other.address()}, 5, {"--relay", "tree"});
    expectPicture(alone, {one.address()}, 1, {"--relay", "tree"});
    expectPicture(alone, {one.address()}, 4, {"--relay", "none"});
}

TEST_F(TALORender, withARelayTheSceneLeavesTheApplicationOnceForEachNode)
{
    const Node one;
    const Node other;
    const auto sceneBytes = [&](const Words& nodes, int servers, const char* relay) {
        const kyTest::ProgramResult result = render(nodes, servers, "1", {"--relay", relay});
        EXPECT_EQ(result.exitCode, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        return numberBehind(result.output, "\nscene:");
    };
    const std::uint64_t once = sceneBytes({one.address()}, 1, "none");
    ASSERT_GT(once, 1000U);
    for (const int servers : {2, 4}) {
        EXPECT_EQ(sceneBytes({one.address()}, servers, "none"),
                  once * static_cast<std::uint64_t>(servers));
        EXPECT_EQ(sceneBytes({one.address()}, servers, "tree"), once);
    }
    EXPECT_EQ(sceneBytes({one.address(), other.address()}, 5, "tree"), 2 * once);
}

TEST_F(TALORender, anyNumberOfChannelsMakesTheSamePicture)
{
    const kyTest::Picture alone = reference();
    const Node one;
    const Node other;
    for (const char* channels : {"1,1,1", "3,7,9"}) {
        expectPicture(alone, {one.address(), other.address()}, 3, {"--channels", channels});
        expectPicture(alone, {one.address()}, 3, {"--channels", channels, "--relay", "tree"});
    }
    expectPicture(alone, {one.address()}, 1, {"--channels", "64,64,64"});
}

TEST_F(TALORender, withAKeyTheyMakeTheSamePicture)
{
    const kyTest::Picture alone = reference();
    const std::string key = m_folder.writeSecret("key", kyTest::keyText("5a"));
    const Node one({"--key", key});
    const Node other({"--key", key});
    expectPicture(alone, {one.address(), other.address()}, 4, {"--key", key});
    expectPicture(alone, {one.address()}, 4, {"--key", key, "--relay", "tree"});

    // The servers relay to each other with it, too.
    const auto sceneBytes = [&](int servers) {
        return numberBehind(
            render({one.address()}, servers, "1", {"--key", key, "--relay", "tree"}).output,
            "\nscene:");
    };
    EXPECT_EQ(sceneBytes(4), sceneBytes(1));
}

TEST_F(TALORender, namesTheNodeThatHasAnotherKeyOrNone)
{
    const std::string key = m_folder.writeSecret("key", kyTest::keyText("5a"));
    const std::string wrong = m_folder.writeSecret("wrong", kyTest::keyText("5b"));
    const Node locked({"--key", key});
    const Node open;
    const auto expected = [](const Node& node, const std::string& reason) {
        return "TALORender: " + node.address() + ": " + reason +
               ". The node is left out.\nTALORender: No node can be reached\n";
    };
    EXPECT_EQ(complaint(arguments({locked.address()}, 1, "2", {"--key", wrong})),
              expected(locked, "The other side does not hold this key"));
    EXPECT_EQ(complaint(arguments({locked.address()}, 1)),
              expected(locked, "This connection needs a key, and none was offered"));
    EXPECT_EQ(complaint(arguments({open.address()}, 1, "2", {"--key", key})),
              expected(open, "A key was offered to a side that has none"));
}

TEST_F(TALORender, aNodeThatHoldsTheKeyRendersBesideOneThatDoesNot)
{
    const kyTest::Picture alone = reference();
    const std::string key = m_folder.writeSecret("key", kyTest::keyText("5a"));
    const Node locked({"--key", key});
    const Node open;
    const kyTest::ProgramResult result =
        render({open.address(), locked.address()}, 2, "2", {"--key", key});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "TALORender: " + open.address() +
                                 ": A key was offered to a side that has none. The node is left "
                                 "out.\n");
    EXPECT_TRUE(picture() == alone);
}

TEST_F(TALORender, refusesAKeyFileThatIsMissing)
{
    // One without a name is missing, too: what was to be hidden must not go out in clear.
    for (const std::string& missing : {m_folder.path("missing"), std::string()}) {
        EXPECT_EQ(complaint(arguments({}, 1, "2", {"--key", missing})),
                  "TALORender: Key file '" + missing + "' cannot be read. " +
                      kyTest::missingFileText() + "\n");
    }
}

TEST_F(TALORender, aSequenceGoesAroundTheModelAndBeginsWithTheUsualPicture)
{
    const kyTest::Picture usual = reference();
    const Node one;
    const Node other;
    const kyTest::ProgramResult result =
        render({one.address(), other.address()}, 3, "2", {"--frames", "3"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(m_folder.count(), 4);
    EXPECT_TRUE(picture(1) == usual);

    const render::Studio studio = render::buildStudio(render::importMesh(m_scene), 200.0F / 150.0F);
    Cluster cluster(Cluster::settings(one, 1, false));
    cluster->loadScene(studio.scene);
    for (const int number : {2, 3}) {
        const render::Camera camera = render::orbit(studio.camera, 120.0 * (number - 1));
        EXPECT_TRUE(picture(number) == cluster.render({{camera, 200, 150, 2}}).front());
        EXPECT_FALSE(picture(number) == usual);
    }
    EXPECT_FALSE(picture(2) == picture(3));
    EXPECT_THAT(result.output, HasSubstr("\n" + m_folder.path("out-0001.png") + " to " +
                                         m_folder.path("out-0003.png") + ": 200x150, "));
}

TEST_F(TALORender, inASequenceAServerKilledInTheMiddleCostsNoPixel)
{
    const Stage stage(40);
    const auto frames = stage.frames(5, 160, 4);
    const auto alone = stage.renderAlone(frames);
    for (const bool isRelayed : {false, true}) {
        const Node node;
        Cluster cluster(Cluster::settings(node, 3, isRelayed));
        cluster->loadScene(stage.studio.scene);
        const long long victim = findServers().at(1);
        std::vector<kyTest::Picture> pictures;
        std::size_t finished = 0;
        cluster->render(frames, [&](std::size_t i, const render::Image& image) {
            EXPECT_EQ(i, finished++);
            pictures.push_back({image.getWidth(), image.getHeight(), image.develop()});
            if (i == 1) {
                kyTest::killProcess(victim);
            }
        });
        EXPECT_EQ(cluster.warnings.size(), 1U);
        EXPECT_TRUE(pictures == alone);
    }
}

TEST_F(TALORender, leavesNoServerBehind)
{
    const Node node;
    ASSERT_EQ(render({node.address()}, 2).exitCode, 0);
    EXPECT_TRUE(kyTest::waitUntil([] { return findServers().empty(); }));
}

TEST_F(TALORender, oneServerOnEachNodeUnlessToldOtherwise)
{
    const Node one;
    const Node other;
    const kyTest::ProgramResult result = kyTest::runProgram(
        renderPath(), {m_scene, "-o", m_output, "--node", one.address(), "--node", other.address(),
                       "--size", "20x20", "--samples", "1"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output, HasSubstr("\n" + one.address() + " "));
    EXPECT_THAT(result.output, HasSubstr("\n" + other.address() + " "));
    EXPECT_THAT(result.output, HasSubstr(" for 2 servers, "));
}

TEST_F(TALORender, aServerKilledInTheMiddleCostsNoPixel)
{
    const kyTest::Picture alone = reference(s_longSamples);
    const Node one;
    const Node other;
    kyTest::Program program(renderPath(),
                            arguments({one.address(), other.address()}, 3, s_longSamples));
    kyTest::killProcess(waitForRendering(3)[1]);
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.errors,
                kyTest::matchesRegex("TALORender: Lost server [12] on 127.0.0.1:[0-9]+: .*\n"));
    EXPECT_THAT(result.output, kyTest::containsRegex(" unknown +unknown\n"));
    EXPECT_TRUE(picture() == alone);
}

TEST_F(TALORender, anyRelayingServerKilledBeforeItHasPassedTheSceneOnCostsNoPixel)
{
    const Stage stage(120);
    const auto frames = stage.frames(1, 100, 1);
    const auto alone = stage.renderAlone(frames);
    for (std::size_t victim = 0; victim < 4; ++victim) {
        const Node node;
        Cluster cluster(Cluster::settings(node, 4, true));
        const long long process = findServers().at(victim);
        {
            const Suspended suspended(process);
            auto loading =
                std::async(std::launch::async, [&] { cluster->loadScene(stage.studio.scene); });
            kyTest::killProcess(process);
            loading.get();
        }
        EXPECT_TRUE(cluster.render(frames) == alone);
        cluster->reportTraffic();
        ASSERT_EQ(cluster.warnings.size(), 1U);
        EXPECT_THAT(cluster.warnings[0], testing::StartsWith("Lost server "));
    }
}

TEST_F(TALORender, anyRelayingServerKilledInTheMiddleOfTheSceneCostsNoPixel)
{
    const Stage stage(300);
    const auto frames = stage.frames(1, 100, 1);
    const auto alone = stage.renderAlone(frames);
    for (std::size_t victim = 0; victim < 4; ++victim) {
        const Node node;
        Cluster cluster(Cluster::settings(node, 4, true));
        const long long process = findServers().at(victim);
        auto loading =
            std::async(std::launch::async, [&] { cluster->loadScene(stage.studio.scene); });
        waitForWork(process, 0.02);
        kyTest::killProcess(process);
        loading.get();
        EXPECT_TRUE(cluster.render(frames) == alone);
        EXPECT_EQ(cluster.warnings.size(), 1U);
    }
}

TEST_F(TALORender, anyRelayingServerKilledWhileItRendersCostsNoPixel)
{
    const Stage stage(40);
    const auto frames = stage.frames(1, 240, 8);
    const auto alone = stage.renderAlone(frames);
    for (std::size_t victim = 0; victim < 3; ++victim) {
        const Node node;
        Cluster cluster(Cluster::settings(node, 3, true));
        cluster->loadScene(stage.studio.scene);
        const long long process = findServers().at(victim);
        auto killing = std::async(std::launch::async, [&] {
            waitForWork(process, 0.1);
            kyTest::killProcess(process);
        });
        EXPECT_TRUE(cluster.render(frames) == alone);
        EXPECT_EQ(cluster.warnings.size(), 1U);
    }
}

TEST_F(TALORender, aServerThatIsSuspendedBeforeTheSceneIsLostAndEnded)
{
    // As a relay, and as one that only gets it: which is which, nobody can tell from outside.
    const Stage stage(40);
    const auto frames = stage.frames(1, 100, 1);
    const auto alone = stage.renderAlone(frames);
    for (std::size_t victim = 0; victim < 3; ++victim) {
        const Node node;
        Cluster cluster(Cluster::settings(node, 3, true));
        const long long process = findServers().at(victim);
        const Suspended suspended(process);
        cluster->loadScene(stage.studio.scene);
        ASSERT_EQ(cluster.warnings.size(), 1U);
        EXPECT_THAT(cluster.warnings[0], kyTest::matchesRegex(s_hangingPattern));
        EXPECT_TRUE(cluster.render(frames) == alone);
        EXPECT_EQ(cluster.warnings.size(), 1U);
        EXPECT_TRUE(haveEnded({process}, std::chrono::seconds(15)));
    }
}

TEST_F(TALORender, aServerThatIsSuspendedBeforeAFrameIsLostAndEnded)
{
    const Stage stage(20);
    const auto frames = stage.frames(2, 100, 1);
    const auto alone = stage.renderAlone(frames);
    const Node node;
    Cluster cluster(Cluster::settings(node, 3, false));
    cluster->loadScene(stage.studio.scene);
    const long long process = findServers().at(1);
    const Suspended suspended(process);
    EXPECT_TRUE(cluster.render(frames) == alone);
    ASSERT_EQ(cluster.warnings.size(), 1U);
    EXPECT_THAT(cluster.warnings[0], kyTest::matchesRegex(s_hangingPattern));
    EXPECT_TRUE(haveEnded({process}, std::chrono::seconds(15)));
}

TEST_F(TALORender, aServerThatIsSuspendedWhileItRendersIsLostAndEnded)
{
    const Stage stage(20);
    const auto frames = stage.frames(2, 640, 2);
    const auto alone = stage.renderAlone(frames);
    const Node node;
    Cluster cluster(Cluster::settings(node, 3, false));
    cluster->loadScene(stage.studio.scene);
    const long long process = findServers().at(1);
    std::unique_ptr<Suspended> suspended;
    auto suspending = std::async(std::launch::async, [&] {
        waitForWork(process, 0.1);
        suspended = std::make_unique<Suspended>(process);
    });
    EXPECT_TRUE(cluster.render(frames) == alone);
    suspending.get();
    ASSERT_EQ(cluster.warnings.size(), 1U);
    EXPECT_THAT(cluster.warnings[0], kyTest::matchesRegex(s_hangingPattern));
    EXPECT_TRUE(haveEnded({process}, std::chrono::seconds(15)));
}

TEST_F(TALORender, aServerThatIsSuspendedAfterTheLastFrameDoesNotHoldUpTheReport)
{
    const Stage stage(10);
    const Node node;
    Cluster cluster(Cluster::settings(node, 2, false));
    cluster->loadScene(stage.studio.scene);
    cluster.render(stage.frames(1, 64, 1));
    const Suspended suspended(findServers().front());
    cluster->reportTraffic();
    ASSERT_EQ(cluster.warnings.size(), 1U);
    EXPECT_THAT(cluster.warnings[0], kyTest::matchesRegex(s_hangingPattern));
    int unknown = 0;
    for (const auto& server : cluster->getServers()) {
        unknown += server->getWork().received ? 0 : 1;
    }
    EXPECT_EQ(unknown, 1);
}

TEST_F(TALORender, whatTheHandlerThrowsEndsTheJobWithoutAWord)
{
    const Stage stage(10);
    const Node node;
    Cluster cluster(Cluster::settings(node, 2, false));
    cluster->loadScene(stage.studio.scene);
    std::vector<render::Frame> frames = stage.frames(2, 64, 1);
    frames.push_back(stage.frames(1, 4000, 100'000).front());
    EXPECT_THROW(cluster->render(frames,
                                 [](std::size_t i, const render::Image&) {
                                     if (i == 1) {
                                         throw kyNetError("the disk is full");
                                     }
                                 }),
                 kyNetError);
    EXPECT_TRUE(cluster.warnings.empty());
}

TEST_F(TALORender, allServersButOneKilledCostNoPixel)
{
    const kyTest::Picture alone = reference(s_longSamples);
    const Node node;
    kyTest::Program program(renderPath(), arguments({node.address()}, 3, s_longSamples));
    const std::vector<long long> servers = waitForRendering(3);
    kyTest::killProcess(servers[0]);
    kyTest::killProcess(servers[2]);
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_TRUE(picture() == alone);
}

TEST_F(TALORender, failsWhenNoServerIsLeft)
{
    const Node node;
    kyTest::Program program(renderPath(), arguments({node.address()}, 2, s_endlessSamples));
    for (const long long server : waitForRendering(2)) {
        kyTest::killProcess(server);
    }
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, HasSubstr("TALORender: Lost server 1 on " + node.address() + ": "));
    EXPECT_THAT(result.errors, HasSubstr("TALORender: Lost server 2 on " + node.address() + ": "));
    EXPECT_THAT(result.errors, testing::EndsWith("TALORender: No render server is left\n"));
    EXPECT_EQ(m_folder.count(), 1);
}

TEST_F(TALORender, aServiceThatDiesTakesItsServersWithItAndTheOtherNodeGoesOn)
{
    const kyTest::Picture alone = reference(s_longSamples);
    const Node one;
    auto other = std::make_unique<Node>();
    kyTest::Program program(renderPath(),
                            arguments({one.address(), other->address()}, 2, s_longSamples));
    const std::vector<long long> servers = waitForRendering(2);
    const std::vector<long long> services = kyTest::findDescendants("TALOClusterService");
    ASSERT_EQ(services.size(), 2U);
    kyTest::killProcess(services[1]);
    other.reset();
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_TRUE(picture() == alone);
    EXPECT_TRUE(haveEnded(servers, std::chrono::seconds(15)));
}

TEST_F(TALORender, aBookingThatIsStoppedEndsTheRender)
{
    const Node node;
    std::vector<std::string> commandLine = arguments({node.address()}, 2, s_endlessSamples);
    commandLine.insert(commandLine.end(), {"--booking", "evening"});
    kyTest::Program program(renderPath(), commandLine);
    waitForRendering(2);
    EXPECT_EQ(node.client().status().getBookingIds(),
              (std::vector<std::string>{"evening", "evening"}));
    node.client().stopByBooking("evening");
    const kyTest::ProgramResult result = program.wait();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.errors, testing::EndsWith("TALORender: No render server is left\n"));
}

TEST_F(TALORender, whenItIsKilledItsServersEnd)
{
    const Node node;
    kyTest::Program program(renderPath(), arguments({node.address()}, 2, s_endlessSamples));
    const std::vector<long long> servers = waitForRendering(2);
    for (const long long renderer : kyTest::findDescendants("TALORender")) {
        kyTest::killProcess(renderer);
    }
    EXPECT_TRUE(haveEnded(servers, std::chrono::seconds(15)));
    program.wait();
    EXPECT_EQ(m_folder.count(), 1);
}

TEST_F(TALORender, whenItIsKilledWhileServersRelayTheyEnd)
{
    const Node node;
    std::vector<std::string> commandLine =
        arguments({node.address()}, 4, s_endlessSamples, {"--relay", "tree"});
    kyTest::Program program(renderPath(), commandLine);
    EXPECT_TRUE(kyTest::waitUntil([] { return findServers().size() == 4; }));
    const std::vector<long long> servers = findServers();
    for (const long long renderer : kyTest::findDescendants("TALORender")) {
        kyTest::killProcess(renderer);
    }
    EXPECT_TRUE(haveEnded(servers, std::chrono::seconds(15)));
    program.wait();
}

TEST_F(TALORender, endsOnRequestAndLeavesNothing)
{
    const Node node;
    const std::string others = m_folder.write("out.png.part", "mine");
    for (const bool isTerminated : {true, false}) {
        kyTest::Program program(renderPath(), arguments({node.address()}, 2, s_endlessSamples));
        const std::vector<long long> servers = waitForRendering(2);
        isTerminated ? program.terminate() : program.interrupt();
        const kyTest::ProgramResult result = program.wait();
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.output, "");
        EXPECT_EQ(result.errors, "TALORender: Interrupted\n");
        EXPECT_TRUE(haveEnded(servers, std::chrono::seconds(15)));
    }
    EXPECT_EQ(m_folder.count(), 2);
    EXPECT_EQ(kyTest::readFile(others), "mine");
}

TEST_F(TALORender, aNodeThatCannotBeReachedIsNamedAndTheOthersAreUsed)
{
    const kyTest::Picture alone = reference();
    const Node node;
    const kyTest::ClosedPort closed;
    const std::string port = std::to_string(closed.getPort());
    const kyTest::ProgramResult result = render({"127.0.0.1:" + port, node.address()}, 2);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "TALORender: 127.0.0.1:" + port +
                                 ": Unable to connect to '127.0.0.1' port:" + port + ". " +
                                 std::to_string(kyTest::getRefusedCode()) +
                                 ":Connection refused. The node is left out.\n");
    EXPECT_TRUE(picture() == alone);
}

TEST_F(TALORender, failsWhenNoNodeCanBeReached)
{
    const kyTest::ClosedPort closed;
    const std::string port = std::to_string(closed.getPort());
    EXPECT_EQ(complaint(arguments({"127.0.0.1:" + port}, 2)),
              "TALORender: 127.0.0.1:" + port + ": Unable to connect to '127.0.0.1' port:" + port +
                  ". " + std::to_string(kyTest::getRefusedCode()) +
                  ":Connection refused. The node is left out.\n"
                  "TALORender: No node can be reached\n");
}

TEST_F(TALORender, refusesASceneThatCannotBeRendered)
{
    const auto complaintAbout = [&](const std::string& scene) {
        return complaint({scene, "-o", m_output});
    };
    const auto expected = [](const std::string& scene, const std::string& reason) {
        return "TALORender: Unable to load the scene '" + scene + "': " + reason + "\n";
    };
    const std::string missing = m_folder.path("missing.ply");
    EXPECT_EQ(complaintAbout(missing), expected(missing, "there is no such file"));
    const std::string empty = m_folder.write("empty.ply", "");
    EXPECT_EQ(complaintAbout(empty), expected(empty, "the file is empty"));
    const std::string cut = m_folder.write(
        "cut.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                   "property float z\nelement face 1\nproperty list uchar int vertex_indices\n"
                   "end_header\n0 0 0\n1 0 0\n0 1");
    EXPECT_EQ(complaintAbout(cut), expected(cut, "the file is cut off or damaged"));
    const std::string lines = m_folder.write("lines.obj", "v 0 0 0\nv 1 0 0\nl 1 2\n");
    EXPECT_EQ(complaintAbout(lines), expected(lines, "it holds no triangles"));
}

TEST_F(TALORender, aFullDiskIsAFailure)
{
    if (!std::filesystem::exists("/dev/full")) {
        GTEST_SKIP() << "this system has no /dev/full";
    }
    const Node node;
    m_output = "/dev/full";
    const kyTest::ProgramResult result = render({node.address()}, 1);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "TALORender: Unable to write '/dev/full': No space left on device\n");
}

TEST_F(TALORender, findsOutBeforeRenderingThatNobodyCanWriteThere)
{
    m_output = m_folder.path("missing/out.png");
    EXPECT_EQ(complaint(arguments({}, 1)),
              "TALORender: Unable to write '" + m_output + "': No such file or directory\n");
}

TEST_F(TALORender, wrongUsageHasItsOwnExitCode)
{
    const std::string hint = "\nRun with --help for more information.\n";
    const auto usage = [&](std::vector<std::string> more) {
        more.insert(more.begin(), {m_scene, "-o", m_output});
        const kyTest::ProgramResult result = kyTest::runProgram(renderPath(), more);
        EXPECT_EQ(result.exitCode, 2);
        return result.errors;
    };
    EXPECT_EQ(kyTest::runProgram(renderPath(), {}).exitCode, 2);
    EXPECT_EQ(kyTest::runProgram(renderPath(), {m_scene}).errors, "--output is required" + hint);
    for (const char* size : {"12", "12x", "x12", "0x5", "5x0", "12x13x14", "-4x4", "32769x1",
                             "32768x32768", " 4x4", "4x4 "}) {
        EXPECT_EQ(usage({"--size", size}),
                  "--size: '" + std::string(size) +
                      "' is no size WxH of at most 32768 pixels each way and 256000000 in all" +
                      hint);
    }
    EXPECT_EQ(usage({"--servers", "0"}), "--servers: Value 0 not in range 1 to 1024" + hint);
    for (const char* channels :
         {"1,1", "1,1,1,1", "0,1,1", "1,1,65", "1,1,-1", "1,1,1 ", " 1,1,1", "1;1;1", "a,b,c"}) {
        EXPECT_EQ(usage({"--channels", channels}),
                  "--channels: '" + std::string(channels) +
                      "' is not three numbers SYNC,IMAGE,LATENCY from 1 to 64" + hint);
    }
    EXPECT_EQ(usage({"--image-compression", "best"}),
              "--image-compression: best not in {lz4,none,zstd}" + hint);
    EXPECT_EQ(usage({"--relay", "ring"}), "--relay: ring not in {none,tree}" + hint);
    EXPECT_EQ(usage({"--frames", "0"}), "--frames: Value 0 not in range 1 to 9999" + hint);
    EXPECT_EQ(usage({"--frames", "10000"}), "--frames: Value 10000 not in range 1 to 9999" + hint);
    EXPECT_EQ(usage({"--samples", "0"}), "--samples: Value 0 not in range 1 to 1000000" + hint);
    EXPECT_EQ(usage({"--unknown"}), "The following argument was not expected: --unknown" + hint);
    EXPECT_EQ(m_folder.count(), 1);
}

TEST_F(TALORender, aServerThatBreaksItsPromisesIsLeftOut)
{
    const auto complaintAbout = [&](const char* lie, const std::string& prefix) {
        const LyingNode node(lie);
        std::string errors = complaint(arguments({node.address()}, 1));
        const std::string subject = prefix + "server 1 on " + node.address() + ": ";
        EXPECT_EQ(errors.substr(0, subject.size()), subject);
        return errors.substr(std::min(subject.size(), errors.size()));
    };
    const std::string lost = "TALORender: Lost ";
    const std::string end = "\nTALORender: No render server is left\n";
    EXPECT_EQ(complaintAbout("refusal", "TALORender: A server could not be started: "),
              "not today" + end);
    EXPECT_EQ(complaintAbout("refused setup", lost), "not in this way" + end);
    const std::size_t cut = complaintAbout("long refusal", lost).find_first_not_of('x');
    EXPECT_GT(cut, 4000U);
    EXPECT_LT(cut, 4096U);
    EXPECT_EQ(complaintAbout("exception", lost), "no memory?[2J for the scene" + end);
    EXPECT_EQ(complaintAbout("other tile", lost), "Received a tile that was not ordered" + end);
    EXPECT_EQ(complaintAbout("other frame", lost), "Received a tile that was not ordered" + end);
    EXPECT_EQ(complaintAbout("tile twice", lost), "Received a tile that was not ordered" + end);
    EXPECT_EQ(complaintAbout("other order", lost), "Received an answer to another order" + end);
    EXPECT_EQ(complaintAbout("short tile", lost),
              "kyNetMessage: try to read beyond buffer end." + end);
    EXPECT_EQ(complaintAbout("long tile", lost),
              "Received an answer with more than belongs to it" + end);
    EXPECT_EQ(complaintAbout("huge buffer", lost),
              "Received invalid buffer size. Possibly stream is out of sync." + end);
    EXPECT_EQ(complaintAbout("stream data", lost), "Stream out of sync. Wrong message type" + end);
}

TEST_F(TALORender, besideServersThatLieTheOthersRenderThePicture)
{
    const kyTest::Picture alone = reference();
    const Node honest;
    for (const auto& [lie, reason] :
         {std::pair{"other tile", "Received a tile that was not ordered\n"},
          std::pair{"wrong sync", "It has begun frame 2 instead of 1\n"}}) {
        const LyingNode lying(lie);
        const kyTest::ProgramResult result = render({lying.address(), honest.address()}, 4);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_THAT(result.errors, HasSubstr(reason));
        EXPECT_THAT(result.errors, testing::Not(HasSubstr(honest.address())));
        EXPECT_TRUE(picture() == alone);
    }
}

TEST_F(TALORender, aServerThatBeginsAFrameTwiceIsLostAlone)
{
    const Stage stage(10);
    const Node honest;
    const LyingNode lying("sync twice");
    Cluster::Settings settings = Cluster::settings(lying, 2, false);
    settings.nodes.push_back(honest.nodeAddress());
    Cluster cluster(settings);
    cluster->loadScene(stage.studio.scene);
    cluster.render(stage.frames(2, 64, 1));
    EXPECT_THAT(cluster.warnings, testing::ElementsAre("Lost server 1 on " + lying.address() +
                                                       ": It has begun frame 1 instead of 2"));
}

TEST_F(TALORender, tilesOfTheNextFrameAreOrderedWhileOneOfTheLastIsStillMissing)
{
    // This server keeps it until it gets such an order.
    const Stage stage(10);
    const LyingNode node("late tile");
    Cluster cluster(Cluster::settings(node, 1, false));
    cluster->loadScene(stage.studio.scene);
    EXPECT_EQ(cluster.render(stage.frames(2, 640, 1)).size(), 2U);
    EXPECT_EQ(cluster->getServers().front()->getWork().tiles, 2U * 20U * 15U);
}

TEST_F(TALORender, aServerThatStopsAtAnyStepIsLostAlone)
{
    const render::Studio studio = render::buildStudio(render::importMesh(m_scene), 1.0F);
    for (const std::string lie :
         {"silent scene", "silent sync", "silent tile", "silent end", "dead scene", "dead begin",
          "dead sync", "dead tile", "dead end"}) {
        const Node honest;
        const LyingNode lying(lie.c_str());
        Cluster::Settings settings = Cluster::settings(lying, 2, false);
        settings.nodes.push_back(honest.nodeAddress());
        Cluster cluster(settings);
        cluster->loadScene(studio.scene);
        cluster.render({{studio.camera, 100, 100, 1}});
        cluster->reportTraffic();
        ASSERT_EQ(cluster.warnings.size(), 1U) << lie;
        EXPECT_THAT(cluster.warnings[0], HasSubstr(lying.address())) << lie;
        if (lie.find("silent") == 0) {
            EXPECT_THAT(cluster.warnings[0], kyTest::matchesRegex(s_hangingPattern)) << lie;
        }
        const std::size_t lied = cluster->getServers()[0]->getWork().tiles;
        EXPECT_EQ(lied + cluster->getServers()[1]->getWork().tiles, 16U) << lie;
        EXPECT_TRUE(lied == 0 || lie.find("end") != std::string::npos) << lie;
    }
}
