// The order statistics every benchmark reports. An empty sample gives 0.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace lumo::bench {

inline double Percentile(std::vector<double> v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * static_cast<double>(v.size())))];
}

inline double Median(std::vector<double> v) { return Percentile(std::move(v), 0.5); }

}  // namespace lumo::bench
