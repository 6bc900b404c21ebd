// libzmq: PUSH and PULL for one way, REQ and REP for a round trip, as its own performance programs
// use them. One connection of the benchmark is one sender's socket.

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <zmq.h>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

void require(bool isDone, const char* what)
{
    if (!isDone) {
        throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
    }
}

class ZmqMessage
{
public:
    ZmqMessage() { zmq_msg_init(&m_message); }
    ~ZmqMessage() { zmq_msg_close(&m_message); }
    ZmqMessage(const ZmqMessage&) = delete;
    ZmqMessage& operator=(const ZmqMessage&) = delete;

    zmq_msg_t* get() { return &m_message; }

private:
    zmq_msg_t m_message;
};

class Libzmq : public Channel
{
public:
    Libzmq(const Terms& terms, Meeting& meeting) : m_terms(terms), m_context(zmq_ctx_new())
    {
        terms.rank > 0 ? listen(meeting) : connect(meeting);
    }

    ~Libzmq() override
    {
        for (void* socket : m_sockets) {
            zmq_close(socket);
        }
        zmq_ctx_term(m_context);
    }

    char* prepare() override
    {
        zmq_msg_close(m_out.get());
        require(zmq_msg_init_size(m_out.get(), m_terms.size) == 0, "zmq_msg_init_size");
        return static_cast<char*>(zmq_msg_data(m_out.get()));
    }

    void send() override
    {
        if (m_terms.receivers > 1) {
            sendToAll();
            return;
        }
        require(zmq_msg_send(m_out.get(), m_sockets[m_next], 0) >= 0, "zmq_msg_send");
        m_next = (m_next + 1) % static_cast<std::size_t>(m_terms.busy);
    }

    void flush() override {}

    Message receive() override
    {
        require(zmq_msg_recv(m_in.get(), m_sockets.front(), 0) >= 0, "zmq_msg_recv");
        return {static_cast<const char*>(zmq_msg_data(m_in.get())), zmq_msg_size(m_in.get())};
    }

private:
    /// The copies share one block.
    void sendToAll()
    {
        for (void* socket : m_sockets) {
            ZmqMessage copy;
            require(zmq_msg_copy(copy.get(), m_out.get()) == 0, "zmq_msg_copy");
            require(zmq_msg_send(copy.get(), socket, 0) >= 0, "zmq_msg_send");
        }
    }

    void* addSocket(int oneWay, int roundTrip)
    {
        void* socket = zmq_socket(m_context, m_terms.pattern == "roundTrip" ? roundTrip : oneWay);
        require(socket != nullptr, "zmq_socket");
        m_sockets.push_back(socket);
        return socket;
    }

    void listen(Meeting& meeting)
    {
        void* socket = addSocket(ZMQ_PULL, ZMQ_REP);
        require(zmq_bind(socket, "tcp://127.0.0.1:*") == 0, "zmq_bind");
        char endpoint[256];
        std::size_t size = sizeof endpoint;
        require(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0, "zmq_getsockopt");
        meeting.announce(endpoint);
    }

    void connect(Meeting& meeting)
    {
        for (int rank = 1; rank <= m_terms.receivers; ++rank) {
            const std::string endpoint = meeting.find(rank);
            for (int i = 0; i < m_terms.connections; ++i) {
                require(zmq_connect(addSocket(ZMQ_PUSH, ZMQ_REQ), endpoint.c_str()) == 0,
                        "zmq_connect");
            }
        }
    }

    const Terms m_terms;
    void* m_context;
    std::vector<void*> m_sockets;
    ZmqMessage m_out;
    ZmqMessage m_in;
    std::size_t m_next = 0;
};

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting)
{
    return std::make_unique<Libzmq>(terms, meeting);
}

} // namespace bench
