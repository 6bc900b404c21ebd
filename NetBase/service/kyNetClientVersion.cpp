#include <NetBase/service/kyNetClientVersion.h>

#include <algorithm>
#include <string_view>

#include <Utils/kyNumber.h>

namespace {

/// Makes up for what a binary number cannot hold of a decimal one.
constexpr double s_tolerance = 0.0001;

bool isLineEnd(char c)
{
    return c == '\n' || c == '\r';
}

/// What "^SR1(?:.SP)?(\d*)$" makes of the text. Read by hand, since an expression is matched with a
/// stack as deep as the text is long.
std::string normalize(const std::string& reported)
{
    constexpr std::string_view release = "SR1";
    constexpr std::string_view servicePack = "SP";

    std::string_view rest = reported;
    if (rest.substr(0, release.size()) != release) {
        return reported;
    }
    rest.remove_prefix(release.size());
    if (!rest.empty() && !isLineEnd(rest.front()) &&
        rest.substr(1, servicePack.size()) == servicePack) {
        rest.remove_prefix(1 + servicePack.size());
    }
    const bool isNumber =
        std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
    return isNumber ? "8.5" + std::string(rest) : reported;
}

} // namespace

kyNetClientVersion::kyNetClientVersion(const std::string& reported)
    : m_text(normalize(reported)), m_number(kyNumber::toDouble(m_text))
{
}

bool kyNetClientVersion::isNewerThan(const std::string& version) const
{
    return m_number > kyNumber::toDouble(version);
}

bool kyNetClientVersion::isAtLeast(double version) const
{
    return m_number + s_tolerance >= version;
}
