// OpenMPI over TCP: a window of transfers under way at either end, as its bandwidth tests have it,
// and a broadcast for several receivers. It makes one connection for each two processes, and as
// many as the benchmark asks for by a setting of its own. mpirun starts the ranks.

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#define OMPI_SKIP_MPICXX
#include <mpi.h>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

constexpr int s_tag = 1;

/// Messages on their way at once, and what they take together.
constexpr std::uint64_t s_window = 64;
constexpr std::uint64_t s_windowBytes = 2097152;

/// A ring of message buffers, each with the transfer that uses it.
class Window
{
public:
    Window(std::uint64_t size, std::uint64_t count)
        : m_size(size), m_bytes(size * count), m_requests(count, MPI_REQUEST_NULL)
    {
    }

    ~Window()
    {
        for (MPI_Request& request : m_requests) {
            if (request != MPI_REQUEST_NULL) {
                MPI_Cancel(&request);
            }
        }
        waitForAll();
    }

    Window(const Window&) = delete;
    Window& operator=(const Window&) = delete;

    std::uint64_t getCount() const { return m_requests.size(); }
    char* getBytes(std::uint64_t slot) { return m_bytes.data() + slot * m_size; }
    MPI_Request* getRequest(std::uint64_t slot) { return &m_requests[slot]; }

    /// Waits for the transfer of this slot; the bytes that it received, if it is one that receives.
    std::uint64_t wait(std::uint64_t slot)
    {
        MPI_Status status;
        int count = 0;
        MPI_Wait(&m_requests[slot], &status);
        MPI_Get_count(&status, MPI_CHAR, &count);
        return static_cast<std::uint64_t>(count);
    }

    void waitForAll()
    {
        MPI_Waitall(static_cast<int>(m_requests.size()), m_requests.data(), MPI_STATUSES_IGNORE);
    }

private:
    std::uint64_t m_size;
    std::vector<char> m_bytes;
    std::vector<MPI_Request> m_requests;
};

/// One receiver.
class OpenMpi : public Channel
{
public:
    explicit OpenMpi(const Terms& terms)
        : m_size(static_cast<int>(terms.size)),
          m_other(terms.rank == 0 ? 1 : 0),
          m_out(terms.size, getWindow(terms)),
          m_in(terms.size, getWindow(terms))
    {
        const bool receives = terms.rank != 0 || terms.pattern == "roundTrip";
        for (std::uint64_t slot = 0; receives && slot < m_in.getCount(); ++slot) {
            startReceiving(slot);
        }
    }

    char* prepare() override
    {
        m_out.wait(m_nextOut);
        return m_out.getBytes(m_nextOut);
    }

    void send() override
    {
        MPI_Isend(m_out.getBytes(m_nextOut), m_size, MPI_CHAR, m_other, s_tag, MPI_COMM_WORLD,
                  m_out.getRequest(m_nextOut));
        m_nextOut = (m_nextOut + 1) % m_out.getCount();
    }

    void flush() override { m_out.waitForAll(); }

    Message receive() override
    {
        if (m_isTaken) {
            startReceiving(m_nextIn);
            m_nextIn = (m_nextIn + 1) % m_in.getCount();
        }
        m_isTaken = true;
        const std::uint64_t size = m_in.wait(m_nextIn);
        return {m_in.getBytes(m_nextIn), size};
    }

private:
    static std::uint64_t getWindow(const Terms& terms)
    {
        return std::min(s_window, s_windowBytes / terms.size);
    }

    void startReceiving(std::uint64_t slot)
    {
        MPI_Irecv(m_in.getBytes(slot), m_size, MPI_CHAR, m_other, s_tag, MPI_COMM_WORLD,
                  m_in.getRequest(slot));
    }

    const int m_size;
    const int m_other;
    Window m_out;
    Window m_in;
    std::uint64_t m_nextOut = 0;
    std::uint64_t m_nextIn = 0;
    bool m_isTaken = false;
};

/// Several receivers.
class Broadcast : public Channel
{
public:
    explicit Broadcast(const Terms& terms) : m_message(terms.size) {}

    char* prepare() override { return m_message.data(); }
    void send() override { broadcast(); }
    void flush() override {}

    Message receive() override
    {
        broadcast();
        return {m_message.data(), m_message.size()};
    }

private:
    void broadcast()
    {
        MPI_Bcast(m_message.data(), static_cast<int>(m_message.size()), MPI_CHAR, 0,
                  MPI_COMM_WORLD);
    }

    std::vector<char> m_message;
};

/// What runs from the first to the last use of the library.
template <class Use> class Initialised : public Channel
{
public:
    explicit Initialised(const Terms& terms)
    {
        MPI_Init(nullptr, nullptr);
        m_use = std::make_unique<Use>(terms);
    }

    ~Initialised() override
    {
        m_use.reset();
        MPI_Finalize();
    }

    char* prepare() override { return m_use->prepare(); }
    void send() override { m_use->send(); }
    void flush() override { m_use->flush(); }
    Message receive() override { return m_use->receive(); }

private:
    std::unique_ptr<Use> m_use;
};

void set(const char* parameter, const std::string& value)
{
    ::setenv(("OMPI_MCA_" + std::string(parameter)).c_str(), value.c_str(), 1);
}

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting&)
{
    set("pml", "ob1");
    set("btl", "tcp,self");
    set("btl_tcp_if_include", "lo");
    set("btl_tcp_links", std::to_string(terms.connections));
    if (terms.receivers > 1) {
        return std::make_unique<Initialised<Broadcast>>(terms);
    }
    return std::make_unique<Initialised<OpenMpi>>(terms);
}

} // namespace bench
