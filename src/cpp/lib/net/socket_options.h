// SocketOptions: the one record every socket of the network transport is
// configured from, with its printed form and its application to a socket.
//
//   zel::net::SocketOptions options;     // linger off, reuse_address on
//   options.timeout = 2000;              // connect guard, milliseconds
//   ToString(options) == "{timeout:2000ms acceptor:{reuse_address} linger:{off,0s} uds:{}}"
//   ApplyToTcpSocket(fd, options);       // keepalive, linger
//
// The Apply functions work on a native descriptor so that callers on any
// socket type (asio or plain) share them. They log "Setting socket options
// ..." first. A failure to set SO_REUSEADDR, SO_KEEPALIVE or SO_LINGER throws
// boost::system::system_error ("set_option"; a closed descriptor fails with
// EBADF); a failure of the three keepalive tunings is logged and the others
// are still tried.
//
// Threads: plain values; the functions keep no state.
#ifndef ZEL_NET_SOCKET_OPTIONS_H_
#define ZEL_NET_SOCKET_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>

namespace zel {
namespace net {

struct AcceptorOptions {
  bool reuse_address = true;
  // Unset means 128.
  std::optional<uint32_t> backlog;

  int Backlog() const { return static_cast<int>(backlog.value_or(128)); }
};

struct UdsFileOptions {
  // Create the parent directories of the socket file before binding.
  bool mkdir = false;
  // Mode given to the socket file after binding.
  std::optional<uint32_t> perm;
};

struct SocketOptions {
  // Connect guard of a stream connection; unset or not above 0: no guard.
  std::optional<int64_t> timeout;
  AcceptorOptions acceptor;
  // Network namespace under /var/run/netns/; empty: the current one.
  std::string ns;
  // SO_KEEPALIVE on, with the tunings below that are set.
  bool keepalive = false;
  std::optional<int32_t> keepalive_idle;      // seconds, TCP_KEEPIDLE
  std::optional<int32_t> keepalive_count;     // TCP_KEEPCNT
  std::optional<int32_t> keepalive_interval;  // seconds, TCP_KEEPINTVL
  UdsFileOptions uds;
  // Seconds; negative: linger off. Set (off) by default.
  std::optional<int32_t> linger = -1;
  // Security context by name; empty: the default one.
  std::string security_context_id;
};

// "{acceptor:{reuse_address} linger:{off,0s} uds:{}}" for the defaults.
std::string ToString(const SocketOptions& options);
std::string ToString(const UdsFileOptions& options);

// A TCP client socket: keepalive and linger (reuse_address has no effect).
void ApplyToTcpSocket(int fd, const SocketOptions& options);
// A TCP acceptor: SO_REUSEADDR when asked, then as a client socket.
void ApplyToTcpAcceptor(int fd, const SocketOptions& options);
// A local acceptor: SO_REUSEADDR only.
void ApplyToLocalAcceptor(int fd, const SocketOptions& options);
// Gives the bound socket file at `path` the mode of options.perm, if set.
// Throws boost::filesystem::filesystem_error on failure.
void ApplyUdsFileOptions(const std::string& path, const UdsFileOptions& options);

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_SOCKET_OPTIONS_H_
