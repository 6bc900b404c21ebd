#include <benchmarks/workloads/workloads.h>

#include <string>
#include <thread>

#include <benchmarks/core/Run.h>

namespace bench {

namespace {

/// GiB a second of raw bytes, what these are to those that travelled, and the processor time of
/// both processes for a gigabyte of them.
Sample runCompressed(const Contender& contender, double seconds)
{
    const std::vector<Report> reports = runOnce(contender, seconds);
    const double size = static_cast<double>(contender.terms.size);
    Sample sample = summarise(reports, size / (1 << 30));
    const Report& sender = reports.front();
    sample.values.push_back(sample.processorMicroseconds / size * 1e3);
    sample.values.push_back(sender.at("sentMessages") * size / sender.at("compressedBytes"));
    return sample;
}

/// One kind of data: each method on one processor, two, and so on up to all there are.
Workload makeWorkload(const std::string& name, const std::string& file, std::uint64_t size)
{
    Terms terms;
    terms.size = size;
    terms.dataFile = programPath("samples/" + file);
    std::vector<Contender> contenders;
    for (const std::string method : {"lz4", "zstd"}) {
        Terms alone = terms;
        alone.receivers = 0;
        alone.variant = method;
        const std::string limitName = method + " alone, on one processor";
        contenders.push_back(
            {limitName, Contender::Kind::Limit, "compressionAlone", alone, limitName});
        const int most = static_cast<int>(std::thread::hardware_concurrency());
        for (int processors = 1; processors <= most; processors *= 2) {
            Contender contender =
                library(method + " on " + std::to_string(processors) + " processors", terms,
                        "links " + method, limitName);
            contender.processors = processors;
            contenders.push_back(contender);
        }
    }
    return {name,
            {{name + ", raw bytes", "GiB/s"},
             {name + ", processor time", "s/GB", true},
             {name + ", ratio", "raw bytes a byte"}},
            contenders,
            runCompressed,
            {}};
}

} // namespace

/// Finished tiles of a rendered picture, compressed on their way.
Workload compressedTiles()
{
    return makeWorkload("compressedTiles", "tiles", 120000);
}

/// The scene that was rendered.
Workload compressedGeometry()
{
    return makeWorkload("compressedGeometry", "geometry", 131072);
}

} // namespace bench
