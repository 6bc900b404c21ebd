#include <benchmarks/library/links.h>

#include <sstream>
#include <string>

#include <NetBase/buffers/kyNetOptions.h>
#include <NetBase/links/kyBoundSocketLink.h>
#include <apps/common/LinkCipher.h>
#include <benchmarks/core/Meeting.h>
#include <benchmarks/core/Terms.h>

namespace bench {

namespace {

/// Two keys for each link. They protect nothing here.
void setCipher(kyNetLink& link, int number, bool isSender)
{
    SharedKey::Bytes forth{};
    forth[0] = static_cast<std::uint8_t>(number);
    SharedKey::Bytes back = forth;
    back[1] = 1;
    link.setCipher(isSender ? std::make_shared<LinkCipher>(forth, back)
                            : std::make_shared<LinkCipher>(back, forth));
}

} // namespace

bool uses(const Terms& terms, const char* word)
{
    std::istringstream words(terms.variant);
    std::string next;
    while (words >> next) {
        if (next == word) {
            return true;
        }
    }
    return false;
}

Links connectTo(int rank, const Terms& terms, const Meeting& meeting)
{
    const kySocketAddress address("127.0.0.1", meeting.find(rank));
    Links links;
    for (int i = 0; i < terms.connections; ++i) {
        links.push_back(
            std::make_shared<kySocketLink>(address, kyNetOptions::getConnectionTimeout()));
        if (uses(terms, "cipher")) {
            setCipher(*links.back(), i, true);
        }
    }
    return links;
}

Links acceptAll(const Terms& terms, Meeting& meeting)
{
    const kyBoundSocketLink listening(0);
    meeting.announce(std::to_string(listening.getAddress().getPort()));
    Links links;
    for (int i = 0; i < terms.connections; ++i) {
        links.push_back(std::make_shared<kySocketLink>(listening));
        if (uses(terms, "cipher")) {
            setCipher(*links.back(), i, false);
        }
    }
    return links;
}

} // namespace bench
