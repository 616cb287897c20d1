// A metrics clock that stands still until the test moves it; installed for
// the life of the object.
#ifndef ZEL_TESTS_METRICS_FAKE_CLOCK_H_
#define ZEL_TESTS_METRICS_FAKE_CLOCK_H_

#include <atomic>
#include <cstdint>

#include "cpp/lib/metrics/clock.h"

namespace zel {
namespace metrics {

class FakeClock : public Clock {
 public:
  // 2021-01-01T00:00:00Z on the system clock; the steady clock starts at 1 s.
  static constexpr int64_t kSystemStartNs = 1609459200000LL * 1000000;
  static constexpr int64_t kSteadyStartNs = 1000000000LL;

  FakeClock() { SetClockForTest(this); }
  ~FakeClock() override { SetClockForTest(nullptr); }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  void AdvanceMs(int64_t ms) { AdvanceNs(ms * 1000000); }
  void AdvanceNs(int64_t ns) {
    steady_.fetch_add(ns);
    system_.fetch_add(ns);
  }

  int64_t SteadyNanos() const override { return steady_.load(); }
  int64_t SystemNanos() const override { return system_.load(); }

 private:
  std::atomic<int64_t> steady_{kSteadyStartNs};
  std::atomic<int64_t> system_{kSystemStartNs};
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_TESTS_METRICS_FAKE_CLOCK_H_
