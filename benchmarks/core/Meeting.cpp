#include <benchmarks/core/Meeting.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace bench {

namespace {

constexpr std::chrono::seconds s_patience{30};
constexpr std::chrono::milliseconds s_pause{1};

std::string pathOf(const std::string& folder, const std::string& kind, int rank)
{
    return folder + "/" + kind + "." + std::to_string(rank);
}

} // namespace

Meeting::Meeting(std::string folder, int rank) : m_folder(std::move(folder)), m_rank(rank) {}

void Meeting::announce(const std::string& address)
{
    leave("address", address);
}

std::string Meeting::find(int rank) const
{
    return take("address", rank);
}

void Meeting::report(const Report& report)
{
    std::ostringstream text;
    text << std::setprecision(std::numeric_limits<double>::max_digits10);
    for (const auto& [name, value] : report) {
        text << name << ' ' << value << '\n';
    }
    leave("report", text.str());
}

Report Meeting::await(int rank) const
{
    std::istringstream text(take("report", rank));
    Report report;
    std::string name;
    double value = 0;
    while (text >> name >> value) {
        report[name] = value;
    }
    return report;
}

void Meeting::leave(const std::string& kind, const std::string& text)
{
    const std::string path = pathOf(m_folder, kind, m_rank);
    std::ofstream file(path + ".part", std::ios::binary);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
    std::filesystem::rename(path + ".part", path);
}

std::string Meeting::take(const std::string& kind, int rank) const
{
    const std::string path = pathOf(m_folder, kind, rank);
    const auto end = std::chrono::steady_clock::now() + s_patience;
    while (!std::filesystem::exists(path)) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("rank " + std::to_string(m_rank) + " waited in vain for the " +
                                     kind + " of rank " + std::to_string(rank));
        }
        std::this_thread::sleep_for(s_pause);
    }
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

} // namespace bench
