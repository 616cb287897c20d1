// Monitors: polled once per report cycle, before the values are collected,
// they set simple counters from the operating system.
//
//   CurrentProcessMonitor  /zel/proc/self/status/{uptime, vm/peak, vm/size,
//                          vm/hwm, vm/rss, vm/swap, threads}, in seconds, bytes
//                          and threads, from /proc/self/status
//   SystemInfoMonitor      /zel/system/info/{uptime, load/1m-avg, load/5m-avg,
//                          load/15m-avg, memory/{total,free,share,buffer},
//                          swap/{total,free}, procs}, from sysinfo(2); loads
//                          are hundredths
//   FileSystemMonitor      /zel/system/fs/<path with \ for />/{capacity, free,
//                          available}, in
//                          bytes, from the file system layer's space query
//
// A failing source is logged and leaves the values as they were; it never
// stops the cycle. The sources are injectable, for tests.
//
// Threads: Update runs on the registry's cycle only.
#ifndef ZEL_METRICS_MONITORS_H_
#define ZEL_METRICS_MONITORS_H_

#include <sys/sysinfo.h>

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"

namespace zel {
namespace filesystem {
class FileSystem;
}  // namespace filesystem

namespace metrics {

class MetricMonitor {
 public:
  virtual ~MetricMonitor() = default;
  virtual void Update() = 0;
};

class CurrentProcessMonitor : public MetricMonitor {
 public:
  // `statusFile` and `now` stand in for /proc/self/status and time(nullptr).
  explicit CurrentProcessMonitor(const MetricKeyPtr& treeRoot, std::string statusFile = "/proc/self/status",
                                 std::function<time_t()> now = nullptr);
  void Update() override;

 private:
  const std::string statusFile_;
  const std::function<time_t()> now_;
  Metric<SimpleUnitCounter> uptime_;
  // In the order of kLines in monitors.cpp.
  std::vector<Metric<SimpleUnitCounter>> lines_;
};

class SystemInfoMonitor : public MetricMonitor {
 public:
  // `query` stands in for sysinfo(2): it fills the struct, or returns an errno.
  using Query = std::function<int(struct sysinfo*)>;
  explicit SystemInfoMonitor(const MetricKeyPtr& treeRoot, Query query = nullptr);
  void Update() override;

 private:
  const Query query_;
  std::vector<Metric<SimpleUnitCounter>> values_;
};

class FileSystemMonitor : public MetricMonitor {
 public:
  FileSystemMonitor(const MetricKeyPtr& treeRoot, std::vector<std::string> paths,
                    std::shared_ptr<filesystem::FileSystem> fs);
  void Update() override;

 private:
  struct Group {
    std::string path;
    Metric<SimpleUnitCounter> capacity, free, available;
  };
  const std::shared_ptr<filesystem::FileSystem> fs_;
  std::vector<Group> groups_;
};

// Parses a /proc status value: a decimal number and an optional unit "B",
// "kB", "mB" or "gB" (powers of 1024). False for anything else.
bool ParseStatusValue(const std::string& text, uint64_t* value);

// The monitors of a configuration list ("system-info", "file-system:a:b");
// unknown texts are logged and skipped. The process monitor comes first.
std::vector<std::unique_ptr<MetricMonitor>> MakeMonitors(const MetricKeyPtr& treeRoot,
                                                         const std::vector<std::string>& list);

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_MONITORS_H_
