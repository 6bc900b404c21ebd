#include <apps/TALOClusterServer/ServerArguments.h>

#include <cstdlib>

#include <NetBase/buffers/kyNetError.h>

namespace render {

namespace {

const std::string s_pipeOption = "-socketpipe=";
constexpr const char* s_pipeVariable = "TALO_LOCAL_SERVICE";

bool isPipeOption(const std::string& argument)
{
    return argument.compare(0, s_pipeOption.size(), s_pipeOption) == 0;
}

} // namespace

ServerArguments ServerArguments::parse(const std::vector<std::string>& arguments)
{
    ServerArguments result;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (i + 1 == arguments.size()) {
            // Whatever it looks like, the last one is the application's.
            result.application = argument;
        } else if (isPipeOption(argument)) {
            result.socketPipe = argument.substr(s_pipeOption.size());
        } else if (argument == "-Z") {
            result.flagZ = true;
        } else if (argument == "-P") {
            result.hasDisplay = false;
        } else if (argument == "-s") {
            result.isStereo = true;
        } else if (argument == "-t" || argument == "-ta") {
            result.flagT = true;
            result.flagTA = argument == "-ta";
        } else {
            throw kyNetError("Unknown argument '" + argument + "'");
        }
    }
    if (result.socketPipe.empty()) {
        const char* variable = std::getenv(s_pipeVariable);
        result.socketPipe = variable != nullptr ? variable : "";
    }
    if (result.socketPipe.empty()) {
        throw kyNetError("No socket pipe. This program is started by a cluster service, which "
                         "names its pipe with -socketpipe=NAME or in TALO_LOCAL_SERVICE.");
    }
    return result;
}

} // namespace render
