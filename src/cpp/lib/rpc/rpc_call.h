// RpcCall: one remote call on one channel, on either side of the wire and of
// any of the four shapes, as a table-driven state machine.
//
// Call types, from the local side's point of view: 1 one message each way,
// 2 the local side streams, 4 the remote side streams, 8 both. So type & 10
// says the local side may send several messages, type & 12 the remote side.
//
// States: NOT_STARTED, ACTIVE, LOCAL_DONE, REMOTE_DONE, DONE (final),
// CANCELLED (final), LOCAL_ERROR, REMOTE_ERROR, ERROR (final). Each is one
// stateless object with one operation per event; a handler only names the
// next state, and the driver changes state after the handler has returned,
// running Exit and Enter, and Enter may name a state again.
//
//   client unary: Start, Send -> ACTIVE -> LOCAL_DONE; the answer's payload
//   reaches the consumer's Next, its status gives REMOTE_DONE, RemoteStatus,
//   DONE and CallStatus.
//
// Threads. The call belongs to a CallHost (its channel): every event runs on
// the host's op queue, one at a time, so the state and the flags need no
// lock. The public operations may be called from any thread: they do what
// needs no ordering (serialising a message) and post the rest. Only the final
// status, read by GetStatus from any thread, has a mutex; `cancel_pending` is
// the one flag a user's thread writes. Consumer callbacks run on the op
// queue's thread.
#ifndef ZEL_RPC_RPC_CALL_H_
#define ZEL_RPC_RPC_CALL_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/smart_ptr/weak_ptr.hpp>

#include "cpp/lib/common/buffer.h"
#include "cpp/lib/common/mutex.h"
#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_metrics.h"
#include "cpp/lib/rpc/rpc_status.h"

namespace google {
namespace protobuf {
class MessageLite;
}  // namespace protobuf
}  // namespace google

namespace zel {
namespace rpc {

class ZelRpcMessage;

namespace detail {
class RpcCallNotStarted;
class RpcCallActive;
class RpcCallLocalDone;
class RpcCallRemoteDone;
class RpcCallDone;
class RpcCallCancelled;
class RpcCallBaseError;
class RpcCallLocalError;
class RpcCallRemoteError;
class RpcCallError;
}  // namespace detail

// What a call needs from its channel.
class CallHost {
 public:
  virtual ~CallHost() = default;
  // Sends one message of a call on the stream; the channel stamps it.
  virtual RpcStatus SendForCall(ZelRpcMessage& message) = 0;
  // Drops the call from the host's table.
  virtual void ReleaseCall(uint64_t id) = 0;
  // Runs `op` on the host's op queue.
  virtual void PostForCall(std::function<void()> op) = 0;
};

enum class CallSide { CLIENT = 0, SERVER = 1 };

// The call type of a method on one side: RMT_CLIENT_STREAMING is 2 on the
// client and 4 on the server, RMT_SERVER_STREAMING the other way round.
int CallTypeOf(RpcMethodType type, CallSide side);

class Call : public IRefCountable {
 public:
  virtual RpcStatus Send(const google::protobuf::MessageLite& message) = 0;
  // A last message (or none) and the local status.
  virtual RpcStatus Complete(const google::protobuf::MessageLite* message,
                             const RpcStatus& status) = 0;
  virtual RpcStatus Done(const RpcStatus& status) = 0;
  virtual RpcStatus Cancel() = 0;
  virtual void Receive(const ZelRpcMessage& message) = 0;
  virtual void HandleChannelDown() = 0;
  // The final status; not set while the call runs.
  virtual RpcStatus GetStatus() const = 0;
};

using CallMetrics = CounterSet;
// Events of CallMetrics, in this order: "started", "accepted", "done",
// "cancelled", "failed", "failed/local", "failed/remote", "dropped",
// "dropped/unknown-id", "dropped/unknown-method"; latencies "lifetime",
// "duration", "user-time".
enum CallEvent {
  kCallStarted, kCallAccepted, kCallDone, kCallCancelled, kCallFailed, kCallFailedLocal,
  kCallFailedRemote, kCallDropped, kCallDroppedUnknownId, kCallDroppedUnknownMethod
};
enum CallLatency { kCallLifetime, kCallDuration, kCallUserTime };
CallMetrics MakeCallMetrics(const metrics::MetricKeyPtr& root, const std::string& instance);

class RpcCall : public RefCounted<RpcCall, Call> {
 public:
  class State;

  RpcCall(uint64_t id, CallSide side, int type, const RpcMethod& method,
          boost::weak_ptr<CallHost> host, std::shared_ptr<const CallMetrics> metrics);
  ~RpcCall() override;
  RpcCall(const RpcCall&) = delete;
  RpcCall& operator=(const RpcCall&) = delete;

  // Client side: starts the call with the caller's headers.
  void Start(const ClientContext& context, std::shared_ptr<MessageConsumer> consumer);
  // Server side, on the host's op queue, as the call is made.
  void Accept(const ZelRpcMessage& message, const ServerContext& context,
              std::shared_ptr<MessageConsumer> consumer);
  // Run once with the final status (the blocking handle's hook).
  void SetDoneCallback(std::function<void(const RpcStatus&)> callback);

  // Sends already serialised bytes (Send serialises into such a buffer).
  RpcStatus SendPayload(SharedBufferPtr payload);
  RpcStatus CompletePayload(SharedBufferPtr payload, const RpcStatus& status);

  // Call
  RpcStatus Send(const google::protobuf::MessageLite& message) override;
  RpcStatus Complete(const google::protobuf::MessageLite* message,
                     const RpcStatus& status) override;
  RpcStatus Done(const RpcStatus& status) override;
  RpcStatus Cancel() override;
  void Receive(const ZelRpcMessage& message) override;
  void HandleChannelDown() override;
  RpcStatus GetStatus() const override;

  uint64_t id() const { return id_; }
  CallSide side() const { return side_; }
  int type() const { return type_; }
  // "RpcCall:Client:Unary[<method>, 0x0007, ACTIVE]".
  std::string ToString() const;
  const char* StateName() const;
  // The status the peer was told, and the one of each side.
  const RpcStatus& local_status() const { return localStatus_; }
  const RpcStatus& remote_status() const { return remoteStatus_; }
  const RpcStatus& reported_status() const { return reportedStatus_; }
  // remote if local is not set, or local is SUCCESS and remote is set;
  // otherwise local.
  RpcStatus EffectiveStatus() const;

 private:
  // The states run the call's steps.
  friend class State;
  friend class detail::RpcCallNotStarted;
  friend class detail::RpcCallActive;
  friend class detail::RpcCallLocalDone;
  friend class detail::RpcCallRemoteDone;
  friend class detail::RpcCallDone;
  friend class detail::RpcCallCancelled;
  friend class detail::RpcCallBaseError;
  friend class detail::RpcCallLocalError;
  friend class detail::RpcCallRemoteError;
  friend class detail::RpcCallError;

  // The driver: runs one event of the current state and the state changes
  // it asks for.
  template <class F>
  auto Drive_(F&& event);
  void ChangeState_();
  void DoStart_();

  // The one way out for a call's traffic.
  RpcStatus SendMessage_(const SharedBufferPtr* payload, const RpcStatus* status);
  RpcStatus ReportStatus_(const RpcStatus& status);
  // Hands `message` to the host; a failure is logged (RPC105) as the
  // `what` message.
  RpcStatus Transmit_(ZelRpcMessage& message, const char* what);
  void DeliverCallStatus_();
  void StoreFinal_();
  void Release_();
  const char* LocalName_() const { return side_ == CallSide::CLIENT ? "Client" : "Server"; }
  const char* RemoteName_() const { return side_ == CallSide::CLIENT ? "Server" : "Client"; }
  bool LocalStreams_() const { return (type_ & 10) != 0; }
  bool RemoteStreams_() const { return (type_ & 12) != 0; }
  // Runs a consumer callback, timing it into user-time.
  RpcStatus Consume_(const std::function<RpcStatus(MessageConsumer&)>& fn);

  const uint64_t id_;
  const CallSide side_;
  const int type_;
  const char* const tag_;
  const RpcMethod method_;
  const boost::weak_ptr<CallHost> host_;
  const std::shared_ptr<const CallMetrics> metrics_;

  ClientContext clientContext_;
  ServerContext serverContext_;
  std::shared_ptr<MessageConsumer> consumer_;
  // What a Start brought, taken only by a call that has not started: a
  // second Start must not replace the first one's observer.
  ClientContext startingContext_;
  std::shared_ptr<MessageConsumer> startingConsumer_;
  std::function<void(const RpcStatus&)> doneCallback_;

  std::chrono::steady_clock::time_point startedAt_;
  // When the call went active; its duration runs from there to its end.
  std::optional<std::chrono::steady_clock::time_point> activeAt_;
  std::chrono::steady_clock::duration userTime_{};

  bool firstMessageSent_ = false;
  bool payloadDone_ = false;
  bool localDone_ = false;
  bool remotePayloadDone_ = false;
  bool remoteDone_ = false;
  std::atomic<bool> cancelPending_{false};
  std::atomic<bool> channelDown_{false};

  RpcStatus localStatus_;
  RpcStatus remoteStatus_;
  RpcStatus reportedStatus_;

  mutable Mutex mutex_;
  RpcStatus finalStatus_ GUARDED_BY(mutex_);

  const State* state_;
  int nextState_ = -1;
};

using RpcCallPtr = RefPtr<RpcCall>;

namespace client {
namespace detail {
// A client call of one type; it adds nothing but the type.
template <int Type>
class ClientCallT : public RpcCall {
 public:
  ClientCallT(uint64_t id, const RpcMethod& method, boost::weak_ptr<CallHost> host,
              std::shared_ptr<const CallMetrics> metrics)
      : RpcCall(id, CallSide::CLIENT, Type, method, std::move(host), std::move(metrics)) {}
};
}  // namespace detail
}  // namespace client

namespace server {
namespace detail {
template <int Type>
class ServerCallT : public RpcCall {
 public:
  ServerCallT(uint64_t id, const RpcMethod& method, boost::weak_ptr<CallHost> host,
              std::shared_ptr<const CallMetrics> metrics)
      : RpcCall(id, CallSide::SERVER, Type, method, std::move(host), std::move(metrics)) {}
};
}  // namespace detail
}  // namespace server

// A call of the right class for `side` and `type` (1, 2, 4 or 8); none for
// another type.
RpcCallPtr MakeCall(CallSide side, int type, uint64_t id, const RpcMethod& method,
                    boost::weak_ptr<CallHost> host, std::shared_ptr<const CallMetrics> metrics);

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_CALL_H_
