#include <benchmarks/core/Results.h>

#include <algorithm>
#include <cstdio>
#include <istream>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include <benchmarks/core/Statistics.h>

namespace bench {

namespace {

/// The share of a baseline's ratio that a ratio must keep.
constexpr double s_kept = 0.85;

constexpr const char* s_kinds[] = {"library", "limit", "peer"};

std::string format(const char* pattern, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, pattern, value);
    return text;
}

/// Three significant digits or more.
std::string formatValue(double value)
{
    return format(value < 10 ? "%.2f" : value < 100 ? "%.1f" : "%.0f", value);
}

std::string formatRatio(const std::optional<double>& ratio)
{
    return ratio ? format("%.2f", *ratio) : "-";
}

std::string pad(const std::string& text, std::size_t width)
{
    return text.size() < width ? std::string(width - text.size(), ' ') + text : " " + text;
}

double compare(const Row& row, const Row& reference)
{
    const double ratio = median(row.values) / median(reference.values);
    return row.metric.isLessBetter ? 1 / ratio : ratio;
}

double smallest(const std::vector<double>& values)
{
    return *std::min_element(values.begin(), values.end());
}

double largest(const std::vector<double>& values)
{
    return *std::max_element(values.begin(), values.end());
}

void writeTableLine(std::ostream& out, const std::string& name,
                    const std::vector<std::string>& cells)
{
    constexpr std::size_t nameWidth = 44;
    constexpr std::size_t cellWidth = 11;
    out << name << std::string(name.size() < nameWidth ? nameWidth - name.size() : 1, ' ');
    for (const std::string& cell : cells) {
        out << pad(cell, cellWidth);
    }
    out << '\n';
}

/// Names of metrics and contenders hold commas.
std::string quote(const std::string& text)
{
    return '"' + text + '"';
}

/// Takes a quoted text and the comma behind it off the front of a line.
std::string takeQuoted(std::string& line)
{
    const std::size_t end = line.find("\",", 1);
    if (line.empty() || line[0] != '"' || end == std::string::npos) {
        throw std::runtime_error("not a line of a baseline: " + line);
    }
    const std::string text = line.substr(1, end - 1);
    line.erase(0, end + 2);
    return text;
}

} // namespace

std::optional<double> Results::getRatio(const Row& row) const
{
    const Row* reference = findReference(row);
    if (reference == nullptr || reference == &row) {
        return std::nullopt;
    }
    return compare(row, *reference);
}

std::optional<double> Results::getRatioToBestPeer(const Row& row) const
{
    std::optional<double> ratio;
    for (const Row& other : m_rows) {
        if (other.kind == Contender::Kind::Peer && other.metric.name == row.metric.name) {
            ratio = std::min(ratio.value_or(compare(row, other)), compare(row, other));
        }
    }
    return ratio;
}

void Results::writeTable(std::ostream& out) const
{
    std::string metric;
    for (const Row& row : m_rows) {
        if (row.metric.name != metric) {
            metric = row.metric.name;
            out << '\n';
            writeTableLine(out, metric + ", " + row.metric.unit,
                           {"median", "min", "max", "CPU us", "x limit", "x best peer"});
        }
        writeTableLine(out, "  " + row.contender,
                       {formatValue(median(row.values)), formatValue(smallest(row.values)),
                        formatValue(largest(row.values)),
                        format("%.3g", median(row.processorMicroseconds)),
                        formatRatio(getRatio(row)), formatRatio(getRatioToBestPeer(row))});
    }
}

void Results::writeCsv(std::ostream& out) const
{
    out << "metric,contender,kind,unit,median,min,max,cpu_us_per_message,reference,ratio,"
           "ratio_to_best_peer\n";
    for (const Row& row : m_rows) {
        const Row* reference = findReference(row);
        out << quote(row.metric.name) << ',' << quote(row.contender) << ','
            << s_kinds[static_cast<int>(row.kind)] << ',' << quote(row.metric.unit) << ','
            << median(row.values) << ',' << smallest(row.values) << ',' << largest(row.values)
            << ',' << median(row.processorMicroseconds) << ','
            << quote(reference != nullptr ? reference->contender : "") << ','
            << formatRatio(getRatio(row)) << ',' << formatRatio(getRatioToBestPeer(row)) << '\n';
    }
}

std::vector<std::string> Results::getWorkloads() const
{
    std::vector<std::string> names;
    for (const Row& row : m_rows) {
        if (names.empty() || names.back() != row.workload) {
            names.push_back(row.workload);
        }
    }
    return names;
}

void Results::writePlotData(const std::string& workload, std::ostream& out) const
{
    std::string metric;
    for (const Row& row : m_rows) {
        if (row.workload != workload) {
            continue;
        }
        if (row.metric.name != metric) {
            out << (metric.empty() ? "" : "\n\n");
            metric = row.metric.name;
            out << quote(metric + ", " + row.metric.unit) << '\n';
        }
        out << quote(row.contender) << ' ' << static_cast<int>(row.kind) << ' '
            << median(row.values) << ' ' << smallest(row.values) << ' ' << largest(row.values)
            << '\n';
    }
}

void Results::writeBaseline(std::ostream& out) const
{
    out << "metric,contender,ratio\n";
    for (const Row& row : m_rows) {
        const auto ratio = getRatio(row);
        if (row.kind == Contender::Kind::Library && ratio) {
            out << quote(row.metric.name) << ',' << quote(row.contender) << ','
                << format("%.3f", *ratio) << '\n';
        }
    }
}

std::vector<Fall> Results::compareWithBaseline(std::istream& baseline) const
{
    std::vector<Fall> fallen;
    std::string line;
    std::getline(baseline, line); // The names of the columns.
    while (std::getline(baseline, line)) {
        const std::string metric = takeQuoted(line);
        const std::string contender = takeQuoted(line);
        const double before = std::stod(line);
        const Row* any = findRow(metric, "");
        if (any == nullptr) {
            continue;
        }
        const Row* row = findRow(metric, contender);
        const auto now = row != nullptr ? getRatio(*row) : std::nullopt;
        if (!now || *now < before * s_kept) {
            fallen.push_back({any->workload, metric + ": " + contender + " is at " +
                                                 formatRatio(now) + " instead of " +
                                                 format("%.2f", before)});
        }
    }
    return fallen;
}

const Row* Results::findReference(const Row& row) const
{
    for (const Row& other : m_rows) {
        const bool isMeant = row.reference.empty() ? other.kind == Contender::Kind::Limit
                                                   : other.contender == row.reference;
        if (isMeant && other.metric.name == row.metric.name) {
            return &other;
        }
    }
    return nullptr;
}

const Row* Results::findRow(const std::string& metric, const std::string& contender) const
{
    const auto found = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& row) {
        return row.metric.name == metric && (contender.empty() || row.contender == contender);
    });
    return found != m_rows.end() ? &*found : nullptr;
}

} // namespace bench
