#include "core/communication_handler.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "core/fake_managers.h"
#include "support/log_capture.h"
#include "core/monitor.h"
#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "fakes/fake_mp_client_layer.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using orvane::zel::dorn::DornMessage;
using testing::FakeMpClient;
using testing::FakeMpClientLayer;
using testing::ManagerCall;
using testing::SentMessage;
using Headers = std::vector<std::pair<std::string, std::string>>;

constexpr char kApp[] = "DORN_FABRIC_APPLICATION";
constexpr char kGeneratedId[] = "DORN_FABRIC_APPLICATION-0";

DornMessage Request(orvane::zel::dorn::MessageType type, const std::string& operationId,
                    bool sameCorrelationId = false) {
  DornMessage m;
  m.set_message_type(type);
  m.set_operation_id(operationId);
  if (sameCorrelationId) m.set_return_same_correlationid(true);
  return m;
}

class CommunicationHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    testing::ResetManagers();
    testing::CreateManagers();
    provider_ = zel::rpc::AsioZelProvider::Create(boost::property_tree::ptree());
    monitor_ = boost::make_shared<Monitor>();
    layer_ = boost::make_shared<FakeMpClientLayer>();
    handler_ = CommunicationHandler::CreateInstance(monitor_, provider_.get(), layer_);
  }

  void TearDown() override {
    handler_.reset();
    CommunicationHandler::CreateInstance(nullptr, nullptr, nullptr);
    testing::DestroyManagers();
  }

  // Start as the entry calls it: registers, then serves the provider on this
  // thread; a stop queued before makes it return once the loop runs.
  void Start() {
    provider_->GetDispatcher()->Post([this] { provider_->Stop(); });
    handler_->Start();
    ASSERT_TRUE(layer_->client());
    log_.Clear();
  }

  void SetLogLevel(const char* level) {
    zel::log_testing::SetUpLoggerForTest(level, "DEVLOG", "/nonexistent/zel_issue");
    log_.Clear();
  }

  void Deliver(const DornMessage& m, const Headers& headers, int32_t kind = 3) {
    layer_->Deliver(kind, m.SerializeAsString(), headers);
  }

  std::vector<SentMessage> Sent() { return layer_->client()->Sent(); }

  zel::testing::LogCapture log_;
  boost::shared_ptr<zel::rpc::AsioZelProvider> provider_;
  boost::shared_ptr<Monitor> monitor_;
  boost::shared_ptr<FakeMpClientLayer> layer_;
  boost::shared_ptr<CommunicationHandler> handler_;
};

// ---- Start and Stop -------------------------------------------------------

TEST_F(CommunicationHandlerTest, StartRegistersAndStartsTheClient) {
  Start();
  auto reg = layer_->registration();
  ASSERT_TRUE(reg);
  EXPECT_EQ(reg->dispatcher, provider_->GetDispatcher());
  EXPECT_EQ(reg->appType, kApp);
  EXPECT_EQ(reg->port, 9002);
  EXPECT_EQ(reg->ackRetryMicros, 30000000u);
  EXPECT_EQ(reg->connectRetryMicros, 5000000u);
  EXPECT_EQ(layer_->client()->starts(), 1);
  EXPECT_EQ(layer_->proxyStarts(), 1);
}

TEST_F(CommunicationHandlerTest, StopStopsAndUnregistersAndLaterSendsFail) {
  Start();
  auto client = layer_->client();
  handler_->Stop();
  EXPECT_EQ(client->stops(), 1);
  EXPECT_EQ(layer_->unregistered(), std::vector<std::string>{kApp});

  handler_->SendMsg(Request(orvane::zel::dorn::MT_OPERATION_STATUS, "late"), nullptr, nullptr);
  EXPECT_TRUE(client->Sent().empty());
  EXPECT_EQ(log_.Count("Failed to send message to ZEL Manager. Error code : -1"), 1u);
}

TEST_F(CommunicationHandlerTest, RegisteredCallbackDropsRecordsOnceTheHandlerIsGone) {
  Start();
  CommunicationHandler::CreateInstance(monitor_, provider_.get(), layer_);
  handler_.reset();
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "op"), {});
  EXPECT_TRUE(testing::ManagerCalls().empty());
  EXPECT_EQ(log_.Count("CommunicationHandler already destroyed"), 1u);
}

// ---- Callback: kinds, parse, headers --------------------------------------

TEST_F(CommunicationHandlerTest, AckAndCloseAreLoggedDataKindsDispatchedOthersSilent) {
  Start();
  const std::string payload = Request(orvane::zel::dorn::MT_RUN_COMMAND, "op").SerializeAsString();
  layer_->Deliver(2, payload, Headers{});
  layer_->Deliver(5, "", std::nullopt);
  EXPECT_EQ(log_.Count("Received CLIENT_REGISTRATION_ACK message."), 1u);
  EXPECT_EQ(log_.Count("Received CLIENT_CLOSE message."), 1u);

  log_.Clear();
  for (int32_t kind : {0, 1, 4, 6, 9, 10, 11, 13}) layer_->Deliver(kind, payload, Headers{});
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_TRUE(testing::ManagerCalls().empty());
  EXPECT_TRUE(Sent().empty());

  // Both data kinds reach the manager.
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "three"), {}, 3);
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "eight"), {}, 8);
  auto calls = testing::ManagerCalls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].operationId, "three");
  EXPECT_EQ(calls[1].operationId, "eight");
}

TEST_F(CommunicationHandlerTest, UnparsablePayloadIsLoggedAndNotAnswered) {
  Start();
  layer_->Deliver(3, std::string("\xff\xff\xff\xff", 4), Headers{{"amqp_replyTo", "q"}});
  EXPECT_TRUE(testing::ManagerCalls().empty());
  EXPECT_TRUE(Sent().empty());
  ASSERT_EQ(log_.Count("Failed to parse DornMessage"), 1u);
  EXPECT_EQ(log_.Count("errorCode=\"MPAERR_PARSE_DORN_MSG_FAIL\""), 1u);
  EXPECT_EQ(log_.Count("level=\"ERROR\""), 1u);
}

TEST_F(CommunicationHandlerTest, HeadersArePassedAsPointersOrNull) {
  Start();
  Deliver(Request(orvane::zel::dorn::MT_FILE_COPY, "op"),
          {{"amqp_correlationId", "corr-1"}, {"amqp_replyTo", "reply-q"}});
  auto calls = testing::ManagerCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].correlationIdText, "corr-1");
  EXPECT_EQ(calls[0].replyToText, "reply-q");
  EXPECT_EQ(log_.Count("DORN handling msg having correlation Id: corr-1"), 1u);

  // Absent headers, or none at all, give null pointers.
  testing::ResetManagers();
  layer_->Deliver(3, Request(orvane::zel::dorn::MT_RUN_COMMAND, "none").SerializeAsString(),
                  std::nullopt);
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "other"), {{"x-header", "v"}});
  calls = testing::ManagerCalls();
  ASSERT_EQ(calls.size(), 2u);
  for (const ManagerCall& c : calls) {
    EXPECT_EQ(c.correlationId, nullptr) << c.operationId;
    EXPECT_EQ(c.replyTo, nullptr) << c.operationId;
  }
  EXPECT_EQ(log_.Count("DORN handling msg having correlation Id: (null)"), 2u);
}

TEST_F(CommunicationHandlerTest, HeaderKeyMatchesByPrefixOverStringElementsOnly) {
  Start();
  ZelMpa::BSON doc;
  // Not strings: skipped even though the keys match exactly.
  doc.appendInt("amqp_correlationId", 5);
  doc.appendBool("amqp_replyTo", true);
  // Shorter than the wanted key: no match.
  doc.appendString("amqp_correlation", "short");
  // Longer keys that begin with the wanted key match; the first one wins.
  doc.appendString("amqp_correlationId-x", "by-prefix");
  doc.appendString("amqp_correlationId", "exact-but-later");
  doc.appendString("amqp_replyTo.queue", "queue-by-prefix");
  layer_->Deliver(3, Request(orvane::zel::dorn::MT_RUN_COMMAND, "op").SerializeAsString(),
                  std::optional<ZelMpa::BSON>(doc));
  auto calls = testing::ManagerCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].correlationIdText, "by-prefix");
  EXPECT_EQ(calls[0].replyToText, "queue-by-prefix");
}

// ---- HandleMsg dispatch -----------------------------------------------------

TEST_F(CommunicationHandlerTest, EveryOperationTypeReachesItsManagerWithItsLine) {
  using namespace orvane::zel::dorn;
  struct Route {
    MessageType type;
    const char* operation;
    const char* line;  // VERBOSE line before the call, or null
  };
  const Route routes[] = {
      {MT_INIT, "SoftwareManager::AppInit", nullptr},
      {MT_SOFTWARE_STATUS, "SoftwareManager::SoftwareStatus", nullptr},
      {MT_FILE_COPY, "FileCopyManager::CopyFiles", nullptr},
      {MT_RUN_COMMAND, "RpcManager::PerformRpc", nullptr},
      {MT_CREATE_USER, "UserManager::CreateUser",
       "] Inside HandleMsg. Received call to MT_CREATE_USER"},
      {MT_REBOOT_HOST, "HostManager::RebootHost",
       "] Inside HandleMsg. Received call to MT_REBOOT_HOST"},
      {MT_GET_CERTIFICATE, "HostManager::GetCertificate",
       "] Inside HandleMsg. Received call to MT_GET_CERTIFICATE"},
      {MT_STOP_SERVICES, "SoftwareManager::StopServices",
       "] Inside HandleMsg. Received call to MT_STOP_SERVICES"},
      {MT_RESTART_SERVICES, "SoftwareManager::RestartServices",
       "] Inside  HandleMsg. Received call to MT_RESTART_SERVICES"},
      {MT_FIND_MISSING_PACKAGES_FROM_LIST, "SoftwareManager::FindMissingPackagesFromList",
       "] Inside HandleMsg. Received call to MT_FIND_MISSING_PACKAGES_FROM_LIST"},
      {MT_GET_RSA_KEY, "HostManager::GetRsaKey",
       "] Inside HandleMsg. Received call to MT_GET_RSA_KEY"},
  };
  Start();
  SetLogLevel("VERBOSE");
  for (const Route& r : routes) {
    SCOPED_TRACE(MessageType_Name(r.type));
    testing::ResetManagers();
    log_.Clear();
    Deliver(Request(r.type, "op-" + MessageType_Name(r.type)), {{"amqp_replyTo", "q"}});

    auto calls = testing::ManagerCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].operation, r.operation);
    EXPECT_EQ(calls[0].operationId, "op-" + MessageType_Name(r.type));
    EXPECT_EQ(testing::ForcePublishCalls(), r.type == MT_INIT ? 1 : 0);
    if (r.line != nullptr) {
      EXPECT_EQ(log_.Count(r.line), 1u);
      EXPECT_EQ(log_.Count("Inside"), 1u);
    } else {
      EXPECT_EQ(log_.Count("Inside"), 0u);
    }
  }
  SetLogLevel(nullptr);
}

TEST_F(CommunicationHandlerTest, OperationStatusFromTheManagementPlaneIsIgnored) {
  Start();
  Deliver(Request(orvane::zel::dorn::MT_OPERATION_STATUS, "status"),
          {{"amqp_correlationId", "c"}, {"amqp_replyTo", "q"}});
  EXPECT_TRUE(testing::ManagerCalls().empty());
  EXPECT_EQ(testing::ForcePublishCalls(), 0);
  EXPECT_TRUE(Sent().empty());
}

// ---- SendMsg ------------------------------------------------------------------

// Without a reply-to: kind 10, empty routing key; with one: kind 11 to it.
// Headers are the correlation id, then the type id.
TEST_F(CommunicationHandlerTest, AnswerKindRoutingKeyAndHeaders) {
  Start();
  layer_->client()->SetCookieId(42);
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "op"), {{"amqp_correlationId", "c"}});
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "op"), {{"amqp_replyTo", "mp.replies"}});
  auto sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].kind, 10);
  EXPECT_EQ(sent[0].routingKey, "");
  EXPECT_EQ(sent[1].kind, 11);
  EXPECT_EQ(sent[1].routingKey, "mp.replies");
  for (const SentMessage& s : sent) {
    EXPECT_EQ(s.contentType, "application/protobuf");
    EXPECT_EQ(s.cookieId, 42);
    ASSERT_TRUE(s.hasHeaders);
    EXPECT_TRUE(s.headersValid);
    EXPECT_EQ(s.headerKeys, (std::vector<std::string>{"amqp_correlationId", "__TypeId__"}));
    EXPECT_EQ(s.Header("__TypeId__"), "com.orvane.zel.dorn.DornFabricMessage.DornMessage");
  }
}

TEST_F(CommunicationHandlerTest, CorrelationIdIsFixedUnlessEchoIsAsked) {
  Start();
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "a"), {{"amqp_correlationId", "req-a"}});
  Deliver(Request(orvane::zel::dorn::MT_FILE_COPY, "b"), {{"amqp_correlationId", "req-b"}});
  handler_->SendMsg(Request(orvane::zel::dorn::MT_OPERATION_STATUS, "own"), nullptr, nullptr);
  auto sent = Sent();
  ASSERT_EQ(sent.size(), 3u);
  for (const SentMessage& s : sent) EXPECT_EQ(s.Header("amqp_correlationId"), kGeneratedId);
  EXPECT_EQ(log_.Count(std::string("Sending DORN msg having correlation Id: ") + kGeneratedId),
            3u);

  // Asked to echo: the request's id, or no header when it had none.
  layer_->client()->ClearSent();
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "c", true), {{"amqp_correlationId", "req-c"}});
  Deliver(Request(orvane::zel::dorn::MT_RUN_COMMAND, "d", true), {{"amqp_replyTo", "q"}});
  sent = Sent();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].Header("amqp_correlationId"), "req-c");
  EXPECT_TRUE(sent[0].message.return_same_correlationid());
  EXPECT_TRUE(sent[1].headersValid);
  EXPECT_EQ(sent[1].headerKeys, std::vector<std::string>{"__TypeId__"});
  EXPECT_EQ(log_.Count("Sending DORN msg having correlation Id: req-c"), 1u);
  EXPECT_EQ(log_.Count("Sending DORN msg having correlation Id: (null)"), 1u);
}

TEST_F(CommunicationHandlerTest, FailedSendIsLoggedWithItsCode) {
  Start();
  layer_->client()->SetSendResult(-2001);
  handler_->SendMsg(Request(orvane::zel::dorn::MT_OPERATION_STATUS, "x"), nullptr, nullptr);
  EXPECT_EQ(log_.Count("Failed to send message to ZEL Manager. Error code : -2001"), 1u);
  EXPECT_EQ(log_.Count("errorCode=\"MPAERR_SEND_MP_MSG_FAIL\""), 1u);
}

}  // namespace
}  // namespace ZelDorn
