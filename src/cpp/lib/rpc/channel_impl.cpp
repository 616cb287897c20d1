#include "cpp/lib/rpc/channel_impl.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/net/crypto/random_device.h"
#include "cpp/lib/net/endpoint.h"
#include "cpp/lib/rpc/channel_scheduler.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace rpc {
namespace {

// The consumer of a call whose method gave none: the call fails at once.
class RefusingConsumer : public MessageConsumer {
 public:
  RpcStatus Prepare(ServerContext*) override { return RpcStatus(UNIMPLEMENTED); }
  RpcStatus Next(const RpcFrame::View&) override { return RpcStatus::Success(); }
  RpcStatus RemoteStatus(const RpcStatus&) override { return RpcStatus::Success(); }
  RpcStatus CallStatus(const RpcStatus&) override { return RpcStatus::Success(); }
};

using Clock = std::chrono::steady_clock;

std::string CallIdText(uint64_t id) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%04lx", static_cast<unsigned long>(id));
  return text;
}

CounterSet MakeChannelMetrics(const metrics::MetricKeyPtr& root, const std::string& service,
                              ChannelPriority priority) {
  if (!root) return CounterSet();
  return CounterSet(root->subkey("rpc/channel"),
                    metrics::InstanceName({{"service", service}, {"priority", ToString(priority)}}),
                    {"open", "open/local", "open/remote", "close", "close/local", "close/remote",
                     "close/network", "close/protocol", "close/keepalive",
                     "close/ack_stream_timeout", "close/error", "rx/messages", "tx/messages",
                     "queue/ops"},
                    {"rx/bytes", "tx/bytes"}, {"queue/latency"});
}

}  // namespace

const char* ToString(CloseReason reason) {
  static const char* const kNames[] = {
      "unknown reason", "network error",    "settings timeout", "protocol error",
      "closed by remote", "closed by user", "shutdown",         "keepalive expired",
      "keepalive error",  "ack_stream timeout"};
  const int i = static_cast<int>(reason);
  return i >= 0 && i < 10 ? kNames[i] : "<CloseReason::INVALID>";
}

StreamId NewStreamId() {
  StreamId id{};
  if (crypto::fips_random_device().Fill(id.data(), id.size())) {
    // The generator failed (logged): a clock-based id still differs per call.
    const uint64_t now = static_cast<uint64_t>(Clock::now().time_since_epoch().count());
    static std::atomic<uint64_t> serial{0};
    const uint64_t n = serial.fetch_add(1);
    std::memcpy(id.data(), &now, 8);
    std::memcpy(id.data() + 8, &n, 8);
  }
  id[6] = static_cast<uint8_t>((id[6] & 0x0f) | 0x40);  // version 4
  id[8] = static_cast<uint8_t>((id[8] & 0x3f) | 0x80);  // variant 1
  return id;
}

// ---------------------------------------------------------------------------
// Creation

boost::shared_ptr<ChannelImpl> ChannelImpl::Create(Params params) {
  auto channel = boost::make_shared<ChannelImpl>(PrivateTag{}, std::move(params));
  ZEL_RPC_LOG(kLogVerbose).format("Created %s", channel->ToString().c_str());
  return channel;
}

ChannelImpl::ChannelImpl(PrivateTag, Params params)
    : url_(std::move(params.url)),
      service_(std::move(params.service)),
      streamId_(params.stream_id),
      serverSide_(params.server_side),
      connectionId_(params.connection ? params.connection->id() : 0),
      priority_(params.priority),
      registry_(std::move(params.registry)),
      scheduler_(std::move(params.scheduler)),
      timers_(std::move(params.timers)),
      metricsRoot_(std::move(params.metrics_root)),
      metrics_(MakeChannelMetrics(metricsRoot_, service_, priority_)),
      streamText_(StreamIdText(streamId_)) {
  MutexLock lock(mutex_);
  connection_ = std::move(params.connection);
  metrics_.Mark(kChannelOpen);
  metrics_.Mark(serverSide_ ? kChannelOpenRemote : kChannelOpenLocal);
}

ChannelImpl::~ChannelImpl() {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Destroying", name.c_str());
  ZEL_RPC_LOG(kLogVerbose).format("%s Destroyed", name.c_str());
}

std::string ChannelImpl::ToString() const {
  char cid[24];
  std::snprintf(cid, sizeof cid, " cid:%u ", connectionId_);
  return "RpcChannel[" + service_ + (serverSide_ ? " on " : " to ") + url_ + cid + streamText_ +
         (closedFlag_ ? " CLOSED]" : " OPEN]");
}

ConnectionPtr ChannelImpl::GetConnection() const {
  MutexLock lock(mutex_);
  return connection_;
}

bool ChannelImpl::closed() const {
  MutexLock lock(mutex_);
  return closed_;
}

bool ChannelImpl::active() const {
  MutexLock lock(mutex_);
  return active_;
}

std::size_t ChannelImpl::CallCount() const {
  MutexLock lock(mutex_);
  return calls_.size();
}

// ---------------------------------------------------------------------------
// The op queue

void ChannelImpl::AppendOp(std::function<void()> op) {
  ZEL_RPC_LOG(kLogDebug).format("%s Append Op", ToString().c_str());
  {
    MutexLock lock(queueMutex_);
    queue_.push_back(Op{std::move(op), Clock::now()});
  }
  metrics_.Mark(kChannelQueueOps);
  MutexLock lock(mutex_);
  if (schedulePending_) return;
  schedulePending_ = true;
  scheduler_->Schedule(shared_from_this());
}

void ChannelImpl::ProcessOpQueue(std::size_t limit) {
  ZEL_RPC_LOG(kLogDebug).format("%s Process Op Queue", ToString().c_str());
  for (std::size_t i = 0; i < limit; ++i) {
    Op op;
    {
      MutexLock lock(queueMutex_);
      if (queue_.empty()) return;
      op = std::move(queue_.front());
      queue_.pop_front();
    }
    metrics_.Record(kChannelQueueLatency,
                    static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                              Clock::now() - op.queued)
                                              .count()));
    try {
      op.fn();
    } catch (...) {
      // Nothing of the channel's own throws; a stray exception must not end
      // the scheduler's thread.
      ZEL_LOG_CAUGHT_EXCEPTION(ZEL_RPC_LOG, kTagRpc9999, "ChannelImpl::ProcessOpQueue");
    }
  }
}

void ChannelImpl::TurnEnded() {
  MutexLock lock(mutex_);
  schedulePending_ = false;
  bool more;
  {
    MutexLock queueLock(queueMutex_);
    more = !queue_.empty();
  }
  if (!more) return;
  schedulePending_ = true;
  scheduler_->Schedule(shared_from_this());
}

void ChannelImpl::Post_(void (ChannelImpl::*fn)()) {
  boost::shared_ptr<ChannelImpl> self = shared_from_this();
  AppendOp([self, fn] { ((*self).*fn)(); });
}

// ---------------------------------------------------------------------------
// Opening

void ChannelImpl::OpenOnClient(ActiveCallback active) {
  // The callback is in place before the channel registers: a connection
  // that has closed meanwhile closes the channel at once, and the close
  // answers the callback.
  {
    MutexLock lock(mutex_);
    activeCallback_ = std::move(active);
  }
  ConnectionPtr connection = GetConnection();
  if (connection) connection->RegisterChannel(shared_from_this());
  Post_(&ChannelImpl::DoOpenStream_);
}

void ChannelImpl::OpenOnServer() {
  ConnectionPtr connection = GetConnection();
  if (connection) connection->RegisterChannel(shared_from_this());
  Post_(&ChannelImpl::DoAckStream_);
}

void ChannelImpl::DoOpenStream_() {
  ZEL_RPC_LOG(kLogVerbose).format("%s DoOpenStream", ToString().c_str());
  ZelRpcMessage open;
  open.SetStreamId(streamId_);
  open.stream_control.set_service(service_);
  open.stream_control.set_open_stream(true);
  const net::Endpoint url(url_);
  if (url.scheme() == "zel") open.stream_control.set_destination(std::string(url.host()));
  Send(open);
  boost::weak_ptr<ChannelImpl> weak = weak_from_this();
  TimerPtr timer = timers_->CreateTimer(kActivationTimeout, [weak] {
    if (auto self = weak.lock()) self->OnActivationTimeout_();
  });
  MutexLock lock(mutex_);
  if (!closed_ && !active_) activationTimer_ = std::move(timer);
}

void ChannelImpl::DoAckStream_() {
  ZEL_RPC_LOG(kLogVerbose).format("%s DoAckStream", ToString().c_str());
  ZelRpcMessage ack;
  ack.SetStreamId(streamId_);
  ack.stream_control.set_ack_stream(true);
  Send(ack);
  MutexLock lock(mutex_);
  active_ = true;
}

void ChannelImpl::ReceiveAckStream() { Post_(&ChannelImpl::DoReceiveAckStream_); }

void ChannelImpl::DoReceiveAckStream_() {
  ActiveCallback callback;
  TimerPtr timer;
  {
    MutexLock lock(mutex_);
    active_ = true;
    callback = std::move(activeCallback_);
    activeCallback_ = nullptr;
    timer = std::move(activationTimer_);
  }
  if (callback) callback(boost::system::error_code(), shared_from_this());
}

void ChannelImpl::OnActivationTimeout_() {
  {
    MutexLock lock(mutex_);
    activationTimer_.reset();
    if (active_) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring Activation Timeout in current state",
                                      ToString().c_str());
      return;
    }
  }
  ZEL_RPC_LOG(kLogWarn).format("%s Activation timeout expired", ToString().c_str());
  Close(false, CloseReason::ACK_STREAM_TIMEOUT);
}

// ---------------------------------------------------------------------------
// Sending and receiving

RpcStatus ChannelImpl::Send(ZelRpcMessage& message) {
  const std::string name = ToString();
  if (closedFlag_) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc51)
        .format("%s Can't send message - channel is closed", name.c_str());
    return RpcStatus(COMMUNICATION_ERROR);
  }
  const uint32_t priority = ToStreamPriority(priority_);
  message.SetStreamId(streamId_);
  // The first frame of a stream, and only that, carries its priority.
  if (!firstSent_) {
    firstSent_ = true;
    message.SetPriority(priority);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Sending message %s", name.c_str(),
                                  message.HeaderText().c_str());
  ConnectionPtr connection = GetConnection();
  const RpcStatus sent =
      connection ? connection->Send(message, priority) : RpcStatus(COMMUNICATION_ERROR);
  if (!sent.ok()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Couldn't send message: %s", name.c_str(),
                                 sent.ToString().c_str());
    return sent;
  }
  metrics_.Mark(kChannelTxMessages);
  metrics_.Add(kChannelTxBytes, message.PayloadSize());
  ZEL_RPC_LOG(kLogVerbose).format("%s Successfully sent message", name.c_str());
  return sent;
}

void ChannelImpl::Receive(const ZelRpcMessage& message) {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Receive(msg=%s)", name.c_str(), message.HeaderText().c_str());
  metrics_.Mark(kChannelRxMessages);
  metrics_.Add(kChannelRxBytes, message.PayloadSize());
  ConnectionPtr connection;
  {
    MutexLock lock(mutex_);
    if (closed_) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc52)
          .format("%s Couldn't receive - already closed", name.c_str());
      return;
    }
    connection = connection_;
  }
  if (connection) connection->OnFrameQueued();
  boost::shared_ptr<ChannelImpl> self = shared_from_this();
  auto copy = std::make_shared<ZelRpcMessage>(message);
  AppendOp([self, copy, connection] {
    // Taken off the connection's count even when the channel has closed
    // meanwhile, so that the connection's read gate stays true.
    if (connection) connection->OnFrameTaken();
    self->DoReceive_(*copy);
  });
}

void ChannelImpl::DoReceive_(const ZelRpcMessage& message) {
  const std::string name = ToString();
  if (closedFlag_) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc52)
        .format("%s Couldn't receive - already closed", name.c_str());
    return;
  }
  // A frame of the stream's own (the one that opened it) carries no call.
  if (!message.frame.has_rpc_msg()) return;
  const auto& rpc = message.frame.rpc_msg();
  const RpcStatus result =
      rpc.method().empty() ? ReceiveForEstablishedCall_(message) : ReceiveForNewCall_(message);
  if (!result.IsSet() || result.ok()) return;
  ZEL_RPC_LOG(kLogVerbose).format("%s Receive failed for call %lu - replying with status %s",
                                  name.c_str(), static_cast<unsigned long>(rpc.call_id()),
                                  result.ToString().c_str());
  ReplyStatus_(rpc.call_id(), result);
}

void ChannelImpl::ReplyStatus_(uint64_t callId, const RpcStatus& status) {
  ZelRpcMessage reply;
  reply.SetCallId(callId);
  if (!ToWire(status, reply.frame.mutable_rpc_msg()->mutable_status())) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc50)
        .format("%s Failed to report status %s - couldn't build StatusMsg", ToString().c_str(),
                status.ToString().c_str());
    return;
  }
  Send(reply);
}

RpcStatus ChannelImpl::ReceiveForNewCall_(const ZelRpcMessage& message) {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s ReceiveForNewCall", name.c_str());
  const auto& rpc = message.frame.rpc_msg();
  std::shared_ptr<const RpcServiceMethod> method =
      registry_ ? registry_->GetMethod(rpc.method()) : nullptr;
  if (!method) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc503)
        .format("%s Can't find RPC method %s", name.c_str(), rpc.method().c_str());
    if (metricsRoot_) {
      MakeCallMetrics(metricsRoot_, metrics::InstanceName({{"service", service_},
                                                           {"method", rpc.method()}}))
          .Mark(kCallDroppedUnknownMethod);
    }
    return RpcStatus(UNIMPLEMENTED);
  }
  const uint64_t id = rpc.call_id();
  ZEL_RPC_LOG(kLogVerbose).format("%s New call %s for %s", name.c_str(), CallIdText(id).c_str(),
                                  method->method.name.c_str());
  auto callMetrics = std::make_shared<const CallMetrics>(
      metricsRoot_ ? MakeCallMetrics(metricsRoot_,
                                     metrics::InstanceName({{"service", service_},
                                                            {"method", method->method.name},
                                                            {"priority", rpc::ToString(priority_)}}))
                   : CallMetrics());
  const int type = CallTypeOf(method->method.type, CallSide::SERVER);
  RpcCallPtr call =
      MakeCall(CallSide::SERVER, type, id, method->method, weak_from_this(), callMetrics);
  if (!call) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc50)
        .format("%s Unexpected method type %i", name.c_str(), static_cast<int>(method->method.type));
    return RpcStatus(INTERNAL);
  }
  {
    MutexLock lock(mutex_);
    if (!calls_.emplace(id, call).second) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc50)
          .format("%s Can't start new call (%s for %s) - already exists", name.c_str(),
                  CallIdText(id).c_str(), method->method.name.c_str());
      return RpcStatus(INTERNAL);
    }
  }
  ServerContext context;
  context.method = method->method.name;
  context.priority = rpc::ToString(priority_);
  if (ConnectionPtr connection = GetConnection()) {
    const ConnectionLocalInfo info = connection->GetLocalInfo();
    context.connection_id = info.id;
    context.local_endpoint = info.local_endpoint;
    context.remote_endpoint = info.remote_endpoint;
    context.remote_endpoint_ids = info.remote_endpoint_ids;
    context.remote_services = info.remote_services;
    context.net_peer = info.net_peer;
  }
  std::shared_ptr<MessageConsumer> consumer;
  try {
    if (method->handler) consumer = method->handler->MakeConsumer(method->method, RefPtr<Call>(call));
  } catch (const std::exception& e) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc101)
        .format("%s Failed to make the consumer of %s: %s", name.c_str(),
                method->method.name.c_str(), e.what());
  }
  // A method with no consumer still answers its caller, with UNIMPLEMENTED.
  if (!consumer) consumer = std::make_shared<RefusingConsumer>();
  call->Accept(message, context, std::move(consumer));
  call->Receive(message);
  return RpcStatus::Success();
}

RpcStatus ChannelImpl::ReceiveForEstablishedCall_(const ZelRpcMessage& message) {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s ReceiveForEstablishedCall", name.c_str());
  const auto& rpc = message.frame.rpc_msg();
  RpcCallPtr call;
  {
    MutexLock lock(mutex_);
    auto it = calls_.find(rpc.call_id());
    if (it != calls_.end()) call = it->second;
  }
  // The call runs without the channel's lock: it may release itself.
  if (call) {
    call->Receive(message);
    return RpcStatus::Success();
  }
  if (rpc.has_status() && FromWire(rpc.status()).code() != SUCCESS) {
    ZEL_RPC_LOG(kLogVerbose).format(
        "%s Ignoring received message for non existing call %s with status %s", name.c_str(),
        CallIdText(rpc.call_id()).c_str(), FromWire(rpc.status()).ToString().c_str());
    return RpcStatus();
  }
  ZEL_RPC_LOG(kLogError)
      .addTag(kTagRpc53)
      .format("%s Received message for non existing call %s", name.c_str(),
              CallIdText(rpc.call_id()).c_str());
  if (metricsRoot_) {
    MakeCallMetrics(metricsRoot_, metrics::InstanceName({{"service", service_}}))
        .Mark(kCallDroppedUnknownId);
  }
  return RpcStatus(INTERNAL);
}

// ---------------------------------------------------------------------------
// Calls

RpcCallPtr ChannelImpl::CreateCall(const RpcMethod& method) {
  const uint64_t id = nextCallId_.fetch_add(1);
  auto callMetrics = std::make_shared<const CallMetrics>(
      metricsRoot_ ? MakeCallMetrics(metricsRoot_,
                                     metrics::InstanceName({{"service", service_},
                                                            {"method", method.name},
                                                            {"priority", rpc::ToString(priority_)}}))
                   : CallMetrics());
  RpcCallPtr call = MakeCall(CallSide::CLIENT, CallTypeOf(method.type, CallSide::CLIENT), id,
                             method, weak_from_this(), std::move(callMetrics));
  if (!call) return nullptr;
  boost::shared_ptr<ChannelImpl> self = shared_from_this();
  AppendOp([self, call] { self->LinkCall_(call); });
  return call;
}

void ChannelImpl::LinkCall_(const RpcCallPtr& call) {
  {
    MutexLock lock(mutex_);
    if (!closed_) {
      calls_.emplace(call->id(), call);
      return;
    }
  }
  ZEL_RPC_LOG(kLogWarn).format("%s Is already closed - won't link call %s", ToString().c_str(),
                               call->ToString().c_str());
  call->HandleChannelDown();
}

void ChannelImpl::ReleaseCall(uint64_t id) {
  RpcCallPtr released;
  MutexLock lock(mutex_);
  auto it = calls_.find(id);
  if (it == calls_.end()) {
    ZEL_RPC_LOG(kLogWarn).format("%s Couldn't release call %s - not found", ToString().c_str(),
                                 CallIdText(id).c_str());
    return;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Releasing call %s", ToString().c_str(), CallIdText(id).c_str());
  // The call may be the last reference to itself: it goes after the lock.
  released = std::move(it->second);
  calls_.erase(it);
  lock.Unlock();
}

// ---------------------------------------------------------------------------
// Closing

void ChannelImpl::Close(CloseReason reason) { Close(true, reason); }

void ChannelImpl::Close(bool sendClose, CloseReason reason) {
  boost::shared_ptr<ChannelImpl> self = shared_from_this();
  AppendOp([self, sendClose, reason] { self->DoClose_(sendClose, reason); });
}

void ChannelImpl::DoClose_(bool sendClose, CloseReason reason) {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s DoClose(%d, %s)", name.c_str(), sendClose ? 1 : 0,
                                  rpc::ToString(reason));
  {
    MutexLock lock(mutex_);
    if (closed_) {
      ZEL_RPC_LOG(kLogError).addTag(kTagRpc55).format("%s Couldn't close - already closed", name.c_str());
      return;
    }
  }
  if (sendClose) {
    ZelRpcMessage close;
    close.SetStreamId(streamId_);
    close.stream_control.set_close_stream(true);
    Send(close);
    ZEL_RPC_LOG(kLogVerbose).format("%s DoCloseStream", name.c_str());
  }
  ConnectionPtr connection;
  std::unordered_map<uint64_t, RpcCallPtr> calls;
  DownListener listener;
  ActiveCallback activeCallback;
  TimerPtr timer;
  {
    MutexLock lock(mutex_);
    active_ = false;
    closed_ = true;
    closedFlag_ = true;
    closeReason_ = reason;
    ZEL_RPC_LOG(kLogVerbose).format("%s is closed", ToString().c_str());
    connection = std::move(connection_);
    connection_.reset();
    calls.swap(calls_);
    listener = std::move(downListener_);
    downListener_ = nullptr;
    activeCallback = std::move(activeCallback_);
    activeCallback_ = nullptr;
    timer = std::move(activationTimer_);
  }
  CountClose_(reason);
  const std::string closedName = ToString();
  if (connection) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Releasing connection", closedName.c_str());
    connection->UnregisterChannel(*this);
  }
  for (auto& [id, call] : calls) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Notifying and releasing call %s", closedName.c_str(),
                                    CallIdText(id).c_str());
    call->HandleChannelDown();
  }
  calls.clear();
  if (activeCallback) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Calling user callback for channel active",
                                    closedName.c_str());
    activeCallback(boost::system::error_code(ENOTCONN, boost::system::generic_category()),
                   shared_from_this());
  }
  if (listener) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Calling user callback for channel down", closedName.c_str());
    listener(reason);
  }
}

void ChannelImpl::CountClose_(CloseReason reason) {
  metrics_.Mark(kChannelClose);
  switch (reason) {
    case CloseReason::CLOSED_BY_USER: return metrics_.Mark(kChannelCloseLocal);
    case CloseReason::CLOSED_BY_REMOTE: return metrics_.Mark(kChannelCloseRemote);
    case CloseReason::NETWORK_ERROR: return metrics_.Mark(kChannelCloseNetwork);
    case CloseReason::PROTOCOL_ERROR: return metrics_.Mark(kChannelCloseProtocol);
    case CloseReason::KEEPALIVE_EXPIRED:
    case CloseReason::KEEPALIVE_ERROR: return metrics_.Mark(kChannelCloseKeepalive);
    case CloseReason::ACK_STREAM_TIMEOUT: return metrics_.Mark(kChannelCloseAckTimeout);
    case CloseReason::UNKNOWN_REASON: return metrics_.Mark(kChannelCloseError);
    default: return;  // settings timeout and shutdown have no finer key
  }
}

void ChannelImpl::SetChannelDownListener(DownListener listener) {
  boost::shared_ptr<ChannelImpl> self = shared_from_this();
  AppendOp([self, listener = std::move(listener)]() mutable {
    const std::string name = self->ToString();
    ZEL_RPC_LOG(kLogDebug).format("%s DoSetChannelDownListener", name.c_str());
    CloseReason reason;
    {
      MutexLock lock(self->mutex_);
      if (!self->closed_) {
        self->downListener_ = std::move(listener);
        return;
      }
      reason = self->closeReason_;
    }
    ZEL_RPC_LOG(kLogVerbose).format("%s is already closed, calling user callback", name.c_str());
    if (listener) listener(reason);
  });
}

// ---------------------------------------------------------------------------
// ChannelFactory

ChannelFactory::ChannelFactory(std::shared_ptr<ChannelScheduler> scheduler,
                               std::shared_ptr<ServiceRegistry> registry,
                               std::shared_ptr<TimerFactory> timers,
                               metrics::MetricKeyPtr metricsRoot)
    : scheduler_(std::move(scheduler)),
      registry_(std::move(registry)),
      timers_(std::move(timers)),
      metricsRoot_(std::move(metricsRoot)) {}

boost::shared_ptr<ChannelImpl> ChannelFactory::Make_(const std::string& url,
                                                     const std::string& service,
                                                     const StreamId& streamId, bool serverSide,
                                                     const ConnectionPtr& connection,
                                                     ChannelPriority priority) {
  ChannelImpl::Params params;
  params.url = url;
  params.service = service;
  params.stream_id = streamId;
  params.server_side = serverSide;
  params.connection = connection;
  params.priority = priority;
  params.registry = registry_;
  params.scheduler = scheduler_;
  params.timers = timers_;
  params.metrics_root = metricsRoot_;
  return ChannelImpl::Create(std::move(params));
}

boost::shared_ptr<ChannelImpl> ChannelFactory::CreateClientChannel(const std::string& url,
                                                                   const std::string& service,
                                                                   const ConnectionPtr& connection,
                                                                   ChannelPriority priority) {
  return Make_(url, service, NewStreamId(), false, connection, priority);
}

boost::shared_ptr<ChannelImpl> ChannelFactory::CreateServerChannel(const std::string& url,
                                                                   const std::string& service,
                                                                   const StreamId& streamId,
                                                                   const ConnectionPtr& connection,
                                                                   ChannelPriority priority) {
  return Make_(url, service, streamId, true, connection, priority);
}

}  // namespace rpc
}  // namespace zel
