#pragma once

#include <vector>

namespace velmora {

/// Measurements of one period, in arrival order. Unbounded: the owner starts a new set each period.
class SampleSet {
public:
    void add(double value) { values_.push_back(value); }
    bool empty() const { return values_.empty(); }

    /// Each is 0 when the set is empty.
    double average() const;
    double max() const;
    /// Nearest rank, no interpolation; `p` from 0 (smallest) to 100 (largest).
    double percentile(double p) const;

private:
    std::vector<double> values_;
};

}  // namespace velmora
