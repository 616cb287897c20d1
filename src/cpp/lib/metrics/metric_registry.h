// MetricRegistry: the owner of a metric key tree, its namespace key, the
// monitors and publishers, and the periodic report cycle.
//
//   zel::metrics::MetricRegistry registry;            // namespace "/zel", no cycle
//   MetricKeyPtr key = registry.root()->subkey("work_group/queue/length");
//
//   // A reporting registry, from the "metrics" subtree of a configuration:
//   MetricRegistryBuilder builder(dispatcher, timerFactory);
//   builder.Configure(config.get_child("metrics", {}));
//   std::unique_ptr<MetricRegistry> r = builder.Build();   // reports every 60 s
//   ...
//   r->Shutdown();                                          // one last report
//
// A cycle (Report) updates the monitors, rolls every value over (Collect) and
// hands the frozen values to each publisher (Publish); keys whose last
// reference went are reported once more and then swept. The registry's own
// figures are under "/zel/metrics": collect/keys and report/keys count the
// values, collect/time and report/time are latencies in microseconds.
//
// The registry holds a reference on the namespace key and thereby on the
// tree root. Metrics hold references on their keys, so they stay valid after
// the registry is gone; the tree goes with the last reference.
//
// Threads: root() and tree_root() may be called from any thread. The cycle
// runs on the dispatcher (the timer's callback) or on the caller's thread;
// one lock serialises cycles and Shutdown, so a cycle in flight finishes
// before Shutdown goes on.
#ifndef ZEL_METRICS_METRIC_REGISTRY_H_
#define ZEL_METRICS_METRIC_REGISTRY_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/property_tree/ptree_fwd.hpp>

#include "cpp/lib/metrics/metric_key.h"

namespace zel {

class TimerFactory;

namespace metrics {

class Publisher;

// How a registry reports; the defaults are those of an empty configuration.
struct MetricRegistrySettings {
  static constexpr const char* kDefaultRootNamespace = "/zel";
  static constexpr int64_t kDefaultReportIntervalSec = 60;

  std::string root_namespace = kDefaultRootNamespace;
  int64_t report_interval_sec = kDefaultReportIntervalSec;
  bool report_at_shutdown = true;
  bool use_aligned_timers = true;
  // "system-info", "file-system:<path>[:<path>...]"; the process monitor is
  // always there.
  std::vector<std::string> monitors;
};

class MetricRegistry {
 public:
  static constexpr const char* kDefaultRootNamespace = MetricRegistrySettings::kDefaultRootNamespace;

  // A registry that reports nothing by itself: no timer, no monitor, no
  // publisher until AddPublisher. `rootNamespace` is a "/"-separated path
  // below the tree root.
  explicit MetricRegistry(const std::string& rootNamespace = kDefaultRootNamespace);
  // Shuts down (see Shutdown) and logs its end.
  ~MetricRegistry();

  MetricRegistry(const MetricRegistry&) = delete;
  MetricRegistry& operator=(const MetricRegistry&) = delete;

  // The namespace key, parent of every component's metrics.
  const MetricKeyPtr& root() const;
  // The root of the whole tree, named "/".
  const MetricKeyPtr& tree_root() const;
  const std::string& root_namespace() const;
  const MetricRegistrySettings& settings() const;

  // Starts a publisher and adds it to every later cycle. Throws
  // std::invalid_argument for a null pointer.
  void AddPublisher(std::shared_ptr<Publisher> publisher);

  // One cycle: Update, Collect, Publish, if the registry runs.
  void Report();
  void Update();
  void Collect();
  void Publish();
  // Stops the timer, reports once more if report_at_shutdown, and releases
  // the publishers and monitors. Later calls do nothing.
  void Shutdown();

  struct Impl;

 private:
  friend class MetricRegistryBuilder;
  MetricRegistry(const MetricRegistrySettings& settings, TimerFactory* timers,
                 std::vector<std::shared_ptr<Publisher>> publishers);

  const std::shared_ptr<Impl> impl_;
};

// Makes a reporting registry. Without Configure, every setting has its
// default; without a publisher a NoopPublisher is used.
class MetricRegistryBuilder {
 public:
  explicit MetricRegistryBuilder(TimerFactory& timers);
  virtual ~MetricRegistryBuilder();

  // Reads "root_namespace", "report_interval_sec", "report_at_shutdown",
  // "use_aligned_timers", "monitors" and "publishers" (log, text and noop;
  // "rpc" is left to whoever has the RPC layer). Bad values keep their
  // default, with a warning.
  MetricRegistryBuilder& Configure(const boost::property_tree::ptree& tree);
  MetricRegistryBuilder& RootNamespace(const std::string& ns);
  MetricRegistryBuilder& ReportIntervalSec(int64_t seconds);
  MetricRegistryBuilder& ReportAtShutdown(bool yes);
  MetricRegistryBuilder& UseAlignedTimers(bool yes);
  MetricRegistryBuilder& Monitors(std::vector<std::string> monitors);
  MetricRegistryBuilder& AddPublisher(std::shared_ptr<Publisher> publisher);

  const MetricRegistrySettings& settings() const { return settings_; }

  // The registry, running: its timer started, its publishers started. Logs
  // "Metrics: failed to initialize Registry" (errorCode:MXLIB100) and throws
  // std::runtime_error with that text when it cannot be made.
  std::unique_ptr<MetricRegistry> Build();

 private:
  TimerFactory& timers_;
  MetricRegistrySettings settings_;
  std::vector<std::shared_ptr<Publisher>> publishers_;
  bool configured_ = false;
};

// The namespace of an empty "root_namespace": "/zel/" and the stem of the
// program file (`exe`, normally read from /proc/self/exe), with the first
// "lt-" taken out.
std::string ProgramNamespace(const std::string& exe);

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_METRIC_REGISTRY_H_
