#include <Utils/kyNumber.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <system_error>

namespace {

/// A number's text without the white space and the sign before it.
struct Unsigned
{
    explicit Unsigned(std::string_view text)
    {
        const std::size_t begin = text.find_first_not_of(" \t\n\v\f\r");
        digits = text.substr(begin == std::string_view::npos ? text.size() : begin);
        if (!digits.empty() && (digits.front() == '-' || digits.front() == '+')) {
            isNegative = digits.front() == '-';
            digits.remove_prefix(1);
        }
        if (!digits.empty() && digits.front() == '-') {
            // A second sign is no number, but would be one for std::from_chars.
            digits = {};
        }
    }

    std::string_view digits;
    bool isNegative = false;
};

bool isHexadecimal(std::string_view digits)
{
    constexpr std::string_view first = "0123456789abcdefABCDEF.";
    return digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X') &&
           first.find(digits[2]) != std::string_view::npos;
}

/// Whether a number that no double can hold is too large; it is too small otherwise. The place of
/// its first digit that is not zero tells, together with the exponent.
bool isTooLarge(std::string_view number, std::string_view exponentSigns, int digitWeight)
{
    const std::size_t exponentAt = number.find_first_of(exponentSigns);
    const std::string_view mantissa = number.substr(0, exponentAt);
    const std::size_t first = mantissa.find_first_not_of("0.");
    const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
    const auto place = static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first);

    std::int64_t exponent = 0;
    if (exponentAt != std::string_view::npos) {
        exponent = kyNumber::toInt32(number.substr(exponentAt + 1));
    }
    return place * digitWeight + exponent > 0;
}

double magnitude(std::string_view digits)
{
    const bool isHex = isHexadecimal(digits);
    const std::string_view number = isHex ? digits.substr(2) : digits;
    double value = 0;
    const std::from_chars_result result =
        std::from_chars(number.data(), number.data() + number.size(), value,
                        isHex ? std::chars_format::hex : std::chars_format::general);
    if (result.ec == std::errc::result_out_of_range) {
        const std::string_view used =
            number.substr(0, static_cast<std::size_t>(result.ptr - number.data()));
        const bool isLarge = isHex ? isTooLarge(used, "pP", 4) : isTooLarge(used, "eE", 1);
        return isLarge ? std::numeric_limits<double>::infinity() : 0.0;
    }
    return result.ec == std::errc() ? value : 0.0;
}

} // namespace

double kyNumber::toDouble(std::string_view text) noexcept
{
    const Unsigned number(text);
    const double value = magnitude(number.digits);
    return number.isNegative ? -value : value;
}

std::int32_t kyNumber::toInt32(std::string_view text) noexcept
{
    using Limits = std::numeric_limits<std::int32_t>;
    const Unsigned number(text);
    std::int64_t value = 0;
    const std::from_chars_result result =
        std::from_chars(number.digits.data(), number.digits.data() + number.digits.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
        return number.isNegative ? Limits::min() : Limits::max();
    }
    value = number.isNegative ? -value : value;
    return static_cast<std::int32_t>(
        std::min<std::int64_t>(std::max<std::int64_t>(value, Limits::min()), Limits::max()));
}

std::string kyNumber::toFixedText(double value)
{
    // The largest double has 309 digits before its point.
    std::array<char, 400> text;
    const std::to_chars_result result =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, 6);
    return std::string(text.data(), result.ptr);
}
