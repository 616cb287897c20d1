#include "core/execute_command.h"

#include <errno.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "util/mpa_error_tags.h"

namespace ZelDorn {

namespace {

// Size of the read buffer; longer lines arrive in pieces and are joined.
constexpr int kReadBufferSize = 1024;

// Waits for the child and turns its status into the result.
int CloseCommand(FILE* pipe) {
  const int status = pclose(pipe);
  if (status >= 0) {
    // Only the exit-code byte counts; a signal-killed child reads as 0.
    return (status >> 8) & 255;
  }
  const int error = errno;
  DORN_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA30010)
      .format("Error while closing FILE*, error %s", zel::ErrnoText(error).c_str());
  return 0;
}

// Keeps SIGPIPE away from the process while the calling thread writes to a
// child that may have exited. The signal raised by write() goes to the
// writing thread, so blocking it there and taking it off the pending set
// before unblocking leaves no trace. A SIGPIPE that was pending before stays.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    sigset_t pending;
    sigemptyset(&pending);
    wasPending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &oldMask_);
  }
  ~SigpipeGuard() {
    if (!wasPending_) {
      const timespec noWait{0, 0};
      while (sigtimedwait(&pipeSet_, nullptr, &noWait) == SIGPIPE) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &oldMask_, nullptr);
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t pipeSet_;
  sigset_t oldMask_;
  bool wasPending_ = false;
};

// Writes all of `input` to `fd`, or as much as the reader takes.
void WriteAll(int fd, const std::string& input) {
  const char* next = input.data();
  size_t left = input.size();
  while (left > 0) {
    const ssize_t n = write(fd, next, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    next += n;
    left -= static_cast<size_t>(n);
  }
}

}  // namespace

int ExecuteCommand(const std::string& command, std::string& output) {
  // "e": the pipe is close-on-exec, so commands started at the same time by
  // other threads do not inherit it and hold our reader's end-of-file back.
  FILE* pipe = popen(command.c_str(), "re");
  if (pipe == nullptr) {
    output = "popen failed: " + zel::ErrnoText(errno);
    return -1;
  }
  output.clear();
  char buffer[kReadBufferSize];
  while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    output.append(buffer);
  }
  return CloseCommand(pipe);
}

int ExecuteCommandWithInput(const std::string& command, const std::string& input,
                            std::string& error) {
  FILE* pipe = popen(command.c_str(), "we");
  if (pipe == nullptr) {
    error = "popen failed: " + zel::ErrnoText(errno);
    return -1;
  }
  error.clear();
  {
    // Written straight to the descriptor: nothing stays in the stream's
    // buffer for pclose to flush (and fail on) later.
    // A command that stops reading early is no error of ours: its exit code
    // says how it went, as for ExecuteCommand.
    SigpipeGuard guard;
    WriteAll(fileno(pipe), input);
  }
  return CloseCommand(pipe);
}

}  // namespace ZelDorn
