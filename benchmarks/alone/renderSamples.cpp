// Makes what the workload "compressed" moves: finished tiles of the demo's picture, and its scene
// as it travels. Usage: renderSamples MODEL TILES GEOMETRY

#include <atomic>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include <NetBase/buffers/kyNetBuffer.h>
#include <NetBase/serialization/kyNetMessage.h>
#include <NetBase/serialization/kyNetSerializer.h>
#include <apps/TALOClusterServer/PathTracer.h>
#include <apps/TALORender/SceneImport.h>
#include <apps/TALORender/Studio.h>
#include <apps/common/SceneWire.h>

namespace {

/// The demo's picture in half its size, with a third of its paths.
constexpr std::uint32_t s_width = 480;
constexpr std::uint32_t s_height = 360;
constexpr std::uint32_t s_samples = 16;

/// A tile is what one message holds.
constexpr std::uint32_t s_tileEdge = 100;

/// Writes into a file what is written into it.
class FileSerializer : public kyNetSerializer
{
public:
    explicit FileSerializer(const std::string& path)
        : kyNetSerializer(kyNetOptions::getStreamBufferSize()), m_file(path, std::ios::binary)
    {
    }

    void finish()
    {
        flushSendBuffer();
        m_file.close();
        if (!m_file) {
            throw std::runtime_error("cannot write the samples");
        }
    }

protected:
    void recvBuffer(std::shared_ptr<kyNetBuffer>&) override
    {
        throw std::logic_error("only for writing");
    }

    void sendBuffer(const std::shared_ptr<kyNetBuffer>& buffer) override
    {
        m_file.write(buffer->getData(), static_cast<std::streamsize>(buffer->getDataSize()));
    }

private:
    std::ofstream m_file;
};

void writeTiles(const render::Studio& studio, const std::string& path)
{
    FileSerializer file(path);
    const render::PathTracer tracer(studio.scene);
    const render::Frame frame{studio.camera, s_width, s_height, s_samples};
    const std::atomic<bool> neverStop{false};
    for (std::uint32_t y = 0; y + s_tileEdge <= s_height; y += s_tileEdge) {
        for (std::uint32_t x = 0; x + s_tileEdge <= s_width; x += s_tileEdge) {
            const auto pixels = tracer.render(frame, {x, y, s_tileEdge, s_tileEdge}, neverStop);
            file.putBytes(pixels.data(), pixels.size() * sizeof pixels[0]);
        }
    }
    file.finish();
}

void writeGeometry(const render::Studio& studio, const std::string& path)
{
    FileSerializer file(path);
    render::putScene(file, studio.scene);
    file.finish();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fputs("Usage: renderSamples MODEL TILES GEOMETRY\n", stderr);
        return 2;
    }
    try {
        const render::Studio studio = render::buildStudio(render::importMesh(argv[1]),
                                                          static_cast<float>(s_width) / s_height);
        writeTiles(studio, argv[2]);
        writeGeometry(studio, argv[3]);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "renderSamples: %s\n", e.what());
        return 1;
    }
    return 0;
}
