// Counters of the network transport, built from the metrics library's parts:
//
//   NetObjectCounterT  "units: objects, v~last: L, v~num: N, v~min: A, v~max: B,
//                       s~num: M, s~min: C, s~max: D, s~freq: F"
//   NetFreqCounterT    "v~num: N, s~num: M, s~freq: F"
//   NetRateCounterT    "units: bytes, v~sum: S, s~sum: P, s~rate: R"
//
// Threads: updates may be called from any thread at once.
#ifndef ZEL_METRICS_NET_COUNTERS_H_
#define ZEL_METRICS_NET_COUNTERS_H_

#include <cstdint>
#include <string>

#include "cpp/lib/metrics/counters.h"

namespace zel {
namespace net {

// A number of live objects (connections, listeners): increment, decrement,
// set; every change counts towards the period's frequency.
template <typename T>
class NetObjectCounterT
    : public metrics::ValueCounterT<T, metrics::aggregation::net_object_agg> {
 public:
  NetObjectCounterT() : metrics::ValueCounterT<T, metrics::aggregation::net_object_agg>("objects") {}
};

// Events (accepts, errors): mark() counts one in the period and one in the
// running total.
template <typename T>
class NetFreqCounterT
    : public metrics::BaseCounter<T, metrics::aggregation::no_value,
                                  metrics::aggregation::net_freq_agg> {
 public:
  NetFreqCounterT()
      : metrics::BaseCounter<T, metrics::aggregation::no_value,
                             metrics::aggregation::net_freq_agg>(std::string()) {}

  void mark() { this->Sample_(1); }
};

// Bytes moved: add(n) adds to the running total and to the period's sum,
// from which the rate in bytes per second is computed.
template <typename T>
class NetRateCounterT
    : public metrics::BaseCounter<T, metrics::aggregation::no_value,
                                  metrics::aggregation::net_rate_agg> {
 public:
  NetRateCounterT()
      : metrics::BaseCounter<T, metrics::aggregation::no_value,
                             metrics::aggregation::net_rate_agg>("bytes") {}

  void add(T bytes) { this->Sample_(bytes); }
};

using NetObjectCounter = NetObjectCounterT<uint64_t>;
using NetFreqCounter = NetFreqCounterT<uint64_t>;
using NetRateCounter = NetRateCounterT<uint64_t>;

}  // namespace net
}  // namespace zel

#endif  // ZEL_METRICS_NET_COUNTERS_H_
