// A one-byte spin lock for very short critical sections: the retry policy and
// every metric counter update. Waiters spin for 16 tries, then yield the CPU,
// and from the 32nd try on alternate between yielding and a 1 us sleep so a
// preempted holder can run on a loaded machine.
//
// Not recursive. Meets BasicLockable, so std::lock_guard works with it.
#ifndef ZEL_COMMON_SPIN_LOCK_H_
#define ZEL_COMMON_SPIN_LOCK_H_

#include <sched.h>
#include <time.h>

#include <atomic>
#include <cstdint>

namespace zel {

class SpinLock {
 public:
  SpinLock() = default;
  SpinLock(const SpinLock&) = delete;
  SpinLock& operator=(const SpinLock&) = delete;

  void lock() noexcept {
    for (uint32_t tries = 0; flag_.exchange(1, std::memory_order_acquire) != 0; ++tries) {
      Backoff(tries);
    }
  }
  bool try_lock() noexcept { return flag_.exchange(1, std::memory_order_acquire) == 0; }
  void unlock() noexcept { flag_.store(0, std::memory_order_release); }

  // The pause after the `tries`-th failed attempt (counted from 0).
  static void Backoff(uint32_t tries) noexcept {
    if (tries < 16) return;
    if (tries < 32 || (tries & 1) != 0) {
      sched_yield();
    } else {
      const timespec pause{0, 1000};
      nanosleep(&pause, nullptr);
    }
  }

 private:
  std::atomic<uint8_t> flag_{0};
};

}  // namespace zel

#endif  // ZEL_COMMON_SPIN_LOCK_H_
