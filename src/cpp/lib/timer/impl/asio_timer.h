// zel::impl::AsioTimer: the Timer of AsioTimerFactory, an asio steady_timer
// driven by a small state machine so that Cancel is safe against an expiry
// or a callback in flight:
//
//   Init --Schedule--> Scheduled --expiry--> Executing --one-shot--> Done
//                          ^                     |
//                          +------periodic-------+
//   Scheduled/Executing --Cancel--> Cancelled     any failure --> Error
//
// Cycles. Expiry k (counted from 1) falls at epoch + k * step, where step is
// the interval (1 ns for an interval of 0). When the next expiry is already
// past, the timer moves on by whole steps to the first one that is not: those
// cycles are counted as skipped and never fired, so the timer keeps its phase.
//
// Threads: one mutex guards every field but the constant ones; the callback
// runs with it released. The pending asio wait holds only a weak reference.
// Include this header only in the timer library and its tests: it pulls in
// asio.
#ifndef ZEL_TIMER_IMPL_ASIO_TIMER_H_
#define ZEL_TIMER_IMPL_ASIO_TIMER_H_

#include <chrono>
#include <cstdint>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/timer/impl/timer_clock.h"
#include "cpp/lib/timer/timer.h"

namespace zel {
namespace impl {

enum class TimerState : int {
  INIT = 0,
  SCHEDULED = 1,
  EXECUTING = 2,
  CANCELLED = 3,
  ERROR = 4,
  DONE = 5,
};

// "Init", "Scheduled", "Executing", "Cancelled", "Error", "Done"; any other
// value gives "<INVALID>".
const char* TimerStateName(TimerState state);

enum class TimerMode : int {
  ONE_SHOT = 0,
  PERIODIC = 1,
};

// Where the cycle after the one due at `deadline` falls, seen at `now`: one
// step on, then as many further steps as it takes not to lie before `now`.
struct NextCycle {
  std::chrono::steady_clock::time_point deadline;
  uint64_t skipped;  // the further steps
};
NextCycle ComputeNextCycle(std::chrono::steady_clock::time_point deadline,
                           std::chrono::nanoseconds step,
                           std::chrono::steady_clock::time_point now);

class AsioTimer : public Timer, public boost::enable_shared_from_this<AsioTimer> {
 private:
  struct PrivateTag {};

 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  // Makes the timer and schedules its first expiry. The result is in state
  // Scheduled, or Error when the interval was refused or the wait could not
  // be armed.
  static boost::shared_ptr<AsioTimer> Start(boost::shared_ptr<boost::asio::io_context> ioContext,
                                            boost::shared_ptr<const TimerClock> clock,
                                            TimerMode mode, std::chrono::nanoseconds interval,
                                            bool aligned, TimerCallback callback);

  AsioTimer(PrivateTag, boost::shared_ptr<boost::asio::io_context> ioContext,
            boost::shared_ptr<const TimerClock> clock, TimerMode mode,
            std::chrono::nanoseconds interval, bool aligned, TimerCallback callback);
  ~AsioTimer() override;

  // Timer
  void Cancel() override EXCLUDES(mutex_);

  uint64_t id() const { return id_; }
  TimerMode mode() const { return mode_; }
  bool aligned() const { return aligned_; }
  std::chrono::nanoseconds interval() const { return interval_; }

  // Snapshots under the timer's mutex; callable from the callback.
  TimerState state() const;
  // Cycles scheduled so far, skipped ones included.
  uint64_t cycle() const;
  SteadyTime epoch() const;
  // The expiry scheduled last.
  SteadyTime deadline() const;

 private:
  void Schedule_() REQUIRES(mutex_);
  void ScheduleNextCycle_() REQUIRES(mutex_);
  void SetState_(TimerState state) REQUIRES(mutex_);

  // The completion of the asio wait, reached through a weak reference.
  static void OnExpiry_(const boost::weak_ptr<AsioTimer>& weakSelf, uint64_t id,
                        const boost::system::error_code& ec);
  void HandleExpiry_(const boost::system::error_code& ec) EXCLUDES(mutex_);

  const uint64_t id_;
  const bool aligned_;
  const TimerCallback callback_;
  const TimerMode mode_;
  const std::chrono::nanoseconds interval_;
  const boost::shared_ptr<const TimerClock> clock_;
  // Declared before timer_, so the io_context outlives it.
  const boost::shared_ptr<boost::asio::io_context> io_;

  mutable Mutex mutex_;
  TimerState state_ GUARDED_BY(mutex_) = TimerState::INIT;
  SteadyTime epoch_ GUARDED_BY(mutex_);
  SteadyTime deadline_ GUARDED_BY(mutex_);
  uint64_t cycle_ GUARDED_BY(mutex_) = 0;
  boost::asio::steady_timer timer_ GUARDED_BY(mutex_);
};

}  // namespace impl
}  // namespace zel

#endif  // ZEL_TIMER_IMPL_ASIO_TIMER_H_
