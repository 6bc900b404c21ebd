#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <QCoreApplication>

#include <NetBase/buffers/kyNetOptions.h>
#include <VersionInfo/kyVersionInfo.h>
#include <apps/TALOClusterControl/NodeReport.h>
#include <apps/TALOClusterControl/ReportPrinter.h>
#include <apps/common/CommandLine.h>
#include <apps/common/NodeAddress.h>
#include <apps/common/ServiceClient.h>
#include <apps/common/SharedKey.h>
#include <apps/common/platform/Terminal.h>

namespace {

/// What is asked of every node: fills the report in, throws if the node cannot do it.
using Operation = std::function<void(const ServiceClient&, NodeReport&)>;

/// The command line.
struct Arguments
{
    std::vector<std::string> nodes;
    std::string relay;
    std::optional<std::string> keyFile;
    std::shared_ptr<const SharedKey> key;
    bool asJson = false;
    ServiceClient::ServerSettings server;
    std::uint32_t serverId = 0;
    std::string bookingId;
    Operation operation;
    bool isRepeated = false;
    double interval = 2.0; ///< seconds between two repetitions
};

void describeStart(CLI::App& program, Arguments& arguments)
{
    CLI::App& start = *program.add_subcommand("start", "Start a render server");
    ServiceClient::ServerSettings& server = arguments.server;
    start.add_option("ARGUMENTS", server.arguments, "Last argument of its command line");
    start.add_option("--booking", server.bookingId, "Booking id that it belongs to");
    start.add_flag("--display", server.hasDisplay, "It may use the display; without it gets -P");
    start.add_flag("--stereo", server.isStereo, "With --display: it gets -s");
    start.add_flag("-Z", server.flagZ, "It gets -Z");
    start.add_flag("-t", server.flagT, "It gets -t");
    start.add_flag("--ta", server.flagTA, "With -t: it gets -ta instead");
    start.callback([&arguments] {
        arguments.operation = [&arguments](const ServiceClient& client, NodeReport& report) {
            report.serverId = client.startServer(arguments.server).id;
        };
    });
}

void describeStops(CLI::App& program, Arguments& arguments)
{
    CLI::App& stop = *program.add_subcommand("stop", "Ask a render server to end");
    stop.add_option("ID", arguments.serverId, "Its id, as start has printed it")->required();
    stop.callback([&arguments] {
        arguments.operation = [&arguments](const ServiceClient& client, NodeReport&) {
            client.stopServer(arguments.serverId);
        };
    });

    CLI::App& stopBooking =
        *program.add_subcommand("stop-booking", "Ask all render servers of a booking to end");
    stopBooking.add_option("ID", arguments.bookingId, "The booking id")
        ->required()
        ->check([](const std::string& id) {
            return id.empty() ? "an empty id would stop every server that nobody booked" : "";
        });
    stopBooking.callback([&arguments] {
        arguments.operation = [&arguments](const ServiceClient& client, NodeReport&) {
            client.stopByBooking(arguments.bookingId);
        };
    });

    program.add_subcommand("stop-service", "End the service and its render servers")
        ->callback([&arguments] {
            arguments.operation = [](const ServiceClient& client, NodeReport&) {
                client.stopService();
            };
        });
}

void askForStatus(const ServiceClient& client, NodeReport& report)
{
    report.status = client.status();
}

void describeQuestions(CLI::App& program, Arguments& arguments)
{
    program.add_subcommand("status", "Show what runs on the nodes")->callback([&arguments] {
        arguments.operation = askForStatus;
    });
    CLI::App& watch =
        *program.add_subcommand("watch", "Show what runs on the nodes, again and again");
    watch.add_option("--interval", arguments.interval, "Seconds between two looks")
        ->check(CLI::Range(0.1, 86400.0))
        ->capture_default_str();
    watch.callback([&arguments] {
        arguments.operation = askForStatus;
        arguments.isRepeated = true;
    });
    program.add_subcommand("ping", "Measure how long connecting to the service takes")
        ->callback([&arguments] {
            arguments.operation = [](const ServiceClient& client, NodeReport& report) {
                report.seconds = client.ping();
            };
        });
}

NodeReport ask(const ServiceClient& client, const Operation& operation)
{
    NodeReport report;
    report.node = client.getNode().toString();
    try {
        operation(client, report);
    } catch (const std::exception& e) {
        report.error = e.what();
    }
    return report;
}

/// All nodes at once: one that does not answer holds up no other.
std::vector<NodeReport> askAll(const Arguments& arguments)
{
    std::optional<NodeAddress> relay;
    if (!arguments.relay.empty()) {
        relay = NodeAddress::parse(arguments.relay);
    }
    std::vector<std::future<NodeReport>> answers;
    for (const std::string& node : arguments.nodes) {
        answers.push_back(std::async(std::launch::async, ask,
                                     ServiceClient(NodeAddress::parse(node), relay, arguments.key),
                                     arguments.operation));
    }
    std::vector<NodeReport> reports;
    reports.reserve(answers.size());
    for (auto& answer : answers) {
        reports.push_back(answer.get());
    }
    return reports;
}

/// Prints the reports, the failures last; the exit code that they are worth.
ExitCode show(const std::vector<NodeReport>& reports, bool asJson)
{
    std::fputs((asJson ? formatJson(reports) : formatTable(reports)).c_str(), stdout);
    const bool isWritten = std::fflush(stdout) == 0;
    if (!asJson) {
        std::fputs(formatErrors(reports).c_str(), stderr);
    }
    const bool isDone = std::all_of(reports.begin(), reports.end(),
                                    [](const NodeReport& report) { return report.isDone(); });
    return isDone && isWritten ? Done : Failed;
}

/// Asks until the program is ended, which harms nothing at any time.
[[noreturn]] void watch(const Arguments& arguments)
{
    for (;;) {
        const std::vector<NodeReport> reports = askAll(arguments);
        terminal::clearStandardOutput();
        show(reports, arguments.asJson);
        std::this_thread::sleep_for(std::chrono::duration<double>(arguments.interval));
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);

    Arguments arguments;
    CLI::App program("Asks the cluster services of one or more nodes, and tells them what to do.");
    program.set_version_flag("--version", kyVersionInfo::the().getVersionString());
    program.fallthrough();
    program.require_subcommand(1);
    program.add_option("--node", arguments.nodes, "Node to ask; may be given again")
        ->check(readableBy(&NodeAddress::parse, "HOST[:PORT]"))
        ->allow_extra_args(false)
        ->default_str("127.0.0.1:" + std::to_string(kyNetOptions::getDefaultServicePort()));
    program.add_option("--via", arguments.relay, "Service through which the nodes are reached")
        ->check(readableBy(&NodeAddress::parse, "HOST[:PORT]"));
    program.add_option("--key", arguments.keyFile,
                       "File with the key that the services hold, the relay's included");
    program.add_flag("--json", arguments.asJson, "Print the answers as JSON");
    describeQuestions(program, arguments);
    describeStart(program, arguments);
    describeStops(program, arguments);

    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return report(program, e);
    }
    if (arguments.nodes.empty()) {
        arguments.nodes = {"127.0.0.1"};
    }

    try {
        arguments.key = arguments.keyFile ? SharedKey::read(*arguments.keyFile) : nullptr;
        if (arguments.isRepeated) {
            watch(arguments);
        }
        return show(askAll(arguments), arguments.asJson);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "TALOClusterControl: %s\n", e.what());
        return Failed;
    }
}
