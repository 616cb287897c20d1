#include "cpp/lib/net/net_metrics.h"

#include <utility>
#include <vector>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/net_counters.h"

namespace zel {
namespace net {
namespace detail {

struct GroupLayout {
  const char* key;
  std::vector<const char*> gauges;
  std::vector<const char*> events;
  bool data;
};

// In the order of the enums of net_metrics.h.
const GroupLayout kLayouts[] = {
    {"net/acceptor",
     {"existing", "listening", "closing", "closed"},
     {"open", "accept", "accept/ok", "accept/err", "close"},
     false},
    {"net/connection",
     {"existing", "accepting", "resolving", "connecting", "connected", "closing", "closed",
      "error"},
     {"open", "open/local", "open/remote", "close", "close/local", "close/remote",
      "close/network", "close/error"},
     true},
    {"net/socket",
     {"existing", "open", "connected", "closing", "closed"},
     {"open", "open/local", "open/remote", "connect", "connect/ok", "connect/err", "close"},
     true},
};

class MetricGroup {
 public:
  // The group's counters at `base`, or with a non-empty `instance` at that
  // instance below each counter key.
  MetricGroup(const GroupLayout& layout, const metrics::MetricKeyPtr& base,
              const std::string& instance) {
    auto at = [&](const std::string& path) {
      metrics::MetricKeyPtr key = base->subkey(path);
      return instance.empty() ? key : key->instance(instance);
    };
    for (const char* g : layout.gauges) gauges_.emplace_back(at(std::string("#/") + g));
    for (const char* e : layout.events) events_.emplace_back(at(std::string("~/") + e));
    if (layout.data) {
      rxOps_ = metrics::Metric<NetFreqCounter>(at("data/rx/ops"));
      txOps_ = metrics::Metric<NetFreqCounter>(at("data/tx/ops"));
      rxBytes_ = metrics::Metric<NetRateCounter>(at("data/rx/bytes"));
      txBytes_ = metrics::Metric<NetRateCounter>(at("data/tx/bytes"));
    }
  }

  void Add(int gauge, int delta) const {
    if (delta > 0) {
      gauges_[gauge]->increment();
    } else {
      gauges_[gauge]->decrement();
    }
  }
  void Mark(int event) const { events_[event]->mark(); }
  void Rx(uint64_t bytes) const {
    if (!rxOps_) return;
    rxOps_->mark();
    rxBytes_->add(bytes);
  }
  void Tx(uint64_t bytes) const {
    if (!txOps_) return;
    txOps_->mark();
    txBytes_->add(bytes);
  }

 private:
  std::vector<metrics::Metric<NetObjectCounter>> gauges_;
  std::vector<metrics::Metric<NetFreqCounter>> events_;
  metrics::Metric<NetFreqCounter> rxOps_;
  metrics::Metric<NetFreqCounter> txOps_;
  metrics::Metric<NetRateCounter> rxBytes_;
  metrics::Metric<NetRateCounter> txBytes_;
};

}  // namespace detail

template <class Gauge, class Event>
void ObjectMetrics<Gauge, Event>::Add(int gauge, int delta) const {
  if (!all_) return;
  all_->Add(gauge, delta);
  ep_->Add(gauge, delta);
}

template <class Gauge, class Event>
void ObjectMetrics<Gauge, Event>::Mark(Event e) const {
  if (!all_) return;
  all_->Mark(static_cast<int>(e));
  ep_->Mark(static_cast<int>(e));
}

template <class Gauge, class Event>
void ObjectMetrics<Gauge, Event>::Rx(uint64_t bytes) const {
  if (!all_) return;
  all_->Rx(bytes);
  ep_->Rx(bytes);
}

template <class Gauge, class Event>
void ObjectMetrics<Gauge, Event>::Tx(uint64_t bytes) const {
  if (!all_) return;
  all_->Tx(bytes);
  ep_->Tx(bytes);
}

template class ObjectMetrics<AcceptorGauge, AcceptorEvent>;
template class ObjectMetrics<ConnectionGauge, ConnectionEvent>;
template class ObjectMetrics<SocketGauge, SocketEvent>;

NetMetrics::NetMetrics(const metrics::MetricKeyPtr& root) {
  for (int g = 0; g < kGroups; ++g) {
    base_[g] = root->subkey(detail::kLayouts[g].key);
    all_[g] = std::make_shared<detail::MetricGroup>(detail::kLayouts[g], base_[g], std::string());
  }
  ZEL_NET_LOG(kLogInfo).format("NetMetrics: created");
}

NetMetrics::~NetMetrics() { ZEL_NET_LOG(kLogInfo).format("NetMetrics: destroying"); }

std::shared_ptr<detail::MetricGroup> NetMetrics::ForEndpoint_(Group group, const std::string& uri) {
  MutexLock lock(mutex_);
  auto& cache = endpoints_[group];
  std::weak_ptr<detail::MetricGroup>& slot = cache[uri];
  std::shared_ptr<detail::MetricGroup> ep = slot.lock();
  if (!ep) {
    // Drop the entries of endpoints that have no object left before adding.
    for (auto it = cache.begin(); it != cache.end();) {
      it = it->second.expired() && it->first != uri ? cache.erase(it) : std::next(it);
    }
    ep = std::make_shared<detail::MetricGroup>(detail::kLayouts[group], base_[group],
                                             metrics::InstanceName({{"ep", uri}}));
    slot = ep;
  }
  return ep;
}

AcceptorMetrics NetMetrics::ForAcceptor(const std::string& uri) {
  return AcceptorMetrics(all_[kAcceptor], ForEndpoint_(kAcceptor, uri));
}

ConnectionMetrics NetMetrics::ForConnection(const std::string& uri) {
  return ConnectionMetrics(all_[kConnection], ForEndpoint_(kConnection, uri));
}

SocketMetrics NetMetrics::ForSocket(const std::string& uri) {
  return SocketMetrics(all_[kSocket], ForEndpoint_(kSocket, uri));
}

}  // namespace net
}  // namespace zel
