// MetricValue: what a metric key holds, a counter with two slots (see
// base_counter.h, its only implementation).
//
// A value is reference counted; boost::intrusive_ptr holds it. Its `type` is a
// bit mask with bit N set when the value fills field N of the wire message
// MetricValueMsg, counting only the aggregates of fields 11 to 44; two values
// with the same mask are of the same kind.
//
// Threads: all operations may be called from any thread; the updates of the
// concrete counters and rollover, reset, to_string and serialize take the
// value's spin lock, which never has another lock taken under it.
#ifndef ZEL_METRICS_METRIC_VALUE_H_
#define ZEL_METRICS_METRIC_VALUE_H_

#include <atomic>
#include <cstdint>
#include <string>

#include <boost/smart_ptr/intrusive_ptr.hpp>

namespace zel {
namespace metrics {

class Serializer;

class MetricValue {
 public:
  virtual ~MetricValue();

  MetricValue(const MetricValue&) = delete;
  MetricValue& operator=(const MetricValue&) = delete;

  virtual void add_ref() const;
  // Drops one reference; the last one deletes the value.
  virtual void release() const;
  // The printed form: the active period with `current` true (period figures
  // computed up to now), else the period frozen by the last rollover.
  virtual std::string to_string(bool current) = 0;
  // Starts a new period now with the active slot cleared, running figures
  // included.
  virtual void reset() = 0;
  // Ends the active period: its figures are computed and frozen for the
  // report, and a new period starts now, keeping the running figures.
  virtual void rollover() = 0;
  // Writes the period chosen as in to_string into `out`.
  virtual void serialize(Serializer& out, bool current) = 0;

  uint64_t type() const { return type_; }
  const std::string& units() const { return units_; }
  // Start of the active period: system time and steady time in nanoseconds.
  int64_t period_start_system_ns() const { return startSystemNs_.load(std::memory_order_relaxed); }
  int64_t period_start_steady_ns() const { return startSteadyNs_.load(std::memory_order_relaxed); }
  // The current count; for log lines and tests only.
  int32_t ref_count() const { return refs_.load(std::memory_order_relaxed); }

 protected:
  MetricValue(uint64_t type, std::string units);

  void SetPeriodStart(int64_t systemNs, int64_t steadyNs) {
    startSystemNs_.store(systemNs, std::memory_order_relaxed);
    startSteadyNs_.store(steadyNs, std::memory_order_relaxed);
  }

 private:
  const uint64_t type_;
  std::atomic<int64_t> startSystemNs_{0};
  std::atomic<int64_t> startSteadyNs_{0};
  const std::string units_;
  mutable std::atomic<int32_t> refs_{0};
};

using MetricValuePtr = boost::intrusive_ptr<MetricValue>;

inline void intrusive_ptr_add_ref(const MetricValue* value) { value->add_ref(); }
inline void intrusive_ptr_release(const MetricValue* value) { value->release(); }

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_METRIC_VALUE_H_
