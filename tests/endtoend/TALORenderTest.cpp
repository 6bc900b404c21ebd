// The renderer, its render servers and the nodes' services, as users meet them: processes.

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <QByteArray>
#include <QtGlobal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <apps/TALORender/RenderCluster.h>
#include <apps/TALORender/SceneImport.h>
#include <apps/TALORender/Studio.h>
#include <apps/common/ServiceClient.h>
#include <tests/apps/kyTestFolder.h>
#include <tests/apps/kyTestPng.h>
#include <tests/support/kyTestProcesses.h>
#include <tests/support/kyTestProgram.h>
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

/// A bent strip of a few triangles: light, shadow and both sides to see.
std::string makeModel()
{
    std::ostringstream obj;
    const int steps = 12;
    for (int i = 0; i <= steps; ++i) {
        const double x = static_cast<double>(i) / steps * 4.0;
        const double y = (i % 2 == 0 ? 0.0 : 1.0) + 0.3 * x;
        obj << "v " << x << ' ' << y << " 0\nv " << x << ' ' << y << " 2\n";
    }
    for (int i = 0; i < steps; ++i) {
        const int first = 2 * i + 1;
        obj << "f " << first << ' ' << first + 2 << ' ' << first + 3 << ' ' << first + 1 << '\n';
    }
    return obj.str();
}

class TALORender : public testing::Test
{
protected:
    /// The command line for a picture on the nodes.
    std::vector<std::string> arguments(const std::vector<std::string>& nodes, int servers,
                                       const std::string& samples = "2") const
    {
        std::vector<std::string> result{
            m_scene,  "-o",      m_output,    "--servers", std::to_string(servers),
            "--size", "200x150", "--samples", samples};
        for (const std::string& node : nodes) {
            result.insert(result.end(), {"--node", node});
        }
        return result;
    }

    kyTest::ProgramResult render(const std::vector<std::string>& nodes, int servers,
                                 const std::string& samples = "2")
    {
        return kyTest::runProgram(renderPath(), arguments(nodes, servers, samples));
    }

    kyTest::Picture picture() const { return kyTest::decodePng(kyTest::readFile(m_output)); }

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
        const kyTest::ProgramResult result = kyTest::runProgram(renderPath(), commandLine);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.output, "");
        EXPECT_FALSE(std::filesystem::exists(m_output));
        EXPECT_FALSE(std::filesystem::exists(m_output + ".part"));
        return result.errors;
    }

    kyTest::Folder m_folder;
    std::string m_scene = m_folder.write("scene.obj", makeModel());
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
    std::vector<std::string> words{std::istream_iterator<std::string>(titles), {}};
    EXPECT_EQ(words, (std::vector<std::string>{"node", "server", "tiles", "seconds", "bytes",
                                               "sent", "bytes", "received"}));
    std::size_t allTiles = 0;
    for (const Node* node : {&one, &other, &one, &other}) {
        std::getline(lines, line);
        std::istringstream fields(line);
        std::string address;
        std::size_t id = 0;
        std::size_t tiles = 0;
        double seconds = -1.0;
        std::size_t sent = 0;
        std::size_t received = 0;
        fields >> address >> id >> tiles >> seconds >> sent >> received;
        EXPECT_EQ(address, node->address());
        EXPECT_TRUE(id == 1 || id == 2) << line;
        EXPECT_GE(seconds, 0.0);
        // The scene and its orders went there, its tiles came back with 12 bytes a pixel.
        EXPECT_GT(sent, 1000U) << line;
        EXPECT_GE(received, tiles * 12U) << line;
        allTiles += tiles;
    }
    EXPECT_EQ(allTiles, 7U * 5U);
    std::getline(lines, line);
    EXPECT_THAT(line, HasSubstr(m_output + ": 200x150, 2 samples per pixel, 24 triangles, "));
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
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 4);
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
                testing::MatchesRegex("TALORender: Lost server [12] on 127.0.0.1:[0-9]+: .*\n"));
    EXPECT_TRUE(picture() == alone);
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
    EXPECT_EQ(complaintAbout("exception", lost), "no memory?[2J for the scene" + end);
    EXPECT_EQ(complaintAbout("other tile", lost), "Received a tile that was not ordered" + end);
    EXPECT_EQ(complaintAbout("short tile", lost), "Received an invalid tile: 12292 bytes" + end);
    EXPECT_EQ(complaintAbout("huge buffer", lost),
              "Received invalid buffer size. Possibly stream is out of sync." + end);
    EXPECT_EQ(complaintAbout("message", lost),
              "Stream out of sync. Stream expected at 1 from 2 to 1" + end);
}

TEST_F(TALORender, serversOutOfStepAreAFailure)
{
    const LyingNode node("wrong sync");
    EXPECT_EQ(complaint(arguments({node.address()}, 2)),
              "TALORender: The servers are out of step\n");
}

TEST_F(TALORender, besideAServerThatLiesTheOthersRenderThePicture)
{
    const kyTest::Picture alone = reference();
    const Node honest;
    const LyingNode lying("other tile");
    const kyTest::ProgramResult result = render({lying.address(), honest.address()}, 4);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_THAT(result.errors, HasSubstr("Received a tile that was not ordered\n"));
    EXPECT_TRUE(picture() == alone);
}

TEST_F(TALORender, aServerThatHangsIsLostWhenItsTimeIsOver)
{
    const Node honest;
    const LyingNode hanging("silence");
    render::RenderCluster::Settings settings;
    settings.nodes = {NodeAddress::parse(hanging.address()), NodeAddress::parse(honest.address())};
    settings.servers = 2;
    settings.patience = 4.0;
    std::string warnings;
    render::RenderCluster cluster(settings, [&](const std::string& text) { warnings += text; });
    render::Studio studio = render::buildStudio(render::importMesh(m_scene), 1.0F);
    cluster.loadScene(studio.scene);
    cluster.render({studio.camera, 100, 100, 1});
    EXPECT_EQ(warnings,
              "Lost server 1 on " + hanging.address() +
                  ": recv error: Connected party did not properly respond after a period of time.");
    EXPECT_EQ(cluster.getServers()[0]->getWork().tiles, 0U);
    EXPECT_EQ(cluster.getServers()[1]->getWork().tiles, 16U);
}
