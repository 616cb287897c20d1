// Socket addresses of endpoints, and the printed forms of live sockets'
// addresses used in connection names and logs.
//
//   SocketAddress a = TcpAddress(ep.host(), ep.port());   // "*", IPv6, IPv4
//   int fd = socket(a.Family(), SOCK_STREAM, IPPROTO_TCP);
//   connect(fd, a.Get(), a.size);
//   TcpAddressText(fd, Side::kPeer) == "tcp://127.0.0.1:4096"
//
// Host names are not looked up here (the name resolver does that): a host
// that is neither "*" nor an IPv6 or IPv4 literal throws
// boost::system::system_error with EINVAL. There is no bracket form for
// IPv6; a scope behind "%" is an interface name or a number. A local path of
// 108 characters or more throws ENAMETOOLONG.
//
// The printed forms never throw: a failed address query prints "error".
#ifndef ZEL_NET_SOCKET_ADDRESS_H_
#define ZEL_NET_SOCKET_ADDRESS_H_

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace zel {
namespace net {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  int Family() const { return storage.ss_family; }
};

SocketAddress TcpAddress(std::string_view host, uint16_t port);
SocketAddress LocalAddress(std::string_view path);

enum class Side { kLocal, kPeer };

// "tcp://<address>:<port>", with "%<interface or number>" on a scoped IPv6
// address; "error" when the query fails.
std::string TcpAddressText(int fd, Side side);
// "unix://<path>"; without a path "unix://...(pid:N)" for the local side and,
// for the peer, its credentials "unix://<our path or ...>(pid:N uid:N gid:N)"
// or "unix://..." when they cannot be read; "error" when the query fails.
std::string LocalAddressText(int fd, Side side);

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_SOCKET_ADDRESS_H_
