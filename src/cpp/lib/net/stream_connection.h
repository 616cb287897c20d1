// StreamConnection: the Connection of the network transport. On the client
// side it resolves the host (unless it is an address literal or a local
// path), tries the addresses in turn, guards each attempt with a timer and
// connects a fresh socket for each; on the server side it wraps a socket the
// acceptor has filled.
//
// States (printed words): Init, Accepting, Resolving, Resolved, Connecting,
// Connected, Closing, Closed, Error, Deleted.
//
//   client: Init -> Resolving -> Resolved -> Connecting -> Connected
//                                   ^------- failed or timed out, addresses left
//           Connecting, no addresses left (or a literal target) -> Error
//   server: Accepting -> Connected (Accept)
//   any but Closing, Closed: Close or an I/O failure -> Closing -> Closed
//
// A connection that fails every resolved address reports EHOSTUNREACH; with
// a literal address or a local path it reports the connect error itself. An
// attempt that times out (SocketOptions::timeout, milliseconds) moves on like
// a refused one; the late completion of an abandoned attempt is ignored.
//
// Threads. One lock per connection, held over each dispatched step and each
// callback, over state changes and their entry actions, and never over a
// user handler or the transport's socket factory: work for outside the lock
// is collected while it is held and run after it is released. Steps run on
// the dispatcher's threads, socket completions on event-loop threads.
#ifndef ZEL_NET_STREAM_CONNECTION_H_
#define ZEL_NET_STREAM_CONNECTION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <boost/container/small_vector.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/connection.h"
#include "cpp/lib/net/host_name_resolver.h"
#include "cpp/lib/net/net_metrics.h"
#include "cpp/lib/net/socket_options.h"
#include "cpp/lib/net/transport.h"
#include "cpp/lib/timer/timer.h"

namespace zel {

class Dispatcher;
class TimerFactory;

namespace net {

class StreamConnection final : public Connection,
                               public std::enable_shared_from_this<StreamConnection> {
 public:
  enum class ConnectionState {
    INIT = 0,
    ACCEPTING,
    RESOLVING,
    RESOLVED,
    CONNECTING,
    CONNECTED,
    CLOSING,
    CLOSED,
    ERROR,
    DELETED,
  };

  struct Params {
    uint32_t id = 0;
    Role role = Role::CLIENT;
    Endpoint endpoint;
    SocketOptions options;
    // Made at creation for literal addresses, local paths and servers.
    StreamSocketPtr socket;
    std::weak_ptr<Transport> transport;
    std::weak_ptr<HostNameResolver> resolver;
    boost::shared_ptr<Dispatcher> dispatcher;
    std::shared_ptr<TimerFactory> timers;
    ConnectionMetrics metrics;
  };

  static std::shared_ptr<StreamConnection> Create(Params params);
  ~StreamConnection() override;

  // Connection
  StreamSocketPtr socket() const override;
  Endpoint local_endpoint() const override;
  Endpoint remote_endpoint() const override;
  X509CertificatePtr peer_certificate() const override;
  ConnectionInfo info() const override;
  void Connect(StatusHandler handler) override;
  void Accept() override;
  void Close(CloseReason reason) override;
  void Write(IoBuffer buffer, IoHandler handler) override;
  void Read(IoBuffer buffer, std::size_t size, int mode, IoHandler handler) override;
  uint32_t id() const override { return id_; }
  void set_priority(ConnectionPriority priority) override;

  ConnectionState state() const;
  // "StreamConnection[<id> <state> to|on <uri> sid:<socket id or -1>]".
  std::string name() const;

 private:
  struct PrivateTag {};

 public:
  StreamConnection(PrivateTag, Params params);

 private:
  // A piece of work for after the lock is released: a user handler with its
  // outcome, or a step of the connection's own. Handlers are held as they
  // are, so that queueing one allocates nothing.
  struct Work {
    IoHandler io;
    StatusHandler connect;
    std::function<void()> step;
    boost::system::error_code status;
    std::size_t bytes = 0;

    void operator()() const {
      if (io) {
        io(status, bytes);
      } else if (connect) {
        connect(status);
      } else if (step) {
        step();
      }
    }
  };
  using WorkList = boost::container::small_vector<Work, 2>;

  // Runs `body` under the lock, then, with the lock released, the work it
  // left (user handlers, the next step) and, if it asked for it, the
  // unregistration from the transport.
  template <class... Params, class... Args>
  void Run_(void (StreamConnection::*body)(Params...), Args&&... args) EXCLUDES(mutex_) {
    WorkList work;
    bool unregister = false;
    {
      MutexLock lock(mutex_);
      (this->*body)(std::forward<Args>(args)...);
      work.swap(pending_);
      unregister = std::exchange(unregister_, false);
    }
    RunWork_(work);
    if (unregister) Unregister_();
  }
  // Runs each piece of work; one that throws ends the process (NET9999).
  static void RunWork_(WorkList& work);
  // Posts `handler` with ENOTCONN, for a read or write refused at once.
  void PostRefusal_(IoHandler handler);

  void SetState_(ConnectionState state) REQUIRES(mutex_);
  void Exit_(ConnectionState state) REQUIRES(mutex_);
  void Enter_(ConnectionState state) REQUIRES(mutex_);
  void EnterResolving_() REQUIRES(mutex_);
  void EnterConnecting_() REQUIRES(mutex_);
  void EnterConnected_() REQUIRES(mutex_);
  void UpdateName_() REQUIRES(mutex_);
  // Hands `status` to the connect handler, once, through the pending work.
  void Deliver_(const boost::system::error_code& status) REQUIRES(mutex_);
  // The peer's certificate and " with ..." for the log, on TLS connections.
  std::string PeerAuthText_() REQUIRES(mutex_);

  // Steps; each runs under the lock through Run_.
  void Connect_(StatusHandler& handler) REQUIRES(mutex_);
  void ResolveHandler_(const boost::system::error_code& status, const AddressList& addresses)
      REQUIRES(mutex_);
  void TryNextEndpoint_() REQUIRES(mutex_);
  void SocketFailed_(const boost::system::error_code& error) REQUIRES(mutex_);
  void SocketMade_(const Endpoint& target, SocketResult& result) REQUIRES(mutex_);
  // `attempt` is the id of the socket the completion belongs to.
  void ConnectCallback_(const boost::system::error_code& status, uint32_t attempt)
      REQUIRES(mutex_);
  void Accept_() REQUIRES(mutex_);
  void Write_(IoBuffer& buffer, IoHandler& handler) REQUIRES(mutex_);
  void Read_(IoBuffer& buffer, std::size_t size, int mode, IoHandler& handler) REQUIRES(mutex_);
  void IoCallback_(const boost::system::error_code& status, std::size_t bytes,
                   IoHandler& handler, bool write) REQUIRES(mutex_);
  void CloseInternal_(CloseReason reason) REQUIRES(mutex_);

  // Runs without the lock: asks the transport for a socket.
  void SetSocket_() EXCLUDES(mutex_);
  void ReleaseSocket_() REQUIRES(mutex_);
  // Takes the connection off the transport's list and drops the reference.
  void Unregister_() EXCLUDES(mutex_);

  const uint32_t id_;
  const Role role_;
  const Endpoint endpoint_;
  const SocketOptions options_;
  const boost::shared_ptr<Dispatcher> dispatcher_;
  const std::shared_ptr<TimerFactory> timers_;
  const std::weak_ptr<HostNameResolver> resolver_;
  const ConnectionMetrics metrics_;

  mutable Mutex mutex_;
  ConnectionState state_ GUARDED_BY(mutex_) = ConnectionState::INIT;
  boost::system::error_code error_ GUARDED_BY(mutex_);
  CloseReason closeReason_ GUARDED_BY(mutex_) = CloseReason::UNKNOWN;
  bool closeReasonSet_ GUARDED_BY(mutex_) = false;
  ConnectionPriority priority_ GUARDED_BY(mutex_) = ConnectionPriority::NORMAL;
  std::string name_ GUARDED_BY(mutex_);
  std::vector<Endpoint> resolved_ GUARDED_BY(mutex_);
  std::size_t cursor_ GUARDED_BY(mutex_) = 0;
  Endpoint local_ GUARDED_BY(mutex_);
  Endpoint remote_ GUARDED_BY(mutex_);
  StreamSocketPtr socket_ GUARDED_BY(mutex_);
  PeerAuthentication peer_ GUARDED_BY(mutex_);
  std::weak_ptr<Transport> transport_ GUARDED_BY(mutex_);
  TimerPtr guard_ GUARDED_BY(mutex_);
  StatusHandler connectHandler_ GUARDED_BY(mutex_);
  // Work for after the lock is released, in order.
  WorkList pending_ GUARDED_BY(mutex_);
  bool unregister_ GUARDED_BY(mutex_) = false;
};

// "Init", "Accepting", ..., or "<StreamConnection::ConnectionState::INVALID>".
const char* ToString(StreamConnection::ConnectionState state);

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_STREAM_CONNECTION_H_
