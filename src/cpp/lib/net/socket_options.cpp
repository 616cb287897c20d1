#include "cpp/lib/net/socket_options.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include "cpp/lib/common/logger.h"

namespace zel {
namespace net {
namespace {

void Append(std::string& out, const char* format, long long value) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, value);
  out += buffer;
}

// Throws what a failed setsockopt of a required option throws.
void SetRequired(int fd, int level, int name, const void* value, socklen_t size) {
  if (fd < 0 || setsockopt(fd, level, name, value, size) != 0) {
    const int error = fd < 0 ? EBADF : errno;
    throw boost::system::system_error(error, boost::system::system_category(), "set_option");
  }
}

void SetFlag(int fd, int level, int name) {
  const int one = 1;
  SetRequired(fd, level, name, &one, sizeof one);
}

// A keepalive tuning: a failure is logged and the caller goes on.
void SetTuning(int fd, int name, const char* label, int value) {
  if (setsockopt(fd, IPPROTO_TCP, name, &value, sizeof value) != 0) {
    const int error = errno;
    ZEL_NET_LOG(kLogWarn).format("Failed to set %s to %d for fd %d (error %d:%s)", label, value,
                                  fd, error, std::strerror(error));
  }
}

// Every write is a whole message of its own: no waiting to fill a segment.
// Best effort: only a socket that is not TCP refuses it, and that costs
// nothing.
void SetNoDelay(int fd) {
  const int one = 1;
  if (fd >= 0 && setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) {
    const int error = errno;
    ZEL_NET_LOG(kLogDebug).format("Failed to set TCP_NODELAY for fd %d (error %d:%s)", fd, error,
                                  std::strerror(error));
  }
}

void ApplyKeepaliveAndLinger(int fd, const SocketOptions& options) {
  if (options.keepalive) {
    SetFlag(fd, SOL_SOCKET, SO_KEEPALIVE);
    if (options.keepalive_idle) SetTuning(fd, TCP_KEEPIDLE, "TCP_KEEPIDLE", *options.keepalive_idle);
    if (options.keepalive_count) SetTuning(fd, TCP_KEEPCNT, "TCP_KEEPCNT", *options.keepalive_count);
    if (options.keepalive_interval) {
      SetTuning(fd, TCP_KEEPINTVL, "TCP_KEEPINTVL", *options.keepalive_interval);
    }
  }
  if (options.linger) {
    linger value{};
    value.l_onoff = *options.linger >= 0 ? 1 : 0;
    value.l_linger = *options.linger >= 0 ? *options.linger : 0;
    SetRequired(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value);
  }
}

void LogSetting(const SocketOptions& options) {
  ZEL_NET_LOG(kLogInfo).format("Setting socket options %s", ToString(options).c_str());
}

}  // namespace

std::string ToString(const UdsFileOptions& options) {
  std::string out = "{";
  if (options.mkdir) out += "mkdir";
  if (options.perm) {
    if (options.mkdir) out += ' ';
    Append(out, "perm:%04llo", *options.perm);
  }
  return out + "}";
}

std::string ToString(const SocketOptions& options) {
  std::string out = "{";
  if (options.timeout) Append(out, "timeout:%llims ", *options.timeout);

  out += "acceptor:{";
  if (options.acceptor.reuse_address) out += "reuse_address";
  if (options.acceptor.backlog) {
    if (options.acceptor.reuse_address) out += ' ';
    Append(out, "backlog:%llu", *options.acceptor.backlog);
  }
  out += "}";

  if (!options.ns.empty()) out += " ns:" + options.ns;
  if (options.keepalive) {
    Append(out, " keepalive:{%llis", options.keepalive_idle.value_or(0));
    Append(out, "+%lli", options.keepalive_count.value_or(0));
    Append(out, "*%llis}", options.keepalive_interval.value_or(0));
  }
  if (options.linger) {
    const bool on = *options.linger >= 0;
    out += on ? " linger:{on," : " linger:{off,";
    Append(out, "%llis}", on ? *options.linger : 0);
  }
  out += " uds:" + ToString(options.uds);
  if (!options.security_context_id.empty()) out += " sctx-id:" + options.security_context_id;
  return out + "}";
}

void ApplyToTcpSocket(int fd, const SocketOptions& options) {
  LogSetting(options);
  ApplyKeepaliveAndLinger(fd, options);
  SetNoDelay(fd);
}

void ApplyToTcpAcceptor(int fd, const SocketOptions& options) {
  LogSetting(options);
  if (options.acceptor.reuse_address) SetFlag(fd, SOL_SOCKET, SO_REUSEADDR);
  ApplyKeepaliveAndLinger(fd, options);
  SetNoDelay(fd);  // accepted sockets inherit it
}

void ApplyToLocalAcceptor(int fd, const SocketOptions& options) {
  LogSetting(options);
  if (options.acceptor.reuse_address) SetFlag(fd, SOL_SOCKET, SO_REUSEADDR);
}

void ApplyUdsFileOptions(const std::string& path, const UdsFileOptions& options) {
  ZEL_NET_LOG(kLogInfo).format("Applying UDS file options %s", ToString(options).c_str());
  if (options.perm) {
    boost::filesystem::permissions(path, static_cast<boost::filesystem::perms>(*options.perm));
  }
}

}  // namespace net
}  // namespace zel
