// Cost of a log statement, beside spdlog as a yardstick:
//  - a statement below the process level (one load, compare and branch; no
//    allocation) against spdlog's runtime-disabled path;
//  - an emitted record in UDP mode against spdlog's own udp_sink formatting
//    the same bytes (RFC 5424 header, structured data, text) and sending
//    them to the same kind of receiver.
// Both UDP paths send to a socket bound on 127.0.0.1 that is never read, so
// once its queue is full the kernel drops the datagrams at the receiver; the
// send path is the same for both.
//
// The counter "allocs" is heap allocations per statement, counted by the
// replacement operator new below. After the runs, the ratios ours/spdlog are
// printed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/sinks/udp_sink.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"

// The replacements below pair malloc with free; GCC cannot see that through
// inlining and warns at every delete.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
std::atomic<long> g_allocations{0};
}  // namespace

void* operator new(std::size_t n) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

constexpr const char* kNoFile = "/nonexistent/zel_issue";
constexpr const char* kPath = "/etc/orvane/zel-dorn/dornConfig.ini";

void Discard(int, const char*) {}

// Counts allocations between construction and Report().
class AllocationCounter {
 public:
  AllocationCounter() : start_(g_allocations.load()) {}
  void Report(benchmark::State& state) const {
    state.counters["allocs"] = benchmark::Counter(
        static_cast<double>(g_allocations.load() - start_),
        benchmark::Counter::kAvgIterations);
  }

 private:
  long start_;
};

// A bound UDP socket on 127.0.0.1 that nobody reads.
class Receiver {
 public:
  Receiver() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
  }
  ~Receiver() { close(fd_); }
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;
  int port() const { return port_; }

 private:
  int fd_ = -1;
  int port_ = 0;
};

void BM_Dropped_Zel(benchmark::State& state) {
  zel::log_testing::SetSyslogSinkForTest(&Discard);
  zel::log_testing::SetUpLoggerForTest("INFO", "DEVLOG", kNoFile);
  int i = 0;
  AllocationCounter allocs;
  for (auto _ : state) {
    // The level is reloaded on every pass, as at a real call site.
    benchmark::ClobberMemory();
    DORN_LOG(zel::kLogDebug)
        .addTag("errorCode:MPA30008")
        .format("value %d of %s", ++i, kPath);
  }
  allocs.Report(state);
  benchmark::DoNotOptimize(i);
}
BENCHMARK(BM_Dropped_Zel);

void BM_Dropped_Spdlog(benchmark::State& state) {
  auto logger = std::make_shared<spdlog::logger>(
      "bench", std::make_shared<spdlog::sinks::null_sink_st>());
  logger->set_level(spdlog::level::info);
  int i = 0;
  AllocationCounter allocs;
  for (auto _ : state) {
    benchmark::ClobberMemory();
    logger->debug("value {} of {}", ++i, kPath);
  }
  allocs.Report(state);
  benchmark::DoNotOptimize(i);
}
BENCHMARK(BM_Dropped_Spdlog);

std::string HostName() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return host;
}

void BM_UdpRecord_Zel(benchmark::State& state) {
  Receiver receiver;
  zel::log_testing::SetSyslogSinkForTest(&Discard);
  zel::log_testing::SetUpLoggerForTest(
      "INFO", std::to_string(receiver.port()).c_str(), kNoFile);
  AllocationCounter allocs;
  for (auto _ : state) {
    DORN_LOG(zel::kLogError)
        .addTag("errorCode:MPA30008")
        .format("Error occurred while loading properties file %s", kPath);
  }
  allocs.Report(state);
  zel::log_testing::SetUpLoggerForTest("INFO", "DEVLOG", kNoFile);
}
BENCHMARK(BM_UdpRecord_Zel);

void BM_UdpRecord_Spdlog(benchmark::State& state) {
  Receiver receiver;
  auto sink = std::make_shared<spdlog::sinks::udp_sink_mt>(
      spdlog::sinks::udp_sink_config(
          "127.0.0.1", static_cast<std::uint16_t>(receiver.port())));
  // The same bytes as our record: RFC 5424 header, structured data, text,
  // no line end. The host name is fixed in the pattern, as spdlog has no
  // field for it.
  sink->set_formatter(std::make_unique<spdlog::pattern_formatter>(
      "<179>1 %Y-%m-%dT%H:%M:%S.%eZ " + HostName() +
          " ZEL %P - [zel@4711 comp=\"zel-kvm\" subcomp=\"zeldorn\" tid=\"%t\" "
          "level=\"%l\" errorCode=\"MPA30008\"] %v",
      spdlog::pattern_time_type::utc, ""));
  spdlog::logger logger("bench", sink);
  logger.set_level(spdlog::level::info);
  AllocationCounter allocs;
  for (auto _ : state) {
    logger.error("Error occurred while loading properties file {}", kPath);
  }
  allocs.Report(state);
}
BENCHMARK(BM_UdpRecord_Spdlog);

// Console output as usual, plus the real and CPU time per statement by name:
// the median when the runs are repeated, else the one run. On a loaded
// machine the CPU time is the steadier of the two.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Iteration) {
        nanos_[run.run_name.str()] = {run.GetAdjustedRealTime(),
                                      run.GetAdjustedCPUTime()};
      } else if (run.aggregate_name == "median") {
        medians_[run.run_name.str()] = {run.GetAdjustedRealTime(),
                                        run.GetAdjustedCPUTime()};
      }
    }
  }
  void PrintRatio(const char* what, const char* ours, const char* theirs) {
    Times a;
    Times b;
    if (!Find(ours, &a) || !Find(theirs, &b) || b.real <= 0 || b.cpu <= 0) {
      return;
    }
    std::printf(
        "ratio ours/spdlog, %s: real %.2f (%.1f ns vs %.1f ns), "
        "cpu %.2f (%.1f ns vs %.1f ns)\n",
        what, a.real / b.real, a.real, b.real, a.cpu / b.cpu, a.cpu, b.cpu);
  }

 private:
  struct Times {
    double real = 0;
    double cpu = 0;
  };

  bool Find(const std::string& name, Times* times) const {
    for (const auto* table : {&medians_, &nanos_}) {
      auto it = table->find(name);
      if (it != table->end()) {
        *times = it->second;
        return true;
      }
    }
    return false;
  }

  std::map<std::string, Times> nanos_;
  std::map<std::string, Times> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatio("dropped statement", "BM_Dropped_Zel",
                      "BM_Dropped_Spdlog");
  reporter.PrintRatio("emitted UDP record", "BM_UdpRecord_Zel",
                      "BM_UdpRecord_Spdlog");
  benchmark::Shutdown();
  return 0;
}
