#include <benchmarks/core/Contender.h>

#include <utility>

namespace bench {

Contender library(const std::string& name, Terms terms, const std::string& variant,
                  const std::string& reference)
{
    terms.variant = variant;
    return {"library, " + name, Contender::Kind::Library, "library", std::move(terms), reference};
}

Contender limit(const std::string& name, Terms terms, const std::string& variant)
{
    terms.variant = variant;
    return {name, Contender::Kind::Limit, "plainSockets", std::move(terms), ""};
}

std::vector<Contender> peers(const std::vector<std::string>& programs, const Terms& terms)
{
    std::vector<Contender> contenders;
    for (const std::string& program : programs) {
        contenders.push_back({program, Contender::Kind::Peer, program, terms, ""});
    }
    return contenders;
}

void add(std::vector<Contender>& contenders, const std::vector<Contender>& more)
{
    contenders.insert(contenders.end(), more.begin(), more.end());
}

} // namespace bench
