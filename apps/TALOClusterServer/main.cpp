#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include <Utils/kyLog.h>
#include <apps/TALOClusterServer/RayCaster.h>
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
    if (render::RayCaster::s_isPlain) {
        std::puts("TALOClusterServer: casts rays without Embree, for pictures of its own");
        std::fflush(stdout);
    }
    try {
        render::RenderServer(arguments.socketPipe, SharedKey::readFromEnvironment()).run();
        return Done;
    } catch (const std::exception& e) {
        kyLog::error("TALOClusterServer: %s", e.what());
        return Failed;
    }
}
