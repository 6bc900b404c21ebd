#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <benchmarks/core/Workload.h>

namespace bench {

/// A ratio that is too far below that of a baseline.
struct Fall
{
    std::string workload;
    std::string sentence;
};

/// All that was measured.
///
/// A ratio compares medians and is above 1 where the first is better, whether that means more or
/// less of the unit.
class Results
{
public:
    /// Adds a row; those of one metric follow each other.
    void add(const Row& row) { m_rows.push_back(row); }

    const std::vector<Row>& getRows() const { return m_rows; }

    /// To the row's reference: the contender that it names, or else the metric's first limit. None
    /// if that was not measured, or is the row itself.
    std::optional<double> getRatio(const Row& row) const;

    /// To the peer with the best median in this metric.
    std::optional<double> getRatioToBestPeer(const Row& row) const;

    /// For people: a part for each metric.
    void writeTable(std::ostream& out) const;

    /// For programs: a line for each row.
    void writeCsv(std::ostream& out) const;

    /// The workloads that have rows.
    std::vector<std::string> getWorkloads() const;

    /// For plot.gp: a block for each metric of a workload.
    void writePlotData(const std::string& workload, std::ostream& out) const;

    /// The ratios of the library's rows, for compareWithBaseline.
    void writeBaseline(std::ostream& out) const;

    /// The ratios that are by more than 15 % below those of a baseline. Only metrics that were
    /// measured are compared; a contender that is missing there is one that fell. Throws
    /// std::runtime_error for a line that is none of a baseline's.
    std::vector<Fall> compareWithBaseline(std::istream& baseline) const;

private:
    const Row* findReference(const Row& row) const;
    /// Of any contender, if the name is empty.
    const Row* findRow(const std::string& metric, const std::string& contender) const;

    std::vector<Row> m_rows;
};

} // namespace bench
