#include <apps/TALORender/RenderReport.h>

#include <algorithm>
#include <iomanip>
#include <sstream>

#include <apps/TALORender/RemoteServer.h>

namespace render {

namespace {

struct Totals
{
    Traffic scene;
    Traffic sent;
    Traffic received;
    std::size_t plain = 0;
};

/// A number of the report; nobody knows what a lost server has sent.
std::string toText(const std::optional<Traffic>& traffic, std::uint64_t Traffic::*member)
{
    return traffic ? std::to_string((*traffic).*member) : "unknown";
}

} // namespace

std::string formatReport(const std::vector<std::shared_ptr<RemoteServer>>& servers)
{
    int nodeWidth = 4;
    for (const auto& server : servers) {
        nodeWidth = std::max(nodeWidth, static_cast<int>(server->getNode().toString().size()));
    }
    std::ostringstream table;
    const auto addLine = [&](const auto& node, const auto& id, const auto& tiles,
                             const auto& seconds, const auto& sent, const auto& sentCompressed,
                             const auto& received, const auto& receivedCompressed) {
        table << std::left << std::setw(nodeWidth) << node << std::right << std::setw(8) << id
              << std::setw(8) << tiles << std::setw(10) << seconds << std::setw(14) << sent
              << std::setw(14) << sentCompressed << std::setw(14) << received << std::setw(14)
              << receivedCompressed << '\n';
    };
    table << std::fixed << std::setprecision(1);
    addLine("node", "server", "tiles", "seconds", "bytes sent", "compressed", "received",
            "compressed");
    Totals totals;
    for (const auto& server : servers) {
        const RemoteServer::Work work = server->getWork();
        addLine(server->getNode().toString(), server->getServerId(), work.tiles, work.seconds,
                work.sent.raw, work.sent.compressed, toText(work.received, &Traffic::raw),
                toText(work.received, &Traffic::compressed));
        totals.scene += work.scene;
        totals.sent += work.sent;
        totals.received += work.received.value_or(Traffic());
        totals.plain += work.hasPlainRays ? 1 : 0;
    }
    const auto addTotal = [&](const char* name, std::uint64_t Traffic::*member) {
        table << name << totals.sent.*member + totals.received.*member
              << " bytes: " << totals.sent.*member << " sent, " << totals.received.*member
              << " received\n";
    };
    addTotal("raw:        ", &Traffic::raw);
    addTotal("compressed: ", &Traffic::compressed);
    table << "scene:      " << totals.scene.compressed << " bytes left the application for "
          << servers.size() << (servers.size() == 1 ? " server, " : " servers, ")
          << totals.scene.raw << " before they were compressed\n";
    if (totals.plain > 0) {
        table << "rays:       cast without Embree by " << totals.plain << " of " << servers.size()
              << (servers.size() == 1 ? " server\n" : " servers\n");
    }
    return table.str();
}

} // namespace render
