// Cost of one metric counter update, uncontended and with two threads on one
// counter, beside a plain std::atomic fetch_add as the yardstick.
//
// Before the timings, the program proves on the updating threads themselves
// that an update allocates nothing and takes no mutex: it counts calls of
// operator new and of pthread_mutex_lock per thread (both replaced in this
// program, see probes.h) around a run of updates of each counter kind, and fails if any
// count is above 0. The stats latency counter is left out of the allocation
// check on purpose: its sample store may grow.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/smart_ptr/intrusive_ptr.hpp>

#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/net_counters.h"
#include "cpp/lib/metrics/queue_counters.h"
#include "probes.h"

namespace {

using zel::metrics::FrequencyCounter;
using zel::metrics::LatencyCounter;
using zel::metrics::UnitCounter;

template <typename C>
boost::intrusive_ptr<C> Make() {
  return boost::intrusive_ptr<C>(new C());
}

struct Probe {
  uint64_t allocations;
  uint64_t mutexLocks;
};

template <typename Fn>
Probe Measure(Fn&& fn) {
  const uint64_t a = zel::bench::ThreadAllocations();
  const uint64_t m = zel::bench::ThreadMutexLocks();
  fn();
  return Probe{zel::bench::ThreadAllocations() - a, zel::bench::ThreadMutexLocks() - m};
}

// Checks one kind of update on this thread and on two threads at once.
template <typename Fn>
bool CheckUpdates(const char* what, Fn update, bool allocationsAllowed = false) {
  constexpr int kUpdates = 100000;
  Probe probes[3];
  probes[0] = Measure([&] {
    for (int i = 0; i < kUpdates; ++i) update(i);
  });
  std::thread a([&] {
    probes[1] = Measure([&] {
      for (int i = 0; i < kUpdates; ++i) update(i);
    });
  });
  std::thread b([&] {
    probes[2] = Measure([&] {
      for (int i = 0; i < kUpdates; ++i) update(i);
    });
  });
  a.join();
  b.join();
  uint64_t allocations = 0;
  uint64_t locks = 0;
  for (const Probe& p : probes) {
    allocations += p.allocations;
    locks += p.mutexLocks;
  }
  const bool ok = locks == 0 && (allocationsAllowed || allocations == 0);
  std::printf("%-34s %d updates: %llu allocations, %llu mutex locks%s\n", what, 3 * kUpdates,
              static_cast<unsigned long long>(allocations),
              static_cast<unsigned long long>(locks), ok ? "" : "  <-- FAIL");
  return ok;
}

bool ProveNoAllocationAndNoMutex() {
  // The probe itself must see a mutex and an allocation, or a 0 proves nothing.
  std::mutex mutex;
  const Probe sanity = Measure([&] {
    std::lock_guard<std::mutex> lock(mutex);
    int* p = new int(1);
    benchmark::DoNotOptimize(p);
    delete p;
  });
  if (sanity.mutexLocks != 1 || sanity.allocations != 1) {
    std::printf("probe check failed: %llu mutex locks, %llu allocations seen for 1 each\n",
                static_cast<unsigned long long>(sanity.mutexLocks),
                static_cast<unsigned long long>(sanity.allocations));
    return false;
  }
  auto unit = Make<UnitCounter>();
  auto latency = Make<LatencyCounter>();
  auto stats = Make<zel::metrics::LatencyStatsCounter>();
  auto freq = Make<FrequencyCounter>();
  auto object = Make<zel::net::NetObjectCounter>();
  auto rate = Make<zel::net::NetRateCounter>();
  auto queueSize = Make<zel::queue::QueueSizeCounter>();
  bool ok = true;
  ok &= CheckUpdates("UnitCounter::increment", [&](int) { unit->increment(); });
  ok &= CheckUpdates("UnitCounter::set", [&](int i) { unit->set(static_cast<uint64_t>(i)); });
  ok &= CheckUpdates("LatencyCounter::record",
                     [&](int i) { latency->record(static_cast<uint64_t>(i)); });
  ok &= CheckUpdates("FrequencyCounter::mark", [&](int) { freq->mark(); });
  ok &= CheckUpdates("NetObjectCounter::increment", [&](int) { object->increment(); });
  ok &= CheckUpdates("NetRateCounter::add", [&](int) { rate->add(1500); });
  ok &= CheckUpdates("QueueSizeCounter::set",
                     [&](int i) { queueSize->set(static_cast<uint64_t>(i & 63)); });
  ok &= CheckUpdates("LatencyStatsCounter::record (store)",
                     [&](int i) { stats->record(static_cast<uint64_t>(i)); }, true);
  return ok;
}

// --- Timings -----------------------------------------------------------------

std::atomic<uint64_t> g_atomic{0};
UnitCounter* g_unit = nullptr;
LatencyCounter* g_latency = nullptr;
FrequencyCounter* g_freq = nullptr;

void BM_AtomicFetchAdd(benchmark::State& state) {
  for (auto _ : state) g_atomic.fetch_add(1);
}
BENCHMARK(BM_AtomicFetchAdd);
BENCHMARK(BM_AtomicFetchAdd)->Threads(2);

void BM_UnitCounterIncrement(benchmark::State& state) {
  for (auto _ : state) g_unit->increment();
}
BENCHMARK(BM_UnitCounterIncrement);
BENCHMARK(BM_UnitCounterIncrement)->Threads(2);

void BM_LatencyCounterRecord(benchmark::State& state) {
  uint64_t sample = 0;
  for (auto _ : state) g_latency->record(++sample & 1023);
}
BENCHMARK(BM_LatencyCounterRecord);
BENCHMARK(BM_LatencyCounterRecord)->Threads(2);

void BM_FrequencyCounterMark(benchmark::State& state) {
  for (auto _ : state) g_freq->mark();
}
BENCHMARK(BM_FrequencyCounterMark);
BENCHMARK(BM_FrequencyCounterMark)->Threads(2);

// Prints the runs as the console does and keeps their times for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;
      times_[run.benchmark_name()] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
    }
  }

  void PrintRatios() const {
    // CPU time is the fairer figure on a loaded machine, where wall time
    // includes the time the thread waited for a core.
    std::printf("\nratio to std::atomic fetch_add (same run):   wall    cpu\n");
    for (const char* name :
         {"BM_UnitCounterIncrement", "BM_LatencyCounterRecord", "BM_FrequencyCounterMark"}) {
      for (const char* suffix : {"", "/threads:2"}) {
        Ratio(std::string(name) + suffix, std::string("BM_AtomicFetchAdd") + suffix);
      }
    }
  }

 private:
  void Ratio(const std::string& name, const std::string& base) const {
    auto a = times_.find(name);
    auto b = times_.find(base);
    if (a == times_.end() || b == times_.end()) return;
    if (b->second.first <= 0 || b->second.second <= 0) return;
    std::printf("  %-40s %5.2fx %5.2fx\n", name.c_str(), a->second.first / b->second.first,
                a->second.second / b->second.second);
  }

  std::map<std::string, std::pair<double, double>> times_;  // wall, cpu per iteration
};

}  // namespace

int main(int argc, char** argv) {
  if (!ProveNoAllocationAndNoMutex()) return 1;
  std::printf("\n");

  auto unit = Make<UnitCounter>();
  auto latency = Make<LatencyCounter>();
  auto freq = Make<FrequencyCounter>();
  g_unit = unit.get();
  g_latency = latency.get();
  g_freq = freq.get();

  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.PrintRatios();
  benchmark::Shutdown();
  return 0;
}
