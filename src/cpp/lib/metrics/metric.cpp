#include "cpp/lib/metrics/metric.h"

#include <cinttypes>
#include <cstdio>
#include <string>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/error_tags.h"

namespace zel {
namespace metrics {
namespace impl {

void ThrowWrongValueType(uint64_t have, uint64_t want) {
  char text[96];
  std::snprintf(text, sizeof(text), "Metric: wrong value type (%" PRIu64 " != %" PRIu64 ")", have,
                want);
  ZEL_METRICS_LOG(kLogError).addTag(kTagMxLib200).format("%s", text);
  throw std::runtime_error(text);
}

void ThrowNullKey() { throw std::invalid_argument("Metric: null key"); }

}  // namespace impl
}  // namespace metrics
}  // namespace zel
