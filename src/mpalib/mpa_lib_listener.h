// ZelMpa::MpaLibListener: the select() loop that reads every client of a
// registry and runs their callbacks.
//
// Threads.
// - In BC mode the thread that calls Start() becomes the loop thread and
//   Start() returns only when the loop ends. Otherwise Start() runs the loop
//   on a thread of its own.
// - Stop() may be called from any thread except the loop thread. The loop
//   notices within one select() wait (5 seconds) or one idle sleep (1 second),
//   so a stop takes up to 5 seconds; Stop() gives up after 10.
// - The loop copies the registry's descriptor set under the registry's lock
//   and waits without it, so clients may come and go during a wait; a new
//   client is watched from the next round.
#ifndef ZEL_MPALIB_MPA_LIB_LISTENER_H_
#define ZEL_MPALIB_MPA_LIB_LISTENER_H_

#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

#include <boost/thread/thread.hpp>

namespace ZelMpa {

class MpaLibRegistry;

class MpaLibListener : public std::enable_shared_from_this<MpaLibListener> {
 public:
  // Seconds one select() call waits, and seconds of the idle sleep.
  static constexpr long kSelectTimeoutSeconds = 5;
  static constexpr long kIdleSleepSeconds = 1;

  MpaLibListener(std::shared_ptr<MpaLibRegistry> registry, bool bcMode);
  virtual ~MpaLibListener();

  MpaLibListener(const MpaLibListener&) = delete;
  MpaLibListener& operator=(const MpaLibListener&) = delete;

  // Starts the loop; see the threads note above. `onRunning` is called once
  // the running flag is set, before the first round. Throws NoRegistryError
  // without a registry, ExistingSelect when a loop is running. The listener
  // must be owned by a shared_ptr.
  void Start(std::function<void()> onRunning = nullptr);
  // Ends the loop, waits up to 10 seconds for it, then removes and closes
  // every client with `notify`. Returns false when the loop did not end in
  // time (the clients then stay).
  bool Stop(bool notify);
  bool IsRunning() const { return running_.load(); }

  // Lets go of the loop thread's handle, as if it could not be joined; the
  // loop runs on until stopped and then ends unjoined. Tests only.
  void DetachThreadForTest();

 protected:
  // The two waits of the loop, seams for tests. Select is
  // select(nfds, readfds, null, null, {sec, usec}); IdleWait waits `wait`
  // while no client is registered, returning early when Stop() is called.
  virtual int Select(int nfds, fd_set* readfds, long sec, long usec);
  virtual void IdleWait(std::chrono::milliseconds wait);

 private:
  void Loop_();
  void Process_(int fd);

  const bool bcMode_;
  const std::shared_ptr<MpaLibRegistry> registry_;
  const char* const logPrefix_ = "LISTENER: ";
  std::atomic<bool> running_{false};

  // Set when the loop has ended; BC-mode stops wait on it.
  std::mutex exitedMutex_;
  std::condition_variable exitedCond_;
  bool exited_ = true;  // guarded by exitedMutex_

  // Wakes the idle sleep early on a stop.
  std::mutex wakeMutex_;
  std::condition_variable wakeCond_;

  boost::thread thread_;  // guarded by mutex_
  std::recursive_mutex mutex_;
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_LISTENER_H_
