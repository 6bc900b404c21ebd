#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <Utils/kyPlatform.h>

/// Sockets and the bare transport below a socket pipe, for tests whose peer breaks the rules.
///
/// One source per system stands in platform/. What fails throws std::system_error.
namespace kyTest {

/// Two ends of one TCP connection over loopback.
class SocketPair
{
public:
    SocketPair();
    ~SocketPair();

    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    /// The end that a test hands over.
    std::uint64_t served() const { return m_ends[0]; }
    /// The end that the client keeps.
    std::uint64_t client() const { return m_ends[1]; }

    void closeServed();

private:
    std::array<std::uint64_t, 2> m_ends{};
};

/// Sends a text over a connected socket.
void sendText(std::uint64_t socket, const std::string& text);

/// Receives exactly so many characters; fewer if the connection ends.
std::string receiveText(std::uint64_t socket, std::size_t size);

void closeSocket(std::uint64_t socket);

/// Something open in this process that is no socket; closed with `closeSocket`.
std::uint64_t openFile();

/// One side of a pipe by its name, without any protocol.
class RawPipe
{
public:
    RawPipe() = default;
    ~RawPipe();
    RawPipe(RawPipe&& other) noexcept;
    RawPipe& operator=(RawPipe&& other) noexcept;

    static RawPipe listen(const std::string& name);
    static RawPipe connect(const std::string& name);

    /// Waits for the other side to connect.
    void accept();

    /// Writes bytes, and with them whatever the sockets need to travel.
    void send(const std::string& bytes, const std::vector<std::uint64_t>& sockets = {});

    /// Reads exactly so many bytes; fewer if the other side goes.
    std::string receive(std::size_t size);

    void close();

private:
    int m_listener = -1;
    int m_connection = -1;
};

/// What the system says of a pipe that nobody serves, one that serves another client first, and one
/// whose name is too long: code, ":" and text.
std::string noSuchPipeText();
std::string busyPipeText();
std::string tooLongPipeNameText();

/// What the system says of something that this process may not use.
std::string accessDeniedText();

/// What the system says when a process may not open any more.
int tooManyOpenCode();
std::string tooManyOpenText();

/// The eight bytes that a socket value makes on a pipe.
std::string pipeBytes(std::uint64_t value);

/// Eight bytes to send with the socket to a process: the text, unless the bytes alone are what
/// brings the socket there.
std::string socketBytes(std::uint64_t socket, const std::string& text,
                        std::uint32_t processId = kyPlatform::getProcessId());

/// Whether eight bytes that have come over a pipe stand for the socket of this process. What they
/// brought is closed.
bool standForSocket(const std::string& bytes, std::uint64_t socket);

/// The longest name of a pipe, in characters.
std::size_t longestPipeName();

/// Whether a service passes over a client that was gone before it was waited for.
bool isGoneClientPassedOver();

} // namespace kyTest
