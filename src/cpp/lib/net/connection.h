// Connection: one asynchronous stream to a peer, as the RPC layer sees it.
// StreamConnection (stream_connection.h) is the implementation; the
// transport (net_transport.h) makes connections, on the client side with
// NewConnection and on the server side for each accepted peer.
//
//   conn->Connect([](const boost::system::error_code& ec) { ... });
//   conn->Write(IoBuffer(frame), [](const error_code& ec, size_t n) { ... });
//   conn->Read(IoBuffer(header), 24, kReadFill, onHeader);
//   conn->Close(CloseReason::BY_USER);
//
// Connect, Close, Write and Read return at once: they post their work to the
// connection's dispatcher, which does nothing if the connection has gone by
// then. Each handler runs once, on a dispatcher or event-loop thread, with no
// lock held; a handler must not throw (the process aborts, NET9999). The
// connect handler gets the one outcome of the connect: success, the connect
// error, EHOSTUNREACH when every resolved address failed, or the error that
// closed the connection before it was connected.
//
// One write at a time is the caller's duty: writes go to the socket in the
// order they are dispatched, with no queue here.
//
// Threads: every operation may be called from any thread.
#ifndef ZEL_NET_CONNECTION_H_
#define ZEL_NET_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cpp/lib/common/buffer.h"
#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/net/endpoint.h"
#include "cpp/lib/net/stream_socket.h"
#include "cpp/lib/net/x509_certificate.h"

namespace zel {
namespace net {

enum class ConnectionPriority { LOW = 0, NORMAL = 1, HIGH = 2 };
enum class CloseReason { UNKNOWN = 0, NETWORK_ERROR = 1, BY_PEER = 2, BY_USER = 3, SHUTDOWN = 4 };

// "low", "normal", "high", or "<ConnectionPriority::INVALID>".
const char* ToString(ConnectionPriority priority);
// "unknown", "network error", "by peer", "by user", "shutdown", or
// "<CloseReason::INVALID>".
const char* ToString(CloseReason reason);

// A snapshot of a connection, for logs.
struct ConnectionInfo {
  uint32_t id = 0;
  ConnectionPriority priority = ConnectionPriority::NORMAL;
  StreamSide side = StreamSide::CLIENT;
  std::string endpoint;
  std::string local_endpoint;
  std::string peer_endpoint;
  PeerAuthentication peer_auth;
};

// "{id: 1, pr: normal, side: client, endpoint: ..., local-ep: ..., peer-ep: ...,
// peer-auth: {certificate: none}}".
std::string ToString(const ConnectionInfo& info);

// Bytes to write or room to read into, with a counted reference to whatever
// owns them; the connection keeps the reference until the operation's handler
// has run, so the bytes outlive the operation whatever happens to the caller.
class IoBuffer {
 public:
  IoBuffer() = default;
  IoBuffer(void* data, std::size_t size, RefPtr<const IRefCountable> owner)
      : data_(static_cast<uint8_t*>(data)), size_(size), owner_(std::move(owner)) {}
  // The whole of a shared buffer.
  explicit IoBuffer(const SharedBufferPtr& buffer)
      : data_(buffer->data()), size_(buffer->size()), owner_(buffer) {}

  uint8_t* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  uint8_t* data_ = nullptr;
  std::size_t size_ = 0;
  RefPtr<const IRefCountable> owner_;
};

class Connection {
 public:
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The socket, or none before one is made and after the close.
  virtual StreamSocketPtr socket() const = 0;
  // On a server the listening endpoint; on a client the local address once
  // connected.
  virtual Endpoint local_endpoint() const = 0;
  // On a client the current target; on a server the peer once accepted.
  virtual Endpoint remote_endpoint() const = 0;
  // The TLS peer's certificate once connected; none on plain connections.
  virtual X509CertificatePtr peer_certificate() const = 0;
  virtual ConnectionInfo info() const = 0;

  // Client side: resolves, connects and calls `handler` with the outcome. A
  // connection connects once: a second call is logged and dropped.
  virtual void Connect(StatusHandler handler) = 0;
  // Server side, synchronous: takes the accepted socket into use.
  virtual void Accept() = 0;
  virtual void Close(CloseReason reason) = 0;
  // Writes all of `buffer`; the handler gets ENOTCONN when not connected.
  virtual void Write(IoBuffer buffer, IoHandler handler) = 0;
  // Reads `size` bytes (kReadFill) or what has come (kReadSome) into
  // `buffer`, which must hold `size` bytes.
  virtual void Read(IoBuffer buffer, std::size_t size, int mode, IoHandler handler) = 0;

  virtual uint32_t id() const = 0;
  // Stored and printed here; the RPC layer decides what it means.
  virtual void set_priority(ConnectionPriority priority) = 0;

 protected:
  Connection() = default;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_CONNECTION_H_
