// The registry from configuration trees, its report cycle driven by a timer
// the test fires, the log and text publishers, and the monitors against fake
// sources (and once against the real /proc).
#include <sys/stat.h>
#include <sys/sysinfo.h>

#include <cerrno>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/filesystem/file_system.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/monitors.h"
#include "cpp/lib/metrics/publisher.h"
#include "cpp/lib/metrics/publishers.h"
#include "cpp/lib/metrics/serializer.h"
#include "support/log_capture.h"
#include "support/manual_timers.h"
#include "support/temp_dir.h"

namespace zel {
namespace metrics {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using boost::property_tree::ptree;
using std::chrono::seconds;

ptree Xml(const std::string& text) {
  std::istringstream in(text);
  ptree tree;
  boost::property_tree::read_xml(in, tree, boost::property_tree::xml_parser::trim_whitespace);
  return tree;
}

// The level of a value counter as its key holds it now.
double Level(const MetricKeyPtr& key) {
  BasicSerializer s;
  key->get_value()->serialize(s, /*current=*/true);
  return s.value_last().value;
}

// A publisher that writes down every report: "<path>[<instance>]=<last>" for
// a value, "<path>" for a key without one, "done" at the end of each level.
class RecordingPublisher : public Publisher {
 public:
  std::vector<std::string> events;
  int started = 0;

  std::string name() const override { return "recording"; }
  void Start() override { ++started; }
  std::unique_ptr<Reporter> GetReporter() override { return std::make_unique<Recorder>(&events); }

  // The values of the cycles so far, without the registry's own figures
  // and the process monitor's.
  std::vector<std::string> Values() const {
    std::vector<std::string> out;
    for (const std::string& e : events) {
      if (e.find('=') != std::string::npos && e.rfind("/zel/metrics/", 0) != 0 && e.rfind("/zel/proc/", 0) != 0) {
        out.push_back(e);
      }
    }
    return out;
  }

 private:
  class Recorder : public Reporter {
   public:
    explicit Recorder(std::vector<std::string>* events) : events_(events) {}
    std::unique_ptr<Reporter> subkey(const std::string&) override { return std::make_unique<Recorder>(events_); }
    void report(const std::string& path, const MetricKey&, const BasicSerializer& v) override {
      if (!v.value().set) return events_->push_back(path);
      const std::string instance = v.instance().empty() ? "" : "[" + v.instance() + "]";
      const double last = v.value_last().set ? v.value_last().value : v.sample_num().value;
      events_->push_back(path + instance + "=" + std::to_string(static_cast<long>(last)));
    }
    void done() override { events_->push_back("done"); }

   private:
    std::vector<std::string>* events_;
  };
};

TEST(MetricRegistryTest, BuilderTakesItsSettingsFromTheConfigurationTree) {
  const struct {
    const char* name;
    const char* xml;  // nullptr: no configuration at all
    std::string ns;
    int64_t interval;
    bool atShutdown, aligned;
    std::vector<std::string> logged;
  } rows[] = {
      {"no configuration", nullptr, "/zel", 60, true, true,
       {"Metrics: using default settings for Registry", "Metrics: using default noop publisher for Registry",
        "Metrics: configured to report to noop",
        "Metrics: scheduling periodic collection every 60 seconds, aligned=true"}},
      {"zero interval", "<report_interval_sec>0</report_interval_sec>", "/zel", 60, true, true,
       {"Metrics: setting reporting interval to the default value"}},
      {"interval no number", "<report_interval_sec>soon</report_interval_sec>", "/zel", 60, true, true,
       {"Metrics: invalid report_interval_sec 'soon' in configuration - using the default"}},
      {"negative interval", "<report_interval_sec>-5</report_interval_sec>", "/zel", 60, true, true,
       {"Metrics: invalid report_interval_sec -5 - using the default"}},
      {"all set",
       "<root_namespace>/zel/agent</root_namespace><report_interval_sec>5</report_interval_sec>"
       "<report_at_shutdown>false</report_at_shutdown><use_aligned_timers>0</use_aligned_timers>",
       "/zel/agent", 5, false, false,
       {"Metrics: root namespace: '/zel/agent'",
        "Metrics: scheduling periodic collection every 5 seconds, aligned=false"}},
      {"empty namespace is the program's", "<root_namespace></root_namespace>", "/zel/metric_registry_test", 60,
       true, true, {}},
      {"flag no bool", "<report_at_shutdown>maybe</report_at_shutdown>", "/zel", 60, true, true,
       {"Metrics: invalid report_at_shutdown 'maybe' in configuration - using the default"}},
      {"publishers", "<publishers><log/><noop/><rpc/><bogus/></publishers>", "/zel", 60, true, true,
       {"Metrics: unsupported publisher 'bogus' in configuration", "Metrics: configured to report to log, noop"}},
      {"monitors", "<monitors><system-info/><bogus/></monitors>", "/zel", 60, true, true,
       {"Metrics: unsupported monitors 'bogus' in configuration"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    testing::LogCapture log;
    testing::ManualTimers timers;
    MetricRegistryBuilder builder(timers);
    if (row.xml) builder.Configure(Xml(row.xml));
    std::unique_ptr<MetricRegistry> registry = builder.Build();
    EXPECT_EQ(registry->root_namespace(), row.ns);
    EXPECT_EQ(registry->root()->path(), row.ns);
    EXPECT_EQ(registry->settings().report_at_shutdown, row.atShutdown);
    EXPECT_EQ(timers.Armed(seconds(row.interval)), 1u);
    EXPECT_EQ(timers.LastAligned(), row.aligned);
    for (const std::string& line : row.logged) EXPECT_EQ(log.Count(line), 1u) << line;
    EXPECT_EQ(log.Count("Metrics: using default settings for Registry"), row.xml ? 0u : 1u);
  }
}

TEST(MetricRegistryTest, FileSystemMonitorPathsAreJoinedAndProgramNamesLoseDirectoryExtensionAndLtPrefix) {
  testing::ManualTimers timers;
  MetricRegistryBuilder builder(timers);
  builder.Configure(Xml("<monitors><system-info/><file-system><path>/</path><path></path><path>/tmp</path>"
                        "</file-system></monitors>"));
  EXPECT_THAT(builder.settings().monitors, ElementsAre("system-info", "file-system:/:/tmp"));
  EXPECT_EQ(ProgramNamespace("/usr/bin/lt-agent.bin"), "/zel/agent");
  EXPECT_EQ(ProgramNamespace("/opt/x/dorn-host-agent"), "/zel/dorn-host-agent");
  EXPECT_EQ(ProgramNamespace("/a/my-lt-tool"), "/zel/my-tool");
}

class ReportCycleTest : public ::testing::Test {
 protected:
  std::unique_ptr<MetricRegistry> Build(bool atShutdown = true) {
    return MetricRegistryBuilder(timers_).ReportAtShutdown(atShutdown).AddPublisher(publisher_).Build();
  }

  testing::ManualTimers timers_;
  std::shared_ptr<RecordingPublisher> publisher_ = std::make_shared<RecordingPublisher>();
};

TEST_F(ReportCycleTest, EachLevelIsReportedWithItsInstancesAndItsOwnPath) {
  auto registry = Build();
  EXPECT_EQ(publisher_->started, 1);
  Metric<UnitCounter> b(registry->root()->subkey("a/b"));
  Metric<UnitCounter> conn(registry->root()->subkey("a")->instance("conn=1"));
  b->set(5);
  conn->set(7);
  timers_.Fire(seconds(60));
  std::vector<std::string> zel;
  for (const std::string& e : publisher_->events) {
    if (e.rfind("/zel/a", 0) == 0 || e == "/zel") zel.push_back(e);
  }
  // The instance is reported at its parent's level, before the parent's path
  // children, and adds nothing to the path.
  EXPECT_THAT(zel, ElementsAre("/zel", "/zel/a", "/zel/a[conn=1]=7", "/zel/a/b=5"));
  // One done per level walked; the first report of all is the root's.
  EXPECT_EQ(publisher_->events.front(), "");
  EXPECT_EQ(publisher_->events.back(), "done");

  // The registry's own figures of this cycle are in this cycle's report.
  const auto values = std::count_if(publisher_->events.begin(), publisher_->events.end(),
                                    [](const std::string& e) { return e.find('=') != std::string::npos; });
  EXPECT_THAT(publisher_->events, ::testing::Contains("/zel/metrics/collect/keys=" + std::to_string(values)));
}

TEST_F(ReportCycleTest, AKeyReleasedDuringACycleIsReportedOnceMoreThenSwept) {
  auto registry = Build();
  auto gone = std::make_unique<Metric<UnitCounter>>(registry->root()->subkey("gone"));
  (*gone)->set(3);
  gone.reset();
  timers_.Fire(seconds(60));
  EXPECT_THAT(publisher_->Values(), ElementsAre("/zel/gone=3"));
  publisher_->events.clear();
  timers_.Fire(seconds(60));
  EXPECT_THAT(publisher_->Values(), ElementsAre());
  EXPECT_FALSE(registry->root()->find_subkey("gone"));
}

TEST_F(ReportCycleTest, ShutdownReportsOnceMoreStopsTheTimerAndIsIdempotent) {
  for (bool atShutdown : {true, false}) {
    SCOPED_TRACE(atShutdown);
    publisher_->events.clear();
    testing::LogCapture log;
    auto registry = Build(atShutdown);
    Metric<UnitCounter> c(registry->root()->subkey("c"));
    c->set(1);
    registry->Shutdown();
    EXPECT_EQ(timers_.Armed(seconds(60)), 0u);
    EXPECT_EQ(publisher_->Values().size(), atShutdown ? 1u : 0u);
    registry->Shutdown();
    registry->Report();
    EXPECT_EQ(publisher_->Values().size(), atShutdown ? 1u : 0u);
    EXPECT_EQ(log.Count("Metrics: Shutdown"), 1u);
    registry.reset();
    EXPECT_EQ(log.Count("Metrics: Shutdown"), 1u);
  }
}

TEST_F(ReportCycleTest, AddPublisherRefusesNullAndTheDestructorLogsTheEnd) {
  testing::LogCapture log("VERBOSE");
  auto registry = Build();
  registry->AddPublisher(std::make_shared<NoopPublisher>());
  EXPECT_THROW(registry->AddPublisher(nullptr), std::invalid_argument);
  EXPECT_EQ(log.Count("Metrics: configured to report to noop"), 1u);
  registry.reset();
  EXPECT_EQ(log.Count("MetricRegistry: is destroyed"), 1u);
}

// --- log and text publishers -------------------------------------------------------------

// A plain registry with `a/b` = 5 and the instance `a[conn=1]` = 7, collected.
struct Values {
  MetricRegistry registry;
  Metric<SimpleUnitCounter> b{registry.root()->subkey("a/b")};
  Metric<SimpleUnitCounter> conn{registry.root()->subkey("a")->instance("conn=1")};
  Values() {
    b->set(5);
    conn->set(7);
    registry.Collect();
  }
};

TEST(LogPublisherTest, OneLinePerKeyOrOnePerValueAtTheConfiguredLevel) {
  const struct {
    const char* xml;
    std::vector<std::string> lines;
    std::vector<std::string> warnings;
  } rows[] = {
      // A key's line is logged when its level is done, after those below it.
      {"<level>4</level>", {"METRICS report for 'b' { /zel/a/b = v~last: 5 }",
                            "METRICS report for 'a' { /zel/a[conn=1] = v~last: 7 }"}, {}},
      {"<multiline>true</multiline>", {"METRICS /zel/a[conn=1] = ", "METRICS /zel/a/b = "}, {}},
      {"<level>0</level>", {}, {"Metrics: log publisher level is set to NONE"}},
      {"<level>6</level>", {}, {}},  // DEBUG, above the process level
      {"<level>9</level><multiline>maybe</multiline>", {"report for 'b'", "report for 'a'"},
       {"Metrics: invalid level 9 for log publisher - using default 4",
        "Metrics: invalid multiline 'maybe' for log publisher - using false"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.xml);
    testing::LogCapture log;
    Values v;
    v.registry.AddPublisher(std::make_shared<LogPublisher>(LogPublisherOptions::FromTree(Xml(row.xml))));
    log.Clear();
    v.registry.Publish();
    std::vector<std::string> metrics;
    for (const std::string& line : log.Lines()) {
      if (line.find("METRICS") != std::string::npos && line.find("/zel/metrics/") == std::string::npos) {
        metrics.push_back(line);
      }
    }
    ASSERT_EQ(metrics.size(), row.lines.size());
    for (std::size_t i = 0; i < metrics.size(); ++i) EXPECT_THAT(metrics[i], HasSubstr(row.lines[i]));
  }
  // Separately: the warnings of the options.
  for (const auto& row : rows) {
    testing::LogCapture log;
    LogPublisherOptions::FromTree(Xml(row.xml));
    for (const std::string& w : row.warnings) EXPECT_EQ(log.Count(w), 1u) << w;
  }
}

TEST(TextPublisherTest, EveryLineOfAReportCarriesOneTimeAndGoesToARotatedFile) {
  testing::TempDir dir;
  TextPublisherOptions o = TextPublisherOptions::FromTree(
      Xml("<file><filename>" + dir.path() + "/out/m.txt</filename><rotation_policy><max_size>1 MiB</max_size>"
          "</rotation_policy></file><store><max_files>3</max_files></store>"));
  EXPECT_EQ(o.store.path, dir.path() + "/out");
  EXPECT_EQ(o.ToString(), "{ store: { path: '" + dir.path() + "/out', min_free_space: 0 B, max_size: 16383 PiB, "
                          "max_files: 3 }, file: { filename: '" + dir.path() +
                          "/out/m.txt', rotation policy: { max_size: 1.0 MiB } } }");
  time_t now = 86400 + 3661;
  {
    Values v;
    v.registry.AddPublisher(std::make_shared<TextPublisher>(o, nullptr, [&now] { return now++; }));
    v.registry.Publish();
  }
  std::ifstream in(dir.path() + "/out/m_1970-01-02T01-01-02.txt");
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (line.find("/zel/metrics/") == std::string::npos) lines.push_back(line);
  }
  // The report took the first tick of the clock, the file's name the second.
  EXPECT_THAT(lines, ElementsAre(::testing::StartsWith("[1970-01-02T01:01:01] METRICS /zel/a[conn=1] = "),
                                 ::testing::StartsWith("[1970-01-02T01:01:01] METRICS /zel/a/b = ")));
}

// --- monitors --------------------------------------------------------------------------------

TEST(MonitorTest, StatusValuesParseWithTheirUnits) {
  const struct {
    const char* text;
    bool ok;
    uint64_t value;
  } rows[] = {{"\t  2048 kB", true, 2 << 20}, {"7", true, 7},      {" 3 mB", true, 3 << 20},
              {"1 gB", true, 1 << 30},      {"12 B", true, 12},    {"", false, 0},
              {"x kB", false, 0},           {"5 KB", false, 0},    {"5 kB extra", false, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    uint64_t v = 0;
    EXPECT_EQ(ParseStatusValue(row.text, &v), row.ok);
    if (row.ok) {
      EXPECT_EQ(v, row.value);
    }
  }
}

TEST(MonitorTest, ProcessMonitorReadsTheStatusFileAndKeepsWhatALaterOneLacks) {
  testing::TempDir dir;
  testing::LogCapture log;
  const std::string status = dir.WriteFile("status", "Name:\tx\nVmPeak:\t  4096 kB\nVmRSS:\t 1024 kB\n"
                                                      "VmSwap:\t 8 kB\nThreads:\t7\nVmSize:\tlots\n");
  struct stat st;
  ASSERT_EQ(stat(status.c_str(), &st), 0);
  MetricKeyPtr root = impl::RootKey::MakeRoot();
  CurrentProcessMonitor m(root, status, [&st] { return st.st_mtime + 42; });
  m.Update();
  const MetricKeyPtr key = root->subkey("zel/proc/self/status");
  EXPECT_EQ(Level(key->subkey("uptime")), 42);
  EXPECT_EQ(Level(key->subkey("vm/peak")), 4 << 20);
  EXPECT_EQ(Level(key->subkey("vm/rss")), 1 << 20);
  EXPECT_EQ(Level(key->subkey("vm/swap")), 8 << 10);
  EXPECT_EQ(Level(key->subkey("threads")), 7);
  EXPECT_EQ(log.Count("CurrentProcessMonitor: failed to parse 'VmSize' - lots"), 1u);

  // A kernel without VmSwap leaves the last value.
  dir.WriteFile("status", "VmRSS:\t 2048 kB\n");
  m.Update();
  EXPECT_EQ(Level(key->subkey("vm/rss")), 2 << 20);
  EXPECT_EQ(Level(key->subkey("vm/swap")), 8 << 10);

  CurrentProcessMonitor missing(root, dir.path() + "/none");
  missing.Update();
  EXPECT_EQ(log.Count("CurrentProcessMonitor: failed to get status of '" + dir.path() + "/none': 2-"), 1u);
  EXPECT_EQ(log.Count("CurrentProcessMonitor: failed to open and read '" + dir.path() + "/none'!"), 1u);

  // And this process's own status.
  MetricKeyPtr real = impl::RootKey::MakeRoot();
  CurrentProcessMonitor self(real);
  self.Update();
  EXPECT_GT(Level(real->subkey("zel/proc/self/status/vm/rss")), 0);
  EXPECT_GE(Level(real->subkey("zel/proc/self/status/threads")), 1);
}

TEST(MonitorTest, SystemInfoScalesLoadsAndMemoryAndSurvivesAFailure) {
  testing::LogCapture log;
  MetricKeyPtr root = impl::RootKey::MakeRoot();
  int fail = 0;
  SystemInfoMonitor m(root, [&fail](struct sysinfo* info) {
    info->uptime = 99;
    info->loads[0] = 65536;
    info->loads[1] = 32768;
    info->loads[2] = 65535;
    info->totalram = 10;
    info->freeswap = 3;
    info->mem_unit = 4096;
    info->procs = 12;
    return fail;
  });
  m.Update();
  const MetricKeyPtr key = root->subkey("zel/system/info");
  const std::map<std::string, double> expected = {{"uptime", 99},          {"load/1m-avg", 100},
                                                  {"load/5m-avg", 50},     {"load/15m-avg", 99},
                                                  {"memory/total", 40960}, {"swap/free", 12288},
                                                  {"procs", 12}};
  for (const auto& e : expected) EXPECT_EQ(Level(key->subkey(e.first)), e.second) << e.first;
  fail = EPERM;
  m.Update();
  EXPECT_EQ(log.Count("SystemInfoMonitor: failed to get sysinfo: 1-"), 1u);
  EXPECT_EQ(Level(key->subkey("procs")), 12);

  testing::TempDir dir;
  FileSystemMonitor fsm(root, {dir.path(), "/no/such/dir"}, filesystem::MakeFileSystem());
  fsm.Update();
  std::string group = dir.path();
  std::replace(group.begin(), group.end(), '/', '\\');
  EXPECT_GT(Level(root->subkey("zel/system/fs/" + group + "/capacity")), 0);
  EXPECT_EQ(log.Count("FileSystemMonitor: failed to get space info for '/no/such/dir': 2-"), 1u);
}

}  // namespace
}  // namespace metrics
}  // namespace zel
