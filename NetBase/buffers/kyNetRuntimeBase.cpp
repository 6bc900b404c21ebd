#include <NetBase/buffers/kyNetRuntimeBase.h>

#include <NetBase/buffers/kyNetError.h>

std::atomic<kyNetRuntimeBase*> kyNetRuntimeBase::s_the{nullptr};

kyNetRuntimeBase::kyNetRuntimeBase()
{
    s_the = this;
}

kyNetRuntimeBase::~kyNetRuntimeBase()
{
    s_the = nullptr;
}

kyNetRuntimeBase& kyNetRuntimeBase::the()
{
    kyNetRuntimeBase* registered = s_the;
    if (registered == nullptr) {
        throw kyNetError("No cluster runtime service available");
    }
    return *registered;
}
