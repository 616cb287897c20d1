// AsioZelRpcProvider: the root object of the RPC framework. It builds, in
// this order, the base provider (dispatcher, timers, metric registry), the
// name resolver and net transport, the service registry, the channel
// scheduler, the channel factory and the RPC transport; it owns the threads
// that serve them all; and it takes them down in the reverse order, after
// the metric registry's last report and the transport's shutdown. Each "rpc"
// node under "metrics.publishers" of the configuration adds an RpcPublisher
// on this transport to the registry.
//
//   auto provider = AsioZelRpcProvider::Create(boost::property_tree::ptree());
//   provider->GetRegistry()->RegisterService(std::make_shared<MyService>());
//   ZelRpcServer server(provider, {{"tcp://*:4096", ConnectionOptions()}});
//   server.Start();
//   provider->Run(2, false);
//
// Threads: the accessors may be called from any thread; Run and Stop as for
// AsioZelProvider.
#ifndef ZEL_RPC_ZEL_RPC_PROVIDER_H_
#define ZEL_RPC_ZEL_RPC_PROVIDER_H_

#include <cstddef>
#include <memory>

#include <boost/property_tree/ptree_fwd.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/rpc/asio_zel_provider.h"

namespace zel {

class AsioDispatcher;
class TimerFactory;

namespace net {
class NetNameResolver;
class NetTransport;
class SecurityManager;
}  // namespace net

namespace rpc {

class AsioChannelScheduler;
class ChannelFactory;
class RpcServiceRegistry;
class RpcTransport;

class ZelRpcProvider {
 public:
  virtual ~ZelRpcProvider() = default;
  virtual const std::shared_ptr<RpcTransport>& GetTransport() const = 0;
  virtual const std::shared_ptr<RpcServiceRegistry>& GetRegistry() const = 0;
  virtual const boost::shared_ptr<AsioDispatcher>& GetDispatcher() const = 0;
  virtual const std::shared_ptr<AsioChannelScheduler>& GetScheduler() const = 0;
  virtual const std::shared_ptr<ChannelFactory>& GetChannelFactory() const = 0;
  virtual const std::shared_ptr<net::NetTransport>& GetNetTransport() const = 0;
  virtual const std::shared_ptr<TimerFactory>& GetTimers() const = 0;
};

class AsioZelRpcProvider : public ZelRpcProvider {
 public:
  // `security` gives the TLS contexts; none: TLS endpoints are refused.
  static std::shared_ptr<AsioZelRpcProvider> Create(
      const boost::property_tree::ptree& config, ProviderStartupOptions options = {},
      std::shared_ptr<net::SecurityManager> security = nullptr);
  ~AsioZelRpcProvider() override;
  AsioZelRpcProvider(const AsioZelRpcProvider&) = delete;
  AsioZelRpcProvider& operator=(const AsioZelRpcProvider&) = delete;

  void Run(std::size_t numThreads, bool blocking) { base_->Run(numThreads, blocking); }
  void Stop() { base_->Stop(); }
  bool IsRunning() const { return base_->IsRunning(); }
  const boost::shared_ptr<AsioZelProvider>& base() const { return base_; }

  // ZelRpcProvider
  const std::shared_ptr<RpcTransport>& GetTransport() const override { return transport_; }
  const std::shared_ptr<RpcServiceRegistry>& GetRegistry() const override { return registry_; }
  const boost::shared_ptr<AsioDispatcher>& GetDispatcher() const override;
  const std::shared_ptr<AsioChannelScheduler>& GetScheduler() const override {
    return scheduler_;
  }
  const std::shared_ptr<ChannelFactory>& GetChannelFactory() const override { return channels_; }
  const std::shared_ptr<net::NetTransport>& GetNetTransport() const override { return net_; }
  const std::shared_ptr<TimerFactory>& GetTimers() const override { return timers_; }

 private:
  AsioZelRpcProvider(const boost::property_tree::ptree& config, ProviderStartupOptions options,
                     std::shared_ptr<net::SecurityManager> security);
  // Lets a running dispatcher take a few rounds of posted steps (sends,
  // closes), unless this is one of its threads.
  void DrainDispatcher_();

  const boost::shared_ptr<AsioZelProvider> base_;
  std::shared_ptr<TimerFactory> timers_;
  std::shared_ptr<net::NetNameResolver> names_;
  std::shared_ptr<net::NetTransport> net_;
  std::shared_ptr<RpcServiceRegistry> registry_;
  std::shared_ptr<AsioChannelScheduler> scheduler_;
  std::shared_ptr<ChannelFactory> channels_;
  std::shared_ptr<RpcTransport> transport_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ZEL_RPC_PROVIDER_H_
