#include "support/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace zel {
namespace testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, out[1], 2);
  // The peer must not hold copies of the test's own sockets.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int rc = posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  input_ = in[1];
  output_ = out[0];
  if (rc != 0) {
    close(input_);
    close(output_);
    throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(rc));
  }
  reader_ = std::thread([this] {
    char buffer[4096];
    for (;;) {
      const ssize_t n = read(output_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      std::lock_guard<std::mutex> lock(mutex_);
      if (n <= 0) {
        eof_ = true;
        changed_.notify_all();
        return;
      }
      collected_.append(buffer, static_cast<size_t>(n));
      changed_.notify_all();
    }
  });
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    kill(pid_, SIGKILL);
    WaitExit(kDeadline);
  }
  CloseInput();
  reader_.join();
  close(output_);
}

std::string ChildProcess::Output() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return collected_;
}

bool ChildProcess::WaitForOutput(const std::string& needle,
                                 std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return collected_.find(needle) != std::string::npos || eof_;
  }) && collected_.find(needle) != std::string::npos;
}

void ChildProcess::WriteInput(const std::string& bytes) {
  size_t done = 0;
  while (input_ >= 0 && done < bytes.size()) {
    const ssize_t n = write(input_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

void ChildProcess::CloseInput() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

std::optional<int> ChildProcess::WaitExit(std::chrono::milliseconds timeout) {
  if (status_) return status_;
  const bool done = WaitUntil(
      [&] {
        int status = 0;
        const pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r != pid_) return false;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      timeout);
  if (!done) return std::nullopt;
  // Everything it wrote before it ended is read before the status counts.
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return eof_; });
  return status_;
}

int OpenFdCount() {
  int n = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
    --n;  // the directory's own descriptor
  }
  return n;
}

}  // namespace testing
}  // namespace zel
