// ZelMpa::Socket: a thin object over one TCP socket descriptor, used for the
// connection to the local management-plane agent.
//
// System failures become exceptions that name the failed operation
// (SocketError), a peer that closed becomes SocketShutdown, and results the
// kernel never gives (a send of 0 bytes, more bytes than asked for, a setter
// on a closed socket) are fatal: they log "ASSERT: <file>:<line>: ..." with
// "errorCode:MPA122" and abort the process.
//
// Threads: the class holds no lock. Its owner serialises every call (the MPA
// library does so under its client mutex).
#ifndef ZEL_UTIL_SOCKET_OBJECT_H_
#define ZEL_UTIL_SOCKET_OBJECT_H_

#include <cstddef>
#include <string>

#include "util/MpaException.h"

namespace ZelMpa {

class SocketException : public MpaException {
 public:
  using MpaException::MpaException;
};

// A failed system call. The text reads
// "SocketError on sd <sd>, in <op>: <strerror(e)> (<e>)".
class SocketError : public SocketException {
 public:
  // `op` must be a string literal or otherwise outlive the exception.
  SocketError(const char* op, int e, int sd);

  const char* Operation() const { return op_; }
  int Errno() const { return errno_; }
  int Descriptor() const { return sd_; }

 private:
  const char* op_;
  int errno_;
  int sd_;
};

// The peer closed the connection (a receive returned 0 bytes).
class SocketShutdown : public SocketException {
 public:
  SocketShutdown() : SocketException("SocketShutdown") {}
};

class Socket {
 public:
  // No descriptor yet (-1); Connect creates one.
  Socket() = default;
  // Takes ownership of `sd`.
  explicit Socket(int sd) : sd_(sd) {}
  // Closes the descriptor; a failing close is swallowed here.
  virtual ~Socket();

  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  // Blocking connect without TCP_NODELAY.
  virtual void Connect(const char* addr, const char* port);
  // Resolves `addr`:`port` as IPv4 TCP, creates the descriptor unless one
  // exists, sets FD_CLOEXEC, applies the two options and connects to the
  // first address. A non-blocking connect that is still in progress counts
  // as success. Throws std::invalid_argument for a null argument and
  // SocketError ("getaddrinfo", "socket", "getting CLOEXEC",
  // "setting CLOEXEC", "connect", "setsockopt") on failure.
  virtual void Connect(const char* addr, const char* port, bool blocking,
                       bool noDelay);

  // Sends until all of `len` is out or the socket would block, and returns
  // the bytes sent (possibly fewer than `len`, possibly 0; errno is then
  // EAGAIN). Never raises SIGPIPE. Throws SocketError "send".
  virtual size_t Send(const void* data, size_t len);
  // The pending error of the socket (SO_ERROR). Throws SocketError
  // "getsockopt".
  virtual int GetError();
  // Receives until `len` bytes are in or the socket would block, and returns
  // the bytes received. Throws SocketShutdown when any single receive sees
  // the end of the stream (bytes read before it in the same call are lost),
  // SocketError "recv" on other failures.
  virtual size_t Recv(void* buffer, size_t len);
  // Closes the descriptor and forgets it. Harmless on a closed socket.
  // Throws SocketError "close" (showing descriptor -1) unless the close
  // succeeded or was interrupted.
  virtual void Close();
  // shutdown(SHUT_RDWR); harmless on a closed socket. Throws SocketError
  // "shutdown".
  virtual void Shutdown();
  // fcntl(O_NONBLOCK) on or off; failures of fcntl are ignored.
  virtual void SetNonBlocking();
  virtual void SetBlocking();
  // TCP_NODELAY. Throws SocketError "setsockopt".
  virtual void SetNoDelay();

  // Throw SocketError naming the option on failure.
  void SetLinger(bool on, int seconds);
  void SetSendBuffer(int size);
  void SetRecvBuffer(int size);
  void SetKeepAlive();

  int GetDescriptor() const { return sd_; }

 private:
  int sd_ = -1;
};

}  // namespace ZelMpa

#endif  // ZEL_UTIL_SOCKET_OBJECT_H_
