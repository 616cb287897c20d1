// RPC connections for tests: a dispatcher with two threads, a net transport,
// the channel scheduler and factory, a service registry with a test service,
// and a fake RPC transport that connections report to; with blocking helpers
// that connect, accept and wait for calls with a deadline.
//
//   RpcRig rig;
//   auto server = rig.Listen();                 // accepted connections queue
//   auto client = rig.Connect();                // negotiated
//   ChannelPtr channel = rig.OpenChannel(client, "orvane.zel.Test");
//   CallResult r = rig.Call(channel, "orvane.zel.Test.Echo", "hello");
#ifndef ZEL_TESTS_CPP_LIB_RPC_RPC_TEST_RIG_H_
#define ZEL_TESTS_CPP_LIB_RPC_RPC_TEST_RIG_H_

#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/net/net_name_resolver.h"
#include "cpp/lib/net/net_transport.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/channel_scheduler.h"
#include "cpp/lib/rpc/rpc_connection.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "support/log_capture.h"
#include "support/manual_timers.h"
#include "support/wait.h"

namespace zel {
namespace rpc {
namespace testing {

using boost::system::error_code;
using zel::testing::kDeadline;

// A log capture at DEBUG ("TRIVIA") with the RPC and network libraries'
// ceilings raised, so that their detailed lines are seen too.
class RpcLogCapture : public zel::testing::LogCapture {
 public:
  RpcLogCapture() : LogCapture("TRIVIA") {
    zel::g_rpcLogCeiling = zel::g_netLogCeiling = zel::kLogDebug;
  }
  ~RpcLogCapture() { zel::g_rpcLogCeiling = zel::g_netLogCeiling = zel::kLogInfo; }
};

const RpcMethod kEcho{"orvane.zel.Test.Echo", "orvane.zel.Test", RMT_SIMPLE};
const RpcMethod kChat{"orvane.zel.Test.Chat", "orvane.zel.Test", RMT_BIDI_STREAMING};

// The test service: Echo answers its request ("fail" fails the call with
// APPLICATION_ERROR); Chat answers every message but "quiet" and completes
// when the client does.
class TestHandler : public MethodHandler {
 public:
  std::shared_ptr<MessageConsumer> MakeConsumer(const RpcMethod& method,
                                                const RefPtr<Call>& call) override {
    struct Answer : MessageConsumer {
      RefPtr<RpcCall> call;
      bool streaming;
      RpcStatus Prepare(ServerContext*) override { return RpcStatus::Success(); }
      RpcStatus Next(const RpcFrame::View& p) override {
        const std::string in(reinterpret_cast<const char*>(p.data), p.size);
        auto out = MakeRefCounted<SharedBuffer>(in.data(), in.size());
        if (in == "fail") return call->Done(RpcStatus(APPLICATION_ERROR)), RpcStatus::Success();
        if (in == "quiet") return RpcStatus::Success();
        if (streaming) return call->SendPayload(out);
        return call->CompletePayload(out, RpcStatus::Success());
      }
      RpcStatus RemoteStatus(const RpcStatus&) override {
        return streaming ? call->Done(RpcStatus::Success()) : RpcStatus::Success();
      }
      RpcStatus CallStatus(const RpcStatus&) override {
        call.reset();
        return RpcStatus::Success();
      }
    };
    auto answer = std::make_shared<Answer>();
    answer->call = RefPtr<RpcCall>(static_cast<RpcCall*>(call.get()));
    answer->streaming = method.type == RMT_BIDI_STREAMING;
    return answer;
  }
};

// What a client call received.
class Collector : public MessageConsumer {
 public:
  RpcStatus Prepare(ServerContext*) override { return RpcStatus::Success(); }
  RpcStatus Next(const RpcFrame::View& p) override {
    std::lock_guard<std::mutex> lock(mutex_);
    messages_.emplace_back(reinterpret_cast<const char*>(p.data), p.size);
    changed_.notify_all();
    return RpcStatus::Success();
  }
  RpcStatus RemoteStatus(const RpcStatus&) override { return RpcStatus::Success(); }
  RpcStatus CallStatus(const RpcStatus& s) override {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = s;
    ++statuses_;
    changed_.notify_all();
    return RpcStatus::Success();
  }
  // The final status, or not set after the deadline.
  RpcStatus WaitStatus(std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, timeout, [&] { return statuses_ > 0; });
    return status_;
  }
  bool WaitMessages(std::size_t n, std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return messages_.size() >= n; });
  }
  std::vector<std::string> messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    return messages_;
  }
  int statuses() {
    std::lock_guard<std::mutex> lock(mutex_);
    return statuses_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> messages_;
  RpcStatus status_;
  int statuses_ = 0;
};

class FakeTransport : public TransportInterface {
 public:
  FakeTransport(std::shared_ptr<ServiceRegistry> registry,
                std::shared_ptr<ChannelFactoryInterface> channels)
      : registry_(std::move(registry)), channels_(std::move(channels)) {}

  std::vector<std::string> LocalEndpointIds() override { return {"ep-" + std::to_string(getpid())}; }
  bool IsLocalEndpointId(const std::string& id) override { return id == LocalEndpointIds()[0]; }
  ServiceRegistry* Registry() override { return registry_.get(); }
  ChannelFactoryInterface* Channels() override { return channels_.get(); }
  void ConnectionSettings(const boost::shared_ptr<RpcConnection>&,
                          const std::vector<std::string>& ids,
                          const std::vector<std::string>& services) override {
    std::lock_guard<std::mutex> lock(mutex);
    settingsIds = ids;
    settingsServices = services;
  }
  void UnregisterConnection(const RpcConnection&) override {
    std::lock_guard<std::mutex> lock(mutex);
    ++unregistered;
  }
  bool ForwardingEnabled() override { return forwarding; }
  bool SetupForwarding(const boost::shared_ptr<RpcConnection>&, const std::string& target,
                       const ZelRpcMessage&, const RpcFramePtr&) override {
    std::lock_guard<std::mutex> lock(mutex);
    forwardTargets.push_back(target);
    return swallow;
  }

  std::mutex mutex;
  std::vector<std::string> settingsIds;
  std::vector<std::string> settingsServices;
  std::vector<std::string> forwardTargets;
  int unregistered = 0;
  bool forwarding = false;
  // Relayed streams are taken and go nowhere: their opener hears nothing.
  bool swallow = false;

 private:
  const std::shared_ptr<ServiceRegistry> registry_;
  const std::shared_ptr<ChannelFactoryInterface> channels_;
};

using zel::testing::ManualTimers;

// Accepted connections of a listener, in order.
class Accepted {
 public:
  void Push(const boost::shared_ptr<RpcConnection>& c) {
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(c);
    changed_.notify_all();
  }
  boost::shared_ptr<RpcConnection> Next(std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return !connections_.empty(); })) return nullptr;
    auto c = connections_.front();
    connections_.pop_front();
    return c;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<boost::shared_ptr<RpcConnection>> connections_;
};

class RpcRig {
 public:
  RpcRig()
      : dispatcher(boost::make_shared<AsioDispatcher>()),
        timers(std::make_shared<AsioTimerFactory>(dispatcher->GetIoContextHandle())),
        netResolver(std::make_shared<net::NetNameResolver>(dispatcher->GetIoContextHandle())),
        registry(std::make_shared<RpcServiceRegistry>()),
        scheduler(std::make_shared<AsioChannelScheduler>(dispatcher)),
        channels(std::make_shared<ChannelFactory>(scheduler, registry, timers, nullptr)),
        transport(std::make_shared<FakeTransport>(registry, channels)),
        path("/tmp/zel-rpc-" + std::to_string(getpid()) + "-" + std::to_string(serial_++) + ".sock") {
    net = std::make_shared<net::NetTransport>(net::NetTransport::Params{
        dispatcher, dispatcher->GetIoContextHandle(), timers, netResolver, nullptr,
        metrics.root()});
    registry->RegisterService(kEcho.service, {{kEcho, std::make_shared<TestHandler>()},
                                              {kChat, std::make_shared<TestHandler>()}});
    dispatcher->Run(2, false);
  }
  ~RpcRig() {
    net->Shutdown();
    netResolver->Shutdown();
    dispatcher->StopAndWait(false);
    ::unlink(path.c_str());
  }

  boost::shared_ptr<RpcConnection> Make(const net::ConnectionPtr& c, int direction,
                                        const ConnectionOptions& options) {
    RpcConnection::Params p;
    p.id = nextId_++;
    p.net = c;
    p.options = options;
    p.direction = direction;
    p.transport = transport;
    p.dispatcher = dispatcher;
    p.timers = timers;
    p.metrics_root = metrics.root();
    return RpcConnection::Create(std::move(p));
  }

  // Accepts RPC connections (started with Accept) on the rig's socket.
  std::shared_ptr<Accepted> Listen(const ConnectionOptions& options = {}) {
    auto accepted = std::make_shared<Accepted>();
    net->Listen(net::Endpoint("unix://" + path), {},
                [this, accepted, options](const error_code&, const net::ConnectionPtr& c) {
                  if (!c) return true;
                  auto rpc = Make(c, 1, options);
                  accepted->Push(rpc);
                  rpc->Accept([](const error_code&) {});
                  return true;
                });
    return accepted;
  }

  // An outbound RPC connection, negotiated (or none on failure).
  boost::shared_ptr<RpcConnection> Connect(const ConnectionOptions& options = {}) {
    net::ConnectionPtr c = net->NewConnection(net::Endpoint("unix://" + path), {}).value();
    auto rpc = Make(c, 0, options);
    auto done = std::make_shared<std::promise<error_code>>();
    rpc->AsyncConnect([done](const error_code& ec) { done->set_value(ec); });
    auto f = done->get_future();
    if (f.wait_for(kDeadline) != std::future_status::ready || f.get()) return nullptr;
    return rpc;
  }

  // A client channel to `service` on `connection`, once the peer acked it.
  boost::shared_ptr<ChannelImpl> OpenChannel(const boost::shared_ptr<RpcConnection>& connection,
                                             const std::string& service,
                                             ChannelPriority priority = ChannelPriority::NORMAL,
                                             error_code* outcome = nullptr) {
    auto channel = channels->CreateClientChannel("unix://" + path, service, connection, priority);
    auto done = std::make_shared<std::promise<error_code>>();
    channel->OpenOnClient([done](const error_code& ec, const ChannelPtr&) { done->set_value(ec); });
    auto f = done->get_future();
    const error_code ec = f.wait_for(kDeadline) == std::future_status::ready
                              ? f.get()
                              : error_code(ETIMEDOUT, boost::system::generic_category());
    if (outcome) *outcome = ec;
    return channel;
  }

  // Starts a call of `method` with one request; the collector sees the rest.
  std::shared_ptr<Collector> Call(const boost::shared_ptr<ChannelImpl>& channel,
                                  const RpcMethod& method, const std::string& request) {
    auto collector = std::make_shared<Collector>();
    RpcCallPtr call = channel->CreateCall(method);
    call->Start(ClientContext(), collector);
    call->SendPayload(MakeRefCounted<SharedBuffer>(request.data(), request.size()));
    if (method.type == RMT_BIDI_STREAMING) call->Done(RpcStatus::Success());
    return collector;
  }

  metrics::MetricRegistry metrics;
  boost::shared_ptr<AsioDispatcher> dispatcher;
  std::shared_ptr<AsioTimerFactory> timers;
  std::shared_ptr<net::NetNameResolver> netResolver;
  std::shared_ptr<RpcServiceRegistry> registry;
  std::shared_ptr<AsioChannelScheduler> scheduler;
  std::shared_ptr<ChannelFactory> channels;
  std::shared_ptr<FakeTransport> transport;
  std::shared_ptr<net::NetTransport> net;
  const std::string path;

 private:
  static inline int serial_ = 0;
  uint32_t nextId_ = 1;
};

}  // namespace testing
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_RPC_RPC_TEST_RIG_H_
