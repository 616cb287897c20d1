#include "cpp/lib/common/logger.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/logger_test_util.h"

namespace zel {
namespace {

using log_test::SyslogCapture;
using log_test::UdpReceiver;
using log_testing::GetLoggerStateForTest;
using log_testing::SetUpLoggerForTest;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::StartsWith;

constexpr const char* kNoFile = "/nonexistent/zel_issue";

// Every test runs with syslog(3) replaced by a capture, so nothing reaches
// the machine's log, and ends back in syslog mode at level INFO.
class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_testing::SetSyslogSinkForTest(&SyslogCapture::Sink);
    char tmpl[] = "/tmp/zel-logger-test-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
    SyslogCapture::Take();
  }
  void TearDown() override {
    log_testing::SetConsoleEchoForTest(nullptr);
    SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
    SyslogCapture::Take();
    std::remove((dir_ + "/zel_issue").c_str());
    std::remove((dir_ + "/echo").c_str());
    rmdir(dir_.c_str());
  }

  std::string WriteIssue(const std::string& content) {
    std::string path = dir_ + "/zel_issue";
    std::ofstream(path) << content;
    return path;
  }

  // The one line the last record sent to syslog(3), with its priority.
  std::pair<int, std::string> OnlySyslogLine() {
    auto lines = SyslogCapture::Take();
    EXPECT_EQ(lines.size(), 1u);
    return lines.empty() ? std::make_pair(0, std::string()) : lines.back();
  }

  std::string dir_;
};

// --- ZEL_LOG_LEVEL --------------------------------------------------------

struct LevelCase {
  const char* env;
  int level;
  const char* printed;
  int priority;
};

TEST_F(LoggerTest, EachLevelNameSetsLevelPrintedNameAndPriority) {
  const LevelCase cases[] = {
      {"PANIC", 1, "CRIT", 178},   {"ERROR", 2, "ERROR", 179},
      {"WARNING", 3, "WARN", 180}, {"INFO", 4, "INFO", 182},
      {"VERBOSE", 5, "VERBOSE", 183}, {"TRIVIA", 6, "DEBUG", 183},
  };
  for (const LevelCase& c : cases) {
    SCOPED_TRACE(c.env);
    SetUpLoggerForTest(c.env, "DEVLOG", kNoFile);
    EXPECT_EQ(g_logLevel, c.level);
    EXPECT_THAT(SyslogCapture::Take(),
                ElementsAre(Pair(6, std::string("Set log level to ") + c.env),
                            Pair(6, "Use default syslog")));
    ZEL_LOG(c.level).format("x");
    auto line = OnlySyslogLine();
    EXPECT_EQ(line.first, c.priority);
    EXPECT_THAT(line.second,
                HasSubstr(std::string(" level=\"") + c.printed + "\"]"));
  }
}

TEST_F(LoggerTest, BadLevelNamesFallBackToInfoWithComplaint) {
  // Names are compared exactly; only the first 10 characters are kept.
  const std::pair<const char*, const char*> cases[] = {
      {"DEBUG", "DEBUG"},         {"info", "info"},
      {"", ""},                   {"WARN", "WARN"},
      {"INFO ", "INFO "},         {"VERBOSE___X", "VERBOSE___"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    SetUpLoggerForTest("ERROR", "DEVLOG", kNoFile);
    SyslogCapture::Take();
    SetUpLoggerForTest(c.first, "DEVLOG", kNoFile);
    EXPECT_EQ(g_logLevel, kLogInfo);
    EXPECT_THAT(
        SyslogCapture::Take(),
        ElementsAre(
            Pair(3, std::string("Invalid log level ") + c.second + ", ignore"),
            Pair(6, "Set log level to INFO"), Pair(6, "Use default syslog")));
  }
}

TEST_F(LoggerTest, UnsetLevelStaysInfoAndSaysNothing) {
  SetUpLoggerForTest("TRIVIA", "DEVLOG", kNoFile);
  SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
  EXPECT_EQ(g_logLevel, kLogInfo);
  auto lines = SyslogCapture::Take();
  EXPECT_EQ(lines.back(), std::make_pair(6, std::string("Use default syslog")));
  EXPECT_EQ(lines.size(), 3u);  // two from the first set-up, one now
}

// --- ZEL_SYSLOG_METHOD ----------------------------------------------------

int PeerPort(int fd) {
  sockaddr_in peer{};
  socklen_t len = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) != 0) {
    return -1;
  }
  EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  return ntohs(peer.sin_port);
}

// The settings as this file's static initialisation finds them: the real
// set-up must already have run from the process environment.
struct StartState {
  log_testing::LoggerState state;
  int peerPort;
};
const StartState g_atStart = [] {
  auto state = GetLoggerStateForTest();
  return StartState{state, state.udpMode ? PeerPort(state.syslogFd) : -1};
}();

TEST(LoggerStartTest, SetUpRunsBeforeOtherStaticInitialisers) {
  const char* method = std::getenv("ZEL_SYSLOG_METHOD");
  const char* level = std::getenv("ZEL_LOG_LEVEL");
  if ((method != nullptr && std::string(method) != "DEVLOG") ||
      level != nullptr) {
    GTEST_SKIP() << "runs with ZEL_LOG_LEVEL unset and ZEL_SYSLOG_METHOD "
                    "unset or DEVLOG";
  }
  EXPECT_EQ(g_atStart.state.level, kLogInfo);
  if (method == nullptr) {
    EXPECT_TRUE(g_atStart.state.udpMode);
    EXPECT_EQ(g_atStart.peerPort, 514);
  } else {
    EXPECT_FALSE(g_atStart.state.udpMode);
  }
}

TEST_F(LoggerTest, DevlogSelectsSyslogMode) {
  SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
  EXPECT_FALSE(GetLoggerStateForTest().udpMode);
  EXPECT_EQ(GetLoggerStateForTest().syslogFd, -1);
  EXPECT_THAT(SyslogCapture::Take(), ElementsAre(Pair(6, "Use default syslog")));
}

TEST_F(LoggerTest, UnsetMethodConnectsToPort514) {
  SetUpLoggerForTest(nullptr, nullptr, kNoFile);
  auto state = GetLoggerStateForTest();
  ASSERT_TRUE(state.udpMode);
  EXPECT_EQ(PeerPort(state.syslogFd), 514);
  EXPECT_THAT(SyslogCapture::Take(),
              ElementsAre(Pair(6, "Emit syslog via UDP 127.0.0.1:514, FD: " +
                                      std::to_string(state.syslogFd))));
}

TEST_F(LoggerTest, DecimalMethodIsThePort) {
  for (const char* value : {"5514", "+5514", "05514"}) {
    SCOPED_TRACE(value);
    SetUpLoggerForTest(nullptr, value, kNoFile);
    auto state = GetLoggerStateForTest();
    ASSERT_TRUE(state.udpMode);
    EXPECT_EQ(PeerPort(state.syslogFd), 5514);
    EXPECT_THAT(SyslogCapture::Take(),
                ElementsAre(Pair(6, "Emit syslog via UDP 127.0.0.1:5514, FD: " +
                                        std::to_string(state.syslogFd))));
  }
}

TEST_F(LoggerTest, BadPortsFallBackTo514WithComplaint) {
  // Words other than DEVLOG, stray blanks, overflow, and numbers that are
  // no UDP port.
  for (const char* value : {"", "devlog", "DEVLOG ", " 514", "51x", "+",
                            "2147483648", "-5", "0", "65536"}) {
    SCOPED_TRACE(value);
    SetUpLoggerForTest(nullptr, value, kNoFile);
    auto state = GetLoggerStateForTest();
    ASSERT_TRUE(state.udpMode);
    EXPECT_EQ(PeerPort(state.syslogFd), 514);
    EXPECT_THAT(
        SyslogCapture::Take(),
        ElementsAre(
            Pair(3, std::string("Invalid UDP port provided in "
                                "ZEL_SYSLOG_METHOD environment variable: ") +
                        value + ". Using default syslog UDP port"),
            Pair(6, "Emit syslog via UDP 127.0.0.1:514, FD: " +
                        std::to_string(state.syslogFd))));
  }
}

TEST_F(LoggerTest, SetUpAgainClosesTheEarlierSocket) {
  SetUpLoggerForTest(nullptr, "5514", kNoFile);
  int first = GetLoggerStateForTest().syslogFd;
  SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
  errno = 0;
  EXPECT_EQ(fcntl(first, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
}

// --- node type ------------------------------------------------------------

TEST_F(LoggerTest, NodeTypeFileRules) {
  struct Case {
    const char* content;
    const char* component;
  } cases[] = {
      {"node-type: zel-ulm\n", "zel-ulm"},
      {"node-type:\t zel-ulm \r\n", "zel-ulm"},
      {"node-type:zel-ulm", "zel-ulm"},  // no final newline
      {"# node-type: commented\n", "zel-kvm"},
      {"node-type:a:b\n", "zel-kvm"},  // three fields
      {"node-type::b\n", "zel-kvm"},
      {"node-type : x\n", "zel-kvm"},  // the key must match exactly
      {" node-type: x\n", "zel-kvm"},
      {"node-type x\n", "zel-kvm"},
      {"node-type: first\nother: y\nnode-type: last\n#node-type: c\n", "last"},
      {"node-type: two words \n", "two words"},
      {"", "zel-kvm"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content);
    SetUpLoggerForTest(nullptr, "DEVLOG", WriteIssue(c.content).c_str());
    SyslogCapture::Take();
    EXPECT_EQ(GetLoggerStateForTest().component, c.component);
    DORN_LOG(kLogInfo).format("x");
    EXPECT_THAT(OnlySyslogLine().second,
                StartsWith(std::string("[zel@4711 comp=\"") + c.component +
                           "\" subcomp=\"zeldorn\""));
  }
}

TEST_F(LoggerTest, MissingNodeTypeFileKeepsDefault) {
  SetUpLoggerForTest(nullptr, "DEVLOG", WriteIssue("node-type: zel-ulm\n").c_str());
  SetUpLoggerForTest(nullptr, "DEVLOG", kNoFile);
  EXPECT_EQ(GetLoggerStateForTest().component, "zel-kvm");
}

TEST_F(LoggerTest, NodeTypeLinesAreReadIn255CharacterPieces) {
  // A long line is read as several pieces; a piece that reads as a
  // node-type line counts.
  std::string content = std::string(255, 'z') + "node-type: tail\n";
  SetUpLoggerForTest(nullptr, "DEVLOG", WriteIssue(content).c_str());
  EXPECT_EQ(GetLoggerStateForTest().component, "tail");
}

// --- structured data ------------------------------------------------------

TEST_F(LoggerTest, SyslogLineOfTheAgent) {
  DORN_LOG(kLogError)
      .addTag("errorCode:MPA30008")
      .format("Error occurred while loading properties file %s", "x");
  auto line = OnlySyslogLine();
  EXPECT_EQ(line.first, 179);
  EXPECT_EQ(line.second,
            "[zel@4711 comp=\"zel-kvm\" subcomp=\"zeldorn\" tid=\"" +
                std::to_string(gettid()) +
                "\" level=\"ERROR\" errorCode=\"MPA30008\"] Error occurred "
                "while loading properties file x");
}

TEST_F(LoggerTest, CompStaysOpenWithoutSubcomp) {
  const std::string tid = std::to_string(gettid());
  ZEL_RPC_LOG(kLogWarn).format("a");
  EXPECT_EQ(OnlySyslogLine().second,
            "[zel@4711 comp=\"zel-kvm s2comp=\"zel-rpc\" tid=\"" + tid +
                "\" level=\"WARN\"] a");
  ZEL_LOG(kLogWarn).format("b");
  EXPECT_EQ(OnlySyslogLine().second,
            "[zel@4711 comp=\"zel-kvm tid=\"" + tid + "\" level=\"WARN\"] b");
}

TEST_F(LoggerTest, AllFieldsInOrder) {
  Logger(kLogInfo)
      .setEntId("e-1")
      .setS2comp("zel-net")
      .setSubcomp("mpalib")
      .setMsgId("m1")
      .format("%d-%s", 7, "z");
  EXPECT_EQ(OnlySyslogLine().second,
            "[zel@4711 comp=\"zel-kvm\" subcomp=\"mpalib\" s2comp=\"zel-net\" "
            "entId=\"e-1\" tid=\"" +
                std::to_string(gettid()) + "\" level=\"INFO\"] 7-z");
}

TEST_F(LoggerTest, TagForms) {
  DORN_LOG(kLogInfo)
      .addTag("x:")
      .addTag(":y")
      .addTag("plain")
      .addTag(":")
      .addTag("a:b:c")
      .addTag("")
      .addTag(static_cast<const char*>(nullptr))
      .addTag(std::string("k:v"));
  EXPECT_THAT(OnlySyslogLine().second,
              HasSubstr(" level=\"INFO\" x=\"\" tag=\"y\" tag=\"plain\" "
                        "a=\"b:c\" k=\"v\"] "));
}

TEST_F(LoggerTest, NullOrEmptySettersChangeNothing) {
  const char* empty = "";
  Logger(kLogInfo)
      .setEntId("e")
      .setEntId("")
      .setEntId(nullptr)
      .setMsgId(nullptr)
      .format(nullptr)
      .format("%s", "")
      .format(empty);
  EXPECT_THAT(OnlySyslogLine().second,
              testing::EndsWith(" entId=\"e\" tid=\"" + std::to_string(gettid()) +
                                "\" level=\"INFO\"] "));
}

// --- format ---------------------------------------------------------------

std::string TextOf(const std::string& line) {
  return line.substr(line.find("] ") + 2);
}

TEST_F(LoggerTest, FormatAppendsAcrossCallsAndBufferSizes) {
  const std::string big(2047, 'a');
  const std::string bigger(2048, 'b');
  const std::string large(100000, 'c');
  DORN_LOG(kLogInfo)
      .format("%s", big.c_str())
      .format("%s", bigger.c_str())
      .format("%s|%d", large.c_str(), 5);
  EXPECT_EQ(TextOf(OnlySyslogLine().second), big + bigger + large + "|5");
}

TEST_F(LoggerTest, TextBelow2MiBIsKeptAndLongerTextIsDroppedWhole) {
  const std::string fits(2097151, 'f');
  DORN_LOG(kLogInfo).format("%s", fits.c_str());
  EXPECT_EQ(TextOf(OnlySyslogLine().second).size(), fits.size());

  const std::string tooLong(2097152, 't');
  const std::string threeMiB(3 * 1024 * 1024, 'm');
  DORN_LOG(kLogInfo)
      .format("head ")
      .format("%s", tooLong.c_str())
      .format("%s", threeMiB.c_str())
      .format("tail");
  EXPECT_EQ(TextOf(OnlySyslogLine().second), "head tail");
}

TEST_F(LoggerTest, TextAndTagsGrowPastTheRecordsOwnRoom) {
  // Pieces that end just below, at and past the room kept inside a record.
  const std::string a(500, 'a');
  const std::string b(11, 'b');
  std::string tagsExpected;
  {
    Logger record(kLogInfo);
    record.format("%s", a.c_str()).format("%s", b.c_str()).format("c");
    record.format("%s", a.c_str());
    for (int i = 0; i < 20; ++i) {
      record.addTag("key" + std::to_string(i) + ":value" + std::to_string(i));
      tagsExpected += " key" + std::to_string(i) + "=\"value" +
                      std::to_string(i) + "\"";
    }
  }
  auto lines = SyslogCapture::Take();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(TextOf(lines[0].second), a + b + "c" + a);
  EXPECT_THAT(lines[0].second,
              HasSubstr("level=\"INFO\"" + tagsExpected + "] "));
}

// --- timestamp ------------------------------------------------------------

TEST(LoggerTimestampTest, UtcIsZAndOffsetsGetAColon) {
  std::timespec now{};
  now.tv_sec = 1925089445;  // 2031-01-02T03:04:05Z
  now.tv_nsec = 678999999;
  std::tm t{};
  gmtime_r(&now.tv_sec, &t);
  EXPECT_EQ(log_testing::FormatTimestampForTest(now, t),
            "2031-01-02T03:04:05.678Z");
  t.tm_gmtoff = 5 * 3600 + 30 * 60;
  EXPECT_EQ(log_testing::FormatTimestampForTest(now, t),
            "2031-01-02T03:04:05.678+05:30");
  t.tm_gmtoff = -(3 * 3600 + 30 * 60);
  now.tv_nsec = 5000000;
  EXPECT_EQ(log_testing::FormatTimestampForTest(now, t),
            "2031-01-02T03:04:05.005-03:30");
  now.tv_nsec = 999999;
  t.tm_gmtoff = 0;
  EXPECT_EQ(log_testing::FormatTimestampForTest(now, t),
            "2031-01-02T03:04:05.000Z");
}

// --- UDP mode -------------------------------------------------------------

std::string HostName() {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  return host;
}

TEST_F(LoggerTest, UdpRecordHasTheRfc5424Header) {
  UdpReceiver receiver;
  ASSERT_GT(receiver.port(), 0);
  SetUpLoggerForTest(nullptr, std::to_string(receiver.port()).c_str(), kNoFile);
  ASSERT_TRUE(GetLoggerStateForTest().udpMode);
  SyslogCapture::Take();

  std::timespec before{};
  clock_gettime(CLOCK_REALTIME, &before);
  DORN_LOG(kLogError).addTag("errorCode:MPA30008").format("text %d", 1);
  std::string datagram;
  ASSERT_TRUE(receiver.Receive(&datagram));

  std::smatch m;
  const std::regex header(
      R"(<179>1 (\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z) (\S+) ZEL (\d+) - (.*))");
  ASSERT_TRUE(std::regex_match(datagram, m, header)) << datagram;
  EXPECT_EQ(m[2], HostName());
  EXPECT_EQ(m[3], std::to_string(getpid()));
  EXPECT_EQ(m[4], "[zel@4711 comp=\"zel-kvm\" subcomp=\"zeldorn\" tid=\"" +
                      std::to_string(gettid()) +
                      "\" level=\"ERROR\" errorCode=\"MPA30008\"] text 1");
  // The timestamp is this second or the next, in UTC.
  std::tm t{};
  gmtime_r(&before.tv_sec, &t);
  char second[32];
  std::strftime(second, sizeof second, "%Y-%m-%dT%H:%M:%S", &t);
  std::string stamp = m[1];
  std::time_t next = before.tv_sec + 1;
  gmtime_r(&next, &t);
  char nextSecond[32];
  std::strftime(nextSecond, sizeof nextSecond, "%Y-%m-%dT%H:%M:%S", &t);
  EXPECT_TRUE(stamp.compare(0, 19, second) == 0 ||
              stamp.compare(0, 19, nextSecond) == 0)
      << stamp;
  EXPECT_TRUE(SyslogCapture::Take().empty());
}

TEST_F(LoggerTest, UdpRecordCarriesMsgIdAndPriorities) {
  UdpReceiver receiver;
  SetUpLoggerForTest("TRIVIA", std::to_string(receiver.port()).c_str(), kNoFile);
  const std::pair<int, const char*> cases[] = {
      {1, "<178>1 "}, {2, "<179>1 "}, {3, "<180>1 "},
      {4, "<182>1 "}, {5, "<183>1 "}, {6, "<183>1 "},
  };
  for (const auto& c : cases) {
    Logger(c.first).setMsgId("MSG-7").format("p");
    std::string datagram;
    ASSERT_TRUE(receiver.Receive(&datagram));
    EXPECT_THAT(datagram, StartsWith(c.second));
    EXPECT_THAT(datagram, HasSubstr(" ZEL " + std::to_string(getpid()) +
                                    " MSG-7 [zel@4711 "));
    EXPECT_THAT(datagram, testing::EndsWith("] p"));  // no newline
  }
}

TEST_F(LoggerTest, WriteErrorIsReportedToSyslog) {
  int port = 0;
  {
    UdpReceiver gone;  // a port that nobody listens on once it is closed
    port = gone.port();
  }
  SetUpLoggerForTest(nullptr, std::to_string(port).c_str(), kNoFile);
  const int fd = GetLoggerStateForTest().syslogFd;
  SyslogCapture::Take();
  // The first datagram draws an ICMP port-unreachable; a later write reports
  // it. Bounded: loopback delivers the error long before 1000 records.
  std::vector<std::pair<int, std::string>> lines;
  for (int i = 0; i < 1000 && lines.empty(); ++i) {
    DORN_LOG(kLogInfo).format("lost");
    lines = SyslogCapture::Take();
  }
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0],
            std::make_pair(3, "Failed to emit message to syslog via UDP, rc: -1, "
                              "FD: " + std::to_string(fd) + ", errno: " +
                              std::to_string(ECONNREFUSED)));
}

TEST_F(LoggerTest, DatagramTooLargeIsReportedAsWriteError) {
  UdpReceiver receiver;
  SetUpLoggerForTest(nullptr, std::to_string(receiver.port()).c_str(), kNoFile);
  const int fd = GetLoggerStateForTest().syslogFd;
  SyslogCapture::Take();
  const std::string text(70000, 'x');  // beyond the largest UDP datagram
  DORN_LOG(kLogInfo).format("%s", text.c_str());
  EXPECT_THAT(SyslogCapture::Take(),
              ElementsAre(Pair(3, "Failed to emit message to syslog via UDP, "
                                  "rc: -1, FD: " + std::to_string(fd) +
                                  ", errno: " + std::to_string(EMSGSIZE))));
  const std::string fits(60000, 'y');
  DORN_LOG(kLogInfo).format("%s", fits.c_str());
  std::string datagram;
  ASSERT_TRUE(receiver.Receive(&datagram));
  EXPECT_THAT(datagram, testing::EndsWith("] " + fits));
}

TEST_F(LoggerTest, ConcurrentRecordsArriveWhole) {
  UdpReceiver receiver;
  SetUpLoggerForTest(nullptr, std::to_string(receiver.port()).c_str(), kNoFile);
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kEach; ++i) {
        ZEL_NET_LOG(kLogInfo).addTag("n:" + std::to_string(i)).format("t%d", t);
      }
    });
  }
  for (auto& th : threads) th.join();
  const std::regex record(
      R"(<182>1 \S+ \S+ ZEL \d+ - \[zel@4711 comp="zel-kvm s2comp="zel-net" tid="\d+" level="INFO" n="\d+"\] t\d)");
  int received = 0;
  std::string datagram;
  while (received < kThreads * kEach && receiver.Receive(&datagram, 2000)) {
    EXPECT_TRUE(std::regex_match(datagram, record)) << datagram;
    ++received;
  }
  EXPECT_EQ(received, kThreads * kEach);
}

// --- level gate -----------------------------------------------------------

int g_evaluated = 0;
int Count() { return ++g_evaluated; }

TEST_F(LoggerTest, StatementsAboveTheLevelEvaluateNothing) {
  SetUpLoggerForTest("ERROR", "DEVLOG", kNoFile);
  SyslogCapture::Take();
  g_evaluated = 0;
  DORN_LOG(kLogWarn).format("%d", Count());
  MPALIB_LOG(kLogInfo).addTag(std::to_string(Count()));
  ZEL_METRICS_LOG(kLogDebug).format("%d", Count());
  EXPECT_EQ(g_evaluated, 0);
  EXPECT_TRUE(SyslogCapture::Take().empty());
  DORN_LOG(kLogError).format("%d", Count());
  EXPECT_EQ(g_evaluated, 1);
  EXPECT_THAT(OnlySyslogLine().second, testing::EndsWith("] 1"));
}

TEST_F(LoggerTest, LibraryCeilingsKeepVerboseAndDebugOff) {
  SetUpLoggerForTest("TRIVIA", "DEVLOG", kNoFile);
  SyslogCapture::Take();
  g_evaluated = 0;
  ZEL_RPC_LOG(kLogVerbose).format("%d", Count());
  ZEL_NET_LOG(kLogDebug).format("%d", Count());
  ZEL_CORE_LOG(kLogVerbose).format("%d", Count());
  ZEL_CRYPTO_LOG(kLogDebug).format("%d", Count());
  EXPECT_EQ(g_evaluated, 0);
  EXPECT_TRUE(SyslogCapture::Take().empty());
  ZEL_RPC_LOG(kLogInfo).format("rpc");
  ZEL_METRICS_LOG(kLogDebug).format("metrics");
  DORN_LOG(kLogDebug).format("dorn");
  auto lines = SyslogCapture::Take();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[0].second, HasSubstr("s2comp=\"zel-rpc\""));
  EXPECT_THAT(lines[1].second, HasSubstr("s2comp=\"zel-metrics\""));
  EXPECT_THAT(lines[1].second, HasSubstr("level=\"DEBUG\"] metrics"));
  EXPECT_THAT(lines[2].second, HasSubstr("level=\"DEBUG\"] dorn"));
}

TEST_F(LoggerTest, RecordBuiltAboveTheLevelIsNotEmitted) {
  SetUpLoggerForTest("WARNING", "DEVLOG", kNoFile);
  SyslogCapture::Take();
  Logger(kLogInfo).format("built directly");
  EXPECT_TRUE(SyslogCapture::Take().empty());
}

TEST_F(LoggerTest, RecordLevelOutsideOneToSixIsRefused) {
  SetUpLoggerForTest("TRIVIA", "DEVLOG", kNoFile);
  SyslogCapture::Take();
  Logger(0).format("x");
  Logger(7).format("x");
  EXPECT_THAT(SyslogCapture::Take(),
              ElementsAre(Pair(3, "Invalid log level 0"),
                          Pair(3, "Invalid log level 7")));
}

// --- console echo ---------------------------------------------------------

TEST_F(LoggerTest, ConsoleEchoWritesTimestampDataAndText) {
  std::string path = dir_ + "/echo";
  std::FILE* out = std::fopen(path.c_str(), "w");
  ASSERT_NE(out, nullptr);
  log_testing::SetConsoleEchoForTest(out);
  DORN_LOG(kLogInfo).addTag("k:v").format("one");
  ZEL_LOG(kLogInfo).format("two");
  log_testing::SetConsoleEchoForTest(nullptr);
  std::fclose(out);
  EXPECT_EQ(SyslogCapture::Take().size(), 2u);  // echo is in addition

  std::ifstream in(path);
  std::string first, second, rest;
  std::getline(in, first);
  std::getline(in, second);
  EXPECT_FALSE(std::getline(in, rest));
  const std::string tid = std::to_string(gettid());
  const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )";
  EXPECT_TRUE(std::regex_match(
      first, std::regex(stamp + R"(\[zel@4711 comp="zel-kvm" subcomp="zeldorn" tid=")" +
                        tid + R"(" level="INFO" k="v"\] one)")))
      << first;
  EXPECT_TRUE(std::regex_match(
      second, std::regex(stamp + R"(\[zel@4711 comp="zel-kvm tid=")" + tid +
                         R"(" level="INFO"\] two)")))
      << second;
}

}  // namespace
}  // namespace zel
