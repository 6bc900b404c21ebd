// UCX over TCP: tagged messages, a window of them under way at either end. It polls.

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <ucp/api/ucp.h>

#include <benchmarks/core/Channel.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

constexpr ucp_tag_t s_tag = 1;
constexpr ucp_tag_t s_wholeTag = ~ucp_tag_t{0};

/// Messages on their way at once, and what they take together.
constexpr std::uint64_t s_window = 64;
constexpr std::uint64_t s_windowBytes = 2097152;

void require(ucs_status_t status, const char* what)
{
    if (status != UCS_OK) {
        throw std::runtime_error(std::string(what) + ": " + ucs_status_string(status));
    }
}

/// A message buffer and the transfer that uses it.
struct Slot
{
    std::vector<char> bytes;
    void* request = nullptr;
};

class Ucx : public Channel
{
public:
    Ucx(const Terms& terms, Meeting& meeting)
    {
        openWorker();
        exchangeAddresses(terms, meeting);
        const std::uint64_t window = std::min(s_window, s_windowBytes / terms.size);
        m_out.resize(window);
        m_in.resize(window);
        for (std::uint64_t i = 0; i < window; ++i) {
            m_out[i].bytes.resize(terms.size);
            m_in[i].bytes.resize(terms.size);
        }
        if (terms.rank != 0 || terms.pattern == "roundTrip") {
            for (Slot& slot : m_in) {
                startReceiving(slot);
            }
        }
    }

    ~Ucx() override
    {
        for (Slot& slot : m_in) {
            if (slot.request != nullptr) {
                ucp_request_cancel(m_worker, slot.request);
                wait(slot.request);
            }
        }
        wait(ucp_ep_close_nb(m_peer, UCP_EP_CLOSE_MODE_FORCE));
        ucp_worker_destroy(m_worker);
        ucp_cleanup(m_context);
    }

    char* prepare() override
    {
        Slot& slot = m_out[m_nextOut];
        require(wait(slot.request), "ucp_tag_send_nbx");
        slot.request = nullptr;
        return slot.bytes.data();
    }

    void send() override
    {
        Slot& slot = m_out[m_nextOut];
        const ucp_request_param_t parameters{};
        slot.request =
            ucp_tag_send_nbx(m_peer, slot.bytes.data(), slot.bytes.size(), s_tag, &parameters);
        m_nextOut = (m_nextOut + 1) % m_out.size();
        // Arrived messages and acknowledgements are handled here, and queued ones written.
        ucp_worker_progress(m_worker);
    }

    void flush() override
    {
        for (Slot& slot : m_out) {
            require(wait(slot.request), "ucp_tag_send_nbx");
            slot.request = nullptr;
        }
        const ucp_request_param_t parameters{};
        require(wait(ucp_worker_flush_nbx(m_worker, &parameters)), "ucp_worker_flush_nbx");
    }

    Message receive() override
    {
        if (m_isTaken) {
            startReceiving(m_in[m_nextIn]);
            m_nextIn = (m_nextIn + 1) % m_in.size();
        }
        m_isTaken = true;
        Slot& slot = m_in[m_nextIn];
        ucp_tag_recv_info_t info{};
        ucs_status_t status = UCS_INPROGRESS;
        while ((status = ucp_tag_recv_request_test(slot.request, &info)) == UCS_INPROGRESS) {
            ucp_worker_progress(m_worker);
        }
        require(status, "ucp_tag_recv_nbx");
        ucp_request_free(slot.request);
        slot.request = nullptr;
        return {slot.bytes.data(), info.length};
    }

private:
    void openWorker()
    {
        ucp_params_t parameters{};
        parameters.field_mask = UCP_PARAM_FIELD_FEATURES;
        parameters.features = UCP_FEATURE_TAG;
        require(ucp_init(&parameters, nullptr, &m_context), "ucp_init");
        ucp_worker_params_t worker{};
        worker.field_mask = UCP_WORKER_PARAM_FIELD_THREAD_MODE;
        worker.thread_mode = UCS_THREAD_MODE_SINGLE;
        require(ucp_worker_create(m_context, &worker, &m_worker), "ucp_worker_create");
    }

    void exchangeAddresses(const Terms& terms, Meeting& meeting)
    {
        ucp_address_t* own = nullptr;
        std::size_t size = 0;
        require(ucp_worker_get_address(m_worker, &own, &size), "ucp_worker_get_address");
        meeting.announce(std::string(reinterpret_cast<const char*>(own), size));
        ucp_worker_release_address(m_worker, own);

        const std::string other = meeting.find(terms.rank == 0 ? 1 : 0);
        ucp_ep_params_t parameters{};
        parameters.field_mask = UCP_EP_PARAM_FIELD_REMOTE_ADDRESS;
        parameters.address = reinterpret_cast<const ucp_address_t*>(other.data());
        require(ucp_ep_create(m_worker, &parameters, &m_peer), "ucp_ep_create");
    }

    /// A receive that is complete at once leaves a request, too.
    void startReceiving(Slot& slot)
    {
        ucp_request_param_t parameters{};
        parameters.op_attr_mask = UCP_OP_ATTR_FLAG_NO_IMM_CMPL;
        slot.request = ucp_tag_recv_nbx(m_worker, slot.bytes.data(), slot.bytes.size(), s_tag,
                                        s_wholeTag, &parameters);
        if (UCS_PTR_IS_ERR(slot.request)) {
            require(UCS_PTR_STATUS(slot.request), "ucp_tag_recv_nbx");
        }
    }

    /// Waits for a transfer and lets go of it; null is one that was complete at once.
    ucs_status_t wait(void* request)
    {
        if (!UCS_PTR_IS_PTR(request)) {
            return UCS_PTR_STATUS(request);
        }
        ucs_status_t status = UCS_INPROGRESS;
        while ((status = ucp_request_check_status(request)) == UCS_INPROGRESS) {
            ucp_worker_progress(m_worker);
        }
        ucp_request_free(request);
        return status;
    }

    ucp_context_h m_context = nullptr;
    ucp_worker_h m_worker = nullptr;
    ucp_ep_h m_peer = nullptr;
    std::vector<Slot> m_out;
    std::vector<Slot> m_in;
    std::size_t m_nextOut = 0;
    std::size_t m_nextIn = 0;
    bool m_isTaken = false;
};

} // namespace

std::unique_ptr<Channel> openChannel(const Terms& terms, Meeting& meeting)
{
    ::setenv("UCX_TLS", "tcp", 1);
    ::setenv("UCX_NET_DEVICES", "lo", 1);
    return std::make_unique<Ucx>(terms, meeting);
}

} // namespace bench
