// The logger: set-up grammar, line layout, UDP datagrams, and the same
// records as a private rsyslogd parses them (skipped when it is absent).
#include "cpp/lib/common/logger.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait.h"

extern char** environ;

namespace zel {
namespace {

using log_testing::GetLoggerStateForTest;
using log_testing::SetUpLoggerForTest;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;
using Records = std::vector<std::pair<int, std::string>>;

constexpr const char* kNoFile = "/nonexistent/zel_issue";

std::string Tid() { return std::to_string(gettid()); }
std::string TextOf(const std::string& line) { return line.substr(line.find("] ") + 2); }
std::string Host() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return host;
}

// Now, as a record's timestamp in UTC: the text orders like the time.
std::string UtcNow() {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm t{};
  gmtime_r(&now.tv_sec, &t);
  return log_testing::FormatTimestampForTest(now, t);
}

// A datagram socket bound to 127.0.0.1 on a port the kernel picks, standing
// in for the syslog server of UDP mode.
class UdpReceiver {
 public:
  UdpReceiver() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
      port_ = ntohs(addr.sin_port);
    }
  }
  ~UdpReceiver() { close(fd_); }
  int port() const { return port_; }

  // One datagram, or false when none arrives within `timeoutMs`.
  bool Receive(std::string* out, int timeoutMs = 5000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    out->assign(65536, '\0');
    const ssize_t n = recv(fd_, &(*out)[0], out->size(), 0);
    out->resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return n >= 0;
  }

 private:
  int fd_;
  int port_ = 0;
};

// A port that nobody listens on once the probe is closed.
int FreeUdpPort() { return UdpReceiver().port(); }

// syslog(3) is replaced by a capture, so nothing reaches the machine's log;
// every test ends back in syslog mode at level INFO.
class LoggerTest : public ::testing::Test {
 protected:
  void TearDown() override { Reset(nullptr, "DEVLOG"); }

  // Runs the logger's set-up again and forgets what it said.
  void Reset(const char* level, const char* method, const char* issue = kNoFile) {
    SetUpLoggerForTest(level, method, issue);
    log_.Clear();
  }
  // The one line the last record sent to syslog(3).
  std::pair<int, std::string> OnlyLine() {
    Records lines = log_.Take();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? std::make_pair(0, std::string()) : lines.back();
  }

  zel::testing::LogCapture log_;
};

TEST_F(LoggerTest, LevelNamesSetLevelPrintedNameAndPriority) {
  const struct {
    const char* env;
    int level;
    const char* printed;
    int priority;
  } cases[] = {
      {"PANIC", 1, "CRIT", 178},      {"ERROR", 2, "ERROR", 179},
      {"WARNING", 3, "WARN", 180},    {"INFO", 4, "INFO", 182},
      {"VERBOSE", 5, "VERBOSE", 183}, {"TRIVIA", 6, "DEBUG", 183},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.env);
    SetUpLoggerForTest(c.env, "DEVLOG", kNoFile);
    EXPECT_EQ(g_logLevel, c.level);
    EXPECT_THAT(log_.Take(), ElementsAre(Pair(6, std::string("Set log level to ") + c.env),
                                         Pair(6, "Use default syslog")));
    ZEL_LOG(c.level).format("x");
    auto line = OnlyLine();
    EXPECT_EQ(line.first, c.priority);
    EXPECT_THAT(line.second, HasSubstr(std::string(" level=\"") + c.printed + "\"]"));
  }
  // Unset: INFO again, and nothing said about the level.
  SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
  EXPECT_EQ(g_logLevel, kLogInfo);
  EXPECT_THAT(log_.Take(), ElementsAre(Pair(6, "Use default syslog")));

  // Names are compared exactly; only the first 10 characters are kept.
  for (const std::string env : {"DEBUG", "info", "", "WARN", "INFO ", "VERBOSE___X"}) {
    SCOPED_TRACE(env);
    Reset("ERROR", "DEVLOG");
    SetUpLoggerForTest(env.c_str(), "DEVLOG", kNoFile);
    EXPECT_EQ(g_logLevel, kLogInfo);
    EXPECT_THAT(log_.Take(),
                ElementsAre(Pair(3, "Invalid log level " + env.substr(0, 10) + ", ignore"),
                            Pair(6, "Set log level to INFO"), Pair(6, "Use default syslog")));
  }
}

// The port the UDP socket is connected to; -1 when it has no peer port.
int PeerPort(int fd) {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) return -1;
  EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  return ntohs(peer.sin_port);
}

// The settings as this file's static initialisation finds them: the real
// set-up must already have run from the process environment.
const std::pair<log_testing::LoggerState, int> g_atStart = [] {
  auto state = GetLoggerStateForTest();
  return std::make_pair(state, state.udpMode ? PeerPort(state.syslogFd) : -1);
}();

TEST(LoggerStartTest, SetUpRunsBeforeOtherStaticInitialisers) {
  const char* method = std::getenv("ZEL_SYSLOG_METHOD");
  if ((method != nullptr && std::string(method) != "DEVLOG") ||
      std::getenv("ZEL_LOG_LEVEL") != nullptr) {
    GTEST_SKIP() << "runs with ZEL_LOG_LEVEL unset and ZEL_SYSLOG_METHOD unset or DEVLOG";
  }
  EXPECT_EQ(g_atStart.first.level, kLogInfo);
  EXPECT_EQ(g_atStart.first.udpMode, method == nullptr);
  EXPECT_EQ(g_atStart.second, method == nullptr ? 514 : -1);
}

// DEVLOG is syslog mode, as every other test here shows.
TEST_F(LoggerTest, MethodSelectsAUdpPort) {
  // Any signed 32-bit number is the port as it stands: the line prints it
  // whole and the socket gets its low 16 bits (port 0 leaves no peer port).
  // Words other than DEVLOG, stray blanks and numbers beyond 32 bits fall
  // back to 514 with a complaint (rows 0, 0).
  const struct {
    const char* value;
    int printed, peer;
  } cases[] = {{nullptr, 514, 514},    {"5514", 5514, 5514},       {"+5514", 5514, 5514},
               {"05514", 5514, 5514},  {"65535", 65535, 65535},    {"1", 1, 1},
               {"-5", -5, 65531},      {"0", 0, -1},               {"65536", 65536, -1},
               {"70000", 70000, 4464}, {"2147483647", 2147483647, 65535},
               {"-2147483648", -2147483647 - 1, -1},
               {"", 0, 0},             {"devlog", 0, 0},           {"DEVLOG ", 0, 0},
               {" 514", 0, 0},         {"51x", 0, 0},              {"+", 0, 0},
               {"-", 0, 0},            {"1.5", 0, 0},              {"2147483648", 0, 0},
               {"-2147483649", 0, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value == nullptr ? "(unset)" : c.value);
    SetUpLoggerForTest(nullptr, c.value, kNoFile);
    const bool refused = c.printed == 0 && c.peer == 0;
    auto state = GetLoggerStateForTest();
    ASSERT_TRUE(state.udpMode);
    EXPECT_EQ(PeerPort(state.syslogFd), refused ? 514 : c.peer);
    Records expected;
    if (refused) {
      expected.emplace_back(3, std::string("Invalid UDP port provided in ZEL_SYSLOG_METHOD "
                                           "environment variable: ") +
                                   c.value + ". Using default syslog UDP port");
    }
    expected.emplace_back(6, "Emit syslog via UDP 127.0.0.1:" +
                                 std::to_string(refused ? 514 : c.printed) +
                                 ", FD: " + std::to_string(state.syslogFd));
    EXPECT_EQ(log_.Take(), expected);
  }
}

TEST_F(LoggerTest, NodeTypeFileRules) {
  static const std::string kLongLine = std::string(255, 'z') + "node-type: tail\n";
  const struct {
    const char* content;  // null: no file at all
    const char* component;
  } cases[] = {
      {"node-type: zel-ulm\n", "zel-ulm"},
      {"node-type:\t zel-ulm \r\n", "zel-ulm"},
      {"node-type:zel-ulm", "zel-ulm"},  // no final newline
      {"# node-type: commented\n", "zel-kvm"},
      {"node-type:a:b\n", "zel-kvm"},  // three fields
      {"node-type : x\n", "zel-kvm"},  // the key must match exactly
      {" node-type: x\n", "zel-kvm"},
      {"node-type: first\nother: y\nnode-type: last\n#node-type: c\n", "last"},
      {"node-type: two words \n", "two words"},
      {nullptr, "zel-kvm"},
      // Lines are read in 255-character pieces; a piece that reads as a
      // node-type line counts.
      {kLongLine.c_str(), "tail"},
  };
  zel::testing::TempDir dir;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content == nullptr ? "(no file)" : c.content);
    Reset(nullptr, "DEVLOG", dir.WriteFile("earlier", "node-type: earlier\n").c_str());
    Reset(nullptr, "DEVLOG",
          c.content == nullptr ? kNoFile : dir.WriteFile("issue", c.content).c_str());
    DORN_LOG(kLogInfo).format("x");
    EXPECT_THAT(OnlyLine().second, StartsWith(std::string("[zel@4711 comp=\"") + c.component +
                                              "\" subcomp=\"zeldorn\""));
  }
}

TEST_F(LoggerTest, LineLayout) {
  const std::string tid = " tid=\"" + Tid() + "\"";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] {
         DORN_LOG(kLogError)
             .addTag("errorCode:MPA30008")
             .format("Error occurred while loading properties file %s", "x");
       },
       "[zel@4711 comp=\"zel-kvm\" subcomp=\"zeldorn\"" + tid +
           " level=\"ERROR\" errorCode=\"MPA30008\"] Error occurred while loading properties file x"},
      // Without a subcomp the comp value stays open.
      {[] { ZEL_RPC_LOG(kLogWarn).format("a"); },
       "[zel@4711 comp=\"zel-kvm s2comp=\"zel-rpc\"" + tid + " level=\"WARN\"] a"},
      {[] {
         Logger(kLogInfo).setEntId("e-1").setS2comp("zel-net").setSubcomp("mpalib").setMsgId("m1").format(
             "%d-%s", 7, "z");
       },
       "[zel@4711 comp=\"zel-kvm\" subcomp=\"mpalib\" s2comp=\"zel-net\" entId=\"e-1\"" + tid +
           " level=\"INFO\"] 7-z"},
      // Tag forms: "k:" "", ":v" and "plain" as tag, the first colon splits;
      // ":", "" and null are dropped.
      {[] {
         DORN_LOG(kLogInfo).addTag("x:").addTag(":y").addTag("plain").addTag(":").addTag("a:b:c")
             .addTag("").addTag(static_cast<const char*>(nullptr)).addTag(std::string("k:v"));
       },
       "[zel@4711 comp=\"zel-kvm\" subcomp=\"zeldorn\"" + tid +
           " level=\"INFO\" x=\"\" tag=\"y\" tag=\"plain\" a=\"b:c\" k=\"v\"] "},
      // Null or empty setters and formats change nothing.
      {[] {
         const char* empty = "";
         Logger(kLogInfo).setEntId("e").setEntId("").setEntId(nullptr).setMsgId(nullptr)
             .format(nullptr).format("%s", "").format(empty);
       },
       "[zel@4711 comp=\"zel-kvm entId=\"e\"" + tid + " level=\"INFO\"] "},
  };
  for (const auto& [emit, expected] : cases) {
    emit();
    EXPECT_EQ(OnlyLine().second, expected);
  }
}

TEST_F(LoggerTest, TextGrowsAcrossBufferBoundariesUpToTheLastFormatBuffer) {
  // Pieces that end below, at and past the room kept inside a record and
  // the 2048-byte format buffer.
  const std::string a(500, 'a'), b(11, 'b'), big(2047, 'B'), bigger(2048, 'C'), large(100000, 'L');
  std::string tags;
  {
    Logger record(kLogInfo);
    record.format("%s", a.c_str()).format("%s", b.c_str()).format("c").format("%s", a.c_str());
    record.format("%s", big.c_str()).format("%s", bigger.c_str()).format("%s|%d", large.c_str(), 5);
    for (int i = 0; i < 20; ++i) {
      const std::string n = std::to_string(i);
      record.addTag("key" + n + ":value" + n);
      tags += " key" + n + "=\"value" + n + "\"";
    }
  }
  const std::string line = OnlyLine().second;
  EXPECT_EQ(TextOf(line), a + b + "c" + a + big + bigger + large + "|5");
  EXPECT_THAT(line, HasSubstr("level=\"INFO\"" + tags + "] "));

  // Text below 2 MiB is kept; longer text is dropped whole, the rest stays.
  const std::string fits(2097151, 'f');
  DORN_LOG(kLogInfo).format("%s", fits.c_str());
  EXPECT_EQ(TextOf(OnlyLine().second).size(), fits.size());
  const std::string tooLong(2097152, 't');
  const std::string threeMiB(3 * 1024 * 1024, 'm');
  DORN_LOG(kLogInfo).format("head ").format("%s", tooLong.c_str()).format("%s", threeMiB.c_str())
      .format("tail");
  EXPECT_EQ(TextOf(OnlyLine().second), "head tail");
}

// The emit path passes the broken-down UTC time, so the zone is always "Z".
TEST(LoggerTimestampTest, MillisecondsAreCutNotRoundedAndPadded) {
  const std::timespec now{1925089445, 5999999};  // 2031-01-02T03:04:05.005999999Z
  std::tm t{};
  gmtime_r(&now.tv_sec, &t);
  EXPECT_EQ(log_testing::FormatTimestampForTest(now, t), "2031-01-02T03:04:05.005Z");
}

TEST_F(LoggerTest, WriteErrorsAreReportedToSyslog) {
  Reset(nullptr, std::to_string(FreeUdpPort()).c_str());
  int fd = GetLoggerStateForTest().syslogFd;
  // The first datagram draws an ICMP port-unreachable; a later write reports
  // it. Bounded: loopback delivers the error long before 1000 records.
  Records lines;
  for (int i = 0; i < 1000 && lines.empty(); ++i) {
    DORN_LOG(kLogInfo).format("lost");
    lines = log_.Take();
  }
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], std::make_pair(3, "Failed to emit message to syslog via UDP, rc: -1, FD: " +
                                            std::to_string(fd) + ", errno: " +
                                            std::to_string(ECONNREFUSED)));

  // A record beyond the largest UDP datagram fails alone.
  UdpReceiver receiver;
  Reset(nullptr, std::to_string(receiver.port()).c_str());
  DORN_LOG(kLogInfo).format("%s", std::string(70000, 'x').c_str());
  EXPECT_THAT(log_.Take(), ElementsAre(Pair(3, EndsWith(", errno: " + std::to_string(EMSGSIZE)))));
  const std::string fits(60000, 'y');
  DORN_LOG(kLogInfo).format("%s", fits.c_str());
  std::string datagram;
  ASSERT_TRUE(receiver.Receive(&datagram));
  EXPECT_THAT(datagram, EndsWith("] " + fits));
}

TEST_F(LoggerTest, UdpRecordsFromManyThreadsArriveWholeWithTheRfc5424Header) {
  UdpReceiver receiver;
  Reset(nullptr, std::to_string(receiver.port()).c_str());
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  const std::string before = UtcNow();
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        ZEL_NET_LOG(kLogInfo).addTag("n:" + std::to_string(i)).format("t%d", t);
      }
    });
  }
  for (auto& th : threads) th.join();
  const std::string after = UtcNow();
  // The timestamp is UTC with milliseconds, so the text orders like the time;
  // no newline ends a record.
  const std::regex record(R"(<182>1 (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) )" + Host() + " ZEL " +
                          std::to_string(getpid()) +
                          R"( - \[zel@4711 comp="zel-kvm s2comp="zel-net" tid="\d+" level="INFO" n="\d+"\] t\d)");
  int received = 0;
  std::string datagram;
  std::smatch m;
  while (received < kThreads * kEach && receiver.Receive(&datagram, 2000)) {
    ASSERT_TRUE(std::regex_match(datagram, m, record)) << datagram;
    EXPECT_TRUE(before <= m[1].str() && m[1].str() <= after) << datagram << " not in " << before;
    ++received;
  }
  EXPECT_EQ(received, kThreads * kEach);
  EXPECT_TRUE(log_.Take().empty());  // nothing went to syslog(3)
}

int g_evaluated = 0;
int Count() { return ++g_evaluated; }

TEST_F(LoggerTest, StatementsAboveTheLevelOrACeilingEvaluateNothing) {
  Reset("ERROR", "DEVLOG");
  g_evaluated = 0;
  DORN_LOG(kLogWarn).format("%d", Count());
  MPALIB_LOG(kLogInfo).addTag(std::to_string(Count()));
  ZEL_METRICS_LOG(kLogDebug).format("%d", Count());
  EXPECT_EQ(g_evaluated, 0);
  // A record built directly above the level is not emitted either.
  Logger(kLogWarn).format("built directly");
  EXPECT_TRUE(log_.Take().empty());
  DORN_LOG(kLogError).format("%d", Count());
  EXPECT_EQ(g_evaluated, 1);
  EXPECT_THAT(OnlyLine().second, EndsWith("] 1"));

  // At DEBUG the library ceilings still keep VERBOSE and DEBUG off.
  Reset("TRIVIA", "DEVLOG");
  ZEL_RPC_LOG(kLogVerbose).format("%d", Count());
  ZEL_NET_LOG(kLogDebug).format("%d", Count());
  ZEL_CORE_LOG(kLogVerbose).format("%d", Count());
  ZEL_CRYPTO_LOG(kLogDebug).format("%d", Count());
  EXPECT_EQ(g_evaluated, 1);
  EXPECT_TRUE(log_.Take().empty());
  ZEL_RPC_LOG(kLogInfo).format("rpc");
  ZEL_METRICS_LOG(kLogDebug).format("metrics");
  DORN_LOG(kLogDebug).format("dorn");
  EXPECT_TRUE(log_.InOrder({"s2comp=\"zel-rpc\"", "s2comp=\"zel-metrics\" tid=\"" + Tid() +
                                                      "\" level=\"DEBUG\"] metrics",
                            "level=\"DEBUG\"] dorn"}));
  EXPECT_EQ(log_.Take().size(), 3u);

  // Levels outside 1 to 6 are refused.
  Logger(0).format("x");
  Logger(7).format("x");
  EXPECT_THAT(log_.Take(),
              ElementsAre(Pair(3, "Invalid log level 0"), Pair(3, "Invalid log level 7")));
}

// rsyslogd in the foreground, from a temporary directory with its own
// configuration: one UDP input on 127.0.0.1, no local socket or kernel input,
// internal messages kept inside, and each record written by a template that
// names the fields it parsed. Stopped by the destructor whatever the outcome.
struct PrivateRsyslogd {
  PrivateRsyslogd(const std::string& binary, int port) {
    const std::string d = dir.path();
    dir.WriteFile("rsyslog.conf",
                  "global(workDirectory=\"" + d +
                      "\" processInternalMessages=\"on\" net.enableDNS=\"off\")\n"
                      "module(load=\"imudp\")\n"
                      "input(type=\"imudp\" address=\"127.0.0.1\" port=\"" + std::to_string(port) +
                      "\")\n"
                      "template(name=\"zelTest\" type=\"string\" string=\""
                      "PRI=%pri%|TS=%timereported:::date-rfc3339%|HOST=%hostname%|APP=%app-name%|"
                      "PROCID=%procid%|MSGID=%msgid%|SD=%structured-data%|MSG=%msg%\\n\")\n"
                      "action(type=\"omfile\" file=\"" + d + "/out.log\" template=\"zelTest\")\n");
    // exec: the shell's pid becomes rsyslogd's.
    const std::string command = "exec '" + binary + "' -n -f '" + d + "/rsyslog.conf' -i '" + d +
                                "/rsyslogd.pid' </dev/null >'" + d + "/stderr' 2>&1";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ) != 0) pid = -1;
  }
  ~PrivateRsyslogd() {
    if (pid < 0) return;
    kill(pid, SIGTERM);
    if (!zel::testing::WaitUntil([&] { return !Running(); }, std::chrono::seconds(5))) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  // False once the child has ended.
  bool Running() {
    if (pid >= 0 && waitpid(pid, nullptr, WNOHANG) == pid) pid = -1;
    return pid >= 0;
  }
  std::string Read(const char* name) const { return dir.ReadFile(dir.path() + "/" + name); }

  zel::testing::TempDir dir;
  pid_t pid = -1;
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

TEST_F(LoggerTest, RsyslogParsesOurRecordsAsRfc5424) {
  const std::string rsyslogd =
      access("/usr/sbin/rsyslogd", X_OK) == 0 ? "/usr/sbin/rsyslogd" : "/sbin/rsyslogd";
  if (access(rsyslogd.c_str(), X_OK) != 0) GTEST_SKIP() << "no rsyslogd (package rsyslog)";
  const int port = FreeUdpPort();
  zel::testing::TempDir issue;
  Reset("TRIVIA", std::to_string(port).c_str(),
        issue.WriteFile("zel_issue", "# test node\nnode-type: zel-ulm\n").c_str());
  PrivateRsyslogd server(rsyslogd, port);
  auto logged = [&](const char* msg) { return !LineFor(server.Read("out.log"), msg).empty(); };
  // Datagrams sent before its input is open are lost: probe until one is logged.
  int round = 0;
  zel::testing::WaitUntil([&] {
    if (round++ % 100 == 0) Logger(kLogInfo).format("probe");
    return logged("probe") || !server.Running();
  });
  ASSERT_TRUE(logged("probe")) << "rsyslogd did not log our probe; it said:\n" << server.Read("stderr");
  DORN_LOG(kLogError).setMsgId("MSG1").setEntId("ch-1").addTag("errorCode:MPA30008").addTag("x:")
      .addTag(":y").format("record");
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return logged("record"); }))
      << "output so far:\n" << server.Read("out.log") << "\nrsyslogd said:\n" << server.Read("stderr");

  const std::string out = server.Read("out.log");
  const std::string ids = "|HOST=" + Host() + "|APP=ZEL|PROCID=" + std::to_string(getpid());
  const std::string tid = " tid=\"" + Tid() + "\"";
  // Without a subcomp the comp value stays open; rsyslogd takes it as it is.
  EXPECT_EQ(LineFor(out, "probe"), "PRI=182|TS=" + ids + "|MSGID=-|SD=[zel@4711 comp=\"zel-ulm" + tid +
                                       " level=\"INFO\"]|MSG=probe");
  std::string ts;
  EXPECT_EQ(LineFor(out, "record", &ts),
            "PRI=179|TS=" + ids + "|MSGID=MSG1|SD=[zel@4711 comp=\"zel-ulm\" subcomp=\"zeldorn\" "
            "entId=\"ch-1\"" + tid + " level=\"ERROR\" errorCode=\"MPA30008\" x=\"\" tag=\"y\"]|MSG=record");
  // The reported time is kept as sent, milliseconds included.
  EXPECT_TRUE(std::regex_match(ts, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|\+00:00))")))
      << ts;
}

}  // namespace
}  // namespace zel
