#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>

#include <NetBase/kyNetBaseExport.h>

/// What every failure of the library is thrown as.
///
/// Two subclasses let a caller act on a peer that is gone (kyConnectionClosed) or silent
/// (kyConnectionTimeout); all else is told by the text alone: what failed and, where the operating
/// system refused, its code and words:
///
///     throw kyNetError("bind failed. " + kyNetError::getLastErrorString());
///     throw kyNetError(std::ostringstream() << "size " << size << " exceeds the capacity");
class KY_NETBASE_EXPORT kyNetError : public std::runtime_error
{
public:
    /// A failure with the given text.
    explicit kyNetError(const std::string& message);

    /// A failure with everything that was written into a string stream so far; a stream of
    /// another kind gives an empty text.
    explicit kyNetError(const std::ostream& stream);

    kyNetError(const kyNetError&) = default;
    kyNetError(kyNetError&&) = default;
    kyNetError& operator=(const kyNetError&) = default;
    kyNetError& operator=(kyNetError&&) = default;
    ~kyNetError() override;

    /// The calling thread's last operating system error as "code:text", "code:" if the system
    /// has no text for it, "" if there is none. Leaves the last error as it is.
    static std::string getLastErrorString();
};
