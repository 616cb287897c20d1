#include "core/execute_command.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ZelDorn {
namespace {

// Lowers the open-file limit so that no new descriptor can be made, which
// makes popen fail. Only for death-test children: it is never undone.
void ExhaustDescriptors() {
  const int lowestFree = dup(0);
  close(lowestFree);
  // Every descriptor below `lowestFree` is in use; allow no others.
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = static_cast<rlim_t>(lowestFree);
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Ignoring SIGCHLD makes the kernel reap children itself, so pclose cannot
// collect the status and fails with ECHILD.
class ScopedIgnoreSigchld {
 public:
  ScopedIgnoreSigchld() { old_ = signal(SIGCHLD, SIG_IGN); }
  ~ScopedIgnoreSigchld() { signal(SIGCHLD, old_); }

 private:
  sighandler_t old_;
};

class ExecuteCommandTest : public ::testing::Test {
 protected:
  zel::testing::LogCapture log_;
};

TEST_F(ExecuteCommandTest, CapturesOutputAndExitCodes) {
  std::string output = "stale";
  EXPECT_EQ(ExecuteCommand("printf 'one\\ntwo\\n'", output), 0);
  EXPECT_EQ(output, "one\ntwo\n");

  EXPECT_EQ(ExecuteCommand("echo partial; exit 7", output), 7);
  EXPECT_EQ(output, "partial\n");

  EXPECT_EQ(ExecuteCommand("echo hidden 1>&2; exit 255", output), 255);
  EXPECT_EQ(output, "");
  EXPECT_EQ(ExecuteCommand("dorn-no-such-command-xyz 2>/dev/null", output), 127);
  // A signal-killed child reads as 0.
  EXPECT_EQ(ExecuteCommand("echo before; kill -9 $$", output), 0);
  EXPECT_EQ(output, "before\n");
  EXPECT_TRUE(log_.Lines().empty());

  // Lines around and far past the read buffer arrive whole, in order.
  for (size_t length : {1022u, 1023u, 1024u, 1025u, 5000u}) {
    SCOPED_TRACE(length);
    const std::string line(length, 'x');
    EXPECT_EQ(ExecuteCommand("printf '%s\\ny\\n' " + line, output), 0);
    EXPECT_EQ(output, line + "\ny\n");
  }
}

TEST_F(ExecuteCommandTest, RunsOnSeveralThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRuns = 10;
  std::vector<int> mismatches(kThreads, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &bad = mismatches[t]] {
      for (int i = 0; i < kRuns; ++i) {
        std::string output;
        const int rc = ExecuteCommand("echo " + std::to_string(t * 100 + i) + "; exit " +
                                          std::to_string(t + 1),
                                      output);
        bad += rc != t + 1 || output != std::to_string(t * 100 + i) + "\n";
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << t;
}

TEST_F(ExecuteCommandTest, FailedCloseLogsAndReturnsZeroKeepingOutput) {
  std::string output;
  int rc = -2;
  {
    ScopedIgnoreSigchld ignore;
    rc = ExecuteCommand("echo kept; exit 3", output);
  }
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(output, "kept\n");
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("level=\"ERROR\" errorCode=\"MPA30010\"] Error while closing FILE*, "
                          "error No child processes"),
            std::string::npos)
      << lines[0];
}

TEST(ExecuteCommandDeathTest, PopenFailureGivesMinusOneAndText) {
  EXPECT_EXIT(
      {
        ExhaustDescriptors();
        std::string output = "stale";
        const int rc = ExecuteCommand("echo never", output);
        std::string error = "stale";
        const int rcInput = ExecuteCommandWithInput("cat", "never", error);
        const std::string expected = "popen failed: Too many open files";
        std::_Exit(rc == -1 && output == expected && rcInput == -1 && error == expected ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(ExecuteCommandTest, InputReachesTheCommand) {
  zel::testing::TempDir dir;
  const std::string file = dir.path() + "/input.txt";
  std::string input;
  for (int i = 0; i < 20000; ++i) input += "line " + std::to_string(i) + "\n";  // > pipe size
  std::string error = "stale";
  EXPECT_EQ(ExecuteCommandWithInput("cat > '" + file + "'", input, error), 0);
  EXPECT_EQ(error, "");
  EXPECT_TRUE(zel::testing::TempDir::ReadFile(file) == input);

  EXPECT_EQ(ExecuteCommandWithInput("dorn-no-such-command-xyz 2>/dev/null", "", error), 127);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(ExecuteCommandTest, CommandThatIgnoresInputDoesNotRaiseSigpipe) {
  // The command exits without reading; writing 1 MiB into its pipe fails
  // with EPIPE. Default SIGPIPE handling would end this test process.
  const sighandler_t old = signal(SIGPIPE, SIG_DFL);
  std::string error;
  EXPECT_EQ(ExecuteCommandWithInput("exit 3", std::string(1 << 20, 'z'), error), 3);
  signal(SIGPIPE, old);

  sigset_t pending;
  sigemptyset(&pending);
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  EXPECT_FALSE(sigismember(&mask, SIGPIPE));
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
}  // namespace ZelDorn
