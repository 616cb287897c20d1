#include "cpp/lib/common/retry_policy.h"

#include <cmath>
#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace zel {

RetryPolicy::RetryPolicy(int64_t initialDelayMs, int64_t maxDelayMs, double backoffMult,
                         uint32_t maxAttempts)
    : initialDelay_(initialDelayMs),
      maxDelay_(maxDelayMs),
      backoffMult_(backoffMult),
      maxAttempts_(maxAttempts) {
  if (initialDelayMs < 0 || maxDelayMs < 0) {
    throw std::invalid_argument("RetryPolicy: delays must not be negative");
  }
  if (!std::isfinite(backoffMult) || backoffMult < 0) {
    throw std::invalid_argument("RetryPolicy: backoff multiplier must be finite and >= 0");
  }
}

RetryPolicy::RetryPolicy(const RetryPolicy& other)
    : initialDelay_(other.initialDelay_),
      maxDelay_(other.maxDelay_),
      backoffMult_(other.backoffMult_),
      maxAttempts_(other.maxAttempts_) {
  std::lock_guard<SpinLock> lock(other.lock_);
  attempts_ = other.attempts_;
  capped_ = other.capped_;
}

RetryPolicy& RetryPolicy::operator=(const RetryPolicy& other) {
  if (this == &other) return *this;
  uint64_t attempts;
  bool capped;
  {
    std::lock_guard<SpinLock> lock(other.lock_);
    attempts = other.attempts_;
    capped = other.capped_;
  }
  // The settings are never written after construction except here; the
  // owner must not assign while other threads use the policy.
  initialDelay_ = other.initialDelay_;
  maxDelay_ = other.maxDelay_;
  backoffMult_ = other.backoffMult_;
  maxAttempts_ = other.maxAttempts_;
  std::lock_guard<SpinLock> lock(lock_);
  attempts_ = attempts;
  capped_ = capped;
  return *this;
}

int64_t RetryPolicy::NextDelay() {
  std::lock_guard<SpinLock> lock(lock_);
  const uint64_t attempt = ++attempts_;
  // kUnlimitedAttempts - 1 counts as unlimited too.
  if (maxAttempts_ < kUnlimitedAttempts - 1 && attempt > maxAttempts_) return -1;
  if (attempt == 1) return initialDelay_;
  if (capped_) return maxDelay_;
  const double delay =
      static_cast<double>(initialDelay_) * std::pow(backoffMult_, static_cast<double>(attempt - 1));
  // Compared as a double first: a delay past the int64_t range must not be
  // converted.
  if (delay < static_cast<double>(maxDelay_)) {
    const auto whole = static_cast<int64_t>(delay);
    if (whole < maxDelay_) return whole;
  }
  capped_ = true;
  return maxDelay_;
}

void RetryPolicy::Reset() {
  std::lock_guard<SpinLock> lock(lock_);
  attempts_ = 0;
  capped_ = false;
}

std::string RetryPolicy::ToString() const {
  char attemptsText[16] = "unlimited";
  if (maxAttempts_ != kUnlimitedAttempts) {
    snprintf(attemptsText, sizeof(attemptsText), "%u", maxAttempts_);
  }
  char text[512];
  snprintf(text, sizeof(text),
           "RetryPolicy(initial_delay=%li, max_delay=%li, backoff_mult=%f, max-attempts=%s)",
           static_cast<long>(initialDelay_), static_cast<long>(maxDelay_), backoffMult_,
           attemptsText);
  return text;
}

uint64_t RetryPolicy::attempts() const {
  std::lock_guard<SpinLock> lock(lock_);
  return attempts_;
}

bool RetryPolicy::capped() const {
  std::lock_guard<SpinLock> lock(lock_);
  return capped_;
}

}  // namespace zel
