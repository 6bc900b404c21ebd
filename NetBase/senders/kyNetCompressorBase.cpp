#include <NetBase/senders/kyNetCompressorBase.h>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/buffers/kyNetOptions.h>

bool kyNetCompressorBase::shouldCompress(const std::shared_ptr<kyNetBuffer>& buffer)
{
    return buffer->getCompression() == kyNetCompression::None &&
           buffer->getType() != kyNetMessageType::Bundle &&
           // Larger once: some other method has shortened it.
           buffer->getOriginalDataSize() <= buffer->getDataSize() &&
           getRequestedCompression(buffer) != kyNetCompression::None;
}

kyNetCompression
kyNetCompressorBase::getRequestedCompression(const std::shared_ptr<kyNetBuffer>& buffer)
{
    return buffer->getType() == kyNetMessageType::ImageData ? kyNetOptions::getImageCompression()
                                                            : kyNetOptions::getDataCompression();
}
