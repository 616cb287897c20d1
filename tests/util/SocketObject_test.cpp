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
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "support/log_capture.h"

namespace ZelMpa {
namespace {

int IntOption(int fd, int level, int option) {
  int value = -1;
  socklen_t len = sizeof value;
  EXPECT_EQ(0, getsockopt(fd, level, option, &value, &len));
  return value;
}

bool WaitFor(int fd, short events) {
  pollfd p{fd, events, 0};
  return poll(&p, 1, 5000) == 1;
}

// Runs `body` and returns the SocketError it throws (an empty one if none).
template <class Body>
SocketError ErrorOf(Body body) {
  try {
    body();
    ADD_FAILURE() << "no SocketError";
  } catch (const SocketError& e) {
    return e;
  }
  return SocketError("", 0, 0);
}

class SocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr));
    ASSERT_EQ(0, listen(listenFd_, 8));
    ASSERT_EQ(0, getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len));
    port_ = std::to_string(ntohs(addr.sin_port));
  }
  void TearDown() override {
    if (peerFd_ >= 0) ::close(peerFd_);
    if (listenFd_ >= 0) ::close(listenFd_);
  }

  // Connects `s` to the listener and accepts the connection.
  void ConnectAndAccept(Socket& s) {
    s.Connect("127.0.0.1", port_.c_str());
    ASSERT_TRUE(WaitFor(listenFd_, POLLIN));
    peerFd_ = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(peerFd_, 0);
  }

  // Records go to a capture instead of the machine's syslog; every level is
  // on so that each format string of the layer runs.
  zel::testing::LogCapture log_{"TRIVIA"};
  int listenFd_ = -1;
  int peerFd_ = -1;
  std::string port_;
};

TEST_F(SocketTest, ConnectFailuresNameTheirCause) {
  Socket s;
  EXPECT_THROW(s.Connect(nullptr, "1"), std::invalid_argument);
  EXPECT_THROW(s.Connect("127.0.0.1", nullptr), std::invalid_argument);
  // An unknown service name fails in the resolver without any lookup on the
  // network; no descriptor is created.
  SocketError lookup = ErrorOf([&] { s.Connect("127.0.0.1", "no-such-service-name"); });
  EXPECT_STREQ("getaddrinfo", lookup.Operation());
  EXPECT_NE(0, lookup.Errno());
  EXPECT_EQ(-1, s.GetDescriptor());

  ::close(listenFd_);  // nothing listens any more
  listenFd_ = -1;
  SocketError refused = ErrorOf([&] { s.Connect("127.0.0.1", port_.c_str()); });
  EXPECT_STREQ("connect", refused.Operation());
  EXPECT_EQ(ECONNREFUSED, refused.Errno());
  EXPECT_EQ(s.GetDescriptor(), refused.Descriptor());
}

TEST_F(SocketTest, ConnectSetsTheRequestedOptionsAndCarriesBytesBothWays) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  Socket s(fd);
  ConnectAndAccept(s);
  EXPECT_EQ(fd, s.GetDescriptor());  // the given descriptor is used
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
  EXPECT_FALSE(fcntl(fd, F_GETFL) & O_NONBLOCK);
  EXPECT_EQ(0, IntOption(fd, IPPROTO_TCP, TCP_NODELAY));

  const char out[] = "hello mpa";
  EXPECT_EQ(sizeof out, s.Send(out, sizeof out));
  char in[sizeof out] = {};
  ASSERT_EQ(static_cast<ssize_t>(sizeof in), ::recv(peerFd_, in, sizeof in, MSG_WAITALL));
  EXPECT_STREQ(out, in);
  ASSERT_EQ(3, ::send(peerFd_, "abc", 3, 0));
  char back[3] = {};
  EXPECT_EQ(3u, s.Recv(back, sizeof back));  // blocking receive of exactly the buffer's size
  EXPECT_EQ(0, std::memcmp("abc", back, 3));
  // A zero-length send makes no system call (which would fail on -1).
  EXPECT_EQ(0u, Socket().Send("x", 0));

  // Non-blocking, it returns while the connection is in progress; once
  // writable the connection is up and no error is pending.
  Socket nb;
  nb.Connect("127.0.0.1", port_.c_str(), false, true);
  ASSERT_GE(nb.GetDescriptor(), 0);
  EXPECT_TRUE(fcntl(nb.GetDescriptor(), F_GETFL) & O_NONBLOCK);
  EXPECT_NE(0, IntOption(nb.GetDescriptor(), IPPROTO_TCP, TCP_NODELAY));
  ASSERT_TRUE(WaitFor(nb.GetDescriptor(), POLLOUT));
  EXPECT_EQ(0, nb.GetError());
}

TEST_F(SocketTest, NonBlockingSendAndRecvStopAtEagainWithoutException) {
  Socket s;
  ConnectAndAccept(s);
  s.SetSendBuffer(4096);
  s.SetNonBlocking();
  char buf[16];
  EXPECT_EQ(0u, s.Recv(buf, sizeof buf));  // nothing there
  // Partial data: Recv returns what is there.
  ASSERT_EQ(2, ::send(peerFd_, "ab", 2, 0));
  ASSERT_TRUE(WaitFor(s.GetDescriptor(), POLLIN));
  EXPECT_EQ(2u, s.Recv(buf, sizeof buf));

  std::vector<char> big(8 * 1024 * 1024, 'x');
  errno = 0;
  EXPECT_LT(s.Send(big.data(), big.size()), big.size());
  EXPECT_EQ(EAGAIN, errno);
  // Nothing more fits while the peer does not read.
  EXPECT_EQ(0u, s.Send(big.data(), big.size()));
  EXPECT_EQ(EAGAIN, errno);
}

TEST_F(SocketTest, SendAndRecvErrorsNameTheirOperation) {
  // A TCP socket that was never connected fails both ways.
  Socket s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_GE(s.GetDescriptor(), 0);
  SocketError send = ErrorOf([&] { s.Send("x", 1); });
  EXPECT_STREQ("send", send.Operation());
  EXPECT_EQ(s.GetDescriptor(), send.Descriptor());
  char c;
  SocketError recv = ErrorOf([&] { s.Recv(&c, 1); });
  EXPECT_STREQ("recv", recv.Operation());
  EXPECT_EQ(ENOTCONN, recv.Errno());
  // Both are MpaExceptions, as the library catches them.
  EXPECT_THROW(s.Recv(&c, 1), MpaException);

  // A peer that closed raises SocketShutdown, even after data.
  Socket connected;
  ConnectAndAccept(connected);
  ASSERT_EQ(4, ::send(peerFd_, "data", 4, 0));
  ::close(peerFd_);
  peerFd_ = -1;
  char buf[64];
  EXPECT_THROW(connected.Recv(buf, sizeof buf), SocketShutdown);
}

TEST_F(SocketTest, OptionsCloseAndShutdown) {
  Socket s;
  ConnectAndAccept(s);
  EXPECT_NO_THROW(s.SetLinger(true, 1));
  EXPECT_NO_THROW(s.SetKeepAlive());
  EXPECT_NO_THROW(s.SetRecvBuffer(8192));
  EXPECT_NE(0, IntOption(s.GetDescriptor(), SOL_SOCKET, SO_KEEPALIVE));
  s.Shutdown();
  char c;
  EXPECT_EQ(0, ::recv(peerFd_, &c, 1, 0));  // the peer's stream ended
  s.Close();
  EXPECT_EQ(-1, s.GetDescriptor());
  EXPECT_NO_THROW(s.Close());
  EXPECT_NO_THROW(s.Shutdown());
  EXPECT_STREQ("setsockopt (SO_LINGER)", ErrorOf([&] { s.SetLinger(true, 1); }).Operation());

  // A descriptor number far above anything open fails with EBADF.
  Socket bogus(1 << 20);
  SocketError bad = ErrorOf([&] { bogus.Close(); });
  EXPECT_STREQ("close", bad.Operation());
  EXPECT_EQ(EBADF, bad.Errno());
  EXPECT_EQ(-1, bogus.GetDescriptor());
}

// Setters on a closed socket are fatal, even with error records switched off.
TEST_F(SocketTest, SettersOnInvalidDescriptorAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Socket s;
  EXPECT_EXIT(
      {
        zel::log_testing::SetConsoleEchoForTest(stderr);
        s.SetNonBlocking();
      },
      ::testing::KilledBySignal(SIGABRT),
      "errorCode=\"MPA122\".*ASSERT: .*SocketObject.cpp:[0-9]+: Descriptor is invalid");
  zel::g_logLevel = 0;
  const std::function<void()> setters[] = {
      [&] { s.SetNonBlocking(); }, [&] { s.SetBlocking(); },       [&] { s.SetNoDelay(); },
      [&] { s.SetSendBuffer(1); }, [&] { s.SetRecvBuffer(1); }, [&] { s.SetKeepAlive(); }};
  for (const auto& setter : setters) EXPECT_EXIT(setter(), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace ZelMpa
