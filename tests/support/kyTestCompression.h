#pragma once

#include <NetBase/buffers/kyNetOptions.h>

namespace kyTest {

/// Sets the compression of data and of images; both defaults are restored on destruction.
class CompressionSetting
{
public:
    CompressionSetting(kyNetCompression data, kyNetCompression image)
    {
        kyNetOptions::setDataCompression(data);
        kyNetOptions::setImageCompression(image);
    }
    ~CompressionSetting()
    {
        kyNetOptions::setDataCompression(static_cast<kyNetCompression>(-1));
        kyNetOptions::setImageCompression(static_cast<kyNetCompression>(-1));
    }

    CompressionSetting(const CompressionSetting&) = delete;
    CompressionSetting& operator=(const CompressionSetting&) = delete;
};

} // namespace kyTest
