// Bounded waits for tests: every wait has a deadline, so a broken component
// fails its test instead of hanging it, and no test sleeps to let time pass.
#ifndef ZEL_TESTS_SUPPORT_WAIT_H_
#define ZEL_TESTS_SUPPORT_WAIT_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace zel {
namespace testing {

// Long enough for a loaded machine under a sanitizer; reached only on failure.
constexpr std::chrono::seconds kDeadline{20};

// A count that can be waited for.
class Counter {
 public:
  int Increment() {
    std::lock_guard<std::mutex> lock(mutex_);
    cv_.notify_all();
    return ++value_;
  }
  int Value() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  bool WaitForAtLeast(int target, std::chrono::milliseconds timeout = kDeadline) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] { return value_ >= target; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable cv_;
  int value_ = 0;
};

// A flag that can be set and waited for.
class Event : private Counter {
 public:
  void Set() { Increment(); }
  bool IsSet() const { return Value() > 0; }
  bool WaitFor(std::chrono::milliseconds timeout = kDeadline) const {
    return WaitForAtLeast(1, timeout);
  }
};

// Polls `pred` until it holds or the deadline passes; only for states that
// have no event of their own (a process that has exited, an io_context that
// has stopped).
template <class Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds timeout = kDeadline) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs a blocking call on its own thread so that the test can wait for it
// with a bound.
class BackgroundCall {
 public:
  explicit BackgroundCall(std::function<void()> fn)
      : thread_([this, fn = std::move(fn)] {
          fn();
          done_.Set();
        }) {}
  ~BackgroundCall() {
    // After a failed wait the call may never return; the test has failed
    // already, so leave the thread rather than hang.
    if (done_.IsSet()) {
      thread_.join();
    } else {
      thread_.detach();
    }
  }
  BackgroundCall(const BackgroundCall&) = delete;
  BackgroundCall& operator=(const BackgroundCall&) = delete;

  bool WaitFor(std::chrono::milliseconds timeout = kDeadline) { return done_.WaitFor(timeout); }
  std::thread::id id() const { return thread_.get_id(); }

 private:
  Event done_;
  std::thread thread_;
};

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_WAIT_H_
