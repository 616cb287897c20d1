// Sends records in UDP mode to a private rsyslogd and checks that it parses
// them as RFC 5424 messages: priority, timestamp, host name, app name, process
// id, message id and structured data.
//
// The rsyslogd instance runs in the foreground from a temporary directory with
// its own configuration: one UDP input on 127.0.0.1 at a free port, no local
// socket or kernel input, internal messages kept inside, its pid file and work
// directory in the temporary directory. It is stopped at the end of the test
// whatever the outcome.
#include "cpp/lib/common/logger.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_test_util.h"
#include "cpp/lib/common/logger_testing.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait.h"

extern char** environ;

namespace zel {
namespace {

std::string Now() {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm t{};
  gmtime_r(&now.tv_sec, &t);
  return log_testing::FormatTimestampForTest(now, t);
}

// One rsyslogd child in a temporary directory; stopped by the destructor.
class PrivateRsyslogd {
 public:
  ~PrivateRsyslogd() { Stop(); }

  const std::string& dir() const { return dir_.path(); }
  std::string output() const { return dir_.ReadFile(dir() + "/out.log"); }
  std::string diagnostics() const { return dir_.ReadFile(dir() + "/stderr"); }

  // Writes the configuration and starts `binary` in the foreground.
  bool Start(const char* binary, int port) {
    const std::string conf = dir_.WriteFile(
        "rsyslog.conf",
        "global(workDirectory=\"" + dir() +
            "\" processInternalMessages=\"on\" net.enableDNS=\"off\")\n"
            "module(load=\"imudp\")\n"
            "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" + std::to_string(port) + "\")\n"
            "template(name=\"zelTest\" type=\"string\" string=\""
            "PRI=%pri%|TS=%timereported:::date-rfc3339%|HOST=%hostname%|APP=%app-name%|"
            "PROCID=%procid%|MSGID=%msgid%|SD=%structured-data%|MSG=%msg%\\n\")\n"
            "action(type=\"omfile\" file=\"" + dir() + "/out.log\" template=\"zelTest\")\n");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, (dir() + "/stderr").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<std::string> args = {binary, "-n", "-f", conf, "-i", dir() + "/rsyslogd.pid"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const int rc = posix_spawn(&pid_, binary, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) pid_ = -1;
    return rc == 0;
  }

  // False once the child has ended.
  bool Running() {
    if (pid_ >= 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    return pid_ >= 0;
  }

  void Stop() {
    if (pid_ < 0) return;
    kill(pid_, SIGTERM);
    // Wait for the exit on a process descriptor, bounded; then force it.
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    pollfd p{pidfd, POLLIN, 0};
    if (pidfd < 0 || poll(&p, 1, 5000) != 1) kill(pid_, SIGKILL);
    if (pidfd >= 0) close(pidfd);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  zel::testing::TempDir dir_;
  pid_t pid_ = -1;
};

// Parsed output lines, "KEY=value|KEY=value|...", keyed by their MSG.
std::map<std::string, std::map<std::string, std::string>> ParseOutput(const std::string& text) {
  static const std::regex line(
      R"(PRI=(.*)\|TS=(.*)\|HOST=(.*)\|APP=(.*)\|PROCID=(.*)\|MSGID=(.*)\|SD=(.*)\|MSG=(.*))");
  static const char* const kKeys[] = {"PRI", "TS", "HOST", "APP", "PROCID", "MSGID", "SD"};
  std::map<std::string, std::map<std::string, std::string>> byMsg;
  std::istringstream in(text);
  std::string l;
  std::smatch m;
  while (std::getline(in, l)) {
    if (!std::regex_match(l, m, line)) continue;
    for (int i = 0; i < 7; ++i) byMsg[m[8]][kKeys[i]] = m[i + 1];
  }
  return byMsg;
}

TEST(LoggerRsyslogTest, RsyslogParsesOurRfc5424Records) {
  const char* rsyslogd = nullptr;
  for (const char* path : {"/usr/sbin/rsyslogd", "/sbin/rsyslogd"}) {
    if (access(path, X_OK) == 0) rsyslogd = path;
  }
  if (rsyslogd == nullptr) {
    GTEST_SKIP() << "rsyslogd not found in /usr/sbin or /sbin; install the rsyslog package to "
                    "run this receiver test";
  }
  int port = 0;
  {
    log_test::UdpReceiver probe;  // a free port, released for rsyslogd
    port = probe.port();
  }
  ASSERT_GT(port, 0);

  zel::testing::LogCapture log;  // the set-up lines stay out of the machine's log
  PrivateRsyslogd server;
  const std::string issue = server.dir() + "/zel_issue";
  std::ofstream(issue) << "# test node\nnode-type: zel-ulm\n";
  log_testing::SetUpLoggerForTest("TRIVIA", std::to_string(port).c_str(), issue.c_str());
  ASSERT_TRUE(log_testing::GetLoggerStateForTest().udpMode);
  ASSERT_TRUE(server.Start(rsyslogd, port));

  const int watch = inotify_init1(IN_CLOEXEC);
  ASSERT_GE(watch, 0);
  struct CloseOnExit {
    int fd;
    ~CloseOnExit() { close(fd); }
  } closeWatch{watch};
  inotify_add_watch(watch, server.dir().c_str(), IN_MODIFY | IN_CREATE);
  // Waits until rsyslogd has written a line for each of `messages`, waking on
  // each change of its directory. With `probe`, sends a probe record on each
  // round, because datagrams sent before the input is open are lost.
  auto waitFor = [&](const std::vector<std::string>& messages, bool probe) {
    const auto deadline = std::chrono::steady_clock::now() + zel::testing::kDeadline;
    auto allThere = [&] {
      auto records = ParseOutput(server.output());
      for (const std::string& m : messages) {
        if (records.count(m) == 0) return false;
      }
      return true;
    };
    while (std::chrono::steady_clock::now() < deadline && server.Running()) {
      if (probe) Logger(kLogInfo).setMsgId("PROBE").format("probe");
      if (allThere()) return true;
      pollfd p{watch, POLLIN, 0};
      char events[4096];
      if (poll(&p, 1, 100) == 1) (void)!read(watch, events, sizeof events);
    }
    return allThere();
  };
  ASSERT_TRUE(waitFor({"probe"}, true))
      << "rsyslogd did not log our probe; it said:\n" << server.diagnostics();

  const std::string before = Now();
  DORN_LOG(kLogError)
      .setMsgId("MSG1")
      .addTag("errorCode:MPA30008")
      .format("Error occurred while loading properties file %s", "x");
  ZEL_RPC_LOG(kLogWarn).setEntId("ch-1").addTag("x:").addTag(":y").format("library line");
  const std::string after = Now();
  ASSERT_TRUE(waitFor({"Error occurred while loading properties file x", "library line"}, false))
      << "output so far:\n" << server.output() << "\nrsyslogd said:\n" << server.diagnostics();
  server.Stop();
  log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");

  auto records = ParseOutput(server.output());
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  const std::string pid = std::to_string(getpid());
  const std::string tid = std::to_string(gettid());

  auto error = records["Error occurred while loading properties file x"];
  EXPECT_EQ(error["PRI"], "179");
  EXPECT_EQ(error["HOST"], host);
  EXPECT_EQ(error["APP"], "ZEL");
  EXPECT_EQ(error["PROCID"], pid);
  EXPECT_EQ(error["MSGID"], "MSG1");
  EXPECT_EQ(error["SD"], "[zel@4711 comp=\"zel-ulm\" subcomp=\"zeldorn\" tid=\"" + tid +
                             "\" level=\"ERROR\" errorCode=\"MPA30008\"]");
  // rsyslogd keeps the reported time as sent; ours is UTC with milliseconds,
  // so the text orders like the time.
  EXPECT_TRUE(std::regex_match(
      error["TS"], std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|\+00:00))")))
      << error["TS"];
  EXPECT_LE(before.substr(0, 23), error["TS"].substr(0, 23));
  EXPECT_GE(after.substr(0, 23), error["TS"].substr(0, 23));

  auto library = records["library line"];
  EXPECT_EQ(library["PRI"], "180");
  EXPECT_EQ(library["APP"], "ZEL");
  EXPECT_EQ(library["PROCID"], pid);
  EXPECT_EQ(library["MSGID"], "-");
  EXPECT_EQ(library["SD"], "[zel@4711 comp=\"zel-ulm s2comp=\"zel-rpc\" entId=\"ch-1\" tid=\"" +
                               tid + "\" level=\"WARN\" x=\"\" tag=\"y\"]");
}

}  // namespace
}  // namespace zel
