#pragma once

#include <cstddef>
#include <vector>

namespace tarvomeldric {

// Appends to a list of samples that grows to 10,000 and is then cut to its newest 5,000.
void append_bounded(std::vector<double>& samples, double value);

// Order statistics over a non-empty list. Every quantile is a sample, none is interpolated.
// Does not change once made.
class SortedSamples {
 public:
  explicit SortedSamples(std::vector<double> samples);

  std::size_t count() const { return sorted_.size(); }
  double sum() const;
  double mean() const { return sum() / static_cast<double>(count()); }
  // The upper of the two middle values for an even count.
  double median() const { return sorted_[count() / 2]; }
  double quantile(double q) const;

 private:
  std::vector<double> sorted_;
};

}  // namespace tarvomeldric
