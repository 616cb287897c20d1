// The metrics of the network transport: three groups of counters under the
// registry's namespace,
//
//   net/acceptor     gauges (#) existing listening closing closed;
//                    events (~) open accept accept/ok accept/err close
//   net/connection   gauges existing accepting resolving connecting connected
//                    closing closed error; events open open/local open/remote
//                    close close/local close/remote close/network close/error;
//                    data rx/ops tx/ops rx/bytes tx/bytes
//   net/socket       gauges existing open connected closing closed; events
//                    open open/local open/remote connect connect/ok
//                    connect/err close; the same four data counters
//
// e.g. "/zel/net/connection/~/close/remote". Each counter key holds the total
// over all endpoints, and below it an instance key "ep=<uri>" holds the same
// counter for one endpoint. An object's metrics handle updates both.
//
//   NetMetrics metrics(registry.root());
//   SocketMetrics m = metrics.ForSocket(endpoint.uri());
//   m.Up(SocketGauge::OPEN);
//   m.Mark(SocketEvent::CONNECT_OK);
//   m.Rx(n);
//
// A default-made handle updates nothing (objects made without a registry).
//
// Threads: handles are values; updates may be made from any thread at once.
#ifndef ZEL_NET_NET_METRICS_H_
#define ZEL_NET_NET_METRICS_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"

namespace zel {
namespace net {

enum class AcceptorGauge { EXISTING, LISTENING, CLOSING, CLOSED };
enum class AcceptorEvent { OPEN, ACCEPT, ACCEPT_OK, ACCEPT_ERR, CLOSE };
enum class ConnectionGauge {
  EXISTING, ACCEPTING, RESOLVING, CONNECTING, CONNECTED, CLOSING, CLOSED, ERROR
};
enum class ConnectionEvent {
  OPEN, OPEN_LOCAL, OPEN_REMOTE, CLOSE, CLOSE_LOCAL, CLOSE_REMOTE, CLOSE_NETWORK, CLOSE_ERROR
};
enum class SocketGauge { EXISTING, OPEN, CONNECTED, CLOSING, CLOSED };
enum class SocketEvent { OPEN, OPEN_LOCAL, OPEN_REMOTE, CONNECT, CONNECT_OK, CONNECT_ERR, CLOSE };

namespace detail {
// The counters of one group at one key (a total or one endpoint's).
class MetricGroup;
}  // namespace detail

template <class Gauge, class Event>
class ObjectMetrics {
 public:
  ObjectMetrics() = default;

  void Up(Gauge g) const { Add(static_cast<int>(g), 1); }
  void Down(Gauge g) const { Add(static_cast<int>(g), -1); }
  void Mark(Event e) const;
  // Data counters: one operation and its bytes (groups without data ignore them).
  void Rx(uint64_t bytes) const;
  void Tx(uint64_t bytes) const;

 private:
  friend class NetMetrics;
  ObjectMetrics(std::shared_ptr<detail::MetricGroup> all, std::shared_ptr<detail::MetricGroup> ep)
      : all_(std::move(all)), ep_(std::move(ep)) {}
  void Add(int gauge, int delta) const;

  std::shared_ptr<detail::MetricGroup> all_;
  std::shared_ptr<detail::MetricGroup> ep_;
};

using AcceptorMetrics = ObjectMetrics<AcceptorGauge, AcceptorEvent>;
using ConnectionMetrics = ObjectMetrics<ConnectionGauge, ConnectionEvent>;
using SocketMetrics = ObjectMetrics<SocketGauge, SocketEvent>;

class NetMetrics {
 public:
  // The groups under `root`, the registry's namespace key ("/zel").
  explicit NetMetrics(const metrics::MetricKeyPtr& root);
  ~NetMetrics();
  NetMetrics(const NetMetrics&) = delete;
  NetMetrics& operator=(const NetMetrics&) = delete;

  AcceptorMetrics ForAcceptor(const std::string& uri);
  ConnectionMetrics ForConnection(const std::string& uri);
  SocketMetrics ForSocket(const std::string& uri);

 private:
  enum Group { kAcceptor, kConnection, kSocket, kGroups };

  // The endpoint's counters of a group, shared by every live object of that
  // endpoint.
  std::shared_ptr<detail::MetricGroup> ForEndpoint_(Group group, const std::string& uri);

  metrics::MetricKeyPtr base_[kGroups];
  std::shared_ptr<detail::MetricGroup> all_[kGroups];
  Mutex mutex_;
  std::map<std::string, std::weak_ptr<detail::MetricGroup>> endpoints_[kGroups] GUARDED_BY(mutex_);
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_METRICS_H_
