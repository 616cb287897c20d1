// RpcTransport: owns every RPC connection of a provider. It hands out a
// connection for a URL, making one when none is usable; it accepts incoming
// ones; it feeds what peers announce in their settings into the endpoint and
// service tables; and it sets up the relaying of streams that are not for
// this node (RemoteServiceManager, one RemoteService per target).
//
//   transport->GetConnection("tcp://10.0.0.5:4096", options, handler);
//   transport->GetConnection("service://orvane.zel.Echo", options, handler);  // via a table
//   transport->GetConnection("zel://node-7", options, handler);               // via a table
//   transport->Listen("unix:///run/zel/rpc.sock", options, onAccepted);
//
// URLs: "zel://<endpoint id>" and "service://<service name>" are looked up in
// the tables (a gateway connection answers names without a mapping); any
// other URL is a zel::net endpoint to connect to. A registered connection in
// the Connected state is shared by every caller of its endpoint.
//
// Threads: every operation may be called from any thread; one lock guards
// the tables. User handlers are always posted to the dispatcher, never run
// inline; posted steps hold the transport weakly.
#ifndef ZEL_RPC_RPC_TRANSPORT_H_
#define ZEL_RPC_RPC_TRANSPORT_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/rpc/rpc_connection.h"

namespace zel {

class Dispatcher;
class TimerFactory;

namespace net {
class Transport;
}  // namespace net

namespace rpc {

class RpcEndpointResolver;
class RpcResolver;
class RpcServiceResolver;
class RpcStreamForwarder;
struct RpcRoute;

// The transport as its users see it.
class Transport : public TransportInterface {
 public:
  using ConnectHandler =
      std::function<void(const boost::system::error_code&, const boost::shared_ptr<RpcConnection>&)>;
  using AcceptHandler = ConnectHandler;
  using ConnectionHandler = std::function<void(const boost::shared_ptr<RpcConnection>&)>;

  // `handler` gets a usable connection to `url`, or the error.
  virtual void GetConnection(const std::string& url, const ConnectionOptions& options,
                             ConnectHandler handler) = 0;
  // Accepts RPC connections on `endpoint`; `handler` hears of each one.
  virtual boost::system::error_code Listen(const std::string& endpoint,
                                           const ConnectionOptions& options,
                                           AcceptHandler handler) = 0;
  virtual void StopListening(const std::string& endpoint) = 0;
  virtual void AddLocalEndpointId(const std::string& id) = 0;
  virtual void RemoveLocalEndpointId(const std::string& id) = 0;
  virtual void CloseConnection(uint32_t id) = 0;
  virtual void SetOnConnectionUp(ConnectionHandler handler) = 0;
  virtual void SetOnConnectionDown(ConnectionHandler handler) = 0;
  // Posted: releases the forwarders, shuts the tables down and closes every
  // connection; later requests fail with "Shut down".
  virtual void Shutdown() = 0;
};

class RpcTransport : public Transport, public std::enable_shared_from_this<RpcTransport> {
 public:
  struct Params {
    std::shared_ptr<net::Transport> net;
    std::shared_ptr<ChannelFactoryInterface> channels;
    std::shared_ptr<ServiceRegistry> registry;
    boost::shared_ptr<Dispatcher> dispatcher;
    std::shared_ptr<TimerFactory> timers;
    metrics::MetricKeyPtr metrics_root;
  };

  static std::shared_ptr<RpcTransport> Create(Params params);
  ~RpcTransport() override;

  // Transport
  void GetConnection(const std::string& url, const ConnectionOptions& options,
                     ConnectHandler handler) override;
  boost::system::error_code Listen(const std::string& endpoint, const ConnectionOptions& options,
                                   AcceptHandler handler) override;
  void StopListening(const std::string& endpoint) override;
  void AddLocalEndpointId(const std::string& id) override;
  void RemoveLocalEndpointId(const std::string& id) override;
  void CloseConnection(uint32_t id) override;
  void SetOnConnectionUp(ConnectionHandler handler) override;
  void SetOnConnectionDown(ConnectionHandler handler) override;
  void Shutdown() override;

  // TransportInterface
  std::vector<std::string> LocalEndpointIds() override;
  bool IsLocalEndpointId(const std::string& id) override;
  ServiceRegistry* Registry() override { return params_.registry.get(); }
  ChannelFactoryInterface* Channels() override { return params_.channels.get(); }
  void ConnectionSettings(const boost::shared_ptr<RpcConnection>& connection,
                          const std::vector<std::string>& endpointIds,
                          const std::vector<std::string>& services) override;
  void UnregisterConnection(const RpcConnection& connection) override;
  bool ForwardingEnabled() override { return forwarding_.load(); }
  bool SetupForwarding(const boost::shared_ptr<RpcConnection>& source, const std::string& target,
                       const ZelRpcMessage& message, const RpcFramePtr& frame) override;

  // Shutdown on the calling thread, for an owner whose dispatcher may have
  // stopped.
  void ShutdownNow();
  // Streams for services or endpoints elsewhere are relayed only when set.
  void SetForwardingEnabled(bool enabled) { forwarding_.store(enabled); }
  RpcEndpointResolver& endpoint_resolver() { return *endpointResolver_; }
  RpcServiceResolver& service_resolver() { return *serviceResolver_; }
  // The registered connections, by id.
  std::vector<boost::shared_ptr<RpcConnection>> connections() const;
  const std::string& name() const { return name_; }

  class RemoteServiceManagerImpl;

 private:
  struct PrivateTag {};

 public:
  RpcTransport(PrivateTag, Params params);

 private:
  // A name from a table answered: connect to what it names.
  void OnResolved_(const std::string& url, const std::string& key,
                   const boost::system::error_code& ec, const RpcRoute& route,
                   const ConnectionOptions& options, ConnectHandler handler);
  void ConnectTo_(const std::string& endpoint, const ConnectionOptions& options,
                  ConnectHandler handler);
  void CreateConnection_(const std::string& endpoint, const ConnectionOptions& options,
                         ConnectHandler handler);
  void ConnectCallback_(const boost::shared_ptr<RpcConnection>& connection,
                        const std::string& endpoint, const boost::system::error_code& ec,
                        const ConnectHandler& handler);
  void OnAccepted_(const std::string& endpoint, const ConnectionOptions& options,
                   const boost::system::error_code& ec, const net::ConnectionPtr& net,
                   const AcceptHandler& handler);
  boost::shared_ptr<RpcConnection> MakeConnection_(const net::ConnectionPtr& net,
                                                   const ConnectionOptions& options,
                                                   int direction);
  bool Register_(const boost::shared_ptr<RpcConnection>& connection, const std::string& endpoint);
  // Maps `name` in `table` to another connected connection that announced
  // it, if there is one.
  void RemapLocked_(RpcResolver& table, const std::string& name,
                    std::vector<std::string> (RpcConnection::*announced)() const) REQUIRES(mutex_);
  void DoShutdown_();
  // Posts `handler` with the outcome.
  void Post_(const ConnectHandler& handler, const boost::system::error_code& ec,
             const boost::shared_ptr<RpcConnection>& connection);

  const uint32_t id_;
  const std::string name_;
  const Params params_;
  const std::shared_ptr<RpcEndpointResolver> endpointResolver_;
  const std::shared_ptr<RpcServiceResolver> serviceResolver_;
  std::shared_ptr<RemoteServiceManagerImpl> manager_;
  std::atomic<bool> forwarding_{false};
  std::atomic<bool> shutdownRequested_{false};

  mutable Mutex mutex_;
  bool shutdown_ GUARDED_BY(mutex_) = false;
  std::unordered_map<uint32_t, boost::shared_ptr<RpcConnection>> byId_ GUARDED_BY(mutex_);
  std::unordered_map<std::string, boost::shared_ptr<RpcConnection>> byEndpoint_ GUARDED_BY(mutex_);
  // The endpoint each registered connection is known by.
  std::unordered_map<uint32_t, std::string> endpointOf_ GUARDED_BY(mutex_);
  // Its own lock, taken last: connections ask for the ids while they hold
  // theirs, and the transport holds mutex_ while it asks connections.
  mutable Mutex localIdsMutex_;
  std::unordered_set<std::string> localIds_ GUARDED_BY(localIdsMutex_);
  std::map<std::string, ConnectionOptions> listening_ GUARDED_BY(mutex_);
  // The gateway connections that answer names without a mapping.
  std::optional<uint32_t> defaultEndpointId_ GUARDED_BY(mutex_);
  std::optional<uint32_t> defaultServiceId_ GUARDED_BY(mutex_);
  // Outbound connections still connecting or negotiating, closed by a
  // shutdown like the registered ones.
  std::map<uint32_t, boost::weak_ptr<RpcConnection>> pending_ GUARDED_BY(mutex_);
  ConnectionHandler onUp_ GUARDED_BY(mutex_);
  ConnectionHandler onDown_ GUARDED_BY(mutex_);
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_TRANSPORT_H_
