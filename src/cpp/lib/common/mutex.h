// zel::Mutex: the one mutex type of new library code, a std::mutex that
// clang's thread-safety analysis knows as a capability, with its scoped lock
// zel::MutexLock and a condition variable that waits on it. Not recursive:
// a thread that locks a Mutex it holds deadlocks.
//
//   zel::MutexLock lock(mutex_);
//   while (queue_.empty()) ready_.Wait(lock);
#ifndef ZEL_COMMON_MUTEX_H_
#define ZEL_COMMON_MUTEX_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cpp/lib/common/thread_annotations.h"

namespace zel {

class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }
  bool TryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class CondVar;
  std::mutex mutex_;
};

// Holds a Mutex for its scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() RELEASE() {
    if (held_) mutex_.Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  // Lets go for a stretch that must run unlocked (a user callback), and takes
  // the mutex again.
  void Unlock() RELEASE() {
    held_ = false;
    mutex_.Unlock();
  }
  void Lock() ACQUIRE() {
    mutex_.Lock();
    held_ = true;
  }

 private:
  friend class CondVar;
  Mutex& mutex_;
  bool held_ = true;
};

// Waits release the lock's mutex while blocked and hold it again on return.
class CondVar {
 public:
  void Wait(MutexLock& lock) {
    std::unique_lock<std::mutex> inner(lock.mutex_.mutex_, std::adopt_lock);
    cv_.wait(inner);
    inner.release();
  }
  // False when the time-out passed without a notification.
  template <class Rep, class Period>
  bool WaitFor(MutexLock& lock, std::chrono::duration<Rep, Period> timeout) {
    std::unique_lock<std::mutex> inner(lock.mutex_.mutex_, std::adopt_lock);
    const bool notified = cv_.wait_for(inner, timeout) == std::cv_status::no_timeout;
    inner.release();
    return notified;
  }
  void NotifyOne() { cv_.notify_one(); }
  void NotifyAll() { cv_.notify_all(); }

 private:
  std::condition_variable cv_;
};

}  // namespace zel

#endif  // ZEL_COMMON_MUTEX_H_
