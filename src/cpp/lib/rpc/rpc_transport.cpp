#include "cpp/lib/rpc/rpc_transport.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/endpoint.h"
#include "cpp/lib/net/transport.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/rpc_error.h"
#include "cpp/lib/rpc/rpc_resolvers.h"
#include "cpp/lib/rpc/rpc_stream_forwarder.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace zel {
namespace rpc {
namespace {

using boost::system::error_code;

std::string Joined(const std::vector<std::string>& names) {
  std::string out;
  for (const std::string& n : names) out += (out.empty() ? "" : "','") + n;
  return out;
}

error_code ShutDown() { return error::make_error_code(error::shut_down); }
error_code NotConnected() { return error_code(ENOTCONN, boost::system::system_category()); }

// The name after "<scheme>://".
std::string NameOf(const std::string& url, std::size_t schemeLength) {
  return url.substr(schemeLength + 3);
}

}  // namespace

// ---------------------------------------------------------------------------
// RemoteServiceManager: one RemoteService per relay target, which finds the
// connection to the target once and binds every forwarder to it.

class RpcTransport::RemoteServiceManagerImpl
    : public ForwarderOwner,
      public std::enable_shared_from_this<RemoteServiceManagerImpl> {
 public:
  enum class State { INIT, RESOLVING, RESOLVED };

  RemoteServiceManagerImpl(std::weak_ptr<RpcTransport> transport, const std::string& owner)
      : transport_(std::move(transport)), name_(owner + "::RemoteServiceManager") {}

  // False when the forwarder cannot be taken.
  bool SetupForwarding(const std::string& target,
                       const std::shared_ptr<RpcStreamForwarder>& forwarder);
  void ReleaseForwarder(const StreamForwarder& forwarder) override;
  void ReleaseAll();

 private:
  struct RemoteService {
    std::string name;
    State state = State::INIT;
    boost::shared_ptr<RpcConnection> connection;
    std::vector<std::shared_ptr<RpcStreamForwarder>> waiting;
    std::vector<std::shared_ptr<RpcStreamForwarder>> bound;
  };
  static const char* StateName(State s) {
    return s == State::INIT ? "Init" : s == State::RESOLVING ? "Resolving" : "Resolved";
  }
  void OnResolved_(const std::string& target, const error_code& ec,
                   const boost::shared_ptr<RpcConnection>& connection);

  const std::weak_ptr<RpcTransport> transport_;
  const std::string name_;
  Mutex mutex_;
  std::map<std::string, RemoteService> services_ GUARDED_BY(mutex_);
  std::unordered_map<const StreamForwarder*, std::string> targetOf_ GUARDED_BY(mutex_);
};

bool RpcTransport::RemoteServiceManagerImpl::SetupForwarding(
    const std::string& target, const std::shared_ptr<RpcStreamForwarder>& forwarder) {
  const char* name = name_.c_str();
  const std::string fwd = StreamIdText(forwarder->GetStreamId());
  ZEL_RPC_LOG(kLogVerbose).format("%s Setting up forwarding for '%s' for %s", name, target.c_str(),
                                  forwarder->name().c_str());
  boost::shared_ptr<RpcConnection> bindTo;
  bool resolve = false;
  {
    MutexLock lock(mutex_);
    auto it = services_.find(target);
    if (it == services_.end()) {
      RemoteService made;
      made.name = name_ + "::RemoteService[" + target + "]";
      ZEL_RPC_LOG(kLogVerbose).format("%s Creating RemoteService[%s]", name, target.c_str());
      it = services_.emplace(target, std::move(made)).first;
    }
    RemoteService& service = it->second;
    if (targetOf_.count(forwarder.get())) {
      ZEL_RPC_LOG(kLogWarn).format("%s Already has StreamForwarder[%s]", service.name.c_str(),
                                   fwd.c_str());
      return true;
    }
    if (!forwarder->active()) {
      ZEL_RPC_LOG(kLogWarn).format("%s Is already inactive - not adding StreamForwarder[%s]",
                                   service.name.c_str(), fwd.c_str());
      return false;
    }
    // A resolved connection that has gone since is looked up again.
    if (service.state == State::RESOLVED &&
        (!service.connection || service.connection->state() != RpcConnection::State::CONNECTED)) {
      service.state = State::INIT;
      service.connection.reset();
    }
    switch (service.state) {
      case State::RESOLVED:
        ZEL_RPC_LOG(kLogVerbose).format("%s Already resolved, binding StreamForwarder[%s] to %s",
                                        service.name.c_str(), fwd.c_str(),
                                        service.connection->ToString().c_str());
        service.bound.push_back(forwarder);
        bindTo = service.connection;
        break;
      case State::INIT:
        resolve = true;
        service.state = State::RESOLVING;
        [[fallthrough]];
      case State::RESOLVING:
        ZEL_RPC_LOG(kLogVerbose).format("%s Adding StreamForwarder[%s]", service.name.c_str(),
                                        fwd.c_str());
        service.waiting.push_back(forwarder);
        break;
    }
    targetOf_[forwarder.get()] = target;
  }
  if (bindTo) forwarder->Bind(bindTo);
  if (resolve) {
    std::shared_ptr<RpcTransport> transport = transport_.lock();
    if (!transport) return false;
    std::weak_ptr<RemoteServiceManagerImpl> weak = shared_from_this();
    transport->GetConnection(
        target, ConnectionOptions(),
        [weak, target](const error_code& ec, const boost::shared_ptr<RpcConnection>& c) {
          if (auto self = weak.lock()) self->OnResolved_(target, ec, c);
        });
  }
  return true;
}

void RpcTransport::RemoteServiceManagerImpl::OnResolved_(
    const std::string& target, const error_code& ec,
    const boost::shared_ptr<RpcConnection>& connection) {
  std::vector<std::shared_ptr<RpcStreamForwarder>> waiting;
  {
    MutexLock lock(mutex_);
    auto it = services_.find(target);
    if (it == services_.end()) return;
    RemoteService& service = it->second;
    waiting.swap(service.waiting);
    if (ec || !connection) {
      if (ec.value() == ECANCELED) {
        ZEL_RPC_LOG(kLogWarn).format("%s Resolution of the service was cancelled",
                                     service.name.c_str());
      } else {
        ZEL_RPC_LOG(kLogWarn).format("%s Failed to resolve service: %i-%s", service.name.c_str(),
                                     ec.value(), ec.message().c_str());
      }
      service.state = State::INIT;
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s Remote %s resolved to %s", service.name.c_str(),
                                      target.c_str(), connection->ToString().c_str());
      service.state = State::RESOLVED;
      service.connection = connection;
      for (const auto& f : waiting) service.bound.push_back(f);
    }
    // Every forwarder went while the name was looked up: the last one takes
    // the service with it.
    if (waiting.empty() && service.bound.empty()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Destroying RemoteService[%s]", name_.c_str(),
                                      target.c_str());
      services_.erase(it);
    }
  }
  for (const auto& f : waiting) {
    if (ec || !connection) {
      f->Release(CloseReason::NETWORK_ERROR);
    } else {
      f->Bind(connection);
    }
  }
}

void RpcTransport::RemoteServiceManagerImpl::ReleaseForwarder(const StreamForwarder& forwarder) {
  const std::string fwd = StreamIdText(forwarder.GetStreamId());
  MutexLock lock(mutex_);
  auto t = targetOf_.find(&forwarder);
  if (t == targetOf_.end()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Can't release StreamForwarder[%s] - not found",
                                    name_.c_str(), fwd.c_str());
    return;
  }
  const std::string target = t->second;
  targetOf_.erase(t);
  auto it = services_.find(target);
  if (it == services_.end()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Could not find RemoteService[%s] to release StreamForwarder[%s]",
                                 name_.c_str(), target.c_str(), fwd.c_str());
    return;
  }
  RemoteService& service = it->second;
  ZEL_RPC_LOG(kLogVerbose).format("%s Releasing StreamForwarder[%s]", service.name.c_str(),
                                  fwd.c_str());
  for (auto* list : {&service.waiting, &service.bound}) {
    for (auto f = list->begin(); f != list->end(); ++f) {
      if (f->get() == &forwarder) {
        list->erase(f);
        break;
      }
    }
  }
  if (service.waiting.empty() && service.bound.empty()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Destroying RemoteService[%s]", name_.c_str(),
                                    target.c_str());
    services_.erase(it);
  }
}

void RpcTransport::RemoteServiceManagerImpl::ReleaseAll() {
  std::vector<std::shared_ptr<RpcStreamForwarder>> all;
  {
    MutexLock lock(mutex_);
    for (auto& entry : services_) {
      for (auto* list : {&entry.second.waiting, &entry.second.bound}) {
        all.insert(all.end(), list->begin(), list->end());
      }
    }
  }
  for (const auto& f : all) f->Release(CloseReason::SHUTDOWN);
}

// ---------------------------------------------------------------------------
// RpcTransport

std::shared_ptr<RpcTransport> RpcTransport::Create(Params params) {
  auto transport = std::make_shared<RpcTransport>(PrivateTag(), std::move(params));
  transport->manager_ = std::make_shared<RemoteServiceManagerImpl>(transport, transport->name_);
  ZEL_RPC_LOG(kLogVerbose).format("%s is created", transport->name_.c_str());
  return transport;
}

RpcTransport::RpcTransport(PrivateTag, Params params)
    : id_([] {
        static std::atomic<uint32_t> next{0};
        return next.fetch_add(1);
      }()),
      name_("RpcTransport[" + std::to_string(id_) + "]"),
      params_(std::move(params)),
      endpointResolver_(std::make_shared<RpcEndpointResolver>(params_.dispatcher)),
      serviceResolver_(std::make_shared<RpcServiceResolver>(params_.dispatcher)) {
  ZEL_RPC_LOG(kLogVerbose).format("%s is being created", name_.c_str());
}

RpcTransport::~RpcTransport() {
  ZEL_RPC_LOG(kLogVerbose).format("%s is being destroyed", name_.c_str());
  ZEL_RPC_LOG(kLogVerbose).format("%s is destroyed", name_.c_str());
}

void RpcTransport::Post_(const ConnectHandler& handler, const error_code& ec,
                         const boost::shared_ptr<RpcConnection>& connection) {
  params_.dispatcher->Post([handler, ec, connection] { handler(ec, connection); });
}

void RpcTransport::GetConnection(const std::string& url, const ConnectionOptions& options,
                                 ConnectHandler handler) {
  const char* name = name_.c_str();
  ZEL_RPC_LOG(kLogVerbose).format("%s Getting connection to '%s'", name, url.c_str());
  // A requested shutdown counts at once, before its posted step has run.
  if (shutdownRequested_.load()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Not returning connection to %s - transport is shutdown", name,
                                 url.c_str());
    return Post_(handler, ShutDown(), nullptr);
  }
  const net::Endpoint parsed(url);
  RpcResolver* table = parsed.scheme() == "service" ? static_cast<RpcResolver*>(serviceResolver_.get())
                       : parsed.scheme() == "zel"   ? endpointResolver_.get()
                                                    : nullptr;
  if (!table) return ConnectTo_(url, options, std::move(handler));

  const std::string key = NameOf(url, parsed.scheme().size());
  ZEL_RPC_LOG(kLogVerbose).format("%s Resolving '%s'...", name, url.c_str());
  std::weak_ptr<RpcTransport> weak = weak_from_this();
  const std::string self = name_;
  const char* const gone = parsed.scheme() == "service"
                               ? "%s Ignoring RemoteServiceResolveHandler - already destroyed"
                               : "%s Ignoring EndpointResolveHandler - already destroyed";
  table->Resolve(key, [weak, self, gone, url, key, options, handler](const error_code& ec,
                                                                     const RpcRoute& route) {
    if (auto transport = weak.lock()) {
      transport->OnResolved_(url, key, ec, route, options, handler);
    } else {
      ZEL_RPC_LOG(kLogVerbose).format(gone, self.c_str());
    }
  });
}

void RpcTransport::OnResolved_(const std::string& url, const std::string& key,
                               const error_code& ec, const RpcRoute& route,
                               const ConnectionOptions& options, ConnectHandler handler) {
  const char* name = name_.c_str();
  if (ec) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc10)
        .format("%s Failed to resolve endpoint id '%s' (%i - %s)", name, key.c_str(), ec.value(),
                ec.message().c_str());
    return Post_(handler, ec, nullptr);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Endpoint id '%s' is resolved to '%s'", name, key.c_str(),
                                  ResolverText(route).c_str());
  if (route.connection) {
    auto connection = boost::static_pointer_cast<RpcConnection>(route.connection);
    if (connection->state() == RpcConnection::State::CONNECTED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Scheduling ConnectHandler with available connection",
                                      name);
      return Post_(handler, error_code(), connection);
    }
  }
  if (route.endpoint.empty()) return Post_(handler, NotConnected(), nullptr);
  ConnectTo_(route.endpoint, options, std::move(handler));
  (void)url;
}

void RpcTransport::ConnectTo_(const std::string& endpoint, const ConnectionOptions& options,
                              ConnectHandler handler) {
  {
    MutexLock lock(mutex_);
    auto it = byEndpoint_.find(endpoint);
    if (it != byEndpoint_.end() && it->second->state() == RpcConnection::State::CONNECTED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Scheduling ConnectHandler with available connection",
                                      name_.c_str());
      return Post_(handler, error_code(), it->second);
    }
  }
  CreateConnection_(endpoint, options, std::move(handler));
}

boost::shared_ptr<RpcConnection> RpcTransport::MakeConnection_(const net::ConnectionPtr& net,
                                                               const ConnectionOptions& options,
                                                               int direction) {
  RpcConnection::Params p;
  p.id = net->id();
  p.net = net;
  p.options = options;
  p.direction = direction;
  p.transport = std::weak_ptr<TransportInterface>(shared_from_this());
  p.dispatcher = params_.dispatcher;
  p.timers = params_.timers;
  p.metrics_root = params_.metrics_root;
  return RpcConnection::Create(std::move(p));
}

void RpcTransport::CreateConnection_(const std::string& endpoint, const ConnectionOptions& options,
                                     ConnectHandler handler) {
  const char* name = name_.c_str();
  ZEL_RPC_LOG(kLogVerbose).format("%s Creating connection to '%s' with %s", name,
                                  endpoint.c_str(), options.ToString().c_str());
  if (shutdownRequested_.load()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Can't create connection to '%s' - transport is shutdown", name,
                                 endpoint.c_str());
    return Post_(handler, ShutDown(), nullptr);
  }
  const net::ConnectionResult result =
      params_.net->NewConnection(net::Endpoint(endpoint), options.socket);
  if (!result.ok()) {
    const error_code ec = result.error() ? result.error() : NotConnected();
    const std::string why = result.text().empty() ? ec.message() : result.text();
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc1)
        .format("%s Failed to get net connection to %s: %s", name, endpoint.c_str(), why.c_str());
    return Post_(handler, ec, nullptr);
  }
  boost::shared_ptr<RpcConnection> connection = MakeConnection_(result.value(), options, 0);
  {
    MutexLock lock(mutex_);
    pending_[connection->id()] = connection;
  }
  std::weak_ptr<RpcTransport> weak = weak_from_this();
  const std::string self = name_;
  // A connection closed while it connects or negotiates calls no connect
  // handler: until the connect answers, its close does, so that the caller
  // always hears. Whichever comes first answers.
  auto answered = std::make_shared<std::atomic<bool>>(false);
  boost::weak_ptr<RpcConnection> weakConnection = connection;
  connection->SetOnClose([weak, weakConnection, endpoint, handler, answered](CloseReason) {
    if (answered->exchange(true)) return;
    auto transport = weak.lock();
    auto closed = weakConnection.lock();
    if (transport && closed) {
      transport->ConnectCallback_(closed, endpoint,
                                  error_code(ECONNABORTED, boost::system::system_category()),
                                  handler);
    }
  });
  ZEL_RPC_LOG(kLogVerbose).format("%s Posting AsyncConnect to new connection object", name);
  params_.dispatcher->Post([weak, self, connection, endpoint, handler, answered] {
    connection->AsyncConnect([weak, self, connection, endpoint, handler,
                              answered](const error_code& ec) {
      if (answered->exchange(true)) return;
      // The close handler is the user's from here on.
      connection->SetOnClose(nullptr);
      if (auto transport = weak.lock()) {
        transport->ConnectCallback_(connection, endpoint, ec, handler);
      } else {
        ZEL_RPC_LOG(kLogVerbose).format(
            "%s Ignoring connect callback to %s - transport is already destroyed", self.c_str(),
            endpoint.c_str());
        connection->Close(CloseReason::SHUTDOWN);
      }
    });
  });
}

void RpcTransport::ConnectCallback_(const boost::shared_ptr<RpcConnection>& connection,
                                    const std::string& endpoint, const error_code& ec,
                                    const ConnectHandler& handler) {
  const char* name = name_.c_str();
  if (ec) {
    {
      MutexLock lock(mutex_);
      pending_.erase(connection->id());
    }
    ZEL_RPC_LOG(kLogWarn).format("%s Unable to connect to %s: %i-%s", name, endpoint.c_str(),
                                 ec.value(), ec.message().c_str());
    ZEL_RPC_LOG(kLogVerbose).format("%s Posting user connect handler for %s with status %i-%s",
                                    name, endpoint.c_str(), ec.value(), ec.message().c_str());
    return Post_(handler, ec, nullptr);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s ConnectCallback for %s invoked with success", name,
                                  endpoint.c_str());
  {
    MutexLock lock(mutex_);
    pending_.erase(connection->id());
  }
  if (!Register_(connection, endpoint)) {
    if (connection->state() == RpcConnection::State::CLOSED) {
      return Post_(handler, error_code(ECONNABORTED, boost::system::system_category()), nullptr);
    }
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc8)
        .format("%s Failed to register connection %s id:%u - closing", name,
                connection->ToString().c_str(), connection->id());
    connection->Close(CloseReason::SHUTDOWN);
    return Post_(handler, ShutDown(), nullptr);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Posting user connect handler for %s with status %i-%s", name,
                                  endpoint.c_str(), 0, "Success");
  Post_(handler, error_code(), connection);
  ConnectionHandler up;
  {
    MutexLock lock(mutex_);
    up = onUp_;
  }
  if (up) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Posting connection up handler for %s", name,
                                    connection->ToString().c_str());
    params_.dispatcher->Post([up, connection] { up(connection); });
  }
}

bool RpcTransport::Register_(const boost::shared_ptr<RpcConnection>& connection,
                             const std::string& endpoint) {
  const char* name = name_.c_str();
  const std::string text = connection->ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Registering %s", name, text.c_str());
  MutexLock lock(mutex_);
  if (shutdown_) {
    ZEL_RPC_LOG(kLogWarn).format("%s Not registering %s - transport is shutdown", name,
                                 text.c_str());
    return false;
  }
  // Closed since it came up: its unregister has passed already. (A close
  // after this check unregisters under the same lock.)
  if (connection->state() == RpcConnection::State::CLOSED) return false;
  auto byId = byId_.find(connection->id());
  if (byId != byId_.end()) {
    ZEL_RPC_LOG(kLogError).format(
        "%s Failed to register %s - connection with the same id already exists (%s)", name,
        text.c_str(), byId->second->ToString().c_str());
    return false;
  }
  auto byEndpoint = byEndpoint_.find(endpoint);
  if (byEndpoint != byEndpoint_.end()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Connection to %s is already registered (id:%u), overwriting",
                                 name, endpoint.c_str(), byEndpoint->second->id());
  }
  byId_[connection->id()] = connection;
  byEndpoint_[endpoint] = connection;
  endpointOf_[connection->id()] = endpoint;
  const auto& gateway = connection->options().gateway;
  if (gateway && gateway->endpoint) {
    ZEL_RPC_LOG(kLogInfo).format("%s Updating default endpoint resolution to %s", name,
                                 text.c_str());
    endpointResolver_->SetDefault(RpcRoute{"", connection});
    defaultEndpointId_ = connection->id();
  }
  if (gateway && gateway->service) {
    ZEL_RPC_LOG(kLogInfo).format("%s Updating default service resolution to %s", name,
                                 text.c_str());
    serviceResolver_->SetDefault(RpcRoute{"", connection});
    defaultServiceId_ = connection->id();
  }
  return true;
}

void RpcTransport::UnregisterConnection(const RpcConnection& connection) {
  const char* name = name_.c_str();
  const std::string text = connection.ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Unregistering %s", name, text.c_str());
  boost::shared_ptr<RpcConnection> registered;
  ConnectionHandler down;
  MutexLock lock(mutex_);
  pending_.erase(connection.id());
  auto e = endpointOf_.find(connection.id());
  auto byEndpoint = e == endpointOf_.end() ? byEndpoint_.end() : byEndpoint_.find(e->second);
  if (byEndpoint == byEndpoint_.end()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Cannot unregister %s (by endpoint) - not registered", name,
                                 text.c_str());
  } else if (byEndpoint->second.get() != &connection) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s Cannot unregister %s (by endpoint) - does not match the registered one", name,
        text.c_str());
  } else {
    byEndpoint_.erase(byEndpoint);
  }
  if (e != endpointOf_.end()) endpointOf_.erase(e);
  auto byId = byId_.find(connection.id());
  if (byId == byId_.end()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Cannot unregister %s (by id) - not registered", name,
                                 text.c_str());
  } else if (byId->second.get() != &connection) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s Cannot unregister %s (by id) - does not match the registered one", name,
        text.c_str());
  } else {
    registered = byId->second;
    byId_.erase(byId);
  }
  if (defaultEndpointId_ == connection.id()) {
    ZEL_RPC_LOG(kLogInfo).format("%s Resetting default endpoint resolution", name);
    endpointResolver_->ResetDefault();
    defaultEndpointId_.reset();
  }
  if (defaultServiceId_ == connection.id()) {
    ZEL_RPC_LOG(kLogInfo).format("%s Resetting default service resolution", name);
    serviceResolver_->ResetDefault();
    defaultServiceId_.reset();
  }
  // What the connection announced goes in any case, registered or not; the
  // tables compare the route, so another connection's mappings stay.
  {
    const RpcRoute route{"", boost::const_pointer_cast<RpcConnection>(connection.shared_from_this())};
    const boost::shared_ptr<RpcConnection>& announcer =
        boost::static_pointer_cast<RpcConnection>(route.connection);
    const std::vector<std::string> ids = announcer->remote_endpoint_ids();
    if (!ids.empty()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Unregistering remote endpoint ids '%s' @ %s", name,
                                      Joined(ids).c_str(), text.c_str());
      for (const std::string& id : ids) {
        endpointResolver_->RemoveMapping(id, route);
        RemapLocked_(*endpointResolver_, id, &RpcConnection::remote_endpoint_ids);
      }
    }
    for (const std::string& service : announcer->remote_services()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Unregistering remote service '%s' @ %s", name,
                                      service.c_str(), text.c_str());
      serviceResolver_->RemoveMapping(service, route);
      RemapLocked_(*serviceResolver_, service, &RpcConnection::remote_services);
    }
  }
  if (registered) down = onDown_;
  if (down) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Posting connection down handler for %s", name,
                                    text.c_str());
    params_.dispatcher->Post([down, registered] { down(registered); });
  }
}

void RpcTransport::RemapLocked_(RpcResolver& table, const std::string& name,
                                std::vector<std::string> (RpcConnection::*announced)() const) {
  // Another live connection that announced the name serves it from now on.
  for (const auto& entry : byId_) {
    const boost::shared_ptr<RpcConnection>& other = entry.second;
    if (other->state() != RpcConnection::State::CONNECTED) continue;
    const std::vector<std::string> names = ((*other).*announced)();
    if (std::find(names.begin(), names.end(), name) != names.end()) {
      table.AddMapping(name, RpcRoute{"", other});
      return;
    }
  }
}

void RpcTransport::ConnectionSettings(const boost::shared_ptr<RpcConnection>& connection,
                                      const std::vector<std::string>& endpointIds,
                                      const std::vector<std::string>& services) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Posting ConnectionSettings update", name_.c_str());
  std::weak_ptr<RpcTransport> weak = weak_from_this();
  const std::string self = name_;
  params_.dispatcher->Post([weak, self, connection, endpointIds, services] {
    auto transport = weak.lock();
    if (!transport) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring ConnectionSettingsHandler - already destroyed",
                                      self.c_str());
      return;
    }
    const char* name = self.c_str();
    const std::string text = connection->ToString();
    ZEL_RPC_LOG(kLogVerbose).format("%s Processing internal ConnectionSettings update", name);
    // Under the lock, against an unregister: a connection that has gone
    // meanwhile leaves no mapping behind.
    // (Its registration may still be on its way: the connect answer and the
    // settings are posted apart. A close unregisters under the same lock.)
    MutexLock lock(transport->mutex_);
    if (connection->state() == RpcConnection::State::CLOSED) return;
    const RpcRoute route{"", connection};
    if (!endpointIds.empty()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Registering remote endpoint ids '%s' @ %s", name,
                                      Joined(endpointIds).c_str(), text.c_str());
      for (const std::string& id : endpointIds) transport->endpointResolver_->AddMapping(id, route);
    }
    if (!services.empty()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Registering remote service '%s' @ %s", name,
                                      Joined(services).c_str(), text.c_str());
      for (const std::string& s : services) transport->serviceResolver_->AddMapping(s, route);
    }
  });
}

error_code RpcTransport::Listen(const std::string& endpoint, const ConnectionOptions& options,
                                AcceptHandler handler) {
  {
    MutexLock lock(mutex_);
    if (shutdown_) return ShutDown();
    listening_[endpoint] = options;
  }
  std::weak_ptr<RpcTransport> weak = weak_from_this();
  const std::string self = name_;
  return params_.net->Listen(
      net::Endpoint(endpoint), options.socket,
      [weak, self, endpoint, options, handler](const error_code& ec, const net::ConnectionPtr& c) {
        auto transport = weak.lock();
        if (!transport) {
          ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring AcceptHandler - already destroyed",
                                          self.c_str());
          return false;
        }
        transport->OnAccepted_(endpoint, options, ec, c, handler);
        return true;
      });
}

void RpcTransport::OnAccepted_(const std::string& endpoint, const ConnectionOptions& options,
                               const error_code& ec, const net::ConnectionPtr& net,
                               const AcceptHandler& handler) {
  const char* name = name_.c_str();
  if (ec || !net) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc4)
        .format("%s Accept on '%s' failed with error %i-%s", name, endpoint.c_str(), ec.value(),
                ec.message().c_str());
    return;
  }
  const std::string peer = net->remote_endpoint().uri();
  ZEL_RPC_LOG(kLogVerbose).format("%s Connection request received on %s from %s", name,
                                  endpoint.c_str(), peer.c_str());
  boost::shared_ptr<RpcConnection> connection = MakeConnection_(net, options, 1);
  // An accepted connection is known by its peer and id: peers behind one
  // local socket path share their endpoint.
  if (!Register_(connection, peer + "#" + std::to_string(connection->id()))) {
    ZEL_RPC_LOG(kLogWarn).format("%s Closing connection from AcceptHandler - failed to register",
                                 name);
    connection->Close(CloseReason::SHUTDOWN);
    return;
  }
  if (handler) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Invoking user accept handler", name);
    Post_(handler, error_code(), connection);
  }
  std::weak_ptr<RpcTransport> weak = weak_from_this();
  connection->Accept([weak, connection](const error_code& accepted) {
    auto transport = weak.lock();
    if (!transport || accepted) return;
    ConnectionHandler up;
    {
      MutexLock lock(transport->mutex_);
      up = transport->onUp_;
    }
    if (up) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Posting connection up handler for %s",
                                      transport->name_.c_str(), connection->ToString().c_str());
      transport->params_.dispatcher->Post([up, connection] { up(connection); });
    }
  });
}

void RpcTransport::StopListening(const std::string& endpoint) {
  {
    MutexLock lock(mutex_);
    listening_.erase(endpoint);
  }
  params_.net->StopListening(net::Endpoint(endpoint));
}

void RpcTransport::AddLocalEndpointId(const std::string& id) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Adding local endpoint id %s", name_.c_str(), id.c_str());
  MutexLock lock(localIdsMutex_);
  localIds_.insert(id);
}

void RpcTransport::RemoveLocalEndpointId(const std::string& id) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Removing local endpoint id %s", name_.c_str(), id.c_str());
  MutexLock lock(localIdsMutex_);
  localIds_.erase(id);
}

std::vector<std::string> RpcTransport::LocalEndpointIds() {
  MutexLock lock(localIdsMutex_);
  return std::vector<std::string>(localIds_.begin(), localIds_.end());
}

bool RpcTransport::IsLocalEndpointId(const std::string& id) {
  MutexLock lock(localIdsMutex_);
  return localIds_.count(id) != 0;
}

std::vector<boost::shared_ptr<RpcConnection>> RpcTransport::connections() const {
  MutexLock lock(mutex_);
  std::vector<boost::shared_ptr<RpcConnection>> out;
  for (const auto& entry : byId_) out.push_back(entry.second);
  return out;
}

void RpcTransport::CloseConnection(uint32_t id) {
  const char* name = name_.c_str();
  ZEL_RPC_LOG(kLogVerbose).format("%s Closing connection id:%u", name, id);
  boost::shared_ptr<RpcConnection> connection;
  {
    MutexLock lock(mutex_);
    auto it = byId_.find(id);
    if (it != byId_.end()) connection = it->second;
  }
  if (!connection) {
    ZEL_RPC_LOG(kLogWarn).format("%s Couldn't close connection id:%u - not registered", name, id);
    return;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Closing connection %s", name, connection->ToString().c_str());
  connection->Close(CloseReason::CLOSED_BY_USER);
}

void RpcTransport::SetOnConnectionUp(ConnectionHandler handler) {
  MutexLock lock(mutex_);
  if (shutdown_) {
    ZEL_RPC_LOG(kLogWarn).format("%s Ignoring SetOnConnectionUp after shutdown", name_.c_str());
    return;
  }
  onUp_ = std::move(handler);
}

void RpcTransport::SetOnConnectionDown(ConnectionHandler handler) {
  MutexLock lock(mutex_);
  if (shutdown_) {
    ZEL_RPC_LOG(kLogWarn).format("%s Ignoring SetOnConnectionDown after shutdown", name_.c_str());
    return;
  }
  onDown_ = std::move(handler);
}

bool RpcTransport::SetupForwarding(const boost::shared_ptr<RpcConnection>& source,
                                   const std::string& target, const ZelRpcMessage& message,
                                   const RpcFramePtr& frame) {
  const char* name = name_.c_str();
  const ::orvane::zel::rpc::StreamControlMsg& control = message.stream_control;
  const uint32_t priority = NormalizeStreamPriority(control);
  std::shared_ptr<RpcStreamForwarder> forwarder =
      RpcStreamForwarder::Create(message.stream_id, priority, source, manager_,
                                 params_.metrics_root, control.service());
  // A destination this node owns has been reached: the stream travels on
  // for its service only.
  if (control.has_destination() && IsLocalEndpointId(control.destination())) {
    ::orvane::zel::rpc::StreamControlMsg patched = control;
    patched.clear_destination();
    if (!PatchStreamControl(frame, patched)) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc60)
          .format("%s Failed to patch stream_control for stream %s", name,
                  StreamIdText(message.stream_id).c_str());
      return false;
    }
  }
  if (!source->AddStreamForwarder(message.stream_id, forwarder)) return false;
  // The opening frame waits in the forwarder before the destination is
  // sought, so that it goes first however fast the answer comes.
  forwarder->Forward(frame, source);
  if (!manager_->SetupForwarding(target, forwarder)) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc60)
        .format("%s Failed to setup forwarding for service '%s' for %s", name,
                control.service().c_str(), forwarder->name().c_str());
    forwarder->Release(std::nullopt);
    return false;
  }
  return true;
}

void RpcTransport::Shutdown() {
  if (shutdownRequested_.exchange(true)) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Not shutting down transport that is already shutdown",
                                    name_.c_str());
    return;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Posting shutdown request", name_.c_str());
  std::shared_ptr<RpcTransport> self = shared_from_this();
  params_.dispatcher->Post([self] { self->DoShutdown_(); });
}

void RpcTransport::ShutdownNow() {
  shutdownRequested_.store(true);
  DoShutdown_();
}

void RpcTransport::DoShutdown_() {
  std::vector<boost::shared_ptr<RpcConnection>> open;
  std::vector<std::string> listening;
  {
    MutexLock lock(mutex_);
    // A posted shutdown and the owner's may both come.
    if (shutdown_) return;
    shutdown_ = true;
    for (const auto& entry : byId_) open.push_back(entry.second);
    for (const auto& entry : pending_) {
      if (auto c = entry.second.lock()) open.push_back(c);
    }
    pending_.clear();
    for (const auto& entry : listening_) listening.push_back(entry.first);
    listening_.clear();
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Shutting down and releasing all StreamForwarders",
                                  name_.c_str());
  manager_->ReleaseAll();
  for (const std::string& endpoint : listening) params_.net->StopListening(net::Endpoint(endpoint));
  endpointResolver_->Shutdown();
  serviceResolver_->Shutdown();
  {
    MutexLock lock(mutex_);
    onUp_ = nullptr;
    onDown_ = nullptr;
  }
  for (const auto& connection : open) connection->Close(CloseReason::SHUTDOWN);
}

}  // namespace rpc
}  // namespace zel
