// Socket options applied to real sockets, and the printed addresses of live
// TCP and local sockets.
#include "cpp/lib/net/socket_options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/socket_address.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace zel {
namespace net {
namespace {

int Get(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &size), 0);
  return value;
}

linger GetLinger(int fd) {
  linger value{-1, -1};
  socklen_t size = sizeof value;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_LINGER, &value, &size), 0);
  return value;
}

struct Fd {
  explicit Fd(int f) : fd(f) {}
  ~Fd() {
    if (fd >= 0) close(fd);
  }
  int fd;
};

TEST(ApplySocketOptionsTest, EachKindOfSocketGetsItsOptions) {
  zel::testing::LogCapture log;
  SocketOptions options;
  options.keepalive = true;
  options.keepalive_count = 5;
  options.linger = 7;

  Fd client(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const int defaultIdle = Get(client.fd, IPPROTO_TCP, TCP_KEEPIDLE);
  const int defaultInterval = Get(client.fd, IPPROTO_TCP, TCP_KEEPINTVL);
  ApplyToTcpSocket(client.fd, options);
  EXPECT_EQ(Get(client.fd, SOL_SOCKET, SO_REUSEADDR), 0) << "reuse_address is for acceptors";
  EXPECT_EQ(Get(client.fd, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Get(client.fd, IPPROTO_TCP, TCP_KEEPCNT), 5);
  EXPECT_EQ(Get(client.fd, IPPROTO_TCP, TCP_KEEPIDLE), defaultIdle) << "unset tunings stay";
  EXPECT_EQ(Get(client.fd, IPPROTO_TCP, TCP_KEEPINTVL), defaultInterval);
  EXPECT_EQ(GetLinger(client.fd).l_onoff, 1);
  EXPECT_EQ(GetLinger(client.fd).l_linger, 7);
  EXPECT_EQ(log.Count("Setting socket options {acceptor:{reuse_address} keepalive:{0s+5*0s} "
                      "linger:{on,7s} uds:{}}"),
            1u);

  Fd acceptor(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  ApplyToTcpAcceptor(acceptor.fd, options);
  EXPECT_EQ(Get(acceptor.fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(Get(acceptor.fd, SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(GetLinger(acceptor.fd).l_linger, 7);
  Fd plain(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  ApplyToTcpAcceptor(plain.fd, SocketOptions());
  EXPECT_EQ(GetLinger(plain.fd).l_onoff, 0) << "a default linger is set, and off";

  // Local acceptors take reuse_address only.
  Fd local(socket(AF_UNIX, SOCK_STREAM, 0));
  ApplyToLocalAcceptor(local.fd, options);
  EXPECT_EQ(Get(local.fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(Get(local.fd, SOL_SOCKET, SO_KEEPALIVE), 0);
  EXPECT_EQ(GetLinger(local.fd).l_onoff, 0);
}

TEST(ApplySocketOptionsTest, FailuresOfRequiredOptionsThrowAndTuningsAreOnlyLogged) {
  zel::testing::LogCapture log;
  // A closed socket fails as EBADF, whichever option comes first.
  for (auto apply : {&ApplyToTcpAcceptor, &ApplyToTcpSocket}) {
    try {
      apply(-1, SocketOptions());
      ADD_FAILURE() << "no exception";
    } catch (const boost::system::system_error& e) {
      EXPECT_EQ(e.code().value(), EBADF);
      EXPECT_NE(std::string(e.what()).find("set_option"), std::string::npos);
    }
  }
  // TCP tunings on a local socket fail one by one; the others are still tried.
  Fd local(socket(AF_UNIX, SOCK_STREAM, 0));
  SocketOptions options;
  options.keepalive = true;
  options.keepalive_idle = 1;
  options.keepalive_count = 2;
  options.keepalive_interval = 3;
  options.linger.reset();
  ApplyToTcpSocket(local.fd, options);
  EXPECT_TRUE(log.InOrder(
      {"Failed to set TCP_KEEPIDLE to 1 for fd " + std::to_string(local.fd) + " (error 95:",
       "Failed to set TCP_KEEPCNT to 2", "Failed to set TCP_KEEPINTVL to 3"}));
}

TEST(ApplySocketOptionsTest, UdsFilePermissions) {
  zel::testing::TempDir dir;
  const std::string path = dir.path() + "/s.sock";
  Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  const SocketAddress a = LocalAddress(path);
  ASSERT_EQ(bind(fd.fd, a.Get(), a.size), 0);
  UdsFileOptions uds;
  uds.perm = 0600;
  ApplyUdsFileOptions(path, uds);
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_ANY_THROW(ApplyUdsFileOptions(dir.path() + "/missing", uds));
  ApplyUdsFileOptions(dir.path() + "/missing", UdsFileOptions());  // no perm: nothing to do
}

TEST(AddressTextTest, TcpAndLocalSockets) {
  Fd listener(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const SocketAddress any = TcpAddress("127.0.0.1", 0);
  ASSERT_EQ(bind(listener.fd, any.Get(), any.size), 0);
  ASSERT_EQ(listen(listener.fd, 1), 0);
  const std::string listening = TcpAddressText(listener.fd, Side::kLocal);
  ASSERT_EQ(listening.rfind("tcp://127.0.0.1:", 0), 0u) << listening;
  const uint16_t port = static_cast<uint16_t>(std::stoi(listening.substr(16)));
  Fd client(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  const SocketAddress to = TcpAddress("127.0.0.1", port);
  ASSERT_EQ(connect(client.fd, to.Get(), to.size), 0);
  EXPECT_EQ(TcpAddressText(client.fd, Side::kPeer), listening);
  EXPECT_EQ(TcpAddressText(listener.fd, Side::kPeer), "error");  // not connected
  EXPECT_EQ(TcpAddressText(-1, Side::kLocal), "error");

  zel::testing::TempDir dir;
  const std::string path = dir.path() + "/l.sock";
  Fd server(socket(AF_UNIX, SOCK_STREAM, 0));
  const SocketAddress a = LocalAddress(path);
  ASSERT_EQ(bind(server.fd, a.Get(), a.size), 0);
  ASSERT_EQ(listen(server.fd, 1), 0);
  Fd peer(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(connect(peer.fd, a.Get(), a.size), 0);
  Fd accepted(accept(server.fd, nullptr, nullptr));
  const std::string pid = std::to_string(getpid());
  const std::string ids = " uid:" + std::to_string(getuid()) + " gid:" + std::to_string(getgid());
  EXPECT_EQ(LocalAddressText(server.fd, Side::kLocal), "unix://" + path);
  EXPECT_EQ(LocalAddressText(peer.fd, Side::kPeer), "unix://" + path);
  EXPECT_EQ(LocalAddressText(peer.fd, Side::kLocal), "unix://...(pid:" + pid + ")");
  // The accepted side's peer has no path: its credentials, beside our path.
  EXPECT_EQ(LocalAddressText(accepted.fd, Side::kPeer), "unix://" + path + "(pid:" + pid + ids + ")");

  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  Fd left(pair[0]), right(pair[1]);
  EXPECT_EQ(LocalAddressText(left.fd, Side::kPeer), "unix://...(pid:" + pid + ids + ")");
  EXPECT_EQ(LocalAddressText(-1, Side::kPeer), "error");
}

}  // namespace
}  // namespace net
}  // namespace zel
