// Lateness of a periodic 1 ms timer: how long after its scheduled expiry each
// callback starts, over 5 s (or the number of seconds given as the first
// argument). Prints min, median, p99 and max, and the cycles the timer had to
// skip because a callback started more than one interval late.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/timer/impl/asio_timer.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"

int main(int argc, char** argv) {
  using Clock = std::chrono::steady_clock;
  const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const auto interval = std::chrono::milliseconds(1);

  zel::AsioDispatcher dispatcher;
  zel::AsioTimerFactory factory(dispatcher.GetIoContextHandle());

  std::vector<int64_t> latenessNs;
  latenessNs.reserve(static_cast<size_t>(seconds) * 1100);
  std::mutex mutex;
  std::condition_variable cv;
  bool finished = false;
  uint64_t cycles = 0;
  std::atomic<zel::impl::AsioTimer*> self{nullptr};
  const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);

  boost::shared_ptr<zel::impl::AsioTimer> timer =
      boost::dynamic_pointer_cast<zel::impl::AsioTimer>(factory.CreatePeriodicTimer(
          interval,
          [&] {
            const Clock::time_point now = Clock::now();
            zel::impl::AsioTimer* me = self.load();
            latenessNs.push_back(
                std::chrono::duration_cast<std::chrono::nanoseconds>(now - me->deadline())
                    .count());
            if (now >= end) {
              cycles = me->cycle();
              me->Cancel();
              std::lock_guard<std::mutex> lock(mutex);
              finished = true;
              cv.notify_all();
            }
          },
          false));
  // Stored before the loop runs, so the callback always finds it.
  self = timer.get();
  dispatcher.Run(1, false);
  {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait_for(lock, std::chrono::seconds(seconds + 30), [&] { return finished; });
  }
  dispatcher.StopAndWait(true);
  if (!finished || latenessNs.empty()) {
    std::fprintf(stderr, "timer did not finish\n");
    return 1;
  }

  std::vector<int64_t> sorted = latenessNs;
  std::sort(sorted.begin(), sorted.end());
  auto at = [&](double q) {
    const size_t i = std::min(sorted.size() - 1, static_cast<size_t>(q * (sorted.size() - 1)));
    return sorted[i] / 1000.0;
  };
  std::printf("periodic %lld ms timer over %d s: %zu callbacks, %llu cycles, %llu skipped\n",
              static_cast<long long>(interval.count()), seconds, sorted.size(),
              static_cast<unsigned long long>(cycles),
              static_cast<unsigned long long>(cycles - sorted.size()));
  std::printf("lateness us: min %.1f  median %.1f  p99 %.1f  max %.1f\n", at(0.0), at(0.5),
              at(0.99), at(1.0));
  return 0;
}
