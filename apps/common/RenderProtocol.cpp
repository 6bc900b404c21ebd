#include <apps/common/RenderProtocol.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace render {

void Hello::putValue(kyNetSerializer& out) const
{
    out << protocolVersion << type << rank << session << bookingId << channels;
}

void Hello::getValue(kyNetSerializer& in)
{
    in >> protocolVersion;
    if (protocolVersion != s_protocolVersion) {
        throw kyNetError("Unknown protocol version " + std::to_string(protocolVersion));
    }
    in >> type >> rank >> session >> bookingId >> channels;
}

void TileMessage::putTile(const Tile& tile, const std::vector<Vector>& pixels)
{
    putValue(tile);
    putBytes(pixels.data(), pixels.size() * sizeof(Vector));
}

std::vector<Vector> TileMessage::getTile(Tile& tile)
{
    const std::uint64_t size = getDataSize();
    if (size >= sizeof tile) {
        getValue(tile);
        const std::uint64_t pixels = tile.pixelCount();
        if (pixels <= limits::s_tilePixels && pixels * sizeof(Vector) == size - sizeof tile) {
            std::vector<Vector> result(pixels);
            getBytes(result.data(), pixels * sizeof(Vector));
            return result;
        }
    }
    throw kyNetError("Received an invalid tile: " + std::to_string(size) + " bytes");
}

} // namespace render
