#include "mpaclient/mpa_client.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include <boost/thread/locks.hpp>
#include <boost/weak_ptr.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "mpaclient/rmq_client.h"
#include "mpaclient/tnproxy_no_road.h"
#include "mpalib/rmq_client_message.h"
#include "util/mpa_error_tags.h"

namespace zel {

namespace {

using ReadLock = boost::shared_lock<boost::shared_mutex>;
using WriteLock = boost::unique_lock<boost::shared_mutex>;

// Intervals of a type without an entry in the maps: the agent's.
constexpr uint64_t kDefaultAckRetryMicros = 30000000;
constexpr uint64_t kDefaultConnectRetryMicros = 5000000;

// Bytes of payload on one line of the DEBUG dump.
constexpr size_t kDumpBytesPerLine = 16;

// The process-wide clients and their intervals. Never destroyed: the
// library's thread may still deliver while the process exits.
struct ClientMaps {
  boost::shared_mutex mutex;
  std::map<std::string, boost::shared_ptr<MpaClient>> clients;  // guarded by mutex
  std::map<std::string, uint64_t> ackRetryMicros;                // guarded by mutex
  std::map<std::string, uint64_t> connectRetryMicros;            // guarded by mutex
};

ClientMaps& Maps() {
  static ClientMaps* maps = new ClientMaps;
  return *maps;
}

const char* Text(const char* s) { return s != nullptr ? s : "(null)"; }

// Frees the inbound record's block when the record has been handled, on
// every path out of OnMessage.
class RawBufferRelease {
 public:
  explicit RawBufferRelease(rmqClientMessage* message) : message_(message) {}
  ~RawBufferRelease() {
    std::free(message_->rawBuffer);
    message_->rawBuffer = nullptr;
  }
  RawBufferRelease(const RawBufferRelease&) = delete;
  RawBufferRelease& operator=(const RawBufferRelease&) = delete;

 private:
  rmqClientMessage* const message_;
};

// Logs `data` at DEBUG, 16 bytes per line: hexadecimal, then the printable
// characters with '.' for the others.
void DumpPayload(const uint8_t* data, int64_t length) {
  if (data == nullptr || length <= 0) return;
  static const char kHex[] = "0123456789abcdef";
  const size_t total = static_cast<size_t>(length);
  for (size_t offset = 0; offset < total; offset += kDumpBytesPerLine) {
    char hex[kDumpBytesPerLine * 3 + 1];
    char ascii[kDumpBytesPerLine + 1];
    size_t h = 0;
    size_t a = 0;
    for (size_t i = 0; i < kDumpBytesPerLine; ++i) {
      if (offset + i < total) {
        const uint8_t byte = data[offset + i];
        hex[h++] = kHex[byte >> 4];
        hex[h++] = kHex[byte & 0xf];
        ascii[a++] = (byte >= 0x20 && byte < 0x7f) ? static_cast<char>(byte) : '.';
      } else {
        // Pads the last line so that its text column lines up.
        hex[h++] = ' ';
        hex[h++] = ' ';
      }
      hex[h++] = ' ';
    }
    hex[h - 1] = '\0';
    ascii[a] = '\0';
    MPA_CLIENT_LOG(kLogDebug).format("%s: %s %s\n", "Payload", hex, ascii);
  }
}

bool IsAcceptedMessageType(int32_t type) {
  switch (type) {
    case RMQ_CLIENT_REGISTRATION_ACK:
    case RMQ_CLIENT_DATA_MESSAGE:
    case RMQ_CLIENT_CLOSE:
    case RMQ_CLIENT_MPA_DATA_MESSAGE:
    case 9:
    case 11:
    case 13:
      return true;
    default:
      return false;
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Registration and the process-wide map

boost::shared_ptr<MpaClient> MpaClient::Register(boost::shared_ptr<AsioDispatcher> dispatcher,
                                                 MessageCallback callback,
                                                 const std::string& applicationType,
                                                 const std::string& applicationId,
                                                 int32_t connectionType, uint16_t port,
                                                 uint64_t ackRetryMicros,
                                                 uint64_t connectRetryMicros,
                                                 metrics::MetricKeyPtr metricRoot) {
  if (applicationType != kDornApplicationType) {
    MPA_CLIENT_LOG(kLogInfo).format("%s Register mpa client", applicationType.c_str());
    MPA_CLIENT_LOG(kLogWarn)
        .format("%s Register: no mpa client for this application type",
                applicationType.c_str());
    return {};
  }
  boost::shared_ptr<MpaClient> client(new MpaClient(std::move(dispatcher), std::move(callback),
                                                    applicationType, applicationId,
                                                    connectionType, port,
                                                    std::move(metricRoot)));
  return RegisterInstance(std::move(client), ackRetryMicros, connectRetryMicros);
}

boost::shared_ptr<MpaClient> MpaClient::RegisterInstance(boost::shared_ptr<MpaClient> client,
                                                         uint64_t ackRetryMicros,
                                                         uint64_t connectRetryMicros) {
  if (!client) throw std::invalid_argument("MpaClient::RegisterInstance: null client");
  const std::string& type = client->applicationType_;
  ClientMaps& maps = Maps();
  WriteLock lock(maps.mutex);
  MPA_CLIENT_LOG(kLogInfo).format("%s Register mpa client", type.c_str());
  auto it = maps.clients.find(type);
  if (it != maps.clients.end()) {
    MPA_CLIENT_LOG(kLogWarn)
        .format("%s mpa client already registered, keeping it", type.c_str());
    return it->second;
  }
  maps.clients[type] = client;
  maps.ackRetryMicros[type] = ackRetryMicros;
  maps.connectRetryMicros[type] = connectRetryMicros;
  client->CreateAppSpecificInstance();
  client->CreateRmqClient();
  return client;
}

void MpaClient::Unregister(const std::string& applicationType) {
  MPA_CLIENT_LOG(kLogInfo).format("%s UnRegister mpa client", applicationType.c_str());
  boost::shared_ptr<MpaClient> client;
  {
    ClientMaps& maps = Maps();
    WriteLock lock(maps.mutex);
    auto it = maps.clients.find(applicationType);
    if (it == maps.clients.end()) return;
    client = std::move(it->second);
    maps.clients.erase(it);
  }
  // Outside the map lock: closing the connection waits for the library's
  // client lock, which the library's thread may hold while it waits for the
  // map lock to deliver a record.
  client->DestroyRmqClient();
  client->ReleaseAppSpecificInstance();
  tnproxy_no_road::RemoveClient(applicationType);
}

boost::shared_ptr<MpaClient> MpaClient::GetMpaClient(const std::string& applicationType) {
  ClientMaps& maps = Maps();
  ReadLock lock(maps.mutex);
  auto it = maps.clients.find(applicationType);
  return it != maps.clients.end() ? it->second : boost::shared_ptr<MpaClient>();
}

uint64_t MpaClient::AckRetryMicros_(const std::string& applicationType) {
  ClientMaps& maps = Maps();
  ReadLock lock(maps.mutex);
  auto it = maps.ackRetryMicros.find(applicationType);
  return it != maps.ackRetryMicros.end() ? it->second : kDefaultAckRetryMicros;
}

uint64_t MpaClient::ConnectRetryMicros_(const std::string& applicationType) {
  ClientMaps& maps = Maps();
  ReadLock lock(maps.mutex);
  auto it = maps.connectRetryMicros.find(applicationType);
  return it != maps.connectRetryMicros.end() ? it->second : kDefaultConnectRetryMicros;
}

void MpaClient::MessageDispatcher(rmqClientMessage* message) {
  if (message == nullptr) return;
  boost::shared_ptr<MpaClient> client;
  if (message->appType != nullptr) {
    ClientMaps& maps = Maps();
    ReadLock lock(maps.mutex);
    auto it = maps.clients.find(message->appType);
    if (it != maps.clients.end()) client = it->second;
  }
  if (!client) {
    MPA_CLIENT_LOG(kLogError)
        .addTag(ZelMpa::tag::MPAERR_MPA_INVALID_MSG_HANDLER)
        .format("No callback function for app type %s", Text(message->appType));
    std::free(message->rawBuffer);
    message->rawBuffer = nullptr;
    return;
  }
  // The map lock is not held here: the callback may register or look up
  // clients.
  client->OnMessage(message);
}

// ---------------------------------------------------------------------------
// Life of one client

MpaClient::MpaClient(boost::shared_ptr<AsioDispatcher> dispatcher, MessageCallback callback,
                     std::string applicationType, std::string applicationId,
                     int32_t connectionType, uint16_t port, metrics::MetricKeyPtr metricRoot)
    : dispatcher_(std::move(dispatcher)),
      timers_(dispatcher_ ? new AsioTimerFactory(dispatcher_->GetIoContextHandle()) : nullptr),
      callback_(std::move(callback)),
      applicationType_(std::move(applicationType)),
      applicationId_(std::move(applicationId)),
      connectionType_(connectionType),
      port_(port) {
  if (!timers_) throw std::invalid_argument("MpaClient: null dispatcher");
  if (!metricRoot) throw std::invalid_argument("MpaClient: null metric root");
  const std::string label = metrics::InstanceName({{"app", applicationType_}});
  establishCounter_ = Counter(metricRoot->subkey("rmq/connection/establish")->instance(label));
  rxCounter_ = Counter(metricRoot->subkey("rmq/msg/rx")->instance(label));
  txCounter_ = Counter(metricRoot->subkey("rmq/msg/tx")->instance(label));
}

MpaClient::~MpaClient() {
  // The timers hold no reference to this client; cancelling them keeps an
  // expiry already queued from logging a late "destroyed" line.
  if (reconnectTimer_) reconnectTimer_->Cancel();
  if (handshakeRetryTimer_) handshakeRetryTimer_->Cancel();
  if (handshakeWaitTimer_) handshakeWaitTimer_->Cancel();
}

void MpaClient::Start() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] Starting MPA client thread...\n", applicationType_.c_str());
  if (GetMpaClient(applicationType_)) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("[%s] Calling RegisterWithTnProxyClient\n", applicationType_.c_str());
    RegisterWithTnProxyClient();
  }
  ConnectMpa();
}

void MpaClient::Close() {
  DisconnectMpa();
  HandleClose();
}

// ---------------------------------------------------------------------------
// Sending

int MpaClient::SendMsg(rmqClientMessage* message) {
  if (IsZelRpcEnabled()) return SendMsgViaTnProxy(message, std::string());
  RefPtr<RmqClientInterface> client;
  {
    ReadLock lock(connectionMutex_);
    client = rmqClient_;
  }
  if (!client) return -1;
  // No lock here: a failed send closes the connection, and the library then
  // delivers its CLOSE on this thread before SendMessage returns.
  const int result = client->SendMessage(message);
  if (result == 0) {
    txCounter_->increment();
    MPA_CLIENT_LOG(kLogVerbose).format("%s sent message to MPA", applicationType_.c_str());
  } else {
    MPA_CLIENT_LOG(kLogError)
        .addTag(ZelMpa::tag::MPAERR_MPA_SENDMSG_FAILED)
        .format("%s failed to send message to MPA", applicationType_.c_str());
  }
  return result;
}

int MpaClient::SendMsgViaTnProxyIfReady(rmqClientMessage* message, const std::string& name) {
  if (!IsReadyForTnProxy()) return -1;
  return SendMsgViaTnProxy(message, name);
}

bool MpaClient::IsReadyForTnProxy() {
  bool connected;
  bool completed;
  {
    ReadLock lock(initMutex_);
    connected = tnproxyConnected_;
    completed = appInitCompleted_;
  }
  if (connected && completed) {
    MPA_CLIENT_LOG(kLogVerbose)
        .format("Message can be sent through Tnproxy tnproxyConnected_:%d appInitCompleted_:%d",
                connected, completed);
    return true;
  }
  MPA_CLIENT_LOG(kLogVerbose)
      .format("Message cannot be sent through Tnproxy tnproxyConnected_:%d appInitCompleted_:%d",
              connected, completed);
  return false;
}

// ---------------------------------------------------------------------------
// The MPA road's connection

void MpaClient::ConnectMpa() { Connect_(false); }

void MpaClient::ConnectMpaStateTrans() {
  MPA_CLIENT_LOG(kLogInfo).format("Start internal ConnectMpaStateTrans\n");
  Connect_(true);
}

void MpaClient::Connect_(bool withEndpoint) {
  const char* type = applicationType_.c_str();
  if (IsZelRpcEnabled()) {
    MPA_CLIENT_LOG(kLogInfo).format("[%s] zel rpc enabled\n", type);
    WriteLock lock(connectionMutex_);
    cookieId_ = -1;
    return;
  }

  RefPtr<RmqClientInterface> client;
  int32_t unackedCookie = -1;
  {
    WriteLock lock(connectionMutex_);
    if (reconnectTimer_) {
      reconnectTimer_->Cancel();
      reconnectTimer_.reset();
    }
    if (!rmqClient_) {
      MPA_CLIENT_LOG(kLogWarn).format("[%s] No rmq client, not connecting to mpa", type);
      return;
    }
    if (state_ == kStateConnected && registrationAcked_) {
      if (withEndpoint) {
        MPA_CLIENT_LOG(kLogInfo)
            .format("[%s] Already connected to mpa, cookie:[%d], no retry required..\n", type,
                    cookieId_);
      } else {
        MPA_CLIENT_LOG(kLogInfo)
            .format("[%s] Already connected to mpa, cookie:[%d]\n", type, cookieId_);
      }
      return;
    }
    if (state_ == kStateConnected && cookieId_ > 0) {
      if (withEndpoint) {
        MPA_CLIENT_LOG(kLogWarn)
            .format("[%s] Already conncted to [%d] but didn't receive "
                    "RMQ_CLIENT_REGISTRATION_ACK, closing connection.. \n",
                    type, cookieId_);
      } else {
        MPA_CLIENT_LOG(kLogWarn)
            .format("[%s] Already conncted to [%d] but didn't receive "
                    "RMQ_CLIENT_REGISTRATION_ACK. \n",
                    type, cookieId_);
      }
      state_ = kStateDisconnected;
      unackedCookie = cookieId_;
    }
    client = rmqClient_;
  }
  if (unackedCookie > 0) {
    client->CloseClient(unackedCookie);
    WriteLock lock(connectionMutex_);
    cookieId_ = -1;
  }

  {
    // The library may drop the new connection, and deliver its CLOSE, before
    // Register has returned its cookie: a CLOSE meanwhile is kept until the
    // cookie is known (see OnMessage).
    WriteLock lock(connectionMutex_);
    registering_ = true;
    closedWhileRegistering_ = -1;
  }
  MPA_CLIENT_LOG(kLogInfo).format("[%s] Connecting to mpa...\n", type);
  int32_t cookie;
  if (withEndpoint) {
    const rmqClientEndpoint endpoint{port_, nullptr};
    cookie = client->RegisterWithEndpoint(applicationId_.c_str(), type, connectionType_, nullptr,
                                          &MpaClient::MessageDispatcher, &endpoint);
  } else {
    cookie = client->Register(applicationId_.c_str(), type, connectionType_,
                              &MpaClient::MessageDispatcher);
  }

  bool closedAtOnce = false;
  int32_t ignoredClose = -1;
  {
    WriteLock lock(connectionMutex_);
    registering_ = false;
    cookieId_ = cookie;
    if (cookie >= 0 && closedWhileRegistering_ == cookie) {
      // The library dropped the new connection before its cookie was known.
      closedAtOnce = true;
      registrationAcked_ = false;
      state_ = kStateDisconnected;
      cookieId_ = -1;
    } else {
      ignoredClose = closedWhileRegistering_;
      if (cookie >= 0) {
        state_ = kStateConnected;
        registrationAcked_ = false;
      }
    }
  }
  if (ignoredClose >= 0) LogCookieMismatch_(ignoredClose, cookie);
  if (closedAtOnce) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", type,
                cookie);
    ScheduleReconnect(intervals_.closeReconnectMicros);
    return;
  }
  if (cookie < 0) {
    if (withEndpoint) {
      MPA_CLIENT_LOG(kLogWarn)
          .format("[%s] connecting to mpa return cookie [%d], retrying connection..\n", type,
                  cookie);
    } else {
      MPA_CLIENT_LOG(kLogWarn).format("[%s] connecting to mpa return cookie [%d]\n", type, cookie);
    }
    ScheduleReconnect(ConnectRetryMicros_(applicationType_));
    return;
  }

  establishCounter_->increment();
  if (withEndpoint) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("[%s] Connected to mpa, cookie:[%d], need to retry connection for ACK\n", type,
                cookie);
    return;
  }
  MPA_CLIENT_LOG(kLogInfo).format("[%s] Connected to mpa, cookie:[%d]\n", type, cookie);
  if (applicationType_ == kSwitchingVertical || applicationType_ == kControllerMgmtVertical) {
    MPA_CLIENT_LOG(kLogInfo).format("[%s] need to retry connection since ACK not received ..",
                                    type);
    ScheduleReconnect(AckRetryMicros_(applicationType_));
  }
}

void MpaClient::ScheduleReconnect(uint64_t micros) {
  if (IsZelRpcEnabled()) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("%s zel-rpc enabled. mpa client won't re-connect with rmqClient.",
                applicationType_.c_str());
    return;
  }
  WriteLock lock(connectionMutex_);
  if (reconnectTimer_) reconnectTimer_->Cancel();
  reconnectTimer_ = StartTimer_(micros, [](MpaClient& self) { self.ReconnectTimeout(); });
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] ScheduleTimer after %lu microseconds\n", applicationType_.c_str(),
              static_cast<unsigned long>(micros));
}

void MpaClient::ReconnectTimeout() {
  MPA_CLIENT_LOG(kLogInfo).format("%s Mpa reconnect timeout", applicationType_.c_str());
  ConnectMpa();
}

void MpaClient::DisconnectMpa() {
  RefPtr<RmqClientInterface> client;
  int32_t cookie;
  {
    WriteLock lock(connectionMutex_);
    if (cookieId_ < 1) return;
    if (reconnectTimer_) {
      reconnectTimer_->Cancel();
      reconnectTimer_.reset();
    }
    registrationAcked_ = false;
    state_ = kStateDisconnected;
    cookie = cookieId_;
    cookieId_ = -1;
    client = rmqClient_;
  }
  if (cookie != -1 && client) client->CloseClient(cookie);
}

void MpaClient::TearDownRmq() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] Starting tear-down of MPA client with rmq ", applicationType_.c_str());
  DisconnectMpa();
  {
    WriteLock lock(connectionMutex_);
    cookieId_ = -1;
  }
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] Tear-down of MPA client with rmq complete", applicationType_.c_str());
  WriteLock lock(initMutex_);
  zelRpcEnabled_ = true;
}

// ---------------------------------------------------------------------------
// Inbound records, on the library's thread

void MpaClient::OnMessage(rmqClientMessage* message) {
  RawBufferRelease release(message);
  const char* type = applicationType_.c_str();
  MPA_CLIENT_LOG(kLogVerbose)
      .format("[%s] Received Message from MPA [%d]\n", type, message->messageType);
  rxCounter_->increment();

  if (message->messageType == RMQ_CLIENT_CLOSE) {
    {
      WriteLock lock(connectionMutex_);
      if (message->cookieId != cookieId_) {
        if (registering_ && message->cookieId >= 0) {
          // Possibly the connection being registered: Connect_ decides once
          // its cookie is known, and logs the mismatch if it was not.
          closedWhileRegistering_ = message->cookieId;
        } else {
          LogCookieMismatch_(message->cookieId, cookieId_);
        }
        return;
      }
      MPA_CLIENT_LOG(kLogInfo)
          .format("[%s] Got CLIENT CLOSE Message for cookie:[%d], disconnected from MPA\n", type,
                  message->cookieId);
      registrationAcked_ = false;
      if (state_ == kStateConnected) {
        state_ = kStateDisconnected;
      } else {
        MPA_CLIENT_LOG(kLogWarn).format("[%s] Got CLOSE Message in state %d\n", type, state_);
      }
      cookieId_ = -1;
    }
    ScheduleReconnect(intervals_.closeReconnectMicros);
  } else {
    MPA_CLIENT_LOG(kLogVerbose)
        .format("[%s] Got Message in app_type:[%s] app_id:[%s]\n", type, Text(message->appType),
                Text(message->appId));
  }

  MPA_CLIENT_LOG(kLogVerbose)
      .format("[%s] amqp_routing_key:[%s] content_type:[%s] payload_len:[%ld]\n", type,
              Text(message->amqpRoutingKey), Text(message->amqpContentType),
              static_cast<long>(message->payloadLen));
  if (g_logLevel >= kLogDebug) DumpPayload(message->payload, message->payloadLen);

  if (message->messageType == RMQ_CLIENT_REGISTRATION_ACK) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("Received client registration ACK from MPA, sending/receiving messages is "
                "enabled\n");
    WriteLock lock(connectionMutex_);
    registrationAcked_ = true;
  }

  if (!IsAcceptedMessageType(message->messageType)) {
    MPA_CLIENT_LOG(kLogError)
        .addTag(ZelMpa::tag::MPAERR_MPA_UNSUPPORT_MSG)
        .format("[%s] Unrecognized RMQ messageType [%d] from MPA. Disconnect from mpa due to "
                "unrecognized message. CookieId :%d\n",
                type, message->messageType, message->cookieId);
    return;
  }

  if (callback_) callback_(message);
}

void MpaClient::LogCookieMismatch_(int32_t received, int32_t current) {
  MPA_CLIENT_LOG(kLogError)
      .addTag(ZelMpa::tag::MPAERR_MPA_COOKIEID_MISMATCH)
      .format("[%s] Message's cookieId [%d] does not match with [%d], ignored\n",
              applicationType_.c_str(), received, current);
}

// ---------------------------------------------------------------------------
// App-init handshake control

int32_t MpaClient::GetNewAppInitSequenceNumber() {
  const int32_t seq = appInitSequence_.fetch_add(1);
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] GetNewAppInitSequenceNumber (%d)", applicationType_.c_str(), seq);
  return seq;
}

bool MpaClient::IsCurrentAppInitSequence(int32_t seq) {
  const int32_t current = appInitSequence_.load();
  if (seq + 1 == current) return true;
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] AppInit sequence is not current seq: (%d), current: (%d)",
              applicationType_.c_str(), seq, current);
  return false;
}

void MpaClient::WaitForAppInitHandshakeCompletion(int32_t seq) {
  WriteLock lock(initMutex_);
  if (handshakeWaitTimer_) handshakeWaitTimer_->Cancel();
  handshakeWaitTimer_ = StartTimer_(intervals_.appInitWaitMicros,
                                    [seq](MpaClient& self) { self.WaitAppInitTimeout(seq); });
}

void MpaClient::WaitAppInitTimeout(int32_t seq) {
  const char* type = applicationType_.c_str();
  MPA_CLIENT_LOG(kLogWarn).format("[%s] AppInitHandshake timed-out. Seq (%d)", type, seq);
  bool startHandshake = false;
  {
    ReadLock lock(initMutex_);
    if (appInitCompleted_) {
      MPA_CLIENT_LOG(kLogInfo)
          .format("[%s] WaitAppInitTimeout AppInit already completed (%d)", type, seq);
    } else if (IsCurrentAppInitSequence(seq)) {
      MPA_CLIENT_LOG(kLogInfo).format("[%s] WaitAppInitTimeout Starting a new AppInitHandshake.",
                                      type);
      startHandshake = true;
    } else {
      MPA_CLIENT_LOG(kLogInfo)
          .format("[%s] WaitAppInitTimeout seq (%d) is not current (%d)", type, seq,
                  appInitSequence_.load());
    }
  }
  // Outside the lock: the handshake arms the wait timer again.
  if (startHandshake) AppInitHandshake();
}

void MpaClient::RetryAppInitHandshake() {
  const char* type = applicationType_.c_str();
  MPA_CLIENT_LOG(kLogInfo).format("[%s] MpaClient::RetryAppInitHandshake", type);
  WriteLock lock(initMutex_);
  if (appInitCompleted_) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("[%s] MpaClient::RetryAppInitHandshake appInitCompleted_ is [%d], not retrying "
                "app-init",
                type, appInitCompleted_);
    return;
  }
  if (handshakeRetryTimer_) handshakeRetryTimer_->Cancel();
  handshakeRetryTimer_ = StartTimer_(intervals_.appInitRetryMicros,
                                     [](MpaClient& self) { self.WaitTnProxyTimeout(); });
}

void MpaClient::WaitTnProxyTimeout() {
  const char* type = applicationType_.c_str();
  MPA_CLIENT_LOG(kLogInfo).format("[%s] Starting AppInitHandshake from timer", type);
  if (IsTnProxyConnected()) {
    AppInitHandshake();
  } else {
    MPA_CLIENT_LOG(kLogInfo).format("[%s] WaitTnProxyTimeout : Not Connected with TnProxy", type);
  }
}

bool MpaClient::CompleteAppInitHanshake(int32_t seq) {
  const char* type = applicationType_.c_str();
  MPA_CLIENT_LOG(kLogInfo).format("%s CompleteAppInitHanshake, Seq (%d) ", type, seq);
  WriteLock lock(initMutex_);
  if (appInitCompleted_) return false;
  if (!IsCurrentAppInitSequence(seq)) {
    MPA_CLIENT_LOG(kLogInfo)
        .format("[%s] CompleteAppInitHanshake : AppInit Sequence number has moved ahead seq (%d), "
                "current (%d)",
                type, seq, appInitSequence_.load());
    return false;
  }
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] CompleteAppInitHanshake : Completed successfully seq (%d)", type, seq);
  if (handshakeWaitTimer_) {
    handshakeWaitTimer_->Cancel();
    handshakeWaitTimer_.reset();
  }
  HandleAppInitSuccess();
  return true;
}

void MpaClient::HandleAppInitSuccess() {
  // The caller holds initMutex_.
  MPA_CLIENT_LOG(kLogInfo).format("[%s] HandleAppInitSuccess", applicationType_.c_str());
  appInitCompleted_ = true;
}

// ---------------------------------------------------------------------------
// Proxy events

void MpaClient::TnProxyConnected() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] TnProxy Connected.", applicationType_.c_str());
  HandleTnProxyConnected();
}

void MpaClient::HandleTnProxyConnected() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] HandleTnProxyConnected", applicationType_.c_str());
  WriteLock lock(initMutex_);
  tnproxyConnected_ = true;
  CancelHandshakeTimers_();
}

void MpaClient::TnProxyDisconnected() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] TnProxy Disconnected", applicationType_.c_str());
  HandleTnProxyDisconnected();
}

void MpaClient::HandleTnProxyDisconnected() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] HandleTnProxyDisconnected", applicationType_.c_str());
  {
    WriteLock lock(connectionMutex_);
    state_ = kStateDisconnected;
  }
  {
    WriteLock lock(initMutex_);
    tnproxyConnected_ = false;
    appInitCompleted_ = false;
    CancelHandshakeTimers_();
  }
  CleanUpForStubs();
  // A handshake still under way is now stale.
  GetNewAppInitSequenceNumber();
}

void MpaClient::HandleClose() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] HandleClose", applicationType_.c_str());
  WriteLock lock(initMutex_);
  CancelHandshakeTimers_();
  appInitCompleted_ = false;
}

void MpaClient::CancelHandshakeTimers_() {
  if (handshakeRetryTimer_) {
    handshakeRetryTimer_->Cancel();
    handshakeRetryTimer_.reset();
  }
  if (handshakeWaitTimer_) {
    handshakeWaitTimer_->Cancel();
    handshakeWaitTimer_.reset();
  }
}

// ---------------------------------------------------------------------------
// Getters

int32_t MpaClient::GetCookieId() {
  ReadLock lock(connectionMutex_);
  return cookieId_;
}

int32_t MpaClient::GetState() {
  ReadLock lock(connectionMutex_);
  return state_;
}

bool MpaClient::IsRegistrationAcked() {
  ReadLock lock(connectionMutex_);
  return registrationAcked_;
}

bool MpaClient::IsAppInitCompleted() {
  ReadLock lock(initMutex_);
  return appInitCompleted_;
}

bool MpaClient::IsTnProxyConnected() {
  ReadLock lock(initMutex_);
  return tnproxyConnected_;
}

bool MpaClient::IsZelRpcEnabled() {
  ReadLock lock(initMutex_);
  return zelRpcEnabled_;
}

// ---------------------------------------------------------------------------
// Overridable operations: the MPA road's own, and the RPC road's, which have
// no road in this class.

void MpaClient::CreateRpcService() {
  MPA_CLIENT_LOG(kLogInfo).format("[%s] RPC Service Not Implemented.", applicationType_.c_str());
}

void MpaClient::AppInitHandshake() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] AppInitHandshake : Not Implemented.", applicationType_.c_str());
}

void MpaClient::CreateAppSpecificInstance() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] CreateAppSpecificInstance : Not Implemented.", applicationType_.c_str());
}

void MpaClient::ReleaseAppSpecificInstance() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] ReleaseAppSpecificInstance : Not Implemented.", applicationType_.c_str());
}

void MpaClient::RegisterWithTnProxyClient() { tnproxy_no_road::AddClient(applicationType_); }

int MpaClient::SendMsgViaTnProxy(rmqClientMessage* /*message*/, const std::string& name) {
  MPA_CLIENT_LOG(kLogError)
      .format("[%s] SendMsgViaTnProxy: (%s) Not Implemented!", applicationType_.c_str(),
              name.c_str());
  return -1;
}

void MpaClient::CreateRmqClient() { SetRmqClient(MakeRefCounted<RmqClient>()); }

void MpaClient::DestroyRmqClient() {
  RefPtr<RmqClientInterface> client;
  int32_t cookie;
  {
    WriteLock lock(connectionMutex_);
    if (reconnectTimer_) {
      reconnectTimer_->Cancel();
      reconnectTimer_.reset();
    }
    client.swap(rmqClient_);
    cookie = cookieId_;
    cookieId_ = -1;
    state_ = kStateDisconnected;
    registrationAcked_ = false;
  }
  if (client && cookie >= 0) client->CloseClient(cookie);
}

void MpaClient::CleanUpForStubs() {
  MPA_CLIENT_LOG(kLogInfo)
      .format("[%s] CleanUpForStubs: Not Implemented!", applicationType_.c_str());
}

void MpaClient::SetRmqClient(RefPtr<RmqClientInterface> client) {
  WriteLock lock(connectionMutex_);
  rmqClient_ = std::move(client);
}

TimerPtr MpaClient::StartTimer_(uint64_t micros, boost::function<void(MpaClient&)> fn) {
  boost::weak_ptr<MpaClient> weak = weak_from_this();
  return timers_->CreateTimer(
      std::chrono::microseconds(static_cast<int64_t>(micros)), [weak, fn]() {
        if (boost::shared_ptr<MpaClient> self = weak.lock()) {
          fn(*self);
        } else {
          MPA_CLIENT_LOG(kLogInfo).format("MpaClient has been destroyed already.");
        }
      });
}

}  // namespace zel
