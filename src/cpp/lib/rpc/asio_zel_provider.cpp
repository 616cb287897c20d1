#include "cpp/lib/rpc/asio_zel_provider.h"

#include <csignal>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/error_tags.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"

namespace zel {
namespace rpc {

struct AsioZelProvider::Signals {
  explicit Signals(boost::asio::io_context& io) : set(io) {}
  boost::asio::signal_set set;
};

namespace {

// The registry of the "metrics" subtree; without one, every default.
std::unique_ptr<metrics::MetricRegistry> BuildRegistry(const boost::property_tree::ptree& config,
                                                       TimerFactory& timers) {
  metrics::MetricRegistryBuilder builder(timers);
  if (const auto tree = config.get_child_optional("metrics")) builder.Configure(*tree);
  return builder.Build();
}

}  // namespace

boost::shared_ptr<AsioZelProvider> AsioZelProvider::Create(
    const boost::property_tree::ptree& config, ProviderStartupOptions options) {
  return boost::shared_ptr<AsioZelProvider>(new AsioZelProvider(config, options));
}

AsioZelProvider::AsioZelProvider(const boost::property_tree::ptree& config,
                                 ProviderStartupOptions options)
    : options_(options),
      config_(new boost::property_tree::ptree(config)),
      dispatcher_(new AsioDispatcher()),
      timerFactory_(new AsioTimerFactory(dispatcher_->GetIoContextHandle())),
      metricRegistry_(BuildRegistry(config, *timerFactory_)) {
  ZEL_RPC_LOG(kLogInfo).format("AsioZelProvider: initializing...");
  ZEL_RPC_LOG(kLogInfo).format("AsioZelProvider: successfully initialized");
}

AsioZelProvider::~AsioZelProvider() {
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    DropSignals_();
    running_ = false;
  }
  // The last report, while the timers and the dispatcher still exist.
  metricRegistry_->Shutdown();
  // The dispatcher's own destructor stops it with force and joins its threads.
}

void AsioZelProvider::Run(std::size_t numThreads, bool blocking) {
  uint64_t generation = 0;
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (running_) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagCmnLib100)
          .format("AsioZelProvider: can't run - already running");
      return;
    }
    running_ = true;
    generation = ++runGeneration_;
    if (options_.stop_on_signals) WatchSignals_();
  }

  // Threads of an earlier non-blocking run must be gone before the dispatcher
  // runs again.
  if (dispatcher_->NumThreads() > 0) dispatcher_->StopAndWait(true);

  // A Stop that lands between the unlock above and the dispatcher's start
  // would be undone by the dispatcher resetting its io_context. This handler
  // runs first in the new loop and repeats such a stop.
  boost::weak_ptr<AsioZelProvider> weak = shared_from_this();
  dispatcher_->Post([weak, generation] {
    if (auto self = weak.lock()) {
      bool stopped = false;
      {
        boost::lock_guard<boost::mutex> lock(self->mutex_);
        stopped = generation == self->runGeneration_ && !self->running_;
      }
      if (stopped) self->dispatcher_->Stop(true);
    }
  });

  dispatcher_->Run(numThreads, blocking);

  if (blocking) {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (generation == runGeneration_) {
      DropSignals_();
      running_ = false;
    }
  }
}

void AsioZelProvider::Stop() {
  {
    boost::lock_guard<boost::mutex> lock(mutex_);
    if (!running_) {
      ZEL_RPC_LOG(kLogWarn).format("AsioZelProvider: can't stop - not running");
      return;
    }
    running_ = false;
    DropSignals_();
  }
  dispatcher_->Stop(true);
}

bool AsioZelProvider::IsRunning() const {
  boost::lock_guard<boost::mutex> lock(mutex_);
  return running_;
}

TimerFactory& AsioZelProvider::GetTimerFactory() const { return *timerFactory_; }

void AsioZelProvider::WatchSignals_() {
  if (signals_) return;
  ZEL_RPC_LOG(kLogInfo).format("AsioZelProvider: setting up signal handlers");
  signals_.reset(new Signals(dispatcher_->GetIoContext()));
  signals_->set.add(SIGINT);
  signals_->set.add(SIGTERM);
  boost::weak_ptr<AsioZelProvider> weak = shared_from_this();
  signals_->set.async_wait([weak](const boost::system::error_code& ec, int signo) {
    if (auto self = weak.lock()) {
      self->OnSignal_(ec, signo);
    } else if (!ec) {
      ZEL_RPC_LOG(kLogWarn).format(
          "AsioZelProvider: ignoring signal handler - already destroyed");
    }
  });
}

void AsioZelProvider::DropSignals_() {
  if (!signals_) return;
  // Removing the last registration of a signal puts its disposition back to
  // the default action.
  boost::system::error_code ignored;
  signals_->set.cancel(ignored);
  signals_->set.clear(ignored);
  signals_.reset();
}

void AsioZelProvider::OnSignal_(const boost::system::error_code& ec, int signo) {
  if (ec) return;  // cancelled by Stop or the destructor
  ZEL_RPC_LOG(kLogWarn).format("AsioZelProvider: got signal %i", signo);
  dispatcher_->Stop(true);
  boost::lock_guard<boost::mutex> lock(mutex_);
  running_ = false;
  DropSignals_();
}

}  // namespace rpc
}  // namespace zel
