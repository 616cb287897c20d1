#include "cpp/lib/rpc/zel_rpc_provider.h"

#include <unistd.h>

#include <chrono>
#include <future>

#include <boost/asio/io_context.hpp>
#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/net/net_name_resolver.h"
#include "cpp/lib/net/net_transport.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/channel_scheduler.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_publisher.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"

namespace zel {
namespace rpc {
namespace {

constexpr int kDrainRounds = 4;
constexpr std::chrono::seconds kDrainWait{1};

// The program's name, for the "app" tag of metrics reports.
std::string AppName() {
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  const std::string ns = metrics::ProgramNamespace(n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : "");
  return ns.substr(ns.rfind('/') + 1);
}

}  // namespace

std::shared_ptr<AsioZelRpcProvider> AsioZelRpcProvider::Create(
    const boost::property_tree::ptree& config, ProviderStartupOptions options,
    std::shared_ptr<net::SecurityManager> security) {
  return std::shared_ptr<AsioZelRpcProvider>(
      new AsioZelRpcProvider(config, options, std::move(security)));
}

AsioZelRpcProvider::AsioZelRpcProvider(const boost::property_tree::ptree& config,
                                       ProviderStartupOptions options,
                                       std::shared_ptr<net::SecurityManager> security)
    : base_(AsioZelProvider::Create(config, options)) {
  const boost::shared_ptr<AsioDispatcher>& dispatcher = base_->GetDispatcher();
  timers_ = std::make_shared<AsioTimerFactory>(dispatcher->GetIoContextHandle());
  const metrics::MetricKeyPtr root = base_->GetMetricRegistry().root();
  ZEL_RPC_LOG(kLogVerbose).format("RpcMetrics: created");
  registry_ = std::make_shared<RpcServiceRegistry>();
  scheduler_ = std::make_shared<AsioChannelScheduler>(dispatcher, root);
  channels_ = std::make_shared<ChannelFactory>(scheduler_, registry_, timers_, root);
  // The RPC transport comes last, on its network layer.
  names_ = std::make_shared<net::NetNameResolver>(dispatcher->GetIoContextHandle());
  net_ = std::make_shared<net::NetTransport>(net::NetTransport::Params{
      dispatcher, dispatcher->GetIoContextHandle(), timers_, names_, std::move(security), root});
  transport_ = RpcTransport::Create(
      RpcTransport::Params{net_, channels_, registry_, dispatcher, timers_, root});
  // Metrics reports to the collector service, one publisher per "rpc" node.
  if (const auto publishers = config.get_child_optional("metrics.publishers")) {
    for (const auto& node : *publishers) {
      if (node.first != "rpc") continue;
      base_->GetMetricRegistry().AddPublisher(std::make_shared<RpcPublisher>(
          RpcPublisherOptions::FromTree(node.second, AppName()), transport_, channels_, timers_));
    }
  }
}

AsioZelRpcProvider::~AsioZelRpcProvider() {
  // The last metrics report goes while the transport can still carry it: a
  // running dispatcher gets a few rounds to send it.
  base_->GetMetricRegistry().Shutdown();
  DrainDispatcher_();
  // The transport goes down first, on this thread: the dispatcher may not be
  // running any more to take a posted shutdown.
  transport_->ShutdownNow();
  net_->Shutdown();
  names_->Shutdown();
  // Closing a socket is itself a posted step, and its pending reads answer
  // in further ones: let a running dispatcher take a few rounds of them, so
  // that peers see the connections end, before it is stopped with force.
  DrainDispatcher_();
  const boost::shared_ptr<AsioDispatcher>& dispatcher = base_->GetDispatcher();
  if (base_->IsRunning()) base_->Stop();
  if (dispatcher->IsOwnThread()) {
    // The last reference went on one of the dispatcher's own threads, which
    // can't wait for itself: the threads end by themselves once stopped.
    dispatcher->Stop(true);
  } else {
    dispatcher->StopAndWait(true);
    // Steps still queued hold connections, and the connections the
    // io_context: run what is ready here, on this thread, so that nothing
    // keeps the other alive.
    try {
      boost::asio::io_context& io = dispatcher->GetIoContext();
      io.restart();
      io.poll();
    } catch (const std::exception& e) {
      ZEL_RPC_LOG(kLogWarn).format("AsioZelRpcProvider: a last step failed: %s", e.what());
    }
  }
  transport_.reset();
  net_.reset();
  names_.reset();
  channels_.reset();
  scheduler_.reset();
  registry_.reset();
  ZEL_RPC_LOG(kLogVerbose).format("RpcMetrics: destroying");
}

void AsioZelRpcProvider::DrainDispatcher_() {
  const boost::shared_ptr<AsioDispatcher>& dispatcher = base_->GetDispatcher();
  if (!base_->IsRunning() || dispatcher->IsOwnThread()) return;
  for (int round = 0; round < kDrainRounds; ++round) {
    auto drained = std::make_shared<std::promise<void>>();
    dispatcher->Post([drained] { drained->set_value(); });
    if (drained->get_future().wait_for(kDrainWait) != std::future_status::ready) break;
  }
}

const boost::shared_ptr<AsioDispatcher>& AsioZelRpcProvider::GetDispatcher() const {
  return base_->GetDispatcher();
}

}  // namespace rpc
}  // namespace zel
