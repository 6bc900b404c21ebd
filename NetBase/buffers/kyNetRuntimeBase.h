#pragma once

#include <atomic>
#include <string>

#include <NetBase/kyNetBaseExport.h>

/// The host's runtime service, where parts of a program find the cluster that they run in.
///
/// The host derives from it and makes one object, which registers itself; everybody else asks
/// the(). Make it before the library is used from several threads, and destroy it after. The
/// library itself calls none of its operations.
class KY_NETBASE_EXPORT kyNetRuntimeBase
{
public:
    kyNetRuntimeBase(const kyNetRuntimeBase&) = delete;
    kyNetRuntimeBase& operator=(const kyNetRuntimeBase&) = delete;

    /// Ends the registration, whichever object is registered.
    virtual ~kyNetRuntimeBase();

    /// The object that was made last. Throws kyNetError if there is none.
    static kyNetRuntimeBase& the();

    /// The rank of this process.
    virtual int getRank() const = 0;

    /// How many ranks the cluster has.
    virtual int getRankCount() const = 0;

    /// The name of the node that this process runs on.
    virtual std::string getNodeName() const = 0;

protected:
    /// Registers the new object.
    kyNetRuntimeBase();

private:
    static std::atomic<kyNetRuntimeBase*> s_the;
};
