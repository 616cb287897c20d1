// ConnectionKeeper keeps one RPC connection up: it asks the transport for
// the connection, and after a failed attempt or a lost connection it tries
// again after the retry policy's delay, until the policy runs out.
// ConnectionManager is a small table of keepers and listeners by endpoint.
//
//   auto keeper = ConnectionKeeper::Create({transport, "tcp://10.0.0.5:4096", options,
//       RetryPolicy(100, 5000, 2.0), userDispatcher, dispatcher, timers,
//       onConnected, onFailed, onClosed});
//   keeper->Connect();
//
// States: idle (nothing in progress), connecting (an attempt runs), waiting
// (the back-off timer is armed), connected.
//
// Threads: the keeper's steps run on the transport's dispatcher; the user's
// handlers on the user's dispatcher, never inline. Posted steps hold the
// keeper weakly: a keeper that goes away stops.
#ifndef ZEL_RPC_CONNECTION_KEEPER_H_
#define ZEL_RPC_CONNECTION_KEEPER_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/common/retry_policy.h"
#include "cpp/lib/rpc/rpc_connection.h"
#include "cpp/lib/timer/timer.h"

namespace zel {

class Dispatcher;
class TimerFactory;

namespace rpc {

class Transport;

class ConnectionKeeper : public std::enable_shared_from_this<ConnectionKeeper> {
 public:
  enum class State { IDLE = 0, CONNECTING, WAITING, CONNECTED };
  using ConnectHandler = std::function<void(const boost::shared_ptr<RpcConnection>&)>;
  using FailureHandler = std::function<void(const boost::system::error_code&)>;
  using CloseHandler = std::function<void(CloseReason)>;

  struct Params {
    std::shared_ptr<Transport> transport;
    std::string url;
    ConnectionOptions options;
    RetryPolicy policy;
    // Where the handlers run.
    boost::shared_ptr<Dispatcher> user_dispatcher;
    // Where the keeper's own steps run: the transport's.
    boost::shared_ptr<Dispatcher> dispatcher;
    std::shared_ptr<TimerFactory> timers;
    ConnectHandler on_connect;
    // The attempts are used up.
    FailureHandler on_failure;
    CloseHandler on_close;
  };

  static std::shared_ptr<ConnectionKeeper> Create(Params params);
  ~ConnectionKeeper();

  // Posts an attempt; ignored while one runs or the back-off waits. A
  // connected keeper closes its connection and makes a new one.
  void Connect();
  // Closes the connection, disarms the timer, and goes idle.
  void Reset();

  State state() const;
  boost::shared_ptr<RpcConnection> connection() const;
  // "ConnectionKeeper[<id> <url>]".
  const std::string& name() const { return name_; }

  explicit ConnectionKeeper(Params params);

 private:
  void ConnectImpl_();
  void OnConnect_(const boost::system::error_code& ec,
                  const boost::shared_ptr<RpcConnection>& connection);
  void OnTimer_();
  // The connection `id` closed.
  void OnClose_(CloseReason reason, uint32_t id);
  void ReconnectMaybe_(uint32_t id);
  // Arms the back-off; false when the policy has run out.
  bool Schedule_(const char* what) REQUIRES(mutex_);
  void PostUser_(std::function<void()> fn);

  const Params params_;
  const std::string name_;

  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::IDLE;
  RetryPolicy policy_ GUARDED_BY(mutex_);
  boost::shared_ptr<RpcConnection> connection_ GUARDED_BY(mutex_);
  TimerPtr timer_ GUARDED_BY(mutex_);
};

// "idle", "connecting", "waiting", "connected".
const char* ToString(ConnectionKeeper::State state);

// Keepers of outbound connections and listeners, by endpoint.
class ConnectionManager {
 public:
  ConnectionManager(std::shared_ptr<Transport> transport, boost::shared_ptr<Dispatcher> dispatcher,
                    std::shared_ptr<TimerFactory> timers);
  ~ConnectionManager();

  // Keeps a connection to `endpoint` up; false when there is one already.
  bool AddConnection(const std::string& endpoint, const ConnectionOptions& options,
                     const RetryPolicy& policy);
  bool RemoveConnection(const std::string& endpoint);
  bool AddListener(const std::string& endpoint, const ConnectionOptions& options);
  bool RemoveListener(const std::string& endpoint);
  std::shared_ptr<ConnectionKeeper> keeper(const std::string& endpoint);

 private:
  const std::shared_ptr<Transport> transport_;
  const boost::shared_ptr<Dispatcher> dispatcher_;
  const std::shared_ptr<TimerFactory> timers_;
  Mutex mutex_;
  std::map<std::string, std::shared_ptr<ConnectionKeeper>> keepers_ GUARDED_BY(mutex_);
  std::map<std::string, ConnectionOptions> listeners_ GUARDED_BY(mutex_);
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CONNECTION_KEEPER_H_
