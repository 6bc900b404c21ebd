#include <NetBase/links/kySocketPipe.h>

#include <chrono>
#include <limits>
#include <thread>

#include <QUuid>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/platform/kyLastError.h>
#include <NetBase/platform/kyLocalPipe.h>
#include <Utils/kyPlatform.h>

namespace {

constexpr const char* s_namePrefix = "\\\\.\\pipe\\taloService-";
constexpr int s_openAttempts = 10;
constexpr std::chrono::milliseconds s_openPause{200};

/// Unlike a poll, 0 means without limit here.
int toMilliseconds(double seconds)
{
    if (!(seconds > 0)) {
        return -1;
    }
    constexpr int longest = std::numeric_limits<int>::max();
    const double milliseconds = seconds * 1000;
    return milliseconds < longest ? static_cast<int>(milliseconds) : longest;
}

std::string lastErrorCode()
{
    return "Error:" + kyLastError::getNumber(kyLastError::get());
}

std::string makeUniqueName()
{
    const QUuid id = QUuid::createUuid();
    if (id.isNull()) {
        throw kyNetError("Unable to create unique pipe name. " + lastErrorCode());
    }
    return s_namePrefix + id.toString().toUpper().toStdString();
}

std::unique_ptr<kyLocalPipe> open(const std::string& name)
{
    std::unique_ptr<kyLocalPipe> pipe;
    kyLocalPipe::Status status = kyLocalPipe::connect(name, pipe);
    for (int attempt = 1; status == kyLocalPipe::Status::Busy && attempt < s_openAttempts;
         ++attempt) {
        std::this_thread::sleep_for(s_openPause);
        status = kyLocalPipe::connect(name, pipe);
    }
    if (status != kyLocalPipe::Status::Done) {
        throw kyNetError("Unable to connect to named pipe. " + kyNetError::getLastErrorString());
    }
    return pipe;
}

} // namespace

kySocketPipe::kySocketPipe(bool) : m_name(makeUniqueName()), m_isServerSide(true)
{
    m_pipe = kyLocalPipe::listen(m_name);
    if (!m_pipe) {
        throw kyNetError("CreateNamedPipe failed. " + lastErrorCode());
    }
}

kySocketPipe::kySocketPipe(const std::string& name)
    : m_peerProcessId(kyPlatform::getProcessId()),
      m_pipe(open(name)),
      m_name(name),
      m_isServerSide(false)
{
}

kySocketPipe::kySocketPipe(const char* name) : kySocketPipe(std::string(name)) {}

kySocketPipe::~kySocketPipe() = default;

void kySocketPipe::sendSocket(std::uint64_t socket, double timeout)
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (!m_isServerSide || !m_processIdExchanged) {
        exchangeProcessId(toMilliseconds(timeout));
    }
    if (!m_pipe) {
        throw kyNetError("Unable to pass socket to server");
    }
    if (!m_pipe->duplicate(socket, m_peerProcessId)) {
        throw kyNetError("Unable to duplicate socket");
    }
    if (!m_pipe->passSocket(socket)) {
        throw kyNetError("Unable to pass socket to server");
    }
    // That an answer comes is what counts: it tells that the server has the socket.
    std::uint64_t acknowledgement = 0;
    if (!m_pipe->read(&acknowledgement, sizeof(acknowledgement))) {
        throw kyNetError("Error on socket transfer to server");
    }
}

/// Waits for the client and learns for which process the sockets are meant.
void kySocketPipe::exchangeProcessId(int milliseconds)
{
    if (!m_pipe || !m_isServerSide) {
        throw kyNetError("Unable to connect pipe");
    }
    const kyLocalPipe::Status status = m_pipe->waitForClient(milliseconds);
    if (status == kyLocalPipe::Status::TimedOut) {
        throw kyConnectionTimeout();
    }
    if (status != kyLocalPipe::Status::Done) {
        throw kyNetError("Unable to connect pipe");
    }
    if (!m_pipe->read(&m_peerProcessId, sizeof(m_peerProcessId))) {
        throw kyNetError("Unable to read process id");
    }
    m_processIdExchanged = true;
}

std::uint64_t kySocketPipe::recvSocket(double timeout)
{
    if (m_isShutdown) {
        throw kyConnectionClosed();
    }
    sendProcessId();

    kyLocalPipe::Received received;
    switch (m_pipe->receiveSocket(toMilliseconds(timeout), received)) {
    case kyLocalPipe::Status::Done:
        break;
    case kyLocalPipe::Status::TimedOut:
        throw kyConnectionTimeout();
    case kyLocalPipe::Status::Stopped:
    case kyLocalPipe::Status::Closed:
        throw kyConnectionClosed();
    case kyLocalPipe::Status::NotPrepared:
        throw kyNetError("Error in SetNamedPipeHandleState() " + kyNetError::getLastErrorString());
    case kyLocalPipe::Status::NotBegun:
        throw kyNetError("Unable to receive socket from service");
    default:
        throw kyNetError("Error waiting for new socket");
    }
    if (!m_pipe->acknowledge(received)) {
        throw kyNetError("Unable acknowledge received socket");
    }
    return received.socket;
}

void kySocketPipe::sendProcessId()
{
    if (!m_isServerSide && m_processIdExchanged) {
        return;
    }
    if (m_isServerSide || !m_pipe->write(&m_peerProcessId, sizeof(m_peerProcessId))) {
        throw kyNetError("Unable to send process id");
    }
    m_processIdExchanged = true;
}

void kySocketPipe::shutdown()
{
    const std::lock_guard<std::mutex> guard(m_lock);
    if (m_isShutdown.exchange(true)) {
        return;
    }
    if (m_isServerSide) {
        m_pipe.reset();
    } else {
        m_pipe->stop();
    }
}
