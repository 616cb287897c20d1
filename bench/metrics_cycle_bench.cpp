// One report cycle of a MetricRegistry over 10,000 metrics (100 groups of 99
// counters and one instance each), with the noop publisher and with the log
// publisher (one line per key at INFO, sent as UDP datagrams to a socket of
// this program): time per cycle (median and max over the rounds) and
// allocations per cycle. Then the dispatcher's view: the lateness of a
// periodic 1 ms timer on the dispatcher thread that also runs the cycles,
// beside the same timer with no cycles.
//
//   metrics_cycle_bench [ROUNDS]    (default 20)
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/publishers.h"
#include "cpp/lib/timer/impl/asio_timer.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "probes.h"

namespace {

using Clock = std::chrono::steady_clock;
using zel::metrics::Metric;
using zel::metrics::MetricRegistry;
using zel::metrics::MetricRegistryBuilder;

constexpr int kGroups = 100;
constexpr int kPerGroup = 100;  // 99 path keys and one instance

// 10,000 counters below the registry's namespace, each with a value.
std::vector<Metric<zel::metrics::UnitCounter>> MakeMetrics(MetricRegistry& registry) {
  std::vector<Metric<zel::metrics::UnitCounter>> metrics;
  metrics.reserve(kGroups * kPerGroup);
  for (int g = 0; g < kGroups; ++g) {
    const zel::metrics::MetricKeyPtr group = registry.root()->subkey("bench/group" + std::to_string(g));
    for (int i = 0; i + 1 < kPerGroup; ++i) metrics.emplace_back(group->subkey("c" + std::to_string(i)), "items");
    metrics.emplace_back(group->instance("peer=" + std::to_string(g)), "items");
  }
  for (std::size_t i = 0; i < metrics.size(); ++i) metrics[i]->set(i);
  return metrics;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

void CycleOnThisThread(const char* name, std::shared_ptr<zel::metrics::Publisher> publisher, int rounds) {
  zel::AsioDispatcher dispatcher;
  zel::AsioTimerFactory timers(dispatcher.GetIoContextHandle());
  // A long interval: the rounds below run the cycle themselves.
  std::unique_ptr<MetricRegistry> registry =
      MetricRegistryBuilder(timers).ReportIntervalSec(3600).ReportAtShutdown(false).AddPublisher(publisher).Build();
  auto metrics = MakeMetrics(*registry);
  registry->Report();  // warm up: every key's report path once
  std::vector<double> ms;
  std::vector<double> allocations;
  for (int r = 0; r < rounds; ++r) {
    for (std::size_t i = 0; i < metrics.size(); i += 7) metrics[i]->increment();
    const uint64_t before = zel::bench::ThreadAllocations();
    const Clock::time_point start = Clock::now();
    registry->Report();
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    allocations.push_back(static_cast<double>(zel::bench::ThreadAllocations() - before));
  }
  std::printf("%-5s publisher: cycle over %d metrics  median %.2f ms  max %.2f ms  allocations %.0f per cycle "
              "(%.1f per metric)\n",
              name, kGroups * kPerGroup, Median(ms), *std::max_element(ms.begin(), ms.end()), Median(allocations),
              Median(allocations) / (kGroups * kPerGroup));
}

// Lateness of a 1 ms periodic timer over `seconds`, with a cycle of the log
// publisher posted to the same dispatcher every 100 ms when `withCycles`.
void Lateness(bool withCycles, int seconds) {
  zel::AsioDispatcher dispatcher;
  zel::AsioTimerFactory timers(dispatcher.GetIoContextHandle());
  std::unique_ptr<MetricRegistry> registry =
      MetricRegistryBuilder(timers)
          .ReportIntervalSec(3600)
          .ReportAtShutdown(false)
          .AddPublisher(std::make_shared<zel::metrics::LogPublisher>())
          .Build();
  auto metrics = MakeMetrics(*registry);
  std::vector<int64_t> lateNs;
  lateNs.reserve(static_cast<std::size_t>(seconds) * 1100);
  std::atomic<zel::impl::AsioTimer*> self{nullptr};
  boost::shared_ptr<zel::impl::AsioTimer> tick = boost::dynamic_pointer_cast<zel::impl::AsioTimer>(
      timers.CreatePeriodicTimer(
          std::chrono::milliseconds(1),
          [&] {
            lateNs.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - self.load()->deadline())
                                 .count());
          },
          false));
  self = tick.get();
  zel::TimerPtr cycles;
  if (withCycles) {
    cycles = timers.CreatePeriodicTimer(std::chrono::milliseconds(100), [&] { registry->Report(); }, false);
  }
  dispatcher.Run(1, false);
  std::this_thread::sleep_for(std::chrono::seconds(seconds));  // the measured span itself
  dispatcher.StopAndWait(true);
  std::sort(lateNs.begin(), lateNs.end());
  auto at = [&](double q) { return lateNs[std::min(lateNs.size() - 1, std::size_t(q * (lateNs.size() - 1)))] / 1e3; };
  std::printf("1 ms timer %s: %zu callbacks, lateness us median %.1f  p99 %.1f  max %.1f\n",
              withCycles ? "with a log cycle every 100 ms" : "alone                        ", lateNs.size(), at(0.5),
              at(0.99), at(1.0));
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  // The log lines go as UDP datagrams to a socket of ours that nobody reads,
  // so the cost is the logger's and the kernel's, not a syslog daemon's.
  const int sink = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (sink < 0 || bind(sink, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(sink, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    std::perror("udp sink");
    return 1;
  }
  zel::log_testing::SetUpLoggerForTest("INFO", std::to_string(ntohs(addr.sin_port)).c_str(), nullptr);

  CycleOnThisThread("noop", std::make_shared<zel::metrics::NoopPublisher>(), rounds);
  CycleOnThisThread("log", std::make_shared<zel::metrics::LogPublisher>(), rounds);
  Lateness(false, 2);
  Lateness(true, 2);
  close(sink);
  return 0;
}
