#include "mpaclient/mpa_client.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/workgroup/work_group.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/metric_value.h"
#include "mpaclient/rmq_client.h"
#include "mpaclient/rmq_client_event_loop.h"
#include "mpalib/mpa_lib_result.h"
#include "mpalib/mpa_test_peer.h"
#include "mpalib/net_api.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using namespace mpa_test;
using zel::MpaClient;
using zel::testing::WaitUntil;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";
zel::testing::LogCapture* g_log = nullptr;

// The process has one library event loop: it runs on the framework work
// group for the whole test binary, started the way the agent starts it.
class EventLoopEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_log = new zel::testing::LogCapture(false);
    // The most detailed level, so that the payload dump runs too.
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent/zel_issue");
    zel::StartFrameworkWorkGroup(registry_, 2);
    zel::StartMpaClientEventLoop("DORN");
    // Registers against a port that refuses until the library answers with
    // something other than "no event loop" or "not running".
    const rmqClientEndpoint refusing{FakeMpa(false).port(), nullptr};
    int rc;
    WaitUntil([&] {
      rc = NETRegister("zel", "probe", 1, nullptr, &Inbox::Callback, &refusing);
      return rc != ZelMpa::kMpaNoEventLoop && rc != ZelMpa::kMpaNotStarted;
    });
    ASSERT_EQ(rc, ZelMpa::kMpaSocketError) << "the library's event loop did not come up";
  }
  void TearDown() override {
    zel::StopMpaClientEventLoop();
    zel::StopFrameworkWorkGroup();
    delete g_log;
  }

 private:
  zel::metrics::MetricRegistry registry_;
};
const ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new EventLoopEnvironment);

// Runs with the new cookie after the library made the connection and before
// Register returns it: the window in which the library's thread may already
// deliver records of the connection.
using DuringRegister = std::function<void(int cookie, rmqClientCallback callback)>;

// The library's client aimed at the fake MPA's port instead of 9002.
class FakeMpaRmqClient : public zel::RmqClient {
 public:
  FakeMpaRmqClient(uint16_t port, DuringRegister during) : port_(port), during_(std::move(during)) {}
  int Register(const char* appId, const char* appType, int connectionType,
               rmqClientCallback callback) override {
    const rmqClientEndpoint endpoint{port_, nullptr};
    const int cookie =
        RegisterWithEndpoint(appId, appType, connectionType, nullptr, callback, &endpoint);
    if (cookie >= 0 && during_) during_(cookie, callback);
    return cookie;
  }

 private:
  const uint16_t port_;
  const DuringRegister during_;
};

struct TestIntervals {
  uint64_t ackRetryMicros = 30000000;
  uint64_t connectRetryMicros = 5000000;
  uint64_t closeReconnectMicros = MpaClient::kCloseReconnectMicros;
  uint64_t appInitWaitMicros = MpaClient::kAppInitWaitMicros;
};

// An MpaClient on the fake MPA's port whose handshake only counts its starts.
class TestMpaClient : public MpaClient {
 public:
  TestMpaClient(boost::shared_ptr<zel::AsioDispatcher> dispatcher, const std::string& appType,
                uint16_t port, const TestIntervals& intervals,
                zel::metrics::MetricKeyPtr metricRoot, DuringRegister during)
      : MpaClient(std::move(dispatcher), &Inbox::Record, appType, "zel", 1, port,
                  std::move(metricRoot)),
        during_(std::move(during)) {
    intervals_.closeReconnectMicros = intervals.closeReconnectMicros;
    intervals_.appInitWaitMicros = intervals.appInitWaitMicros;
  }
  using MpaClient::OnMessage;
  using MpaClient::RegisterInstance;
  std::atomic<int> handshakes{0};

 protected:
  void CreateRmqClient() override {
    SetRmqClient(zel::MakeRefCounted<FakeMpaRmqClient>(port(), during_));
  }
  void AppInitHandshake() override { ++handshakes; }

 private:
  const DuringRegister during_;
};

// An inbound record as the library makes one: its block holds the
// application type, and the client frees it.
rmqClientMessage InboundRecord(int32_t type, int32_t cookie, const char* appType = kApp) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = type;
  m.cookieId = cookie;
  m.appType = strdup(appType);
  m.rawBuffer = reinterpret_cast<uint8_t*>(const_cast<char*>(m.appType));
  return m;
}

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

bool SendFromMpa(int peer, int64_t type, const std::string& payload = "") {
  return WriteAll(peer, Frame(Doc()
                                  .Int64("msg_type", type)
                                  .String("app_type", kApp)
                                  .String("amqp_routing_key", "reply-queue")
                                  .Int64("payload_len", payload.size())
                                  .Binary("amqp_payload", {payload.begin(), payload.end()})
                                  .Finish()));
}

class MpaClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_log->Clear();
    Inbox::Clear();
    dispatcher_->Run(1, false);
  }
  void TearDown() override {
    DropClient();
    dispatcher_->StopAndWait(true);
  }
  void DropClient() {
    if (client_) client_->Close();
    MpaClient::Unregister(appType_);
    client_.reset();
  }

  void MakeClient(const TestIntervals& intervals = {}, DuringRegister during = nullptr) {
    client_ = boost::make_shared<TestMpaClient>(dispatcher_, appType_, mpa_.port(), intervals,
                                                registry_.root(), std::move(during));
    ASSERT_EQ(client_, TestMpaClient::RegisterInstance(client_, intervals.ackRetryMicros,
                                                       intervals.connectRetryMicros));
  }

  // Starts the client against a listening MPA and, with `ack`, acknowledges
  // its registration; returns the MPA's end of the connection.
  int Start(bool ack = true) {
    EXPECT_TRUE(mpa_.Listen());
    client_->Start();
    const int peer = mpa_.AcceptRegistration(appType_);
    EXPECT_GE(peer, 0);
    if (ack) {
      EXPECT_TRUE(SendFromMpa(peer, RMQ_CLIENT_REGISTRATION_ACK));
      EXPECT_EQ(RMQ_CLIENT_REGISTRATION_ACK, Inbox::Take().type);
    }
    return peer;
  }

  // The level of the counter at `path` with the label app=<appType>, or -1.
  long Counter(const std::string& path) {
    zel::metrics::MetricKeyPtr key = registry_.root()->subkey(path)->find_subkey("app=" + appType_);
    const std::string text = key && key->get_value() ? key->get_value()->to_string(true) : "";
    const size_t at = text.find("v~last: ");
    return at == std::string::npos ? -1 : std::strtol(text.c_str() + at + 8, nullptr, 10);
  }

  std::string appType_ = kApp;
  FakeMpa mpa_{false};
  zel::metrics::MetricRegistry registry_;
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_ = boost::make_shared<zel::AsioDispatcher>();
  boost::shared_ptr<TestMpaClient> client_;
};

TEST_F(MpaClientTest, RegistrationAckDataAndSendAreDeliveredAndCounted) {
  MakeClient();
  const int peer = Start();
  const int32_t cookie = client_->GetCookieId();
  EXPECT_GE(cookie, 0);
  EXPECT_EQ(MpaClient::kStateConnected, client_->GetState());
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(1, Counter("rmq/connection/establish"));

  ASSERT_TRUE(SendFromMpa(peer, RMQ_CLIENT_DATA_MESSAGE, "hi"));
  Received data = Inbox::Take();
  EXPECT_EQ(RMQ_CLIENT_DATA_MESSAGE, data.type);
  EXPECT_EQ((Bytes{'h', 'i'}), data.payload);
  EXPECT_EQ("reply-queue", data.routingKey);
  EXPECT_EQ(2, Counter("rmq/msg/rx"));
  EXPECT_EQ(1u, g_log->Count("Payload: 68 69"));

  rmqClientMessage out = OutboundRecord(cookie, "answer");
  EXPECT_EQ(0, client_->SendMsg(&out));
  EXPECT_EQ(1, Counter("rmq/msg/tx"));
  const std::vector<Element> sent = FakeMpa::ReadDoc(peer);
  const Element* payload = Find(sent, "amqp_payload");
  ASSERT_TRUE(payload);
  EXPECT_EQ("answer", std::string(payload->bytes.begin(), payload->bytes.end()));

  // A record the library refuses is logged and not counted.
  rmqClientMessage bad = OutboundRecord(-5, "lost");
  EXPECT_EQ(ZelMpa::kMpaInvalidCookie, client_->SendMsg(&bad));
  EXPECT_EQ(1, Counter("rmq/msg/tx"));
  EXPECT_EQ(1u, g_log->Count("MPAERR_MPA_SENDMSG_FAILED\"] DORN_FABRIC_APPLICATION failed to "
                             "send message to MPA"));
}

TEST_F(MpaClientTest, PeerCloseLeadsToReconnectAfterOneSecond) {
  MakeClient();
  const int peer = Start();
  const int32_t firstCookie = client_->GetCookieId();
  mpa_.ClosePeer(peer);
  Received closed = Inbox::Take();
  EXPECT_EQ(RMQ_CLIENT_CLOSE, closed.type);
  EXPECT_EQ(firstCookie, closed.cookie);

  ASSERT_GE(mpa_.AcceptRegistration(kApp), 0);
  ASSERT_TRUE(g_log->WaitFor("Connected to mpa, cookie:", 2));
  EXPECT_EQ(1u, g_log->Count("[DORN_FABRIC_APPLICATION] ScheduleTimer after 1000000 microseconds"));
  EXPECT_EQ(MpaClient::kStateConnected, client_->GetState());
  EXPECT_NE(-1, client_->GetCookieId());
  EXPECT_FALSE(client_->IsRegistrationAcked());
  EXPECT_EQ(2, Counter("rmq/connection/establish"));
}

TEST_F(MpaClientTest, AbsentMpaIsRetriedAtTheConnectIntervalEvenAfterClose) {
  TestIntervals intervals;
  intervals.connectRetryMicros = 20000;
  MakeClient(intervals);
  client_->Start();
  EXPECT_EQ(ZelMpa::kMpaSocketError, client_->GetCookieId());
  EXPECT_EQ(MpaClient::kStateDisconnected, client_->GetState());
  ASSERT_TRUE(g_log->WaitFor("connecting to mpa return cookie [-2001]", 2));
  EXPECT_TRUE(g_log->InOrder({"connecting to mpa return cookie [-2001]",
                              "ScheduleTimer after 20000 microseconds", "Mpa reconnect timeout",
                              "connecting to mpa return cookie [-2001]"}));
  EXPECT_EQ(0, Counter("rmq/connection/establish"));

  // Close has no connection to drop: the pending retry goes on.
  client_->Close();
  ASSERT_TRUE(mpa_.Listen());
  ASSERT_GE(mpa_.AcceptRegistration(kApp), 0);
  ASSERT_TRUE(WaitUntil([&] { return client_->GetState() == MpaClient::kStateConnected; }));
  EXPECT_EQ(1, Counter("rmq/connection/establish"));
  // Connected without an ACK: this application type arms no ACK timer.
  EXPECT_EQ(0u, g_log->Count("need to retry connection since ACK not received"));
}

TEST_F(MpaClientTest, CloseDropsTheConnectionAndItsReconnect) {
  TestIntervals intervals;
  intervals.closeReconnectMicros = 1000;
  MakeClient(intervals);
  Start();
  const int32_t cookie = client_->GetCookieId();
  client_->Close();
  EXPECT_EQ(ZelMpa::kMpaClientNotFound, NETClose(cookie));  // the library let it go
  EXPECT_EQ(-1, client_->GetCookieId());
  EXPECT_EQ(MpaClient::kStateDisconnected, client_->GetState());
  EXPECT_FALSE(client_->IsRegistrationAcked());
  // The library closes without a CLOSE record, so no reconnect follows.
  EXPECT_EQ(-1, mpa_.Accept(100));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaClientTest, RecordsOfTheConnectionBeforeItsCookieIsKnown) {
  const struct {
    const char* name;
    int32_t type;
    int cookieOffset;
    const char* appType;
    bool connected;  // afterwards
    size_t mismatchLines;
  } cases[] = {
      // The ACK flag is cleared once the connection is stored, so an ACK in
      // this window is lost, and the ACK retry (where armed) re-registers.
      {"ACK", RMQ_CLIENT_REGISTRATION_ACK, 0, kApp, true, 0},
      // A CLOSE of the new connection is acted on, with no mismatch line.
      {"own CLOSE", RMQ_CLIENT_CLOSE, 0, kApp, false, 0},
      // A CLOSE of another connection is ignored, with one mismatch line.
      {"other CLOSE", RMQ_CLIENT_CLOSE, 1000, kApp, true, 1},
      // A record of an application type without a client is dropped.
      {"other application", RMQ_CLIENT_CLOSE, 0, "nobody", true, 0},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    TestIntervals intervals;
    intervals.closeReconnectMicros = 60000000;
    int injected = -1;
    MakeClient(intervals, [&](int cookie, rmqClientCallback callback) {
      rmqClientMessage m = InboundRecord(t.type, (injected = cookie) + t.cookieOffset, t.appType);
      callback(&m);
    });
    Start(false);
    EXPECT_EQ(t.connected ? MpaClient::kStateConnected : MpaClient::kStateDisconnected,
              client_->GetState());
    EXPECT_EQ(t.connected ? injected : -1, client_->GetCookieId());
    EXPECT_FALSE(client_->IsRegistrationAcked());
    EXPECT_EQ(t.mismatchLines,
              g_log->Count("MPAERR_MPA_COOKIEID_MISMATCH\"] [DORN_FABRIC_APPLICATION] Message's "
                           "cookieId [" + std::to_string(injected + t.cookieOffset) +
                           "] does not match with [" + std::to_string(injected) + "], ignored"));
    EXPECT_EQ(t.connected ? 0u : 1u, g_log->Count("ScheduleTimer after 60000000 microseconds"));
    EXPECT_EQ(t.appType == kApp ? 0u : 1u,
              g_log->Count("MPAERR_MPA_INVALID_MSG_HANDLER\"] No callback function for app type "
                           "nobody"));
    DropClient();
    NETClose(injected);  // the library's end of a connection the client was told is gone
    g_log->Clear();
  }
}

TEST_F(MpaClientTest, MissingAckMakesTheVerticalsRegisterAgain) {
  appType_ = MpaClient::kSwitchingVertical;
  TestIntervals intervals;
  intervals.ackRetryMicros = 200000;
  MakeClient(intervals);
  const int first = Start(false);
  const int32_t cookie = client_->GetCookieId();
  ASSERT_GE(mpa_.AcceptRegistration(appType_), 0);
  EXPECT_TRUE(WaitForEof(first));
  EXPECT_TRUE(g_log->InOrder({"[SwitchingVertical] ScheduleTimer after 200000 microseconds",
                              "[SwitchingVertical] Already conncted to [" + std::to_string(cookie) +
                                  "] but didn't receive RMQ_CLIENT_REGISTRATION_ACK."}));
}

TEST_F(MpaClientTest, CloseWithAStaleCookieChangesNothing) {
  MakeClient();
  Start();
  const int32_t cookie = client_->GetCookieId();
  rmqClientMessage close = InboundRecord(RMQ_CLIENT_CLOSE, cookie + 100);
  client_->OnMessage(&close);
  EXPECT_EQ(nullptr, close.rawBuffer);
  EXPECT_EQ(1u, g_log->Count("MPAERR_MPA_COOKIEID_MISMATCH\"] [DORN_FABRIC_APPLICATION] Message's "
                             "cookieId [" + std::to_string(cookie + 100) + "] does not match with [" +
                             std::to_string(cookie) + "], ignored"));
  EXPECT_EQ(cookie, client_->GetCookieId());
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaClientTest, MessageTypeFourIsDroppedAndTheConnectionStays) {
  MakeClient();
  const int peer = Start();
  const int32_t cookie = client_->GetCookieId();
  ASSERT_TRUE(SendFromMpa(peer, 4, "x"));
  ASSERT_TRUE(g_log->WaitFor("MPAERR_MPA_UNSUPPORT_MSG\"] [DORN_FABRIC_APPLICATION] Unrecognized "
                             "RMQ messageType [4] from MPA."));
  // The next data message arrives on the same connection, and the dropped
  // one never reached the callback.
  ASSERT_TRUE(SendFromMpa(peer, RMQ_CLIENT_MPA_DATA_MESSAGE, "y"));
  Received next = Inbox::Take();
  EXPECT_EQ(RMQ_CLIENT_MPA_DATA_MESSAGE, next.type);
  EXPECT_EQ((Bytes{'y'}), next.payload);
  EXPECT_EQ(cookie, client_->GetCookieId());
  EXPECT_EQ(3, Counter("rmq/msg/rx"));
}

TEST_F(MpaClientTest, PendingReconnectAfterTearDownOnlyClearsTheCookie) {
  TestIntervals intervals;
  intervals.closeReconnectMicros = 1000;
  MakeClient(intervals);
  const int peer = Start();

  // The dispatcher is held while the reconnect is armed and the road torn
  // down, so the reconnect runs after the tear-down.
  zel::testing::Event held, release;
  dispatcher_->Post([&] {
    held.Set();
    release.WaitFor();
  });
  ASSERT_TRUE(held.WaitFor());
  mpa_.ClosePeer(peer);
  ASSERT_EQ(RMQ_CLIENT_CLOSE, Inbox::Take().type);
  ASSERT_TRUE(g_log->WaitFor("ScheduleTimer after 1000 microseconds"));
  client_->TearDownRmq();
  EXPECT_TRUE(client_->IsZelRpcEnabled());
  release.Set();

  ASSERT_TRUE(g_log->WaitFor("[DORN_FABRIC_APPLICATION] zel rpc enabled"));
  EXPECT_TRUE(g_log->InOrder({"Tear-down of MPA client with rmq complete",
                              "DORN_FABRIC_APPLICATION Mpa reconnect timeout",
                              "[DORN_FABRIC_APPLICATION] zel rpc enabled"}));
  // The reconnect returned before registering: nothing reached the MPA.
  EXPECT_EQ(-1, mpa_.Accept(0));
  EXPECT_EQ(-1, client_->GetCookieId());
  EXPECT_EQ(1, Counter("rmq/connection/establish"));

  // From now on sends take the other road, and reconnects are not scheduled.
  rmqClientMessage out = OutboundRecord(-1, "via proxy");
  EXPECT_EQ(-1, client_->SendMsg(&out));
  EXPECT_EQ(1u, g_log->Count("[DORN_FABRIC_APPLICATION] SendMsgViaTnProxy: () Not Implemented!"));
  EXPECT_EQ(0, Counter("rmq/msg/tx"));
  client_->ScheduleReconnect(1000);
  EXPECT_EQ(1u, g_log->Count("zel-rpc enabled. mpa client won't re-connect with rmqClient."));
}

TEST_F(MpaClientTest, StaleAppInitSequencesStartNoHandshake) {
  TestIntervals intervals;
  intervals.appInitWaitMicros = 1000;
  MakeClient(intervals);
  const int32_t old = client_->GetNewAppInitSequenceNumber();
  const int32_t seq = client_->GetNewAppInitSequenceNumber();
  EXPECT_FALSE(client_->IsCurrentAppInitSequence(old));
  EXPECT_TRUE(client_->IsCurrentAppInitSequence(seq));
  client_->WaitAppInitTimeout(old);
  EXPECT_EQ(0, client_->handshakes);

  // The wait timer of the current handshake fires and starts a new one.
  client_->WaitForAppInitHandshakeCompletion(seq);
  ASSERT_TRUE(WaitUntil([&] { return client_->handshakes == 1; }));
  EXPECT_FALSE(client_->CompleteAppInitHanshake(old));
  EXPECT_FALSE(client_->IsAppInitCompleted());
  EXPECT_TRUE(client_->CompleteAppInitHanshake(seq));
  EXPECT_TRUE(client_->IsAppInitCompleted());
  EXPECT_FALSE(client_->CompleteAppInitHanshake(seq));
}

}  // namespace
