#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/RenderServer.h>
#include <apps/TALOClusterServer/ServerArguments.h>
#include <apps/common/CommandLine.h>
#include <apps/common/SharedKey.h>

int main(int argc, char** argv)
{
    render::ServerArguments arguments;
    try {
        arguments = render::ServerArguments::parse({argv + 1, argv + argc});
    } catch (const std::exception& e) {
        kyLog::error("TALOClusterServer: %s", e.what());
        return WrongUsage;
    }
    try {
        render::RenderServer(arguments.socketPipe, SharedKey::readFromEnvironment()).run();
        return Done;
    } catch (const std::exception& e) {
        kyLog::error("TALOClusterServer: %s", e.what());
        return Failed;
    }
}
