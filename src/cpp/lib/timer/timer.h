// zel::Timer: a one-shot or periodic timer on a dispatcher, made and started
// by a TimerFactory (timer_factory.h). There is no separate start: a timer
// runs from the moment the factory returns it until it is done, cancelled or
// destroyed.
//
// Ownership: the creator holds the only strong reference (TimerPtr). The
// pending expiry holds a weak one, so dropping the last TimerPtr stops the
// timer: an expiry already queued is skipped. The callback must therefore not
// hold the TimerPtr of its own timer, or the timer keeps itself alive.
//
// Threads: Cancel may be called from any thread, including from inside the
// timer's own callback. The callback runs on a dispatcher thread with no lock
// of the timer held; a periodic timer's callback never overlaps itself.
#ifndef ZEL_TIMER_TIMER_H_
#define ZEL_TIMER_TIMER_H_

#include <boost/function.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

namespace zel {

class Timer {
 public:
  virtual ~Timer() = default;

  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Stops the timer for good. After Cancel returns the callback does not
  // start again; a callback already running finishes, and a periodic timer is
  // not rescheduled after it. A no-op on a timer that is done, failed or
  // already cancelled.
  virtual void Cancel() = 0;

 protected:
  Timer() = default;
};

using TimerPtr = boost::shared_ptr<Timer>;
using TimerCallback = boost::function<void()>;

}  // namespace zel

#endif  // ZEL_TIMER_TIMER_H_
