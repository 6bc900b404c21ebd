// A render server for the tests of the service: takes its clients from the pipe and answers each
// text with a text. Its last argument may say how it misbehaves.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/links/kySocketLink.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/platform/kyThreads.h>
#include <NetBase/serialization/kyNetStream.h>
#include <NetBase/service/kyNetService.h>
#include <Utils/kyPlatform.h>
#include <tests/support/kyTestChildSystem.h>
#include <tests/support/kyTestRawPipe.h>

namespace {

std::vector<std::string> s_arguments;

std::string variable(const char* name = "TALO_LOCAL_SERVICE")
{
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

std::string pipeName()
{
    const std::string prefix = "-socketpipe=";
    for (const std::string& argument : s_arguments) {
        if (argument.rfind(prefix, 0) == 0) {
            return argument.substr(prefix.size());
        }
    }
    return variable();
}

std::string answer(const std::string& question)
{
    if (question == "command line") {
        std::string all;
        for (std::size_t i = 1; i < s_arguments.size(); ++i) {
            all += "[" + s_arguments[i] + "]";
        }
        return all;
    }
    if (question == "variable") {
        return variable();
    }
    if (question == "key file") {
        return variable("TALO_KEY_FILE");
    }
    if (question == "pipe") {
        return pipeName();
    }
    if (question == "process id") {
        return std::to_string(kyPlatform::getProcessId());
    }
    if (question == "exit") {
        std::_Exit(0);
    }
    return question;
}

void serve(const std::shared_ptr<kySocketLink>& client)
{
    try {
        kyNetStream stream(client);
        for (;;) {
            std::string question;
            stream >> question;
            stream << answer(question);
            stream.flush();
        }
    } catch (const std::exception&) {
        // The client has gone.
    }
}

/// Long enough for every test; should the test die, the process does not stay for ever.
void lingerOn()
{
    std::this_thread::sleep_for(std::chrono::minutes(2));
}

/// Opens the pipe and never answers what it is handed. It speaks once the service can only wait for
/// that answer.
void neverAnswer()
{
    kyTest::RawPipe pipe = kyTest::RawPipe::connect(pipeName());
    pipe.send(kyTest::pipeBytes(kyPlatform::getProcessId()).substr(0, 4));
    if (pipe.receive(sizeof(std::uint64_t)).size() == sizeof(std::uint64_t)) {
        std::cout << "deaf" << std::endl;
        lingerOn();
    }
}

void takeClients(const std::string& name)
{
    kySocketPipe pipe(name);
    try {
        for (;;) {
            const auto client = std::make_shared<kySocketLink>(pipe, -1.0);
            kyThreads::startDetached([client] { serve(client); });
        }
    } catch (const kyConnectionClosed&) {
        // No more will come.
    }
}

} // namespace

int main(int argc, char** argv)
{
    kyTest::writeBytesAsTheyAre();
    s_arguments.assign(argv, argv + argc);
    const std::string& behaviour = s_arguments.back();
    if (behaviour == "deaf") {
        neverAnswer();
    } else if (behaviour == "leave") {
        return 0;
    } else if (behaviour == "host") {
        takeClients(kyNetService::runInProcess());
    } else if (behaviour == "stubborn") {
        kyTest::ignoreTermination();
        takeClients(pipeName());
        lingerOn();
    } else {
        if (behaviour == "print") {
            std::cout << "printed" << std::endl;
        }
        takeClients(pipeName());
    }
    std::_Exit(0);
}
