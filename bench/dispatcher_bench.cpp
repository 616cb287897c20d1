// Post throughput of AsioDispatcher beside a bare io_context in the same run.
//
// Two shapes, each for both: a batch posted and then run on the benchmark
// thread (the cost of queueing and calling one handler), and a batch posted
// to one running loop thread (the cost with the cross-thread wake-ups). The
// ratio AsioDispatcher / bare is printed at the end, measured in pairs: each
// round times one batch on each, back to back, and the median of the
// per-round ratios is reported, so that load from other processes on the
// machine hits both sides alike. The dispatcher's indirection (a
// boost::function around the handler) should keep the ratio at 0.8 or above.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <cstdint>
#include <cstdio>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"

namespace {

constexpr int kBatch = 10000;

void WaitFor(const std::atomic<uint64_t>& done, uint64_t target) {
  while (done.load(std::memory_order_acquire) < target) std::this_thread::yield();
}

void BM_PostThenRun_BareIoContext(benchmark::State& state) {
  boost::asio::io_context io;
  uint64_t count = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) boost::asio::post(io, [&count] { ++count; });
    io.restart();
    io.run();
  }
  benchmark::DoNotOptimize(count);
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_PostThenRun_AsioDispatcher(benchmark::State& state) {
  auto io = boost::make_shared<boost::asio::io_context>();
  zel::AsioDispatcher dispatcher(io);
  uint64_t count = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) dispatcher.Post([&count] { ++count; });
    io->restart();
    io->run();
  }
  benchmark::DoNotOptimize(count);
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CrossThread_BareIoContext(benchmark::State& state) {
  boost::asio::io_context io;
  auto work = boost::asio::make_work_guard(io);
  std::thread loop([&io] { io.run(); });
  std::atomic<uint64_t> done{0};
  uint64_t target = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      boost::asio::post(io, [&done] { done.fetch_add(1, std::memory_order_release); });
    }
    target += kBatch;
    WaitFor(done, target);
  }
  work.reset();
  loop.join();
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void BM_CrossThread_AsioDispatcher(benchmark::State& state) {
  zel::AsioDispatcher dispatcher;
  dispatcher.Run(1, false);
  std::atomic<uint64_t> done{0};
  uint64_t target = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      dispatcher.Post([&done] { done.fetch_add(1, std::memory_order_release); });
    }
    target += kBatch;
    WaitFor(done, target);
  }
  dispatcher.StopAndWait(false);
  state.SetItemsProcessed(state.iterations() * kBatch);
}

BENCHMARK(BM_PostThenRun_BareIoContext)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_PostThenRun_AsioDispatcher)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_CrossThread_BareIoContext)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();
BENCHMARK(BM_CrossThread_AsioDispatcher)->Repetitions(5)->ReportAggregatesOnly(true)->UseRealTime();

// Times `batch` (which must return once its kBatch handlers have run) for
// each side in turn, `rounds` times, and returns the median of
// bare time / dispatcher time, i.e. the dispatcher's relative throughput.
double PairedRatio(const std::function<void()>& bare, const std::function<void()>& ours,
                   int rounds) {
  using Clock = std::chrono::steady_clock;
  std::vector<double> ratios;
  for (int r = 0; r < rounds; ++r) {
    // Alternate which side goes first, so neither always gets a warm cache.
    const bool bareFirst = r % 2 == 0;
    double bareNs = 0;
    double oursNs = 0;
    for (int side = 0; side < 2; ++side) {
      const bool runBare = (side == 0) == bareFirst;
      const Clock::time_point start = Clock::now();
      (runBare ? bare : ours)();
      const double ns = std::chrono::duration<double, std::nano>(Clock::now() - start).count();
      (runBare ? bareNs : oursNs) = ns;
    }
    ratios.push_back(bareNs / oursNs);
  }
  std::sort(ratios.begin(), ratios.end());
  return ratios[ratios.size() / 2];
}

void PrintPairedRatios() {
  constexpr int kRounds = 201;
  {
    boost::asio::io_context bareIo;
    auto io = boost::make_shared<boost::asio::io_context>();
    zel::AsioDispatcher dispatcher(io);
    uint64_t count = 0;
    const double ratio = PairedRatio(
        [&] {
          for (int i = 0; i < kBatch; ++i) boost::asio::post(bareIo, [&count] { ++count; });
          bareIo.restart();
          bareIo.run();
        },
        [&] {
          for (int i = 0; i < kBatch; ++i) dispatcher.Post([&count] { ++count; });
          io->restart();
          io->run();
        },
        kRounds);
    benchmark::DoNotOptimize(count);
    std::printf("PostThenRun  AsioDispatcher / bare io_context throughput: %.2f\n", ratio);
  }
  {
    boost::asio::io_context bareIo;
    auto work = boost::asio::make_work_guard(bareIo);
    std::thread loop([&bareIo] { bareIo.run(); });
    zel::AsioDispatcher dispatcher;
    dispatcher.Run(1, false);
    std::atomic<uint64_t> bareDone{0};
    std::atomic<uint64_t> oursDone{0};
    uint64_t bareTarget = 0;
    uint64_t oursTarget = 0;
    const double ratio = PairedRatio(
        [&] {
          for (int i = 0; i < kBatch; ++i) {
            boost::asio::post(bareIo,
                              [&bareDone] { bareDone.fetch_add(1, std::memory_order_release); });
          }
          bareTarget += kBatch;
          WaitFor(bareDone, bareTarget);
        },
        [&] {
          for (int i = 0; i < kBatch; ++i) {
            dispatcher.Post([&oursDone] { oursDone.fetch_add(1, std::memory_order_release); });
          }
          oursTarget += kBatch;
          WaitFor(oursDone, oursTarget);
        },
        kRounds);
    dispatcher.StopAndWait(false);
    work.reset();
    loop.join();
    std::printf("CrossThread  AsioDispatcher / bare io_context throughput: %.2f\n", ratio);
  }
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nPaired rounds of %d posts, median ratio:\n", kBatch);
  PrintPairedRatios();
  benchmark::Shutdown();
  return 0;
}
