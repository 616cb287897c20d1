// StreamSocket and StreamAcceptor: the thin asynchronous layer over the event
// loop's sockets, one implementation template each (impl/), instantiated for
// TCP, TLS over TCP, local stream sockets and TLS over local stream sockets.
// The transport (net_transport.h) makes them; a StreamConnection drives a
// socket, and the transport drives acceptors.
//
//   socket->async_connect(Endpoint("tcp://127.0.0.1:4096"), onConnected);
//   socket->async_read(buf, 24, onRead, kReadFill);
//   socket->async_write(frame, size, onWritten);
//   socket->async_close(/*shutdown=*/false);
//
// Handlers take a status: a system error code (ECANCELED for an operation cut
// short by a close) or a code of the "zel.net" category. The bytes of a read
// or write must stay valid until its handler has run; a socket keeps itself
// alive while an operation is pending.
//
// Threads: every operation may be called from any thread. Each object has one
// lock, taken by every operation and completion and released before a handler
// runs. Handlers run on event-loop threads. The real close always runs on an
// event-loop thread.
#ifndef ZEL_NET_STREAM_SOCKET_H_
#define ZEL_NET_STREAM_SOCKET_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "cpp/lib/net/x509_certificate.h"

namespace zel {
namespace net {

class Endpoint;

using StatusHandler = std::function<void(const boost::system::error_code&)>;
using IoHandler = std::function<void(const boost::system::error_code&, std::size_t)>;

// Read modes: fill the whole buffer, or return once some bytes have come.
constexpr int kReadFill = 0;
constexpr int kReadSome = 1;

enum class StreamSide { CLIENT = 0, SERVER = 1 };
// "client", "server", or "<StreamSide::INVALID>".
const char* ToString(StreamSide side);

class StreamSocket {
 public:
  enum class State { INIT = 0, OPEN, ACCEPTING, CONNECTED, CLOSING, CLOSED, DELETED };

  virtual ~StreamSocket() = default;
  StreamSocket(const StreamSocket&) = delete;
  StreamSocket& operator=(const StreamSocket&) = delete;

  // Opens the socket for the endpoint's address family; only as the first
  // operation. Throws boost::system::system_error ("open"; EINVAL for a host
  // that is no address literal, ENAMETOOLONG for a local path of 108 bytes or
  // more).
  virtual void open(const Endpoint& endpoint) = 0;
  // Called by the acceptor once an accept into this socket has completed;
  // `handler` gets the outcome once the socket is ready (after the TLS
  // handshake on TLS sockets).
  virtual void on_accept(const boost::system::error_code& status, StatusHandler handler) = 0;
  // Connects (and on TLS, shakes hands); opens the socket first if needed.
  virtual void async_connect(const Endpoint& endpoint, StatusHandler handler) = 0;
  // kReadFill completes when `size` bytes have come, kReadSome when some
  // have; another mode does nothing and drops the handler.
  virtual void async_read(void* buffer, std::size_t size, IoHandler handler, int mode) = 0;
  // Completes when all bytes are written.
  virtual void async_write(const void* buffer, std::size_t size, IoHandler handler) = 0;
  // Cancels pending operations and closes on the event loop; with `shutdown`
  // both directions are shut down first. A second call is logged and ignored.
  virtual void async_close(bool shutdown) = 0;
  // The descriptor is valid (and, on TLS, the TLS layer is set up).
  virtual bool is_open() const = 0;
  // Printed addresses: "tcp://10.0.0.1:4096", "unix:///run/x.sock",
  // "ssl-tcp://...", or "" before they are known.
  virtual std::string local_endpoint() const = 0;
  virtual std::string remote_endpoint() const = 0;

  // The identifier the transport gave; unique among its objects.
  virtual uint32_t id() const = 0;
  virtual State state() const = 0;
  // The peer's certificate after a TLS handshake; empty on plain sockets.
  virtual X509CertificatePtr peer_certificate() const = 0;
  // The descriptor, -1 when closed.
  virtual int native_handle() const = 0;

 protected:
  StreamSocket() = default;
};

class StreamAcceptor {
 public:
  enum class State { INIT = 0, OPEN, LISTENING, CLOSING, CLOSED, DELETED };

  virtual ~StreamAcceptor() = default;
  StreamAcceptor(const StreamAcceptor&) = delete;
  StreamAcceptor& operator=(const StreamAcceptor&) = delete;

  // open acts in INIT, bind and listen in OPEN (listen moves to LISTENING);
  // in other states they do nothing. Failures throw
  // boost::system::system_error ("open", "bind", "listen").
  virtual void open() = 0;
  virtual void bind() = 0;
  virtual void listen() = 0;
  // Accepts one connection into `socket` (made by the same transport for the
  // same scheme). `accept_handler` runs as soon as the descriptor is
  // accepted, `connect_handler` when the socket is ready (after the TLS
  // handshake). After async_close, `connect_handler` gets ECANCELED through
  // the event loop, never inline.
  virtual void async_accept(const std::shared_ptr<StreamSocket>& socket,
                            StatusHandler accept_handler, StatusHandler connect_handler) = 0;
  virtual void async_close() = 0;

  virtual uint32_t id() const = 0;
  virtual State state() const = 0;
  virtual int native_handle() const = 0;
  // The printed bound address ("tcp://127.0.0.1:40123" after binding port
  // 0), or "error".
  virtual std::string local_endpoint() const = 0;

 protected:
  StreamAcceptor() = default;
};

using StreamSocketPtr = std::shared_ptr<StreamSocket>;
using StreamAcceptorPtr = std::shared_ptr<StreamAcceptor>;

// "Init", "Open", ..., or "<StreamSocket::State::INVALID>".
const char* ToString(StreamSocket::State state);
// "Init", "Open", "Listening", ..., or "<StreamAcceptor::State::INVALID>".
const char* ToString(StreamAcceptor::State state);

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_STREAM_SOCKET_H_
