// The time source of metric values: a steady clock for elapsed times and the
// system clock for report timestamps, both in nanoseconds.
//
// Values read it at rollover, at reset and, for the time-weighted average, on
// every update; a test may replace it with a clock of its own through
// SetClockForTest so that frequencies and rates come out exactly.
//
// Threads: Now functions may be called from any thread. SetClockForTest must
// be called while no metric value is in use on another thread.
#ifndef ZEL_METRICS_CLOCK_H_
#define ZEL_METRICS_CLOCK_H_

#include <cstdint>

namespace zel {
namespace metrics {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual int64_t SteadyNanos() const = 0;
  virtual int64_t SystemNanos() const = 0;

  // The process clock: the fake of a test when one is set, else the real one.
  static int64_t SteadyNow();
  static int64_t SystemNow();
};

// Replaces the process clock; null restores the real one. The caller keeps
// ownership and must keep `clock` alive until it is replaced again.
void SetClockForTest(const Clock* clock);

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_CLOCK_H_
