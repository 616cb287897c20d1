// Metric<ValueType>: the handle through which code updates one metric.
//
//   zel::metrics::MetricRegistry registry;
//   Metric<UnitCounter> length(registry.root()->subkey("work_group/queue/length"), "items");
//   length->increment();
//   Metric<LatencyCounter> busy(registry.root()->subkey("work_group/item/processing_time"));
//   busy->record(std::chrono::microseconds(250));
//
// The handle holds a counted reference to its key and to the key's value.
// Made on a key without a value, it binds a new ValueType (built from the
// extra arguments, units for instance) to the key; on a key that has one, it
// shares it, and two handles on one key update the same counter. A key whose
// value is of another type is a programming error: the constructor logs
// "Metric: wrong value type (<have> != <want>)" with the tag
// "errorCode:MXLIB200" and throws std::runtime_error with that text.
//
// Threads: a handle is a value type; copies may be used on any threads at
// once, as the counters are.
#ifndef ZEL_METRICS_METRIC_H_
#define ZEL_METRICS_METRIC_H_

#include <cstdint>
#include <stdexcept>
#include <utility>

#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/metric_value.h"

namespace zel {
namespace metrics {

namespace impl {
// Logs the wrong-type error and throws it.
[[noreturn]] void ThrowWrongValueType(uint64_t have, uint64_t want);
[[noreturn]] void ThrowNullKey();
}  // namespace impl

template <typename ValueType>
class Metric {
 public:
  // An empty handle, to be assigned later.
  Metric() = default;

  template <typename... Args>
  explicit Metric(MetricKeyPtr key, Args&&... args) : key_(std::move(key)) {
    if (!key_) impl::ThrowNullKey();
    MetricValuePtr value = key_->get_or_set_value(
        [&] { return MetricValuePtr(new ValueType(std::forward<Args>(args)...)); });
    if (value->type() != ValueType::kType) {
      impl::ThrowWrongValueType(value->type(), ValueType::kType);
    }
    value_.reset(dynamic_cast<ValueType*>(value.get()));
    if (!value_) impl::ThrowWrongValueType(value->type(), ValueType::kType);
  }

  ValueType* operator->() const { return value_.get(); }
  ValueType& operator*() const { return *value_; }
  ValueType* value() const { return value_.get(); }
  const MetricKeyPtr& key() const { return key_; }
  explicit operator bool() const { return static_cast<bool>(value_); }

 private:
  MetricKeyPtr key_;
  boost::intrusive_ptr<ValueType> value_;
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_METRIC_H_
