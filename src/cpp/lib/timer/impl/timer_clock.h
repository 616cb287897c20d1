// zel::TimerClock: where AsioTimer reads the time. The steady clock drives the
// cycles; the system clock only places the grid of aligned timers.
//
// The real clock is the default. A replacement (tests use a manual one) makes
// the cycle arithmetic independent of scheduling delays; the asio timer still
// waits in real time for the difference the replacement reports.
//
// Threads: both reads may be called from any thread at once.
#ifndef ZEL_TIMER_IMPL_TIMER_CLOCK_H_
#define ZEL_TIMER_IMPL_TIMER_CLOCK_H_

#include <chrono>

#include <boost/smart_ptr/shared_ptr.hpp>

namespace zel {

class TimerClock {
 public:
  virtual ~TimerClock() = default;

  virtual std::chrono::steady_clock::time_point SteadyNow() const {
    return std::chrono::steady_clock::now();
  }
  virtual std::chrono::system_clock::time_point SystemNow() const {
    return std::chrono::system_clock::now();
  }

  // The shared real clock.
  static const boost::shared_ptr<const TimerClock>& Real();
};

}  // namespace zel

#endif  // ZEL_TIMER_IMPL_TIMER_CLOCK_H_
