#include "support/samples.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tarvomeldric {
namespace {

constexpr std::size_t kMostSamples = 10'000;
constexpr std::size_t kKeptSamples = 5'000;

}  // namespace

void append_bounded(std::vector<double>& samples, double value) {
  samples.push_back(value);
  if (samples.size() <= kMostSamples) return;
  samples.erase(samples.begin(), samples.end() - static_cast<std::ptrdiff_t>(kKeptSamples));
}

SortedSamples::SortedSamples(std::vector<double> samples) : sorted_(std::move(samples)) {
  std::ranges::sort(sorted_);
}

double SortedSamples::sum() const { return std::accumulate(sorted_.begin(), sorted_.end(), 0.0); }

double SortedSamples::quantile(double q) const {
  return sorted_[static_cast<std::size_t>(static_cast<double>(count()) * q)];
}

}  // namespace tarvomeldric
