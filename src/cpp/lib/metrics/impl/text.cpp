#include "cpp/lib/metrics/impl/text.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>

namespace zel {
namespace metrics {
namespace impl {

void ValueText::Unsigned(uint64_t v) {
  char buf[24];
  int n = std::snprintf(buf, sizeof(buf), "%" PRIu64, v);
  text_.append(buf, static_cast<size_t>(n));
}

void ValueText::Double(double v) {
  char buf[64];
  int n;
  if (!std::isfinite(v) || std::fabs(v) >= 1e15) {
    n = std::snprintf(buf, sizeof(buf), "%g", v);
  } else {
    n = std::snprintf(buf, sizeof(buf), "%.3f", v);
    // Drop the zeros that the fixed notation pads with, and a bare point.
    while (n > 0 && buf[n - 1] == '0') --n;
    if (n > 0 && buf[n - 1] == '.') --n;
    if (n == 2 && buf[0] == '-' && buf[1] == '0') {
      buf[0] = '0';
      n = 1;
    }
  }
  text_.append(buf, static_cast<size_t>(n));
}

}  // namespace impl
}  // namespace metrics
}  // namespace zel
