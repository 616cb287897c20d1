#include "cpp/lib/metrics/clock.h"

#include <atomic>
#include <chrono>

namespace zel {
namespace metrics {
namespace {

std::atomic<const Clock*> g_testClock{nullptr};

}  // namespace

int64_t Clock::SteadyNow() {
  if (const Clock* fake = g_testClock.load(std::memory_order_acquire)) {
    return fake->SteadyNanos();
  }
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t Clock::SystemNow() {
  if (const Clock* fake = g_testClock.load(std::memory_order_acquire)) {
    return fake->SystemNanos();
  }
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void SetClockForTest(const Clock* clock) { g_testClock.store(clock, std::memory_order_release); }

}  // namespace metrics
}  // namespace zel
