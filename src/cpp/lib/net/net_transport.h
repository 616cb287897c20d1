// NetTransport: the Transport of the network layer. It makes sockets and
// connections for the five schemes ("tcp", "ssl", "ssl-tcp", "unix",
// "ssl-unix"), keeps a list of its connections by id, listens on endpoints
// and re-arms each accept as soon as a descriptor has been accepted, and
// shuts everything down.
//
//   auto transport = std::make_shared<NetTransport>(NetTransport::Params{
//       provider.GetDispatcher(), provider.GetIoContext(), timers, resolver,
//       security, registry.root()});
//   transport->Listen(Endpoint("tcp://*:4096"), SocketOptions(), onAccepted);
//   ...
//   transport->Shutdown();
//
// Failures are reported as results and logged with their tags: NET1 (no
// socket or connection), NET3 (listen), NET4 (accept), NET7 (unknown scheme),
// NET100 (no security context). After Shutdown every factory call and Listen
// fails with "Shut down" (zel.net code 3).
//
// Threads: every operation may be called from any thread. One lock guards the
// lists; it is never held while calling into a connection, an acceptor or a
// user handler. Accept handlers run on event-loop threads.
#ifndef ZEL_NET_NET_TRANSPORT_H_
#define ZEL_NET_NET_TRANSPORT_H_

#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/net/host_name_resolver.h"
#include "cpp/lib/net/security_context.h"
#include "cpp/lib/net/transport.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {

class Dispatcher;
class TimerFactory;

namespace net {

class NetTransport : public Transport {
 public:
  struct Params {
    boost::shared_ptr<Dispatcher> dispatcher;
    boost::shared_ptr<boost::asio::io_context> io;
    std::shared_ptr<TimerFactory> timers;
    std::shared_ptr<HostNameResolver> resolver;
    // Needed for the TLS schemes only.
    std::shared_ptr<SecurityManager> security;
    // The registry's namespace key; none: no metrics.
    metrics::MetricKeyPtr metrics_root;
  };

  explicit NetTransport(Params params);
  // Shuts down first if nobody has.
  ~NetTransport() override;

  // Transport
  SocketResult NewStreamSocket(const Endpoint& endpoint, const SocketOptions& options,
                               Role role = Role::CLIENT) override;
  void StopListening(const Endpoint& endpoint) override;
  // Throws std::runtime_error: only connections unregister, and they reach
  // the transport's inner object for it.
  void UnregisterConnection(uint32_t id) override;
  ConnectionResult NewConnection(const Endpoint& endpoint, const SocketOptions& options,
                                 Role role = Role::CLIENT) override;
  ConnectionPtr GetConnection(const Endpoint& endpoint) override;
  boost::system::error_code Listen(const Endpoint& endpoint, const SocketOptions& options,
                                   AcceptHandler handler) override;
  void Shutdown() override;

  // The printed bound address of a listening URI ("tcp://127.0.0.1:40123"
  // for "tcp://127.0.0.1:0"), or "" when the URI is not listened on.
  std::string ListeningAddress(const Endpoint& endpoint) const;
  // The number of connections on the list.
  std::size_t ConnectionCount() const;
  // "NetTransport[<id>]".
  const std::string& name() const;

  class impl;

 private:
  std::shared_ptr<impl> impl_;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_TRANSPORT_H_
