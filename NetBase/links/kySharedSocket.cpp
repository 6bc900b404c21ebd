#include <NetBase/links/kySharedSocket.h>

#include <NetBase/platform/kySockets.h>

bool kySharedSocket::enter()
{
    std::uint32_t state = m_state.load();
    while ((state & s_closed) == 0) {
        if (m_state.compare_exchange_weak(state, state + 1)) {
            return true;
        }
    }
    return false;
}

void kySharedSocket::leave()
{
    if (m_state.fetch_sub(1) == (s_closed | 1u)) {
        kySockets::close(m_handle);
    }
}

void kySharedSocket::close()
{
    if (m_state.fetch_or(s_closed) == 0) {
        kySockets::close(m_handle);
    }
}
