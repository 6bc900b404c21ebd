// The operator's tool, run against daemons and against services that misbehave.

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetServiceCommand.h>
#include <NetBase/service/kyNetServiceStatus.h>
#include <apps/common/ServiceClient.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestKey.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestProgram.h>
#include <tests/support/kyTestRegex.h>
#include <tests/support/kyTestWait.h>

namespace {

using Arguments = std::vector<std::string>;

/// A daemon of a node.
class Node
{
public:
    explicit Node(const Arguments& arguments = {})
        : m_program(kyTest::programPath("TALOClusterService"), withDefaults(arguments))
    {
        const std::string line = m_program.readLine();
        m_port = std::stoi(line.substr(line.rfind(' ')));
    }

    std::string name() const { return "127.0.0.1:" + std::to_string(m_port); }
    ServiceClient client() const { return ServiceClient(NodeAddress{"127.0.0.1", m_port}); }
    kyTest::Program& program() { return m_program; }

private:
    static Arguments withDefaults(Arguments arguments)
    {
        arguments.insert(arguments.begin(),
                         {"--port", "0", "--server", kyTest::childProgram("kyTestRenderServer")});
        return arguments;
    }

    kyTest::Program m_program;
    int m_port = 0;
};

/// A port at which nobody listens.
std::string deadNode()
{
    const kyBoundSocketLink closed(0);
    return "127.0.0.1:" + std::to_string(closed.getAddress().getPort());
}

kyTest::ProgramResult control(const Arguments& arguments)
{
    return kyTest::runProgram(kyTest::programPath("TALOClusterControl"), arguments);
}

nlohmann::json controlJson(Arguments arguments)
{
    arguments.push_back("--json");
    return nlohmann::json::parse(control(arguments).output);
}

} // namespace

TEST(TALOClusterControl, statusIsATable)
{
    Node node;
    ServiceClient::ServerSettings settings;
    settings.bookingId = "blue";
    const auto server = node.client().startServer(settings);
    const kyTest::ProgramResult result = control({"status", "--node", node.name()});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.errors, "");
    EXPECT_THAT(result.output,
                kyTest::matchesRegex("NODE +VERSION +SERVERS +FREE MEMORY +BOOKINGS\n" +
                                     node.name() + " +11.0 +1 +[0-9.]+ GiB( or more)? +blue\n"));
}

TEST(TALOClusterControl, statusIsJson)
{
    Node node;
    ServiceClient::ServerSettings settings;
    settings.bookingId = "blue \"sky\"";
    const auto server = node.client().startServer(settings);
    const nlohmann::json answers = controlJson({"--node", node.name(), "status"});
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0]["node"], node.name());
    EXPECT_EQ(answers[0]["done"], true);
    EXPECT_EQ(answers[0]["status"]["running"], true);
    EXPECT_EQ(answers[0]["status"]["version"], "11.0");
    EXPECT_EQ(answers[0]["status"]["servers"], 1);
    EXPECT_EQ(answers[0]["status"]["cpuUsage"], 0.0);
    EXPECT_GT(answers[0]["status"]["freeMemory"], 0);
    EXPECT_EQ(answers[0]["status"]["bookings"], nlohmann::json::array({"blue \"sky\""}));
}

TEST(TALOClusterControl, unreachableNodeIsNamedAndTheOthersAreAsked)
{
    Node first;
    Node second;
    const std::string dead = deadNode();
    const Arguments nodes{"--node", first.name(), "--node", dead, "--node", second.name()};
    Arguments arguments{"status"};
    arguments.insert(arguments.end(), nodes.begin(), nodes.end());

    const kyTest::ProgramResult result = control(arguments);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, testing::HasSubstr("\n" + first.name() + " "));
    EXPECT_THAT(result.output, testing::HasSubstr("\n" + second.name() + " "));
    EXPECT_THAT(result.output, testing::Not(testing::HasSubstr(dead)));
    EXPECT_THAT(result.errors, testing::StartsWith(dead + ": Unable to connect to '127.0.0.1'"));

    const nlohmann::json answers = controlJson(arguments);
    ASSERT_EQ(answers.size(), 3U);
    EXPECT_EQ(answers[0]["done"], true);
    EXPECT_EQ(answers[1]["node"], dead);
    EXPECT_EQ(answers[1]["done"], false);
    EXPECT_THAT(answers[1]["error"].get<std::string>(), testing::StartsWith(dead + ": "));
    EXPECT_EQ(answers[2]["done"], true);
}

TEST(TALOClusterControl, serversAreStartedAndStopped)
{
    Node node;
    const kyTest::ProgramResult started = control(
        {"start", "--node", node.name(), "--booking", "blue", "--display", "-Z", "scene one"});
    EXPECT_EQ(started.exitCode, 0) << started.errors;
    EXPECT_THAT(started.output, kyTest::matchesRegex("NODE +SERVER\n" + node.name() + " +1\n"));
    EXPECT_THAT(node.client().status().getBookingIds(), testing::ElementsAre("blue"));

    EXPECT_EQ(controlJson({"start", "--node", node.name()})[0]["server"], 2);
    EXPECT_EQ(node.client().status().getNumberOfClusterServers(), 2);

    const kyTest::ProgramResult stopped = control({"stop", "1", "--node", node.name()});
    EXPECT_EQ(stopped.exitCode, 0);
    EXPECT_THAT(stopped.output, kyTest::matchesRegex("NODE +RESULT\n" + node.name() + " +done\n"));
    EXPECT_EQ(node.client().status().getNumberOfClusterServers(), 1);

    const kyTest::ProgramResult unknown = control({"stop", "1", "--node", node.name()});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_EQ(unknown.errors, node.name() + ": Unknown server:1\n");
}

TEST(TALOClusterControl, startedServerGetsItsSwitches)
{
    Node node;
    EXPECT_EQ(control({"start", "--node", node.name(), "--display", "--stereo", "-Z", "-t", "--ta",
                       "scene one"})
                  .exitCode,
              0);
    kyNetStream stream(node.client().connectServer(1));
    stream << "command line";
    stream.flush();
    std::string answer;
    stream >> answer;
    EXPECT_THAT(answer, testing::StartsWith("[-Z][-s][-ta][-socketpipe="));
    EXPECT_THAT(answer, testing::EndsWith("][scene one]"));
}

TEST(TALOClusterControl, bookingIsStopped)
{
    Node node;
    ServiceClient::ServerSettings settings;
    settings.bookingId = "blue";
    const auto booked = node.client().startServer(settings);
    const auto other = node.client().startServer({});
    EXPECT_EQ(control({"stop-booking", "blue", "--node", node.name()}).exitCode, 0);
    EXPECT_EQ(node.client().status().getNumberOfClusterServers(), 1);
    EXPECT_EQ(control({"stop-booking", "nobody's", "--node", node.name()}).exitCode, 0);
}

TEST(TALOClusterControl, emptyBookingIdIsWrongUsage)
{
    Node node;
    const auto server = node.client().startServer({});
    EXPECT_EQ(control({"stop-booking", "", "--node", node.name()}).exitCode, 2);
    EXPECT_EQ(node.client().status().getNumberOfClusterServers(), 1);
}

TEST(TALOClusterControl, serviceIsStopped)
{
    Node node;
    EXPECT_EQ(control({"stop-service", "--node", node.name()}).exitCode, 0);
    EXPECT_EQ(node.program().wait().exitCode, 0);
    EXPECT_EQ(control({"stop-service", "--node", node.name()}).exitCode, 1);
}

TEST(TALOClusterControl, watchShowsWhatChanges)
{
    Node node;
    kyTest::Program watch(kyTest::programPath("TALOClusterControl"),
                          {"watch", "--interval", "0.1", "--node", node.name()});
    const auto readRow = [&] {
        EXPECT_THAT(watch.readLine(), testing::StartsWith("NODE "));
        return watch.readLine();
    };
    EXPECT_THAT(readRow(), kyTest::matchesRegex(node.name() + " +11.0 +0 .*"));
    const auto server = node.client().startServer({});
    EXPECT_TRUE(kyTest::waitUntil([&] {
        return testing::Value(readRow(), kyTest::matchesRegex(node.name() + " +11.0 +1 .*"));
    }));
    watch.interrupt();
    watch.wait();
}

TEST(TALOClusterControl, watchGoesOnWithoutTheNode)
{
    auto node = std::make_unique<Node>();
    const std::string name = node->name();
    kyTest::Program watch(kyTest::programPath("TALOClusterControl"),
                          {"watch", "--interval", "0.1", "--node", name, "--json"});
    const auto waitFor = [&](const std::string& line) {
        return kyTest::waitUntil([&] { return watch.readLine() == line; });
    };
    EXPECT_TRUE(waitFor("\"done\": true,"));
    node.reset();
    EXPECT_TRUE(waitFor("\"done\": false,"));
    EXPECT_TRUE(waitFor("\"done\": false,"));
    watch.interrupt();
    watch.wait();
}

TEST(TALOClusterControl, pingTellsSeconds)
{
    Node node;
    const kyTest::ProgramResult result = control({"ping", "--node", node.name()});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.output,
                kyTest::matchesRegex("NODE +SECONDS\n" + node.name() + " +[0-9]+.[0-9]+\n"));
    EXPECT_GT(controlJson({"ping", "--node", node.name()})[0]["seconds"], 0.0);
}

TEST(TALOClusterControl, nodesAreReachedThroughARelay)
{
    Node relay;
    Node far;
    EXPECT_EQ(controlJson({"start", "--node", far.name(), "--via", relay.name()})[0]["server"], 1);
    EXPECT_EQ(far.client().status().getNumberOfClusterServers(), 1);

    const std::string dead = deadNode();
    const kyTest::ProgramResult result =
        control({"status", "--node", far.name(), "--node", dead, "--via", relay.name()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.output, testing::HasSubstr(far.name() + " "));
    EXPECT_EQ(result.errors,
              dead + " through " + relay.name() + ": the relay cannot reach the node\n");
}

TEST(TALOClusterControl, keyOpensTheNodesThatHoldIt)
{
    const kyTest::Folder folder;
    const std::string key = folder.writeSecret("key", kyTest::keyText("01"));
    Node node({"--key", key});
    EXPECT_EQ(controlJson({"start", "--node", node.name(), "--key", key})[0]["server"], 1);
    EXPECT_EQ(controlJson({"--key", key, "status", "--node", node.name(), "--via",
                           node.name()})[0]["status"]["servers"],
              1);
    EXPECT_GT(controlJson({"ping", "--node", node.name(), "--key", key})[0]["seconds"], 0.0);
    EXPECT_EQ(control({"stop-service", "--node", node.name(), "--key", key}).exitCode, 0);
    EXPECT_EQ(node.program().wait().exitCode, 0);
}

TEST(TALOClusterControl, keyThatDoesNotFitIsAFailureOfThatNode)
{
    const kyTest::Folder folder;
    const std::string key = folder.writeSecret("key", kyTest::keyText("01"));
    const std::string other = folder.writeSecret("other", kyTest::keyText("02"));
    Node keyed({"--key", key});
    Node open;
    const auto errorsOf = [&](Arguments arguments) {
        arguments.insert(arguments.begin(), {"status", "--node", keyed.name()});
        const kyTest::ProgramResult result = control(arguments);
        EXPECT_EQ(result.exitCode, 1);
        return result.errors;
    };
    EXPECT_EQ(errorsOf({"--key", other}),
              keyed.name() + ": The other side does not hold this key\n");
    EXPECT_EQ(errorsOf({}), keyed.name() + ": This connection needs a key, and none was offered\n");
    EXPECT_EQ(errorsOf({"--node", open.name(), "--key", key}),
              open.name() + ": A key was offered to a side that has none\n");
}

TEST(TALOClusterControl, keyFileThatIsNoneIsAFailure)
{
    const kyTest::Folder folder;
    const std::string path = folder.path("none");
    const kyTest::ProgramResult result = control({"status", "--key", path});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "TALOClusterControl: Key file '" + path + "' cannot be read. " +
                                 kyTest::missingFileText() + "\n");
    EXPECT_EQ(control({"status", "--key"}).exitCode, 2);
}

TEST(TALOClusterControl, whatANodeSaysControlsNoTerminal)
{
    kyBoundSocketLink listener(0);
    const std::string name = "127.0.0.1:" + std::to_string(listener.getAddress().getPort());
    auto service = std::async(std::launch::async, [&] {
        for (int i = 0; i < 2; ++i) {
            const auto link = std::make_shared<kySocketLink>(listener);
            std::uint32_t word = 0;
            link->recv(&word, sizeof(word));
            link->send(&word, sizeof(word));
            kyNetStream stream(link);
            kyNetServiceCommand command{};
            stream >> command;
            kyNetServiceStatus status;
            // An escape, the same as one character beyond ASCII, half a character.
            status.setVersion("11\x1b[2J\xc2\x9b\xc3\xa4\xff\n");
            stream.sendSuccess() << status;
            stream.flush();
        }
    });
    const kyTest::ProgramResult table = control({"status", "--node", name});
    EXPECT_EQ(table.exitCode, 0);
    EXPECT_EQ(table.output.find('\x1b'), std::string::npos);
    EXPECT_THAT(table.output, testing::HasSubstr(" 11?[2J?\xc3\xa4\xef\xbf\xbd? "));
    EXPECT_EQ(controlJson({"status", "--node", name})[0]["status"]["version"],
              "11\x1b[2J\xc2\x9b\xc3\xa4\xef\xbf\xbd\n");
    service.get();
}

TEST(TALOClusterControl, serviceThatTalksNonsenseIsAFailureOfThatNode)
{
    kyBoundSocketLink listener(0);
    const std::string name = "127.0.0.1:" + std::to_string(listener.getAddress().getPort());
    auto service = std::async(std::launch::async, [&] {
        kySocketLink link(listener);
        std::uint32_t word = 0;
        link.recv(&word, sizeof(word));
        link.send("SSH-", 4);
    });
    const kyTest::ProgramResult result = control({"status", "--node", name});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, name + ": Unexpected respnse from server\n");
    service.get();
}

TEST(TALOClusterControl, wrongUsageIsToldByItsExitCode)
{
    const std::vector<Arguments> wrong{
        {},
        {"--json"},
        {"no-such-command"},
        {"status", "--node"},
        {"status", "--node", ""},
        {"status", "--node", "node7:70000"},
        {"status", "--node", "node7:99999999999999999999"},
        {"status", "--node", "[::1"},
        {"status", "--via", ":"},
        {"status", "--no-such-option"},
        {"status", "ping"},
        {"stop"},
        {"stop", "x"},
        {"stop", "-1"},
        {"stop-booking"},
        {"watch", "--interval", "0"},
        {"watch", "--interval", "x"},
    };
    for (const Arguments& arguments : wrong) {
        const kyTest::ProgramResult result = control(arguments);
        EXPECT_EQ(result.exitCode, 2) << testing::PrintToString(arguments);
        EXPECT_NE(result.errors, "");
        EXPECT_EQ(result.output, "");
    }
}

TEST(TALOClusterControl, helpAndVersionArePrinted)
{
    EXPECT_EQ(control({"--help"}).exitCode, 0);
    EXPECT_EQ(control({"start", "--help"}).exitCode, 0);
    EXPECT_EQ(control({"--version"}).output, "11.0\n");
}
