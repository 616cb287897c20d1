// zel::MpaClient: the application's view of the management plane.
//
// One client per application type lives in a process-wide map. The
// application registers it, starts it, sends through it and unregisters it
// with the static operations:
//
//   boost::shared_ptr<zel::MpaClient> client = zel::MpaClient::Register(
//       dispatcher, callback, "DORN_FABRIC_APPLICATION", "DORN_FABRIC_APPLICATION",
//       /*connectionType=*/1, /*port=*/9002, 30000000, 5000000, registry.root());
//   client->Start();             // connects to the MPA and keeps reconnecting
//   client->SendMsg(&record);    // on whichever road is in force
//   client->Close();
//   zel::MpaClient::Unregister("DORN_FABRIC_APPLICATION");
//
// Roads. The client starts on the MPA road: a connection through the MPA
// library (RmqClientInterface) to the local MPA. A CLOSE from the library
// brings a reconnect after 1 second, a failed connect one after the connect
// retry interval. Once the proxy client reports a proxy for the application,
// TearDownRmq closes the MPA road for good and every later send goes to
// SendMsgViaTnProxy. In this build the RPC road does not exist: the
// operations that belong to it log "Not Implemented" and fail (see the
// virtual operations below), and the proxy client is the no-road stand-in of
// tnproxy_no_road.h, which never reports a proxy.
//
// Intervals are microseconds. Timers run on the dispatcher given to Register.
//
// Threads and locks. Callers are the library's event-loop thread (inbound
// records), the dispatcher thread (timers), the proxy client's worker and the
// application's threads; every public operation may be called from any of
// them. The process-wide map has a shared mutex; each client has a connection
// mutex (state, cookie, rmqClient, reconnect timer, ACK flag) and an init
// mutex (handshake flags, zel-rpc flag, handshake timers), both shared
// mutexes: getters take them shared, writers exclusive. The map lock is
// taken before a client's locks; the two locks of a client are never held
// together; no lock is held while calling the library (Register,
// CloseClient, SendMessage), the message callback, or AppInitHandshake.
#ifndef ZEL_MPACLIENT_MPA_CLIENT_H_
#define ZEL_MPACLIENT_MPA_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/shared_mutex.hpp>

#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/timer/timer.h"

struct rmqClientMessage;

namespace zel {

class AsioDispatcher;
class AsioTimerFactory;
class RmqClientInterface;

class MpaClient : public boost::enable_shared_from_this<MpaClient> {
 public:
  using MessageCallback = boost::function<void(rmqClientMessage*)>;
  using Counter = metrics::Metric<metrics::UnitCounterT<unsigned long>>;

  // The only application type for which Register makes a client.
  static constexpr const char* kDornApplicationType = "DORN_FABRIC_APPLICATION";
  // Application types that also reconnect when no ACK came within the ACK
  // retry interval.
  static constexpr const char* kSwitchingVertical = "SwitchingVertical";
  static constexpr const char* kControllerMgmtVertical = "ControllerMgmtVertical";

  // Connection states.
  static constexpr int32_t kStateDisconnected = 1;
  static constexpr int32_t kStateConnected = 2;

  // Fixed intervals, in microseconds; see Intervals.
  static constexpr uint64_t kCloseReconnectMicros = 1000000;
  static constexpr uint64_t kAppInitWaitMicros = 30000000;
  static constexpr uint64_t kAppInitRetryMicros = 1000000;

  // Makes the client of `applicationType` (only "DORN_FABRIC_APPLICATION";
  // for any other type nothing is made and an empty pointer is returned),
  // keeps it in the process-wide map with the two retry intervals, and lets
  // it create its application-specific part and its RmqClientInterface. The
  // counters "rmq/connection/establish", "rmq/msg/rx" and "rmq/msg/tx" go
  // under `metricRoot` with the label app=<applicationType>. A type that is
  // already registered keeps its client, which is returned. Nothing connects
  // until Start. Throws std::invalid_argument for a null dispatcher or
  // metric root.
  static boost::shared_ptr<MpaClient> Register(boost::shared_ptr<AsioDispatcher> dispatcher,
                                               MessageCallback callback,
                                               const std::string& applicationType,
                                               const std::string& applicationId,
                                               int32_t connectionType, uint16_t port,
                                               uint64_t ackRetryMicros,
                                               uint64_t connectRetryMicros,
                                               metrics::MetricKeyPtr metricRoot);
  // Removes the client of `applicationType` from the map (records for it are
  // then dropped), drops its RmqClientInterface (closing a connection still
  // open and cancelling a pending reconnect), releases its application-specific
  // part and removes it from the proxy client. No-op for an unknown type.
  static void Unregister(const std::string& applicationType);
  // The registered client of `applicationType`, or an empty pointer.
  static boost::shared_ptr<MpaClient> GetMpaClient(const std::string& applicationType);

  virtual ~MpaClient();
  MpaClient(const MpaClient&) = delete;
  MpaClient& operator=(const MpaClient&) = delete;

  // Registers with the proxy client, then connects to the MPA (ConnectMpa).
  // The connect runs on the calling thread and takes as long as the library's
  // registration (up to about a second); failures schedule reconnects.
  void Start();
  // Application shut-down: DisconnectMpa (which closes an open connection
  // and cancels its reconnect timer), then HandleClose. A reconnect already
  // pending without a connection still runs; Unregister stops it for good.
  void Close();

  // Sends `message` on the road in force. MPA road: the record goes to the
  // library (which copies what it needs), and the result is 0 or the
  // library's negative code; -1 when the client has no RmqClientInterface.
  // After TearDownRmq: SendMsgViaTnProxy with an empty name.
  int SendMsg(rmqClientMessage* message);
  // -1 unless IsReadyForTnProxy, else SendMsgViaTnProxy.
  int SendMsgViaTnProxyIfReady(rmqClientMessage* message, const std::string& name);
  // True when the proxy is connected and the app-init handshake is complete.
  bool IsReadyForTnProxy();

  // The MPA road's connection state machine; see the implementation for the
  // steps and their log lines.
  void ConnectMpa();
  // Variant that registers with the endpoint 127.0.0.1:<port> and never arms
  // the ACK retry.
  void ConnectMpaStateTrans();
  // Arms the reconnect timer (replacing a pending one) unless the MPA road
  // has been torn down.
  void ScheduleReconnect(uint64_t micros);
  void ReconnectTimeout();
  // Closes the MPA connection, if any, and cancels its reconnect timer.
  void DisconnectMpa();
  // Leaves the MPA road for good: DisconnectMpa, then the zel-rpc flag.
  // A reconnect still pending then only clears the cookie.
  void TearDownRmq();

  // App-init handshake control. Sequence numbers make late answers and
  // time-outs of an earlier handshake harmless.
  int32_t GetNewAppInitSequenceNumber();
  bool IsCurrentAppInitSequence(int32_t seq);
  void WaitForAppInitHandshakeCompletion(int32_t seq);
  void WaitAppInitTimeout(int32_t seq);
  void RetryAppInitHandshake();
  void WaitTnProxyTimeout();
  // True when `seq` is current and the handshake was not yet complete; it
  // then is. The name is the system's own.
  bool CompleteAppInitHanshake(int32_t seq);

  // Proxy events, from the proxy client's worker.
  void TnProxyConnected();
  void TnProxyDisconnected();
  void HandleClose();

  // The cookie of the MPA connection, -1 when there is none.
  int32_t GetCookieId();
  int32_t GetState();
  bool IsRegistrationAcked();
  bool IsAppInitCompleted();
  bool IsTnProxyConnected();
  bool IsZelRpcEnabled();

  const std::string& applicationType() const { return applicationType_; }
  const std::string& applicationId() const { return applicationId_; }
  int32_t connectionType() const { return connectionType_; }
  uint16_t port() const { return port_; }

 protected:
  // The intervals that are not parameters of Register. Subclasses (and
  // tests) may shorten them before Start.
  struct Intervals {
    uint64_t closeReconnectMicros = kCloseReconnectMicros;
    uint64_t appInitWaitMicros = kAppInitWaitMicros;
    uint64_t appInitRetryMicros = kAppInitRetryMicros;
  };

  MpaClient(boost::shared_ptr<AsioDispatcher> dispatcher, MessageCallback callback,
            std::string applicationType, std::string applicationId, int32_t connectionType,
            uint16_t port, metrics::MetricKeyPtr metricRoot);

  // The second half of Register, for a client already made: stores it and
  // the intervals under the map lock and calls CreateAppSpecificInstance and
  // CreateRmqClient. A type already in the map keeps its client, which is
  // returned; otherwise `client` is.
  static boost::shared_ptr<MpaClient> RegisterInstance(boost::shared_ptr<MpaClient> client,
                                                       uint64_t ackRetryMicros,
                                                       uint64_t connectRetryMicros);

  // The RPC road's operations. In this class they only log; the RPC road's
  // client overrides them.
  virtual void CreateRpcService();       // "[%s] RPC Service Not Implemented."
  virtual void AppInitHandshake();       // "[%s] AppInitHandshake : Not Implemented."
  virtual void CreateAppSpecificInstance();   // "... : Not Implemented."
  virtual void ReleaseAppSpecificInstance();  // "... : Not Implemented."
  // Adds this client to the proxy client (the no-road stand-in here).
  virtual void RegisterWithTnProxyClient();
  // Logs "[%s] SendMsgViaTnProxy: (%s) Not Implemented!" and returns -1.
  virtual int SendMsgViaTnProxy(rmqClientMessage* message, const std::string& name);
  // Makes the RmqClientInterface of the MPA road (an RmqClient here).
  virtual void CreateRmqClient();
  // Drops it, closing its connection and cancelling a pending reconnect.
  virtual void DestroyRmqClient();
  virtual void CleanUpForStubs();  // "[%s] CleanUpForStubs: Not Implemented!"

  // Installs `client` as the MPA road's interface; for CreateRmqClient.
  void SetRmqClient(RefPtr<RmqClientInterface> client);
  // Records and acts on one inbound record; frees its rawBuffer on every path.
  void OnMessage(rmqClientMessage* message);
  void HandleTnProxyConnected();
  void HandleTnProxyDisconnected();
  void HandleAppInitSuccess();

  Intervals intervals_;

 private:
  // The library's callback: finds the client by the record's application
  // type and hands the record to OnMessage.
  static void MessageDispatcher(rmqClientMessage* message);
  static uint64_t AckRetryMicros_(const std::string& applicationType);
  static uint64_t ConnectRetryMicros_(const std::string& applicationType);

  // The common body of ConnectMpa and ConnectMpaStateTrans.
  void Connect_(bool withEndpoint);
  // Creates a one-shot timer of `micros` that calls `fn` while this client
  // lives.
  TimerPtr StartTimer_(uint64_t micros, boost::function<void(MpaClient&)> fn);
  // Logs the CLOSE of a connection that is not this client's, which is
  // ignored.
  void LogCookieMismatch_(int32_t received, int32_t current);
  // Cancels and drops the two handshake timers; the caller holds initMutex_.
  void CancelHandshakeTimers_();

  const boost::shared_ptr<AsioDispatcher> dispatcher_;
  const std::unique_ptr<AsioTimerFactory> timers_;
  const MessageCallback callback_;
  const std::string applicationType_;
  const std::string applicationId_;
  const int32_t connectionType_;
  const uint16_t port_;

  Counter establishCounter_;
  Counter rxCounter_;
  Counter txCounter_;

  boost::shared_mutex connectionMutex_;
  // Guarded by connectionMutex_.
  RefPtr<RmqClientInterface> rmqClient_;
  int32_t state_ = kStateDisconnected;
  int32_t cookieId_ = -1;
  bool registrationAcked_ = false;
  // True while Register of the library runs; a CLOSE for a cookie not yet
  // known meanwhile is kept in closedWhileRegistering_ (-1: none).
  bool registering_ = false;
  int32_t closedWhileRegistering_ = -1;
  TimerPtr reconnectTimer_;

  boost::shared_mutex initMutex_;
  // Guarded by initMutex_.
  bool appInitCompleted_ = false;
  bool tnproxyConnected_ = false;
  bool zelRpcEnabled_ = false;
  TimerPtr handshakeRetryTimer_;
  TimerPtr handshakeWaitTimer_;

  std::atomic<int32_t> appInitSequence_{0};
};

}  // namespace zel

#endif  // ZEL_MPACLIENT_MPA_CLIENT_H_
