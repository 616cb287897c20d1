#include "cpp/lib/metrics/metric_value.h"

#include <utility>

namespace zel {
namespace metrics {

MetricValue::MetricValue(uint64_t type, std::string units)
    : type_(type), units_(std::move(units)) {}

MetricValue::~MetricValue() = default;

void MetricValue::add_ref() const { refs_.fetch_add(1, std::memory_order_relaxed); }

void MetricValue::release() const {
  if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    delete this;
  }
}

}  // namespace metrics
}  // namespace zel
