#include "cpp/lib/net/socket_address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <boost/system/system_error.hpp>

namespace zel {
namespace net {
namespace {

[[noreturn]] void Throw(int error, const char* what) {
  throw boost::system::system_error(error, boost::system::system_category(), what);
}

bool LinkLocal(const in6_addr& a) {
  return IN6_IS_ADDR_LINKLOCAL(&a) || IN6_IS_ADDR_MC_LINKLOCAL(&a);
}

bool ParseIpv6(std::string_view host, uint16_t port, SocketAddress* out) {
  std::string address(host);
  std::string scope;
  const size_t percent = address.find('%');
  if (percent != std::string::npos) {
    if (percent > 63) Throw(EINVAL, "address");
    scope = address.substr(percent + 1);
    address.resize(percent);
  }
  sockaddr_in6 a{};
  if (inet_pton(AF_INET6, address.c_str(), &a.sin6_addr) != 1) return false;
  a.sin6_family = AF_INET6;
  a.sin6_port = htons(port);
  if (!scope.empty() && LinkLocal(a.sin6_addr)) {
    unsigned index = if_nametoindex(scope.c_str());
    if (index == 0) index = static_cast<unsigned>(std::strtoul(scope.c_str(), nullptr, 10));
    a.sin6_scope_id = index;
  }
  std::memcpy(&out->storage, &a, sizeof a);
  out->size = sizeof a;
  return true;
}

std::string ScopeText(uint32_t scope) {
  char name[IF_NAMESIZE];
  if (if_indextoname(scope, name) != nullptr) return name;
  return std::to_string(static_cast<unsigned long>(scope));
}

}  // namespace

SocketAddress TcpAddress(std::string_view host, uint16_t port) {
  SocketAddress out;
  if (host == "*") {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    std::memcpy(&out.storage, &a, sizeof a);
    out.size = sizeof a;
    return out;
  }
  if (ParseIpv6(host, port, &out)) return out;
  sockaddr_in a{};
  const std::string text(host);
  if (inet_pton(AF_INET, text.c_str(), &a.sin_addr) != 1) Throw(EINVAL, "address");
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  std::memcpy(&out.storage, &a, sizeof a);
  out.size = sizeof a;
  return out;
}

SocketAddress LocalAddress(std::string_view path) {
  sockaddr_un a{};
  if (path.size() >= sizeof a.sun_path) Throw(ENAMETOOLONG, "address");
  a.sun_family = AF_UNIX;
  std::memcpy(a.sun_path, path.data(), path.size());
  SocketAddress out;
  std::memcpy(&out.storage, &a, sizeof a);
  out.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  return out;
}

std::string TcpAddressText(int fd, Side side) {
  sockaddr_storage s{};
  socklen_t size = sizeof s;
  sockaddr* a = reinterpret_cast<sockaddr*>(&s);
  const int rc = side == Side::kLocal ? getsockname(fd, a, &size) : getpeername(fd, a, &size);
  if (rc != 0) return "error";
  char text[INET6_ADDRSTRLEN] = "";
  if (s.ss_family == AF_INET6) {
    const auto* a6 = reinterpret_cast<const sockaddr_in6*>(&s);
    inet_ntop(AF_INET6, &a6->sin6_addr, text, sizeof text);
    std::string out = std::string("tcp://") + text;
    if (a6->sin6_scope_id != 0) out += "%" + ScopeText(a6->sin6_scope_id);
    return out + ":" + std::to_string(ntohs(a6->sin6_port));
  }
  if (s.ss_family == AF_INET) {
    const auto* a4 = reinterpret_cast<const sockaddr_in*>(&s);
    inet_ntop(AF_INET, &a4->sin_addr, text, sizeof text);
    return std::string("tcp://") + text + ":" + std::to_string(ntohs(a4->sin_port));
  }
  return "error";
}

namespace {

// The path of one side of a local socket: true with `path` ("" when the side
// has none), false when the query fails.
bool LocalPath(int fd, Side side, std::string* path) {
  sockaddr_un a{};
  socklen_t size = sizeof a;
  sockaddr* p = reinterpret_cast<sockaddr*>(&a);
  const int rc = side == Side::kLocal ? getsockname(fd, p, &size) : getpeername(fd, p, &size);
  if (rc != 0) return false;
  const size_t offset = offsetof(sockaddr_un, sun_path);
  path->clear();
  // An abstract address (leading NUL) has no path to print either.
  if (size > offset && a.sun_path[0] != '\0') {
    path->assign(a.sun_path, strnlen(a.sun_path, size - offset));
  }
  return true;
}

}  // namespace

std::string LocalAddressText(int fd, Side side) {
  std::string path;
  if (!LocalPath(fd, side, &path)) return "error";
  if (!path.empty()) return "unix://" + path;
  char buffer[160];
  if (side == Side::kLocal) {
    std::snprintf(buffer, sizeof buffer, "unix://...(pid:%u)", static_cast<unsigned>(getpid()));
    return buffer;
  }
  ucred cred{};
  socklen_t size = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return "unix://...";
  std::string ours;
  if (!LocalPath(fd, Side::kLocal, &ours)) return "error";
  if (ours.empty()) ours = "...";
  std::snprintf(buffer, sizeof buffer, "(pid:%u uid:%u gid:%u)", static_cast<unsigned>(cred.pid),
                static_cast<unsigned>(cred.uid), static_cast<unsigned>(cred.gid));
  return "unix://" + ours + buffer;
}

}  // namespace net
}  // namespace zel
