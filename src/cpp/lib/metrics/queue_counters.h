// Counters of queues, built from the metrics library's parts:
//
//   QueueSizeCounterT  "units: U, v~last: L, v~num: N, v~min: A, v~max: B,
//                       s~num: M, s~min: C, s~max: D, s~twa: W"
//   QueueLatencyCounter
//                      "units: µs, s~last: L, v~num: N, v~min: A, v~max: B,
//                       s~num: M, s~min: C, s~max: D, s~sum: S, s~avg: V,
//                       s~p95: P, s~p99: Q"
//
// The time-weighted average s~twa is the mean queue length over the period,
// each level weighted by how long the queue held it; the size counter reads
// the steady clock on each update for that.
//
// Threads: updates may be called from any thread at once.
#ifndef ZEL_METRICS_QUEUE_COUNTERS_H_
#define ZEL_METRICS_QUEUE_COUNTERS_H_

#include <cstdint>
#include <string>
#include <utility>

#include "cpp/lib/metrics/counters.h"

namespace zel {
namespace queue {

template <typename T>
class QueueSizeCounterT
    : public metrics::ValueCounterT<T, metrics::aggregation::queue_size_agg> {
 public:
  explicit QueueSizeCounterT(std::string units = std::string())
      : metrics::ValueCounterT<T, metrics::aggregation::queue_size_agg>(std::move(units)) {}
};

using QueueSizeCounter = QueueSizeCounterT<uint64_t>;
// Time spent in a queue, in microseconds; the v~ figures run over all samples
// ever recorded, the s~ figures over the period.
using QueueLatencyCounter =
    metrics::LatencyCounterT<metrics::aggregation::queue_latency_stats_aggregators>;

}  // namespace queue
}  // namespace zel

#endif  // ZEL_METRICS_QUEUE_COUNTERS_H_
