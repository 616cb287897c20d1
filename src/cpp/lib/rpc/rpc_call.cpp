#include "cpp/lib/rpc/rpc_call.h"

#include <cstdio>
#include <type_traits>
#include <utility>

#include <google/protobuf/message_lite.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/zel_rpc_message.h"

namespace zel {
namespace rpc {
namespace {

using Clock = std::chrono::steady_clock;

enum StateIndex {
  NOT_STARTED = 0, ACTIVE, LOCAL_DONE, REMOTE_DONE, DONE, CANCELLED, LOCAL_ERROR, REMOTE_ERROR,
  ERROR
};

const char* TagOf(CallSide side, int type) {
  switch (static_cast<int>(side) * 8 + type) {
    case 1: return "RpcCall:Client:Unary";
    case 2: return "RpcCall:Client:ClientStreaming";
    case 4: return "RpcCall:Client:ServerStreaming";
    case 8: return "RpcCall:Client:BidiStreaming";
    case 9: return "RpcCall:Server:Unary";
    case 10: return "RpcCall:Server:ServerStreaming";
    case 12: return "RpcCall:Server:ClientStreaming";
    case 16: return "RpcCall:Server:BidiStreaming";
    default: return "RpcCall:<INVALID>";
  }
}

}  // namespace

int CallTypeOf(RpcMethodType type, CallSide side) {
  const bool client = side == CallSide::CLIENT;
  switch (type) {
    case RMT_SIMPLE: return 1;
    case RMT_CLIENT_STREAMING: return client ? 2 : 4;
    case RMT_SERVER_STREAMING: return client ? 4 : 2;
    case RMT_BIDI_STREAMING: return 8;
  }
  return 0;
}

CallMetrics MakeCallMetrics(const metrics::MetricKeyPtr& root, const std::string& instance) {
  return CallMetrics(root->subkey("rpc/call"), instance,
                     {"started", "accepted", "done", "cancelled", "failed", "failed/local",
                      "failed/remote", "dropped", "dropped/unknown-id", "dropped/unknown-method"},
                     {}, {"lifetime", "duration", "user-time"});
}

// ---------------------------------------------------------------------------
// The states. A handler works on the call it is given and sets `nextState_`
// when the state is to change; it never changes `state_` itself.

class RpcCall::State {
 public:
  State(int index, const char* name, bool final) : index_(index), name_(name), final_(final) {}
  virtual ~State() = default;

  virtual void Enter(RpcCall& c) const {
    ZEL_RPC_LOG(kLogDebug).format("%s Enter", c.ToString().c_str());
  }
  virtual void Exit(RpcCall&) const {}
  virtual void Start(RpcCall& c) const { NotHandled(c, "Start"); }
  virtual void Accept(RpcCall& c, const ZelRpcMessage&) const { NotHandled(c, "Accept"); }
  virtual RpcStatus Cancel(RpcCall& c) const { return NotHandled(c, "Cancel"); }
  virtual RpcStatus Send(RpcCall& c, const SharedBufferPtr&) const {
    return NotHandled(c, "Send");
  }
  virtual RpcStatus Complete(RpcCall& c, const SharedBufferPtr*, const RpcStatus&) const {
    return NotHandled(c, "Complete");
  }
  virtual RpcStatus Done(RpcCall& c, const RpcStatus&) const { return NotHandled(c, "Done"); }
  virtual void ReceivePayload(RpcCall& c, const RpcFrame::View&) const {
    NotHandled(c, "ReceivePayload");
  }
  virtual void ReceiveStatus(RpcCall& c, const RpcStatus&) const { NotHandled(c, "ReceiveStatus"); }
  virtual void ReceiveCancel(RpcCall& c) const { NotHandled(c, "ReceiveCancel"); }
  // The same in every state.
  void HandleChannelDown(RpcCall& c) const {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc102).format("%s Channel is down", c.ToString().c_str());
    c.localStatus_ = RpcStatus(COMMUNICATION_ERROR);
    c.nextState_ = LOCAL_ERROR;
  }
  bool IsFinal() const { return final_; }

  int index() const { return index_; }
  const char* name() const { return name_; }

 protected:
  static RpcStatus NotHandled(RpcCall& c, const char* what) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc100)
        .format("%s %s is not handled", c.ToString().c_str(), what);
    c.nextState_ = LOCAL_ERROR;
    return RpcStatus(INTERNAL);
  }
  static RpcStatus Refuse(RpcCall& c, const char* format, const RpcStatus& result,
                          const RpcStatus* given = nullptr) {
    const std::string name = c.ToString();
    if (given) {
      ZEL_RPC_LOG(kLogError).addTag(kTagRpc104).format(format, name.c_str(), given->ToString().c_str());
    } else {
      ZEL_RPC_LOG(kLogError).addTag(kTagRpc104).format(format, name.c_str());
    }
    return result;
  }

 private:
  const int index_;
  const char* const name_;
  const bool final_;
};

namespace detail {

using State = RpcCall::State;

class RpcCallNotStarted : public State {
 public:
  RpcCallNotStarted() : State(NOT_STARTED, "NOT_STARTED", false) {}
  void Start(RpcCall& c) const override {
    c.consumer_ = std::move(c.startingConsumer_);
    c.clientContext_ = std::move(c.startingContext_);
    c.activeAt_ = Clock::now();
    c.nextState_ = ACTIVE;
  }
  void Accept(RpcCall& c, const ZelRpcMessage& m) const override {
    const bool unpacked = !m.frame.has_header() || UnpackContext(m.frame.header(), &c.serverContext_);
    if (unpacked) c.activeAt_ = Clock::now();
    c.nextState_ = unpacked ? ACTIVE : LOCAL_ERROR;
  }
};

class RpcCallActive : public State {
 public:
  RpcCallActive() : RpcCallActive(ACTIVE, "ACTIVE") {}

  void Enter(RpcCall& c) const override {
    State::Enter(c);
    if (index() != ACTIVE) return;
    const RpcStatus prepared =
        c.Consume_([&c](MessageConsumer& m) { return m.Prepare(&c.serverContext_); });
    if (prepared.IsSet() && !prepared.ok()) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc100)
          .format("%s %s is not ready to handle %s", c.ToString().c_str(), c.LocalName_(),
                  c.method_.name.c_str());
      c.localStatus_ = prepared;
      c.consumer_.reset();
      c.nextState_ = LOCAL_ERROR;
    }
  }

  RpcStatus Cancel(RpcCall& c) const override {
    if (c.remoteDone_) {
      ZEL_RPC_LOG(kLogInfo).format("%s %s is already done - can't cancel the call",
                                   c.ToString().c_str(), c.RemoteName_());
      return RpcStatus::Success();
    }
    c.localStatus_ = RpcStatus(CANCELED);
    c.nextState_ = CANCELLED;
    return RpcStatus::Success();
  }

  RpcStatus Send(RpcCall& c, const SharedBufferPtr& payload) const override {
    const RpcStatus sent = c.SendMessage_(&payload, nullptr);
    if (!sent.ok()) {
      c.localStatus_ = sent;
      c.nextState_ = LOCAL_ERROR;
      return sent;
    }
    if (!c.LocalStreams_()) {
      c.payloadDone_ = true;
      if (c.side_ == CallSide::CLIENT) {
        c.localDone_ = true;
        c.localStatus_ = RpcStatus::Success();
        c.nextState_ = LOCAL_DONE;
      }
    }
    return sent;
  }

  RpcStatus Complete(RpcCall& c, const SharedBufferPtr* payload,
                     const RpcStatus& status) const override {
    const RpcStatus sent = c.SendMessage_(payload, &status);
    if (!sent.ok()) {
      c.localStatus_ = sent;
      c.nextState_ = LOCAL_ERROR;
      return sent;
    }
    c.localStatus_ = status;
    c.payloadDone_ = true;
    c.localDone_ = true;
    c.nextState_ = status.ok() ? LOCAL_DONE : LOCAL_ERROR;
    return sent;
  }

  // Through the Complete slot, with no message.
  RpcStatus Done(RpcCall& c, const RpcStatus& status) const override {
    return c.state_->Complete(c, nullptr, status);
  }

  void ReceivePayload(RpcCall& c, const RpcFrame::View& payload) const override {
    const std::string name = c.ToString();
    if (c.remotePayloadDone_) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc100)
          .format("%s Unexpected message with payload - %s is already done with transmission",
                  name.c_str(), c.RemoteName_());
      c.nextState_ = LOCAL_ERROR;
      return;
    }
    ZEL_RPC_LOG(kLogVerbose).format("%s Delivering message (%zu bytes)", name.c_str(), payload.size);
    if (!c.RemoteStreams_()) {
      c.remotePayloadDone_ = true;
      // A server with a single-message client takes the client for done as
      // soon as the one message is in.
      if (c.side_ == CallSide::SERVER) c.nextState_ = REMOTE_DONE;
    }
    const RpcStatus next = c.Consume_([&payload](MessageConsumer& m) { return m.Next(payload); });
    if (next.IsSet() && !next.ok()) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc101)
          .format("%s Failed to deliver message: %s", name.c_str(), next.ToString().c_str());
      c.localStatus_ = next;
      c.nextState_ = LOCAL_ERROR;
    }
  }

  void ReceiveStatus(RpcCall& c, const RpcStatus& status) const override {
    c.remoteDone_ = true;
    c.remoteStatus_ = status;
    ZEL_RPC_LOG(kLogVerbose).format("%s %s reported status: %s", c.ToString().c_str(),
                                    c.RemoteName_(), status.ToString().c_str());
    c.nextState_ = status.code() != 0 ? REMOTE_ERROR : REMOTE_DONE;
  }

  void ReceiveCancel(RpcCall& c) const override {
    c.remoteStatus_ = RpcStatus(CANCELED);
    c.nextState_ = CANCELLED;
  }

 protected:
  RpcCallActive(int index, const char* name) : State(index, name, false) {}
};

class RpcCallLocalDone : public RpcCallActive {
 public:
  RpcCallLocalDone() : RpcCallActive(LOCAL_DONE, "LOCAL_DONE") {}
  void Enter(RpcCall& c) const override {
    RpcCallActive::Enter(c);
    ZEL_RPC_LOG(kLogVerbose).format("%s %s is done (status: %s)", c.ToString().c_str(),
                                    c.LocalName_(), c.localStatus_.ToString().c_str());
    c.payloadDone_ = true;
    c.localDone_ = true;
    if (c.remoteDone_) c.nextState_ = DONE;
  }
};

class RpcCallRemoteDone : public RpcCallActive {
 public:
  RpcCallRemoteDone() : RpcCallActive(REMOTE_DONE, "REMOTE_DONE") {}

  void Enter(RpcCall& c) const override {
    RpcCallActive::Enter(c);
    c.remotePayloadDone_ = true;
    c.remoteDone_ = true;
    const std::string name = c.ToString();
    if (c.side_ == CallSide::SERVER && !c.RemoteStreams_()) {
      // The client's one message was all: nothing to tell the consumer.
      ZEL_RPC_LOG(kLogVerbose).format("%s %s is already done", name.c_str(), c.RemoteName_());
      if (c.localDone_) c.nextState_ = DONE;
      return;
    }
    ZEL_RPC_LOG(kLogVerbose).format("%s %s is done (status: %s). Notifying consumer.", name.c_str(),
                                    c.RemoteName_(), c.remoteStatus_.ToString().c_str());
    const RpcStatus remote = c.remoteStatus_;
    const RpcStatus told =
        c.Consume_([&remote](MessageConsumer& m) { return m.RemoteStatus(remote); });
    if (told.IsSet() && !told.ok()) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc101)
          .format("%s Failed to deliver remote status '%s': %s", name.c_str(),
                  remote.ToString().c_str(), told.ToString().c_str());
      c.localStatus_ = told;
      c.nextState_ = LOCAL_ERROR;
      return;
    }
    if (c.localDone_) c.nextState_ = DONE;
  }

  RpcStatus Cancel(RpcCall& c) const override {
    ZEL_RPC_LOG(kLogInfo).format("%s %s is already done - can't cancel the call",
                                 c.ToString().c_str(), c.RemoteName_());
    return RpcStatus::Success();
  }
};

class RpcCallDone : public State {
 public:
  RpcCallDone() : State(DONE, "DONE", true) {}
  void Enter(RpcCall& c) const override {
    State::Enter(c);
    c.metrics_->Mark(kCallDone);
    c.StoreFinal_();
    c.DeliverCallStatus_();
    ZEL_RPC_LOG(kLogVerbose).format("%s Is completed (status: %s)", c.ToString().c_str(),
                                    c.EffectiveStatus().ToString().c_str());
    c.Release_();
    c.consumer_.reset();
  }
  RpcStatus Cancel(RpcCall& c) const override {
    return Refuse(c, "%s Can't cancel already completed call", RpcStatus(INTERNAL));
  }
  RpcStatus Send(RpcCall& c, const SharedBufferPtr&) const override {
    return Refuse(c, "%s Can't send a message on already completed call", RpcStatus(INTERNAL));
  }
  RpcStatus Complete(RpcCall& c, const SharedBufferPtr*, const RpcStatus&) const override {
    return Refuse(c, "%s Can't send a message and complete already completed call",
                  RpcStatus(INTERNAL));
  }
  RpcStatus Done(RpcCall& c, const RpcStatus&) const override {
    return Refuse(c, "%s Can't complete already completed call", RpcStatus(INTERNAL));
  }
};

class RpcCallCancelled : public State {
 public:
  RpcCallCancelled() : State(CANCELLED, "CANCELLED", true) {}
  void Enter(RpcCall& c) const override {
    State::Enter(c);
    c.metrics_->Mark(kCallCancelled);
    c.StoreFinal_();
    const std::string name = c.ToString();
    ZEL_RPC_LOG(kLogWarn).format("%s Is cancelled%s", name.c_str(),
                                 c.remoteStatus_.code() == CANCELED ? " remotely" : "");
    c.Release_();
    if (c.side_ == CallSide::CLIENT) {
      // A server does not answer a cancel; a client tells the server.
      ZEL_RPC_LOG(kLogVerbose).format("%s Notifying remote", name.c_str());
      ZelRpcMessage cancel;
      cancel.SetCallId(c.id_);
      cancel.SetCancelCall();
      c.Transmit_(cancel, "Cancellation");
    }
    c.DeliverCallStatus_();
    c.consumer_.reset();
  }
  RpcStatus Cancel(RpcCall& c) const override {
    return Refuse(c, "%s Can't cancel already cancelled call", RpcStatus(CANCELED));
  }
  RpcStatus Send(RpcCall& c, const SharedBufferPtr&) const override {
    return Refuse(c, "%s Can't send a message in cancelled state", RpcStatus(CANCELED));
  }
  RpcStatus Complete(RpcCall& c, const SharedBufferPtr*, const RpcStatus& s) const override {
    return Refuse(c,
                  "%s Can't send a message and complete the call (with status %s) in cancelled state",
                  RpcStatus(CANCELED), &s);
  }
  RpcStatus Done(RpcCall& c, const RpcStatus& s) const override {
    return Refuse(c, "%s Can't complete the call (with status %s) in cancelled state",
                  RpcStatus(CANCELED), &s);
  }
};

class RpcCallBaseError : public State {
 public:
  RpcStatus Cancel(RpcCall& c) const override {
    return Refuse(c, "%s Can't cancel a call in error state", c.EffectiveStatus());
  }
  RpcStatus Send(RpcCall& c, const SharedBufferPtr&) const override {
    return Refuse(c, "%s Can't send a message in error state", c.EffectiveStatus());
  }
  RpcStatus Complete(RpcCall& c, const SharedBufferPtr*, const RpcStatus& s) const override {
    return Refuse(c, "%s Can't send a message and complete the call (with status %s) in error state",
                  c.EffectiveStatus(), &s);
  }
  RpcStatus Done(RpcCall& c, const RpcStatus& s) const override {
    return Refuse(c, "%s Can't complete the call (with status %s) in error state",
                  c.EffectiveStatus(), &s);
  }

 protected:
  RpcCallBaseError(int index, const char* name, bool final) : State(index, name, final) {}
};

class RpcCallLocalError : public RpcCallBaseError {
 public:
  RpcCallLocalError() : RpcCallBaseError(LOCAL_ERROR, "LOCAL_ERROR", false) {}
  void Enter(RpcCall& c) const override {
    State::Enter(c);
    c.metrics_->Mark(kCallFailedLocal);
    if (!c.localStatus_.IsSet()) c.localStatus_ = RpcStatus(INTERNAL);
    // A client whose one message is out and whose answer is in owes the
    // server nothing; everyone else tells the peer, unless the way to it is
    // gone (53).
    const bool peerWaits =
        !(c.side_ == CallSide::CLIENT && !c.LocalStreams_() && c.remotePayloadDone_);
    if (!c.reportedStatus_.IsSet() && peerWaits && c.localStatus_.code() != COMMUNICATION_ERROR) {
      const int32_t code = c.localStatus_.code();
      c.ReportStatus_(code >= 0 && code < 16 ? c.localStatus_ : RpcStatus(UNKNOWN));
    }
    const bool reported = c.reportedStatus_.IsSet();
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc103)
        .format("%s Is in error state (%s, status%s is %sreported to the %s)",
                c.ToString().c_str(), c.localStatus_.ToString().c_str(),
                reported ? (" " + c.reportedStatus_.ToString()).c_str() : "", reported ? "" : "not ",
                c.RemoteName_());
    c.nextState_ = ERROR;
  }
};

class RpcCallRemoteError : public RpcCallBaseError {
 public:
  RpcCallRemoteError() : RpcCallBaseError(REMOTE_ERROR, "REMOTE_ERROR", false) {}
  void Enter(RpcCall& c) const override {
    State::Enter(c);
    c.metrics_->Mark(kCallFailedRemote);
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc103)
        .format("%s Is in error state (%s reported by %s)", c.ToString().c_str(),
                c.remoteStatus_.ToString().c_str(), c.RemoteName_());
    c.nextState_ = ERROR;
  }
};

class RpcCallError : public RpcCallBaseError {
 public:
  RpcCallError() : RpcCallBaseError(ERROR, "ERROR", true) {}
  void Enter(RpcCall& c) const override {
    State::Enter(c);
    c.metrics_->Mark(kCallFailed);
    c.StoreFinal_();
    c.Release_();
    if (c.consumer_) {
      c.DeliverCallStatus_();
      c.consumer_.reset();
    }
  }
  void Start(RpcCall& c) const override {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc103)
        .format("%s Got into error state before it could Start", c.ToString().c_str());
    c.consumer_ = std::move(c.startingConsumer_);
    c.DeliverCallStatus_();
    c.consumer_.reset();
  }
  void ReceivePayload(RpcCall& c, const RpcFrame::View&) const override {
    ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring Receive", c.ToString().c_str());
  }
  void ReceiveStatus(RpcCall& c, const RpcStatus&) const override {
    ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring ReceiveStatus", c.ToString().c_str());
  }
  void ReceiveCancel(RpcCall& c) const override {
    ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring ReceiveCancel", c.ToString().c_str());
  }
};

const State* StateAt(int index) {
  static const RpcCallNotStarted notStarted;
  static const RpcCallActive active;
  static const RpcCallLocalDone localDone;
  static const RpcCallRemoteDone remoteDone;
  static const RpcCallDone done;
  static const RpcCallCancelled cancelled;
  static const RpcCallLocalError localError;
  static const RpcCallRemoteError remoteError;
  static const RpcCallError error;
  static const State* const kStates[] = {&notStarted, &active,     &localDone,   &remoteDone, &done,
                                         &cancelled,  &localError, &remoteError, &error};
  return index >= 0 && index < 9 ? kStates[index] : nullptr;
}

}  // namespace detail

// ---------------------------------------------------------------------------
// RpcCall

RpcCall::RpcCall(uint64_t id, CallSide side, int type, const RpcMethod& method,
                 boost::weak_ptr<CallHost> host, std::shared_ptr<const CallMetrics> metrics)
    : id_(id),
      side_(side),
      type_(type),
      tag_(TagOf(side, type)),
      method_(method),
      host_(std::move(host)),
      metrics_(metrics ? std::move(metrics) : std::make_shared<const CallMetrics>()),
      startedAt_(Clock::now()),
      state_(detail::StateAt(NOT_STARTED)) {}

RpcCall::~RpcCall() {
  ZEL_RPC_LOG(kLogVerbose).format("%s Is being destroyed", ToString().c_str());
}

const char* RpcCall::StateName() const { return state_->name(); }

std::string RpcCall::ToString() const {
  char id[24];
  std::snprintf(id, sizeof id, "0x%04lx", static_cast<unsigned long>(id_));
  return std::string(tag_) + "[" + method_.name + ", " + id + ", " + state_->name() + "]";
}

RpcStatus RpcCall::EffectiveStatus() const {
  if (!localStatus_.IsSet()) return remoteStatus_;
  if (localStatus_.ok() && remoteStatus_.IsSet()) return remoteStatus_;
  return localStatus_;
}

RpcStatus RpcCall::GetStatus() const {
  MutexLock lock(mutex_);
  return finalStatus_;
}

void RpcCall::SetDoneCallback(std::function<void(const RpcStatus&)> callback) {
  doneCallback_ = std::move(callback);
}

template <class F>
auto RpcCall::Drive_(F&& event) {
  nextState_ = -1;
  if constexpr (std::is_void_v<decltype(event(*state_))>) {
    event(*state_);
    ChangeState_();
  } else {
    auto result = event(*state_);
    ChangeState_();
    return result;
  }
}

void RpcCall::ChangeState_() {
  while (nextState_ != -1) {
    const State* target = detail::StateAt(nextState_);
    if (target == state_) {
      ZEL_RPC_LOG(kLogWarn).format("%s Already in %s state", ToString().c_str(), target->name());
      nextState_ = -1;
      return;
    }
    state_->Exit(*this);
    ZEL_RPC_LOG(kLogVerbose).format("%s Changing to %s", ToString().c_str(), target->name());
    nextState_ = -1;
    state_ = target;
    state_->Enter(*this);
  }
}

RpcStatus RpcCall::Consume_(const std::function<RpcStatus(MessageConsumer&)>& fn) {
  if (!consumer_) return RpcStatus();
  // The consumer may drop the call's last outside reference.
  std::shared_ptr<MessageConsumer> consumer = consumer_;
  const Clock::time_point begin = Clock::now();
  RpcStatus status = fn(*consumer);
  userTime_ += Clock::now() - begin;
  return status;
}

// ---------------------------------------------------------------------------
// Public operations: post to the host's queue

namespace {

SharedBufferPtr Serialized(const google::protobuf::MessageLite& message) {
  const std::size_t size = message.ByteSizeLong();
  auto buffer = MakeRefCounted<SharedBuffer>(std::unique_ptr<uint8_t[]>(new uint8_t[size]), size);
  message.SerializeWithCachedSizesToArray(buffer->data());
  return buffer;
}

}  // namespace

void RpcCall::Start(const ClientContext& context, std::shared_ptr<MessageConsumer> consumer) {
  metrics_->Mark(kCallStarted);
  boost::shared_ptr<CallHost> host = host_.lock();
  if (!host) {
    // No channel left to run on: the call fails as on a channel that went
    // down, and a call not yet started tells this observer so.
    if (!consumer_) consumer_ = std::move(consumer);
    HandleChannelDown();
    return;
  }
  RefPtr<RpcCall> self(this);
  host->PostForCall([self, context, consumer = std::move(consumer)]() mutable {
    self->startingConsumer_ = std::move(consumer);
    self->startingContext_ = std::move(context);
    self->DoStart_();
    self->startingConsumer_.reset();
  });
}

void RpcCall::Accept(const ZelRpcMessage& message, const ServerContext& context,
                     std::shared_ptr<MessageConsumer> consumer) {
  metrics_->Mark(kCallAccepted);
  consumer_ = std::move(consumer);
  serverContext_ = context;
  Drive_([&](const State& s) { s.Accept(*this, message); });
}

void RpcCall::DoStart_() {
  Drive_([this](const State& s) { s.Start(*this); });
}

RpcStatus RpcCall::SendPayload(SharedBufferPtr payload) {
  boost::shared_ptr<CallHost> host = host_.lock();
  if (!host) return RpcStatus(COMMUNICATION_ERROR);
  RefPtr<RpcCall> self(this);
  host->PostForCall([self, payload = std::move(payload)]() mutable {
    self->Drive_([&](const State& s) { return s.Send(*self, payload); });
  });
  return RpcStatus::Success();
}

RpcStatus RpcCall::CompletePayload(SharedBufferPtr payload, const RpcStatus& status) {
  boost::shared_ptr<CallHost> host = host_.lock();
  if (!host) return RpcStatus(COMMUNICATION_ERROR);
  RefPtr<RpcCall> self(this);
  host->PostForCall([self, payload = std::move(payload), status]() mutable {
    self->Drive_([&](const State& s) { return s.Complete(*self, &payload, status); });
  });
  return RpcStatus::Success();
}

RpcStatus RpcCall::Send(const google::protobuf::MessageLite& message) {
  return SendPayload(Serialized(message));
}

RpcStatus RpcCall::Complete(const google::protobuf::MessageLite* message, const RpcStatus& status) {
  if (!message) return Done(status);
  return CompletePayload(Serialized(*message), status);
}

RpcStatus RpcCall::Done(const RpcStatus& status) {
  boost::shared_ptr<CallHost> host = host_.lock();
  if (!host) return RpcStatus(COMMUNICATION_ERROR);
  RefPtr<RpcCall> self(this);
  host->PostForCall([self, status] {
    self->Drive_([&](const State& s) { return s.Done(*self, status); });
  });
  return RpcStatus::Success();
}

RpcStatus RpcCall::Cancel() {
  cancelPending_ = true;
  boost::shared_ptr<CallHost> host = host_.lock();
  if (!host) {
    cancelPending_ = false;
    return RpcStatus(COMMUNICATION_ERROR);
  }
  RefPtr<RpcCall> self(this);
  host->PostForCall([self] {
    self->Drive_([&](const State& s) { return s.Cancel(*self); });
    self->cancelPending_ = false;
  });
  return RpcStatus::Success();
}

// ---------------------------------------------------------------------------
// Events from the channel

void RpcCall::Receive(const ZelRpcMessage& message) {
  const std::string name = ToString();
  if (cancelPending_) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Cancel Pending, drop received message", name.c_str());
    metrics_->Mark(kCallDropped);
    return;
  }
  const auto& rpc = message.frame.rpc_msg();
  if (rpc.cancel_call()) {
    Drive_([this](const State& s) { s.ReceiveCancel(*this); });
    return;
  }
  if (!rpc.has_payload() && !rpc.has_status()) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc100)
        .format("%s Unexpected message with no payload and no status", name.c_str());
    Drive_([this](const State&) { nextState_ = LOCAL_ERROR; });
    return;
  }
  // The wire text of the status stays behind.
  const RpcStatus status = rpc.has_status() ? FromWire(rpc.status()) : RpcStatus();
  if (rpc.has_payload() && (!status.IsSet() || status.ok())) {
    const RpcFrame::View payload = message.payload_view();
    Drive_([&](const State& s) { s.ReceivePayload(*this, payload); });
  }
  if (status.IsSet()) Drive_([&](const State& s) { s.ReceiveStatus(*this, status); });
}

void RpcCall::HandleChannelDown() {
  channelDown_ = true;
  Drive_([this](const State& s) { s.HandleChannelDown(*this); });
}

// ---------------------------------------------------------------------------
// Sending

RpcStatus RpcCall::SendMessage_(const SharedBufferPtr* payload, const RpcStatus* status) {
  const std::string name = ToString();
  const bool hasPayload = payload && *payload;
  if (hasPayload && payloadDone_) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc100)
        .format("%s %s is done sending payload and can't send any more messages", name.c_str(),
                LocalName_());
    return RpcStatus(INTERNAL);
  }
  if (status && localDone_) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc100)
        .format("%s %s is done and can't send any more messages or complete the call",
                name.c_str(), LocalName_());
    return RpcStatus(INTERNAL);
  }
  if (side_ == CallSide::SERVER && !LocalStreams_()) {
    if (!status) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc100)
          .format("%s %s is Unary but missing status", name.c_str(), LocalName_());
      return RpcStatus(INTERNAL);
    }
    if (!hasPayload && status->ok()) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc100)
          .format("%s %s is Unary but missing message", name.c_str(), LocalName_());
      return RpcStatus(INTERNAL);
    }
  }
  ZelRpcMessage message;
  message.SetCallId(id_);
  if (side_ == CallSide::CLIENT && !firstMessageSent_) {
    message.SetMethod(method_.name);
    PackContext(clientContext_, message.frame.mutable_header());
  }
  if (hasPayload) message.SetPayload(*payload);
  if (status && !ToWire(*status, message.frame.mutable_rpc_msg()->mutable_status())) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc100)
        .format("%s Failed to add status %s", name.c_str(), status->ToString().c_str());
    return RpcStatus(INTERNAL);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Sending message of size %zu %s%s %s", name.c_str(),
                                  message.PayloadSize(), hasPayload ? "with payload" : "without payload",
                                  status ? " and status" : "",
                                  status ? status->ToString().c_str() : "");
  const RpcStatus sent = Transmit_(message, hasPayload ? "Message" : "Status");
  if (!sent.ok()) return sent;
  if (side_ == CallSide::CLIENT) firstMessageSent_ = true;
  if (status) reportedStatus_ = *status;
  return RpcStatus::Success();
}

RpcStatus RpcCall::Transmit_(ZelRpcMessage& message, const char* what) {
  boost::shared_ptr<CallHost> host = host_.lock();
  const RpcStatus sent = host ? host->SendForCall(message) : RpcStatus(COMMUNICATION_ERROR);
  if (!sent.ok()) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc105)
        .format("%s Couldn't send %s message: %s", ToString().c_str(), what,
                sent.ToString().c_str());
  }
  return sent;
}

RpcStatus RpcCall::ReportStatus_(const RpcStatus& status) {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Sending status %s to the %s", name.c_str(),
                                  status.ToString().c_str(), RemoteName_());
  ZelRpcMessage message;
  message.SetCallId(id_);
  if (!ToWire(status, message.frame.mutable_rpc_msg()->mutable_status())) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc105)
        .format("%s Failed to report status %s - couldn't build StatusMsg", name.c_str(),
                status.ToString().c_str());
    return RpcStatus(INTERNAL);
  }
  const RpcStatus sent = Transmit_(message, "Status");
  if (!sent.ok()) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc105)
        .format("%s Failed to report status %s", name.c_str(), status.ToString().c_str());
    return sent;
  }
  reportedStatus_ = status;
  return sent;
}

// ---------------------------------------------------------------------------
// Endings

void RpcCall::StoreFinal_() {
  const auto lifetime = Clock::now() - startedAt_;
  metrics_->Record(kCallLifetime, static_cast<uint64_t>(
                                      std::chrono::duration_cast<std::chrono::microseconds>(lifetime).count()));
  metrics_->Record(kCallUserTime, static_cast<uint64_t>(
                                      std::chrono::duration_cast<std::chrono::microseconds>(userTime_).count()));
  if (activeAt_) {
    metrics_->Record(kCallDuration,
                     static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                               Clock::now() - *activeAt_)
                                               .count()));
  }
  MutexLock lock(mutex_);
  finalStatus_ = EffectiveStatus();
}

void RpcCall::DeliverCallStatus_() {
  const RpcStatus status = EffectiveStatus();
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Delivering status %s", name.c_str(), status.ToString().c_str());
  const RpcStatus told = Consume_([&status](MessageConsumer& m) { return m.CallStatus(status); });
  if (told.IsSet() && !told.ok()) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc101)
        .format("%s Failed to deliver call status '%s': %s", name.c_str(),
                status.ToString().c_str(), told.ToString().c_str());
  }
  if (doneCallback_) {
    auto callback = std::move(doneCallback_);
    doneCallback_ = nullptr;
    callback(status);
  }
}

void RpcCall::Release_() {
  // A channel that is down is walking its table already.
  if (channelDown_) return;
  if (boost::shared_ptr<CallHost> host = host_.lock()) host->ReleaseCall(id_);
}

RpcCallPtr MakeCall(CallSide side, int type, uint64_t id, const RpcMethod& method,
                    boost::weak_ptr<CallHost> host, std::shared_ptr<const CallMetrics> metrics) {
  if (side == CallSide::CLIENT) {
    switch (type) {
      case 1: return new client::detail::ClientCallT<1>(id, method, std::move(host), std::move(metrics));
      case 2: return new client::detail::ClientCallT<2>(id, method, std::move(host), std::move(metrics));
      case 4: return new client::detail::ClientCallT<4>(id, method, std::move(host), std::move(metrics));
      case 8: return new client::detail::ClientCallT<8>(id, method, std::move(host), std::move(metrics));
    }
  } else {
    switch (type) {
      case 1: return new server::detail::ServerCallT<1>(id, method, std::move(host), std::move(metrics));
      case 2: return new server::detail::ServerCallT<2>(id, method, std::move(host), std::move(metrics));
      case 4: return new server::detail::ServerCallT<4>(id, method, std::move(host), std::move(metrics));
      case 8: return new server::detail::ServerCallT<8>(id, method, std::move(host), std::move(metrics));
    }
  }
  return nullptr;
}

}  // namespace rpc
}  // namespace zel
