#include "cpp/lib/metrics/monitors.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/filesystem/file_system.h"
#include "cpp/lib/common/logger.h"

namespace zel {
namespace metrics {

namespace {

// Status lines and the keys they go to.
const std::pair<const char*, const char*> kLines[] = {
    {"VmPeak", "vm/peak"}, {"VmSize", "vm/size"}, {"VmHWM", "vm/hwm"},
    {"VmRSS", "vm/rss"},   {"VmSwap", "vm/swap"}, {"Threads", "threads"},
};

const char* const kSysInfoKeys[] = {
    "uptime",        "load/1m-avg",   "load/5m-avg",  "load/15m-avg", "memory/total", "memory/free",
    "memory/share",  "memory/buffer", "swap/total",   "swap/free",    "procs",
};

std::string Trim(const std::string& s) {
  const std::size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

}  // namespace

bool ParseStatusValue(const std::string& text, uint64_t* value) {
  const std::string t = Trim(text);
  std::size_t i = 0;
  uint64_t n = 0;
  for (; i < t.size() && t[i] >= '0' && t[i] <= '9'; ++i) {
    if (n > (UINT64_MAX - 9) / 10) return false;
    n = n * 10 + static_cast<uint64_t>(t[i] - '0');
  }
  if (i == 0) return false;
  const std::string unit = Trim(t.substr(i));
  int shift;
  if (unit.empty() || unit == "B") {
    shift = 0;
  } else if (unit == "kB") {
    shift = 10;
  } else if (unit == "mB") {
    shift = 20;
  } else if (unit == "gB") {
    shift = 30;
  } else {
    return false;
  }
  if (n > (UINT64_MAX >> shift)) return false;
  *value = n << shift;
  return true;
}

CurrentProcessMonitor::CurrentProcessMonitor(const MetricKeyPtr& treeRoot, std::string statusFile,
                                             std::function<time_t()> now)
    : statusFile_(std::move(statusFile)),
      now_(now ? std::move(now) : std::function<time_t()>([] { return time(nullptr); })) {
  const MetricKeyPtr key = treeRoot->subkey("zel/proc/self/status");
  uptime_ = Metric<SimpleUnitCounter>(key->subkey("uptime"), "s");
  for (const auto& line : kLines) {
    lines_.emplace_back(key->subkey(line.second), std::strcmp(line.first, "Threads") == 0 ? "" : "B");
  }
}

void CurrentProcessMonitor::Update() {
  struct stat st;
  if (::stat(statusFile_.c_str(), &st) != 0) {
    const int e = errno;
    ZEL_METRICS_LOG(kLogWarn).format("CurrentProcessMonitor: failed to get status of '%s': %i-%s",
                                     statusFile_.c_str(), e, ErrnoText(e).c_str());
  } else {
    const time_t now = now_();
    uptime_->set(now > st.st_mtime ? static_cast<uint64_t>(now - st.st_mtime) : 0);
  }
  std::ifstream in(statusFile_);
  if (!in) {
    ZEL_METRICS_LOG(kLogWarn).format("CurrentProcessMonitor: failed to open and read '%s'!", statusFile_.c_str());
    return;
  }
  std::map<std::string, std::string> fields;
  for (std::string line; std::getline(in, line);) {
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) fields[line.substr(0, colon)] = line.substr(colon + 1);
  }
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    const auto it = fields.find(kLines[i].first);
    if (it == fields.end()) continue;
    uint64_t v = 0;
    if (ParseStatusValue(it->second, &v)) {
      lines_[i]->set(v);
    } else {
      ZEL_METRICS_LOG(kLogWarn).format("CurrentProcessMonitor: failed to parse '%s' - %s", kLines[i].first,
                                       Trim(it->second).c_str());
    }
  }
}

SystemInfoMonitor::SystemInfoMonitor(const MetricKeyPtr& treeRoot, Query query)
    : query_(query ? std::move(query) : Query([](struct sysinfo* info) { return ::sysinfo(info) == 0 ? 0 : errno; })) {
  const MetricKeyPtr key = treeRoot->subkey("zel/system/info");
  for (const char* name : kSysInfoKeys) values_.emplace_back(key->subkey(name));
}

void SystemInfoMonitor::Update() {
  struct sysinfo info;
  std::memset(&info, 0, sizeof info);
  if (const int e = query_(&info)) {
    ZEL_METRICS_LOG(kLogWarn).format("SystemInfoMonitor: failed to get sysinfo: %i-%s", e, ErrnoText(e).c_str());
    return;
  }
  const uint64_t unit = info.mem_unit ? info.mem_unit : 1;
  const uint64_t figures[] = {
      static_cast<uint64_t>(info.uptime),
      info.loads[0] * 100 / 65536,
      info.loads[1] * 100 / 65536,
      info.loads[2] * 100 / 65536,
      info.totalram * unit,
      info.freeram * unit,
      info.sharedram * unit,
      info.bufferram * unit,
      info.totalswap * unit,
      info.freeswap * unit,
      info.procs,
  };
  for (std::size_t i = 0; i < values_.size(); ++i) values_[i]->set(figures[i]);
}

FileSystemMonitor::FileSystemMonitor(const MetricKeyPtr& treeRoot, std::vector<std::string> paths,
                                     std::shared_ptr<filesystem::FileSystem> fs)
    : fs_(std::move(fs)) {
  const MetricKeyPtr key = treeRoot->subkey("zel/system/fs");
  for (std::string& p : paths) {
    // One key per path, its slashes turned into backslashes as in instance
    // names: /zel/system/fs/\var\log/free.
    std::string name = p;
    std::replace(name.begin(), name.end(), '/', '\\');
    const MetricKeyPtr group = key->subkey(name);
    groups_.push_back(Group{std::move(p), Metric<SimpleUnitCounter>(group->subkey("capacity"), "B"),
                            Metric<SimpleUnitCounter>(group->subkey("free"), "B"),
                            Metric<SimpleUnitCounter>(group->subkey("available"), "B")});
  }
}

void FileSystemMonitor::Update() {
  for (Group& g : groups_) {
    filesystem::error_code ec;
    const filesystem::SpaceInfo space = fs_->Space(g.path, ec);
    if (ec) {
      ZEL_METRICS_LOG(kLogWarn).format("FileSystemMonitor: failed to get space info for '%s': %i-%s", g.path.c_str(),
                                       ec.value(), ec.message().c_str());
      continue;
    }
    g.capacity->set(space.capacity);
    g.free->set(space.free);
    g.available->set(space.available);
  }
}

std::vector<std::unique_ptr<MetricMonitor>> MakeMonitors(const MetricKeyPtr& treeRoot,
                                                         const std::vector<std::string>& list) {
  std::vector<std::unique_ptr<MetricMonitor>> monitors;
  monitors.emplace_back(new CurrentProcessMonitor(treeRoot));
  static const std::string kFileSystem = "file-system:";
  for (const std::string& text : list) {
    if (text == "system-info") {
      monitors.emplace_back(new SystemInfoMonitor(treeRoot));
    } else if (text.compare(0, kFileSystem.size(), kFileSystem) == 0) {
      std::vector<std::string> paths;
      std::size_t start = kFileSystem.size();
      while (start <= text.size()) {
        const std::size_t colon = std::min(text.find(':', start), text.size());
        if (colon > start) paths.push_back(text.substr(start, colon - start));
        start = colon + 1;
      }
      monitors.emplace_back(new FileSystemMonitor(treeRoot, std::move(paths), filesystem::MakeFileSystem()));
    } else {
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: unsupported monitors '%s' in configuration", text.c_str());
    }
  }
  return monitors;
}

}  // namespace metrics
}  // namespace zel
