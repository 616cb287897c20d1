#include "mpaclient/mpa_client.h"

#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/workgroup/work_group.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "mpa_client_test_support.h"
#include "mpaclient/rmq_client_event_loop.h"
#include "mpalib/net_api.h"

namespace {

using mpa_client_test::Inbox;
using mpa_client_test::LogWatch;
using mpa_client_test::Relay;
using mpa_client_test::Seen;
using mpa_client_test::TestIntervals;
using mpa_client_test::TestMpaClient;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

// The process has one library event loop: it runs on the framework work
// group for the whole test binary, started the way the agent starts it.
class EventLoopEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    zel::log_testing::SetSyslogSinkForTest(&LogWatch::Sink);
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent/zel_issue");
    zel::StartFrameworkWorkGroup(registry_, 2);
    zel::StartMpaClientEventLoop("DORN");
    WaitForLibrary();
  }
  void TearDown() override {
    zel::StopMpaClientEventLoop();
    zel::StopFrameworkWorkGroup();
    zel::log_testing::SetSyslogSinkForTest(nullptr);
  }

 private:
  // Registers against a port that refuses until the library answers with
  // something other than "no event loop" or "not running".
  static void WaitForLibrary() {
    Relay refusing;
    const rmqClientEndpoint endpoint{refusing.port(), nullptr};
    const auto deadline = mpa_client_test::Clock::now() + mpa_client_test::kWait;
    int rc;
    do {
      rc = NETRegister("zel", "probe", 1, nullptr, [](rmqClientMessage* m) { std::free(m->rawBuffer); },
                       &endpoint);
    } while ((rc == -2024 || rc == -2018) && mpa_client_test::Clock::now() < deadline);
    ASSERT_EQ(rc, -2001) << "the library's event loop did not come up";
  }

  zel::metrics::MetricRegistry registry_;
};

const ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new EventLoopEnvironment);

class MpaClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogWatch::Clear();
    dispatcher_ = boost::make_shared<zel::AsioDispatcher>();
    dispatcher_->Run(1, false);
  }
  void TearDown() override {
    if (client_) client_->Close();
    zel::MpaClient::Unregister(kApp);
    client_.reset();
    dispatcher_->StopAndWait(true);
  }

  boost::shared_ptr<TestMpaClient> MakeClient(const TestIntervals& intervals = TestIntervals()) {
    client_ = TestMpaClient::Make(dispatcher_, &inbox_, kApp, relay_.port(), intervals,
                                  registry_.root());
    return client_;
  }

  // Starts the client against a listening relay and acknowledges its
  // registration; returns the relay's end of the connection.
  int StartAndAck() {
    EXPECT_TRUE(relay_.Listen());
    client_->Start();
    const int peer = relay_.AcceptRegistration(kApp);
    EXPECT_GE(peer, 0);
    EXPECT_TRUE(Relay::SendAck(peer, kApp));
    Seen ack;
    EXPECT_TRUE(inbox_.Take(&ack));
    EXPECT_EQ(ack.type, RMQ_CLIENT_REGISTRATION_ACK);
    return peer;
  }

  long Counter(const std::string& path) {
    return mpa_client_test::CounterLevel(registry_, path, kApp);
  }

  void DrainDispatcher() {
    std::promise<void> drained;
    dispatcher_->Post([&drained] { drained.set_value(); });
    drained.get_future().wait();
  }

  // Blocks the dispatcher's thread until the returned promise is set.
  std::shared_ptr<std::promise<void>> HoldDispatcher() {
    auto release = std::make_shared<std::promise<void>>();
    auto held = std::make_shared<std::promise<void>>();
    std::shared_future<void> released = release->get_future().share();
    dispatcher_->Post([released, held] {
      held->set_value();
      released.wait();
    });
    held->get_future().wait();
    return release;
  }

  Relay relay_;
  Inbox inbox_;
  zel::metrics::MetricRegistry registry_;
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_;
  boost::shared_ptr<TestMpaClient> client_;
};

rmqClientMessage OutboundRecord(int32_t cookie, const char* payload) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = 10;
  m.cookieId = cookie;
  m.amqpContentType = "application/protobuf";
  m.amqpRoutingKey = "";
  m.payload = reinterpret_cast<const uint8_t*>(payload);
  m.payloadLen = static_cast<int64_t>(std::strlen(payload));
  return m;
}

// An inbound record as the library makes one: its block holds the
// application type, and the client frees it.
rmqClientMessage InboundRecord(int32_t type, int32_t cookie) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = type;
  m.cookieId = cookie;
  char* appType = strdup(kApp);
  m.appType = appType;
  m.rawBuffer = reinterpret_cast<uint8_t*>(appType);
  return m;
}

TEST_F(MpaClientTest, RegistrationAckDataAndSendAreDeliveredAndCounted) {
  ASSERT_TRUE(MakeClient());
  const int peer = StartAndAck();
  const int32_t cookie = client_->GetCookieId();
  EXPECT_GE(cookie, 0);
  EXPECT_EQ(client_->GetState(), zel::MpaClient::kStateConnected);
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(Counter("rmq/connection/establish"), 1);
  EXPECT_TRUE(LogWatch::WaitFor("Received client registration ACK from MPA"));

  ASSERT_TRUE(Relay::SendData(peer, RMQ_CLIENT_DATA_MESSAGE, kApp, {'h', 'i'}));
  Seen data;
  ASSERT_TRUE(inbox_.Take(&data));
  EXPECT_EQ(data.type, RMQ_CLIENT_DATA_MESSAGE);
  EXPECT_EQ(data.payload, "hi");
  EXPECT_EQ(data.routingKey, "reply-queue");
  EXPECT_EQ(Counter("rmq/msg/rx"), 2);

  rmqClientMessage out = OutboundRecord(cookie, "answer");
  EXPECT_EQ(client_->SendMsg(&out), 0);
  EXPECT_EQ(Counter("rmq/msg/tx"), 1);
  mpa_test::Bytes doc;
  ASSERT_TRUE(mpa_test::FakeMpa::ReadFrame(peer, &doc));
  EXPECT_NE(std::string(doc.begin(), doc.end()).find("answer"), std::string::npos);

  // A record the library refuses is logged and not counted.
  rmqClientMessage bad = OutboundRecord(-5, "lost");
  EXPECT_LT(client_->SendMsg(&bad), 0);
  EXPECT_EQ(Counter("rmq/msg/tx"), 1);
  EXPECT_NE(LogWatch::Find("errorCode=\"MPAERR_MPA_SENDMSG_FAILED\""), "");
}

TEST_F(MpaClientTest, RelayCloseLeadsToReconnectAfterOneSecond) {
  ASSERT_TRUE(MakeClient());
  const int peer = StartAndAck();
  const int32_t firstCookie = client_->GetCookieId();

  relay_.ClosePeer(peer);
  Seen closed;
  ASSERT_TRUE(inbox_.Take(&closed));
  EXPECT_EQ(closed.type, RMQ_CLIENT_CLOSE);
  EXPECT_EQ(closed.cookie, firstCookie);

  const int second = relay_.AcceptRegistration(kApp);
  ASSERT_GE(second, 0);
  ASSERT_TRUE(LogWatch::WaitFor("Connected to mpa, cookie:", 2));
  EXPECT_TRUE(LogWatch::InOrder({
      "Got CLIENT CLOSE Message for cookie:[" + std::to_string(firstCookie) +
          "], disconnected from MPA",
      "[DORN_FABRIC_APPLICATION] ScheduleTimer after 1000000 microseconds",
      "DORN_FABRIC_APPLICATION Mpa reconnect timeout",
      "[DORN_FABRIC_APPLICATION] Connecting to mpa...",
      "[DORN_FABRIC_APPLICATION] Connected to mpa, cookie:",
  }));
  EXPECT_EQ(client_->GetState(), zel::MpaClient::kStateConnected);
  EXPECT_GE(client_->GetCookieId(), 0);
  EXPECT_FALSE(client_->IsRegistrationAcked());
  EXPECT_EQ(Counter("rmq/connection/establish"), 2);
}

TEST_F(MpaClientTest, AbsentRelayIsRetriedAtTheConnectIntervalUntilItListens) {
  TestIntervals intervals;
  intervals.connectRetryMicros = 20000;
  ASSERT_TRUE(MakeClient(intervals));

  client_->Start();
  EXPECT_EQ(client_->GetCookieId(), -2001);
  EXPECT_EQ(client_->GetState(), zel::MpaClient::kStateDisconnected);
  ASSERT_TRUE(LogWatch::WaitFor("connecting to mpa return cookie [-2001]", 3));
  EXPECT_TRUE(LogWatch::InOrder({
      "connecting to mpa return cookie [-2001]",
      "ScheduleTimer after 20000 microseconds",
      "Mpa reconnect timeout",
      "connecting to mpa return cookie [-2001]",
  }));
  EXPECT_EQ(Counter("rmq/connection/establish"), 0);

  ASSERT_TRUE(relay_.Listen());
  ASSERT_GE(relay_.AcceptRegistration(kApp), 0);
  ASSERT_TRUE(LogWatch::WaitFor("[DORN_FABRIC_APPLICATION] Connected to mpa, cookie:"));
  EXPECT_EQ(client_->GetState(), zel::MpaClient::kStateConnected);
  EXPECT_EQ(Counter("rmq/connection/establish"), 1);
  // Connected without an ACK: this application type arms no ACK timer.
  EXPECT_EQ(LogWatch::Count("need to retry connection since ACK not received"), 0u);
}

TEST_F(MpaClientTest, CloseWithAStaleCookieChangesNothing) {
  ASSERT_TRUE(MakeClient());
  StartAndAck();
  const int32_t cookie = client_->GetCookieId();
  const int32_t stale = cookie + 100;

  rmqClientMessage close = InboundRecord(RMQ_CLIENT_CLOSE, stale);
  client_->OnMessage(&close);
  EXPECT_EQ(close.rawBuffer, nullptr);

  const std::string line = LogWatch::Find("does not match with");
  EXPECT_NE(line.find("[DORN_FABRIC_APPLICATION] Message's cookieId [" + std::to_string(stale) +
                      "] does not match with [" + std::to_string(cookie) + "], ignored"),
            std::string::npos)
      << line;
  EXPECT_NE(line.find("errorCode=\"MPAERR_MPA_COOKIEID_MISMATCH\""), std::string::npos) << line;
  EXPECT_EQ(client_->GetCookieId(), cookie);
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(inbox_.Size(), 0u);
}

TEST_F(MpaClientTest, MessageTypeFourIsDroppedAndTheConnectionStays) {
  ASSERT_TRUE(MakeClient());
  const int peer = StartAndAck();
  const int32_t cookie = client_->GetCookieId();

  ASSERT_TRUE(Relay::SendData(peer, 4, kApp, {'x'}));
  ASSERT_TRUE(LogWatch::WaitFor("Unrecognized RMQ messageType [4] from MPA"));
  EXPECT_NE(LogWatch::Find("Unrecognized RMQ messageType").find("MPAERR_MPA_UNSUPPORT_MSG"),
            std::string::npos);

  // The next data message arrives on the same connection, and the dropped
  // one never reached the callback.
  ASSERT_TRUE(Relay::SendData(peer, RMQ_CLIENT_MPA_DATA_MESSAGE, kApp, {'y'}));
  Seen next;
  ASSERT_TRUE(inbox_.Take(&next));
  EXPECT_EQ(next.type, RMQ_CLIENT_MPA_DATA_MESSAGE);
  EXPECT_EQ(next.payload, "y");
  EXPECT_EQ(client_->GetCookieId(), cookie);
  EXPECT_EQ(Counter("rmq/msg/rx"), 3);
}

TEST_F(MpaClientTest, PendingReconnectAfterTearDownOnlyClearsTheCookie) {
  TestIntervals intervals;
  intervals.closeReconnectMicros = 1000;
  ASSERT_TRUE(MakeClient(intervals));
  const int peer = StartAndAck();

  std::shared_ptr<std::promise<void>> release = HoldDispatcher();
  relay_.ClosePeer(peer);
  Seen closed;
  ASSERT_TRUE(inbox_.Take(&closed));
  ASSERT_EQ(closed.type, RMQ_CLIENT_CLOSE);
  ASSERT_TRUE(LogWatch::WaitFor("ScheduleTimer after 1000 microseconds"));

  client_->TearDownRmq();
  EXPECT_TRUE(client_->IsZelRpcEnabled());
  release->set_value();

  ASSERT_TRUE(LogWatch::WaitFor("[DORN_FABRIC_APPLICATION] zel rpc enabled"));
  EXPECT_TRUE(LogWatch::InOrder({
      "[DORN_FABRIC_APPLICATION] Starting tear-down of MPA client with rmq",
      "[DORN_FABRIC_APPLICATION] Tear-down of MPA client with rmq complete",
      "DORN_FABRIC_APPLICATION Mpa reconnect timeout",
      "[DORN_FABRIC_APPLICATION] zel rpc enabled",
  }));
  // The reconnect returned before registering: nothing reached the relay.
  EXPECT_EQ(relay_.Accept(0), -1);
  EXPECT_EQ(client_->GetCookieId(), -1);
  EXPECT_EQ(Counter("rmq/connection/establish"), 1);

  // From now on sends take the other road.
  rmqClientMessage out = OutboundRecord(-1, "via proxy");
  EXPECT_EQ(client_->SendMsg(&out), -1);
  EXPECT_NE(LogWatch::Find("[DORN_FABRIC_APPLICATION] SendMsgViaTnProxy: () Not Implemented!"), "");
  EXPECT_EQ(Counter("rmq/msg/tx"), 0);
}

TEST_F(MpaClientTest, StaleAppInitSequencesStartNoHandshake) {
  TestIntervals intervals;
  intervals.appInitWaitMicros = 1000;
  ASSERT_TRUE(MakeClient(intervals));

  const int32_t old = client_->GetNewAppInitSequenceNumber();
  const int32_t seq = client_->GetNewAppInitSequenceNumber();
  EXPECT_FALSE(client_->IsCurrentAppInitSequence(old));

  client_->WaitAppInitTimeout(old);
  EXPECT_EQ(client_->handshakes(), 0);
  EXPECT_NE(LogWatch::Find("[DORN_FABRIC_APPLICATION] WaitAppInitTimeout seq (" +
                           std::to_string(old) + ") is not current (" + std::to_string(seq + 1) +
                           ")"),
            "");

  // The wait timer of the current handshake fires and starts a new one.
  client_->WaitForAppInitHandshakeCompletion(seq);
  ASSERT_TRUE(LogWatch::WaitFor("WaitAppInitTimeout Starting a new AppInitHandshake."));
  DrainDispatcher();
  EXPECT_EQ(client_->handshakes(), 1);

  EXPECT_FALSE(client_->CompleteAppInitHanshake(old));
  EXPECT_FALSE(client_->IsAppInitCompleted());
  EXPECT_TRUE(client_->CompleteAppInitHanshake(seq));
  EXPECT_TRUE(client_->IsAppInitCompleted());
  EXPECT_FALSE(client_->CompleteAppInitHanshake(seq));
}

}  // namespace
