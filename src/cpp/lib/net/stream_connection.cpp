#include "cpp/lib/net/stream_connection.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <boost/asio/error.hpp>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/net_error.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace net {
namespace {

using boost::system::error_code;
using State = StreamConnection::ConnectionState;

error_code Generic(int value) { return error_code(value, boost::system::generic_category()); }

bool IsCanceled(const error_code& ec) { return ec == boost::asio::error::operation_aborted; }
bool IsEof(const error_code& ec) { return ec == boost::asio::error::eof; }

// Literal addresses and local paths need no resolving.
bool NeedsNoResolve(const Endpoint& ep) {
  if (ep.IsLocal()) return true;
  const std::string host(ep.host());
  uint8_t buffer[sizeof(in6_addr)];
  const std::string bare = host.substr(0, host.find('%'));
  return inet_pton(AF_INET, host.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, bare.c_str(), buffer) == 1;
}

// The connection gauge of a state, or -1.
int GaugeOf(State s) {
  switch (s) {
    case State::ACCEPTING:
      return static_cast<int>(ConnectionGauge::ACCEPTING);
    case State::RESOLVING:
      return static_cast<int>(ConnectionGauge::RESOLVING);
    case State::CONNECTING:
      return static_cast<int>(ConnectionGauge::CONNECTING);
    case State::CONNECTED:
      return static_cast<int>(ConnectionGauge::CONNECTED);
    case State::CLOSING:
      return static_cast<int>(ConnectionGauge::CLOSING);
    case State::CLOSED:
      return static_cast<int>(ConnectionGauge::CLOSED);
    case State::ERROR:
      return static_cast<int>(ConnectionGauge::ERROR);
    default:
      return -1;
  }
}

ConnectionEvent CloseEventOf(CloseReason reason) {
  switch (reason) {
    case CloseReason::BY_USER:
      return ConnectionEvent::CLOSE_LOCAL;
    case CloseReason::BY_PEER:
      return ConnectionEvent::CLOSE_REMOTE;
    case CloseReason::NETWORK_ERROR:
      return ConnectionEvent::CLOSE_NETWORK;
    default:
      return ConnectionEvent::CLOSE_ERROR;
  }
}

}  // namespace

const char* ToString(StreamConnection::ConnectionState state) {
  static const char* const kNames[] = {"Init",       "Accepting", "Resolving", "Resolved",
                                       "Connecting", "Connected", "Closing",   "Closed",
                                       "Error",      "Deleted"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 10 ? kNames[i] : "<StreamConnection::ConnectionState::INVALID>";
}

const char* ToString(ConnectionPriority priority) {
  switch (priority) {
    case ConnectionPriority::LOW:
      return "low";
    case ConnectionPriority::NORMAL:
      return "normal";
    case ConnectionPriority::HIGH:
      return "high";
  }
  return "<ConnectionPriority::INVALID>";
}

const char* ToString(CloseReason reason) {
  static const char* const kNames[] = {"unknown", "network error", "by peer", "by user",
                                       "shutdown"};
  const int i = static_cast<int>(reason);
  return i >= 0 && i < 5 ? kNames[i] : "<CloseReason::INVALID>";
}

std::string ToString(const ConnectionInfo& info) {
  return "{id: " + std::to_string(info.id) + ", pr: " + ToString(info.priority) +
         ", side: " + ToString(info.side) + ", endpoint: " + info.endpoint +
         ", local-ep: " + info.local_endpoint + ", peer-ep: " + info.peer_endpoint +
         ", peer-auth: " + ToString(info.peer_auth) + "}";
}

// ---------------------------------------------------------------------------
// Creation and destruction

std::shared_ptr<StreamConnection> StreamConnection::Create(Params params) {
  return std::make_shared<StreamConnection>(PrivateTag{}, std::move(params));
}

StreamConnection::StreamConnection(PrivateTag, Params params)
    : id_(params.id),
      role_(params.role),
      endpoint_(std::move(params.endpoint)),
      options_(std::move(params.options)),
      dispatcher_(std::move(params.dispatcher)),
      timers_(std::move(params.timers)),
      resolver_(std::move(params.resolver)),
      metrics_(std::move(params.metrics)) {
  MutexLock lock(mutex_);
  socket_ = std::move(params.socket);
  transport_ = std::move(params.transport);
  metrics_.Up(ConnectionGauge::EXISTING);
  metrics_.Mark(ConnectionEvent::OPEN);
  if (role_ == Role::SERVER) {
    metrics_.Mark(ConnectionEvent::OPEN_REMOTE);
    local_ = endpoint_;
    UpdateName_();
    SetState_(State::ACCEPTING);
  } else {
    metrics_.Mark(ConnectionEvent::OPEN_LOCAL);
    remote_ = endpoint_;
    UpdateName_();
  }
  // Nothing can be pending yet: no handler is stored.
  pending_.clear();
}

StreamConnection::~StreamConnection() {
  try {
    {
      MutexLock lock(mutex_);
      ZEL_NET_LOG(kLogDebug).format("%s Is being destroyed", name_.c_str());
      guard_.reset();
      if (socket_) ReleaseSocket_();
      SetState_(State::DELETED);
      // The connect handler, if one is still stored, goes unanswered: its
      // owner has dropped the connection.
      pending_.clear();
    }
    Unregister_();
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogDebug).format("%s Destroyed", name_.c_str());
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_NET_LOG, kTagNet9999, "~StreamConnection");
  }
}

// ---------------------------------------------------------------------------
// Accessors

StreamSocketPtr StreamConnection::socket() const {
  MutexLock lock(mutex_);
  return socket_;
}

Endpoint StreamConnection::local_endpoint() const {
  MutexLock lock(mutex_);
  return local_;
}

Endpoint StreamConnection::remote_endpoint() const {
  MutexLock lock(mutex_);
  return remote_;
}

X509CertificatePtr StreamConnection::peer_certificate() const {
  MutexLock lock(mutex_);
  return peer_.certificate;
}

ConnectionInfo StreamConnection::info() const {
  MutexLock lock(mutex_);
  ConnectionInfo info;
  info.id = id_;
  info.priority = priority_;
  info.side = role_ == Role::SERVER ? StreamSide::SERVER : StreamSide::CLIENT;
  info.endpoint = endpoint_.uri();
  info.local_endpoint = local_.uri();
  info.peer_endpoint = remote_.uri();
  info.peer_auth = peer_;
  return info;
}

void StreamConnection::set_priority(ConnectionPriority priority) {
  MutexLock lock(mutex_);
  priority_ = priority;
}

StreamConnection::ConnectionState StreamConnection::state() const {
  MutexLock lock(mutex_);
  return state_;
}

std::string StreamConnection::name() const {
  MutexLock lock(mutex_);
  return name_;
}

// ---------------------------------------------------------------------------
// The state machine

void StreamConnection::UpdateName_() {
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "StreamConnection[%u %s %s ", id_, ToString(state_),
                role_ == Role::SERVER ? "on" : "to");
  std::string name = buffer;
  name += role_ == Role::SERVER ? local_.uri() : remote_.uri();
  std::snprintf(buffer, sizeof buffer, " sid:%i]", socket_ ? static_cast<int>(socket_->id()) : -1);
  name_ = name + buffer;
}

void StreamConnection::SetState_(ConnectionState state) {
  if (state != state_) {
    Exit_(state_);
    ZEL_NET_LOG(kLogVerbose).format("%s Changing state to %s", name_.c_str(), ToString(state));
    state_ = state;
    UpdateName_();
  }
  Enter_(state_);
}

void StreamConnection::Exit_(ConnectionState state) {
  if (int g = GaugeOf(state); g >= 0) metrics_.Down(static_cast<ConnectionGauge>(g));
  if (state == State::CONNECTING) guard_.reset();
}

void StreamConnection::Enter_(ConnectionState state) {
  if (int g = GaugeOf(state); g >= 0) metrics_.Up(static_cast<ConnectionGauge>(g));
  switch (state) {
    case State::ACCEPTING:
      ZEL_NET_LOG(kLogVerbose).format("%s Accepting", name_.c_str());
      break;
    case State::RESOLVING:
      EnterResolving_();
      break;
    case State::RESOLVED: {
      ReleaseSocket_();
      if (transport_.expired()) {
        error_ = error::make_error_code(error::shut_down);
        return SetState_(State::ERROR);
      }
      auto self = shared_from_this();
      pending_.push_back(Work{{}, {}, [self] { self->SetSocket_(); }, {}, 0});
      break;
    }
    case State::CONNECTING:
      EnterConnecting_();
      break;
    case State::CONNECTED:
      EnterConnected_();
      break;
    case State::CLOSING:
      metrics_.Mark(ConnectionEvent::CLOSE);
      metrics_.Mark(CloseEventOf(closeReason_));
      ZEL_NET_LOG(kLogInfo).format("%s Closing (reason: %s)", name_.c_str(),
                                   ToString(closeReason_));
      break;
    case State::CLOSED: {
      ZEL_NET_LOG(kLogInfo).format("%s Closed (reason: %s, error: %i-%s)", name_.c_str(),
                                   ToString(closeReason_), error_.value(),
                                   error_.message().c_str());
      // A connect cut short by the close still gets a failure: "Shut down"
      // when the transport closed it, ECONNABORTED otherwise.
      error_code status = error_;
      if (!status) {
        status = closeReason_ == CloseReason::SHUTDOWN ? error::make_error_code(error::shut_down)
                                                       : Generic(ECONNABORTED);
      }
      Deliver_(status);
      break;
    }
    case State::ERROR:
      ZEL_NET_LOG(kLogWarn).format("%s Error %i-%s", name_.c_str(), error_.value(),
                                   error_.message().c_str());
      resolved_.clear();
      Deliver_(error_);
      break;
    case State::DELETED:
      metrics_.Down(ConnectionGauge::EXISTING);
      break;
    default:
      break;
  }
}

void StreamConnection::EnterResolving_() {
  ZEL_NET_LOG(kLogVerbose).format("%s Resolving", name_.c_str());
  std::shared_ptr<HostNameResolver> resolver = resolver_.lock();
  if (!resolver) {
    error_ = error::make_error_code(error::shut_down);
    return SetState_(State::ERROR);
  }
  // The resolver may answer on this thread, under this lock: the answer is
  // posted so that it always runs as a step of its own.
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  boost::shared_ptr<Dispatcher> dispatcher = dispatcher_;
  const std::string name = name_;
  resolver->Resolve(std::string(endpoint_.host()),
                    [weak, dispatcher, name](const error_code& status, const AddressList& list) {
                      dispatcher->Post([weak, name, status, list] {
                        if (auto self = weak.lock()) {
                          self->Run_(&StreamConnection::ResolveHandler_, status, list);
                        } else {
                          ZEL_NET_LOG(kLogDebug).format(
                              "%s Ignoring resolve handler - already destroyed", name.c_str());
                        }
                      });
                    });
}

void StreamConnection::EnterConnecting_() {
  const uint32_t attempt = socket_ ? socket_->id() : 0;
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  if (options_.timeout && *options_.timeout > 0) {
    ZEL_NET_LOG(kLogDebug).format("%s Starting connect guard timer for %li milliseconds",
                                  name_.c_str(), static_cast<long>(*options_.timeout));
    guard_ = timers_->CreateTimer(std::chrono::milliseconds(*options_.timeout), [weak, attempt] {
      if (auto self = weak.lock()) self->Run_(&StreamConnection::ConnectCallback_, Generic(ETIMEDOUT), attempt);
    });
  }
  ZEL_NET_LOG(kLogDebug).format("%s Scheduling async connect", name_.c_str());
  if (!socket_) {
    error_ = error::make_error_code(error::unknown);
    return SetState_(State::ERROR);
  }
  try {
    socket_->async_connect(remote_, [weak, attempt](const error_code& status) {
      if (auto self = weak.lock()) self->Run_(&StreamConnection::ConnectCallback_, status, attempt);
    });
  } catch (const boost::system::system_error& e) {
    // An address the socket can't take (a local path of 108 bytes or more).
    const error_code status = e.code();
    dispatcher_->Post([weak, status, attempt] {
      if (auto self = weak.lock()) self->Run_(&StreamConnection::ConnectCallback_, status, attempt);
    });
  }
}

void StreamConnection::EnterConnected_() {
  const std::string auth = PeerAuthText_();
  if (role_ == Role::SERVER) {
    ZEL_NET_LOG(kLogInfo).format("%s Accepted connection from %s%s", name_.c_str(),
                                 remote_.uri().c_str(), auth.c_str());
  } else {
    ZEL_NET_LOG(kLogInfo).format("%s Connected from %s to server%s", name_.c_str(),
                                 local_.uri().c_str(), auth.c_str());
  }
  resolved_.clear();
  Deliver_(error_code());
}

std::string StreamConnection::PeerAuthText_() {
  if (!endpoint_.IsSecure() || !socket_) return std::string();
  X509CertificatePtr cert = socket_->peer_certificate();
  if (!cert) return std::string();
  peer_.certificate = cert;
  Sha256Digest digest{};
  if (!cert->Sha256(&digest)) peer_.digest = digest;
  if (g_logLevel >= kLogDebug && g_netLogCeiling >= kLogDebug) {
    std::string text;
    if (!cert->Text(&text)) return " with " + text;
  }
  return " with certificate with sha256 fingerprint '" +
         (peer_.digest ? ToHex(*peer_.digest) : std::string()) + "'";
}

void StreamConnection::Deliver_(const error_code& status) {
  if (!connectHandler_) {
    ZEL_NET_LOG(kLogDebug).format("%s No user connect handler", name_.c_str());
    return;
  }
  ZEL_NET_LOG(kLogDebug).format("%s Scheduling user connect handler", name_.c_str());
  pending_.push_back(Work{{}, std::move(connectHandler_), {}, status, 0});
  connectHandler_ = nullptr;
}

void StreamConnection::PostRefusal_(IoHandler handler) {
  dispatcher_->Post([handler = std::move(handler)]() mutable {
    WorkList work;
    work.push_back(Work{std::move(handler), {}, {}, Generic(ENOTCONN), 0});
    RunWork_(work);
  });
}

void StreamConnection::RunWork_(WorkList& work) {
  for (Work& w : work) {
    try {
      w();
    } catch (...) {
      // A handler must not throw: the connection's state can't be trusted
      // after one did.
      ZEL_LOG_CAUGHT_EXCEPTION(ZEL_NET_LOG, kTagNet9999, "~handler_executor");
      std::abort();
    }
  }
}

void StreamConnection::ReleaseSocket_() {
  if (!socket_) return;
  // A default option record (linger set, off) closes without a shutdown.
  socket_->async_close(!options_.linger.has_value());
  socket_.reset();
  UpdateName_();
}

// ---------------------------------------------------------------------------
// Connect

void StreamConnection::Connect(StatusHandler handler) {
  ZEL_NET_LOG(kLogDebug).format("%s Connect - dispatching", name().c_str());
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  dispatcher_->Post([weak, handler = std::move(handler)]() mutable {
    if (auto self = weak.lock()) self->Run_(&StreamConnection::Connect_, handler);
  });
}

void StreamConnection::Connect_(StatusHandler& handler) {
  if (state_ != State::INIT) {
    ZEL_NET_LOG(kLogWarn).format("%s Can't schedule async connect in %s state", name_.c_str(),
                                 ToString(state_));
    return;
  }
  connectHandler_ = std::move(handler);
  SetState_(NeedsNoResolve(endpoint_) ? State::CONNECTING : State::RESOLVING);
}

void StreamConnection::ResolveHandler_(const error_code& status, const AddressList& addresses) {
  ZEL_NET_LOG(kLogDebug).format("%s ResolveHandler(status: %i-%s)", name_.c_str(), status.value(),
                                status.message().c_str());
  if (state_ != State::RESOLVING) {
    if (!IsCanceled(status)) {
      ZEL_NET_LOG(kLogDebug).format("%s Ignoring ResolveHandler in non-resolving state",
                                    name_.c_str());
    }
    return;
  }
  if (status) {
    if (!IsCanceled(status)) {
      ZEL_NET_LOG(kLogWarn).format("%s Couldn't resolve '%s' (error: %i-%s)", name_.c_str(),
                                   std::string(endpoint_.host()).c_str(), status.value(),
                                   status.message().c_str());
    }
    error_ = status;
    return SetState_(State::ERROR);
  }
  const std::string scheme(endpoint_.scheme());
  for (const std::string& address : addresses) {
    char port[16];
    std::snprintf(port, sizeof port, ":%u", static_cast<unsigned>(endpoint_.port()));
    resolved_.emplace_back(scheme + "://" + address + port);
  }
  cursor_ = 0;
  TryNextEndpoint_();
}

void StreamConnection::TryNextEndpoint_() {
  if (cursor_ >= resolved_.size()) {
    ZEL_NET_LOG(kLogWarn).format("%s Couldn't connect to any of the resolved endpoints",
                                 name_.c_str());
    error_ = error_code(EHOSTUNREACH, boost::system::system_category());
    return SetState_(State::ERROR);
  }
  remote_ = resolved_[cursor_++];
  SetState_(State::RESOLVED);
}

void StreamConnection::SetSocket_() {
  std::shared_ptr<Transport> transport;
  Endpoint target;
  {
    MutexLock lock(mutex_);
    transport = transport_.lock();
    if (transport) {
      if (state_ != State::RESOLVED) {
        ZEL_NET_LOG(kLogDebug).format("%s ignoring SetSocket callback in %s state",
                                      name_.c_str(), ToString(state_));
        return;
      }
      target = remote_;
    }
  }
  if (!transport) return Run_(&StreamConnection::SocketFailed_, error_code());
  // The transport takes its own lock: never call it with this one held.
  SocketResult result = transport->NewStreamSocket(target, options_, Role::CLIENT);
  Run_(&StreamConnection::SocketMade_, target, result);
}

void StreamConnection::SocketFailed_(const error_code&) {
  if (state_ != State::RESOLVED) {
    ZEL_NET_LOG(kLogDebug).format("%s ignoring SetSocket callback in %s state", name_.c_str(),
                                  ToString(state_));
    return;
  }
  ZEL_NET_LOG(kLogWarn).format("%s Can't get socket - transport is shutdown", name_.c_str());
  error_ = error::make_error_code(error::shut_down);
  SetState_(State::ERROR);
}

void StreamConnection::SocketMade_(const Endpoint& target, SocketResult& result) {
  if (state_ != State::RESOLVED || !(remote_ == target)) {
    ZEL_NET_LOG(kLogDebug).format("%s ignoring SetSocket callback in %s state", name_.c_str(),
                                  ToString(state_));
    if (StreamSocketPtr unused = result.value()) unused->async_close(false);
    return;
  }
  if (result.ok()) {
    socket_ = result.value();
    return SetState_(State::CONNECTING);
  }
  ZEL_NET_LOG(kLogError)
      .addTag(kTagNet1)
      .format("%s couldn't get socket: %s", name_.c_str(), result.text().c_str());
  error_ = result.error();
  SetState_(State::ERROR);
}

void StreamConnection::ConnectCallback_(const error_code& status, uint32_t attempt) {
  ZEL_NET_LOG(kLogDebug).format("%s ConnectCallback(status: %i-%s)", name_.c_str(),
                                status.value(), status.message().c_str());
  // The completion of an abandoned attempt (its socket released) is as late
  // as one that finds the connection in another state.
  const bool current = socket_ && socket_->id() == attempt;
  if (state_ != State::CONNECTING || !current) {
    if (!IsCanceled(status)) {
      ZEL_NET_LOG(kLogDebug).format("%s Ignoring ConnectCallback in non-connecting state",
                                    name_.c_str());
    }
    return;
  }
  guard_.reset();
  if (status) {
    if (!IsCanceled(status)) {
      ZEL_NET_LOG(kLogWarn).format("%s Couldn't connect to '%s' (error: %i-%s)", name_.c_str(),
                                   remote_.uri().c_str(), status.value(),
                                   status.message().c_str());
    }
    error_ = status;
    ReleaseSocket_();
    if (resolved_.empty()) return SetState_(State::ERROR);
    return TryNextEndpoint_();
  }
  local_ = Endpoint(socket_->local_endpoint());
  SetState_(State::CONNECTED);
}

// ---------------------------------------------------------------------------
// Accept

void StreamConnection::Accept() { Run_(&StreamConnection::Accept_); }

void StreamConnection::Accept_() {
  ZEL_NET_LOG(kLogDebug).format("%s Accept", name_.c_str());
  switch (state_) {
    case State::ACCEPTING:
      if (socket_) remote_ = Endpoint(socket_->remote_endpoint());
      return SetState_(State::CONNECTED);
    case State::CLOSING:
    case State::CLOSED:
    case State::ERROR:
      ZEL_NET_LOG(kLogDebug).format("%s Accept is ignored in %s state", name_.c_str(),
                                    ToString(state_));
      return;
    default:
      ZEL_NET_LOG(kLogError)
          .addTag(kTagNet500)
          .format("%s Accept must not be called in %s state", name_.c_str(), ToString(state_));
      return;
  }
}

// ---------------------------------------------------------------------------
// Write and read

void StreamConnection::Write(IoBuffer buffer, IoHandler handler) {
  ZEL_NET_LOG(kLogDebug).format("%s Write - dispatching buffer: %zu bytes", name().c_str(),
                                buffer.size());
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  dispatcher_->Post([weak, buffer = std::move(buffer), handler = std::move(handler)]() mutable {
    if (auto self = weak.lock()) self->Run_(&StreamConnection::Write_, buffer, handler);
  });
}

void StreamConnection::Write_(IoBuffer& buffer, IoHandler& handler) {
  ZEL_NET_LOG(kLogDebug).format("%s Write - processing buffer: %zu bytes", name_.c_str(),
                                buffer.size());
  const bool connected = state_ == State::CONNECTED;
  if (!connected || !socket_ || !socket_->is_open()) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet6)
        .format("%s Couldn't write data - %s", name_.c_str(),
                connected ? "socket is closed" : "not connected");
    PostRefusal_(std::move(handler));
    return;
  }
  metrics_.Tx(buffer.size());
  ZEL_NET_LOG(kLogDebug).format("%s Writing buffer: %zu bytes", name_.c_str(), buffer.size());
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  socket_->async_write(
      buffer.data(), buffer.size(),
      [weak, buffer, handler = std::move(handler)](const error_code& status,
                                                  std::size_t bytes) mutable {
        if (auto self = weak.lock()) {
          self->Run_(&StreamConnection::IoCallback_, status, bytes, handler, true);
        }
      });
}

void StreamConnection::Read(IoBuffer buffer, std::size_t size, int mode, IoHandler handler) {
  ZEL_NET_LOG(kLogDebug).format("%s Read - dispatching buffer: %zu bytes", name().c_str(), size);
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  dispatcher_->Post(
      [weak, buffer = std::move(buffer), size, mode, handler = std::move(handler)]() mutable {
        if (auto self = weak.lock()) self->Run_(&StreamConnection::Read_, buffer, size, mode, handler);
      });
}

void StreamConnection::Read_(IoBuffer& buffer, std::size_t size, int mode, IoHandler& handler) {
  ZEL_NET_LOG(kLogDebug).format("%s Read - processing buffer: %zu bytes", name_.c_str(), size);
  const bool connected = state_ == State::CONNECTED;
  if (!connected || !socket_ || !socket_->is_open()) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet5)
        .format("%s Couldn't read data - %s", name_.c_str(),
                connected ? "socket is closed" : "not connected");
    PostRefusal_(std::move(handler));
    return;
  }
  ZEL_NET_LOG(kLogDebug).format("%s Reading into buffer: %zu bytes", name_.c_str(), size);
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  socket_->async_read(
      buffer.data(), std::min(size, buffer.size()),
      [weak, buffer, handler = std::move(handler)](const error_code& status,
                                                  std::size_t bytes) mutable {
        if (auto self = weak.lock()) {
          self->Run_(&StreamConnection::IoCallback_, status, bytes, handler, false);
        }
      },
      mode);
}

void StreamConnection::IoCallback_(const error_code& status, std::size_t bytes,
                                   IoHandler& handler, bool write) {
  ZEL_NET_LOG(kLogDebug).format(write ? "%s WriteCallback(status: %i-%s, bytes_written: %zu)"
                                      : "%s ReadCallback(status: %i-%s, bytes_read: %zu)",
                                name_.c_str(), status.value(), status.message().c_str(), bytes);
  const bool connected = state_ == State::CONNECTED;
  if (!write && bytes > 0) metrics_.Rx(bytes);
  if (IsCanceled(status) || (IsEof(status) && !connected)) {
    pending_.push_back(Work{std::move(handler), {}, {}, status, bytes});
    return;
  }
  if (!connected) {
    ZEL_NET_LOG(kLogDebug).format(write ? "%s Ignoring WriteCallback in non-connected state"
                                        : "%s Ignoring ReadCallback in non-connected state",
                                  name_.c_str());
    pending_.push_back(Work{std::move(handler), {}, {}, status, bytes});
    return;
  }
  const bool open = socket_ && socket_->is_open();
  if (!status && open) {
    ZEL_NET_LOG(kLogDebug).format(write ? "%s WriteCallback - calling handler"
                                        : "%s ReadCallback - calling handler",
                                  name_.c_str());
    pending_.push_back(Work{std::move(handler), {}, {}, error_code(), bytes});
    return;
  }
  const bool eof = IsEof(status);
  ZEL_NET_LOG(eof ? kLogDebug : kLogWarn)
      .format(write ? "%s WriteCallback - closing connection (error: %i-%s, socket: %s)"
                    : "%s ReadCallback - closing connection (error: %i-%s, socket: %s)",
              name_.c_str(), status.value(), status.message().c_str(), open ? "open" : "closed");
  error_ = status ? status : Generic(ENOTCONN);
  pending_.push_back(Work{std::move(handler), {}, {}, error_, bytes});
  CloseInternal_(eof ? CloseReason::BY_PEER : CloseReason::NETWORK_ERROR);
  unregister_ = true;
}

// ---------------------------------------------------------------------------
// Close

void StreamConnection::Close(CloseReason reason) {
  ZEL_NET_LOG(kLogDebug).format("%s Close (reason: %s) - dispatching", name().c_str(),
                                ToString(reason));
  std::weak_ptr<StreamConnection> weak = weak_from_this();
  dispatcher_->Post([weak, reason] {
    auto self = weak.lock();
    if (!self) return;
    self->Run_(&StreamConnection::CloseInternal_, reason);
    // A shutdown comes from the transport, which has taken the connection
    // off its list already.
    if (reason != CloseReason::SHUTDOWN) self->Unregister_();
  });
}

void StreamConnection::CloseInternal_(CloseReason reason) {
  if (state_ == State::CLOSING) {
    ZEL_NET_LOG(kLogDebug).format("%s is already closing", name_.c_str());
    return;
  }
  if (state_ == State::CLOSED) {
    ZEL_NET_LOG(kLogDebug).format("%s is already closed", name_.c_str());
    return;
  }
  closeReason_ = reason;
  closeReasonSet_ = true;
  SetState_(State::CLOSING);
  if (socket_) {
    ReleaseSocket_();
  } else {
    ZEL_NET_LOG(kLogDebug).format("%s socket has already been released", name_.c_str());
  }
  SetState_(State::CLOSED);
}

void StreamConnection::Unregister_() {
  std::shared_ptr<Transport> transport;
  std::string name;
  {
    MutexLock lock(mutex_);
    transport = transport_.lock();
    transport_.reset();
    name = name_;
  }
  if (transport) {
    ZEL_NET_LOG(kLogDebug).format("%s Unregistering from transport %u", name.c_str(), id_);
    transport->UnregisterConnection(id_);
  } else {
    ZEL_NET_LOG(kLogDebug).format("%s Can't unregister from transport - already released",
                                  name.c_str());
  }
}

}  // namespace net
}  // namespace zel
