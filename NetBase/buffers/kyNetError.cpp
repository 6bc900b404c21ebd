#include <NetBase/buffers/kyNetError.h>

#include <sstream>

#include <NetBase/platform/kyLastError.h>

namespace {

std::string textOf(const std::ostream& stream)
{
    const auto* buffer = dynamic_cast<const std::stringbuf*>(stream.rdbuf());
    return buffer != nullptr ? buffer->str() : std::string();
}

} // namespace

kyNetError::kyNetError(const std::string& message) : std::runtime_error(message) {}

kyNetError::kyNetError(const std::ostream& stream) : std::runtime_error(textOf(stream)) {}

kyNetError::~kyNetError() = default;

std::string kyNetError::getLastErrorString()
{
    const int code = kyLastError::get();
    if (code == 0) {
        return {};
    }
    std::string text = kyLastError::getNumber(code) + ":" + kyLastError::getText(code);
    kyLastError::set(code);
    return text;
}
