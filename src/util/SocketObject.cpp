#include "util/SocketObject.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "cpp/lib/common/logger.h"
#include "util/mpa_error_tags.h"

// Logs "ASSERT: <file>:<line>: <what>" and aborts, whatever the log level.
#define MPA_SOCKET_ASSERT(cond, what)                                 \
  do {                                                                \
    if (!(cond)) {                                                    \
      MPALIB_LOG(::zel::kLogError)                                    \
          .addTag(::ZelMpa::tag::MPA122)                              \
          .format("ASSERT: %s:%d: " what, __FILE__, __LINE__);        \
      ::abort();                                                      \
    }                                                                 \
  } while (0)

namespace ZelMpa {

namespace {

std::string FormatSocketError(const char* op, int e, int sd) {
  return "SocketError on sd " + std::to_string(sd) + ", in " + op + ": " +
         std::strerror(e) + " (" + std::to_string(e) + ")";
}

// Frees the getaddrinfo result on every way out of Connect.
struct AddrInfoGuard {
  addrinfo* list = nullptr;
  ~AddrInfoGuard() {
    if (list != nullptr) freeaddrinfo(list);
  }
};

}  // namespace

SocketError::SocketError(const char* op, int e, int sd)
    : SocketException(FormatSocketError(op, e, sd)),
      op_(op),
      errno_(e),
      sd_(sd) {}

Socket::~Socket() {
  try {
    Close();
  } catch (const SocketException& e) {
    MPALIB_LOG(zel::kLogError).addTag(ZelMpa::tag::MPA122).format("%s", e.what());
  }
}

void Socket::Connect(const char* addr, const char* port) {
  Connect(addr, port, true, false);
}

void Socket::Connect(const char* addr, const char* port, bool blocking,
                     bool noDelay) {
  if (addr == nullptr) throw std::invalid_argument("addr");
  if (port == nullptr) throw std::invalid_argument("port");

  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  AddrInfoGuard result;
  int rc = getaddrinfo(addr, port, &hints, &result.list);
  if (rc != 0 || result.list == nullptr) {
    throw SocketError("getaddrinfo", rc, sd_);
  }
  const addrinfo* first = result.list;

  if (sd_ == -1) {
    sd_ = ::socket(first->ai_family, first->ai_socktype, first->ai_protocol);
    if (sd_ == -1) throw SocketError("socket", errno, sd_);
  }

  int flags = fcntl(sd_, F_GETFD);
  if (flags == -1) throw SocketError("getting CLOEXEC", errno, sd_);
  if (fcntl(sd_, F_SETFD, flags | FD_CLOEXEC) == -1) {
    throw SocketError("setting CLOEXEC", errno, sd_);
  }
  MPALIB_LOG(zel::kLogDebug)
      .format("Set FD_CLOEXEC flag on socket %d succesfully", sd_);

  if (!blocking) SetNonBlocking();
  if (noDelay) SetNoDelay();

  if (::connect(sd_, first->ai_addr, first->ai_addrlen) == -1) {
    int e = errno;
    if (!(e == EINPROGRESS && !blocking)) throw SocketError("connect", e, sd_);
  }
  MPALIB_LOG(zel::kLogDebug)
      .format("Socket %d connected to %s:%s (%s)", sd_, addr, port,
              blocking ? "blocking" : "non-blocking");
}

size_t Socket::Send(const void* data, size_t len) {
  if (len == 0) return 0;
  const char* p = static_cast<const char*>(data);
  size_t sent = 0;
  while (sent < len) {
    size_t want = len - sent;
    ssize_t n = ::send(sd_, p + sent, want, MSG_NOSIGNAL);
    if (n == 0) {
      MPA_SOCKET_ASSERT(false, "send() returned 0 bytes");
    }
    if (n < 0) {
      int e = errno;
      if (e == EAGAIN || e == EWOULDBLOCK) break;
      throw SocketError("send", e, sd_);
    }
    MPA_SOCKET_ASSERT(static_cast<size_t>(n) <= want,
                      "Send() returned too many bytes");
    sent += static_cast<size_t>(n);
  }
  return sent;
}

int Socket::GetError() {
  int error = 0;
  socklen_t size = sizeof(error);
  if (getsockopt(sd_, SOL_SOCKET, SO_ERROR, &error, &size) == -1) {
    throw SocketError("getsockopt", errno, sd_);
  }
  return error;
}

size_t Socket::Recv(void* buffer, size_t len) {
  char* p = static_cast<char*>(buffer);
  size_t got = 0;
  while (got < len) {
    ssize_t n = ::recv(sd_, p + got, len - got, 0);
    if (n == 0) throw SocketShutdown();
    if (n < 0) {
      int e = errno;
      if (e == EAGAIN || e == EWOULDBLOCK) break;
      MPALIB_LOG(zel::kLogError)
          .addTag(ZelMpa::tag::MPA122)
          .format("Attempted to recv %zu bytes from sd %d, sock_errno = %d (%s)",
                  len - got, sd_, e, std::strerror(e));
      throw SocketError("recv", e, sd_);
    }
    got += static_cast<size_t>(n);
  }
  return got;
}

void Socket::Close() {
  if (sd_ == -1) return;
  int rc = ::close(sd_);
  int e = errno;
  sd_ = -1;
  if (rc != 0 && e != EINTR) throw SocketError("close", e, sd_);
}

void Socket::Shutdown() {
  if (sd_ == -1) return;
  if (::shutdown(sd_, SHUT_RDWR) == -1) {
    throw SocketError("shutdown", errno, sd_);
  }
}

void Socket::SetNonBlocking() {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  int flags = fcntl(sd_, F_GETFL);
  if (flags != -1) fcntl(sd_, F_SETFL, flags | O_NONBLOCK);
}

void Socket::SetBlocking() {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  int flags = fcntl(sd_, F_GETFL);
  if (flags != -1) fcntl(sd_, F_SETFL, flags & ~O_NONBLOCK);
}

void Socket::SetNoDelay() {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  int on = 1;
  if (setsockopt(sd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) == -1) {
    throw SocketError("setsockopt", errno, sd_);
  }
}

void Socket::SetLinger(bool on, int seconds) {
  linger value;
  value.l_onoff = on ? 1 : 0;
  value.l_linger = seconds;
  if (setsockopt(sd_, SOL_SOCKET, SO_LINGER, &value, sizeof(value)) == -1) {
    throw SocketError("setsockopt (SO_LINGER)", errno, sd_);
  }
}

void Socket::SetSendBuffer(int size) {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  if (setsockopt(sd_, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == -1) {
    throw SocketError("setsockopt (SO_SNBUF)", errno, sd_);
  }
}

void Socket::SetRecvBuffer(int size) {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  if (setsockopt(sd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)) == -1) {
    throw SocketError("setsockopt (SO_RCVBUF)", errno, sd_);
  }
}

void Socket::SetKeepAlive() {
  MPA_SOCKET_ASSERT(sd_ != -1, "Descriptor is invalid");
  int on = 1;
  if (setsockopt(sd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on)) == -1) {
    throw SocketError("setsockopt (SO_KEEPALIVE)", errno, sd_);
  }
}

}  // namespace ZelMpa
