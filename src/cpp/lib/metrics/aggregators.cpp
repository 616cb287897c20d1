#include "cpp/lib/metrics/aggregators.h"

namespace zel {
namespace metrics {
namespace aggregation {

double Percentile(const std::vector<uint64_t>& sorted, double p) {
  const size_t n = sorted.size();
  if (n == 0) return 0.0;
  const double r = p * static_cast<double>(n + 1);
  const size_t k = static_cast<size_t>(r);
  if (k == 0) return static_cast<double>(sorted.front());
  if (k >= n) return static_cast<double>(sorted.back());
  const double a = static_cast<double>(sorted[k - 1]);
  const double b = static_cast<double>(sorted[k]);
  return (r - static_cast<double>(k)) * (b - a) + a;
}

}  // namespace aggregation
}  // namespace metrics
}  // namespace zel
