#include <apps/TALOClusterServer/ServerArguments.h>

#include <gtest/gtest.h>

#include <QByteArray>
#include <QtGlobal>

#include <tests/support/kyTestMessage.h>

using render::ServerArguments;

namespace {

/// The variable by which older clients' servers learn of their pipe; gone with the object.
class PipeVariable
{
public:
    explicit PipeVariable(const QByteArray& value) { qputenv("TALO_LOCAL_SERVICE", value); }
    ~PipeVariable() { qunsetenv("TALO_LOCAL_SERVICE"); }
};

} // namespace

TEST(ServerArguments, everySwitchHasItsMeaning)
{
    const ServerArguments all =
        ServerArguments::parse({"-Z", "-s", "-ta", "-socketpipe=\\\\.\\pipe\\a b", "-Z"});
    EXPECT_TRUE(all.flagZ);
    EXPECT_TRUE(all.hasDisplay);
    EXPECT_TRUE(all.isStereo);
    EXPECT_TRUE(all.flagT);
    EXPECT_TRUE(all.flagTA);
    EXPECT_EQ(all.socketPipe, "\\\\.\\pipe\\a b");
    EXPECT_EQ(all.application, "-Z");

    const ServerArguments few = ServerArguments::parse({"-P", "-t", "-socketpipe=x", ""});
    EXPECT_FALSE(few.flagZ);
    EXPECT_FALSE(few.hasDisplay);
    EXPECT_FALSE(few.isStereo);
    EXPECT_TRUE(few.flagT);
    EXPECT_FALSE(few.flagTA);
    EXPECT_EQ(few.socketPipe, "x");
    EXPECT_EQ(few.application, "");
}

TEST(ServerArguments, theVariableNamesThePipeWhereNoArgumentDoes)
{
    const PipeVariable variable("from the environment");
    EXPECT_EQ(ServerArguments::parse({"-P", ""}).socketPipe, "from the environment");
    EXPECT_EQ(ServerArguments::parse({"-P", "-socketpipe=x", ""}).socketPipe, "x");
}

TEST(ServerArguments, theApplicationsTextNamesNoPipe)
{
    const ServerArguments result =
        ServerArguments::parse({"-socketpipe=the service's", "-socketpipe=another"});
    EXPECT_EQ(result.socketPipe, "the service's");
    EXPECT_EQ(result.application, "-socketpipe=another");
}

TEST(ServerArguments, refusesAnUnknownSwitch)
{
    EXPECT_EQ(kyTest::messageOf([] {
                  ServerArguments::parse({"-x", "-socketpipe=x", ""});
              }),
              "Unknown argument '-x'");
}

TEST(ServerArguments, refusesToServeNobody)
{
    EXPECT_EQ(kyTest::messageOf([] { ServerArguments::parse({}); }),
              "No socket pipe. This program is started by a cluster service, which names its pipe "
              "with -socketpipe=NAME or in TALO_LOCAL_SERVICE.");
}
