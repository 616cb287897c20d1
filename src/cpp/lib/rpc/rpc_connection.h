// RpcConnection: one zel::net stream connection turned into a frame pipe.
// It negotiates by exchanging settings, watches a quiet peer with a
// keepalive, reads frames one at a time and sorts them into three roads
// (control frames for itself, frames of a forwarded stream, frames of its
// channels), writes frames through four weighted priority queues, and stops
// reading while its channels fall behind.
//
// States: Init, Connecting, Negotiating, Connected, Closed (final). An
// outbound connection goes Init -> Connecting -> Negotiating -> Connected
// (back to Init when the connect fails); an accepted one starts at
// Negotiating. The peer's settings move Negotiating to Connected; no settings
// within `negotiation_timeout` seconds closes with "settings timeout".
//
// Writes: one frame in flight; the others wait in four queues by wire
// priority, served in cycles of 10 (127, the connection's own control
// traffic), 5 (96), 2 (64) and 1 (32), one frame from each in turn.
//
// Back-pressure: frames handed to channels and not yet taken are counted;
// reading stops at 2000 and starts again when 1000 remain. There is no other
// flow control.
//
// Keepalive (when `keepalive_timeout` is set above 0): every interval, a
// connection that received no frame sends a request; one that then receives
// neither an answer nor any frame is closed with "keepalive expired", two or
// three intervals after the peer went quiet. Only received frames count.
//
// Threads. Reads and writes complete on the net connection's threads, one
// read and one write in flight at a time. One lock guards the state, the
// channel map, the forwarders, the frame being written, the handlers and the
// keepalive fields; it is never held while a channel, a forwarder, the
// transport or a handler is called. The read gate and the queued-frame count
// are atomics: channels move them from the scheduler's threads.
#ifndef ZEL_RPC_RPC_CONNECTION_H_
#define ZEL_RPC_RPC_CONNECTION_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/net/connection.h"
#include "cpp/lib/net/socket_options.h"
#include "cpp/lib/rpc/connection.h"
#include "cpp/lib/rpc/rpc_frame.h"
#include "cpp/lib/rpc/rpc_metrics.h"
#include "cpp/lib/rpc/zel_rpc_message.h"
#include "cpp/lib/timer/timer.h"

namespace zel {

class Dispatcher;
class TimerFactory;

namespace rpc {

class ChannelFactoryInterface;
class ChannelImpl;
class RpcConnection;
class ServiceRegistry;

// Settings of a connection, given by whoever makes it.
struct ConnectionOptions {
  struct Gateway {
    bool endpoint = false;
    bool service = false;
  };
  // The default route for lookups (endpoint ids, services).
  std::optional<Gateway> gateway;
  // Seconds to wait for the peer's settings; 0 or less: no limit.
  int64_t negotiation_timeout = 0;
  // Seconds of the keepalive interval; unset or 0 or less: no keepalive.
  std::optional<int64_t> keepalive_timeout;
  // How the net connection is made (TLS context, socket settings); not part
  // of the printed form.
  net::SocketOptions socket;

  // "{gw:endpoint service negotiation_timeout:10 keepalive_timeout:30}",
  // parts only when set.
  std::string ToString() const;
};

// A relay of one stream that is not for this node (the stream forwarder).
class StreamForwarder {
 public:
  virtual ~StreamForwarder() = default;
  virtual void Release(std::optional<CloseReason> reason) = 0;
  // Passes `frame`, received on `from`, on; false: release the stream.
  virtual bool Forward(const RpcFramePtr& frame, const boost::shared_ptr<RpcConnection>& from) = 0;
  virtual uint32_t GetPriority() const = 0;
  virtual const StreamId& GetStreamId() const = 0;
};

// What a connection needs from its transport.
class TransportInterface {
 public:
  virtual ~TransportInterface() = default;
  virtual std::vector<std::string> LocalEndpointIds() = 0;
  virtual bool IsLocalEndpointId(const std::string& id) = 0;
  virtual ServiceRegistry* Registry() = 0;
  virtual ChannelFactoryInterface* Channels() = 0;
  // The peer's settings: its endpoint ids and services now reach it through
  // `connection`.
  virtual void ConnectionSettings(const boost::shared_ptr<RpcConnection>& connection,
                                  const std::vector<std::string>& endpointIds,
                                  const std::vector<std::string>& services) = 0;
  virtual void UnregisterConnection(const RpcConnection& connection) = 0;
  virtual bool ForwardingEnabled() = 0;
  // Relays the stream that `message` opens (its frame `frame`) to `target`
  // ("zel://<destination>" or "service://<service>"); false when that can't
  // be set up.
  virtual bool SetupForwarding(const boost::shared_ptr<RpcConnection>& source,
                               const std::string& target, const ZelRpcMessage& message,
                               const RpcFramePtr& frame) = 0;
};

// The four weighted transmit queues of a connection, by wire priority: 127
// (weight 10), 96 (5), 64 (2), 32 (1). A cycle takes one frame from each
// queue in turn, skipping the empty ones and those whose quota is used up,
// until every quota is used up or every queue is empty; then a new cycle
// begins with 127. With all four full, a cycle sends 18 frames.
class WeightedQueueSet {
 public:
  // With `metricsRoot`, each queue counts the frames it takes and their time
  // in the queue, tagged with `endpoint` and the priority's name.
  explicit WeightedQueueSet(const metrics::MetricKeyPtr& metricsRoot = nullptr,
                            const std::string& endpoint = std::string());
  // False for a priority that is none of the four.
  bool Push(uint32_t priority, RpcFramePtr frame);
  bool Pop(RpcFramePtr* out);
  std::size_t size() const;

 private:
  struct Queued {
    RpcFramePtr frame;
    std::chrono::steady_clock::time_point since;
  };
  struct Entry {
    uint32_t priority;
    int weight;
    int served = 0;
    std::deque<Queued> frames;
    CounterSet metrics;
  };
  bool Next_(RpcFramePtr* out, bool* allHadQuota);
  Entry entries_[4];
  std::size_t next_ = 0;
};

class RpcConnection : public Connection, public boost::enable_shared_from_this<RpcConnection> {
 public:
  enum class State { INIT = 0, CONNECTING, NEGOTIATING, CONNECTED, CLOSED };
  enum class KeepaliveState { INACTIVE = 0, MONITORING, DECIDING, WAITING };
  using ConnectHandler = std::function<void(const boost::system::error_code&)>;

  static constexpr std::size_t kSuspendReadingAt = 2000;
  static constexpr std::size_t kResumeReadingAt = 1000;
  static constexpr std::chrono::seconds kDeferredCloseDelay{300};

  struct Params {
    uint32_t id = 0;
    net::ConnectionPtr net;
    ConnectionOptions options;
    // 0: this side connects; 1: accepted.
    int direction = 0;
    std::weak_ptr<TransportInterface> transport;
    boost::shared_ptr<Dispatcher> dispatcher;
    std::shared_ptr<TimerFactory> timers;
    metrics::MetricKeyPtr metrics_root;
  };

  static boost::shared_ptr<RpcConnection> Create(Params params);
  ~RpcConnection() override;

  // Outbound start, in Init: connects, then negotiates; `handler` gets the
  // outcome once Connected or on failure.
  void AsyncConnect(ConnectHandler handler);
  // Inbound start: negotiates; `handler` gets success once Connected.
  void Accept(ConnectHandler handler);
  // A ready frame, for forwarders.
  RpcStatus Send(const RpcFramePtr& frame, uint32_t priority);
  // False when the connection is closed or the stream has a forwarder.
  [[nodiscard]] bool AddStreamForwarder(const StreamId& id,
                                        const std::shared_ptr<StreamForwarder>& forwarder);
  void ReleaseStreamForwarder(const StreamId& id, std::optional<CloseReason> reason);

  // Connection
  RpcStatus Send(ZelRpcMessage& message, uint32_t priority) override;
  void RegisterChannel(const boost::shared_ptr<ChannelImpl>& channel) override;
  void UnregisterChannel(const ChannelImpl& channel) override;
  void OnFrameQueued() override;
  void OnFrameTaken() override;
  ConnectionLocalInfo GetLocalInfo() const override;
  net::ConnectionPtr GetNetConnection() const override { return net_; }
  std::string GetInfo() const override;
  void Close(CloseReason reason) override;
  bool SetOnClose(CloseHandler handler) override;
  // Adds one of any number of watchers, called with the reason after the
  // close handler when the connection closes; false on a closed one.
  bool AddCloseWatcher(CloseHandler watcher);
  void ScheduleDeferredClose() override;
  std::string ToString() const override;

  State state() const;
  KeepaliveState keepalive_state() const;
  const ConnectionOptions& options() const { return options_; }
  int direction() const { return direction_; }
  // Frames handed to channels and not yet taken.
  uint64_t rx_queued() const { return rxQueued_.load(); }
  bool reading_suspended() const { return readState_.load() == kReadSuspended; }
  // The close that follows the last channel's release is on its way.
  bool deferred_close_armed() const;
  std::vector<std::string> remote_endpoint_ids() const;
  std::vector<std::string> remote_services() const;

 private:
  struct PrivateTag {};

 public:
  RpcConnection(PrivateTag, Params params);

 private:
  enum ReadState : uint32_t { kReadIdle = 0, kReading = 1, kReadSuspended = 2 };
  // What the read path leaves for after the lock is released.
  struct ReadOutcome {
    std::optional<CloseReason> close;
    // Start the next read before the frame is handed on.
    bool readNext = false;
    ConnectHandler connected;
    std::optional<ZelRpcMessage> stream;
    // A frame of a forwarded stream.
    std::shared_ptr<StreamForwarder> forwarder;
    RpcFramePtr forwarded;
    bool lastForwarded = false;
  };

  void SetState_(State state, const char* function) REQUIRES(mutex_);
  // Send(message, priority) with the lock held: settings and keepalive
  // messages go this way too.
  RpcStatus SendLocked_(const ZelRpcMessage& message, uint32_t priority) REQUIRES(mutex_);
  void StartNegotiation_() REQUIRES(mutex_);
  void SendSettings_() REQUIRES(mutex_);
  bool ReadStart_() REQUIRES(mutex_);
  void ReadNext_();
  void ReadResume_();
  void OnConnected_(const boost::system::error_code& ec);
  void OnRead_(const boost::system::error_code& ec, std::size_t bytes);
  // A whole frame has been read.
  void OnFrame_(ReadOutcome& out) REQUIRES(mutex_);
  void Forward_(const std::shared_ptr<StreamForwarder>& forwarder, const RpcFramePtr& frame,
                bool last);
  // false: the control frame fails with `reason` (and `error` for the log).
  bool ControlFrame_(const ZelRpcMessage& message, ReadOutcome& out, std::string* error,
                     CloseReason* reason) REQUIRES(mutex_);
  void HandleSettings_(const ZelRpcMessage& message) REQUIRES(mutex_);
  bool HandleKeepaliveRequest_(const ZelRpcMessage& message, std::string* error) REQUIRES(mutex_);
  bool HandleKeepaliveResponse_(const ZelRpcMessage& message, std::string* error)
      REQUIRES(mutex_);
  void StreamFrame_(const ZelRpcMessage& message);
  void OpenStream_(const ZelRpcMessage& message, uint32_t priority);
  void ReplyClose_(const ZelRpcMessage& cause, uint32_t priority, const std::string& reason);
  RpcStatus Enqueue_(RpcFramePtr frame, uint32_t priority) REQUIRES(mutex_);
  void Write_(const RpcFramePtr& frame) REQUIRES(mutex_);
  void OnWritten_(const boost::system::error_code& ec, std::size_t bytes);
  void OnNegotiationTimeout_();
  void OnKeepaliveTimer_();
  void KeepaliveSendRequest_(std::chrono::steady_clock::time_point now) REQUIRES(mutex_);
  void OnDeferredClose_();
  void CountClose_(CloseReason reason);
  std::string Name_() const REQUIRES(mutex_);

  const uint32_t netId_;
  const net::ConnectionPtr net_;
  const ConnectionOptions options_;
  const int direction_;
  const std::weak_ptr<TransportInterface> transport_;
  const boost::shared_ptr<Dispatcher> dispatcher_;
  const std::shared_ptr<TimerFactory> timers_;
  const bool keepaliveEnabled_;
  const std::chrono::seconds keepaliveInterval_;
  CounterSet metrics_;

  std::atomic<uint32_t> readState_{kReadIdle};
  std::atomic<uint64_t> rxQueued_{0};

  // Held from just before the next read starts until the frame just read is
  // passed on: that read may complete on another thread, and the frames of
  // a stream must reach their channel in the order they came.
  Mutex deliveryMutex_ ACQUIRED_BEFORE(mutex_);
  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::INIT;
  std::string localEndpoint_ GUARDED_BY(mutex_);
  std::string remoteEndpoint_ GUARDED_BY(mutex_);
  // The frame being read, and its stage: 0 the header, 1 the body.
  RpcFramePtr rxFrame_ GUARDED_BY(mutex_);
  int readStage_ GUARDED_BY(mutex_) = 0;
  RpcFramePtr writeFrame_ GUARDED_BY(mutex_);
  WeightedQueueSet txQueues_ GUARDED_BY(mutex_);
  std::vector<std::string> remoteEndpointIds_ GUARDED_BY(mutex_);
  std::vector<std::string> remoteServices_ GUARDED_BY(mutex_);
  bool settingsReceived_ GUARDED_BY(mutex_) = false;
  std::unordered_map<StreamId, boost::shared_ptr<ChannelImpl>, StreamIdHash> channels_ GUARDED_BY(mutex_);
  std::unordered_map<StreamId, std::shared_ptr<StreamForwarder>, StreamIdHash> forwarders_ GUARDED_BY(mutex_);
  ConnectHandler connectHandler_ GUARDED_BY(mutex_);
  CloseHandler closeHandler_ GUARDED_BY(mutex_);
  std::vector<CloseHandler> closeWatchers_ GUARDED_BY(mutex_);
  TimerPtr negotiationTimer_ GUARDED_BY(mutex_);
  TimerPtr keepaliveTimer_ GUARDED_BY(mutex_);
  TimerPtr deferredCloseTimer_ GUARDED_BY(mutex_);

  KeepaliveState keepaliveState_ GUARDED_BY(mutex_) = KeepaliveState::INACTIVE;
  std::chrono::steady_clock::time_point lastCheckTime_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point lastRequestTime_ GUARDED_BY(mutex_);
  uint64_t lastRequestId_ GUARDED_BY(mutex_) = 0;
  std::chrono::steady_clock::time_point lastResponseTime_ GUARDED_BY(mutex_);
  std::chrono::steady_clock::time_point lastMessageTime_ GUARDED_BY(mutex_);
};

// "Init", "Connecting", "Negotiating", "Connected", "Closed", or
// "<RpcConnection::ConnectionState::INVALID>".
const char* ToString(RpcConnection::State state);
// "inactive", "monitoring", "deciding", "waiting for response", or
// "<RpcConnection::Keepalive::State::INVALID>".
const char* ToString(RpcConnection::KeepaliveState state);

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_CONNECTION_H_
