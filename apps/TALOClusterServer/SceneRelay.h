#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include <apps/common/RenderProtocol.h>

class SharedKey;
class kyNetSender;
class kySocketLink;

namespace render {

/// How one render server passes the scene on to others of its node, each over image channels of
/// their own.
class SceneRelay
{
public:
    /// Opens a connection to the render server that has this id at the service of this node, which
    /// listens on the port. What it throws means that there is no such server.
    using Opener =
        std::function<std::shared_ptr<kySocketLink>(std::uint16_t port, std::uint32_t serverId)>;

    /// Opens the channels, each with the key and a Hello like the application's own, and makes one
    /// sender for all targets (see RelayBranch). A target that cannot be reached is logged and left
    /// out: it gets the scene from the application. Empty if there is none. Blocks. Never throws.
    static std::shared_ptr<kyNetSender> open(const Hello& application, const Setup& setup,
                                             const Opener& opener,
                                             const std::shared_ptr<const SharedKey>& key);
};

} // namespace render
