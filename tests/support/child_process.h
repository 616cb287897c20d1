// A program run by a test as a real peer (openssl s_server, a Python
// socket), with its standard output and error collected, waited for with a
// deadline, and killed when the test is done with it.
//
//   zel::testing::ChildProcess server({"openssl", "s_server", "-accept", "4433", ...});
//   ASSERT_TRUE(server.WaitForOutput("ACCEPT"));
//   ...
//   EXPECT_EQ(server.WaitExit(), 0);
//
// OpenFdCount() counts this process's open descriptors, for tests that check
// nothing is left behind.
//
// Threads: a ChildProcess belongs to the test's thread; a reader thread of
// its own collects the output.
#ifndef ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_
#define ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/wait.h"

namespace zel {
namespace testing {

class ChildProcess {
 public:
  // Starts `argv` (looked up on PATH) with a pipe for standard input;
  // throws std::runtime_error when it can't be started.
  explicit ChildProcess(const std::vector<std::string>& argv);
  // Kills the program if it still runs, and reaps it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Standard output and error, interleaved as they came.
  std::string Output() const;
  bool WaitForOutput(const std::string& needle,
                     std::chrono::milliseconds timeout = kDeadline) const;
  void WriteInput(const std::string& bytes);
  void CloseInput();
  // The exit code, or 128 + the signal; nullopt when `timeout` passes first.
  std::optional<int> WaitExit(std::chrono::milliseconds timeout = kDeadline);
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::optional<int> status_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::string collected_;
  bool eof_ = false;
  std::thread reader_;
};

int OpenFdCount();

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_CHILD_PROCESS_H_
