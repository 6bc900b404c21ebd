#include <apps/common/RenderProtocol.h>

#include <NetBase/buffers/kyNetError.h>
#include <NetBase/serialization/kyNetSerializer.h>

namespace render {

namespace {

constexpr std::uint32_t s_maxRelayTargets = 64;
constexpr std::size_t s_maxFailureText = 4096;

bool isOrder(Order order)
{
    switch (order) {
    case Order::None:
    case Order::LoadScene:
    case Order::BeginFrame:
    case Order::RenderTile:
    case Order::ReportTraffic:
        return true;
    }
    return false;
}

} // namespace

void Hello::putValue(kyNetSerializer& out) const
{
    out << protocolVersion << type << rank << source << session << bookingId << channels;
}

void Hello::getValue(kyNetSerializer& in)
{
    in >> protocolVersion;
    if (protocolVersion != s_protocolVersion) {
        throw kyNetError("Unknown protocol version " + std::to_string(protocolVersion));
    }
    in >> type >> rank >> source >> session >> bookingId >> channels;
}

void Setup::putValue(kyNetSerializer& out) const
{
    out << imageCompression << sceneSource << servicePort
        << static_cast<std::uint32_t>(relayTargets.size());
    for (const RelayTarget& target : relayTargets) {
        out << target.rank << target.serverId;
    }
}

void Setup::getValue(kyNetSerializer& in)
{
    std::uint32_t count = 0;
    in >> imageCompression >> sceneSource >> servicePort >> count;
    if (count > s_maxRelayTargets) {
        throw kyNetError(std::to_string(count) + " servers are too many to relay to");
    }
    relayTargets.resize(count);
    for (RelayTarget& target : relayTargets) {
        in >> target.rank >> target.serverId;
    }
}

void AnswerMessage::putAnswer(const Answer& answer)
{
    *this << answer.order << answer.frame << answer.tile
          << answer.failure.substr(0, s_maxFailureText) << answer.seconds << answer.sentBytes
          << answer.compressedBytes;
    putBytes(answer.pixels.data(), answer.pixels.size() * sizeof(Vector));
}

Answer AnswerMessage::getAnswer()
{
    Answer answer;
    *this >> answer.order >> answer.frame >> answer.tile >> answer.failure >> answer.seconds >>
        answer.sentBytes >> answer.compressedBytes;
    if (!isOrder(answer.order)) {
        throw kyNetError("Received an answer to order " +
                         std::to_string(static_cast<std::uint32_t>(answer.order)));
    }
    if (answer.failure.size() > s_maxFailureText) {
        answer.failure.resize(s_maxFailureText);
    }
    if (answer.order == Order::RenderTile && answer.failure.empty()) {
        answer.pixels = getPixels(answer.tile);
    }
    if (isReadable()) {
        throw kyNetError("Received an answer with more than belongs to it");
    }
    return answer;
}

std::vector<Vector> AnswerMessage::getPixels(const Tile& tile)
{
    const std::uint64_t pixels = tile.pixelCount();
    if (pixels > limits::s_tilePixels) {
        throw kyNetError("Received a tile of " + std::to_string(pixels) + " pixels");
    }
    std::vector<Vector> result(pixels);
    getBytes(result.data(), pixels * sizeof(Vector));
    return result;
}

} // namespace render
