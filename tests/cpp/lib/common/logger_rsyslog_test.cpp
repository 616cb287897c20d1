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
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
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

// The line rsyslogd wrote for the record with text `msg` ("" if none yet),
// with the reported time moved out into `*ts`.
std::string LineFor(const std::string& output, const std::string& msg, std::string* ts = nullptr) {
  static const std::regex kLine(R"((PRI=.*\|TS=)([^|]*)(\|.*\|MSG=)(.*))");
  std::istringstream in(output);
  std::smatch m;
  for (std::string line; std::getline(in, line);) {
    if (!std::regex_match(line, m, kLine) || m[4] != msg) continue;
    if (ts != nullptr) *ts = m[2];
    return m[1].str() + m[3].str() + m[4].str();
  }
  return std::string();
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
  // Datagrams sent before its input is open are lost: probe until one is logged.
  int round = 0;
  zel::testing::WaitUntil([&] {
    if (round++ % 100 == 0) Logger(kLogInfo).setMsgId("PROBE").format("probe");
    return !LineFor(server.output(), "probe").empty() || !server.Running();
  });
  ASSERT_FALSE(LineFor(server.output(), "probe").empty())
      << "rsyslogd did not log our probe; it said:\n" << server.diagnostics();

  const std::string before = log_test::UtcNow();
  DORN_LOG(kLogError)
      .setMsgId("MSG1")
      .addTag("errorCode:MPA30008")
      .format("Error occurred while loading properties file %s", "x");
  ZEL_RPC_LOG(kLogWarn).setEntId("ch-1").addTag("x:").addTag(":y").format("library line");
  const std::string after = log_test::UtcNow();
  const std::string error = "Error occurred while loading properties file x";
  ASSERT_TRUE(zel::testing::WaitUntil([&] {
    const std::string out = server.output();
    return !LineFor(out, error).empty() && !LineFor(out, "library line").empty();
  }))
      << "output so far:\n" << server.output() << "\nrsyslogd said:\n" << server.diagnostics();
  server.Stop();
  log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");

  char host[256] = {};
  gethostname(host, sizeof host - 1);
  const std::string ids = "|HOST=" + std::string(host) + "|APP=ZEL|PROCID=" +
                          std::to_string(getpid());
  const std::string tid = " tid=\"" + std::to_string(gettid()) + "\"";
  std::string ts;
  EXPECT_EQ(LineFor(server.output(), error, &ts),
            "PRI=179|TS=" + ids + "|MSGID=MSG1|SD=[zel@4711 comp=\"zel-ulm\" subcomp=\"zeldorn\"" +
                tid + " level=\"ERROR\" errorCode=\"MPA30008\"]|MSG=" + error);
  // rsyslogd keeps the reported time as sent; ours is UTC with milliseconds,
  // so the text orders like the time.
  EXPECT_TRUE(std::regex_match(ts, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|\+00:00))")))
      << ts;
  EXPECT_LE(before.substr(0, 23), ts.substr(0, 23));
  EXPECT_GE(after.substr(0, 23), ts.substr(0, 23));
  EXPECT_EQ(LineFor(server.output(), "library line"),
            "PRI=180|TS=" + ids + "|MSGID=-|SD=[zel@4711 comp=\"zel-ulm s2comp=\"zel-rpc\" "
            "entId=\"ch-1\"" + tid + " level=\"WARN\" x=\"\" tag=\"y\"]|MSG=library line");
}

}  // namespace
}  // namespace zel
