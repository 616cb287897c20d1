// The counters of the metrics library. Each is a BaseCounter with its policy
// and aggregators; its printed form, with units only when it has some:
//
//   UnitCounterT        "units: U, v~last: L, s~num: N, s~min: A, s~max: B"
//   SimpleUnitCounterT  "units: U, v~last: L"
//   LatencyCounterT<latency_aggregators>
//                       "units: µs, s~last: L, s~num: N, s~min: A, s~max: B,
//                        s~sum: S, s~avg: V"
//   LatencyCounterT<latency_stats_aggregators>
//                       as above, then "s~p95: P, s~p99: Q"
//   FrequencyCounter    "s~num: N, s~freq: F"
//
// "v~" figures run on across periods, "s~" figures belong to one period.
// Value counters (unit, simple unit, and the net object and queue size
// counters) count one sample per update, the new level; latency counters
// one per recorded sample; frequency counters one per mark.
//
// Threads: updates may be called from any thread at once; see base_counter.h.
#ifndef ZEL_METRICS_COUNTERS_H_
#define ZEL_METRICS_COUNTERS_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>

#include "cpp/lib/metrics/aggregators.h"
#include "cpp/lib/metrics/base_counter.h"

namespace zel {
namespace metrics {

// Units of latency counters: every sample is in microseconds.
inline constexpr char kMicroseconds[] = "µs";

// A counter with a level that moves by one or to a new value.
template <typename T, typename Aggregators>
class ValueCounterT : public BaseCounter<T, aggregation::value_last, Aggregators> {
 public:
  void set(T value) {
    this->UpdateLevel_([value](T) { return value; });
  }
  void add(T amount) {
    this->UpdateLevel_([amount](T level) { return static_cast<T>(level + amount); });
  }
  void increment() { add(1); }
  // The level stops at 0: a decrement at 0 leaves it there, and still counts
  // as an update.
  void decrement() {
    this->UpdateLevel_([](T level) { return level > 0 ? static_cast<T>(level - 1) : T{0}; });
  }

 protected:
  explicit ValueCounterT(std::string units)
      : BaseCounter<T, aggregation::value_last, Aggregators>(std::move(units)) {}
};

template <typename T>
class UnitCounterT : public ValueCounterT<T, aggregation::unit_aggregators> {
 public:
  explicit UnitCounterT(std::string units = std::string())
      : ValueCounterT<T, aggregation::unit_aggregators>(std::move(units)) {}
};

template <typename T>
class SimpleUnitCounterT : public ValueCounterT<T, aggregation::empty_set> {
 public:
  explicit SimpleUnitCounterT(std::string units = std::string())
      : ValueCounterT<T, aggregation::empty_set>(std::move(units)) {}
};

// Durations in microseconds.
template <typename Aggregators>
class LatencyCounterT : public BaseCounter<uint64_t, aggregation::sample_last, Aggregators> {
 public:
  LatencyCounterT()
      : BaseCounter<uint64_t, aggregation::sample_last, Aggregators>(kMicroseconds) {}

  void record(uint64_t micros) { this->Sample_(micros); }
  // A negative duration counts as 0.
  template <typename Rep, typename Period>
  void record(std::chrono::duration<Rep, Period> d) {
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(d).count();
    this->Sample_(us > 0 ? static_cast<uint64_t>(us) : 0);
  }
};

class FrequencyCounter
    : public BaseCounter<uint64_t, aggregation::no_value, aggregation::frequency_aggregators> {
 public:
  FrequencyCounter()
      : BaseCounter<uint64_t, aggregation::no_value, aggregation::frequency_aggregators>(
            std::string()) {}

  void mark() { this->Sample_(1); }
};

using UnitCounter = UnitCounterT<uint64_t>;
using SimpleUnitCounter = SimpleUnitCounterT<uint64_t>;
using LatencyCounter = LatencyCounterT<latency_aggregators>;
using LatencyStatsCounter = LatencyCounterT<latency_stats_aggregators>;

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_COUNTERS_H_
