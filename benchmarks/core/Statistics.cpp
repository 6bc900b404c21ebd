#include <benchmarks/core/Statistics.h>

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace bench {

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double percentile(std::vector<double> values, double percent)
{
    const double place = std::ceil(percent / 100 * static_cast<double>(values.size()));
    const auto index = static_cast<std::size_t>(std::max(place, 1.0)) - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index),
                     values.end());
    return values[index];
}

} // namespace bench
