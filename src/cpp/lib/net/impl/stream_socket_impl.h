// StreamSocketImpl<P> and StreamAcceptorImpl<P>: the stream socket and the
// acceptor over one protocol of the event loop. Private to zel::net: only the
// four per-kind files include this header (see socket_factory.h).
//
// P describes the protocol: tcp_protocol, local_protocol, or
// ssl_protocol<one of them> for TLS over it.
//
// Threads. Each object has one lock (mutex_) over its state, its texts and
// every call on the underlying socket, so that no two threads touch the
// socket at once; completions take it again and release it before a user
// handler runs. A TLS stream also runs its own intermediate steps (handshake
// records, partial reads) on the thread that completes them, so on TLS
// sockets every call and every completion additionally runs on the socket's
// strand: nothing touches the TLS engine from two threads. Reads and writes
// that must move a whole buffer are loops of single reads or writes, each
// started under the lock, rather than the event loop's composed operations,
// which would start their next step without it.
#ifndef ZEL_NET_IMPL_STREAM_SOCKET_IMPL_H_
#define ZEL_NET_IMPL_STREAM_SOCKET_IMPL_H_

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/strand.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/system/system_error.hpp>
#include <openssl/ssl.h>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/endpoint.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/impl/socket_factory.h"
#include "cpp/lib/net/socket_address.h"

namespace zel {
namespace net {
namespace detail {

struct tcp_protocol {
  using lower = boost::asio::ip::tcp;
  using socket_type = lower::socket;
  static constexpr bool kTls = false;
  static constexpr bool kLocal = false;
  static SocketAddress Address(const Endpoint& ep) { return TcpAddress(ep.host(), ep.port()); }
  static std::string Text(int fd, Side side) { return TcpAddressText(fd, side); }
};

struct local_protocol {
  using lower = boost::asio::local::stream_protocol;
  using socket_type = lower::socket;
  static constexpr bool kTls = false;
  static constexpr bool kLocal = true;
  static SocketAddress Address(const Endpoint& ep) { return LocalAddress(ep.path()); }
  static std::string Text(int fd, Side side) { return LocalAddressText(fd, side); }
};

template <class Plain>
struct ssl_protocol {
  using lower = typename Plain::lower;
  using socket_type = boost::asio::ssl::stream<typename Plain::socket_type>;
  static constexpr bool kTls = true;
  static constexpr bool kLocal = Plain::kLocal;
  static SocketAddress Address(const Endpoint& ep) { return Plain::Address(ep); }
  static std::string Text(int fd, Side side) { return Plain::Text(fd, side); }
};

using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;
using boost::system::error_code;

template <class P>
typename P::lower::endpoint ToAsio(const SocketAddress& a) {
  typename P::lower::endpoint ep;
  std::memcpy(ep.data(), a.Get(), a.size);
  ep.resize(a.size);
  return ep;
}

template <class P>
class StreamSocketImpl final : public StreamSocket,
                               public std::enable_shared_from_this<StreamSocketImpl<P>> {
 public:
  using socket_type = typename P::socket_type;
  using lowest_layer_type = typename P::lower::socket;

  explicit StreamSocketImpl(SocketParams params);
  ~StreamSocketImpl() override;

  // StreamSocket
  void open(const Endpoint& endpoint) override;
  void on_accept(const error_code& status, StatusHandler handler) override;
  void async_connect(const Endpoint& endpoint, StatusHandler handler) override;
  void async_read(void* buffer, std::size_t size, IoHandler handler, int mode) override;
  void async_write(const void* buffer, std::size_t size, IoHandler handler) override;
  void async_close(bool shutdown) override;
  bool is_open() const override;
  std::string local_endpoint() const override;
  std::string remote_endpoint() const override;
  uint32_t id() const override { return id_; }
  State state() const override;
  X509CertificatePtr peer_certificate() const override;
  int native_handle() const override;

  // The plain socket, into which the acceptor accepts.
  lowest_layer_type& socket() { return Lowest(); }

 private:
  lowest_layer_type& Lowest() {
    if constexpr (P::kTls) {
      return socket_.next_layer();
    } else {
      return socket_;
    }
  }
  const lowest_layer_type& Lowest() const {
    if constexpr (P::kTls) {
      return socket_.next_layer();
    } else {
      return socket_;
    }
  }

  // Runs `f` where the socket may be touched: on the strand for TLS, here
  // otherwise.
  template <class F>
  void Initiate_(F&& f) {
    if constexpr (P::kTls) {
      boost::asio::dispatch(strand_, std::forward<F>(f));
    } else {
      f();
    }
  }
  // A completion handler that runs where the socket may be touched.
  template <class H>
  auto Bind_(H&& h) {
    if constexpr (P::kTls) {
      return boost::asio::bind_executor(strand_, std::forward<H>(h));
    } else {
      return std::forward<H>(h);
    }
  }

  void SetState_(State state) REQUIRES(mutex_);
  void UpdateName_() REQUIRES(mutex_);
  // Stores the printed address of one side in `text`, with "ssl-" before it
  // on TLS. A failed query is logged (NET30) and leaves `text` as it was.
  void TakeAddressText_(Side side, std::string& text) REQUIRES(mutex_);
  void Connect_(const typename P::lower::endpoint& target, StatusHandler handler);
  void OnConnect_(const error_code& ec, const StatusHandler& handler);
  void Handshake_(boost::asio::ssl::stream_base::handshake_type type, StatusHandler handler);
  void KeepPeerCertificate_() REQUIRES(mutex_);
  void ReadNext_(uint8_t* data, std::size_t size, std::size_t done, int mode, IoHandler handler)
      REQUIRES(mutex_);
  void OnRead_(const error_code& ec, std::size_t n, uint8_t* data, std::size_t size,
               std::size_t done, int mode, IoHandler& handler);
  void WriteNext_(const uint8_t* data, std::size_t size, std::size_t done, IoHandler handler)
      REQUIRES(mutex_);
  void OnWrite_(const error_code& ec, std::size_t n, const uint8_t* data, std::size_t size,
                std::size_t done, IoHandler& handler);
  void AsyncClose_(bool shutdown);
  void DoClose_(bool shutdown);
  void Close_(bool shutdown) REQUIRES(mutex_);

  const uint32_t id_;
  const StreamSide side_;
  const boost::shared_ptr<boost::asio::io_context> io_;
  const SocketMetrics metrics_;
  // Kept while the TLS stream lives: its validation reads the context.
  const SecurityContextPtr context_;
  Strand strand_;

  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::INIT;
  std::string name_ GUARDED_BY(mutex_);
  std::string local_ GUARDED_BY(mutex_);
  std::string remote_ GUARDED_BY(mutex_);
  // Host and port of each side of a TCP socket, for the name; port 0: unknown.
  std::string localHost_ GUARDED_BY(mutex_);
  uint16_t localPort_ GUARDED_BY(mutex_) = 0;
  std::string peerHost_ GUARDED_BY(mutex_);
  uint16_t peerPort_ GUARDED_BY(mutex_) = 0;
  int lastFd_ GUARDED_BY(mutex_) = 0;
  X509CertificatePtr peer_ GUARDED_BY(mutex_);
  socket_type socket_ GUARDED_BY(mutex_);
};

template <class P>
class StreamAcceptorImpl final : public StreamAcceptor,
                                 public std::enable_shared_from_this<StreamAcceptorImpl<P>> {
 public:
  StreamAcceptorImpl(uint32_t id, const Endpoint& endpoint, const AcceptorOptions& options,
                     const boost::shared_ptr<boost::asio::io_context>& io, AcceptorMetrics metrics);
  ~StreamAcceptorImpl() override;

  // StreamAcceptor
  void open() override;
  void bind() override;
  void listen() override;
  void async_accept(const std::shared_ptr<StreamSocket>& socket, StatusHandler accept_handler,
                    StatusHandler connect_handler) override;
  void async_close() override;
  uint32_t id() const override { return id_; }
  State state() const override;
  int native_handle() const override;
  std::string local_endpoint() const override;

 private:
  void SetState_(State state) REQUIRES(mutex_);
  void Unlink_(const char* when) REQUIRES(mutex_);
  void DoClose_();
  void Close_() REQUIRES(mutex_);

  const uint32_t id_;
  const Endpoint endpoint_;
  const AcceptorOptions options_;
  const boost::shared_ptr<boost::asio::io_context> io_;
  const AcceptorMetrics metrics_;

  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::INIT;
  std::string name_ GUARDED_BY(mutex_);
  typename P::lower::acceptor acceptor_ GUARDED_BY(mutex_);
};

// ---------------------------------------------------------------------------
// StreamSocketImpl

template <class P>
StreamSocketImpl<P>::StreamSocketImpl(SocketParams params)
    : id_(params.id),
      side_(params.side),
      io_(std::move(params.io)),
      metrics_(std::move(params.metrics)),
      context_(std::move(params.context)),
      strand_(boost::asio::make_strand(*io_)),
      socket_([this]() -> socket_type {
        if constexpr (P::kTls) {
          return socket_type(*io_, context_->native_context());
        } else {
          return socket_type(*io_);
        }
      }()) {
  MutexLock lock(mutex_);
  UpdateName_();
  metrics_.Up(SocketGauge::EXISTING);
}

template <class P>
StreamSocketImpl<P>::~StreamSocketImpl() {
  try {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogDebug).format("%s Is being destroyed", name_.c_str());
    if (state_ != State::CLOSING && state_ != State::CLOSED) {
      ZEL_NET_LOG(kLogDebug).format("%s Attempting to close from destructor", name_.c_str());
      error_code ignored;
      Lowest().cancel(ignored);
      SetState_(State::CLOSING);
      ZEL_NET_LOG(kLogDebug).format("%s DoClose", name_.c_str());
      Close_(false);
    } else {
      ZEL_NET_LOG(kLogDebug).format("%s Not closing - already scheduled", name_.c_str());
    }
    SetState_(State::DELETED);
    metrics_.Down(SocketGauge::EXISTING);
    ZEL_NET_LOG(kLogDebug).format("%s Destroyed", name_.c_str());
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_NET_LOG, kTagNet9999, "~StreamSocketImpl");
  }
}

template <class P>
void StreamSocketImpl<P>::SetState_(State state) {
  auto gauge = [](State s) -> int {
    switch (s) {
      case State::OPEN:
        return static_cast<int>(SocketGauge::OPEN);
      case State::CONNECTED:
        return static_cast<int>(SocketGauge::CONNECTED);
      case State::CLOSING:
        return static_cast<int>(SocketGauge::CLOSING);
      case State::CLOSED:
        return static_cast<int>(SocketGauge::CLOSED);
      default:
        return -1;
    }
  };
  if (state == state_) return;
  if (int g = gauge(state_); g >= 0) metrics_.Down(static_cast<SocketGauge>(g));
  state_ = state;
  if (int g = gauge(state_); g >= 0) metrics_.Up(static_cast<SocketGauge>(g));
  UpdateName_();
}

template <class P>
void StreamSocketImpl<P>::UpdateName_() {
  const int fd = Lowest().is_open() ? static_cast<int>(const_cast<lowest_layer_type&>(Lowest()).native_handle()) : -1;
  if (fd > 0) lastFd_ = fd;
  char head[96];
  std::snprintf(head, sizeof head, "StreamSocket[%u %s f:%i i:%i", id_, ToString(state_), fd,
                lastFd_);
  std::string name = head;
  const bool server = side_ == StreamSide::SERVER;
  if constexpr (P::kLocal) {
    name += ' ';
    name += local_;
    name += server ? " <- " : " -> ";
    name += remote_;
  } else if (server) {
    name += ' ' + local_;
    name += peerPort_ != 0 ? " <- " + peerHost_ + ":" + std::to_string(peerPort_) : " <- ?";
  } else {
    name += localPort_ != 0 ? ' ' + localHost_ + ":" + std::to_string(localPort_) : " ?";
    name += " -> " + remote_;
  }
  name_ = name + "]";
}

template <class P>
void StreamSocketImpl<P>::TakeAddressText_(Side side, std::string& text) {
  error_code ec;
  const auto ep = side == Side::kLocal ? Lowest().local_endpoint(ec) : Lowest().remote_endpoint(ec);
  if (ec) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet30)
        .format(side == Side::kLocal ? "%s failed to get local endpoint: %i-%s"
                                     : "%s failed to get remote endpoint: %i-%s",
                name_.c_str(), ec.value(), ec.message().c_str());
    return;
  }
  if constexpr (!P::kLocal) {
    std::string& host = side == Side::kLocal ? localHost_ : peerHost_;
    uint16_t& port = side == Side::kLocal ? localPort_ : peerPort_;
    host = ep.address().to_string();
    port = ep.port();
  }
  const std::string printed =
      P::Text(static_cast<int>(const_cast<lowest_layer_type&>(Lowest()).native_handle()), side);
  text = P::kTls ? "ssl-" + printed : printed;
}

template <class P>
void StreamSocketImpl<P>::open(const Endpoint& endpoint) {
  MutexLock lock(mutex_);
  if (state_ != State::INIT) return;
  const auto target = ToAsio<P>(P::Address(endpoint));
  error_code ec;
  Lowest().open(target.protocol(), ec);
  if (ec) throw boost::system::system_error(ec, "open");
  metrics_.Mark(SocketEvent::OPEN);
  metrics_.Mark(side_ == StreamSide::SERVER ? SocketEvent::OPEN_REMOTE : SocketEvent::OPEN_LOCAL);
  SetState_(State::OPEN);
}

template <class P>
void StreamSocketImpl<P>::on_accept(const error_code& status, StatusHandler handler) {
  {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogDebug).format("%s on_accept %i-%s", name_.c_str(), status.value(),
                                  status.message().c_str());
    if (!status && (state_ == State::CLOSING || state_ == State::CLOSED)) {
      // Released while the accept was under way: it ends here.
      lock.Unlock();
      handler(boost::asio::error::operation_aborted);
      return;
    }
    if (!status) {
      TakeAddressText_(Side::kLocal, local_);
      TakeAddressText_(Side::kPeer, remote_);
      metrics_.Mark(SocketEvent::OPEN);
      metrics_.Mark(SocketEvent::OPEN_REMOTE);
      SetState_(P::kTls ? State::ACCEPTING : State::CONNECTED);
    }
  }
  if constexpr (P::kTls) {
    if (!status) {
      Handshake_(boost::asio::ssl::stream_base::server, std::move(handler));
      return;
    }
  }
  handler(status);
}

template <class P>
void StreamSocketImpl<P>::Handshake_(boost::asio::ssl::stream_base::handshake_type type,
                                     StatusHandler handler) {
  if constexpr (P::kTls) {
    Initiate_([self = this->shared_from_this(), type, handler = std::move(handler)]() mutable {
      MutexLock lock(self->mutex_);
      self->socket_.async_handshake(
          type, self->Bind_([self, type, handler = std::move(handler)](const error_code& ec) {
            if (type == boost::asio::ssl::stream_base::client) return self->OnConnect_(ec, handler);
            {
              MutexLock lock(self->mutex_);
              if (!ec) self->KeepPeerCertificate_();
              ZEL_NET_LOG(kLogDebug).format("%s on_accept_done %i-%s", self->name_.c_str(),
                                            ec.value(), ec.message().c_str());
            }
            handler(ec);
          }));
    });
  }
}

template <class P>
void StreamSocketImpl<P>::KeepPeerCertificate_() {
  if constexpr (P::kTls) {
    peer_ = X509Certificate::Adopt(SSL_get1_peer_certificate(socket_.native_handle()));
  }
}

template <class P>
void StreamSocketImpl<P>::async_connect(const Endpoint& endpoint, StatusHandler handler) {
  // Throws for an address the socket can't take (a local path too long).
  const auto target = ToAsio<P>(P::Address(endpoint));
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s async_connect", name_.c_str());
  if (state_ == State::CLOSING || state_ == State::CLOSED) {
    boost::asio::post(*io_, [handler = std::move(handler)] {
      handler(boost::asio::error::operation_aborted);
    });
    return;
  }
  remote_ = endpoint.uri();
  if (!Lowest().is_open()) {
    error_code ec;
    Lowest().open(target.protocol(), ec);
    if (ec) {
      boost::asio::post(*io_, [handler = std::move(handler), ec] { handler(ec); });
      return;
    }
    metrics_.Mark(SocketEvent::OPEN);
    metrics_.Mark(SocketEvent::OPEN_LOCAL);
  }
  UpdateName_();
  lock.Unlock();
  Connect_(target, std::move(handler));
}

template <class P>
void StreamSocketImpl<P>::Connect_(const typename P::lower::endpoint& target,
                                   StatusHandler handler) {
  Initiate_([self = this->shared_from_this(), target, handler = std::move(handler)]() mutable {
    MutexLock lock(self->mutex_);
    self->Lowest().async_connect(
        target, self->Bind_([self, handler = std::move(handler)](const error_code& ec) mutable {
          if constexpr (P::kTls) {
            if (!ec) return self->Handshake_(boost::asio::ssl::stream_base::client, std::move(handler));
          }
          self->OnConnect_(ec, handler);
        }));
  });
}

template <class P>
void StreamSocketImpl<P>::OnConnect_(const error_code& ec, const StatusHandler& handler) {
  {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogDebug).format("%s on_connect %i-%s", name_.c_str(), ec.value(),
                                  ec.message().c_str());
    metrics_.Mark(SocketEvent::CONNECT);
    metrics_.Mark(ec ? SocketEvent::CONNECT_ERR : SocketEvent::CONNECT_OK);
    if (!ec) {
      TakeAddressText_(Side::kLocal, local_);
      KeepPeerCertificate_();
      SetState_(State::CONNECTED);
    }
  }
  handler(ec);
}

template <class P>
void StreamSocketImpl<P>::async_read(void* buffer, std::size_t size, IoHandler handler,
                                     int mode) {
  if (mode != kReadFill && mode != kReadSome) return;
  Initiate_([self = this->shared_from_this(), data = static_cast<uint8_t*>(buffer), size, mode,
             handler = std::move(handler)]() mutable {
    MutexLock lock(self->mutex_);
    self->ReadNext_(data, size, 0, mode, std::move(handler));
  });
}

template <class P>
void StreamSocketImpl<P>::ReadNext_(uint8_t* data, std::size_t size, std::size_t done, int mode,
                                    IoHandler handler) {
  socket_.async_read_some(
      boost::asio::buffer(data + done, size - done),
      Bind_([self = this->shared_from_this(), data, size, done, mode,
             handler = std::move(handler)](const error_code& ec, std::size_t n) mutable {
        self->OnRead_(ec, n, data, size, done, mode, handler);
      }));
}

template <class P>
void StreamSocketImpl<P>::OnRead_(const error_code& ec, std::size_t n, uint8_t* data,
                                  std::size_t size, std::size_t done, int mode,
                                  IoHandler& handler) {
  done += n;
  {
    MutexLock lock(mutex_);
    if (!ec && mode == kReadFill && done < size && n > 0) {
      if (state_ != State::CLOSING && state_ != State::CLOSED) {
        ReadNext_(data, size, done, mode, std::move(handler));
        return;
      }
    }
  }
  // One operation, however many pieces it took.
  if (done > 0) metrics_.Rx(done);
  const bool cutShort = !ec && mode == kReadFill && done < size;
  handler(cutShort ? boost::asio::error::operation_aborted : ec, done);
}

template <class P>
void StreamSocketImpl<P>::async_write(const void* buffer, std::size_t size, IoHandler handler) {
  Initiate_([self = this->shared_from_this(), data = static_cast<const uint8_t*>(buffer), size,
             handler = std::move(handler)]() mutable {
    MutexLock lock(self->mutex_);
    self->WriteNext_(data, size, 0, std::move(handler));
  });
}

template <class P>
void StreamSocketImpl<P>::WriteNext_(const uint8_t* data, std::size_t size, std::size_t done,
                                     IoHandler handler) {
  socket_.async_write_some(
      boost::asio::buffer(data + done, size - done),
      Bind_([self = this->shared_from_this(), data, size, done,
             handler = std::move(handler)](const error_code& ec, std::size_t n) mutable {
        self->OnWrite_(ec, n, data, size, done, handler);
      }));
}

template <class P>
void StreamSocketImpl<P>::OnWrite_(const error_code& ec, std::size_t n, const uint8_t* data,
                                   std::size_t size, std::size_t done, IoHandler& handler) {
  done += n;
  {
    MutexLock lock(mutex_);
    if (!ec && done < size && n > 0) {
      if (state_ != State::CLOSING && state_ != State::CLOSED) {
        WriteNext_(data, size, done, std::move(handler));
        return;
      }
    }
  }
  if (done > 0) metrics_.Tx(done);
  const bool cutShort = !ec && done < size;
  handler(cutShort ? boost::asio::error::operation_aborted : ec, done);
}

template <class P>
void StreamSocketImpl<P>::async_close(bool shutdown) {
  Initiate_([self = this->shared_from_this(), shutdown] { self->AsyncClose_(shutdown); });
}

template <class P>
void StreamSocketImpl<P>::AsyncClose_(bool shutdown) {
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s async_close", name_.c_str());
  if (state_ == State::CLOSING || state_ == State::CLOSED) {
    ZEL_NET_LOG(kLogDebug).format("%s Not closing - already scheduled", name_.c_str());
    return;
  }
  error_code ec;
  Lowest().cancel(ec);
  ZEL_NET_LOG(kLogDebug).format("%s socket.cancel(): %i-%s", name_.c_str(), ec.value(),
                                ec.message().c_str());
  SetState_(State::CLOSING);
  ZEL_NET_LOG(kLogDebug).format("%s Posting async close (shutdown=%s)", name_.c_str(),
                                shutdown ? "true" : "false");
  auto work = [self = this->shared_from_this(), shutdown] { self->DoClose_(shutdown); };
  if constexpr (P::kTls) {
    boost::asio::post(strand_, std::move(work));
  } else {
    boost::asio::post(*io_, std::move(work));
  }
}

template <class P>
void StreamSocketImpl<P>::DoClose_(bool shutdown) {
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s DoClose", name_.c_str());
  if (state_ != State::CLOSING) {
    ZEL_NET_LOG(kLogDebug).format("%s Not closing - already closed", name_.c_str());
    return;
  }
  Close_(shutdown);
}

template <class P>
void StreamSocketImpl<P>::Close_(bool shutdown) {
  error_code ec;
  if (shutdown) {
    ZEL_NET_LOG(kLogDebug).format("%s calling socket.shutdown(both)", name_.c_str());
    Lowest().shutdown(boost::asio::socket_base::shutdown_both, ec);
    if (ec) {
      ZEL_NET_LOG(kLogDebug).format("%s socket.shutdown(): %i-%s", name_.c_str(), ec.value(),
                                    ec.message().c_str());
    }
  }
  // TLS sockets close the descriptor directly, without a close-notify.
  ZEL_NET_LOG(kLogDebug).format("%s calling socket.close()", name_.c_str());
  Lowest().close(ec);
  if (ec) {
    ZEL_NET_LOG(kLogWarn).format("%s socket.close(): %i-%s", name_.c_str(), ec.value(),
                                 ec.message().c_str());
  }
  metrics_.Mark(SocketEvent::CLOSE);
  SetState_(State::CLOSED);
}

template <class P>
bool StreamSocketImpl<P>::is_open() const {
  MutexLock lock(mutex_);
  if constexpr (P::kTls) {
    return Lowest().is_open() && const_cast<socket_type&>(socket_).native_handle() != nullptr;
  } else {
    return Lowest().is_open();
  }
}

template <class P>
std::string StreamSocketImpl<P>::local_endpoint() const {
  MutexLock lock(mutex_);
  return local_;
}

template <class P>
std::string StreamSocketImpl<P>::remote_endpoint() const {
  MutexLock lock(mutex_);
  return remote_;
}

template <class P>
StreamSocket::State StreamSocketImpl<P>::state() const {
  MutexLock lock(mutex_);
  return state_;
}

template <class P>
X509CertificatePtr StreamSocketImpl<P>::peer_certificate() const {
  MutexLock lock(mutex_);
  return peer_;
}

template <class P>
int StreamSocketImpl<P>::native_handle() const {
  MutexLock lock(mutex_);
  return Lowest().is_open() ? static_cast<int>(const_cast<lowest_layer_type&>(Lowest()).native_handle()) : -1;
}

// ---------------------------------------------------------------------------
// StreamAcceptorImpl

template <class P>
StreamAcceptorImpl<P>::StreamAcceptorImpl(uint32_t id, const Endpoint& endpoint,
                                          const AcceptorOptions& options,
                                          const boost::shared_ptr<boost::asio::io_context>& io,
                                          AcceptorMetrics metrics)
    : id_(id),
      endpoint_(endpoint),
      options_(options),
      io_(io),
      metrics_(std::move(metrics)),
      acceptor_(*io_) {
  MutexLock lock(mutex_);
  SetState_(State::INIT);
  metrics_.Up(AcceptorGauge::EXISTING);
  // A socket file left by an earlier run would make bind fail.
  if constexpr (P::kLocal) Unlink_("before create");
}

template <class P>
StreamAcceptorImpl<P>::~StreamAcceptorImpl() {
  try {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogDebug).format("%s Is being destroyed", name_.c_str());
    if (state_ != State::CLOSING && state_ != State::CLOSED) {
      ZEL_NET_LOG(kLogDebug).format("%s Attempting to close from destructor", name_.c_str());
      error_code ignored;
      acceptor_.cancel(ignored);
      SetState_(State::CLOSING);
      ZEL_NET_LOG(kLogDebug).format("%s DoClose", name_.c_str());
      Close_();
    } else {
      ZEL_NET_LOG(kLogDebug).format("%s Not closing - already scheduled", name_.c_str());
    }
    SetState_(State::DELETED);
    metrics_.Down(AcceptorGauge::EXISTING);
    ZEL_NET_LOG(kLogDebug).format("%s Destroyed", name_.c_str());
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_NET_LOG, kTagNet9999, "~StreamAcceptorImpl");
  }
}

template <class P>
void StreamAcceptorImpl<P>::SetState_(State state) {
  auto gauge = [](State s) -> int {
    switch (s) {
      case State::LISTENING:
        return static_cast<int>(AcceptorGauge::LISTENING);
      case State::CLOSING:
        return static_cast<int>(AcceptorGauge::CLOSING);
      case State::CLOSED:
        return static_cast<int>(AcceptorGauge::CLOSED);
      default:
        return -1;
    }
  };
  if (state != state_) {
    if (int g = gauge(state_); g >= 0) metrics_.Down(static_cast<AcceptorGauge>(g));
    state_ = state;
    if (int g = gauge(state_); g >= 0) metrics_.Up(static_cast<AcceptorGauge>(g));
  }
  char name[64];
  std::snprintf(name, sizeof name, "StreamAcceptor[%u %s ", id_, ToString(state_));
  name_ = name + endpoint_.uri() + "]";
}

template <class P>
void StreamAcceptorImpl<P>::Unlink_(const char* when) {
  const std::string path(endpoint_.path());
  ZEL_NET_LOG(kLogDebug)
      .format("%s Attempting to unlink file %s", name_.c_str(), path.c_str())
      .format(" %s", when);
  const int rc = ::unlink(path.c_str());
  const int error = errno;
  if (rc != 0 && error != ENOENT) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet31)
        .format("%s Failed to unlink file %s (error: %i)", name_.c_str(), path.c_str(), error);
  }
}

template <class P>
void StreamAcceptorImpl<P>::open() {
  MutexLock lock(mutex_);
  if (state_ != State::INIT) return;
  const auto local = ToAsio<P>(P::Address(endpoint_));
  error_code ec;
  acceptor_.open(local.protocol(), ec);
  if (ec) throw boost::system::system_error(ec, "open");
  metrics_.Mark(AcceptorEvent::OPEN);
  SetState_(State::OPEN);
}

template <class P>
void StreamAcceptorImpl<P>::bind() {
  MutexLock lock(mutex_);
  if (state_ != State::OPEN) return;
  error_code ec;
  acceptor_.bind(ToAsio<P>(P::Address(endpoint_)), ec);
  if (ec) throw boost::system::system_error(ec, "bind");
}

template <class P>
void StreamAcceptorImpl<P>::listen() {
  MutexLock lock(mutex_);
  if (state_ != State::OPEN) return;
  error_code ec;
  acceptor_.listen(options_.Backlog(), ec);
  if (ec) throw boost::system::system_error(ec, "listen");
  SetState_(State::LISTENING);
}

template <class P>
void StreamAcceptorImpl<P>::async_accept(const std::shared_ptr<StreamSocket>& socket,
                                         StatusHandler accept_handler,
                                         StatusHandler connect_handler) {
  MutexLock lock(mutex_);
  if (state_ == State::CLOSING || state_ == State::CLOSED) {
    ZEL_NET_LOG(kLogDebug).format("%s Ignoring async_accept - already closing", name_.c_str());
    boost::asio::post(*io_, [connect_handler = std::move(connect_handler)] {
      connect_handler(boost::asio::error::operation_aborted);
    });
    return;
  }
  auto peer = std::dynamic_pointer_cast<StreamSocketImpl<P>>(socket);
  if (state_ != State::OPEN && state_ != State::LISTENING) {
    boost::asio::post(*io_, [connect_handler = std::move(connect_handler)] {
      connect_handler(boost::asio::error::bad_descriptor);
    });
    return;
  }
  if (!peer) {
    // A socket of another kind: the transport never makes one.
    boost::asio::post(*io_, [connect_handler = std::move(connect_handler)] {
      connect_handler(boost::asio::error::invalid_argument);
    });
    return;
  }
  acceptor_.async_accept(
      peer->socket(), [self = this->shared_from_this(), peer, accept_handler = std::move(accept_handler),
                       connect_handler = std::move(connect_handler)](const error_code& ec) mutable {
        self->metrics_.Mark(AcceptorEvent::ACCEPT);
        self->metrics_.Mark(ec ? AcceptorEvent::ACCEPT_ERR : AcceptorEvent::ACCEPT_OK);
        accept_handler(ec);
        peer->on_accept(ec, std::move(connect_handler));
      });
}

template <class P>
void StreamAcceptorImpl<P>::async_close() {
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s async_close", name_.c_str());
  if (state_ == State::CLOSING || state_ == State::CLOSED) {
    ZEL_NET_LOG(kLogDebug).format("%s Not closing - already scheduled", name_.c_str());
    return;
  }
  error_code ec;
  acceptor_.cancel(ec);
  ZEL_NET_LOG(kLogDebug).format("%s acceptor.cancel(): %i-%s", name_.c_str(), ec.value(),
                                ec.message().c_str());
  SetState_(State::CLOSING);
  ZEL_NET_LOG(kLogDebug).format("%s posting async close", name_.c_str());
  boost::asio::post(*io_, [self = this->shared_from_this()] { self->DoClose_(); });
}

template <class P>
void StreamAcceptorImpl<P>::DoClose_() {
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s DoClose", name_.c_str());
  if (state_ != State::CLOSING) {
    ZEL_NET_LOG(kLogDebug).format("%s Not closing - already closed", name_.c_str());
    return;
  }
  Close_();
}

template <class P>
void StreamAcceptorImpl<P>::Close_() {
  ZEL_NET_LOG(kLogDebug).format("%s calling acceptor.close()", name_.c_str());
  error_code ec;
  acceptor_.close(ec);
  if (ec) {
    ZEL_NET_LOG(kLogWarn).format("%s acceptor.close(): %i-%s", name_.c_str(), ec.value(),
                                 ec.message().c_str());
  }
  metrics_.Mark(AcceptorEvent::CLOSE);
  SetState_(State::CLOSED);
  if constexpr (P::kLocal) Unlink_("after stop");
}

template <class P>
StreamAcceptor::State StreamAcceptorImpl<P>::state() const {
  MutexLock lock(mutex_);
  return state_;
}

template <class P>
int StreamAcceptorImpl<P>::native_handle() const {
  MutexLock lock(mutex_);
  auto& a = const_cast<typename P::lower::acceptor&>(acceptor_);
  return a.is_open() ? static_cast<int>(a.native_handle()) : -1;
}

template <class P>
std::string StreamAcceptorImpl<P>::local_endpoint() const {
  const int fd = native_handle();
  if (fd < 0) return "error";
  const std::string text = P::Text(fd, Side::kLocal);
  return P::kTls ? "ssl-" + text : text;
}

// ---------------------------------------------------------------------------
// The makers of socket_factory.h, instantiated once per kind.

template <SocketKind K>
struct ProtocolOf;
template <>
struct ProtocolOf<SocketKind::TCP> {
  using type = tcp_protocol;
};
template <>
struct ProtocolOf<SocketKind::LOCAL> {
  using type = local_protocol;
};
template <>
struct ProtocolOf<SocketKind::SSL_TCP> {
  using type = ssl_protocol<tcp_protocol>;
};
template <>
struct ProtocolOf<SocketKind::SSL_LOCAL> {
  using type = ssl_protocol<local_protocol>;
};

template <SocketKind K>
StreamSocketPtr MakeSocketOf(SocketParams params) {
  return std::make_shared<StreamSocketImpl<typename ProtocolOf<K>::type>>(std::move(params));
}

template <SocketKind K>
StreamAcceptorPtr MakeAcceptorOf(uint32_t id, const Endpoint& endpoint,
                                 const AcceptorOptions& options,
                                 const boost::shared_ptr<boost::asio::io_context>& io,
                                 AcceptorMetrics metrics) {
  return std::make_shared<StreamAcceptorImpl<typename ProtocolOf<K>::type>>(
      id, endpoint, options, io, std::move(metrics));
}

// In each kind's file: ZEL_NET_INSTANTIATE_SOCKET_KIND(TCP) and so on.
#define ZEL_NET_INSTANTIATE_SOCKET_KIND(KIND)                                             \
  template StreamSocketPtr MakeSocketOf<SocketKind::KIND>(SocketParams);                  \
  template StreamAcceptorPtr MakeAcceptorOf<SocketKind::KIND>(                            \
      uint32_t, const Endpoint&, const AcceptorOptions&,                                  \
      const boost::shared_ptr<boost::asio::io_context>&, AcceptorMetrics)

}  // namespace detail
}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_IMPL_STREAM_SOCKET_IMPL_H_
