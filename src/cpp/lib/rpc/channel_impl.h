// ChannelImpl: the Channel of an RpcConnection. It carries the stream's
// open/ack/close handshake, keeps the table of its calls, and turns every
// operation into an item of its op queue, which the channel scheduler runs.
//
// Stream states: created; opening (a client waits for the ack, 60 seconds at
// most); active; closed (final). A closing channel tells every call that it
// is down, then its active callback (107, not connected, if the ack never
// came) and its down listener.
//
// Server side, a frame that opens a call (it names a method) makes the call
// of the method's type, accepts it with the headers and the connection's
// information, and hands it the frame; a frame for a call id that is not open
// is answered with INTERNAL (or dropped when it carries a failure status).
//
// ChannelFactory makes channels for clients and servers.
//
// Threads. Ops run on the scheduler's thread, one at a time per channel.
// Send may run on any thread; Receive runs on the connection's read path and
// only queues. One lock guards the flags, the call table and the callbacks;
// it is never held while a call, a callback or the connection is called.
#ifndef ZEL_RPC_CHANNEL_IMPL_H_
#define ZEL_RPC_CHANNEL_IMPL_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/rpc/channel.h"
#include "cpp/lib/rpc/connection.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_call.h"
#include "cpp/lib/rpc/zel_rpc_message.h"
#include "cpp/lib/timer/timer.h"

namespace zel {

class TimerFactory;

namespace rpc {

class ChannelScheduler;

// Events of ChannelMetrics, in this order.
enum ChannelEvent {
  kChannelOpen, kChannelOpenLocal, kChannelOpenRemote, kChannelClose, kChannelCloseLocal,
  kChannelCloseRemote, kChannelCloseNetwork, kChannelCloseProtocol, kChannelCloseKeepalive,
  kChannelCloseAckTimeout, kChannelCloseError, kChannelRxMessages, kChannelTxMessages,
  kChannelQueueOps
};
enum ChannelAmount { kChannelRxBytes, kChannelTxBytes };
// Latencies of ChannelMetrics: an op's time in the op queue.
enum ChannelLatency { kChannelQueueLatency };

class ChannelImpl : public Channel,
                    public CallHost,
                    public boost::enable_shared_from_this<ChannelImpl> {
 public:
  static constexpr std::chrono::seconds kActivationTimeout{60};

  struct Params {
    std::string url;
    std::string service;
    StreamId stream_id{};
    bool server_side = false;
    ConnectionPtr connection;
    ChannelPriority priority = ChannelPriority::NORMAL;
    std::shared_ptr<ServiceRegistry> registry;
    std::shared_ptr<ChannelScheduler> scheduler;
    std::shared_ptr<TimerFactory> timers;
    // The registry's namespace key; none: no metrics.
    metrics::MetricKeyPtr metrics_root;
  };

  static boost::shared_ptr<ChannelImpl> Create(Params params);
  ~ChannelImpl() override;

  // Channel
  void OpenOnServer() override;
  void OpenOnClient(ActiveCallback active) override;
  RpcStatus Send(ZelRpcMessage& message) override;
  void Receive(const ZelRpcMessage& message) override;
  void Close(CloseReason reason) override;
  void SetChannelDownListener(DownListener listener) override;
  RpcCallPtr CreateCall(const RpcMethod& method) override;
  const StreamId& GetStreamId() const override { return streamId_; }
  ConnectionPtr GetConnection() const override;
  std::string ToString() const override;
  const CounterSet& GetMetrics() const override { return metrics_; }

  // CallHost
  RpcStatus SendForCall(ZelRpcMessage& message) override { return Send(message); }
  void ReleaseCall(uint64_t id) override;
  void PostForCall(std::function<void()> op) override { AppendOp(std::move(op)); }

  // From the connection's read path: the peer accepted the stream.
  void ReceiveAckStream();
  // Closes; with `send_close` the peer is told.
  void Close(bool sendClose, CloseReason reason);

  // The op queue.
  void AppendOp(std::function<void()> op);
  // Runs at most `limit` ops; the scheduler calls it.
  void ProcessOpQueue(std::size_t limit);
  // After a turn: clears the pending mark, and schedules the channel again
  // when ops are left. The scheduler calls it.
  void TurnEnded();

  ChannelPriority priority() const { return priority_; }
  bool closed() const;
  bool active() const;
  const std::string& service() const { return service_; }
  // Calls open on the channel.
  std::size_t CallCount() const;

 private:
  struct PrivateTag {};

 public:
  ChannelImpl(PrivateTag, Params params);

 private:
  struct Op {
    std::function<void()> fn;
    std::chrono::steady_clock::time_point queued;
  };

  void DoOpenStream_();
  void DoAckStream_();
  void DoReceiveAckStream_();
  void DoClose_(bool sendClose, CloseReason reason);
  void DoReceive_(const ZelRpcMessage& message);
  RpcStatus ReceiveForNewCall_(const ZelRpcMessage& message);
  RpcStatus ReceiveForEstablishedCall_(const ZelRpcMessage& message);
  void LinkCall_(const RpcCallPtr& call);
  void OnActivationTimeout_();
  // Posts `fn` to run with this channel alive.
  void Post_(void (ChannelImpl::*fn)());
  // Sends a message with only a call id and a status (the answer to a
  // refused frame).
  void ReplyStatus_(uint64_t callId, const RpcStatus& status);
  void CountClose_(CloseReason reason);

  const std::string url_;
  const std::string service_;
  const StreamId streamId_;
  const bool serverSide_;
  const uint32_t connectionId_;
  const ChannelPriority priority_;
  const std::shared_ptr<ServiceRegistry> registry_;
  const std::shared_ptr<ChannelScheduler> scheduler_;
  const std::shared_ptr<TimerFactory> timers_;
  const metrics::MetricKeyPtr metricsRoot_;
  const CounterSet metrics_;
  const std::string streamText_;
  std::atomic<uint64_t> nextCallId_{0};
  // Read unlocked by Send, as the connection checks again.
  std::atomic<bool> closedFlag_{false};
  // Only the op queue's thread writes it.
  bool firstSent_ = false;

  mutable Mutex mutex_;
  ConnectionPtr connection_ GUARDED_BY(mutex_);
  bool closed_ GUARDED_BY(mutex_) = false;
  bool active_ GUARDED_BY(mutex_) = false;
  CloseReason closeReason_ GUARDED_BY(mutex_) = CloseReason::UNKNOWN_REASON;
  DownListener downListener_ GUARDED_BY(mutex_);
  ActiveCallback activeCallback_ GUARDED_BY(mutex_);
  std::unordered_map<uint64_t, RpcCallPtr> calls_ GUARDED_BY(mutex_);
  bool schedulePending_ GUARDED_BY(mutex_) = false;
  TimerPtr activationTimer_ GUARDED_BY(mutex_);

  Mutex queueMutex_;
  std::deque<Op> queue_ GUARDED_BY(queueMutex_);
};

class ChannelFactoryInterface {
 public:
  virtual ~ChannelFactoryInterface() = default;
  virtual boost::shared_ptr<ChannelImpl> CreateClientChannel(const std::string& url,
                                                             const std::string& service,
                                                             const ConnectionPtr& connection,
                                                             ChannelPriority priority) = 0;
  virtual boost::shared_ptr<ChannelImpl> CreateServerChannel(const std::string& url,
                                                             const std::string& service,
                                                             const StreamId& streamId,
                                                             const ConnectionPtr& connection,
                                                             ChannelPriority priority) = 0;
};

class ChannelFactory : public ChannelFactoryInterface {
 public:
  ChannelFactory(std::shared_ptr<ChannelScheduler> scheduler,
                 std::shared_ptr<ServiceRegistry> registry, std::shared_ptr<TimerFactory> timers,
                 metrics::MetricKeyPtr metricsRoot);

  // ChannelFactoryInterface
  boost::shared_ptr<ChannelImpl> CreateClientChannel(const std::string& url,
                                                     const std::string& service,
                                                     const ConnectionPtr& connection,
                                                     ChannelPriority priority) override;
  boost::shared_ptr<ChannelImpl> CreateServerChannel(const std::string& url,
                                                     const std::string& service,
                                                     const StreamId& streamId,
                                                     const ConnectionPtr& connection,
                                                     ChannelPriority priority) override;

 private:
  boost::shared_ptr<ChannelImpl> Make_(const std::string& url, const std::string& service,
                                       const StreamId& streamId, bool serverSide,
                                       const ConnectionPtr& connection, ChannelPriority priority);

  const std::shared_ptr<ChannelScheduler> scheduler_;
  const std::shared_ptr<ServiceRegistry> registry_;
  const std::shared_ptr<TimerFactory> timers_;
  const metrics::MetricKeyPtr metricsRoot_;
};

// A random version-4 stream id.
StreamId NewStreamId();

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CHANNEL_IMPL_H_
