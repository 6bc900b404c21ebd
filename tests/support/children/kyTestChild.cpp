// A process for tests. Its last argument says what it does: "name" or "name:value". Those that
// use a pipe find its name as a server does, in "-socketpipe=NAME" or in the environment.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/links/kySocketPipe.h>
#include <Utils/kyPlatform.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestRawPipe.h>
#include <tests/support/kyTestSystem.h>

namespace {

std::vector<std::string> s_arguments;

const char* pipeVariable()
{
    return std::getenv("TALO_LOCAL_SERVICE");
}

std::string pipeName()
{
    const std::string prefix = "-socketpipe=";
    for (const std::string& argument : s_arguments) {
        if (argument.rfind(prefix, 0) == 0) {
            return argument.substr(prefix.size());
        }
    }
    return pipeVariable() != nullptr ? pipeVariable() : "";
}

std::string processIdBytes()
{
    return kyTest::pipeBytes(kyPlatform::getProcessId()).substr(0, 4);
}

[[noreturn]] void waitForever()
{
    std::cout << "ready" << std::endl;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::hours(1));
    }
}

int printArguments()
{
    for (const std::string& argument : s_arguments) {
        std::cout << '[' << argument << "]\n";
    }
    if (pipeVariable() != nullptr) {
        std::cout << "TALO_LOCAL_SERVICE=" << pipeVariable() << '\n';
    }
    return 0;
}

/// Answers every client with its number, until no more come.
int serve()
{
    kySocketPipe pipe(pipeName());
    try {
        for (int count = 1;; ++count) {
            const std::uint64_t socket = pipe.recvSocket(-1.0);
            kyTest::sendText(socket, "client " + std::to_string(count));
            kyTest::closeSocket(socket);
        }
    } catch (const kyConnectionClosed&) {
        std::cout << "no more clients" << std::endl;
        return 0;
    }
}

/// Hands its own sockets to whoever opens the pipe of the given name, and dies after the first.
int sendOneAndDie(const std::string& name)
{
    kyTest::RawPipe pipe = kyTest::RawPipe::listen(name);
    std::cout << "ready" << std::endl;
    pipe.accept();
    const kyTest::SocketPair sockets;
    std::uint32_t receiver = 0;
    const std::string id = pipe.receive(sizeof(receiver));
    std::memcpy(&receiver, id.data(), id.size());
    const std::uint64_t socket = sockets.served();
    pipe.send(kyTest::socketBytes(socket, kyTest::pipeBytes(socket), receiver), {socket});
    pipe.receive(8);
    return 0;
}

int serveAsNobody(const std::string& name)
{
    return kyTest::becomeNobody() ? sendOneAndDie(name) : 1;
}

int dieAfter(const std::string& bytes, std::size_t received)
{
    kyTest::RawPipe pipe = kyTest::RawPipe::connect(pipeName());
    pipe.send(bytes);
    pipe.receive(received);
    return 0;
}

int connectAsNobody()
{
    if (!kyTest::becomeNobody()) {
        return 1;
    }
    kyTest::RawPipe pipe = kyTest::RawPipe::connect(pipeName());
    pipe.send(processIdBytes());
    std::cout << "connected" << std::endl;
    std::cout << "received " << pipe.receive(8).size() << std::endl;
    return 0;
}

[[noreturn]] void flood()
{
    const std::string block(65536, 'x');
    for (;;) {
        std::fwrite(block.data(), 1, block.size(), stdout);
    }
}

/// Mebibytes of output, and a word when all of it is written.
int writeMuch()
{
    const std::string first(1 << 20, 'a');
    const std::string rest(18 << 20, 'b');
    std::cout << first << rest << std::flush;
    std::cerr << "written" << std::endl;
    return 0;
}

/// Two bytes of one character, as two pieces.
int cutCharacter(const std::string& text)
{
    for (const char byte : text) {
        std::cout << byte << std::flush;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return 0;
}

/// Points on standard output, until nobody reads them.
int writeUntilUnread()
{
    while (std::cout << '.' << std::flush) {
        std::cerr << '.' << std::flush;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}

int act(const std::string& name, const std::string& value)
{
    const std::map<std::string, std::function<int()>> acts{
        {"arguments", printArguments},
        {"connect-as-nobody", connectAsNobody},
        {"cut", [&] { return cutCharacter(value); }},
        {"descriptors",
         [] {
             std::cout << kyTest::describeDescriptors() << std::flush;
             return 0;
         }},
        {"die-before-acknowledgement", [] { return dieAfter(processIdBytes(), 8); }},
        {"die-before-process-id", [] { return dieAfter("", 0); }},
        {"die-in-process-id", [] { return dieAfter("ab", 0); }},
        {"exit", [&] { return std::atoi(value.c_str()); }},
        {"flood", []() -> int { flood(); }},
        {"ignore-termination",
         []() -> int {
             kyTest::ignoreTermination();
             waitForever();
         }},
        {"orphan",
         [] {
             kyTest::leaveOrphanThatWrites();
             return 0;
         }},
        {"much", writeMuch},
        {"print",
         [&] {
             std::cout << value << std::flush;
             return 0;
         }},
        {"print-error",
         [&] {
             std::cerr << value << std::flush;
             return 0;
         }},
        {"print-and-wait",
         [&]() -> int {
             std::cout << value << std::endl;
             std::cerr << value << " error" << std::endl;
             waitForever();
         }},
        {"send-one-and-die", [&] { return sendOneAndDie(value); }},
        {"serve", serve},
        {"serve-as-nobody", [&] { return serveAsNobody(value); }},
        {"signals",
         [] {
             std::cout << '[' << kyTest::describeIgnoredSignals() << ']' << std::endl;
             return 0;
         }},
        {"variable",
         [&] {
             const char* found = std::getenv(value.c_str());
             std::cout << (found != nullptr ? found : "(none)") << std::endl;
             return 0;
         }},
        {"wait", []() -> int { waitForever(); }},
        {"write-until-unread", writeUntilUnread},
    };
    const auto found = acts.find(name);
    // A text that is none of these is an argument like any other.
    return found != acts.end() ? found->second() : printArguments();
}

} // namespace

int main(int argc, char** argv)
{
    kyTest::writeBytesAsTheyAre();
    s_arguments.assign(argv, argv + argc);
    const std::string last = s_arguments.back();
    const std::size_t colon = last.find(':');
    try {
        return act(last.substr(0, colon), colon == std::string::npos ? "" : last.substr(colon + 1));
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << std::endl;
        return 2;
    }
}
