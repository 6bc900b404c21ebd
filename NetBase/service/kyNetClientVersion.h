#pragma once

#include <string>

/// The version that a client of the service reports, and what follows from it.
///
/// Versions are decimal numbers as text, "9.5"; a text that is no number counts as 0, which is
/// older than everything. The text is foreign and may be of any length.
class kyNetClientVersion
{
public:
    /// Takes the text as it came. A release that called itself "SR1" or "SR1.SP2" is version 8.5 or
    /// 8.52.
    explicit kyNetClientVersion(const std::string& reported);

    /// The version in decimal, if the client reported one; else what it reported.
    const std::string& getText() const { return m_text; }

    /// Whether the client may ask for more than somebody of the version given knows.
    bool isNewerThan(const std::string& version) const;

    /// What a start request of the client tells.
    bool tellsDisplay() const { return isAtLeast(9.0); }
    bool tellsBookingId() const { return isAtLeast(9.2); }
    bool tellsStereo() const { return isAtLeast(10.0); }

private:
    bool isAtLeast(double version) const;

    std::string m_text;
    double m_number;
};
