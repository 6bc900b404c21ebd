#include <apps/TALORender/RelayPlan.h>

#include <map>

namespace render {

std::vector<RelayPlace> planRelays(const std::vector<std::string>& nodes)
{
    std::vector<RelayPlace> places(nodes.size());
    std::map<std::string, std::vector<std::size_t>> serversOf;
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        std::vector<std::size_t>& servers = serversOf[nodes[i]];
        if (!servers.empty()) {
            const std::size_t parent = servers[(servers.size() - 1) / 2];
            places[i].parent = parent;
            places[i].level = places[parent].level + 1;
            places[parent].children.push_back(i);
        }
        servers.push_back(i);
    }
    return places;
}

} // namespace render
