// The real dorn-host-agent in a sandbox, without a management plane: the
// start-up order, the status file, what each signal does, and a bad
// configuration file. The agent keeps trying to reach its relay in the
// background; nothing here depends on it.
#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/sandbox.h"

namespace zel {
namespace e2e {
namespace {

constexpr Millis kWait{20000};
constexpr char kConfigPath[] = "/etc/orvane/zel-dorn/dornConfig.ini";
constexpr char kStatusPath[] = "/etc/orvane/zel-dorn/software_status";
// The monitor writes the status file at once and then waits an hour.
constexpr char kConfig[] =
    "[CommunicationHandler]\nackTimeout=300\n"
    "[Monitoring]\nupdateCheckFrequency=3600\nmonitoringStartDelay=3600\n";

// `text` as an ECMAScript pattern that matches it literally.
std::string Literal(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr(".^$|()[]{}*+?\\/", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

// A log line whose message text is exactly `text`.
std::string Message(const std::string& text) { return "\\] " + Literal(text) + "$"; }

// Index of the first line at or after `from` whose message is `text`, or -1.
int FindMessage(const std::vector<std::string>& lines, const std::string& text, size_t from = 0) {
  const std::string tail = "] " + text;
  for (size_t i = from; i < lines.size(); ++i) {
    const std::string& l = lines[i];
    if (l.size() >= tail.size() && l.compare(l.size() - tail.size(), tail.size(), tail) == 0) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

int CountMessages(const std::vector<std::string>& lines, const std::string& text) {
  int n = 0;
  for (int i = FindMessage(lines, text); i >= 0; i = FindMessage(lines, text, i + 1)) ++n;
  return n;
}

std::string ProcField(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      std::string value = line.substr(field.size() + 1);
      value.erase(0, value.find_first_not_of(" \t"));
      return value;
    }
  }
  return "";
}

size_t ThreadCount(pid_t pid) {
  size_t n = 0;
  std::error_code ec;
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    (void)entry;
    ++n;
  }
  return n;
}

class AgentLifecycleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The agent finds itself on a Ubuntu host.
    SandboxOptions options;
    options.extra_standins = {std::string(ZEL_FAKE_HOSTS_DIR) + "/ubuntu/uname",
                              std::string(ZEL_FAKE_HOSTS_DIR) + "/ubuntu/lsb_release"};
    sandbox_ = std::make_unique<Sandbox>(options);
    // The machine has no agent configuration; make sure the sandbox has
    // exactly the one each test asks for.
    ASSERT_TRUE(sandbox_->Run({"rm", "-rf", "/etc/orvane/zel-dorn"}).Success());
  }

  Process& StartAgent(const std::string& level = "INFO", bool withConfig = true) {
    if (withConfig) sandbox_->WriteFile(kConfigPath, kConfig);
    SpawnOptions options;
    options.name = "agent";
    options.env["ZEL_LOG_LEVEL"] = level;
    // A private directory: nothing the agent leaves behind (a core file)
    // reaches the machine's own.
    options.cwd = "/tmp";
    agent_ = &sandbox_->Spawn({DORN_HOST_AGENT}, options);
    return *agent_;
  }

  // A sanitizer build of the agent reports on its standard error; the
  // agent ends by signal in most cases here, so its exit code cannot tell.
  void TearDown() override {
    if (agent_ == nullptr) return;
    const std::string err = agent_->Stderr();
    for (const char* mark : {"ERROR: AddressSanitizer", "WARNING: ThreadSanitizer",
                             "runtime error:", "ERROR: LeakSanitizer"}) {
      EXPECT_EQ(err.find(mark), std::string::npos) << err;
    }
  }

  // Waits until the agent serves: the provider has taken its signals.
  void WaitServing() {
    ASSERT_TRUE(sandbox_->WaitForLog(Message("AsioZelProvider: setting up signal handlers"), kWait))
        << sandbox_->DebugReport();
  }

  Sandbox& sb() { return *sandbox_; }

  std::unique_ptr<Sandbox> sandbox_;
  Process* agent_ = nullptr;
};

TEST_F(AgentLifecycleTest, StartsInOrderAndWritesAFreshStatusFile) {
  // A status file and a second link to it, left by an earlier run: the agent
  // must delete the file (the link keeps the old bytes) before the monitor
  // writes it anew.
  ASSERT_TRUE(sb().Run({"sh", "-c",
                        "mkdir -p /etc/orvane/zel-dorn && printf STALE-STATUS > " +
                            std::string(kStatusPath) + " && ln " + kStatusPath +
                            " /etc/orvane/zel-dorn/old-status"})
                  .Success());
  Process& agent = StartAgent();
  WaitServing();

  const std::vector<std::string> expected = {
      "Starting Dorn Host Agent.",
      "Loading Dorn Host Agent properties.",
      "Signal handlers set.",
      "Loading host information.",
      "Creating Host specific handler",
      "Creating Software manager",
      "Creating Monitor Thread.",
      "Creating FileCopy manager",
      "Creating Rpc manager",
      "AsioZelProvider: initializing...",
      "Creating Communication Handler.",
      "Starting MPA client event loop thread...",
      "Creating User Manager.",
      "Creating Host Manager.",
      "Starting Monitor Thread.",
      "AsioZelProvider: setting up signal handlers",
  };
  const auto lines = sb().LogLines();
  size_t at = 0;
  for (const std::string& text : expected) {
    const int i = FindMessage(lines, text, at);
    ASSERT_GE(i, 0) << "missing or out of order: " << text << "\n" << sb().DebugReport(60);
    EXPECT_EQ(CountMessages(lines, text), 1) << text;
    at = static_cast<size_t>(i) + 1;
  }
  const int start = FindMessage(lines, "Starting Dorn Host Agent.");
  EXPECT_NE(lines[static_cast<size_t>(start)].find("subcomp=\"zeldorn\""), std::string::npos);
  EXPECT_NE(lines[static_cast<size_t>(start)].find("level=\"INFO\""), std::string::npos);

  auto status = sb().WaitForFile(kStatusPath, kWait);
  ASSERT_TRUE(WaitUntil(
      [&] {
        status = sb().ReadFile(kStatusPath);
        return status && status->size() == 4;
      },
      kWait))
      << (status ? *status : "no file");
  EXPECT_EQ(*status, std::string(4, '\0'));
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
  // Ignored signals are dropped when sent; SIGUSR1 is caught. Wait until
  // nothing is pending any more, so each one has been dealt with.
  ASSERT_TRUE(WaitUntil(
      [&] {
        return ProcField(agent.pid(), "ShdPnd") == "0000000000000000" &&
               ProcField(agent.pid(), "SigPnd") == "0000000000000000";
      },
      kWait));
  EXPECT_TRUE(agent.Running());
  EXPECT_EQ(ProcField(agent.pid(), "State").substr(0, 1), "S") << "stopped by SIGTSTP?";
  EXPECT_EQ(ThreadCount(agent.pid()), threads);
  const auto lines = sb().LogLines();
  EXPECT_EQ(CountMessages(lines, "Shutting down Dorn Host Agent - Start"), 0);
  for (const auto& l : lines) EXPECT_EQ(l.find("got signal"), std::string::npos) << l;

  // Still serving: the provider answers the first SIGTERM.
  agent.Signal(SIGTERM);
  EXPECT_TRUE(sb().WaitForLog(Message("AsioZelProvider: got signal 15"), kWait));
}

TEST_F(AgentLifecycleTest, FirstSigtermEndsTheDispatcherAndTheSecondEndsTheProcess) {
  Process& agent = StartAgent("VERBOSE");
  WaitServing();

  ASSERT_TRUE(agent.Signal(SIGTERM));
  const auto got = sb().WaitForLog(Message("AsioZelProvider: got signal 15"), kWait);
  ASSERT_TRUE(got) << sb().DebugReport();
  EXPECT_NE(got->find("s2comp=\"zel-rpc\""), std::string::npos) << *got;
  EXPECT_NE(got->find("level=\"WARN\""), std::string::npos) << *got;
  // The entry is now in its wait, with the monitor, the work group and the
  // client threads still there.
  ASSERT_TRUE(sb().WaitForLog(Message("Select wait until receive a signal."), kWait))
      << sb().DebugReport();
  EXPECT_TRUE(agent.Running());
  EXPECT_GE(ThreadCount(agent.pid()), 12u);
  EXPECT_EQ(CountMessages(sb().LogLines(), "Shutting down Dorn Host Agent - Start"), 0);

  // SIGTERM is back at its default action.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_FALSE(status->exited);
  EXPECT_EQ(status->signal, SIGTERM);
  EXPECT_EQ(CountMessages(sb().LogLines(), "Shutting down Dorn Host Agent - Start"), 0);
}

TEST_F(AgentLifecycleTest, SecondSigintAfterTheFirstSigtermAlsoEndsTheProcess) {
  Process& agent = StartAgent("VERBOSE");
  WaitServing();
  ASSERT_TRUE(agent.Signal(SIGTERM));
  ASSERT_TRUE(sb().WaitForLog(Message("Select wait until receive a signal."), kWait));
  ASSERT_TRUE(agent.Signal(SIGINT));
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_EQ(status->signal, SIGINT);
}

TEST_F(AgentLifecycleTest, SigabrtWhileServingLeadsToTheOrderlyShutdown) {
  Process& agent = StartAgent("VERBOSE");
  WaitServing();

  // Only sets the stop flag: the provider keeps serving.
  ASSERT_TRUE(agent.Signal(SIGABRT));
  ASSERT_TRUE(WaitUntil([&] { return ProcField(agent.pid(), "SigPnd") == "0000000000000000" &&
                                     ProcField(agent.pid(), "ShdPnd") == "0000000000000000"; },
                        kWait));
  EXPECT_TRUE(agent.Running());
  EXPECT_EQ(CountMessages(sb().LogLines(), "Shutting down Dorn Host Agent - Start"), 0);

  // Once the dispatcher ends, the wait sees the flag.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  ASSERT_TRUE(sb().WaitForLog(Message("Shutting down Dorn Host Agent - Complete"), kWait))
      << sb().DebugReport(60);

  const auto lines = sb().LogLines();
  const int got = FindMessage(lines, "AsioZelProvider: got signal 15");
  const int begin = FindMessage(lines, "Shutting down Dorn Host Agent - Start");
  const int loop = FindMessage(lines, "Stopping MPA client event loop thread...");
  const int end = FindMessage(lines, "Shutting down Dorn Host Agent - Complete");
  ASSERT_GE(got, 0);
  EXPECT_LT(got, begin);
  EXPECT_LT(begin, loop);
  EXPECT_LT(loop, end);
  EXPECT_NE(lines[static_cast<size_t>(loop)].find("subcomp=\"mpa-client\""), std::string::npos);
  EXPECT_EQ(FindMessage(lines, "Select wait until receive a signal."), -1)
      << "the flag was set before the wait began";

  // main has returned 0; the exit now joins the monitor thread, which is
  // never interrupted, so the process stays until a signal ends it.
  ASSERT_TRUE(agent.Signal(SIGTERM));
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_EQ(status->signal, SIGTERM) << status->ToString();
}

TEST_F(AgentLifecycleTest, SigabrtInTheWaitLeadsToTheOrderlyShutdown) {
  Process& agent = StartAgent("VERBOSE");
  WaitServing();
  ASSERT_TRUE(agent.Signal(SIGTERM));
  ASSERT_TRUE(sb().WaitForLog(Message("Select wait until receive a signal."), kWait));

  // A signal that lands between the flag test and the select is only seen at
  // the next one, so repeat it (each is harmless) until the entry acts.
  bool shutDown = false;
  for (int attempt = 0; attempt < 20 && !shutDown; ++attempt) {
    ASSERT_TRUE(agent.Signal(SIGABRT));
    shutDown = sb().WaitForLog(Message("Shutting down Dorn Host Agent - Complete"), Millis(1000))
                   .has_value();
  }
  ASSERT_TRUE(shutDown) << sb().DebugReport(60);
  EXPECT_EQ(CountMessages(sb().LogLines(), "Shutting down Dorn Host Agent - Start"), 1);
  ASSERT_TRUE(agent.Signal(SIGKILL));
  EXPECT_TRUE(agent.WaitExit(kWait));
}

TEST_F(AgentLifecycleTest, MissingConfigurationStopsTheProcessBeforeAnythingRuns) {
  Process& agent = StartAgent("INFO", /*withConfig=*/false);
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_FALSE(status->Success()) << status->ToString();
  // The uncaught exception aborts before any disposition is installed.
  EXPECT_EQ(status->signal, SIGABRT) << status->ToString();

  ASSERT_TRUE(sb().WaitForLog("errorCode=\"MPA30008\"", kWait)) << sb().DebugReport();
  const auto lines = sb().LogLines();
  EXPECT_GE(FindMessage(lines, "Loading Dorn Host Agent properties."), 0);
  EXPECT_EQ(FindMessage(lines, "Signal handlers set."), -1);
  EXPECT_EQ(FindMessage(lines, "Starting Monitor Thread."), -1);
  EXPECT_FALSE(sb().Exists(kStatusPath));
}

TEST_F(AgentLifecycleTest, UnreadableConfigurationStopsTheProcessToo) {
  sb().WriteFile(kConfigPath, "[Monitoring\nthis is no ini file\n");
  Process& agent = StartAgent("INFO", /*withConfig=*/false);
  const auto status = agent.WaitExit(kWait);
  ASSERT_TRUE(status) << sb().DebugReport();
  EXPECT_EQ(status->signal, SIGABRT) << status->ToString();
  ASSERT_TRUE(sb().WaitForLog("errorCode=\"MPA30008\"", kWait)) << sb().DebugReport();
  EXPECT_EQ(FindMessage(sb().LogLines(), "Signal handlers set."), -1);
}

}  // namespace
}  // namespace e2e
}  // namespace zel
