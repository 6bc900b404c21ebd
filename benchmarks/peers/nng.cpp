// nng: PUSH and PULL for one way, REQ and REP for a round trip, with messages that are handed over
// instead of copied. One connection of the benchmark is one sender's socket.

#include <stdexcept>
#include <string>
#include <vector>

#include <nng/nng.h>
#include <nng/protocol/pipeline0/pull.h>
#include <nng/protocol/pipeline0/push.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

/// Messages that a socket keeps at either end.
constexpr int s_depth = 128;

void require(int result, const char* what)
{
    if (result != 0) {
        throw std::runtime_error(std::string(what) + ": " + nng_strerror(result));
    }
}

class Nng : public Channel
{
public:
    Nng(const Terms& terms, Meeting& meeting) : m_terms(terms)
    {
        terms.rank > 0 ? listen(meeting) : connect(meeting);
    }

    ~Nng() override
    {
        for (const nng_socket socket : m_sockets) {
            nng_close(socket);
        }
        nng_msg_free(m_in);
    }

    char* prepare() override
    {
        require(nng_msg_alloc(&m_out, m_terms.size), "nng_msg_alloc");
        return static_cast<char*>(nng_msg_body(m_out));
    }

    void send() override
    {
        if (m_terms.receivers > 1) {
            sendToAll();
            return;
        }
        require(nng_sendmsg(m_sockets[m_next], m_out, 0), "nng_sendmsg");
        m_next = (m_next + 1) % static_cast<std::size_t>(m_terms.busy);
    }

    void flush() override {}

    Message receive() override
    {
        nng_msg_free(m_in);
        m_in = nullptr;
        require(nng_recvmsg(m_sockets.front(), &m_in, 0), "nng_recvmsg");
        return {static_cast<const char*>(nng_msg_body(m_in)), nng_msg_len(m_in)};
    }

private:
    /// The duplicates share one block.
    void sendToAll()
    {
        for (const nng_socket socket : m_sockets) {
            nng_msg* duplicate = nullptr;
            require(nng_msg_dup(&duplicate, m_out), "nng_msg_dup");
            require(nng_sendmsg(socket, duplicate, 0), "nng_sendmsg");
        }
        nng_msg_free(m_out);
    }

    template <class Open> nng_socket addSocket(Open oneWay, Open roundTrip, const char* option)
    {
        nng_socket socket{};
        if (m_terms.pattern == "roundTrip") {
            require(roundTrip(&socket), "nng open");
        } else {
            require(oneWay(&socket), "nng open");
            require(nng_socket_set_int(socket, option, s_depth), option);
        }
        m_sockets.push_back(socket);
        return socket;
    }

    void listen(Meeting& meeting)
    {
        const nng_socket socket = addSocket(&nng_pull0_open, &nng_rep0_open, NNG_OPT_RECVBUF);
        nng_listener listener{};
        require(nng_listen(socket, "tcp://127.0.0.1:0", &listener, 0), "nng_listen");
        int port = 0;
        require(nng_listener_get_int(listener, NNG_OPT_TCP_BOUND_PORT, &port), "port");
        meeting.announce("tcp://127.0.0.1:" + std::to_string(port));
    }

    void connect(Meeting& meeting)
    {
        for (int rank = 1; rank <= m_terms.receivers; ++rank) {
            const std::string url = meeting.find(rank);
            for (int i = 0; i < m_terms.connections; ++i) {
                const nng_socket socket =
                    addSocket(&nng_push0_open, &nng_req0_open, NNG_OPT_SENDBUF);
                require(nng_dial(socket, url.c_str(), nullptr, 0), "nng_dial");
            }
        }
    }

    const Terms m_terms;
    std::vector<nng_socket> m_sockets;
    nng_msg* m_out = nullptr;
    nng_msg* m_in = nullptr;
    std::size_t m_next = 0;
};

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting)
{
    return std::make_unique<Nng>(terms, meeting);
}

} // namespace bench
