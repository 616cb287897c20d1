// zel::rpc::AsioZelProvider: the root object of an application's event
// machinery. It owns the dispatcher, a timer factory on the dispatcher's
// io_context, the metric registry and the configuration tree, and it runs and
// stops the dispatcher's threads. The registry is built from the subtree
// "metrics" of the configuration (MetricRegistryBuilder::Configure) and
// reports on the dispatcher; it makes its last report when the provider goes.
//
//   auto provider = zel::rpc::AsioZelProvider::Create(
//       boost::property_tree::ptree(), {/*stop_on_signals=*/true});
//   zel::StartFrameworkWorkGroup(provider->GetMetricRegistry());
//   provider->Run(1, true);  // serves on this thread until a stop
//
// Signals. With stop_on_signals, Run registers SIGINT and SIGTERM on the
// dispatcher's io_context, replacing whatever disposition they had. The first
// of them logs "AsioZelProvider: got signal %i" at WARN, stops the dispatcher
// with force and drops the registration, which puts both signals back to
// their default action: a second one ends the process. Stop drops the
// registration too. A registration that outlives the provider logs
// "AsioZelProvider: ignoring signal handler - already destroyed".
//
// Threads: Run, Stop and the accessors may be called from any thread; Run
// with (1, true) turns the calling thread into the dispatcher's thread until
// the dispatcher stops. Only one run is active at a time.
#ifndef ZEL_RPC_ASIO_ZEL_PROVIDER_H_
#define ZEL_RPC_ASIO_ZEL_PROVIDER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <boost/property_tree/ptree_fwd.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace boost {
namespace system {
class error_code;
}  // namespace system
}  // namespace boost

namespace zel {

class AsioDispatcher;
class AsioTimerFactory;
class TimerFactory;

namespace metrics {
class MetricRegistry;
}  // namespace metrics

namespace rpc {

// Settings given at creation rather than read from the configuration tree.
struct ProviderStartupOptions {
  // Stop the dispatcher on the first SIGINT or SIGTERM during a run.
  bool stop_on_signals = false;
};

class AsioZelProvider : public boost::enable_shared_from_this<AsioZelProvider> {
 public:
  // Builds the dispatcher, the timer factory and the metric registry. The
  // libraries read their settings from `config`; an empty tree leaves every
  // default in force. Nothing runs until Run.
  static boost::shared_ptr<AsioZelProvider> Create(const boost::property_tree::ptree& config,
                                                   ProviderStartupOptions options = {});

  // Stops a run that is still active and joins the dispatcher's threads
  // (unless the last reference goes on one of them; see ~AsioDispatcher).
  ~AsioZelProvider();

  AsioZelProvider(const AsioZelProvider&) = delete;
  AsioZelProvider& operator=(const AsioZelProvider&) = delete;

  // Starts the dispatcher: `numThreads` new threads, or with (1, true) the
  // calling thread itself; with `blocking` it returns once the dispatcher has
  // stopped. A run while another is active logs "AsioZelProvider: can't run -
  // already running" (errorCode:CMNLIB100) and returns at once.
  void Run(std::size_t numThreads, bool blocking);
  // Stops the dispatcher with force and drops the signal registration; does
  // not wait for its threads. Logs "AsioZelProvider: can't stop - not
  // running" when no run is active.
  void Stop();
  // True from Run until Stop, a stop signal, or the end of a blocking run.
  bool IsRunning() const;

  const boost::shared_ptr<AsioDispatcher>& GetDispatcher() const { return dispatcher_; }
  TimerFactory& GetTimerFactory() const;
  metrics::MetricRegistry& GetMetricRegistry() const { return *metricRegistry_; }
  const boost::property_tree::ptree& GetConfig() const { return *config_; }
  const ProviderStartupOptions& startupOptions() const { return options_; }

 private:
  struct Signals;

  AsioZelProvider(const boost::property_tree::ptree& config, ProviderStartupOptions options);

  // Registers SIGINT and SIGTERM. The caller holds mutex_.
  void WatchSignals_();
  // Cancels and drops the registration. The caller holds mutex_.
  void DropSignals_();
  void OnSignal_(const boost::system::error_code& ec, int signo);

  const ProviderStartupOptions options_;
  const std::unique_ptr<boost::property_tree::ptree> config_;
  const boost::shared_ptr<AsioDispatcher> dispatcher_;
  const std::unique_ptr<AsioTimerFactory> timerFactory_;
  const std::unique_ptr<metrics::MetricRegistry> metricRegistry_;

  mutable boost::mutex mutex_;
  // Guarded by mutex_.
  bool running_ = false;
  // Counts runs, so that work left from an earlier run acts on none later.
  uint64_t runGeneration_ = 0;
  // Present while signals are watched. Declared last so that it goes before
  // the io_context it is bound to. Guarded by mutex_.
  std::unique_ptr<Signals> signals_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ASIO_ZEL_PROVIDER_H_
