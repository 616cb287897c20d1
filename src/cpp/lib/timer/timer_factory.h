// zel::TimerFactory: makes timers that run on one dispatcher.
//
// Intervals are std::chrono durations, so callers state their unit:
//
//   zel::TimerPtr t = factory.CreateTimer(std::chrono::milliseconds(500), cb);
//   zel::TimerPtr p = factory.CreatePeriodicTimer(std::chrono::seconds(60), cb,
//                                                 /*aligned=*/true);
//
// The timer is started before it is returned. A timer that can't be started
// (a negative interval, an aligned interval of 0) is returned all the same,
// in its error state: it never fires, the failure is logged with
// "errorCode:CMNLIB700", and Cancel on it is a no-op.
//
// Threads: the create calls may be made from any thread.
#ifndef ZEL_TIMER_TIMER_FACTORY_H_
#define ZEL_TIMER_TIMER_FACTORY_H_

#include <chrono>

#include "cpp/lib/timer/timer.h"

namespace zel {

class TimerFactory {
 public:
  virtual ~TimerFactory() = default;

  TimerFactory(const TimerFactory&) = delete;
  TimerFactory& operator=(const TimerFactory&) = delete;

  // Calls `callback` once, `interval` from now. An interval of 0 fires as
  // soon as the dispatcher gets to it.
  virtual TimerPtr CreateTimer(std::chrono::nanoseconds interval, TimerCallback callback) = 0;

  // Calls `callback` every `interval`. Expiries fall on the grid
  // first + k * interval: a callback that overruns makes the timer drop the
  // expiries it missed rather than fire them late, so it stays on its phase.
  // With `aligned` the grid is wall-clock time: a 60 s timer fires on the
  // minute, on every host alike; aligned timers need an interval above 0.
  virtual TimerPtr CreatePeriodicTimer(std::chrono::nanoseconds interval, TimerCallback callback,
                                       bool aligned) = 0;

 protected:
  TimerFactory() = default;
};

}  // namespace zel

#endif  // ZEL_TIMER_TIMER_FACTORY_H_
