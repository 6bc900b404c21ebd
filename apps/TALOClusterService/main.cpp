#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <QCoreApplication>

#include <NetBase/buffers/kyNetOptions.h>
#include <Utils/kyLog.h>
#include <VersionInfo/kyVersionInfo.h>
#include <apps/TALOClusterService/ClusterDaemon.h>
#include <apps/common/CommandLine.h>
#include <apps/common/SharedKey.h>
#include <apps/common/platform/TerminationSignal.h>

namespace {

/// Tells the render servers, which inherit the variable, where the key is. One that somebody else
/// has set is none of this service's.
void publishKeyFile(const std::optional<std::string>& file)
{
    if (file) {
        const std::string path = std::filesystem::absolute(*file).string();
        qputenv(SharedKey::s_fileVariable, QByteArray::fromStdString(path));
    } else {
        qunsetenv(SharedKey::s_fileVariable);
    }
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);

    ClusterDaemon::Settings settings;
    settings.port = kyNetOptions::getDefaultServicePort();
    std::vector<std::string> allowed;
    std::optional<std::string> keyFile;
    bool isQuiet = false;

    CLI::App program("The cluster service of a node: starts render servers for clients and leads "
                     "clients to them. SIGTERM and Ctrl-C end it and its servers.");
    program.set_version_flag("--version", kyVersionInfo::the().getVersionString());
    program.add_option("--port", settings.port, "Port to listen on, 0 for any that is free")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    program.add_option("--server", settings.serverPath,
                       "Executable of the render server (default: the TALOClusterServer that "
                       "belongs to the client's version)");
    const auto readRange = [](const std::string& text) { return AddressRange(text); };
    program
        .add_option(
            "--allow", allowed,
            "Addresses that clients may come from; may be given again (default: the machine "
            "itself, 127.0.0.0/8 and ::1). Whoever may connect may start programs here")
        ->check(readableBy(readRange, "ADDRESS[/BITS]"))
        ->allow_extra_args(false);
    program.add_option("--key", keyFile,
                       "File with the key that clients have to hold; render servers use it, too");
    program.add_flag("--quiet", isQuiet, "Print errors only, and nothing of what servers print");

    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return report(program, e);
    }
    std::transform(allowed.begin(), allowed.end(), std::back_inserter(settings.allowed), readRange);
    if (settings.allowed.empty()) {
        settings.allowed = AddressRange::loopback();
    }
    settings.logsServerOutput = !isQuiet;

    try {
        publishKeyFile(keyFile); // while this is the only thread
        settings.key = keyFile ? SharedKey::read(*keyFile) : nullptr;
        ClusterDaemon daemon(settings);
        const TerminationSignal signal([&daemon] { daemon.stop(); });
        if (!isQuiet) {
            std::printf("listening on port %d\n", daemon.getPort());
            std::fflush(stdout);
        }
        daemon.run();
    } catch (const std::exception& e) {
        kyLog::error("TALOClusterService: %s\n", e.what());
        return Failed;
    }
    return Done;
}
