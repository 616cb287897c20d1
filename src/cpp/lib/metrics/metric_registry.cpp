#include "cpp/lib/metrics/metric_registry.h"

#include <unistd.h>

#include <chrono>
#include <mutex>
#include <stdexcept>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/error_tags.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/monitors.h"
#include "cpp/lib/metrics/publisher.h"
#include "cpp/lib/metrics/publishers.h"
#include "cpp/lib/metrics/serializer.h"
#include "cpp/lib/timer/timer.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace metrics {

namespace {

using SteadyClock = std::chrono::steady_clock;
using Reporters = std::vector<std::unique_ptr<Reporter>>;

int64_t MicrosSince(SteadyClock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - start).count();
}

}  // namespace

struct MetricRegistry::Impl {
  Impl(const MetricRegistrySettings& s) : settings(s), root(impl::RootKey::MakeRoot()) {}

  // Walks the tree for Publish: reports `key` and its instance children to
  // `reporters`, then each other child with its own reporters.
  void PublishKey(const MetricKeyPtr& key, std::string path, const Reporters& reporters, BasicSerializer& values,
                  std::size_t* count);
  void ReportOne(const MetricKeyPtr& key, const std::string& path, const Reporters& reporters,
                 BasicSerializer& values, std::size_t* count);
  void CollectKey(const MetricKeyPtr& key, std::size_t* count);
  // The steps of a cycle; the caller holds mutex.
  void UpdateLocked();
  void CollectLocked();
  void PublishLocked();

  MetricRegistrySettings settings;
  std::mutex mutex;
  const MetricKeyPtr root;
  MetricKeyPtr ns;
  Metric<UnitCounter> collectKeys, reportKeys;
  Metric<LatencyCounter> collectTime, reportTime;
  std::vector<std::unique_ptr<MetricMonitor>> monitors;     // guarded by mutex
  std::vector<std::shared_ptr<Publisher>> publishers;      // guarded by mutex
  TimerPtr timer;                                          // guarded by mutex
  bool running = false;                                    // guarded by mutex
  bool shutDown = false;                                   // guarded by mutex
};

void MetricRegistry::Impl::UpdateLocked() {
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: updating monitors...");
  for (const auto& monitor : monitors) {
    // A failing monitor costs its own values only, never the cycle.
    try {
      monitor->Update();
    } catch (...) {
      ZEL_LOG_CAUGHT_EXCEPTION(ZEL_METRICS_LOG, kTagMxLib9999, "MetricMonitor::Update");
    }
  }
}

void MetricRegistry::Impl::CollectKey(const MetricKeyPtr& key, std::size_t* count) {
  // One look at the value per key: collect() is false when there is none.
  if (key->collect()) {
    ZEL_METRICS_LOG(kLogDebug).format("Metrics: collecting '%s'", key->path().c_str());
    ++*count;
  }
  for (const MetricKeyPtr& child : key->subkeys()) CollectKey(child, count);
}

void MetricRegistry::Impl::CollectLocked() {
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: collecting values...");
  const SteadyClock::time_point start = SteadyClock::now();
  std::size_t count = 0;
  CollectKey(root, &count);
  const int64_t micros = MicrosSince(start);
  collectTime->record(static_cast<uint64_t>(micros));
  collectKeys->set(count);
  // The walk rolled the registry's own collect figures over before they were
  // set: a step of their own puts this cycle's figures in this report.
  collectTime.key()->collect();
  collectKeys.key()->collect();
  ZEL_METRICS_LOG(kLogVerbose).format("Metrics: collected %zu values in %ld ms", count,
                                      static_cast<long>(micros / 1000));
}

void MetricRegistry::Impl::ReportOne(const MetricKeyPtr& key, const std::string& path, const Reporters& reporters,
                                     BasicSerializer& values, std::size_t* count) {
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: reporting '%s'", path.c_str());
  values.Clear();
  if (key->report(values, /*current=*/false)) ++*count;
  for (const auto& r : reporters) r->report(path, *key, values);
}

void MetricRegistry::Impl::PublishKey(const MetricKeyPtr& key, std::string path, const Reporters& reporters,
                                      BasicSerializer& values, std::size_t* count) {
  if (key->kind() != KeyKind::kInstance && key->name() != "/") path += "/" + key->name();
  ReportOne(key, path, reporters, values, count);
  const std::vector<MetricKeyPtr> children = key->subkeys();
  for (const MetricKeyPtr& child : children) {
    if (child->kind() == KeyKind::kInstance) ReportOne(child, path, reporters, values, count);
  }
  for (const MetricKeyPtr& child : children) {
    if (child->kind() == KeyKind::kInstance) continue;
    ZEL_METRICS_LOG(kLogDebug).format("Metrics: reporter for subkey '%s'", child->name().c_str());
    Reporters below;
    for (const auto& r : reporters) below.push_back(r->subkey(child->name()));
    PublishKey(child, path, below, values, count);
  }
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: done");
  for (const auto& r : reporters) r->done();
}

void MetricRegistry::Impl::PublishLocked() {
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: publishing values...");
  const SteadyClock::time_point start = SteadyClock::now();
  Reporters reporters;
  for (const auto& p : publishers) reporters.push_back(p->GetReporter());
  BasicSerializer values;
  std::size_t count = 0;
  PublishKey(root, std::string(), reporters, values, &count);
  root->sweep_released_subkeys();
  const int64_t micros = MicrosSince(start);
  reportTime->record(static_cast<uint64_t>(micros));
  reportKeys->set(count);
  ZEL_METRICS_LOG(kLogVerbose).format("Metrics: published %zu values in %ld ms", count,
                                      static_cast<long>(micros / 1000));
}

// --- MetricRegistry ------------------------------------------------------------------

MetricRegistry::MetricRegistry(const std::string& rootNamespace)
    : MetricRegistry(
          [&] {
            MetricRegistrySettings s;
            s.root_namespace = rootNamespace;
            return s;
          }(),
          nullptr, {}) {}

MetricRegistry::MetricRegistry(const MetricRegistrySettings& settings, TimerFactory* timers,
                               std::vector<std::shared_ptr<Publisher>> publishers)
    : impl_(std::make_shared<Impl>(settings)) {
  ZEL_METRICS_LOG(kLogVerbose).format("MetricRegistry: is created");
  Impl& m = *impl_;
  m.ns = m.root->subkey(settings.root_namespace);
  m.collectKeys = Metric<UnitCounter>(m.root->subkey("zel/metrics/collect/keys"));
  m.collectTime = Metric<LatencyCounter>(m.root->subkey("zel/metrics/collect/time"));
  m.reportKeys = Metric<UnitCounter>(m.root->subkey("zel/metrics/report/keys"));
  m.reportTime = Metric<LatencyCounter>(m.root->subkey("zel/metrics/report/time"));
  if (!timers) return;  // a registry that does not report by itself

  ZEL_METRICS_LOG(kLogInfo).format("Metrics: root namespace: '%s'", settings.root_namespace.c_str());
  m.monitors = MakeMonitors(m.root, settings.monitors);
  std::string names;
  for (const auto& p : publishers) {
    p->Start();
    names += (names.empty() ? "" : ", ") + p->name();
  }
  m.publishers = std::move(publishers);
  if (names.empty()) {
    ZEL_METRICS_LOG(kLogWarn).format("Metrics: reporting is disabled - no publishers set");
  } else {
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: configured to report to %s", names.c_str());
  }
  m.running = true;
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: scheduling periodic collection every %ld seconds, aligned=%s",
                                   static_cast<long>(settings.report_interval_sec),
                                   settings.use_aligned_timers ? "true" : "false");
  std::weak_ptr<Impl> weak = impl_;
  m.timer = timers->CreatePeriodicTimer(
      std::chrono::nanoseconds(settings.report_interval_sec * 1000000000LL),
      [weak] {
        std::shared_ptr<Impl> self = weak.lock();
        if (!self) {
          ZEL_METRICS_LOG(kLogVerbose).format("MetricRegistry: ignoring report callback - is already released");
          return;
        }
        ZEL_METRICS_LOG(kLogDebug).format("MetricRegistry::Report");
        std::lock_guard<std::mutex> lock(self->mutex);
        if (!self->running) return;
        // Nothing of a cycle may reach the dispatcher.
        try {
          self->UpdateLocked();
          self->CollectLocked();
          self->PublishLocked();
        } catch (...) {
          ZEL_LOG_CAUGHT_EXCEPTION(ZEL_METRICS_LOG, kTagMxLib9999, "MetricRegistry::Report");
        }
      },
      settings.use_aligned_timers);
}

MetricRegistry::~MetricRegistry() {
  try {
    ZEL_METRICS_LOG(kLogVerbose).format("MetricRegistry: is being destroyed");
    Shutdown();
    ZEL_METRICS_LOG(kLogVerbose).format("MetricRegistry: is destroyed");
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_METRICS_LOG, kTagMxLib9999, "~impl_s");
  }
}

const MetricKeyPtr& MetricRegistry::root() const { return impl_->ns; }
const MetricKeyPtr& MetricRegistry::tree_root() const { return impl_->root; }
const std::string& MetricRegistry::root_namespace() const { return impl_->settings.root_namespace; }
const MetricRegistrySettings& MetricRegistry::settings() const { return impl_->settings; }

void MetricRegistry::AddPublisher(std::shared_ptr<Publisher> publisher) {
  if (!publisher) throw std::invalid_argument("MetricRegistry::AddPublisher: null publisher");
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: configured to report to %s", publisher->name().c_str());
  std::lock_guard<std::mutex> lock(impl_->mutex);
  publisher->Start();
  impl_->publishers.push_back(std::move(publisher));
}

void MetricRegistry::Report() {
  ZEL_METRICS_LOG(kLogDebug).format("MetricRegistry::Report");
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->running) return;
  impl_->UpdateLocked();
  impl_->CollectLocked();
  impl_->PublishLocked();
}

void MetricRegistry::Update() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->UpdateLocked();
}

void MetricRegistry::Collect() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->CollectLocked();
}

void MetricRegistry::Publish() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->PublishLocked();
}

void MetricRegistry::Shutdown() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  Impl& m = *impl_;
  if (m.shutDown) return;
  m.shutDown = true;
  const bool wasRunning = m.running;
  m.running = false;
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: Shutdown");
  if (!wasRunning) {
    // A registry driven by hand reports only when asked.
    m.publishers.clear();
    m.monitors.clear();
    return;
  }
  if (m.timer) m.timer->Cancel();
  m.timer.reset();
  if (m.settings.report_at_shutdown) {
    m.UpdateLocked();
    m.CollectLocked();
    m.PublishLocked();
  }
  m.publishers.clear();
  m.monitors.clear();
}

// --- MetricRegistryBuilder --------------------------------------------------------------

std::string ProgramNamespace(const std::string& exe) {
  std::string stem = exe.substr(exe.rfind('/') + 1);
  const std::size_t dot = stem.rfind('.');
  if (dot != std::string::npos && dot > 0) stem.erase(dot);
  const std::size_t lt = stem.find("lt-");
  if (lt != std::string::npos) stem.erase(lt, 3);
  return "/zel/" + stem;
}

namespace {
// A year: longer intervals are a mistake, and would overflow in nanoseconds.
constexpr int64_t kMaxReportIntervalSec = 366LL * 24 * 3600;
}  // namespace

MetricRegistryBuilder::MetricRegistryBuilder(TimerFactory& timers) : timers_(timers) {}
MetricRegistryBuilder::~MetricRegistryBuilder() = default;

MetricRegistryBuilder& MetricRegistryBuilder::RootNamespace(const std::string& ns) {
  if (!ns.empty()) {
    settings_.root_namespace = ns;
    return *this;
  }
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  settings_.root_namespace = ProgramNamespace(n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : "");
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::ReportIntervalSec(int64_t seconds) {
  if (seconds == 0) {
    ZEL_METRICS_LOG(kLogWarn).format("Metrics: setting reporting interval to the default value");
    seconds = MetricRegistrySettings::kDefaultReportIntervalSec;
  } else if (seconds < 0 || seconds > kMaxReportIntervalSec) {
    ZEL_METRICS_LOG(kLogWarn).format("Metrics: invalid report_interval_sec %ld - using the default",
                                     static_cast<long>(seconds));
    seconds = MetricRegistrySettings::kDefaultReportIntervalSec;
  }
  settings_.report_interval_sec = seconds;
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::ReportAtShutdown(bool yes) {
  settings_.report_at_shutdown = yes;
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::UseAlignedTimers(bool yes) {
  settings_.use_aligned_timers = yes;
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::Monitors(std::vector<std::string> monitors) {
  settings_.monitors = std::move(monitors);
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::AddPublisher(std::shared_ptr<Publisher> publisher) {
  if (!publisher) throw std::invalid_argument("MetricRegistryBuilder::AddPublisher: null publisher");
  publishers_.push_back(std::move(publisher));
  return *this;
}

MetricRegistryBuilder& MetricRegistryBuilder::Configure(const boost::property_tree::ptree& tree) {
  configured_ = true;
  using boost::property_tree::ptree;
  auto bad = [](const char* key, const std::string& text) {
    ZEL_METRICS_LOG(kLogWarn).format("Metrics: invalid %s '%s' in configuration - using the default", key,
                                     text.c_str());
  };
  if (const auto ns = tree.get_optional<std::string>("root_namespace")) RootNamespace(*ns);
  if (const auto text = tree.get_optional<std::string>("report_interval_sec")) {
    if (const auto n = tree.get_optional<int64_t>("report_interval_sec")) {
      ReportIntervalSec(*n);
    } else {
      bad("report_interval_sec", *text);
    }
  }
  for (const char* key : {"report_at_shutdown", "use_aligned_timers"}) {
    const auto text = tree.get_optional<std::string>(key);
    if (!text) continue;
    const auto flag = tree.get_optional<bool>(key);
    if (!flag) {
      bad(key, *text);
    } else if (key[0] == 'r') {
      ReportAtShutdown(*flag);
    } else {
      UseAlignedTimers(*flag);
    }
  }
  if (const auto monitors = tree.get_child_optional("monitors")) {
    std::vector<std::string> list;
    for (const ptree::value_type& m : *monitors) {
      if (!m.first.empty() && m.first[0] == '<') continue;  // XML comments and attributes
      if (m.first != "file-system") {
        list.push_back(m.first);
        continue;
      }
      std::string text = "file-system:";
      bool first = true;
      for (const ptree::value_type& p : m.second) {
        if (p.first != "path" || p.second.data().empty()) continue;
        text += (first ? "" : ":") + p.second.data();
        first = false;
      }
      list.push_back(text);
    }
    Monitors(std::move(list));
  }
  if (const auto publishers = tree.get_child_optional("publishers")) {
    for (const ptree::value_type& p : *publishers) {
      if (!p.first.empty() && p.first[0] == '<') continue;  // XML comments and attributes
      if (p.first == "log") {
        AddPublisher(std::make_shared<LogPublisher>(LogPublisherOptions::FromTree(p.second)));
      } else if (p.first == "text") {
        AddPublisher(std::make_shared<TextPublisher>(TextPublisherOptions::FromTree(p.second)));
      } else if (p.first == "noop") {
        AddPublisher(std::make_shared<NoopPublisher>());
      } else if (p.first != "rpc") {
        ZEL_METRICS_LOG(kLogWarn).format("Metrics: unsupported publisher '%s' in configuration", p.first.c_str());
      }
    }
  }
  return *this;
}

std::unique_ptr<MetricRegistry> MetricRegistryBuilder::Build() {
  if (!configured_) ZEL_METRICS_LOG(kLogInfo).format("Metrics: using default settings for Registry");
  if (publishers_.empty()) {
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: using default noop publisher for Registry");
    publishers_.push_back(std::make_shared<NoopPublisher>());
  }
  try {
    return std::unique_ptr<MetricRegistry>(new MetricRegistry(settings_, &timers_, publishers_));
  } catch (const std::exception& e) {
    ZEL_METRICS_LOG(kLogError).addTag(kTagMxLib100).format("Metrics: failed to initialize Registry");
    throw std::runtime_error("Metrics: failed to initialize Registry");
  }
}

}  // namespace metrics
}  // namespace zel
