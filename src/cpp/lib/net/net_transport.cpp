#include "cpp/lib/net/net_transport.h"

#include <arpa/inet.h>

#include <atomic>
#include <cstdio>
#include <stdexcept>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/asio/error.hpp>
#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/system/system_error.hpp>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/impl/socket_factory.h"
#include "cpp/lib/net/net_error.h"
#include "cpp/lib/net/net_metrics.h"
#include "cpp/lib/net/net_namespace_guard.h"
#include "cpp/lib/net/stream_connection.h"

namespace zel {
namespace net {
namespace {

using boost::system::error_code;
using detail::SocketKind;

const char* RoleWord(Role role) { return role == Role::SERVER ? "server" : "client"; }

bool IsIpLiteral(std::string_view host) {
  const std::string text(host.substr(0, host.find('%')));
  uint8_t buffer[sizeof(in6_addr)];
  return inet_pton(AF_INET, text.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, text.c_str(), buffer) == 1;
}

// What an exception on the way to a socket turns into.
template <class T>
Result<T> Failure(const std::exception& e) {
  if (auto* s = dynamic_cast<const boost::system::system_error*>(&e)) return s->code();
  if (auto* n = dynamic_cast<const errno_exception*>(&e)) {
    return error_code(n->error(), boost::system::system_category());
  }
  return std::string(e.what());
}

std::string NextName() {
  static std::atomic<uint32_t> next{0};
  return "NetTransport[" + std::to_string(next.fetch_add(1)) + "]";
}

}  // namespace

class NetTransport::impl : public Transport, public std::enable_shared_from_this<impl> {
 public:
  explicit impl(Params params)
      : name_(NextName()),
        dispatcher_(std::move(params.dispatcher)),
        io_(std::move(params.io)),
        timers_(std::move(params.timers)),
        resolver_(std::move(params.resolver)),
        security_(std::move(params.security)) {
    if (params.metrics_root) metrics_ = std::make_unique<NetMetrics>(params.metrics_root);
    MutexLock lock(mutex_);
    connections_.max_load_factor(1.0);
    connections_.rehash(16);
  }

  // Transport
  SocketResult NewStreamSocket(const Endpoint& endpoint, const SocketOptions& options,
                               Role role) override;
  void StopListening(const Endpoint& endpoint) override;
  void UnregisterConnection(uint32_t id) override;
  ConnectionResult NewConnection(const Endpoint& endpoint, const SocketOptions& options,
                                 Role role) override;
  ConnectionPtr GetConnection(const Endpoint& endpoint) override;
  error_code Listen(const Endpoint& endpoint, const SocketOptions& options,
                    AcceptHandler handler) override;
  void Shutdown() override;

  std::string ListeningAddress(const Endpoint& endpoint) const;
  std::size_t ConnectionCount() const;
  bool IsShutDown() const;
  const std::string& name() const { return name_; }

 private:
  struct AcceptorRecord {
    StreamAcceptorPtr acceptor;
    SocketOptions options;
    AcceptHandler handler;
  };

  uint32_t NextId_() { return nextId_.fetch_add(1, std::memory_order_relaxed); }
  SecurityContextPtr GetSecurityContext_(const SocketOptions& options, Role role);
  StreamAcceptorPtr CreateAcceptor_(const Endpoint& endpoint, const SocketOptions& options);
  // Makes the next server connection and starts an accept into its socket.
  // Throws when no connection can be made.
  void Arm_(const Endpoint& endpoint, const SocketOptions& options,
            const StreamAcceptorPtr& acceptor);
  void AcceptHandler_(const error_code& status, const Endpoint& endpoint, uint32_t acceptorId);
  void AcceptConnectHandler_(const error_code& status, const Endpoint& endpoint,
                             uint32_t acceptorId,
                             const std::shared_ptr<StreamConnection>& connection);

  const std::string name_;
  const boost::shared_ptr<Dispatcher> dispatcher_;
  const boost::shared_ptr<boost::asio::io_context> io_;
  const std::shared_ptr<TimerFactory> timers_;
  const std::shared_ptr<HostNameResolver> resolver_;
  const std::shared_ptr<SecurityManager> security_;
  std::unique_ptr<NetMetrics> metrics_;
  std::atomic<uint32_t> nextId_{0};

  mutable Mutex mutex_;
  bool shutdown_ GUARDED_BY(mutex_) = false;
  std::unordered_map<uint32_t, std::weak_ptr<StreamConnection>> connections_ GUARDED_BY(mutex_);
  std::unordered_map<std::string, AcceptorRecord> acceptors_ GUARDED_BY(mutex_);
};

// ---------------------------------------------------------------------------
// Factories

bool NetTransport::impl::IsShutDown() const {
  MutexLock lock(mutex_);
  return shutdown_;
}

SecurityContextPtr NetTransport::impl::GetSecurityContext_(const SocketOptions& options,
                                                           Role role) {
  const std::string& id = options.security_context_id;
  SecurityContextPtr context;
  if (security_) {
    if (role == Role::CLIENT) {
      context = id.empty() ? security_->GetDefaultClientContext() : security_->GetClientContext(id);
    } else {
      context = id.empty() ? security_->GetDefaultServerContext() : security_->GetServerContext(id);
    }
  }
  if (!context) {
    char text[256];
    std::snprintf(text, sizeof text, "%s Couldn't get security context '%s'", name_.c_str(),
                  id.empty() ? "default" : id.c_str());
    ZEL_NET_LOG(kLogError).addTag(kTagNet100).format("%s", text);
    throw exception(text);
  }
  return context;
}

SocketResult NetTransport::impl::NewStreamSocket(const Endpoint& endpoint,
                                                 const SocketOptions& options, Role role) {
  if (IsShutDown()) {
    ZEL_NET_LOG(kLogWarn).format("%s Is shut down, return no new StreamSocket (for %s)",
                                 name_.c_str(), endpoint.uri().c_str());
    return error::make_error_code(error::shut_down);
  }
  const std::string printed = ToString(options);
  ZEL_NET_LOG(kLogDebug).format("%s NewStreamSocket(%s, %s, %s)", name_.c_str(),
                                endpoint.uri().c_str(), printed.c_str(), RoleWord(role));
  const uint32_t id = NextId_();
  const std::optional<SocketKind> kind = detail::KindOf(endpoint.scheme());
  if (!kind) {
    const std::string scheme(endpoint.scheme());
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet7)
        .format("%s Unsupported socket type '%s'", name_.c_str(), scheme.c_str());
    return "Unsupported socket type '" + scheme + "'";
  }
  try {
    detail::SocketParams params;
    params.id = id;
    params.side = role == Role::SERVER ? StreamSide::SERVER : StreamSide::CLIENT;
    params.io = io_;
    if (metrics_) params.metrics = metrics_->ForSocket(endpoint.uri());
    if (detail::IsTls(*kind)) params.context = GetSecurityContext_(options, role);
    StreamSocketPtr socket = detail::MakeSocket(*kind, std::move(params));
    // A server socket is filled by the acceptor, and inherits the listening
    // socket's options.
    if (role == Role::CLIENT) {
      if (detail::IsLocal(*kind)) {
        socket->open(endpoint);
      } else {
        NetNamespaceGuard inside(options);
        socket->open(endpoint);
        ApplyToTcpSocket(socket->native_handle(), options);
      }
    }
    return socket;
  } catch (const std::exception& e) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet1)
        .format("%s Couldn't create socket '%s' with %s: %s", name_.c_str(),
                endpoint.uri().c_str(), printed.c_str(), e.what());
    return Failure<StreamSocketPtr>(e);
  }
}

ConnectionResult NetTransport::impl::NewConnection(const Endpoint& endpoint,
                                                   const SocketOptions& options, Role role) {
  if (IsShutDown()) {
    ZEL_NET_LOG(kLogWarn).format("%s Is shut down, return no new Connection (for %s)",
                                 name_.c_str(), endpoint.uri().c_str());
    return error::make_error_code(error::shut_down);
  }
  const std::string printed = ToString(options);
  ZEL_NET_LOG(kLogDebug).format("%s NewConnection(%s, %s, %s)", name_.c_str(),
                                endpoint.uri().c_str(), printed.c_str(), RoleWord(role));
  const uint32_t id = NextId_();
  StreamSocketPtr socket;
  // A host name waits for the resolver; an unknown scheme fails here, at once.
  if (endpoint.IsLocal() || IsIpLiteral(endpoint.host()) || role == Role::SERVER ||
      !detail::KindOf(endpoint.scheme())) {
    SocketResult made = NewStreamSocket(endpoint, options, role);
    if (!made.ok()) {
      if (made.error().category() == boost::system::generic_category() &&
          made.error().value() == ERANGE) {
        return made.text();
      }
      return made.error();
    }
    socket = made.value();
  }
  std::shared_ptr<StreamConnection> connection;
  try {
    StreamConnection::Params params;
    params.id = id;
    params.role = role;
    params.endpoint = endpoint;
    params.options = options;
    params.socket = std::move(socket);
    params.transport = weak_from_this();
    params.resolver = resolver_;
    params.dispatcher = dispatcher_;
    params.timers = timers_;
    if (metrics_) params.metrics = metrics_->ForConnection(endpoint.uri());
    connection = StreamConnection::Create(std::move(params));
  } catch (const std::exception& e) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet1)
        .format("%s Couldn't create connection '%s' with %s: %s", name_.c_str(),
                endpoint.uri().c_str(), printed.c_str(), e.what());
    return Failure<ConnectionPtr>(e);
  }
  {
    MutexLock lock(mutex_);
    // A Shutdown that ran meanwhile has closed every listed connection:
    // this one must not outlive it unlisted.
    if (!shutdown_) {
      connections_[id] = connection;
      return ConnectionPtr(connection);
    }
  }
  connection->Close(CloseReason::SHUTDOWN);
  return error::make_error_code(error::shut_down);
}

void NetTransport::impl::UnregisterConnection(uint32_t id) {
  MutexLock lock(mutex_);
  ZEL_NET_LOG(kLogDebug).format("%s Unregistering connection[%u]", name_.c_str(), id);
  connections_.erase(id);
}

ConnectionPtr NetTransport::impl::GetConnection(const Endpoint& endpoint) {
  ZEL_NET_LOG(kLogDebug).format("%s GetConnection(%s)", name_.c_str(), endpoint.uri().c_str());
  return nullptr;
}

// ---------------------------------------------------------------------------
// Listening

StreamAcceptorPtr NetTransport::impl::CreateAcceptor_(const Endpoint& endpoint,
                                                      const SocketOptions& options) {
  ZEL_NET_LOG(kLogDebug).format("%s CreateAcceptor(%s)", name_.c_str(), endpoint.uri().c_str());
  const std::optional<SocketKind> kind = detail::KindOf(endpoint.scheme());
  if (!kind) {
    const std::string scheme(endpoint.scheme());
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet7)
        .format("%s Unsupported acceptor type '%s'", name_.c_str(), scheme.c_str());
    throw exception("Unsupported acceptor type '" + scheme + "'");
  }
  AcceptorMetrics metrics;
  if (metrics_) metrics = metrics_->ForAcceptor(endpoint.uri());
  StreamAcceptorPtr acceptor =
      detail::MakeAcceptor(*kind, NextId_(), endpoint, options.acceptor, io_, std::move(metrics));
  if (detail::IsLocal(*kind)) {
    const std::string path(endpoint.path());
    if (options.uds.mkdir) {
      boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    }
    acceptor->open();
    ApplyToLocalAcceptor(acceptor->native_handle(), options);
    acceptor->bind();
    ApplyUdsFileOptions(path, options.uds);
  } else {
    {
      NetNamespaceGuard inside(options);
      acceptor->open();
      ApplyToTcpAcceptor(acceptor->native_handle(), options);
    }
    acceptor->bind();
  }
  acceptor->listen();
  return acceptor;
}

void NetTransport::impl::Arm_(const Endpoint& endpoint, const SocketOptions& options,
                              const StreamAcceptorPtr& acceptor) {
  ConnectionResult made = NewConnection(endpoint, options, Role::SERVER);
  auto connection = std::static_pointer_cast<StreamConnection>(made.value());
  if (!connection) {
    throw boost::system::system_error(made.error(), "no server connection: " + made.text());
  }
  std::weak_ptr<impl> weak = weak_from_this();
  const std::string name = name_;
  const uint32_t acceptorId = acceptor->id();
  acceptor->async_accept(
      connection->socket(),
      [weak, name, endpoint, acceptorId](const error_code& status) {
        if (auto self = weak.lock()) {
          self->AcceptHandler_(status, endpoint, acceptorId);
        } else {
          ZEL_NET_LOG(kLogDebug).format("%s Ignoring AcceptHandler - already destroyed",
                                        name.c_str());
        }
      },
      [weak, name, endpoint, acceptorId, connection](const error_code& status) {
        if (auto self = weak.lock()) {
          self->AcceptConnectHandler_(status, endpoint, acceptorId, connection);
        } else {
          ZEL_NET_LOG(kLogDebug).format("%s Ignoring AcceptConnectHandler - already destroyed",
                                        name.c_str());
        }
      });
}

error_code NetTransport::impl::Listen(const Endpoint& endpoint, const SocketOptions& options,
                                      AcceptHandler handler) {
  // The handler a record held is destroyed after the lock is released: its
  // captures may reach back into the transport.
  AcceptHandler replaced;
  {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogInfo).format("%s Listen(%s)", name_.c_str(), endpoint.uri().c_str());
    if (shutdown_) {
      ZEL_NET_LOG(kLogWarn).format("%s Is shut down, not starting to listen on %s", name_.c_str(),
                                   endpoint.uri().c_str());
      return error::make_error_code(error::shut_down);
    }
    auto it = acceptors_.find(endpoint.uri());
    if (it != acceptors_.end()) {
      ZEL_NET_LOG(kLogInfo).format("%s Listen - overriding acceptor handler for '%s'",
                                   name_.c_str(), endpoint.uri().c_str());
      replaced = std::move(it->second.handler);
      it->second.handler = std::move(handler);
      return error_code();
    }
    // The URI is taken before the acceptor is made, so that a second Listen
    // meanwhile only replaces the handler (and never unlinks or binds the
    // same socket file again). The record has no acceptor until it is made.
    acceptors_.emplace(endpoint.uri(), AcceptorRecord{nullptr, options, std::move(handler)});
  }
  StreamAcceptorPtr acceptor;
  try {
    acceptor = CreateAcceptor_(endpoint, options);
    {
      MutexLock lock(mutex_);
      auto it = acceptors_.find(endpoint.uri());
      if (it == acceptors_.end() || it->second.acceptor) {
        // Stopped, or shut down, while the acceptor was being made.
        lock.Unlock();
        acceptor->async_close();
        return boost::asio::error::operation_aborted;
      }
      it->second.acceptor = acceptor;
    }
    Arm_(endpoint, options, acceptor);
    return error_code();
  } catch (const std::exception& e) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet3)
        .format("%s Failed to start listening on '%s'", name_.c_str(), endpoint.uri().c_str());
    AcceptorRecord dropped;
    {
      MutexLock lock(mutex_);
      auto it = acceptors_.find(endpoint.uri());
      if (it != acceptors_.end() && it->second.acceptor == acceptor) {
        dropped = std::move(it->second);
        acceptors_.erase(it);
      }
    }
    if (acceptor) acceptor->async_close();
    const Result<int*> failure = Failure<int*>(e);
    return failure.error();
  }
}

void NetTransport::impl::AcceptHandler_(const error_code& status, const Endpoint& endpoint,
                                        uint32_t acceptorId) {
  StreamAcceptorPtr acceptor;
  SocketOptions options;
  {
    MutexLock lock(mutex_);
    if (shutdown_) {
      ZEL_NET_LOG(kLogDebug).format("%s Is shut down, not re-starting acceptor on endpoint '%s'",
                                    name_.c_str(), endpoint.uri().c_str());
      return;
    }
    if (status) {
      ZEL_NET_LOG(status == boost::asio::error::operation_aborted ? kLogDebug : kLogWarn)
          .format("%s Accept on endpoint '%s' failed with %i-%s", name_.c_str(),
                  endpoint.uri().c_str(), status.value(), status.message().c_str());
    }
    auto it = acceptors_.find(endpoint.uri());
    if (it == acceptors_.end() || !it->second.acceptor || it->second.acceptor->id() != acceptorId) {
      ZEL_NET_LOG(kLogDebug).format(
          "%s Not re-starting acceptor on endpoint '%s' - not in listening list anymore",
          name_.c_str(), endpoint.uri().c_str());
      return;
    }
    acceptor = it->second.acceptor;
    options = it->second.options;
  }
  try {
    Arm_(endpoint, options, acceptor);
  } catch (const std::exception& e) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet4)
        .format("%s Failed to accept connection on '%s'", name_.c_str(), endpoint.uri().c_str());
  }
}

void NetTransport::impl::AcceptConnectHandler_(const error_code& status, const Endpoint& endpoint,
                                               uint32_t acceptorId,
                                               const std::shared_ptr<StreamConnection>& connection) {
  ZEL_NET_LOG(kLogDebug).format("%s AcceptConnectHandler(status: %i-%s, ep: '%s')", name_.c_str(),
                                status.value(), status.message().c_str(), endpoint.uri().c_str());
  AcceptHandler handler;
  {
    MutexLock lock(mutex_);
    // Only the listener that accepted hears of it: a later Listen on the
    // same URI has an acceptor of its own.
    auto it = acceptors_.find(endpoint.uri());
    if (it != acceptors_.end() && it->second.acceptor && it->second.acceptor->id() == acceptorId) {
      handler = it->second.handler;
    }
  }
  ConnectionPtr accepted;
  if (status) {
    if (status == boost::asio::error::operation_aborted) {
      ZEL_NET_LOG(kLogDebug).format("%s Accept on endpoint '%s' was cancelled", name_.c_str(),
                                    endpoint.uri().c_str());
    } else {
      ZEL_NET_LOG(kLogError)
          .addTag(kTagNet4)
          .format("%s Accept on endpoint '%s' failed with error %i-%s", name_.c_str(),
                  endpoint.uri().c_str(), status.value(), status.message().c_str());
    }
  } else {
    connection->Accept();
    ZEL_NET_LOG(kLogDebug).format("%s Accepting connection on endpoint '%s'", name_.c_str(),
                                  endpoint.uri().c_str());
    accepted = connection;
  }
  ZEL_NET_LOG(kLogDebug).format("%s %s AcceptHandler (status=%i-%s, ep='%s', connection=%s)",
                                name_.c_str(), handler ? "Invoking" : "Not invoking empty",
                                status.value(), status.message().c_str(), endpoint.uri().c_str(),
                                accepted ? "VALID" : "NONE");
  if (!handler) return;
  const bool kept = handler(status, accepted);
  if (!accepted) return;
  if (kept) {
    ZEL_NET_LOG(kLogDebug).format("%s Accepted connection on endpoint '%s'", name_.c_str(),
                                  endpoint.uri().c_str());
  } else {
    ZEL_NET_LOG(kLogInfo).format("%s Dropped connection on endpoint '%s'", name_.c_str(),
                                 endpoint.uri().c_str());
  }
}

void NetTransport::impl::StopListening(const Endpoint& endpoint) {
  AcceptorRecord record;
  {
    MutexLock lock(mutex_);
    ZEL_NET_LOG(kLogInfo).format("%s StopListening(%s)", name_.c_str(), endpoint.uri().c_str());
    if (shutdown_) {
      ZEL_NET_LOG(kLogDebug).format("%s Is shut down, won't stop listening on %s", name_.c_str(),
                                    endpoint.uri().c_str());
      return;
    }
    auto it = acceptors_.find(endpoint.uri());
    if (it == acceptors_.end()) {
      ZEL_NET_LOG(kLogWarn).format("%s Can't stop listening on %s - no such acceptor",
                                   name_.c_str(), endpoint.uri().c_str());
      return;
    }
    ZEL_NET_LOG(kLogInfo).format("%s Stopping listening on %s", name_.c_str(),
                                 endpoint.uri().c_str());
    record = std::move(it->second);
    acceptors_.erase(it);
  }
  if (record.acceptor) record.acceptor->async_close();
  if (record.handler) {
    dispatcher_->Post([handler = std::move(record.handler)] {
      handler(boost::asio::error::operation_aborted, nullptr);
    });
  }
}

void NetTransport::impl::Shutdown() {
  ZEL_NET_LOG(kLogInfo).format("%s Shutdown", name_.c_str());
  std::unordered_map<std::string, AcceptorRecord> acceptors;
  std::unordered_map<uint32_t, std::weak_ptr<StreamConnection>> connections;
  {
    MutexLock lock(mutex_);
    shutdown_ = true;
    acceptors.swap(acceptors_);
    connections.swap(connections_);
  }
  for (auto& entry : acceptors) {
    if (entry.second.acceptor) entry.second.acceptor->async_close();
  }
  for (auto& entry : connections) {
    if (std::shared_ptr<StreamConnection> connection = entry.second.lock()) {
      ZEL_NET_LOG(kLogDebug).format("%s Shutdown - releasing connection[%u]", name_.c_str(),
                                    entry.first);
      connection->Close(CloseReason::SHUTDOWN);
    } else {
      ZEL_NET_LOG(kLogDebug).format("%s Shutdown - connection[%u] has already been released",
                                    name_.c_str(), entry.first);
    }
  }
}

std::string NetTransport::impl::ListeningAddress(const Endpoint& endpoint) const {
  StreamAcceptorPtr acceptor;
  {
    MutexLock lock(mutex_);
    auto it = acceptors_.find(endpoint.uri());
    if (it == acceptors_.end() || !it->second.acceptor) return std::string();
    acceptor = it->second.acceptor;
  }
  return acceptor->local_endpoint();
}

std::size_t NetTransport::impl::ConnectionCount() const {
  MutexLock lock(mutex_);
  return connections_.size();
}

// ---------------------------------------------------------------------------
// NetTransport

NetTransport::NetTransport(Params params) : impl_(std::make_shared<impl>(std::move(params))) {}

NetTransport::~NetTransport() {
  try {
    ZEL_NET_LOG(kLogInfo).format("%s is being destroyed", impl_->name().c_str());
    if (!impl_->IsShutDown()) impl_->Shutdown();
    ZEL_NET_LOG(kLogInfo).format("%s is destroyed", impl_->name().c_str());
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_NET_LOG, kTagNet9999, "~NetTransport");
  }
}

SocketResult NetTransport::NewStreamSocket(const Endpoint& endpoint, const SocketOptions& options,
                                           Role role) {
  return impl_->NewStreamSocket(endpoint, options, role);
}

void NetTransport::StopListening(const Endpoint& endpoint) { impl_->StopListening(endpoint); }

void NetTransport::UnregisterConnection(uint32_t) {
  throw std::runtime_error("NetTransport::UnregisterConnection - not a public api!");
}

ConnectionResult NetTransport::NewConnection(const Endpoint& endpoint,
                                             const SocketOptions& options, Role role) {
  return impl_->NewConnection(endpoint, options, role);
}

ConnectionPtr NetTransport::GetConnection(const Endpoint& endpoint) {
  return impl_->GetConnection(endpoint);
}

boost::system::error_code NetTransport::Listen(const Endpoint& endpoint,
                                               const SocketOptions& options,
                                               AcceptHandler handler) {
  return impl_->Listen(endpoint, options, std::move(handler));
}

void NetTransport::Shutdown() { impl_->Shutdown(); }

std::string NetTransport::ListeningAddress(const Endpoint& endpoint) const {
  return impl_->ListeningAddress(endpoint);
}

std::size_t NetTransport::ConnectionCount() const { return impl_->ConnectionCount(); }

const std::string& NetTransport::name() const { return impl_->name(); }

}  // namespace net
}  // namespace zel
