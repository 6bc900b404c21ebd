#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace render {

/// Where a server gets the scene from, and whom it passes it on to.
struct RelayPlace
{
    /// The server that relays to it; none: the application itself sends.
    std::optional<std::size_t> parent;
    std::vector<std::size_t> children;
    /// How many relays are before it.
    std::size_t level = 0;
};

/// The places of servers of which the names of the nodes are given, by their positions in the list.
/// Servers relay within their node, each to two others at most; so the application sends the scene
/// once to each node, and every level of a node's tree is twice as wide as the one before.
std::vector<RelayPlace> planRelays(const std::vector<std::string>& nodes);

} // namespace render
