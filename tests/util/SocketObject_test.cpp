#include "util/SocketObject.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"

namespace ZelMpa {
namespace {

// Records go to a sink instead of the machine's syslog; every level is on so
// that each format string of the layer runs.
void DropLine(int, const char*) {}
void LineToStderr(int, const char* line) { fprintf(stderr, "%s\n", line); }

class SocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
    zel::log_testing::SetSyslogSinkForTest(&DropLine);
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listenFd_, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(listenFd_, 8));
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len));
    port_ = std::to_string(ntohs(addr.sin_port));
  }
  void TearDown() override {
    if (peerFd_ >= 0) ::close(peerFd_);
    if (listenFd_ >= 0) ::close(listenFd_);
    zel::log_testing::SetSyslogSinkForTest(nullptr);
  }

  // Accepts the connection made by the socket under test.
  void AcceptPeer() {
    pollfd p{listenFd_, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 5000));
    peerFd_ = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(peerFd_, 0);
  }

  // A port on which nothing listens: the listener is closed first.
  std::string ClosedPort() {
    ::close(listenFd_);
    listenFd_ = -1;
    return port_;
  }

  int listenFd_ = -1;
  int peerFd_ = -1;
  std::string port_;
};

TEST_F(SocketTest, ConnectRefusedRaisesSocketErrorNamingConnect) {
  Socket s;
  std::string port = ClosedPort();
  try {
    s.Connect("127.0.0.1", port.c_str());
    FAIL() << "connect to a closed port succeeded";
  } catch (const SocketError& e) {
    EXPECT_STREQ("connect", e.Operation());
    EXPECT_EQ(ECONNREFUSED, e.Errno());
    EXPECT_EQ(s.GetDescriptor(), e.Descriptor());
    std::string expected = "SocketError on sd " + std::to_string(s.GetDescriptor()) +
                           ", in connect: " + std::strerror(ECONNREFUSED) + " (" +
                           std::to_string(ECONNREFUSED) + ")";
    EXPECT_EQ(expected, e.what());
  }
}

TEST_F(SocketTest, ConnectArgumentErrors) {
  Socket s;
  try {
    s.Connect(nullptr, "1");
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ("addr", e.what());
  }
  try {
    s.Connect("127.0.0.1", nullptr);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ("port", e.what());
  }
  // An unknown service name fails in the resolver without any lookup on the
  // network; no descriptor is created.
  try {
    s.Connect("127.0.0.1", "no-such-service-name");
    FAIL();
  } catch (const SocketError& e) {
    EXPECT_STREQ("getaddrinfo", e.Operation());
    EXPECT_NE(0, e.Errno());
    EXPECT_EQ(-1, s.GetDescriptor());
  }
}

TEST_F(SocketTest, BlockingConnectSetsCloexecAndReusesDescriptor) {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  Socket s(fd);
  s.Connect("127.0.0.1", port_.c_str());
  AcceptPeer();
  EXPECT_EQ(fd, s.GetDescriptor());
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  int nodelay = -1;
  socklen_t len = sizeof nodelay;
  ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
  EXPECT_EQ(0, nodelay);
}

TEST_F(SocketTest, NonBlockingConnectReturnsWhileInProgress) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str(), false, true);
  const int fd = s.GetDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  int nodelay = 0;
  socklen_t len = sizeof nodelay;
  ASSERT_EQ(0, getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, &len));
  EXPECT_NE(0, nodelay);
  // Once writable the connection is up and no error is pending.
  pollfd p{fd, POLLOUT, 0};
  ASSERT_EQ(1, poll(&p, 1, 5000));
  EXPECT_EQ(0, s.GetError());
  AcceptPeer();
}

TEST_F(SocketTest, SendAndRecvCarryBytesBothWays) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str());
  AcceptPeer();
  const char out[] = "hello mpa";
  EXPECT_EQ(sizeof out, s.Send(out, sizeof out));
  char in[sizeof out] = {};
  ASSERT_EQ(static_cast<ssize_t>(sizeof in), ::recv(peerFd_, in, sizeof in, MSG_WAITALL));
  EXPECT_STREQ(out, in);

  ASSERT_EQ(3, ::send(peerFd_, "abc", 3, 0));
  char back[3] = {};
  // Blocking receive of exactly the buffer's size.
  EXPECT_EQ(3u, s.Recv(back, sizeof back));
  EXPECT_EQ(0, std::memcmp("abc", back, 3));
}

TEST_F(SocketTest, ZeroLengthSendMakesNoSystemCall) {
  // On descriptor -1 any send(2) would fail with EBADF and throw.
  Socket s;
  EXPECT_EQ(0u, s.Send("x", 0));
}

TEST_F(SocketTest, FullSendBufferGivesShortCountNotException) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str(), true, false);
  AcceptPeer();
  s.SetSendBuffer(4096);
  s.SetNonBlocking();
  std::vector<char> big(8 * 1024 * 1024, 'x');
  errno = 0;
  size_t sent = s.Send(big.data(), big.size());
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_LT(sent, big.size());
  // Nothing more fits while the peer does not read.
  EXPECT_EQ(0u, s.Send(big.data(), big.size()));
  EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SocketTest, NonBlockingRecvWithNothingThereReturnsZero) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str(), true, false);
  AcceptPeer();
  s.SetNonBlocking();
  char buf[16];
  EXPECT_EQ(0u, s.Recv(buf, sizeof buf));
  // Partial data: Recv returns what is there and stops at EAGAIN.
  ASSERT_EQ(2, ::send(peerFd_, "ab", 2, 0));
  pollfd p{s.GetDescriptor(), POLLIN, 0};
  ASSERT_EQ(1, poll(&p, 1, 5000));
  EXPECT_EQ(2u, s.Recv(buf, sizeof buf));
}

TEST_F(SocketTest, RecvOnClosedPeerRaisesShutdownEvenAfterData) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str());
  AcceptPeer();
  ASSERT_EQ(4, ::send(peerFd_, "data", 4, 0));
  ::close(peerFd_);
  peerFd_ = -1;
  char buf[64];
  try {
    s.Recv(buf, sizeof buf);
    FAIL() << "no SocketShutdown";
  } catch (const SocketShutdown& e) {
    EXPECT_STREQ("SocketShutdown", e.what());
  }
}

TEST_F(SocketTest, SendAndRecvErrorsNameTheirOperation) {
  // A TCP socket that was never connected fails both ways.
  Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_GE(s.GetDescriptor(), 0);
  try {
    s.Send("x", 1);
    FAIL();
  } catch (const SocketError& e) {
    EXPECT_STREQ("send", e.Operation());
    EXPECT_EQ(s.GetDescriptor(), e.Descriptor());
  }
  char c;
  try {
    s.Recv(&c, 1);
    FAIL();
  } catch (const SocketError& e) {
    EXPECT_STREQ("recv", e.Operation());
    EXPECT_EQ(ENOTCONN, e.Errno());
  }
  // Both are MpaExceptions, as the library catches them.
  try {
    s.Recv(&c, 1);
  } catch (const MpaException& e) {
    EXPECT_NE(nullptr, std::strstr(e.what(), "in recv"));
  }
}

TEST_F(SocketTest, CloseTwiceIsHarmlessAndBadCloseShowsMinusOne) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str());
  s.Close();
  EXPECT_EQ(-1, s.GetDescriptor());
  EXPECT_NO_THROW(s.Close());
  EXPECT_NO_THROW(s.Shutdown());

  // A descriptor number far above anything open fails with EBADF.
  Socket bogus(1 << 20);
  try {
    bogus.Close();
    FAIL();
  } catch (const SocketError& e) {
    EXPECT_STREQ("close", e.Operation());
    EXPECT_EQ(EBADF, e.Errno());
    EXPECT_EQ(-1, e.Descriptor());
  }
  EXPECT_EQ(-1, bogus.GetDescriptor());
}

TEST_F(SocketTest, ShutdownEndsThePeersStream) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str());
  AcceptPeer();
  s.Shutdown();
  char c;
  EXPECT_EQ(0, ::recv(peerFd_, &c, 1, 0));
}

TEST_F(SocketTest, OptionSettersNameTheOptionOnFailure) {
  Socket s;
  s.Connect("127.0.0.1", port_.c_str());
  EXPECT_NO_THROW(s.SetLinger(true, 1));
  EXPECT_NO_THROW(s.SetKeepAlive());
  EXPECT_NO_THROW(s.SetRecvBuffer(8192));
  int keep = 0;
  socklen_t len = sizeof keep;
  ASSERT_EQ(0, getsockopt(s.GetDescriptor(), SOL_SOCKET, SO_KEEPALIVE, &keep, &len));
  EXPECT_NE(0, keep);

  Socket closed;
  try {
    closed.SetLinger(true, 1);
    FAIL();
  } catch (const SocketError& e) {
    EXPECT_STREQ("setsockopt (SO_LINGER)", e.Operation());
  }
}

TEST_F(SocketTest, SettersOnInvalidDescriptorAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Socket s;
  EXPECT_EXIT(
      {
        zel::log_testing::SetSyslogSinkForTest(&LineToStderr);
        s.SetNonBlocking();
      },
      ::testing::KilledBySignal(SIGABRT),
      "errorCode=\"MPA122\".*ASSERT: .*SocketObject.cpp:[0-9]+: Descriptor is invalid");
  EXPECT_EXIT(s.SetBlocking(), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(s.SetNoDelay(), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(s.SetSendBuffer(1), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(s.SetRecvBuffer(1), ::testing::KilledBySignal(SIGABRT), "");
  EXPECT_EXIT(s.SetKeepAlive(), ::testing::KilledBySignal(SIGABRT), "");
}

// The assertion must abort even when error records are switched off.
TEST_F(SocketTest, AssertionAbortsWithLoggingOff) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Socket s;
  EXPECT_EXIT(
      {
        zel::g_logLevel = 0;
        s.SetNonBlocking();
      },
      ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace ZelMpa
