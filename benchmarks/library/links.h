#pragma once

#include <memory>
#include <vector>

#include <NetBase/links/kyNetLink.h>

namespace bench {

class Meeting;
struct Terms;

using Links = std::vector<std::shared_ptr<kyNetLink>>;

/// Whether the library is used in this way: the variant is a list of words.
bool uses(const Terms& terms, const char* word);

/// As many links from the listening process `rank` as the terms say; with the cipher of the
/// programs, if "cipher" is used.
Links connectTo(int rank, const Terms& terms, const Meeting& meeting);

/// The other ends of these.
Links acceptAll(const Terms& terms, Meeting& meeting);

} // namespace bench
