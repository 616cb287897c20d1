// zel::RetryPolicy: exponential back-off for reconnect and retry loops.
//
// After each failed attempt the owner asks NextDelay() how long to wait before
// the next one: the initial delay, then the delay times the multiplier for
// each further attempt, held at max_delay once reached, and -1 when
// max_attempts retries have been handed out. Reset() after a success starts
// the sequence anew.
//
//   zel::RetryPolicy policy(100, 60000, 2.0);   // 100, 200, 400 ... 60000 ms
//   int64_t delayMs = policy.NextDelay();
//   if (delayMs < 0) GiveUp(); else timer = factory->CreateTimer(
//       std::chrono::milliseconds(delayMs), retry);
//
// Threads: every member may be called from any thread; the counters are kept
// under a spin lock, so concurrent NextDelay calls each count one attempt.
#ifndef ZEL_COMMON_RETRY_POLICY_H_
#define ZEL_COMMON_RETRY_POLICY_H_

#include <cstdint>
#include <string>

#include "cpp/lib/common/spin_lock.h"

namespace zel {

class RetryPolicy {
 public:
  static constexpr int64_t kDefaultInitialDelayMs = 100;
  static constexpr int64_t kDefaultMaxDelayMs = 60000;
  static constexpr double kDefaultBackoffMult = 2.0;
  // A max_attempts of this value (or of kUnlimitedAttempts - 1) sets no limit.
  static constexpr uint32_t kUnlimitedAttempts = 0xFFFFFFFF;

  RetryPolicy() = default;
  // Delays in milliseconds. A max_attempts of 0 allows no retry at all.
  // Throws std::invalid_argument for a negative delay or a multiplier that is
  // negative or not finite.
  RetryPolicy(int64_t initialDelayMs, int64_t maxDelayMs, double backoffMult,
              uint32_t maxAttempts = kUnlimitedAttempts);

  // Copies the settings and the progress so far.
  RetryPolicy(const RetryPolicy& other);
  RetryPolicy& operator=(const RetryPolicy& other);

  // Counts one attempt and returns the delay in milliseconds before it, or -1
  // when the attempts are used up.
  int64_t NextDelay();
  // Forgets the attempts made, so the next delay is the initial one.
  void Reset();

  // "RetryPolicy(initial_delay=100, max_delay=60000, backoff_mult=2.000000,
  // max-attempts=unlimited)".
  std::string ToString() const;

  int64_t initial_delay() const { return initialDelay_; }
  int64_t max_delay() const { return maxDelay_; }
  double backoff_mult() const { return backoffMult_; }
  uint32_t max_attempts() const { return maxAttempts_; }
  uint64_t attempts() const;
  bool capped() const;

 private:
  int64_t initialDelay_ = kDefaultInitialDelayMs;
  int64_t maxDelay_ = kDefaultMaxDelayMs;
  double backoffMult_ = kDefaultBackoffMult;
  uint32_t maxAttempts_ = kUnlimitedAttempts;
  uint64_t attempts_ = 0;  // guarded by lock_
  bool capped_ = false;    // guarded by lock_
  mutable SpinLock lock_;
};

}  // namespace zel

#endif  // ZEL_COMMON_RETRY_POLICY_H_
