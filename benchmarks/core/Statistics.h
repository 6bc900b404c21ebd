#pragma once

#include <vector>

namespace bench {

/// The middle value; the mean of the two middle ones if there is none. Of at least one value.
double median(std::vector<double> values);

/// The smallest value that at least so many percent (0 to 100) of the values do not exceed. Of at
/// least one value.
double percentile(std::vector<double> values, double percent);

} // namespace bench
