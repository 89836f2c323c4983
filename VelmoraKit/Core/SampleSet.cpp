#include "VelmoraKit/Core/SampleSet.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace velmora {

double SampleSet::average() const {
    if (values_.empty()) return 0;
    return std::accumulate(values_.begin(), values_.end(), 0.0) / static_cast<double>(values_.size());
}

double SampleSet::max() const {
    return values_.empty() ? 0 : *std::max_element(values_.begin(), values_.end());
}

double SampleSet::percentile(double p) const {
    if (values_.empty()) return 0;
    const auto count = static_cast<double>(values_.size());
    const double rank = std::clamp(std::ceil(p / 100 * count) - 1, 0.0, count - 1);
    std::vector<double> sorted = values_;
    const auto nth = sorted.begin() + static_cast<std::ptrdiff_t>(rank);
    std::nth_element(sorted.begin(), nth, sorted.end());
    return *nth;
}

}  // namespace velmora
