// Answers the byte that comes on each connection by a byte. The cluster service starts it as a
// render server, whose connections come over the pipe; without a pipe it listens itself.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>

namespace {

void answer(kySocketLink& link)
{
    std::uint8_t byte = 0;
    link.recv(&byte, sizeof byte);
    link.send(&byte, sizeof byte);
}

[[noreturn]] void serve(const std::string& pipeName)
{
    kySocketPipe pipe(pipeName);
    for (;;) {
        kySocketLink link(pipe, 0.0);
        answer(link);
    }
}

[[noreturn]] void listen()
{
    const kyBoundSocketLink listening(0);
    std::printf("listening on port %d\n", listening.getAddress().getPort());
    std::fflush(stdout);
    for (;;) {
        kySocketLink link(listening);
        answer(link);
    }
}

std::string findPipe(int argc, char** argv)
{
    const std::string option = "-socketpipe=";
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.compare(0, option.size(), option) == 0) {
            return argument.substr(option.size());
        }
    }
    return "";
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const std::string pipe = findPipe(argc, argv);
        pipe.empty() ? listen() : serve(pipe);
    } catch (const kyConnectionClosed&) {
        return 0; // The service has let go of the pipe, or a client left without a word.
    } catch (const std::exception& e) {
        std::fprintf(stderr, "echoServer: %s\n", e.what());
        return 1;
    }
}
