#include "cpp/lib/rpc/rpc_metrics.h"

#include <utility>

#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/net_counters.h"

namespace zel {
namespace rpc {

struct CounterSet::Counters {
  std::vector<metrics::Metric<metrics::FrequencyCounter>> events;
  std::vector<metrics::Metric<net::NetRateCounter>> amounts;
  std::vector<metrics::Metric<metrics::LatencyCounter>> latencies;
};

CounterSet::CounterSet(const metrics::MetricKeyPtr& base, const std::string& instance,
                       std::initializer_list<const char*> events,
                       std::initializer_list<const char*> amounts,
                       std::initializer_list<const char*> latencies)
    : counters_(std::make_unique<Counters>()) {
  auto at = [&](const char* name) {
    metrics::MetricKeyPtr key = base->subkey(name);
    return instance.empty() ? key : key->instance(instance);
  };
  for (const char* e : events) counters_->events.emplace_back(at(e));
  for (const char* a : amounts) counters_->amounts.emplace_back(at(a));
  for (const char* l : latencies) counters_->latencies.emplace_back(at(l));
}

CounterSet::CounterSet() = default;
CounterSet::~CounterSet() = default;
CounterSet::CounterSet(CounterSet&&) noexcept = default;
CounterSet& CounterSet::operator=(CounterSet&&) noexcept = default;

void CounterSet::Mark(int event) const {
  if (counters_) counters_->events[event]->mark();
}

void CounterSet::Add(int amount, uint64_t n) const {
  if (counters_) counters_->amounts[amount]->add(n);
}

void CounterSet::Record(int latency, uint64_t micros) const {
  if (counters_) counters_->latencies[latency]->record(micros);
}

}  // namespace rpc
}  // namespace zel
