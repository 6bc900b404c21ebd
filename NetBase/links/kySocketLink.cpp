#include <NetBase/links/kySocketLink.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <limits>
#include <thread>

#include <NetBase/buffers/kyConnectionClosed.h>
#include <NetBase/buffers/kyConnectionTimeout.h>
#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetBufferPool.h>
#include <NetBase/buffers/kyNetError.h>
#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <NetBase/links/kySharedSocket.h>
#include <NetBase/links/kySocketPipe.h>
#include <NetBase/platform/kyLastError.h>
#include <NetBase/platform/kySockets.h>
#include <NetBase/serialization/kyNetStream.h>

namespace {

using kySockets::Outcome;
using Use = kySharedSocket::Use;

/// The word by which a client says that it speaks this protocol, and its echo.
constexpr std::uint32_t s_handshakeWord = 101010101;

/// How long the word may take to arrive, and the pause between two looks: a closed peer and one
/// to three waiting bytes make a socket readable for good, so that a poll would not wait.
constexpr std::chrono::milliseconds s_handshakeLimit{2000};
constexpr std::chrono::milliseconds s_handshakePause{1};

/// A send of so many bytes, more than a bundle has, shows a link that carries bulk data.
constexpr std::uint64_t s_bulkSize = std::uint64_t{kyNetOptions::getMaxStreamBufferSize()} / 4 * 3;

/// How long a client waits for the echo.
constexpr double s_echoLimit = 30.0;

/// A silent peer is probed after two minutes, then every second.
constexpr std::uint32_t s_keepAliveIdle = 120000;
constexpr std::uint32_t s_keepAliveInterval = 1000;

/// Bytes that are not sent yet keep a close waiting for this long.
constexpr int s_lingerSeconds = 1;

/// Truncated toward zero, and into the range that the system takes; not a number is 0.
int toMilliseconds(double seconds)
{
    const double milliseconds = seconds * 1000;
    constexpr int most = std::numeric_limits<int>::max();
    if (milliseconds >= most) {
        return most;
    }
    return milliseconds > 0 ? static_cast<int>(milliseconds) : 0;
}

int toPollLimit(double seconds)
{
    return seconds < 0 ? -1 : toMilliseconds(seconds);
}

[[noreturn]] void throwLastError(const std::string& what)
{
    throw kyNetError(what + kyNetError::getLastErrorString());
}

kySocketHandle createSocket(int family)
{
    kySocketLink::initialize();
    const kySocketHandle handle = kySockets::create(family);
    if (handle == s_invalidSocketHandle) {
        throwLastError("Unable to create socket. ");
    }
    return handle;
}

kySocketHandle recvDescriptor(kySocketPipe& pipe, double timeout)
{
    kySocketLink::initialize();
    return static_cast<kySocketHandle>(pipe.recvSocket(timeout));
}

/// Leaves of the blocks what is to be sent when so many bytes have been.
void dropSent(kySockets::Block*& blocks, std::size_t& count, std::uint64_t sent)
{
    for (; count > 0 && sent >= blocks->length; --count) {
        sent -= (blocks++)->length;
    }
    if (sent > 0) {
        blocks->data = static_cast<const std::uint8_t*>(blocks->data) + sent;
        blocks->length -= sent;
    }
}

/// What one poll says about one socket; None when the time is over.
unsigned pollOne(kySocketHandle handle, unsigned wanted, double timeout)
{
    kySockets::PollEntry entry{handle, wanted, kySockets::None};
    if (kySockets::poll(&entry, 1, toPollLimit(timeout)) < 0) {
        throwLastError("poll error:");
    }
    return entry.ready;
}

} // namespace

std::atomic<bool> kySocketLink::s_initialized{false};
std::mutex kySocketLink::s_closeMutex;

void kySocketLink::initialize()
{
    // Threads that race here start it more than once, which does no harm.
    if (s_initialized) {
        return;
    }
    if (!kySockets::start()) {
        throwLastError("Unable to initialize windows sockets library ");
    }
    s_initialized = true;
}

kySocketLink::kySocketLink(kySocketHandle descriptor)
{
    initialize();
    adopt(descriptor);
}

kySocketLink::kySocketLink(const kySocketAddress& address, double timeout)
    : kySocketLink(createSocket(address.getFamily()))
{
    useLoopbackFastPath();
    prepareTransfers();
    setBlocking(false);

    const kySocketHandle handle = getDescriptor();
    const Outcome outcome =
        kySockets::connect(handle, address.getSockAddr(), address.getSockAddrSize());
    bool isConnected = outcome == Outcome::Done;
    if (outcome == Outcome::WouldBlock) {
        isConnected = pollWritable(timeout);
        if (!isConnected) {
            kySockets::takePendingError(handle);
        }
    }
    if (!isConnected) {
        const std::string reason = kyNetError::getLastErrorString();
        throw kyNetError("Unable to connect to '" + address.getName() +
                         "' port:" + std::to_string(address.getPort()) + ". " + reason);
    }
    setBlocking(true);
}

kySocketLink::kySocketLink(const kyBoundSocketLink& listening) : kySocketLink(listening.accept())
{
    prepareTransfers();
}

kySocketLink::kySocketLink(kySocketPipe& pipe, double timeout)
    : kySocketLink(recvDescriptor(pipe, timeout))
{
    prepareTransfers();
}

kySocketLink::kySocketLink(const kySocketLink& other)
    : kyNetLink(other),
      m_descriptor(other.getDescriptor()),
      m_socket(other.m_socket),
      m_carriesBulk(other.m_carriesBulk.load())
{
}

kySocketLink& kySocketLink::operator=(const kySocketLink& other)
{
    if (this == &other) {
        return *this;
    }
    kyNetLink::operator=(other);
    if (!isClosed() && m_socket.use_count() == 1) {
        m_socket->close();
    }
    m_socket = other.m_socket;
    m_descriptor = other.getDescriptor();
    m_carriesBulk = other.m_carriesBulk.load();
    return *this;
}

kySocketLink::~kySocketLink()
{
    if (m_descriptor.exchange(s_invalidSocketHandle) != s_invalidSocketHandle) {
        m_socket->close();
    }
}

std::shared_ptr<kyNetLink> kySocketLink::create(kyNetStream& stream, kyNetInterfaceOptions&, bool)
{
    return stream.getFirstLink();
}

kySocketLink* kySocketLink::checkForHPCNetSocket(kySocketHandle descriptor)
{
    auto link = std::make_unique<kySocketLink>(descriptor);
    std::uint32_t word = 0;
    std::uint64_t seen = 0;
    try {
        const auto end = std::chrono::steady_clock::now() + s_handshakeLimit;
        seen = link->peekAvailable(&word, sizeof(word));
        while (seen < sizeof(word) && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(s_handshakePause);
            seen = link->peekAvailable(&word, sizeof(word));
        }
    } catch (const std::exception&) {
        link->takeDescriptor();
        return nullptr;
    }
    if (seen < sizeof(word) || word != s_handshakeWord) {
        link->takeDescriptor();
        return nullptr;
    }
    link->setBlocking(true);
    link->setDelay(false);
    link->setLinger(true, s_lingerSeconds);
    link->recv(&word, sizeof(word));
    link->send(&word, sizeof(word));
    return link.release();
}

void kySocketLink::signalHPCNetSocket()
{
    send(&s_handshakeWord, sizeof(s_handshakeWord));
    setRecvTimeout(s_echoLimit);
    std::uint32_t echo = 0;
    recv(&echo, sizeof(echo));
    if (echo != s_handshakeWord) {
        // The text is what clients know, and the time limit stays: both are intended.
        throw kyNetError("Unexpected respnse from server");
    }
    setRecvTimeout(0.0);
}

void kySocketLink::send(const std::shared_ptr<kyNetBuffer>& buffer)
{
    const std::shared_ptr<kyNetBuffer> encrypted = encryptBuffer(buffer);
    send(encrypted->getBuffer(), encrypted->getBufferSize());
}

void kySocketLink::sendMany(const std::vector<std::shared_ptr<kyNetBuffer>>& buffers)
{
    if (hasCipher()) {
        kyNetLink::sendMany(buffers);
        return;
    }
    std::array<kySockets::Block, kySockets::s_mostBlocks> blocks;
    for (auto buffer = buffers.begin(); buffer != buffers.end();) {
        std::size_t count = 0;
        for (; buffer != buffers.end() && count < blocks.size(); ++buffer, ++count) {
            blocks[count] = {(*buffer)->getBuffer(), (*buffer)->getBufferSize()};
        }
        sendAll(blocks.data(), count);
    }
}

void kySocketLink::recv(std::shared_ptr<kyNetBuffer>& buffer)
{
    buffer = kyNetBufferPool::pop();
    buffer->setSendMode(kyNetBufferSendMode::Automatic); // It had the one of its last use.
    try {
        recv(buffer->getBuffer(), kyNetBuffer::getHeaderSize());
        if (buffer->getDataSize() > kyNetBuffer::getCapacity()) {
            throw kyNetError("Received invalid buffer size. Possibly stream is out of sync.");
        }
        recv(buffer->getData(), buffer->getDataSize());
        decryptBuffer(buffer);
    } catch (...) {
        buffer->setDataSize(0); // Whatever the peer claimed, nothing of it is there.
        throw;
    }
}

void kySocketLink::send(const void* data, std::uint64_t length)
{
    kySockets::Block block{data, length};
    sendAll(&block, 1);
}

/// Uses the blocks up.
void kySocketLink::sendAll(kySockets::Block* blocks, std::size_t count)
{
    const Use use(getSocket());
    if (isClosed()) {
        throw kyConnectionClosed();
    }
    const auto isBulk = [](const kySockets::Block& block) { return block.length >= s_bulkSize; };
    if (!m_carriesBulk && std::any_of(blocks, blocks + count, isBulk)) {
        m_carriesBulk = true;
        keepInCache(use.getHandle());
    }
    dropSent(blocks, count, 0);
    while (count > 0) {
        kyLastError::clear();
        const kySockets::Transfer sent = kySockets::send(use.getHandle(), blocks, count);
        if (sent.outcome != Outcome::Done) {
            if (isClosed() || sent.outcome == Outcome::PeerGone) {
                throw kyConnectionClosed();
            }
            throwLastError("send error. ");
        }
        dropSent(blocks, count, sent.count);
        if (count > 0 && isClosed()) {
            throw kyConnectionClosed();
        }
    }
}

/// Bytes on their way from one process of a machine to another stand in memory: those of one large
/// buffer stay in a processor's cache, those of the many that the system would let gather are
/// fetched from beyond it. Over a network the system's own bound fits the distance.
void kySocketLink::keepInCache(kySocketHandle handle)
{
    try {
        if (getAddress().isOnTheMachineOf(getPeerAddress())) {
            kySockets::setSendBuffer(handle, kyNetOptions::getMaxStreamBufferSize());
        }
    } catch (const kyNetError&) { // It has no such addresses; what matters is sent all the same.
    }
}

void kySocketLink::recv(void* data, std::uint64_t length)
{
    const Use use(getSocket());
    if (isClosed()) {
        throw kyConnectionClosed();
    }
    auto* position = static_cast<std::uint8_t*>(data);
    while (length > 0) {
        kyLastError::clear();
        const kySockets::Transfer received = receiveSome(use.getHandle(), position, length);
        if (received.outcome == Outcome::TimedOut) {
            throw kyConnectionTimeout();
        }
        if (received.outcome != Outcome::Done) {
            const bool isPeerGone = received.outcome == Outcome::EndOfStream ||
                                    received.outcome == Outcome::PeerGone || isClosed();
            const std::string reason = kyNetError::getLastErrorString();
            shutdown();
            if (isPeerGone) {
                throw kyConnectionClosed();
            }
            throw kyNetError("recv error. " + reason);
        }
        position += received.count;
        length -= received.count;
        if (length > 0 && isClosed()) {
            throw kyConnectionClosed();
        }
    }
}

/// Waits for at least one byte.
kySockets::Transfer kySocketLink::receiveSome(kySocketHandle handle, void* data,
                                              std::uint64_t length)
{
    kySockets::Transfer received{};
    m_pollWindow.await(
        [&] {
            received = kySockets::tryReceive(handle, data, length);
            return received.outcome != Outcome::WouldBlock;
        },
        [&] {
            kyLastError::clear();
            received = kySockets::receive(handle, data, length);
        });
    return received;
}

std::uint64_t kySocketLink::peekAvailable(void* data, std::uint64_t max)
{
    const std::uint64_t length = std::min(getAvailable(), max);
    if (length == 0) {
        return 0;
    }
    const Use use(getSocket());
    const kySockets::Transfer peeked = kySockets::peek(use.getHandle(), data, length);
    switch (peeked.outcome) {
    case Outcome::Done:
        return peeked.count;
    case Outcome::EndOfStream:
        return 0;
    default:
        throwLastError("peek error. ");
    }
}

std::uint64_t kySocketLink::getAvailable() const
{
    const Use use(getSocket());
    std::uint64_t count = 0;
    if (!kySockets::getAvailable(use.getHandle(), count)) {
        throw kyNetError("ioctlsocket()");
    }
    return count;
}

bool kySocketLink::pollReadable(double timeout)
{
    const Use use(getSocket());
    if (isClosed()) {
        throw kyConnectionClosed();
    }
    const unsigned ready = pollOne(use.getHandle(), kySockets::Readable, timeout);
    const bool isReadable = (ready & kySockets::Readable) != 0;
    if (isClosed() || (ready != kySockets::None && !isReadable)) {
        throw kyConnectionClosed();
    }
    return isReadable;
}

bool kySocketLink::pollWritable(double timeout)
{
    const Use use(getSocket());
    if (isClosed()) {
        return false;
    }
    // An error beside it means that nothing can be written, or that a connect has failed.
    return pollOne(use.getHandle(), kySockets::Writable, timeout) == kySockets::Writable &&
           !isClosed();
}

void kySocketLink::shutdown()
{
    const Use use(getSocket());
    {
        const std::lock_guard<std::mutex> lock(s_closeMutex);
        if (m_descriptor.exchange(s_invalidSocketHandle) == s_invalidSocketHandle) {
            return;
        }
        kySockets::shutdownBoth(use.getHandle());
    }
    // Outside the lock, since with a peer that is stuck it takes the time of the linger.
    m_socket->close();
}

void kySocketLink::checkAlive()
{
    if (isClosed()) {
        throw kyConnectionClosed();
    }
}

std::uint32_t kySocketLink::getRecvHandle()
{
    return static_cast<std::uint32_t>(getDescriptor());
}

bool kySocketLink::pinRecvHandle(std::uint32_t& handle)
{
    kySharedSocket* socket = getSocket();
    if (socket == nullptr || !socket->enter()) {
        return false;
    }
    handle = static_cast<std::uint32_t>(socket->getHandle());
    return true;
}

void kySocketLink::unpinRecvHandle()
{
    m_socket->leave();
}

std::string kySocketLink::getLinkName()
{
    const std::string local = getAddress().getName();
    const std::string peer = getPeerAddress().getName();
    return local + "->" + peer;
}

kySocketAddress kySocketLink::getAddress() const
{
    const Use use(getSocket());
    const std::vector<std::uint8_t> address = kySockets::getLocalAddress(use.getHandle());
    if (address.empty()) {
        throw kyNetError("Unable to get socket name");
    }
    return kySocketAddress(reinterpret_cast<const sockaddr*>(address.data()));
}

kySocketAddress kySocketLink::getPeerAddress() const
{
    const Use use(getSocket());
    const std::vector<std::uint8_t> address = kySockets::getPeerAddress(use.getHandle());
    if (address.empty()) {
        throw kyNetError("Unable to get socket peer");
    }
    return kySocketAddress(reinterpret_cast<const sockaddr*>(address.data()));
}

kySocketHandle kySocketLink::takeDescriptor()
{
    return m_descriptor.exchange(s_invalidSocketHandle);
}

void kySocketLink::sendDescriptor(kySocketPipe& pipe, double timeout)
{
    const Use use(getSocket());
    setBlocking(true);
    pipe.sendSocket(use.getHandle(), timeout);
}

void kySocketLink::setDelay(bool delay)
{
    const Use use(getSocket());
    if (!kySockets::setNoDelay(use.getHandle(), !delay)) {
        throwLastError("setsockopt(,SOCK_STREAM,TCP_NODELAY) ");
    }
}

void kySocketLink::setLinger(bool on, int seconds)
{
    const Use use(getSocket());
    if (!kySockets::setLinger(use.getHandle(), on, static_cast<std::uint16_t>(seconds))) {
        throwLastError("setsockopt(,SOL_SOCKE,SO_LINGER) "); // The short "SOL_SOCKE" is intended.
    }
}

void kySocketLink::setReusePort(bool reuse)
{
    const Use use(getSocket());
    if (!kySockets::setReuseAddress(use.getHandle(), reuse)) {
        throwLastError("setsockopt(,SOL_SOCKET,SO_REUSEADDR) ");
    }
}

void kySocketLink::setIPv6Only(bool only)
{
    const Use use(getSocket());
    if (!kySockets::setIPv6Only(use.getHandle(), only)) {
        throwLastError("setsockopt(,IPPROTO_IPV6,IPV6_V6ONLY)");
    }
}

void kySocketLink::setKeepAlive()
{
    const Use use(getSocket());
    kySockets::setKeepAlive(use.getHandle(), s_keepAliveIdle, s_keepAliveInterval);
}

void kySocketLink::setBlocking(bool blocking)
{
    const Use use(getSocket());
    if (!kySockets::setBlocking(use.getHandle(), blocking)) {
        throwLastError("unable to change socket blocking mode:");
    }
}

void kySocketLink::useLoopbackFastPath()
{
    const Use use(getSocket());
    if (!kySockets::enableLoopbackFastPath(use.getHandle())) {
        std::fputs("useLoopbackFastPath: loopback Fastpath WSAIoctl failed!\n", stderr);
    }
}

void kySocketLink::setRecvTimeout(double seconds)
{
    const Use use(getSocket());
    kySockets::setReceiveTimeout(use.getHandle(),
                                 static_cast<std::uint32_t>(toMilliseconds(seconds)));
}

void kySocketLink::adopt(kySocketHandle descriptor)
{
    if (descriptor != s_invalidSocketHandle) {
        m_socket = std::make_shared<kySharedSocket>(descriptor);
        m_descriptor = descriptor;
    }
}

kySharedSocket* kySocketLink::getSocket() const
{
    return getDescriptor() != s_invalidSocketHandle ? m_socket.get() : nullptr;
}

bool kySocketLink::isClosed() const
{
    return getDescriptor() == s_invalidSocketHandle || m_socket->isClosed();
}

int kySocketLink::getLastError() const
{
    return kyLastError::get();
}

void kySocketLink::prepareTransfers()
{
    setDelay(false);
    setLinger(true, s_lingerSeconds);
    setKeepAlive();
}
