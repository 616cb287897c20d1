// The real dorn-host-agent in a sandbox, without a management plane: the
// start-up order, the status file, what each signal does, the exit after the
// orderly shutdown, and a bad configuration file. The agent keeps trying to
// reach its relay in the background; nothing here depends on it.
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "sandbox/sandbox.h"
#include "support/wait.h"

namespace zel {
namespace e2e {
namespace {

using sandbox::Process;
using sandbox::Sandbox;
using zel::testing::WaitUntil;

constexpr Millis kWait{20000};
constexpr char kConfigPath[] = "/etc/orvane/zel-dorn/dornConfig.ini";
constexpr char kStatusPath[] = "/etc/orvane/zel-dorn/software_status";
// The monitor writes the status file at once and then waits an hour.
constexpr char kConfig[] =
    "[CommunicationHandler]\nackTimeout=300\n"
    "[Monitoring]\nupdateCheckFrequency=3600\nmonitoringStartDelay=3600\n";
constexpr char kStart[] = "Shutting down Dorn Host Agent - Start";
constexpr char kComplete[] = "Shutting down Dorn Host Agent - Complete";
constexpr char kWaiting[] = "Select wait until receive a signal.";

// What a log line of the message `text` contains.
std::string Message(const std::string& text) { return "] " + text; }

// Index of the first line from `from` whose message is exactly `text`, or -1.
int FindMessage(const std::vector<std::string>& lines, const std::string& text, size_t from = 0) {
  const std::string tail = "] " + text;
  for (size_t i = from; i < lines.size(); ++i) {
    if (lines[i].size() >= tail.size() && lines[i].compare(lines[i].size() - tail.size(), tail.size(), tail) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

int Count(const std::vector<std::string>& lines, const std::string& needle) {
  int n = 0;
  for (const auto& l : lines) n += l.find(needle) != std::string::npos;
  return n;
}

std::string ProcField(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return line.substr(line.find_first_not_of(" \t", field.size() + 1));
    }
  }
  return "";
}

bool NothingPending(pid_t pid) {
  return ProcField(pid, "ShdPnd") == "0000000000000000" && ProcField(pid, "SigPnd") == "0000000000000000";
}

// True once `pid` catches `sig` (its handler is installed).
bool Catches(pid_t pid, int sig) {
  const std::string mask = ProcField(pid, "SigCgt");
  return !mask.empty() && (std::stoull(mask, nullptr, 16) >> (sig - 1) & 1) != 0;
}

// The signal state of every thread of `pid`, for failure messages: a lost
// signal shows as pending and blocked, or as delivered to a thread that never
// went on.
std::string SignalState(pid_t pid) {
  std::string out = "signals: SigCgt " + ProcField(pid, "SigCgt") + " ShdPnd " + ProcField(pid, "ShdPnd") + "\n";
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    std::ifstream in(task.path() / "status");
    out += "  task " + task.path().filename().string() + ":";
    for (std::string line; std::getline(in, line);) {
      for (const char* field : {"Name:", "State:", "SigPnd:", "SigBlk:"}) {
        if (line.rfind(field, 0) == 0) out += " " + line;
      }
    }
    out += "\n";
  }
  return out;
}

size_t ThreadCount(pid_t pid) {
  std::error_code ec;
  const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task", ec);
  return static_cast<size_t>(std::distance(tasks, std::filesystem::directory_iterator()));
}

class AgentLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override { NewSandbox(); }
  void TearDown() override { ExpectNoSanitizerReport(); }

  void NewSandbox() {
    ExpectNoSanitizerReport();
    agent_ = nullptr;
    sandbox_.reset();
    sandbox_ = std::make_unique<Sandbox>(AgentHarnessOptions().host);
    // Exactly the configuration each test asks for, whatever the machine has.
    ASSERT_TRUE(sb().Run({"rm", "-rf", "/etc/orvane/zel-dorn"}).Success());
  }

  Process& StartAgent(const std::string& level = "INFO", const char* config = kConfig) {
    if (config != nullptr) sb().WriteFile(kConfigPath, config);
    sandbox::SpawnOptions options;
    options.name = "agent";
    options.env["ZEL_LOG_LEVEL"] = level;
    options.cwd = "/tmp";
    agent_ = &sb().Spawn({DORN_AGENT_BINARY}, options);
    return *agent_;
  }

  // The agent ends by signal in most cases here, so only its standard error
  // tells of a sanitizer report.
  void ExpectNoSanitizerReport() {
    if (agent_ != nullptr) {
      EXPECT_EQ(SanitizerReport(agent_->Stderr()), "");
    }
  }

  bool WaitForLog(const std::string& needle, Millis timeout = kWait) {
    return WaitUntil([&] { return Count(sb().LogLines(), needle) > 0; }, timeout);
  }
  // Serving: the provider has taken its signals.
  // The provider logs before it installs its handlers, and SIGTERM is caught
  // only by the provider's: wait for both.
  void WaitServing() {
    ASSERT_TRUE(WaitForLog(Message("AsioZelProvider: setting up signal handlers"))) << sb().DebugReport();
    ASSERT_TRUE(WaitUntil([&] { return Catches(agent_->pid(), SIGTERM); }, kWait)) << sb().DebugReport();
  }

  Sandbox& sb() { return *sandbox_; }

  std::unique_ptr<Sandbox> sandbox_;
  Process* agent_ = nullptr;
};

// Under TSan the agent's SIGTERM is now and then caught (SigCgt, nothing
// pending) and never handed on to its dispatcher: the sanitizer defers
// signals to points of its own. The cases that need that hand-over run in
// the normal and ASan builds.
#if defined(__SANITIZE_THREAD__)
#define ZEL_SKIP_SIGTERM_HANDOVER_UNDER_TSAN() \
  GTEST_SKIP() << "SIGTERM hand-over to the dispatcher is not reliable under TSan"
#else
#define ZEL_SKIP_SIGTERM_HANDOVER_UNDER_TSAN() (void)0
#endif

TEST_F(AgentLifecycleTest, StartsInOrderAndWritesAFreshStatusFile) {
  // A status file and a second link to it, left by an earlier run: the agent
  // deletes the file (the link keeps the old bytes) before the monitor
  // writes it anew.
  ASSERT_TRUE(sb().Run({"sh", "-c",
                        std::string("mkdir -p /etc/orvane/zel-dorn && printf STALE-STATUS > ") + kStatusPath +
                            " && ln " + kStatusPath + " /etc/orvane/zel-dorn/old-status"})
                  .Success());
  Process& agent = StartAgent();
  WaitServing();

  const std::vector<std::string> expected = {
      "Starting Dorn Host Agent.",       "Loading Dorn Host Agent properties.",
      "Signal handlers set.",            "Loading host information.",
      "Creating Host specific handler",  "Creating Software manager",
      "Creating Monitor Thread.",        "Creating FileCopy manager",
      "Creating Rpc manager",            "AsioZelProvider: initializing...",
      "Creating Communication Handler.", "Starting MPA client event loop thread...",
      "Creating User Manager.",          "Creating Host Manager.",
      "Starting Monitor Thread.",        "AsioZelProvider: setting up signal handlers",
  };
  const auto lines = sb().LogLines();
  size_t at = 0;
  for (const std::string& text : expected) {
    const int i = FindMessage(lines, text, at);
    ASSERT_GE(i, 0) << "missing or out of order: " << text << "\n" << sb().DebugReport(60);
    EXPECT_EQ(FindMessage(lines, text, static_cast<size_t>(i) + 1), -1) << "twice: " << text;
    at = static_cast<size_t>(i) + 1;
  }

  std::optional<std::string> status;
  EXPECT_TRUE(WaitUntil([&] { return (status = sb().ReadFile(kStatusPath)) && status->size() == 4; }, kWait));
  EXPECT_EQ(status, std::string(4, '\0'));
  EXPECT_EQ(sb().ReadFile("/etc/orvane/zel-dorn/old-status"), "STALE-STATUS");
  EXPECT_TRUE(agent.Running());
}

TEST_F(AgentLifecycleTest, IgnoredAndNoOpSignalsChangeNothing) {
  Process& agent = StartAgent();
  WaitServing();
  const size_t threads = ThreadCount(agent.pid());
  for (int sig : {SIGHUP, SIGPIPE, SIGTSTP, SIGCONT, SIGUSR1, SIGUSR2}) {
    ASSERT_TRUE(agent.Signal(sig)) << strsignal(sig);
  }
  // Ignored signals are dropped when sent and SIGUSR1 is caught: once
  // nothing is pending, each one has been dealt with.
  ASSERT_TRUE(WaitUntil([&] { return NothingPending(agent.pid()); }, kWait));
  EXPECT_TRUE(agent.Running());
  EXPECT_EQ(ProcField(agent.pid(), "State").substr(0, 1), "S") << "stopped by SIGTSTP?";
  EXPECT_EQ(ThreadCount(agent.pid()), threads);
  EXPECT_EQ(Count(sb().LogLines(), Message(kStart)), 0);
  EXPECT_EQ(Count(sb().LogLines(), "got signal"), 0);

  // Still serving: the provider answers the first SIGTERM.
  agent.Signal(SIGTERM);
  EXPECT_TRUE(WaitForLog(Message("AsioZelProvider: got signal 15"))) << SignalState(agent.pid());
}

// The first SIGTERM stops the dispatcher only; the second stop signal, either
// of them, ends the process by its default action, without the shutdown.
TEST_F(AgentLifecycleTest, FirstSigtermEndsTheDispatcherAndTheNextStopSignalTheProcess) {
  ZEL_SKIP_SIGTERM_HANDOVER_UNDER_TSAN();
  for (int second : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(second));
    if (second != SIGTERM) NewSandbox();
    Process& agent = StartAgent("VERBOSE");
    WaitServing();
    ASSERT_TRUE(agent.Signal(SIGTERM));
    ASSERT_TRUE(WaitForLog(Message("AsioZelProvider: got signal 15")))
        << SignalState(agent.pid()) << sb().DebugReport();
    // In the wait now, with the monitor, the work group and client threads.
    ASSERT_TRUE(WaitForLog(Message(kWaiting))) << sb().DebugReport();
    EXPECT_TRUE(agent.Running());
    EXPECT_GE(ThreadCount(agent.pid()), 12u);

    ASSERT_TRUE(agent.Signal(second));
    const auto status = agent.WaitExit(kWait);
    ASSERT_TRUE(status) << sb().DebugReport();
    EXPECT_EQ(status->signal, second) << status->ToString();
    EXPECT_EQ(Count(sb().LogLines(), Message(kStart)), 0);
  }
}

TEST_F(AgentLifecycleTest, SigabrtWhileServingLeadsToTheOrderlyShutdown) {
  ZEL_SKIP_SIGTERM_HANDOVER_UNDER_TSAN();
  Process& agent = StartAgent("VERBOSE");
  WaitServing();

  // Only sets the stop flag: the provider keeps serving.
  ASSERT_TRUE(agent.Signal(SIGABRT));
  ASSERT_TRUE(WaitUntil([&] { return NothingPending(agent.pid()); }, kWait));
  EXPECT_TRUE(agent.Running());
  EXPECT_EQ(Count(sb().LogLines(), Message(kStart)), 0);

  // Once the dispatcher ends, the wait sees the flag.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  ASSERT_TRUE(WaitForLog(Message(kComplete))) << sb().DebugReport(60);
  const auto lines = sb().LogLines();
  const int got = FindMessage(lines, "AsioZelProvider: got signal 15");
  const int begin = FindMessage(lines, kStart);
  const int loop = FindMessage(lines, "Stopping MPA client event loop thread...");
  const int end = FindMessage(lines, kComplete);
  ASSERT_GE(got, 0);
  EXPECT_LT(got, begin);
  EXPECT_LT(begin, loop);
  EXPECT_LT(loop, end);
  EXPECT_EQ(Count(lines, Message(kWaiting)), 0) << "the flag was set before the wait began";

  // main has returned 0; the exit now joins the monitor thread, which is
  // never interrupted, so the process stays until a signal ends it.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_EQ(status->signal, SIGTERM) << status->ToString();
}

TEST_F(AgentLifecycleTest, SigabrtInTheWaitShutsDownAndTheExitWaitsQuietlyForTheSupervisor) {
  ZEL_SKIP_SIGTERM_HANDOVER_UNDER_TSAN();
  // A monitor period of one second, so that several pass while the exit waits.
  Process& agent = StartAgent("VERBOSE",
                              "[CommunicationHandler]\nackTimeout=300\n"
                              "[Monitoring]\nupdateCheckFrequency=1\nmonitoringStartDelay=1\n");
  WaitServing();
  ASSERT_TRUE(agent.Signal(SIGTERM));
  ASSERT_TRUE(WaitForLog(Message(kWaiting)));

  // A signal that lands between the flag test and the select is only seen at
  // the next one, so repeat it (each is harmless) until the entry acts.
  bool shutDown = false;
  for (int attempt = 0; attempt < 20 && !shutDown; ++attempt) {
    ASSERT_TRUE(agent.Signal(SIGABRT));
    shutDown = WaitForLog(Message(kComplete), Millis(1000));
  }
  ASSERT_TRUE(shutDown) << sb().DebugReport(60);
  EXPECT_EQ(Count(sb().LogLines(), Message(kStart)), 1);

  // main has returned; the exit waits for the monitor thread, which goes on
  // checking once a period. Three more checks: alive, and not a word on
  // standard error (no "terminate", no lock_error, no crash).
  const std::string check = Message("Check status of software installed on this host and report to MP.");
  const int checks = Count(sb().LogLines(), check);
  const std::string err = agent.Stderr();
  EXPECT_TRUE(WaitUntil([&] { return Count(sb().LogLines(), check) >= checks + 3 || !agent.Running(); }, kWait))
      << sb().DebugReport(60);
  EXPECT_TRUE(agent.Running()) << sb().DebugReport(60);
  EXPECT_EQ(agent.Stderr(), err);
  EXPECT_EQ(Count(sb().LogLines(), Message(kComplete)), 1);

  // A supervisor's SIGTERM ends it.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_EQ(status->signal, SIGTERM) << status->ToString();
}

// A configuration file that is missing or is no ini file stops the process
// at once: the uncaught exception aborts before any disposition is installed
// or any thread runs.
TEST_F(AgentLifecycleTest, MissingOrUnreadableConfigurationStopsTheProcessBeforeAnythingRuns) {
  for (const char* config : {static_cast<const char*>(nullptr), "[Monitoring\nthis is no ini file\n"}) {
    SCOPED_TRACE(config == nullptr ? "missing" : "unreadable");
    if (config != nullptr) {
      NewSandbox();
      sb().WriteFile(kConfigPath, config);
    }
    Process& agent = StartAgent("INFO", nullptr);
    const auto status = agent.WaitExit(kWait);
    ASSERT_TRUE(status) << sb().DebugReport();
    EXPECT_EQ(status->signal, SIGABRT) << status->ToString();
    ASSERT_TRUE(WaitForLog("errorCode=\"MPA30008\"")) << sb().DebugReport();
    const auto lines = sb().LogLines();
    EXPECT_GE(FindMessage(lines, "Loading Dorn Host Agent properties."), 0);
    EXPECT_EQ(FindMessage(lines, "Signal handlers set."), -1);
    EXPECT_EQ(FindMessage(lines, "Starting Monitor Thread."), -1);
    EXPECT_FALSE(sb().Exists(kStatusPath));
  }
}

}  // namespace
}  // namespace e2e
}  // namespace zel
