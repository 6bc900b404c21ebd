#pragma once

#include <cstdint>

#include <NetBase/links/kyNetLink.h>

/// Keeps the receive handle of a link valid while a poll waits on it.
///
/// Without it a link that another thread shuts down could be closed, and its number reused by a
/// new connection, under the poll. Make one per link, poll the handles of those that are pinned,
/// and let all of them go before receiving:
///
///     kyNetLinkPin pin(*link);
///     if (pin.isPinned()) { ... pin.getHandle() ... }
///
/// A link that cannot be pinned is closed: its next receive says so. The link must outlive the
/// pin. A shutdown meanwhile wakes the poll; the handle is closed when the last pin has gone.
class kyNetLinkPin
{
public:
    explicit kyNetLinkPin(kyNetLink& link) : m_link(link.pinRecvHandle(m_handle) ? &link : nullptr)
    {
    }

    kyNetLinkPin(kyNetLinkPin&& other) noexcept : m_handle(other.m_handle), m_link(other.m_link)
    {
        other.m_link = nullptr;
    }

    ~kyNetLinkPin()
    {
        if (m_link != nullptr) {
            m_link->unpinRecvHandle();
        }
    }

    kyNetLinkPin(const kyNetLinkPin&) = delete;
    kyNetLinkPin& operator=(const kyNetLinkPin&) = delete;

    /// Whether the handle can be polled.
    bool isPinned() const { return m_link != nullptr; }

    /// The handle, if pinned.
    std::uint32_t getHandle() const { return m_handle; }

private:
    std::uint32_t m_handle = 0; // Before m_link: filled while that is initialised.
    kyNetLink* m_link;
};
