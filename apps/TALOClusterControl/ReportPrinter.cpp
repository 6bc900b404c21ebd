#include <apps/TALOClusterControl/ReportPrinter.h>

#include <algorithm>
#include <cstdio>
#include <limits>

#include <nlohmann/json.hpp>

#include <apps/common/Printable.h>

namespace {

using Row = std::vector<std::string>;

template <class... Values> std::string print(const char* format, Values... values)
{
    char text[64];
    std::snprintf(text, sizeof(text), format, values...);
    return text;
}

std::string formatMemory(std::uint64_t bytes)
{
    // The status answers no more than this.
    const bool isBound = bytes >= std::numeric_limits<std::int32_t>::max();
    const double gibibytes = static_cast<double>(bytes) / (1024.0 * 1024.0 * 1024.0);
    return print(isBound ? "%.1f GiB or more" : "%.1f GiB", gibibytes);
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

Row makeTitles(const NodeReport& report)
{
    if (report.status) {
        return {"NODE", "VERSION", "SERVERS", "FREE MEMORY", "BOOKINGS"};
    }
    return {"NODE", report.serverId ? "SERVER" : report.seconds ? "SECONDS" : "RESULT"};
}

Row makeRow(const NodeReport& report)
{
    if (report.status) {
        const kyNetServiceStatus& status = *report.status;
        return {report.node, status.getVersion(),
                std::to_string(status.getNumberOfClusterServers()),
                formatMemory(status.getFreeMemory()), joined(status.getBookingIds())};
    }
    if (report.serverId) {
        return {report.node, std::to_string(*report.serverId)};
    }
    return {report.node, report.seconds ? print("%.6f", *report.seconds) : "done"};
}

std::string formatRows(const std::vector<Row>& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string table;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        line.erase(line.find_last_not_of(' ') + 1);
        table += line + '\n';
    }
    return table;
}

nlohmann::json toJson(const kyNetServiceStatus& status)
{
    return {{"running", status.getIsRunning()},
            {"version", status.getVersion()},
            {"servers", status.getNumberOfClusterServers()},
            {"cpuUsage", status.getCPUUsage()},
            {"freeMemory", status.getFreeMemory()},
            {"bookings", status.getBookingIds()}};
}

nlohmann::json toJson(const NodeReport& report)
{
    nlohmann::json object = {{"node", report.node}, {"done", report.isDone()}};
    if (!report.isDone()) {
        object["error"] = report.error;
    }
    if (report.status) {
        object["status"] = toJson(*report.status);
    }
    if (report.serverId) {
        object["server"] = *report.serverId;
    }
    if (report.seconds) {
        object["seconds"] = *report.seconds;
    }
    return object;
}

} // namespace

std::string formatTable(const std::vector<NodeReport>& reports)
{
    std::vector<Row> rows;
    for (const NodeReport& report : reports) {
        if (!report.isDone()) {
            continue;
        }
        if (rows.empty()) {
            rows.push_back(makeTitles(report));
        }
        Row row = makeRow(report);
        std::transform(row.begin(), row.end(), row.begin(), printable);
        rows.push_back(std::move(row));
    }
    return rows.empty() ? "" : formatRows(rows);
}

std::string formatErrors(const std::vector<NodeReport>& reports)
{
    std::string lines;
    for (const NodeReport& report : reports) {
        if (!report.isDone()) {
            lines += printable(report.error) + '\n';
        }
    }
    return lines;
}

std::string formatJson(const std::vector<NodeReport>& reports)
{
    nlohmann::json array = nlohmann::json::array();
    for (const NodeReport& report : reports) {
        array.push_back(toJson(report));
    }
    // Texts of a node need not be UTF-8; JSON has to be.
    return array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + '\n';
}
