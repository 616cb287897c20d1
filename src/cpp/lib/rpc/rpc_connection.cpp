#include "cpp/lib/rpc/rpc_connection.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <boost/asio/error.hpp>
#include <google/protobuf/message.h>
#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/not_reached.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace rpc {
namespace {

using Clock = std::chrono::steady_clock;
using boost::system::error_code;
using ::orvane::zel::rpc::StreamControlMsg;

constexpr Clock::time_point kNever = Clock::time_point::min();

// ConnectionMetrics, in this order.
enum ConnectionEvent {
  kOpen, kOpenLocal, kOpenRemote, kClose, kCloseLocal, kCloseRemote, kCloseNetwork,
  kCloseSettings, kCloseProtocol, kCloseKeepalive, kCloseKeepaliveExpired, kCloseKeepaliveError,
  kCloseError, kRxMessages, kTxMessages, kRxControl, kTxControl, kRxPayload, kTxPayload,
  kRxKeepalive, kRxKeepaliveReq, kRxKeepaliveRsp, kTxKeepalive, kTxKeepaliveReq, kTxKeepaliveRsp
};
enum ConnectionAmount { kRxBytes, kTxBytes };

CounterSet MakeConnectionMetrics(const metrics::MetricKeyPtr& root, const std::string& endpoint) {
  if (!root) return CounterSet();
  return CounterSet(
      root->subkey("rpc/connection"), metrics::InstanceName({{"ep", endpoint}}),
      {"open", "open/local", "open/remote", "close", "close/local", "close/remote",
       "close/network", "close/settings", "close/protocol", "close/keepalive",
       "close/keepalive/expired", "close/keepalive/error", "close/error", "rx/messages",
       "tx/messages", "rx/messages/control", "tx/messages/control", "rx/messages/payload",
       "tx/messages/payload", "rx/messages/control/keepalive",
       "rx/messages/control/keepalive/req", "rx/messages/control/keepalive/rsp",
       "tx/messages/control/keepalive", "tx/messages/control/keepalive/req",
       "tx/messages/control/keepalive/rsp"},
      {"rx/bytes", "tx/bytes"}, {"rtt"});
}

uint64_t Ticks(Clock::time_point t) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count());
}

long SecondsSince(Clock::time_point t, Clock::time_point now) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(now - t).count());
}

std::string Printed(const google::protobuf::Message& m, bool parsed) {
  return parsed ? m.ShortDebugString() : "<UNABLE-TO-DESERIALIZE>";
}

}  // namespace

const char* ToString(RpcConnection::State state) {
  static const char* const kNames[] = {"Init", "Connecting", "Negotiating", "Connected", "Closed"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 5 ? kNames[i] : "<RpcConnection::ConnectionState::INVALID>";
}

const char* ToString(RpcConnection::KeepaliveState state) {
  static const char* const kNames[] = {"inactive", "monitoring", "deciding",
                                       "waiting for response"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 4 ? kNames[i] : "<RpcConnection::Keepalive::State::INVALID>";
}

std::string ConnectionOptions::ToString() const {
  std::string out = "{";
  if (gateway) {
    out += "gw:";
    std::string words;
    if (gateway->endpoint) words += "endpoint";
    if (gateway->service) words += std::string(words.empty() ? "" : " ") + "service";
    out += words + " ";
  }
  out += "negotiation_timeout:" + std::to_string(negotiation_timeout);
  if (keepalive_timeout) out += " keepalive_timeout:" + std::to_string(*keepalive_timeout);
  return out + "}";
}

// ---------------------------------------------------------------------------
// WeightedQueueSet

namespace {

CounterSet MakeQueueMetrics(const metrics::MetricKeyPtr& root, const std::string& endpoint,
                            uint32_t priority) {
  if (!root) return CounterSet();
  return CounterSet(root->subkey("rpc/connection"),
                    metrics::InstanceName({{"ep", endpoint}, {"priority", StreamPriorityName(priority)}}),
                    {"queue/frames"}, {}, {"queue/latency"});
}

}  // namespace

WeightedQueueSet::WeightedQueueSet(const metrics::MetricKeyPtr& root, const std::string& endpoint)
    : entries_{{kStreamPrioritySputnik, 10, 0, {}, MakeQueueMetrics(root, endpoint, kStreamPrioritySputnik)},
               {kStreamPriorityHigh, 5, 0, {}, MakeQueueMetrics(root, endpoint, kStreamPriorityHigh)},
               {kStreamPriorityNormal, 2, 0, {}, MakeQueueMetrics(root, endpoint, kStreamPriorityNormal)},
               {kStreamPriorityLow, 1, 0, {}, MakeQueueMetrics(root, endpoint, kStreamPriorityLow)}} {}

bool WeightedQueueSet::Push(uint32_t priority, RpcFramePtr frame) {
  for (Entry& e : entries_) {
    if (e.priority == priority) {
      e.frames.push_back(Queued{std::move(frame), Clock::now()});
      e.metrics.Mark(0);
      return true;
    }
  }
  return false;
}

std::size_t WeightedQueueSet::size() const {
  std::size_t n = 0;
  for (const Entry& e : entries_) n += e.frames.size();
  return n;
}

bool WeightedQueueSet::Next_(RpcFramePtr* out, bool* allHadQuota) {
  *allHadQuota = true;
  for (std::size_t step = 0; step < 4; ++step) {
    const std::size_t i = (next_ + step) % 4;
    Entry& e = entries_[i];
    if (e.served >= e.weight) {
      *allHadQuota = false;
      continue;
    }
    if (e.frames.empty()) continue;
    Queued& front = e.frames.front();
    e.metrics.Record(0, static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                  Clock::now() - front.since)
                                                  .count()));
    *out = std::move(front.frame);
    e.frames.pop_front();
    ++e.served;
    next_ = (i + 1) % 4;
    return true;
  }
  for (Entry& e : entries_) e.served = 0;
  next_ = 0;
  return false;
}

bool WeightedQueueSet::Pop(RpcFramePtr* out) {
  bool allHadQuota = true;
  if (Next_(out, &allHadQuota)) return true;
  // A quota ran out: a new cycle may find frames; with quota everywhere,
  // every queue was empty.
  return !allHadQuota && Next_(out, &allHadQuota);
}

// ---------------------------------------------------------------------------
// Creation

boost::shared_ptr<RpcConnection> RpcConnection::Create(Params params) {
  auto connection = boost::make_shared<RpcConnection>(PrivateTag{}, std::move(params));
  ZEL_RPC_LOG(kLogVerbose).format("Created %s", connection->ToString().c_str());
  return connection;
}

RpcConnection::RpcConnection(PrivateTag, Params params)
    : Connection(params.id),
      netId_(params.net ? params.net->id() : 0),
      net_(std::move(params.net)),
      options_(std::move(params.options)),
      direction_(params.direction),
      transport_(std::move(params.transport)),
      dispatcher_(std::move(params.dispatcher)),
      timers_(std::move(params.timers)),
      keepaliveEnabled_(options_.keepalive_timeout && *options_.keepalive_timeout > 0),
      keepaliveInterval_(options_.keepalive_timeout.value_or(0)) {
  const net::ConnectionInfo info = net_->info();
  metrics_ = MakeConnectionMetrics(params.metrics_root,
                                   direction_ == 0 ? info.endpoint : info.local_endpoint);
  metrics_.Mark(kOpen);
  metrics_.Mark(direction_ == 0 ? kOpenLocal : kOpenRemote);
  MutexLock lock(mutex_);
  txQueues_ = WeightedQueueSet(params.metrics_root,
                               direction_ == 0 ? info.endpoint : info.local_endpoint);
  localEndpoint_ = info.local_endpoint;
  remoteEndpoint_ = direction_ == 0 ? info.endpoint : info.peer_endpoint;
  lastCheckTime_ = lastRequestTime_ = lastResponseTime_ = lastMessageTime_ = kNever;
}

RpcConnection::~RpcConnection() {
  const std::string name = ToString();
  ZEL_RPC_LOG(kLogVerbose).format("Destroying %s", name.c_str());
  ZEL_RPC_LOG(kLogVerbose).format("%s Destroyed", name.c_str());
}

std::string RpcConnection::Name_() const {
  char head[48];
  std::snprintf(head, sizeof head, "RpcConnection[%u %s ", id(), direction_ == 0 ? "to" : "on");
  return head + remoteEndpoint_ + " " + rpc::ToString(state_) + "]";
}

std::string RpcConnection::ToString() const {
  MutexLock lock(mutex_);
  return Name_();
}

RpcConnection::State RpcConnection::state() const {
  MutexLock lock(mutex_);
  return state_;
}

RpcConnection::KeepaliveState RpcConnection::keepalive_state() const {
  MutexLock lock(mutex_);
  return keepaliveState_;
}

std::vector<std::string> RpcConnection::remote_endpoint_ids() const {
  MutexLock lock(mutex_);
  return remoteEndpointIds_;
}

std::vector<std::string> RpcConnection::remote_services() const {
  MutexLock lock(mutex_);
  return remoteServices_;
}

ConnectionLocalInfo RpcConnection::GetLocalInfo() const {
  ConnectionLocalInfo info;
  info.id = id();
  info.net_peer = net::ToString(net_->info());
  MutexLock lock(mutex_);
  info.local_endpoint = localEndpoint_;
  info.remote_endpoint = remoteEndpoint_;
  info.remote_endpoint_ids = remoteEndpointIds_;
  info.remote_services = remoteServices_;
  return info;
}

std::string RpcConnection::GetInfo() const {
  return ToString() + " " + options_.ToString() + " " + net::ToString(net_->info());
}

void RpcConnection::SetState_(State state, const char* function) {
  state_ = state;
  ZEL_RPC_LOG(kLogDebug).format("RpcConnection::%s %s state switch to CONNECTION_STATE_%s", function,
                                Name_().c_str(),
                                state == State::INIT          ? "INIT"
                                : state == State::CONNECTING  ? "CONNECTING"
                                : state == State::NEGOTIATING ? "NEGOTIATING"
                                : state == State::CONNECTED   ? "CONNECTED"
                                                              : "CLOSED");
}

// ---------------------------------------------------------------------------
// Setting up

void RpcConnection::AsyncConnect(ConnectHandler handler) {
  {
    MutexLock lock(mutex_);
    ZEL_RPC_LOG(kLogVerbose).format("%s Connecting to '%s'", Name_().c_str(),
                                    remoteEndpoint_.c_str());
    if (state_ != State::INIT) {
      lock.Unlock();
      dispatcher_->Post([handler] {
        handler(error_code(EALREADY, boost::system::generic_category()));
      });
      return;
    }
    SetState_(State::CONNECTING, "InternalAsyncConnect");
    connectHandler_ = std::move(handler);
  }
  boost::weak_ptr<RpcConnection> weak = weak_from_this();
  net_->Connect([weak](const error_code& ec) {
    if (auto self = weak.lock()) self->OnConnected_(ec);
  });
}

void RpcConnection::OnConnected_(const error_code& ec) {
  ConnectHandler failed;
  {
    MutexLock lock(mutex_);
    if (state_ != State::CONNECTING) return;  // closed meanwhile
    if (ec) {
      ZEL_RPC_LOG(kLogWarn).format("%s Couldn't connect to %s (error: %i-%s)", Name_().c_str(),
                                   remoteEndpoint_.c_str(), ec.value(), ec.message().c_str());
      SetState_(State::INIT, "ConnectCallback");
      failed = std::move(connectHandler_);
      connectHandler_ = nullptr;
    } else {
      localEndpoint_ = net_->info().local_endpoint;
      SetState_(State::NEGOTIATING, "ConnectCallback");
      StartNegotiation_();
    }
  }
  if (failed) failed(ec);
}

void RpcConnection::Accept(ConnectHandler handler) {
  const net::ConnectionInfo info = net_->info();
  MutexLock lock(mutex_);
  connectHandler_ = std::move(handler);
  localEndpoint_ = info.local_endpoint;
  remoteEndpoint_ = info.peer_endpoint;
  SetState_(State::NEGOTIATING, "Accept");
  StartNegotiation_();
}

void RpcConnection::StartNegotiation_() {
  SendSettings_();
  ReadStart_();
  if (keepaliveEnabled_) {
    keepaliveState_ = KeepaliveState::MONITORING;
    lastCheckTime_ = Clock::now();
    boost::weak_ptr<RpcConnection> weak = weak_from_this();
    const uint32_t id = this->id();
    keepaliveTimer_ = timers_->CreatePeriodicTimer(
        keepaliveInterval_,
        [weak, id] {
          if (auto self = weak.lock()) {
            self->OnKeepaliveTimer_();
          } else {
            ZEL_RPC_LOG(kLogVerbose).format(
                "RpcConnection[%u] Keepalive - ignoring timer callback - already destroyed", id);
          }
        },
        false);
  }
}

void RpcConnection::SendSettings_() {
  std::shared_ptr<TransportInterface> transport = transport_.lock();
  if (!transport) {
    ZEL_RPC_LOG(kLogVerbose).format(
        "%s Not sending connection settings after transport was shut down", Name_().c_str());
    return;
  }
  ZelRpcMessage settings;
  auto* s = settings.frame.mutable_settings();
  s->set_version(::orvane::zel::rpc::RPC_V1);
  for (const std::string& id : transport->LocalEndpointIds()) s->add_endpoint_id(id);
  if (ServiceRegistry* registry = transport->Registry()) {
    for (const std::string& service : registry->ServiceNames()) s->add_service(service);
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Sending connection settings %s", Name_().c_str(),
                                  s->ShortDebugString().c_str());
  SendLocked_(settings, kStreamPrioritySputnik);
}

bool RpcConnection::ReadStart_() {
  ZEL_RPC_LOG(kLogVerbose).format("%s ReadStart", Name_().c_str());
  if (state_ == State::CLOSED) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc5)
        .format("%s Can't SecretStartReading on a closed connection", Name_().c_str());
    return false;
  }
  // The read itself starts on the dispatcher: the lock is held here.
  boost::shared_ptr<RpcConnection> self = shared_from_this();
  dispatcher_->Post([self] { self->ReadNext_(); });
  if (direction_ == 1) {
    SetState_(State::NEGOTIATING, "ReadStart");
    if (options_.negotiation_timeout > 0) {
      boost::weak_ptr<RpcConnection> weak = weak_from_this();
      negotiationTimer_ = timers_->CreateTimer(std::chrono::seconds(options_.negotiation_timeout), [weak] {
        if (auto self = weak.lock()) self->OnNegotiationTimeout_();
      });
    }
  }
  return true;
}

void RpcConnection::OnNegotiationTimeout_() {
  {
    MutexLock lock(mutex_);
    negotiationTimer_.reset();
    if (state_ != State::NEGOTIATING) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring Negotiation Timeout in current state",
                                      Name_().c_str());
      return;
    }
  }
  Close(CloseReason::SETTINGS_TIMEOUT);
}

// ---------------------------------------------------------------------------
// Reading

void RpcConnection::ReadNext_() {
  uint32_t idle = kReadIdle;
  if (!readState_.compare_exchange_strong(idle, kReading)) return;  // reading, or suspended
  MutexLock lock(mutex_);
  if (rxQueued_.load() >= kSuspendReadingAt) {
    ZEL_RPC_LOG(kLogVerbose).format("%s read suspended", Name_().c_str());
    readState_ = kReadSuspended;
    return;
  }
  ZEL_RPC_LOG(kLogDebug).format("%s start reading %zu", Name_().c_str(), kHeaderSize);
  readStage_ = 0;
  rxFrame_ = RpcFrame::ForRead();
  boost::weak_ptr<RpcConnection> weak = weak_from_this();
  net_->Read(net::IoBuffer(rxFrame_->data(), kHeaderSize, rxFrame_), kHeaderSize, net::kReadFill,
             [weak](const error_code& ec, std::size_t n) {
               if (auto self = weak.lock()) self->OnRead_(ec, n);
             });
}

void RpcConnection::OnFrameQueued() { rxQueued_.fetch_add(1); }

void RpcConnection::OnFrameTaken() {
  const uint64_t before = rxQueued_.fetch_sub(1);
  if (before > kResumeReadingAt + 1 || readState_.load() != kReadSuspended) return;
  uint32_t suspended = kReadSuspended;
  if (readState_.compare_exchange_strong(suspended, kReadIdle)) {
    ZEL_RPC_LOG(kLogVerbose).format("%s read resumed", ToString().c_str());
    boost::shared_ptr<RpcConnection> self = shared_from_this();
    dispatcher_->Post([self] { self->ReadResume_(); });
  } else {
    ZEL_RPC_LOG(kLogDebug).format("%s resumed already", ToString().c_str());
  }
}

void RpcConnection::ReadResume_() {
  ZEL_RPC_LOG(kLogVerbose).format("%s ReadResume", ToString().c_str());
  ReadNext_();
}

void RpcConnection::OnRead_(const error_code& ec, std::size_t bytes) {
  ReadOutcome out;
  {
    MutexLock lock(mutex_);
    ZEL_RPC_LOG(kLogVerbose).format("%s ReadCallback(status: %i-%s, bytes_read: %zu)",
                                    Name_().c_str(), ec.value(), ec.message().c_str(), bytes);
    if (ec) {
      ZEL_RPC_LOG(ec == boost::asio::error::eof ? kLogVerbose : kLogWarn)
          .format("%s ReadCallback - closing connection (error: %i-%s)", Name_().c_str(), ec.value(),
                  ec.message().c_str());
      out.close = CloseReason::NETWORK_ERROR;
    } else if (state_ != State::NEGOTIATING && state_ != State::CONNECTED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring ReadCallback in non-connected state",
                                      Name_().c_str());
      return;
    } else if (readStage_ == 0) {
      ZEL_RPC_LOG(kLogDebug).format("%s Read %s", Name_().c_str(),
                                    rpc::ToString(rxFrame_->header()).c_str());
      readStage_ = 1;
      rxFrame_->AllocateBody();
      const RpcFrame::View body = rxFrame_->body();
      if (body.size > 0) {
        boost::weak_ptr<RpcConnection> weak = weak_from_this();
        net_->Read(net::IoBuffer(body.data, body.size, rxFrame_), body.size, net::kReadFill,
                   [weak](const error_code& ec, std::size_t n) {
                     if (auto self = weak.lock()) self->OnRead_(ec, n);
                   });
        return;
      }
      OnFrame_(out);  // a frame of a header only
    } else {
      OnFrame_(out);
    }
  }
  if (out.close) return Close(*out.close);
  {
    // The next read is under way while this frame is passed on; the frame it
    // brings waits here until this one has reached its channel.
    MutexLock delivery(deliveryMutex_);
    if (out.readNext) ReadNext_();
    if (out.forwarder) Forward_(out.forwarder, out.forwarded, out.lastForwarded);
    if (out.stream) StreamFrame_(*out.stream);
  }
  if (out.connected) out.connected(error_code());
}

void RpcConnection::OnFrame_(ReadOutcome& out) {
  RpcFramePtr frame = std::move(rxFrame_);
  metrics_.Add(kRxBytes, frame->size());
  metrics_.Mark(kRxMessages);
  readState_ = kReadIdle;

  if (frame->too_big()) {
    ZelRpcMessage partial;
    const bool control = ZelRpcMessage::ParseStreamControl(frame, &partial.stream_control);
    const RpcFrame::View section = frame->frame();
    const bool parsed = partial.frame.ParseFromArray(section.data, static_cast<int>(section.size));
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc8)
        .format("%s Closing connection - payload is too big\n%s\nstream_control: %s\nframe: %s",
                Name_().c_str(), rpc::ToString(frame->header()).c_str(), Printed(partial.stream_control, control).c_str(),
                Printed(partial.frame, parsed).c_str());
    out.close = CloseReason::PROTOCOL_ERROR;
    return;
  }
  ZEL_RPC_LOG(kLogDebug).format("%s Read ZelRpcMessage with %s", Name_().c_str(), rpc::ToString(frame->header()).c_str());
  if (transport_.expired()) {
    ZEL_RPC_LOG(kLogVerbose).format(
        "%s Dropping ZelRpcMessage with %s received after transport was shut down", Name_().c_str(),
        rpc::ToString(frame->header()).c_str());
    return;
  }
  if (keepaliveEnabled_) lastMessageTime_ = Clock::now();

  const StreamId streamId = frame->stream_id();
  if (!IsZero(streamId)) {
    auto it = forwarders_.find(streamId);
    if (it != forwarders_.end()) {
      StreamControlMsg control;
      if (!ZelRpcMessage::ParseStreamControl(frame, &control)) {
        ZEL_RPC_LOG(kLogError)
            .addTag(kTagRpc400)
            .format("%s Failed to parse StreamControlMsg from message with %s", Name_().c_str(),
                    rpc::ToString(frame->header()).c_str());
        out.close = CloseReason::PROTOCOL_ERROR;
        return;
      }
      const bool last = control.close_stream();
      if (last) {
        ZEL_RPC_LOG(kLogVerbose).format("%s Received stream close for %s", Name_().c_str(),
                                        StreamIdText(streamId).c_str());
        ZEL_RPC_LOG(kLogVerbose).format("%s Closing RpcStreamForwarder[%s]", Name_().c_str(),
                                        StreamIdText(streamId).c_str());
      }
      // The next read is under way before this frame is passed on.
      out.readNext = true;
      out.forwarder = it->second;
      out.forwarded = frame;
      out.lastForwarded = last;
      return;
    }
  }

  ZelRpcMessage message;
  if (!ZelRpcMessage::Parse(frame, &message)) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc5)
        .format("%s Failed to decode ZelRpcMessage with %s", Name_().c_str(), rpc::ToString(frame->header()).c_str());
    out.close = CloseReason::PROTOCOL_ERROR;
    return;
  }
  if (IsZero(streamId)) {
    std::string error;
    CloseReason reason = CloseReason::PROTOCOL_ERROR;
    if (!ControlFrame_(message, out, &error, &reason)) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc20)
          .format("%s Failed to process control message: %s", Name_().c_str(), error.c_str());
      out.close = reason;
      out.connected = nullptr;
      return;
    }
  } else {
    out.stream = std::move(message);
  }
  // The next read is in flight while this frame is handled.
  out.readNext = true;
}

void RpcConnection::Forward_(const std::shared_ptr<StreamForwarder>& forwarder,
                             const RpcFramePtr& frame, bool last) {
  ZEL_RPC_LOG(kLogDebug).format("%s Forwarding ZelRpcMessage with %s", ToString().c_str(),
                                rpc::ToString(frame->header()).c_str());
  const bool passed = forwarder->Forward(frame, shared_from_this());
  if (!passed || last) ReleaseStreamForwarder(frame->stream_id(), std::nullopt);
}

// ---------------------------------------------------------------------------
// Control frames and keepalive

bool RpcConnection::ControlFrame_(const ZelRpcMessage& message, ReadOutcome& out,
                                  std::string* error, CloseReason* reason) {
  metrics_.Mark(kRxControl);
  const auto& frame = message.frame;
  if (frame.has_keep_alive_request()) {
    *reason = CloseReason::KEEPALIVE_ERROR;
    return HandleKeepaliveRequest_(message, error);
  }
  if (frame.has_keep_alive_response()) {
    *reason = CloseReason::KEEPALIVE_ERROR;
    return HandleKeepaliveResponse_(message, error);
  }
  if (frame.has_settings()) {
    HandleSettings_(message);
    if (state_ == State::NEGOTIATING) {
      SetState_(State::CONNECTED, "ConnectCallback");
      negotiationTimer_.reset();
      out.connected = std::move(connectHandler_);
      connectHandler_ = nullptr;
    }
    return true;
  }
  *error = "no settings and no keepalive in a frame of stream 0";
  return false;
}

void RpcConnection::HandleSettings_(const ZelRpcMessage& message) {
  const std::string name = Name_();
  if (settingsReceived_) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc20).format("%s Remote endpoint ids already set", name.c_str());
    return;
  }
  settingsReceived_ = true;
  const auto& settings = message.frame.settings();
  ZEL_RPC_LOG(kLogVerbose).format("%s Processing connection settings %s", name.c_str(),
                                  settings.ShortDebugString().c_str());
  remoteEndpointIds_.insert(remoteEndpointIds_.end(), settings.endpoint_id().begin(),
                            settings.endpoint_id().end());
  remoteServices_.insert(remoteServices_.end(), settings.service().begin(),
                         settings.service().end());
  if (std::shared_ptr<TransportInterface> transport = transport_.lock()) {
    // The transport takes its own lock and may call back: it hears of the
    // settings from the dispatcher.
    boost::shared_ptr<RpcConnection> self = shared_from_this();
    std::vector<std::string> ids = remoteEndpointIds_;
    std::vector<std::string> services = remoteServices_;
    dispatcher_->Post([self, transport, ids, services] {
      transport->ConnectionSettings(self, ids, services);
    });
  }
}

bool RpcConnection::HandleKeepaliveRequest_(const ZelRpcMessage& message, std::string* error) {
  metrics_.Mark(kRxKeepalive);
  metrics_.Mark(kRxKeepaliveReq);
  const auto& request = message.frame.keep_alive_request();
  const std::string name = Name_();
  if (!request.has_request_id()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - discarding keep alive request with no id",
                                    name.c_str());
    *error = "keep alive request with no id";
    return false;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - processing keep alive request with id %lu",
                                  name.c_str(), static_cast<unsigned long>(request.request_id()));
  ZelRpcMessage response;
  auto* r = response.frame.mutable_keep_alive_response();
  r->set_request_id(request.request_id());
  r->set_timestamp(request.has_timestamp() ? request.timestamp() : 0);
  SendLocked_(response, kStreamPrioritySputnik);
  return true;
}

bool RpcConnection::HandleKeepaliveResponse_(const ZelRpcMessage& message, std::string* error) {
  metrics_.Mark(kRxKeepalive);
  metrics_.Mark(kRxKeepaliveRsp);
  const auto& response = message.frame.keep_alive_response();
  const std::string name = Name_();
  if (keepaliveState_ != KeepaliveState::DECIDING && keepaliveState_ != KeepaliveState::WAITING) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc30)
        .format("%s Keepalive - response is unexpected in %s state", name.c_str(),
                rpc::ToString(keepaliveState_));
    *error = "unexpected keep alive response";
    return false;
  }
  if (!response.has_request_id()) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc32)
        .format("%s Keepalive - discarding response with no id", name.c_str());
    *error = "keep alive response with no id";
    return false;
  }
  if (response.request_id() != lastRequestId_) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc32)
        .format("%s Keepalive - received response with unexpected request id: %lu (expected %lu)",
                name.c_str(), static_cast<unsigned long>(response.request_id()),
                static_cast<unsigned long>(lastRequestId_));
    *error = "keep alive response with an unexpected id";
    return false;
  }
  if (response.has_timestamp() && response.timestamp() != Ticks(lastRequestTime_)) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc33)
        .format("%s Keepalive - received response with unexpected timestamp: %lu (expected %lu)",
                name.c_str(), static_cast<unsigned long>(response.timestamp()),
                static_cast<unsigned long>(Ticks(lastRequestTime_)));
    *error = "keep alive response with an unexpected timestamp";
    return false;
  }
  const Clock::time_point now = Clock::now();
  lastResponseTime_ = now;
  if (lastRequestTime_ != kNever) {
    metrics_.Record(0, static_cast<uint64_t>(
                           std::chrono::duration_cast<std::chrono::microseconds>(now - lastRequestTime_)
                               .count()));
  }
  return true;
}

void RpcConnection::KeepaliveSendRequest_(Clock::time_point now) {
  lastCheckTime_ = now;
  lastRequestTime_ = now;
  ++lastRequestId_;
  ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - sending request %lu ts %lu", Name_().c_str(),
                                  static_cast<unsigned long>(lastRequestId_),
                                  static_cast<unsigned long>(Ticks(now)));
  ZelRpcMessage request;
  auto* r = request.frame.mutable_keep_alive_request();
  r->set_request_id(lastRequestId_);
  r->set_timestamp(Ticks(now));
  SendLocked_(request, kStreamPrioritySputnik);
}

void RpcConnection::OnKeepaliveTimer_() {
  bool fail = false;
  {
    MutexLock lock(mutex_);
    const std::string name = Name_();
    ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - processing timer callback in %s state",
                                    name.c_str(), rpc::ToString(keepaliveState_));
    if (keepaliveState_ == KeepaliveState::INACTIVE || state_ == State::CLOSED) {
      if (keepaliveState_ == KeepaliveState::INACTIVE) {
        ZEL_RPC_LOG(kLogError)
            .addTag(kTagRpc30)
            .format("%s Keepalive - timer callback is unexpected in Keepalive::INACTIVE state",
                    name.c_str());
      }
      return;
    }
    const Clock::time_point now = Clock::now();
    const Clock::time_point checked = lastCheckTime_;
    auto seen = [&name, now, checked](Clock::time_point last, const char* what) {
      const bool fresh = last != kNever && last > checked;
      if (last == kNever) {
        ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - haven't received any %s", name.c_str(), what);
      } else if (fresh) {
        ZEL_RPC_LOG(kLogVerbose).format("%s Keepalive - last %s was received %li seconds ago",
                                        name.c_str(), what, SecondsSince(last, now));
      } else {
        ZEL_RPC_LOG(kLogVerbose).format(
            "%s Keepalive - haven't received any %s during last interval (last %s was received "
            "%li seconds ago)",
            name.c_str(), what, what, SecondsSince(last, now));
      }
      return fresh;
    };
    const bool msg = seen(lastMessageTime_, "message");
    const bool rsp = seen(lastResponseTime_, "response");
    switch (keepaliveState_) {
      case KeepaliveState::MONITORING:
        if (msg) {
          lastCheckTime_ = now;
        } else {
          keepaliveState_ = KeepaliveState::DECIDING;
          KeepaliveSendRequest_(now);
        }
        break;
      case KeepaliveState::DECIDING:
        if (rsp) {
          keepaliveState_ = KeepaliveState::MONITORING;
          lastCheckTime_ = now;
        } else if (msg) {
          keepaliveState_ = KeepaliveState::WAITING;
          lastCheckTime_ = now;
        } else {
          fail = true;
        }
        break;
      case KeepaliveState::WAITING:
        if (rsp) {
          keepaliveState_ = KeepaliveState::MONITORING;
          lastCheckTime_ = now;
        } else {
          fail = true;
        }
        break;
      default:
        break;
    }
    if (fail) {
      const std::string answered =
          lastResponseTime_ == kNever
              ? std::string("never")
              : std::to_string(SecondsSince(lastResponseTime_, now)) + " seconds ago";
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc31)
          .format("%s Keepalive failed - haven't received response in time (last request was sent "
                  "%li seconds ago, response received - %s)",
                  name.c_str(), SecondsSince(lastRequestTime_, now), answered.c_str());
    }
  }
  if (fail) Close(CloseReason::KEEPALIVE_EXPIRED);
}

// ---------------------------------------------------------------------------
// Stream frames

void RpcConnection::StreamFrame_(const ZelRpcMessage& message) {
  const auto& control = message.stream_control;
  boost::shared_ptr<ChannelImpl> channel;
  {
    MutexLock lock(mutex_);
    metrics_.Mark(message.PayloadSize() > 0 ? kRxPayload : kRxControl);
    auto it = channels_.find(message.stream_id);
    if (it != channels_.end()) channel = it->second;
  }
  // Names are made only for lines that are written: this is the road of
  // every frame of an open stream.
  if (channel) {
    ZEL_RPC_LOG(kLogDebug).format("%s Received frame on an existing channel %s", ToString().c_str(),
                                  channel->ToString().c_str());
    if (control.close_stream()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Received stream close %s", ToString().c_str(), StreamIdText(message.stream_id).c_str());
      channel->Close(false, CloseReason::CLOSED_BY_REMOTE);
    } else if (control.has_ack_stream() && control.ack_stream()) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Received ack stream", ToString().c_str());
      channel->ReceiveAckStream();
    } else if (control.has_ack_stream()) {
      ZEL_RPC_LOG(kLogError).addTag(kTagRpc54).format("%s Failed to open a channel", ToString().c_str());
    } else {
      channel->Receive(message);
    }
    return;
  }
  const std::string name = ToString();
  const std::string stream = StreamIdText(message.stream_id);
  const uint32_t priority = NormalizeStreamPriority(control);
  if (control.has_ack_stream() && control.ack_stream()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Received ack for unknown stream %s - replying with close",
                                    name.c_str(), stream.c_str());
    return ReplyClose_(message, priority, std::string());
  }
  if (control.has_ack_stream()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Received nack for unknown stream %s - ignoring",
                                    name.c_str(), stream.c_str());
    return;
  }
  if (control.close_stream()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Received close for unknown stream %s - ignoring",
                                    name.c_str(), stream.c_str());
    return;
  }
  if (!control.open_stream() || control.service().empty()) {
    if (message.frame.rpc_msg().has_status()) {
      ZEL_RPC_LOG(kLogVerbose).format(
          "%s Dropping a frame received from an unknown stream %s with status %s", name.c_str(),
          stream.c_str(), FromWire(message.frame.rpc_msg().status()).ToString().c_str());
      return;
    }
    ZEL_RPC_LOG(kLogWarn).format("%s Dropping a frame received from an unknown stream %s without %s",
                                 name.c_str(), stream.c_str(),
                                 !control.open_stream() ? "open_stream setting" : "service name");
    return ReplyClose_(message, priority, std::string());
  }
  OpenStream_(message, priority);
}

void RpcConnection::OpenStream_(const ZelRpcMessage& message, uint32_t priority) {
  const auto& control = message.stream_control;
  const std::string name = ToString();
  const std::string stream = StreamIdText(message.stream_id);
  if (control.has_destination() && control.destination().empty()) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s Dropping open_stream received with explicitly empty destination (stream %s)",
        name.c_str(), stream.c_str());
    return ReplyClose_(message, priority, std::string());
  }
  std::shared_ptr<TransportInterface> transport = transport_.lock();
  if (!transport) return;
  const bool hasDestination = control.has_destination();
  const bool local = hasDestination && transport->IsLocalEndpointId(control.destination());
  const bool final = !hasDestination || local;
  ZEL_RPC_LOG(kLogVerbose).format(
      "%s Received frame with open_stream with%s destination %s (final:%s, local:%s)", name.c_str(),
      hasDestination ? "" : "out", control.destination().c_str(), final ? "true" : "false",
      local ? "true" : "false");
  ServiceRegistry* registry = transport->Registry();
  ChannelFactoryInterface* channels = transport->Channels();
  if (final && registry && channels && registry->HasService(control.service())) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Received frame on a new channel %s priority %i (we are the server)",
                                    name.c_str(), stream.c_str(), static_cast<int>(priority));
    std::string url;
    {
      MutexLock lock(mutex_);
      url = remoteEndpoint_;
    }
    boost::shared_ptr<ChannelImpl> channel = channels->CreateServerChannel(
        url, control.service(), message.stream_id, shared_from_this(), ChannelPriorityOf(priority));
    channel->OpenOnServer();
    channel->Receive(message);
    return;
  }
  if (!transport->ForwardingEnabled()) {
    ZEL_RPC_LOG(kLogWarn).format(
        "%s Dropping a frame received from an unknown stream %s for unknown service %s, "
        "destination is %sfinal, forwarding is not enabled",
        name.c_str(), stream.c_str(), control.service().c_str(), hasDestination ? "" : "not ");
    return ReplyClose_(message, priority, "No Service " + control.service());
  }
  const std::string target = hasDestination && !local ? "zel://" + control.destination()
                                                       : "service://" + control.service();
  if (!transport->SetupForwarding(shared_from_this(), target, message, message.received)) {
    ReplyClose_(message, priority, "Failed to setup forwarding for " + control.service());
  }
}

void RpcConnection::ReplyClose_(const ZelRpcMessage& cause, uint32_t priority,
                                const std::string& reason) {
  ZelRpcMessage reply;
  reply.SetStreamId(cause.stream_id);
  reply.stream_control.set_close_stream(true);
  reply.stream_control.set_deprecated_close_reason(reason);
  Send(reply, priority);
}

// ---------------------------------------------------------------------------
// Writing

RpcStatus RpcConnection::Send(ZelRpcMessage& message, uint32_t priority) {
  MutexLock lock(mutex_);
  return SendLocked_(message, priority);
}

RpcStatus RpcConnection::SendLocked_(const ZelRpcMessage& message, uint32_t priority) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Send(rpc_msg)", Name_().c_str());
  if (state_ != State::NEGOTIATING && state_ != State::CONNECTED) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc6)
        .format("%s Can't send a message in non-connected state", Name_().c_str());
    return RpcStatus(COMMUNICATION_ERROR);
  }
  RpcFramePtr frame = ZelRpcMessage::Serialize(message);
  if (!frame) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc20)
        .format("%s Failed to serialize rpc message\nstream_id: %s\nstream_control: %s\nframe: %s",
                Name_().c_str(), StreamIdText(message.stream_id).c_str(),
                message.stream_control.ShortDebugString().c_str(),
                message.frame.ShortDebugString().c_str());
    return RpcStatus(INTERNAL);
  }
  metrics_.Add(kTxBytes, frame->size());
  metrics_.Mark(kTxMessages);
  metrics_.Mark(message.PayloadSize() > 0 ? kTxPayload : kTxControl);
  if (message.frame.has_keep_alive_request() || message.frame.has_keep_alive_response()) {
    metrics_.Mark(kTxKeepalive);
    metrics_.Mark(message.frame.has_keep_alive_request() ? kTxKeepaliveReq : kTxKeepaliveRsp);
  }
  return Enqueue_(std::move(frame), priority);
}

RpcStatus RpcConnection::Send(const RpcFramePtr& frame, uint32_t priority) {
  MutexLock lock(mutex_);
  if (state_ != State::NEGOTIATING && state_ != State::CONNECTED) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc6)
        .format("%s Can't send a message in non-connected state", Name_().c_str());
    return RpcStatus(COMMUNICATION_ERROR);
  }
  metrics_.Add(kTxBytes, frame->size());
  metrics_.Mark(kTxMessages);
  return Enqueue_(frame, priority);
}

RpcStatus RpcConnection::Enqueue_(RpcFramePtr frame, uint32_t priority) {
  if (writeFrame_) {
    ZEL_RPC_LOG(kLogDebug).format("%s Queue ZelRpcMessage %s to queue %i", Name_().c_str(),
                                  rpc::ToString(frame->header()).c_str(), static_cast<int>(priority));
    if (!txQueues_.Push(priority, std::move(frame))) NOT_REACHED();  // a priority of no queue
    return RpcStatus::Success();
  }
  writeFrame_ = std::move(frame);
  Write_(writeFrame_);
  return RpcStatus::Success();
}

void RpcConnection::Write_(const RpcFramePtr& frame) {
  ZEL_RPC_LOG(kLogDebug).format("%s Sending ZelRpcMessage %s", Name_().c_str(),
                                rpc::ToString(frame->header()).c_str());
  // The net connection only posts: calling it with the lock held is safe.
  boost::weak_ptr<RpcConnection> weak = weak_from_this();
  net_->Write(net::IoBuffer(frame->data(), frame->size(), frame),
              [weak](const error_code& ec, std::size_t n) {
                if (auto self = weak.lock()) self->OnWritten_(ec, n);
              });
}

void RpcConnection::OnWritten_(const error_code& ec, std::size_t bytes) {
  {
    MutexLock lock(mutex_);
    ZEL_RPC_LOG(kLogVerbose).format("%s WriteCallback(status: %i-%s, bytes_written: %zu)",
                                    Name_().c_str(), ec.value(), ec.message().c_str(), bytes);
    writeFrame_.reset();
    if (state_ == State::CLOSED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring WriteCallback in closed state", Name_().c_str());
      return;
    }
    if (!ec) {
      RpcFramePtr next;
      if (txQueues_.Pop(&next)) {
        writeFrame_ = std::move(next);
        Write_(writeFrame_);
      }
      return;
    }
    ZEL_RPC_LOG(ec == boost::asio::error::eof ? kLogVerbose : kLogWarn)
        .format("%s WriteCallback - closing connection (error: %i-%s)", Name_().c_str(), ec.value(),
                ec.message().c_str());
  }
  Close(CloseReason::NETWORK_ERROR);
}

// ---------------------------------------------------------------------------
// Channels and forwarders

void RpcConnection::RegisterChannel(const boost::shared_ptr<ChannelImpl>& channel) {
  {
    MutexLock lock(mutex_);
    if (state_ != State::CLOSED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Register Channel %s", Name_().c_str(),
                                      channel->ToString().c_str());
      channels_[channel->GetStreamId()] = channel;
      ChannelTaken();
      return;
    }
    ZEL_RPC_LOG(kLogWarn).format("%s is already closed", Name_().c_str());
  }
  channel->Close(false, CloseReason::UNKNOWN_REASON);
}

void RpcConnection::UnregisterChannel(const ChannelImpl& channel) {
  boost::shared_ptr<ChannelImpl> removed;
  {
    MutexLock lock(mutex_);
    ZEL_RPC_LOG(kLogVerbose).format("%s Unregister Channel %s", Name_().c_str(),
                                    channel.ToString().c_str());
    auto it = channels_.find(channel.GetStreamId());
    if (it != channels_.end() && it->second.get() == &channel) {
      removed = std::move(it->second);
      channels_.erase(it);
    }
  }
  // Only a registered channel was counted: one closed before it opened, or
  // after the connection closed, leaves the count as it is.
  if (removed) ChannelReleased();
}

bool RpcConnection::AddStreamForwarder(const StreamId& id,
                                       const std::shared_ptr<StreamForwarder>& forwarder) {
  MutexLock lock(mutex_);
  if (state_ == State::CLOSED) return false;
  return forwarders_.emplace(id, forwarder).second;
}

void RpcConnection::ReleaseStreamForwarder(const StreamId& id, std::optional<CloseReason> reason) {
  std::shared_ptr<StreamForwarder> forwarder;
  {
    MutexLock lock(mutex_);
    auto it = forwarders_.find(id);
    if (it == forwarders_.end()) return;
    forwarder = std::move(it->second);
    forwarders_.erase(it);
  }
  forwarder->Release(reason);
}

// ---------------------------------------------------------------------------
// Closing

bool RpcConnection::SetOnClose(CloseHandler handler) {
  MutexLock lock(mutex_);
  const std::string name = Name_();
  if (!handler) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Reset OnClose handler", name.c_str());
    closeHandler_ = nullptr;
    return true;
  }
  if (state_ == State::CLOSED) {
    ZEL_RPC_LOG(kLogWarn).format("%s is already closed, cannot set OnClose handler", name.c_str());
    return false;
  }
  if (closeHandler_) {
    ZEL_RPC_LOG(kLogWarn).format("%s Cannot set a new OnClose handler", name.c_str());
    return false;
  }
  closeHandler_ = std::move(handler);
  return true;
}

bool RpcConnection::AddCloseWatcher(CloseHandler watcher) {
  MutexLock lock(mutex_);
  if (state_ == State::CLOSED) return false;
  closeWatchers_.push_back(std::move(watcher));
  return true;
}

bool RpcConnection::deferred_close_armed() const {
  MutexLock lock(mutex_);
  return deferredCloseTimer_ != nullptr;
}

void RpcConnection::ScheduleDeferredClose() {
  MutexLock lock(mutex_);
  if (state_ == State::CLOSED) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Not scheduling deferred close", Name_().c_str());
    return;
  }
  boost::weak_ptr<RpcConnection> weak = weak_from_this();
  deferredCloseTimer_ = timers_->CreateTimer(kDeferredCloseDelay, [weak] {
    if (auto self = weak.lock()) self->OnDeferredClose_();
  });
}

void RpcConnection::OnDeferredClose_() {
  // A channel taken meanwhile keeps the connection.
  if (ChannelsInUse() > 0) return;
  Close(CloseReason::UNKNOWN_REASON);
}

void RpcConnection::Close(CloseReason reason) {
  std::unordered_map<StreamId, boost::shared_ptr<ChannelImpl>, StreamIdHash> channels;
  std::unordered_map<StreamId, std::shared_ptr<StreamForwarder>, StreamIdHash> forwarders;
  CloseHandler handler;
  ConnectHandler unanswered;
  std::vector<CloseHandler> watchers;
  std::string name;
  TimerPtr negotiation, keepalive, deferred;
  {
    MutexLock lock(mutex_);
    name = Name_();
    ZEL_RPC_LOG(kLogInfo).format("%s Closing (%s)", name.c_str(), rpc::ToString(reason));
    if (state_ == State::CLOSED) {
      ZEL_RPC_LOG(kLogVerbose).format("%s is already closed", name.c_str());
      return;
    }
    SetState_(State::CLOSED, "ReadStart");
    name = Name_();
    negotiation = std::move(negotiationTimer_);
    keepalive = std::move(keepaliveTimer_);
    deferred = std::move(deferredCloseTimer_);
    keepaliveState_ = KeepaliveState::INACTIVE;
    channels.swap(channels_);
    forwarders.swap(forwarders_);
    handler = std::move(closeHandler_);
    closeHandler_ = nullptr;
    // A connect that never finished gets no answer (the close handler tells
    // of the end); what its handler holds goes with it.
    unanswered = std::move(connectHandler_);
    connectHandler_ = nullptr;
    watchers.swap(closeWatchers_);
  }
  std::shared_ptr<TransportInterface> transport = transport_.lock();
  if (!transport) {
    ZEL_RPC_LOG(kLogVerbose).format(
        "%s Can't release stream forwarders to transport because it is already destroyed",
        name.c_str());
  } else if (forwarders.empty()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s No stream forwarders to release", name.c_str());
  } else {
    ZEL_RPC_LOG(kLogVerbose).format("%s Releasing stream forwarders", name.c_str());
  }
  for (auto& entry : forwarders) entry.second->Release(reason);
  if (transport) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Unregistering self from transport", name.c_str());
    transport->UnregisterConnection(*this);
  } else {
    ZEL_RPC_LOG(kLogVerbose).format(
        "%s Not unregistering self from transport because it is already destroyed", name.c_str());
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Notifying channels on connection down (%s)", name.c_str(),
                                  rpc::ToString(reason));
  for (auto& entry : channels) entry.second->Close(false, reason);
  net_->Close(net::CloseReason::BY_USER);
  CountClose_(reason);
  if (handler) handler(reason);
  for (const CloseHandler& watcher : watchers) watcher(reason);
}

void RpcConnection::CountClose_(CloseReason reason) {
  metrics_.Mark(kClose);
  switch (reason) {
    case CloseReason::CLOSED_BY_USER: return metrics_.Mark(kCloseLocal);
    case CloseReason::CLOSED_BY_REMOTE: return metrics_.Mark(kCloseRemote);
    case CloseReason::NETWORK_ERROR: return metrics_.Mark(kCloseNetwork);
    case CloseReason::SETTINGS_TIMEOUT: return metrics_.Mark(kCloseSettings);
    case CloseReason::PROTOCOL_ERROR: return metrics_.Mark(kCloseProtocol);
    case CloseReason::KEEPALIVE_EXPIRED:
      metrics_.Mark(kCloseKeepalive);
      return metrics_.Mark(kCloseKeepaliveExpired);
    case CloseReason::KEEPALIVE_ERROR:
      metrics_.Mark(kCloseKeepalive);
      return metrics_.Mark(kCloseKeepaliveError);
    default: return metrics_.Mark(kCloseError);
  }
}

}  // namespace rpc
}  // namespace zel
