#include <apps/TALORender/RenderReport.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

#include <apps/TALORender/RemoteServer.h>

namespace render {

std::string formatReport(const std::vector<std::shared_ptr<RemoteServer>>& servers)
{
    int nodeWidth = 4;
    for (const auto& server : servers) {
        nodeWidth = std::max(nodeWidth, static_cast<int>(server->getNode().toString().size()));
    }
    std::ostringstream table;
    const auto addLine = [&](const auto& node, const auto& id, const auto& tiles,
                             const auto& seconds, const auto& sent, const auto& received) {
        table << std::left << std::setw(nodeWidth) << node << std::right << std::setw(8) << id
              << std::setw(8) << tiles << std::setw(10) << seconds << std::setw(14) << sent
              << std::setw(16) << received << '\n';
    };
    table << std::fixed << std::setprecision(1);
    addLine("node", "server", "tiles", "seconds", "bytes sent", "bytes received");
    for (const auto& server : servers) {
        const RemoteServer::Work work = server->getWork();
        addLine(server->getNode().toString(), server->getServerId(), work.tiles, work.seconds,
                work.sentBytes, work.receivedBytes);
    }
    return table.str();
}

} // namespace render
