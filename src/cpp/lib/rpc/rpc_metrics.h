// Metrics of the RPC framework: named counters of one family at one
// instance of a key ("/zel/rpc/connection/<name>" with the instance
// "ep=<uri>", "/zel/rpc/call/<name>" with "service=...,method=...,priority=...").
//
//   CounterSet c(registry.root()->subkey("rpc/connection"), "ep=tcp://...",
//                {"open", "close"}, {"rx/bytes"}, {"rtt"});
//   c.Mark(0);            // "open"
//   c.Add(0, 512);        // "rx/bytes"
//   c.Record(0, 35);      // "rtt", microseconds
//
// A default-made set counts nothing (objects made without a registry).
//
// Threads: updates may be made from any thread at once.
#ifndef ZEL_RPC_RPC_METRICS_H_
#define ZEL_RPC_RPC_METRICS_H_

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "cpp/lib/metrics/metric_key.h"

namespace zel {
namespace rpc {

class CounterSet {
 public:
  CounterSet();
  // Events (frequency counters), amounts (byte rates) and latencies
  // (microseconds), each by name below `base`, at instance `instance` (or
  // at the name's own key when it is empty).
  CounterSet(const metrics::MetricKeyPtr& base, const std::string& instance,
             std::initializer_list<const char*> events,
             std::initializer_list<const char*> amounts = {},
             std::initializer_list<const char*> latencies = {});
  ~CounterSet();
  CounterSet(CounterSet&&) noexcept;
  CounterSet& operator=(CounterSet&&) noexcept;

  void Mark(int event) const;
  void Add(int amount, uint64_t n) const;
  void Record(int latency, uint64_t micros) const;

 private:
  struct Counters;
  std::unique_ptr<Counters> counters_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_METRICS_H_
