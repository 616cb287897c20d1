// Test helper: a TimerFactory whose timers fire only when the test says so.
//
//   auto timers = std::make_shared<zel::testing::ManualTimers>();
//   Thing thing(*timers);                  // arms a 60 s periodic timer
//   ASSERT_EQ(timers->Armed(std::chrono::seconds(60)), 1u);
//   timers->Fire(std::chrono::seconds(60));   // runs its callback on this thread
//
// A one-shot timer is done once fired; a periodic one stays armed until it is
// cancelled or its last TimerPtr goes.
#ifndef ZEL_TESTS_SUPPORT_MANUAL_TIMERS_H_
#define ZEL_TESTS_SUPPORT_MANUAL_TIMERS_H_

#include <atomic>
#include <chrono>
#include <mutex>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace testing {

class ManualTimers : public TimerFactory {
 public:
  TimerPtr CreateTimer(std::chrono::nanoseconds interval, TimerCallback callback) override {
    return Arm(interval, std::move(callback), false, false);
  }
  TimerPtr CreatePeriodicTimer(std::chrono::nanoseconds interval, TimerCallback callback, bool aligned) override {
    return Arm(interval, std::move(callback), true, aligned);
  }

  // Timers of `interval` armed and not cancelled.
  std::size_t Armed(std::chrono::nanoseconds interval) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t n = 0;
    for (const auto& a : armed_) n += a.interval == interval && Live(a);
    return n;
  }
  // Whether the last periodic timer made was aligned.
  bool LastAligned() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastAligned_;
  }
  // Fires every live timer of `interval`, once.
  void Fire(std::chrono::nanoseconds interval) {
    std::vector<TimerCallback> due;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (auto& a : armed_) {
        const auto timer = a.timer.lock();
        if (a.interval != interval || !timer || timer->cancelled) continue;
        if (!a.periodic) timer->cancelled = true;
        due.push_back(a.callback);
      }
    }
    for (auto& callback : due) callback();
  }

 private:
  struct Manual : Timer {
    std::atomic<bool> cancelled{false};
    void Cancel() override { cancelled = true; }
  };
  struct Entry {
    std::chrono::nanoseconds interval;
    TimerCallback callback;
    boost::weak_ptr<Manual> timer;
    bool periodic;
  };

  TimerPtr Arm(std::chrono::nanoseconds interval, TimerCallback callback, bool periodic, bool aligned) {
    auto timer = boost::make_shared<Manual>();
    std::lock_guard<std::mutex> lock(mutex_);
    armed_.push_back({interval, std::move(callback), timer, periodic});
    if (periodic) lastAligned_ = aligned;
    return timer;
  }
  static bool Live(const Entry& e) {
    const auto t = e.timer.lock();
    return t && !t->cancelled;
  }

  std::mutex mutex_;
  std::vector<Entry> armed_;
  bool lastAligned_ = false;
};

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_MANUAL_TIMERS_H_
