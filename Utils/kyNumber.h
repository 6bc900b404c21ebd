#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <NetBase/kyNetBaseExport.h>

/// Numbers as text, the same in every locale.
///
/// An application object sets the locale of its environment, and a comma for the decimal point
/// would turn version 9.5 into 9. Records and versions are therefore read and written with these
/// functions, which keep the rules of `atof` and `atoi` in the C locale: leading white space and
/// one sign are skipped, the longest number at the front counts, the rest is ignored, and a text
/// without a number is 0. Thread-safe; none of them throws but `toFixedText` for want of memory.
class KY_NETBASE_EXPORT kyNumber
{
public:
    /// As `atof`: decimal and hexadecimal numbers, "inf" and "nan". What is too large is infinite,
    /// what is too small is 0.
    static double toDouble(std::string_view text) noexcept;

    /// As `atoi` and as `atol` where that has 32 bits: what is out of range becomes the nearest
    /// value in it.
    static std::int32_t toInt32(std::string_view text) noexcept;

    /// As `printf` with "%f": six decimals, 12.5 is "12.500000".
    static std::string toFixedText(double value);
};
