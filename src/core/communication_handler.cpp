#include "core/communication_handler.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include <boost/smart_ptr/weak_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include "core/file_copy_manager.h"
#include "core/host_manager.h"
#include "core/monitor.h"
#include "core/mp_client_layer.h"
#include "core/rpc_manager.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/not_reached.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"
#include "mpalib/rmq_client_message.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "util/mpa_error_tags.h"

namespace ZelDorn {

using orvane::zel::dorn::DornMessage;

namespace {

boost::shared_ptr<CommunicationHandler> g_instance;

// The correlation id of every message that does not echo the request's: the
// number is deliberately always 0, so all such messages share one id.
constexpr const char* kCorrelationIdFormat = "%s-%d";
constexpr int kCorrelationIdNumber = 0;

// printf would print the same for a null text; this keeps it defined.
const char* Printable(const char* text) { return text != nullptr ? text : "(null)"; }

// The value of the first string element of `headers` whose key begins with
// `key`, or null. Elements of other types never match. The value points into
// the document.
const char* FindHeader(const bson* headers, const char* key) {
  if (headers == nullptr || bson_data(headers) == nullptr) return nullptr;
  const size_t keyLength = std::strlen(key);
  ZelMpa::BsonIterator it(reinterpret_cast<const uint8_t*>(bson_data(headers)));
  while (it.next() != ZelMpa::BsonIterator::END) {
    const char* elementKey = nullptr;
    const char* value = nullptr;
    if (it.getString(elementKey, value) != 0) continue;
    if (std::strncmp(elementKey, key, keyLength) == 0) return value;
  }
  return nullptr;
}

// The process-wide manager; its absence means the entry's start-up order was
// broken, which no message can recover from.
template <class Manager>
boost::shared_ptr<Manager> Require(boost::shared_ptr<Manager> manager) {
  if (!manager) NOT_REACHED();
  return manager;
}

}  // namespace

boost::shared_ptr<CommunicationHandler> CommunicationHandler::CreateInstance(
    boost::shared_ptr<Monitor> monitor, zel::rpc::AsioZelProvider* provider,
    boost::shared_ptr<MpClientLayer> clientLayer) {
  g_instance.reset(
      new CommunicationHandler(std::move(monitor), provider, std::move(clientLayer)));
  return g_instance;
}

boost::shared_ptr<CommunicationHandler> CommunicationHandler::GetInstance() { return g_instance; }

void CommunicationHandler::ReleaseInstance() { g_instance.reset(); }

CommunicationHandler::CommunicationHandler(boost::shared_ptr<Monitor> monitor,
                                           zel::rpc::AsioZelProvider* provider,
                                           boost::shared_ptr<MpClientLayer> clientLayer)
    : monitor_(std::move(monitor)), provider_(provider), clientLayer_(std::move(clientLayer)) {}

CommunicationHandler::~CommunicationHandler() = default;

void CommunicationHandler::Start() {
  appName_ = kAppName;
  queueName_ = kAppName;

  // The layer may deliver until Unregister; a late record after this object
  // is gone is dropped (the layer still frees its buffer).
  boost::weak_ptr<CommunicationHandler> weak = g_instance;
  CommunicationHandler* const self = this;
  MpClientLayer::MessageCallback callback = [weak, self](rmqClientMessage* message) {
    auto strong = weak.lock();
    if (strong.get() == self) {
      strong->Callback(message);
    } else {
      DORN_LOG(zel::kLogWarn)
          .format("CommunicationHandler already destroyed; message dropped.");
    }
  };
  clientLayer_->Register(provider_->GetDispatcher(), std::move(callback), appName_, queueName_,
                         kConnectionType, kMpaPort, kAckRetryMicros, kConnectRetryMicros);

  boost::shared_ptr<MpClient> client = clientLayer_->Lookup(appName_);
  {
    boost::lock_guard<boost::mutex> lock(clientMutex_);
    client_ = client;
  }
  if (client) {
    client->Start();
  } else {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPAERR_MPA_INVALID_MSG_HANDLER)
        .format("No MPA client registered for %s.", appName_.c_str());
  }
  clientLayer_->StartProxyClient();

  provider_->Run(1, true);
}

void CommunicationHandler::Stop() {
  boost::shared_ptr<MpClient> client;
  {
    boost::lock_guard<boost::mutex> lock(clientMutex_);
    client.swap(client_);
  }
  if (client) client->Stop();
  if (!appName_.empty()) clientLayer_->Unregister(appName_);
}

boost::shared_ptr<MpClient> CommunicationHandler::Client_() {
  boost::lock_guard<boost::mutex> lock(clientMutex_);
  return client_;
}

void CommunicationHandler::Callback(rmqClientMessage* message) {
  DornMessage dornMessage;
  switch (message->messageType) {
    case RMQ_CLIENT_REGISTRATION_ACK:
      DORN_LOG(zel::kLogInfo).format("Received CLIENT_REGISTRATION_ACK message.");
      return;
    case RMQ_CLIENT_CLOSE:
      DORN_LOG(zel::kLogInfo).format("Received CLIENT_CLOSE message.");
      return;
    case RMQ_CLIENT_DATA_MESSAGE:
    case RMQ_CLIENT_MPA_DATA_MESSAGE:
      break;
    default:
      return;
  }

  DORN_LOG(zel::kLogVerbose).format("Processing Message");
  const bool sizeOk = message->payloadLen >= 0 && message->payloadLen <= INT_MAX &&
                      (message->payload != nullptr || message->payloadLen == 0);
  if (!sizeOk || !dornMessage.ParseFromArray(message->payload,
                                             static_cast<int>(message->payloadLen))) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPAERR_PARSE_DORN_MSG_FAIL)
        .format("Failed to parse DornMessage");
    return;
  }

  const char* correlationId = FindHeader(message->amqpHeaders, kCorrelationIdHeader);
  DORN_LOG(zel::kLogInfo)
      .format("DORN handling msg having correlation Id: %s", Printable(correlationId));
  const char* replyTo = FindHeader(message->amqpHeaders, kReplyToHeader);

  boost::shared_ptr<CommunicationHandler> instance = GetInstance();
  (instance ? instance.get() : this)->HandleMsg(dornMessage, replyTo, correlationId);
}

void CommunicationHandler::HandleMsg(const DornMessage& message, const char* replyTo,
                                     const char* correlationId) {
  using namespace orvane::zel::dorn;
  switch (message.message_type()) {
    case MT_INIT:
      Require(SoftwareManager::GetInstance())->AppInit(message, replyTo, correlationId);
      if (monitor_) monitor_->ForcePublish();
      break;
    case MT_SOFTWARE_STATUS:
      Require(SoftwareManager::GetInstance())->SoftwareStatus(message, replyTo, correlationId);
      break;
    case MT_FILE_COPY:
      Require(FileCopyManager::GetInstance())->CopyFiles(message, replyTo, correlationId);
      break;
    case MT_RUN_COMMAND:
      Require(RpcManager::GetInstance())->PerformRpc(message, replyTo, correlationId);
      break;
    case MT_CREATE_USER:
      DORN_LOG(zel::kLogVerbose).format("Inside HandleMsg. Received call to MT_CREATE_USER");
      Require(UserManager::GetInstance())->CreateUser(message, replyTo, correlationId);
      break;
    case MT_REBOOT_HOST:
      DORN_LOG(zel::kLogVerbose).format("Inside HandleMsg. Received call to MT_REBOOT_HOST");
      Require(HostManager::GetInstance())->RebootHost(message, replyTo, correlationId);
      break;
    case MT_GET_CERTIFICATE:
      DORN_LOG(zel::kLogVerbose).format("Inside HandleMsg. Received call to MT_GET_CERTIFICATE");
      Require(HostManager::GetInstance())->GetCertificate(message, replyTo, correlationId);
      break;
    case MT_STOP_SERVICES:
      DORN_LOG(zel::kLogVerbose).format("Inside HandleMsg. Received call to MT_STOP_SERVICES");
      Require(SoftwareManager::GetInstance())->StopServices(message, replyTo, correlationId);
      break;
    case MT_RESTART_SERVICES:
      DORN_LOG(zel::kLogVerbose)
          .format("Inside  HandleMsg. Received call to MT_RESTART_SERVICES");
      Require(SoftwareManager::GetInstance())->RestartServices(message, replyTo, correlationId);
      break;
    case MT_FIND_MISSING_PACKAGES_FROM_LIST:
      DORN_LOG(zel::kLogVerbose)
          .format("Inside HandleMsg. Received call to MT_FIND_MISSING_PACKAGES_FROM_LIST");
      Require(SoftwareManager::GetInstance())
          ->FindMissingPackagesFromList(message, replyTo, correlationId);
      break;
    case MT_GET_RSA_KEY:
      DORN_LOG(zel::kLogVerbose).format("Inside HandleMsg. Received call to MT_GET_RSA_KEY");
      Require(HostManager::GetInstance())->GetRsaKey(message, replyTo, correlationId);
      break;
    case MT_OPERATION_STATUS:
    default:
      // Status reports from the management plane and unknown types get no
      // answer; the management plane's own time-out applies.
      break;
  }
}

void CommunicationHandler::SendMsg(const DornMessage& message, const char* replyTo,
                                   const char* correlationId) {
  if (zel::g_logLevel >= zel::kLogVerbose) {
    DORN_LOG(zel::kLogVerbose)
        .format("Message Sent to MP Node via MpaClient. %s", message.DebugString().c_str());
  }

  rmqClientMessage record;
  std::memset(&record, 0, sizeof(record));
  record.amqpContentType = kContentType;
  record.amqpRoutingKey = "";

  boost::shared_ptr<MpClient> client = Client_();
  record.cookieId = client ? client->GetCookieId() : -1;

  record.messageType = kMessageKind;
  if (replyTo != nullptr) {
    record.amqpRoutingKey = replyTo;
    record.messageType = kReplyKind;
  }

  const size_t size = message.ByteSizeLong();
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[size > 0 ? size : 1]);
  if (size > INT_MAX || !message.SerializeToArray(buffer.get(), static_cast<int>(size))) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPAERR_PROTOBUF_SERIALIZATION)
        .format("Error occurred while serializing to protobuf.");
  }
  record.payload = buffer.get();
  record.payloadLen = static_cast<int64_t>(size);

  ZelMpa::BSON headers;
  if (message.return_same_correlationid()) {
    // A request without the header echoes nothing: the element is left out.
    headers.appendString(kCorrelationIdHeader, correlationId);
    DORN_LOG(zel::kLogInfo)
        .format("Sending DORN msg having correlation Id: %s", Printable(correlationId));
  } else {
    char generated[128];
    std::snprintf(generated, sizeof(generated), kCorrelationIdFormat, kAppName,
                  kCorrelationIdNumber);
    DORN_LOG(zel::kLogVerbose).format("Generated Correlation Id is : %s", generated);
    headers.appendString(kCorrelationIdHeader, generated);
    DORN_LOG(zel::kLogInfo).format("Sending DORN msg having correlation Id: %s", generated);
  }
  headers.appendString(kTypeIdHeader, kTypeId);
  headers.finish();
  record.amqpHeaders = headers.raw();

  DORN_LOG(zel::kLogVerbose).format("Sending message with cookie id (%d)", record.cookieId);
  const int result = client ? client->SendMsg(&record) : -1;
  if (result != 0) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPAERR_SEND_MP_MSG_FAIL)
        .format("Failed to send message to ZEL Manager. Error code : %d", result);
  }
}

}  // namespace ZelDorn
