#include "mpalib/mpa_lib_listener.h"

#include <errno.h>
#include <sys/time.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include <boost/chrono.hpp>

#include "cpp/lib/common/logger.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_lib_exceptions.h"
#include "mpalib/mpa_lib_registry.h"
#include "util/mpa_error_tags.h"

namespace ZelMpa {

namespace {
constexpr int kStopWaitSeconds = 10;
constexpr clock_t kStartTicks = 10000;
}  // namespace

MpaLibListener::MpaLibListener(std::shared_ptr<MpaLibRegistry> registry, bool bcMode)
    : bcMode_(bcMode), registry_(std::move(registry)) {}

MpaLibListener::~MpaLibListener() {
  // The loop thread holds a reference to the listener, so a listener dies
  // only after its thread has left the loop; the handle is then finished.
  if (thread_.joinable()) thread_.detach();
}

int MpaLibListener::Select(int nfds, fd_set* readfds, long sec, long usec) {
  timeval timeout;
  timeout.tv_sec = sec;
  timeout.tv_usec = usec;
  return ::select(nfds, readfds, nullptr, nullptr, &timeout);
}

void MpaLibListener::IdleWait(std::chrono::milliseconds wait) {
  std::unique_lock<std::mutex> wake(wakeMutex_);
  wakeCond_.wait_for(wake, wait, [this] { return !running_; });
}

void MpaLibListener::DetachThreadForTest() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (thread_.joinable()) thread_.detach();
}

void MpaLibListener::Start(std::function<void()> onRunning) {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (!registry_) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA136)
        .format("%sNo registry detected; unable to start loop", logPrefix_);
    throw NoRegistryError();
  }
  if (running_) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA138)
        .format("%sAttempted to start a loop thread when one already exists\n", logPrefix_);
    throw ExistingSelect();
  }
  MPALIB_LOG(zel::kLogInfo).format("%sStarting listener loop", logPrefix_);
  {
    std::lock_guard<std::mutex> exited(exitedMutex_);
    exited_ = false;
  }
  running_ = true;

  if (bcMode_) {
    lock.unlock();
    if (onRunning) onRunning();
    Loop_();
    return;
  }

  try {
    // The thread owns the listener while it runs and lets go when the loop
    // ends, so that the handle it leaves behind does not keep it alive.
    boost::thread started([self = shared_from_this()]() mutable {
      std::shared_ptr<MpaLibListener> owner = std::move(self);
      owner->Loop_();
    });
    thread_ = std::move(started);
  } catch (const std::exception& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA137)
        .format("%sFailed to start loop thread: %s", logPrefix_, e.what());
  }
  const clock_t begin = clock();
  while (!thread_.joinable() && clock() - begin < kStartTicks) {
  }
  if (!thread_.joinable()) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA137)
        .format("%sFailed to start loop before timeout", logPrefix_);
    running_ = false;
    std::lock_guard<std::mutex> exited(exitedMutex_);
    exited_ = true;
    return;
  }
  lock.unlock();
  if (onRunning) onRunning();
}

void MpaLibListener::Loop_() {
  bool failed = false;
  std::string failure;
  try {
    while (running_) {
      fd_set readable;
      const int maxFd = registry_->Snapshot(&readable);
      if (maxFd == -1) {
        IdleWait(std::chrono::seconds(kIdleSleepSeconds));
        continue;
      }
      const int ready = Select(maxFd + 1, &readable, kSelectTimeoutSeconds, 0);
      if (ready < 0) {
        const int e = errno;
        // A client closed after the snapshot makes select() fail with EBADF;
        // the next round takes a fresh snapshot.
        MPALIB_LOG(zel::kLogError)
            .format("%sRecieved error on select call (%d): errno(%d) = %s\n",
                    logPrefix_, ready, e, std::strerror(e));
        continue;
      }
      if (ready == 0) continue;
      for (int fd = 0; fd <= maxFd; ++fd) {
        if (!FD_ISSET(fd, &readable)) continue;
        MPALIB_LOG(zel::kLogDebug)
            .format("%sReceived Message on Socket fd = %d\n", logPrefix_, fd);
        Process_(fd);
      }
    }
  } catch (const std::exception& e) {
    failed = true;
    failure = e.what();
  } catch (MpaException* raw) {
    std::unique_ptr<MpaException> e(raw);
    failed = true;
    failure = e->what();
  } catch (...) {
    failed = true;
    failure = "unknown exception";
  }
  if (failed) {
    // Typically an exception out of an application callback: the loop cannot
    // tell which client is sound, so it ends and closes them all.
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%sException in listener loop: %s", logPrefix_, failure.c_str());
    running_ = false;
    MPALIB_LOG(zel::kLogInfo).format("%sClosing all registry entries", logPrefix_);
    try {
      registry_->Clear(true);
    } catch (...) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA101)
          .format("%sException while closing registry entries", logPrefix_);
    }
  }
  MPALIB_LOG(zel::kLogInfo).format("%sExiting loop", logPrefix_);
  {
    std::lock_guard<std::mutex> exited(exitedMutex_);
    exited_ = true;
  }
  exitedCond_.notify_all();
}

void MpaLibListener::Process_(int fd) {
  std::shared_ptr<MpaLibClient> client = registry_->Get(fd);
  if (!client) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA136)
        .format("%sFailed to find client with index %d in registry", logPrefix_, fd);
    registry_->Remove(fd, true);
    return;
  }
  const char* failure = nullptr;
  std::string text;
  try {
    if (client->Receive() >= 0) return;
  } catch (const MpaException& e) {
    text = e.what();
    failure = text.c_str();
  } catch (MpaException* raw) {
    // The library throws BsonException as a heap object.
    std::unique_ptr<MpaException> e(raw);
    text = e->what();
    failure = text.c_str();
  }
  if (failure != nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%sException while receiving on client %d: %s", logPrefix_, fd, failure);
  }
  // The stream of this client can no longer be trusted: drop it and tell the
  // application.
  registry_->Remove(fd, true);
}

bool MpaLibListener::Stop(bool notify) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!running_) {
    MPALIB_LOG(zel::kLogInfo)
        .format("%sListen loop not running in seperate thread; no-op\n", logPrefix_);
    return true;
  }
  {
    // Under the wake mutex so that the idle sleep cannot miss the change.
    std::lock_guard<std::mutex> wake(wakeMutex_);
    running_ = false;
  }
  wakeCond_.notify_all();

  if (thread_.joinable()) {
    try {
      if (!thread_.try_join_for(boost::chrono::seconds(kStopWaitSeconds))) {
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA137)
            .format("%sListen loop still running; timed join failed", logPrefix_);
        return false;
      }
      MPALIB_LOG(zel::kLogInfo)
          .format("%sListener thread successfully stopped\n", logPrefix_);
    } catch (const boost::thread_interrupted&) {
      MPALIB_LOG(zel::kLogWarn)
          .format("%sThread interrupted while waiting for listener thread to stop",
                  logPrefix_);
      return false;
    }
  } else if (bcMode_) {
    MPALIB_LOG(zel::kLogInfo)
        .format("BC mode is true. external listener thread not stoppable");
    std::unique_lock<std::mutex> exited(exitedMutex_);
    if (!exitedCond_.wait_for(exited, std::chrono::seconds(kStopWaitSeconds),
                              [this] { return exited_; })) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA116)
          .format("Time out waiting for listen loop to exit in BC mode");
      return false;
    }
    MPALIB_LOG(zel::kLogInfo).format("BC mode is true. listener loop exited");
  } else {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA137)
        .format("%sListener thread not joinable", logPrefix_);
    return false;
  }

  if (registry_) {
    registry_->Clear(notify);
  } else {
    MPALIB_LOG(zel::kLogInfo).format("%sNot manually closing registry", logPrefix_);
  }
  return true;
}

}  // namespace ZelMpa
