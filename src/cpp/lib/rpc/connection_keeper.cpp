#include "cpp/lib/rpc/connection_keeper.h"

#include <atomic>
#include <utility>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace rpc {
namespace {

using boost::system::error_code;

std::atomic<uint32_t> g_nextKeeper{0};

// Whether `policy` would hand out another attempt.
bool MayRetry(const RetryPolicy& policy) {
  return policy.max_attempts() >= RetryPolicy::kUnlimitedAttempts - 1 ||
         policy.attempts() < policy.max_attempts();
}

}  // namespace

const char* ToString(ConnectionKeeper::State state) {
  switch (state) {
    case ConnectionKeeper::State::IDLE:
      return "idle";
    case ConnectionKeeper::State::CONNECTING:
      return "connecting";
    case ConnectionKeeper::State::WAITING:
      return "waiting";
    case ConnectionKeeper::State::CONNECTED:
      return "connected";
  }
  return "<ConnectionKeeper::State::INVALID>";
}

std::shared_ptr<ConnectionKeeper> ConnectionKeeper::Create(Params params) {
  return std::make_shared<ConnectionKeeper>(std::move(params));
}

ConnectionKeeper::ConnectionKeeper(Params params)
    : params_(std::move(params)),
      name_("ConnectionKeeper[" + std::to_string(g_nextKeeper.fetch_add(1)) + " " + params_.url +
            "]"),
      policy_(params_.policy) {
  ZEL_RPC_LOG(kLogVerbose).format("%s created with %s", name_.c_str(),
                                  params_.policy.ToString().c_str());
}

ConnectionKeeper::~ConnectionKeeper() {
  try {
    TimerPtr timer;
    {
      MutexLock lock(mutex_);
      timer = std::move(timer_);
    }
    if (timer) timer->Cancel();
    ZEL_RPC_LOG(kLogVerbose).format("%s destroyed", name_.c_str());
  } catch (const std::exception& e) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc9999).format("Exception in %s: %s", name_.c_str(), e.what());
  } catch (...) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc9999).format("Exception in %s", name_.c_str());
  }
}

ConnectionKeeper::State ConnectionKeeper::state() const {
  MutexLock lock(mutex_);
  return state_;
}

boost::shared_ptr<RpcConnection> ConnectionKeeper::connection() const {
  MutexLock lock(mutex_);
  return connection_;
}

void ConnectionKeeper::PostUser_(std::function<void()> fn) {
  params_.user_dispatcher->Post(std::move(fn));
}

void ConnectionKeeper::Connect() {
  ZEL_RPC_LOG(kLogVerbose).format("%s posting ConnectImpl", name_.c_str());
  std::weak_ptr<ConnectionKeeper> weak = weak_from_this();
  const std::string name = name_;
  params_.dispatcher->Post([weak, name] {
    if (auto self = weak.lock()) {
      self->ConnectImpl_();
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s was destroyed before connect impl had a chance to run",
                                      name.c_str());
    }
  });
}

void ConnectionKeeper::ConnectImpl_() {
  const char* name = name_.c_str();
  ZEL_RPC_LOG(kLogVerbose).format("%s attempting connection", name);
  boost::shared_ptr<RpcConnection> old;
  {
    MutexLock lock(mutex_);
    switch (state_) {
      case State::CONNECTING:
        ZEL_RPC_LOG(kLogVerbose).format(
            "%s is already trying to connect. Ignoring this extra connection request", name);
        return;
      case State::WAITING:
        ZEL_RPC_LOG(kLogVerbose).format(
            "%s is waiting for the backoff timer to expire. Ignoring this connection request",
            name);
        return;
      case State::CONNECTED:
        ZEL_RPC_LOG(kLogVerbose).format(
            "%s already has (potentially broken) connection. Closing the current one and will "
            "be opening a new one",
            name);
        old = std::move(connection_);
        break;
      case State::IDLE:
        break;
    }
    state_ = State::CONNECTING;
  }
  if (old) {
    ZEL_RPC_LOG(kLogVerbose).format("%s closing and releasing connection cid:%u", name, old->id());
    old->Close(CloseReason::CLOSED_BY_USER);
  }
  std::weak_ptr<ConnectionKeeper> weak = weak_from_this();
  const std::string self = name_;
  params_.transport->GetConnection(
      params_.url, params_.options,
      [weak, self](const error_code& ec, const boost::shared_ptr<RpcConnection>& c) {
        if (auto keeper = weak.lock()) return keeper->OnConnect_(ec, c);
        if (c) {
          ZEL_RPC_LOG(kLogVerbose).format(
              "%s was destroyed before connect handler, closing connection id:%u", self.c_str(),
              c->id());
          c->Close(CloseReason::CLOSED_BY_USER);
        } else {
          ZEL_RPC_LOG(kLogVerbose).format("%s was destroyed before connect handler, error:%i-%s",
                                          self.c_str(), ec.value(), ec.message().c_str());
        }
      });
}

bool ConnectionKeeper::Schedule_(const char* what) {
  const int64_t delay = policy_.NextDelay();
  if (delay < 0) return false;
  ZEL_RPC_LOG(kLogVerbose).format(what, name_.c_str(), static_cast<long>(delay));
  state_ = State::WAITING;
  std::weak_ptr<ConnectionKeeper> weak = weak_from_this();
  const std::string name = name_;
  timer_ = params_.timers->CreateTimer(std::chrono::milliseconds(delay), [weak, name] {
    if (auto self = weak.lock()) {
      self->OnTimer_();
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s was destroyed before TimerCallback had a chance to run",
                                      name.c_str());
    }
  });
  return true;
}

void ConnectionKeeper::OnConnect_(const error_code& ec,
                                  const boost::shared_ptr<RpcConnection>& connection) {
  const char* name = name_.c_str();
  bool failed = ec || !connection;
  {
    MutexLock lock(mutex_);
    if (state_ != State::CONNECTING) {
      ZEL_RPC_LOG(kLogWarn).format("%s is in the wrong state (%d), ignoring connect callback",
                                   name, static_cast<int>(state_));
      return;
    }
  }
  if (!failed) {
    ZEL_RPC_LOG(kLogVerbose).format("%s established connection cid:%u", name, connection->id());
    // A watcher rather than the one close handler: the transport shares the
    // connection, and another user may hold that.
    std::weak_ptr<ConnectionKeeper> weak = weak_from_this();
    const std::string self = name_;
    const uint32_t id = connection->id();
    if (!connection->AddCloseWatcher([weak, self, id](CloseReason reason) {
          if (auto keeper = weak.lock()) {
            keeper->OnClose_(reason, id);
          } else {
            ZEL_RPC_LOG(kLogVerbose).format("%s was destroyed before OnClose_ was called",
                                            self.c_str());
          }
        })) {
      ZEL_RPC_LOG(kLogWarn).format(
          "%s failed to register an OnClose callback: discarding connection in bad state", name);
      failed = true;
    }
  }
  bool scheduled = false;
  {
    MutexLock lock(mutex_);
    // A Reset while the lock was free wins: the connection is not taken.
    if (state_ != State::CONNECTING) return;
    // Closed before the watcher could count: its close went unseen.
    if (!failed && connection->state() == RpcConnection::State::CLOSED) failed = true;
    if (!failed) {
      policy_.Reset();
      state_ = State::CONNECTED;
      connection_ = connection;
    } else {
      scheduled = Schedule_("%s scheduling connection attempt in %li ms");
      if (!scheduled) state_ = State::IDLE;
    }
  }
  if (!failed) {
    ZEL_RPC_LOG(kLogVerbose).format("%s posting connect handler onto user dispatcher", name);
    if (params_.on_connect) {
      auto handler = params_.on_connect;
      PostUser_([handler, connection] { handler(connection); });
    }
    return;
  }
  if (!scheduled) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s maximum number of connection attempt reached, not retrying", name);
    ZEL_RPC_LOG(kLogVerbose).format("%s posting failure handler onto user dispatcher", name);
    if (params_.on_failure) {
      auto handler = params_.on_failure;
      const error_code why = ec ? ec : error_code(ENOTCONN, boost::system::system_category());
      PostUser_([handler, why] { handler(why); });
    }
  }
}

void ConnectionKeeper::OnTimer_() {
  {
    MutexLock lock(mutex_);
    if (state_ != State::WAITING) {
      ZEL_RPC_LOG(kLogVerbose).format("%s is in the wrong state, ignoring timer callback",
                                      name_.c_str());
      return;
    }
    state_ = State::IDLE;
    timer_.reset();
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s attempting connection from timer callback", name_.c_str());
  ConnectImpl_();
}

void ConnectionKeeper::OnClose_(CloseReason reason, uint32_t id) {
  const char* name = name_.c_str();
  {
    // Only the kept connection counts: one the keeper replaced or let go
    // closes quietly.
    MutexLock lock(mutex_);
    if (state_ != State::CONNECTED || !connection_ || connection_->id() != id) return;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s posting close into user dispatcher", name);
  if (params_.on_close) {
    auto handler = params_.on_close;
    PostUser_([handler, reason] { handler(reason); });
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s posting ReconnectMaybe_", name);
  std::weak_ptr<ConnectionKeeper> weak = weak_from_this();
  const std::string self = name_;
  params_.dispatcher->Post([weak, self, id] {
    if (auto keeper = weak.lock()) {
      keeper->ReconnectMaybe_(id);
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s was destroyed before ReconnectMaybe_ had a chance to run",
                                      self.c_str());
    }
  });
}

void ConnectionKeeper::ReconnectMaybe_(uint32_t id) {
  const char* name = name_.c_str();
  MutexLock lock(mutex_);
  // Reset or reconnected meanwhile.
  if (state_ != State::CONNECTED || !connection_ || connection_->id() != id) return;
  connection_.reset();
  state_ = State::IDLE;
  const bool will = MayRetry(policy_);
  ZEL_RPC_LOG(kLogVerbose).format("%s resetting connection, will %sreconnect", name,
                                  will ? "" : "NOT ");
  if (will && !Schedule_("%s scheduling reconnection attempt in %li ms")) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s maximum number of reconnection attempts reached, not retrying", name);
  }
}

void ConnectionKeeper::Reset() {
  boost::shared_ptr<RpcConnection> connection;
  TimerPtr timer;
  {
    MutexLock lock(mutex_);
    connection = std::move(connection_);
    timer = std::move(timer_);
    state_ = State::IDLE;
    policy_.Reset();
  }
  if (timer) timer->Cancel();
  if (connection) {
    ZEL_RPC_LOG(kLogVerbose).format("%s closing and releasing connection cid:%u", name_.c_str(),
                                    connection->id());
    connection->Close(CloseReason::CLOSED_BY_USER);
  }
}

// ---------------------------------------------------------------------------

ConnectionManager::ConnectionManager(std::shared_ptr<Transport> transport,
                                     boost::shared_ptr<Dispatcher> dispatcher,
                                     std::shared_ptr<TimerFactory> timers)
    : transport_(std::move(transport)),
      dispatcher_(std::move(dispatcher)),
      timers_(std::move(timers)) {}

ConnectionManager::~ConnectionManager() {
  std::map<std::string, std::shared_ptr<ConnectionKeeper>> keepers;
  {
    MutexLock lock(mutex_);
    keepers.swap(keepers_);
  }
  for (auto& entry : keepers) entry.second->Reset();
}

bool ConnectionManager::AddConnection(const std::string& endpoint,
                                      const ConnectionOptions& options,
                                      const RetryPolicy& policy) {
  std::shared_ptr<ConnectionKeeper> keeper;
  {
    MutexLock lock(mutex_);
    if (keepers_.count(endpoint)) {
      ZEL_RPC_LOG(kLogWarn).format("ConnectionManager: Connection to endpoint %s already exists.",
                                   endpoint.c_str());
      return false;
    }
    ConnectionKeeper::Params p;
    p.transport = transport_;
    p.url = endpoint;
    p.options = options;
    p.policy = policy;
    p.user_dispatcher = dispatcher_;
    p.dispatcher = dispatcher_;
    p.timers = timers_;
    p.on_connect = [](const boost::shared_ptr<RpcConnection>& c) {
      ZEL_RPC_LOG(kLogInfo).format("ConnectionManager: Got connection: %s", c->ToString().c_str());
    };
    p.on_failure = [](const boost::system::error_code&) {
      ZEL_RPC_LOG(kLogWarn).format("ConnectionManager: Connection failure cb");
    };
    p.on_close = [endpoint](CloseReason) {
      ZEL_RPC_LOG(kLogInfo).format("ConnectionManager: Connection closed cb for endpoint %s",
                                   endpoint.c_str());
    };
    keeper = ConnectionKeeper::Create(std::move(p));
    keepers_[endpoint] = keeper;
  }
  keeper->Connect();
  return true;
}

bool ConnectionManager::RemoveConnection(const std::string& endpoint) {
  std::shared_ptr<ConnectionKeeper> keeper;
  {
    MutexLock lock(mutex_);
    auto it = keepers_.find(endpoint);
    if (it == keepers_.end()) {
      ZEL_RPC_LOG(kLogWarn).format("ConnectionManager: Endpoint to delete %s does not exist",
                                   endpoint.c_str());
      return false;
    }
    keeper = std::move(it->second);
    keepers_.erase(it);
  }
  keeper->Reset();
  return true;
}

bool ConnectionManager::AddListener(const std::string& endpoint,
                                    const ConnectionOptions& options) {
  {
    MutexLock lock(mutex_);
    if (listeners_.count(endpoint)) {
      ZEL_RPC_LOG(kLogInfo).format(
          "ConnectionManager: Already listening on endpoint %s. Nothing to do.", endpoint.c_str());
      return false;
    }
    listeners_[endpoint] = options;
  }
  const boost::system::error_code ec = transport_->Listen(
      endpoint, options,
      [](const boost::system::error_code& error, const boost::shared_ptr<RpcConnection>&) {
        if (error) {
          ZEL_RPC_LOG(kLogWarn).format("ConnectionManager: Error on accept %s",
                                       error.message().c_str());
        } else {
          ZEL_RPC_LOG(kLogVerbose).format("ConnectionManager: Accept Handler");
        }
      });
  if (ec) {
    MutexLock lock(mutex_);
    listeners_.erase(endpoint);
    return false;
  }
  return true;
}

bool ConnectionManager::RemoveListener(const std::string& endpoint) {
  {
    MutexLock lock(mutex_);
    if (!listeners_.erase(endpoint)) {
      ZEL_RPC_LOG(kLogInfo).format("ConnectionManager: Not listening on %s. Nothing to delete",
                                   endpoint.c_str());
      return false;
    }
  }
  transport_->StopListening(endpoint);
  return true;
}

std::shared_ptr<ConnectionKeeper> ConnectionManager::keeper(const std::string& endpoint) {
  MutexLock lock(mutex_);
  auto it = keepers_.find(endpoint);
  return it == keepers_.end() ? nullptr : it->second;
}

}  // namespace rpc
}  // namespace zel
