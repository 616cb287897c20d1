#include "cpp/lib/timer/impl/asio_timer.h"

#include <atomic>
#include <exception>
#include <limits>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/system/system_error.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/not_reached.h"

namespace zel {
namespace impl {

namespace {

constexpr const char* kTagSchedule = kTagCmnLib700;
constexpr const char* kTagCancel = kTagCmnLib701;
constexpr const char* kTagHandler = kTagCmnLib702;

// A skip count this large means the cycle arithmetic is broken.
constexpr uint64_t kSkipLimit = 0xFFFFFFFF;
// Skips of timers up to this interval are routine and logged one level lower.
constexpr std::chrono::nanoseconds kShortInterval = std::chrono::milliseconds(10);

std::atomic<uint64_t> g_nextTimerId{1};

long ToMs(std::chrono::nanoseconds d) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
}

}  // namespace

const char* TimerStateName(TimerState state) {
  switch (state) {
    case TimerState::INIT:
      return "Init";
    case TimerState::SCHEDULED:
      return "Scheduled";
    case TimerState::EXECUTING:
      return "Executing";
    case TimerState::CANCELLED:
      return "Cancelled";
    case TimerState::ERROR:
      return "Error";
    case TimerState::DONE:
      return "Done";
  }
  return "<INVALID>";
}

NextCycle ComputeNextCycle(std::chrono::steady_clock::time_point deadline,
                           std::chrono::nanoseconds step,
                           std::chrono::steady_clock::time_point now) {
  using std::chrono::nanoseconds;
  using TimePoint = std::chrono::steady_clock::time_point;
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  const int64_t s = step.count();
  const int64_t d = std::chrono::duration_cast<nanoseconds>(deadline.time_since_epoch()).count();
  const int64_t n = std::chrono::duration_cast<nanoseconds>(now.time_since_epoch()).count();

  // An expiry past the end of the clock saturates: it never comes.
  if (d > kMax - s) return {TimePoint::max(), 0};
  const int64_t next = d + s;
  if (next >= n) {
    return {TimePoint(std::chrono::duration_cast<TimePoint::duration>(nanoseconds(next))), 0};
  }

  // Unsigned arithmetic: the distance between any two int64_t values fits.
  const uint64_t behind = static_cast<uint64_t>(n) - static_cast<uint64_t>(next);
  const uint64_t us = static_cast<uint64_t>(s);
  const uint64_t skipped = behind / us + (behind % us != 0 ? 1 : 0);
  const uint64_t headroom = static_cast<uint64_t>(kMax) - static_cast<uint64_t>(next);
  if (skipped > headroom / us) return {TimePoint::max(), skipped};
  // next + skipped * s lies in [n, kMax], so the sum wraps back into range.
  const auto caughtUp = static_cast<int64_t>(static_cast<uint64_t>(next) + skipped * us);
  return {TimePoint(std::chrono::duration_cast<TimePoint::duration>(nanoseconds(caughtUp))),
          skipped};
}

boost::shared_ptr<AsioTimer> AsioTimer::Start(boost::shared_ptr<boost::asio::io_context> ioContext,
                                              boost::shared_ptr<const TimerClock> clock,
                                              TimerMode mode, std::chrono::nanoseconds interval,
                                              bool aligned, TimerCallback callback) {
  auto timer = boost::make_shared<AsioTimer>(PrivateTag{}, std::move(ioContext), std::move(clock),
                                             mode, interval, aligned, std::move(callback));
  MutexLock lock(timer->mutex_);
  timer->Schedule_();
  return timer;
}

AsioTimer::AsioTimer(PrivateTag, boost::shared_ptr<boost::asio::io_context> ioContext,
                     boost::shared_ptr<const TimerClock> clock, TimerMode mode,
                     std::chrono::nanoseconds interval, bool aligned, TimerCallback callback)
    : id_(g_nextTimerId.fetch_add(1)),
      aligned_(aligned),
      callback_(std::move(callback)),
      mode_(mode),
      interval_(interval),
      clock_(clock ? std::move(clock) : TimerClock::Real()),
      io_(std::move(ioContext)),
      timer_(*io_) {}

// The asio timer's destructor cancels a pending wait; its completion then
// finds no timer behind the weak reference and is skipped.
AsioTimer::~AsioTimer() = default;

TimerState AsioTimer::state() const {
  MutexLock lock(mutex_);
  return state_;
}

uint64_t AsioTimer::cycle() const {
  MutexLock lock(mutex_);
  return cycle_;
}

AsioTimer::SteadyTime AsioTimer::epoch() const {
  MutexLock lock(mutex_);
  return epoch_;
}

AsioTimer::SteadyTime AsioTimer::deadline() const {
  MutexLock lock(mutex_);
  return deadline_;
}

void AsioTimer::Schedule_() {
  epoch_ = clock_->SteadyNow();
  if (interval_.count() < 0) {
    ZEL_CORE_LOG(kLogError).addTag(kTagSchedule).format(
        "Timer[%lu#%s]: schedule failed - interval %li < 0", static_cast<unsigned long>(id_),
        TimerStateName(state_), static_cast<long>(interval_.count()));
    SetState_(TimerState::ERROR);
    return;
  }
  if (aligned_ && interval_.count() == 0) {
    ZEL_CORE_LOG(kLogError).addTag(kTagSchedule).format(
        "Timer[%lu#%s]: schedule failed -interval %li <= 0", static_cast<unsigned long>(id_),
        TimerStateName(state_), static_cast<long>(interval_.count()));
    SetState_(TimerState::ERROR);
    return;
  }
  if (aligned_) {
    // The first expiry is the next multiple of the interval in wall-clock
    // time, at or after now; the epoch lies one interval before it.
    const int64_t iv = interval_.count();
    const int64_t wallNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                               clock_->SystemNow().time_since_epoch())
                               .count();
    int64_t intoInterval = wallNs % iv;
    if (intoInterval < 0) intoInterval += iv;
    const int64_t untilMultiple = intoInterval == 0 ? 0 : iv - intoInterval;
    epoch_ = epoch_ - interval_ + std::chrono::nanoseconds(untilMultiple);
  }
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: epoch %li ms%s",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   ToMs(epoch_.time_since_epoch()), aligned_ ? " (aligned)" : "");
  deadline_ = epoch_;
  ScheduleNextCycle_();
}

void AsioTimer::ScheduleNextCycle_() {
  if (state_ != TimerState::INIT && state_ != TimerState::EXECUTING) {
    ZEL_CORE_LOG(kLogError).addTag(kTagSchedule).format(
        "Timer[%lu#%s]: can't schedule in current state", static_cast<unsigned long>(id_),
        TimerStateName(state_));
    SetState_(TimerState::ERROR);
    return;
  }
  ++cycle_;
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: scheduling cycle %lu",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   static_cast<unsigned long>(cycle_));

  const std::chrono::nanoseconds step =
      interval_.count() == 0 ? std::chrono::nanoseconds(1) : interval_;
  const SteadyTime now = clock_->SteadyNow();
  const NextCycle next = ComputeNextCycle(deadline_, step, now);
  deadline_ = next.deadline;
  if (next.skipped > 0) {
    // 2^32 steps behind needs a clock that jumped or a 1 ns step (interval 0)
    // with a callback of over four seconds: nothing this timer is built for.
    if (next.skipped >= kSkipLimit) NOT_REACHED();
    cycle_ += next.skipped;
    ZEL_CORE_LOG(interval_ <= kShortInterval ? kLogDebug : kLogVerbose)
        .format("Timer[%lu#%s]: skipped %u cycles", static_cast<unsigned long>(id_),
                TimerStateName(state_), static_cast<unsigned>(next.skipped));
  }

  const std::chrono::nanoseconds delay = deadline_ - now;
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: scheduling timer for %li ms",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   ToMs(delay));
  try {
    timer_.expires_after(delay);
    boost::weak_ptr<AsioTimer> weakSelf(shared_from_this());
    const uint64_t id = id_;
    timer_.async_wait([weakSelf, id](const boost::system::error_code& ec) {
      OnExpiry_(weakSelf, id, ec);
    });
  } catch (const boost::system::system_error& e) {
    ZEL_CORE_LOG(kLogError).addTag(kTagSchedule).format(
        "Timer[%lu#%s]: failed to schedule for %li ms : %i - %s", static_cast<unsigned long>(id_),
        TimerStateName(state_), ToMs(delay), e.code().value(), e.code().message().c_str());
    SetState_(TimerState::ERROR);
    return;
  }
  SetState_(TimerState::SCHEDULED);
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: scheduled successfully",
                                   static_cast<unsigned long>(id_), TimerStateName(state_));
}

void AsioTimer::SetState_(TimerState state) {
  if (state == state_) {
    ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: already in state %s",
                                     static_cast<unsigned long>(id_), TimerStateName(state_),
                                     TimerStateName(state));
    return;
  }
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: changing state to %s",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   TimerStateName(state));
  state_ = state;
}

void AsioTimer::OnExpiry_(const boost::weak_ptr<AsioTimer>& weakSelf, uint64_t id,
                          const boost::system::error_code& ec) {
  // The strong reference keeps the timer alive through its callback, even if
  // the callback drops the owner's last reference.
  const boost::shared_ptr<AsioTimer> self = weakSelf.lock();
  if (!self) {
    ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: timer handler is skipped (status: %i - %s)",
                                     static_cast<unsigned long>(id), "DESTROYED", ec.value(),
                                     ec.message().c_str());
    return;
  }
  self->HandleExpiry_(ec);
}

void AsioTimer::HandleExpiry_(const boost::system::error_code& ec) {
  MutexLock lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: timer handler (status: %i - %s)",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   ec.value(), ec.message().c_str());
  if (ec == boost::asio::error::operation_aborted && state_ == TimerState::CANCELLED) {
    ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: ignoring timer handler (status: %i - %s)",
                                     static_cast<unsigned long>(id_), TimerStateName(state_),
                                     ec.value(), ec.message().c_str());
    return;
  }
  if (ec && state_ == TimerState::SCHEDULED) {
    ZEL_CORE_LOG(kLogError).addTag(kTagHandler).format(
        "Timer[%lu#%s]: unexpected timer handler (status: %i - %s)",
        static_cast<unsigned long>(id_), TimerStateName(state_), ec.value(),
        ec.message().c_str());
    SetState_(TimerState::ERROR);
    return;
  }
  if (state_ != TimerState::SCHEDULED) {
    // An expiry that was already queued when Cancel ran is routine; in any
    // other state it points at a fault.
    if (state_ == TimerState::CANCELLED) {
      ZEL_CORE_LOG(kLogVerbose).format(
          "Timer[%lu#%s]: can't handle timer handler in current state (status: %i - %s)",
          static_cast<unsigned long>(id_), TimerStateName(state_), ec.value(),
          ec.message().c_str());
    } else {
      ZEL_CORE_LOG(kLogError).addTag(kTagHandler).format(
          "Timer[%lu#%s]: can't handle timer handler in current state (status: %i - %s)",
          static_cast<unsigned long>(id_), TimerStateName(state_), ec.value(),
          ec.message().c_str());
    }
    return;
  }

  SetState_(TimerState::EXECUTING);
  const SteadyTime started = clock_->SteadyNow();
  lock.Unlock();
  // Released so that the callback may Cancel its own timer. A std::exception
  // must not unwind through the dispatcher; anything else (a forced stop's
  // boost::thread_interrupted) leaves as from any handler.
  try {
    if (callback_) callback_();
  } catch (const std::exception&) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, "Timer callback");
  }
  lock.Lock();
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: user callback took %li ms",
                                   static_cast<unsigned long>(id_), TimerStateName(state_),
                                   ToMs(clock_->SteadyNow() - started));

  if (state_ == TimerState::CANCELLED) {
    ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: cancelled during user callback",
                                     static_cast<unsigned long>(id_), TimerStateName(state_));
    return;
  }
  if (state_ != TimerState::EXECUTING) {
    ZEL_CORE_LOG(kLogError).addTag(kTagHandler).format(
        "Timer[%lu#%s]: Unexpected state change during user callback",
        static_cast<unsigned long>(id_), TimerStateName(state_));
    return;
  }
  if (mode_ == TimerMode::ONE_SHOT) {
    SetState_(TimerState::DONE);
    ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: done", static_cast<unsigned long>(id_),
                                     TimerStateName(state_));
    return;
  }
  ScheduleNextCycle_();
}

void AsioTimer::Cancel() {
  MutexLock lock(mutex_);
  ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: attempting to cancel",
                                   static_cast<unsigned long>(id_), TimerStateName(state_));
  switch (state_) {
    case TimerState::CANCELLED:
      ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: can't cancel - already cancelled",
                                       static_cast<unsigned long>(id_), TimerStateName(state_));
      return;
    case TimerState::SCHEDULED:
      ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: cancelling timer",
                                       static_cast<unsigned long>(id_), TimerStateName(state_));
      // Cancelled first: a completion that is already queued finds this
      // state when it gets the mutex and does not run the callback.
      SetState_(TimerState::CANCELLED);
      try {
        timer_.cancel();
        ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: cancelled successfully",
                                         static_cast<unsigned long>(id_), TimerStateName(state_));
      } catch (const boost::system::system_error& e) {
        ZEL_CORE_LOG(kLogError).addTag(kTagCancel).format(
            "Timer[%lu#%s]: failed to cancel: %i - %s", static_cast<unsigned long>(id_),
            TimerStateName(state_), e.code().value(), e.code().message().c_str());
      }
      return;
    case TimerState::EXECUTING:
      // The running callback finishes; the expiry handler sees the state
      // afterwards and does not reschedule.
      SetState_(TimerState::CANCELLED);
      return;
    default:
      ZEL_CORE_LOG(kLogVerbose).format("Timer[%lu#%s]: cancel is noop in current state",
                                       static_cast<unsigned long>(id_), TimerStateName(state_));
      return;
  }
}

}  // namespace impl
}  // namespace zel
