#include "mpaclient/mpa_client.h"

#include <cstdlib>
#include <cstring>
#include <functional>
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
    const int cookie = RegisterWithEndpoint(appId, appType, connectionType, nullptr, callback, &endpoint);
    if (cookie >= 0 && during_) during_(cookie, callback);
    return cookie;
  }

 private:
  const uint16_t port_;
  const DuringRegister during_;
};

// An MpaClient on the fake MPA's port whose handshake only counts its starts.
class TestMpaClient : public MpaClient {
 public:
  TestMpaClient(boost::shared_ptr<zel::AsioDispatcher> dispatcher, const std::string& appType,
                uint16_t port, zel::metrics::MetricKeyPtr metricRoot, DuringRegister during)
      : MpaClient(std::move(dispatcher), &Inbox::Record, appType, "zel", 1, port, std::move(metricRoot)),
        during_(std::move(during)) {}
  using MpaClient::intervals_;
  using MpaClient::OnMessage;
  using MpaClient::RegisterInstance;
  std::atomic<int> handshakes{0};

 protected:
  void CreateRmqClient() override { SetRmqClient(zel::MakeRefCounted<FakeMpaRmqClient>(port(), during_)); }
  void AppInitHandshake() override { ++handshakes; }

 private:
  const DuringRegister during_;
};

// An inbound record as the library makes one: its block holds the
// application type, and the client frees it.
rmqClientMessage InboundRecord(int32_t type, int32_t cookie, const char* appType = kApp) {
  rmqClientMessage m = DataRecord(cookie, nullptr, nullptr);
  m.messageType = type;
  m.appType = strdup(appType);
  m.rawBuffer = reinterpret_cast<uint8_t*>(const_cast<char*>(m.appType));
  return m;
}

bool SendFromMpa(int peer, int64_t type, const std::string& payload = "") {
  return WriteAll(peer, Frame(Doc().Int64("msg_type", type).String("app_type", kApp)
                                  .String("amqp_routing_key", "reply-queue").Int64("payload_len", payload.size())
                                  .Binary("amqp_payload", {payload.begin(), payload.end()}).Finish()));
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

  // Makes and registers the client; `closeReconnectMicros` and the retry
  // intervals apply.
  void MakeClient(DuringRegister during = nullptr) {
    client_ = boost::make_shared<TestMpaClient>(dispatcher_, appType_, mpa_.port(), registry_.root(),
                                                std::move(during));
    client_->intervals_.closeReconnectMicros = closeReconnectMicros_;
    client_->intervals_.appInitWaitMicros = 1000;
    ASSERT_EQ(client_, TestMpaClient::RegisterInstance(client_, ackRetryMicros_, connectRetryMicros_));
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
  std::string MismatchLine(int32_t received, int32_t current) {
    return "MPAERR_MPA_COOKIEID_MISMATCH\"] [" + appType_ + "] Message's cookieId [" + std::to_string(received) +
           "] does not match with [" + std::to_string(current) + "], ignored";
  }

  std::string appType_ = kApp;
  uint64_t ackRetryMicros_ = 30000000, connectRetryMicros_ = 5000000;
  uint64_t closeReconnectMicros_ = MpaClient::kCloseReconnectMicros;
  FakeMpa mpa_{false};
  zel::metrics::MetricRegistry registry_;
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_ = boost::make_shared<zel::AsioDispatcher>();
  boost::shared_ptr<TestMpaClient> client_;
};

TEST_F(MpaClientTest, ConnectedClientDeliversCountsAndSends) {
  MakeClient();
  const int peer = Start();
  const int32_t cookie = client_->GetCookieId();
  EXPECT_GE(cookie, 0);
  EXPECT_EQ(MpaClient::kStateConnected, client_->GetState());
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(1, Counter("rmq/connection/establish"));

  ASSERT_TRUE(SendFromMpa(peer, RMQ_CLIENT_DATA_MESSAGE, "hi"));
  EXPECT_EQ("type=3 cookie=" + std::to_string(cookie) + " app=DORN_FABRIC_APPLICATION "
            "rk=reply-queue len=2 payload=6869", Inbox::Take().line);
  EXPECT_EQ(2, Counter("rmq/msg/rx"));
  EXPECT_EQ(1u, g_log->Count("Payload: 68 69"));

  // Type 4 is dropped before the callback; the connection stays.
  ASSERT_TRUE(SendFromMpa(peer, 4, "x"));
  ASSERT_TRUE(SendFromMpa(peer, RMQ_CLIENT_MPA_DATA_MESSAGE, "y"));
  EXPECT_EQ((Bytes{'y'}), Inbox::Take().payload);
  EXPECT_EQ(4, Counter("rmq/msg/rx"));
  EXPECT_EQ(1u, g_log->Count("MPAERR_MPA_UNSUPPORT_MSG\"] [DORN_FABRIC_APPLICATION] Unrecognized RMQ "
                             "messageType [4] from MPA."));

  // A CLOSE with a stale cookie changes nothing.
  rmqClientMessage close = InboundRecord(RMQ_CLIENT_CLOSE, cookie + 100);
  client_->OnMessage(&close);
  EXPECT_EQ(nullptr, close.rawBuffer);
  EXPECT_EQ(1u, g_log->Count(MismatchLine(cookie + 100, cookie)));
  EXPECT_EQ(cookie, client_->GetCookieId());
  EXPECT_TRUE(client_->IsRegistrationAcked());
  EXPECT_EQ(0u, Inbox::Size());

  rmqClientMessage out = DataRecord(cookie, "application/protobuf", "", "answer");
  EXPECT_EQ(0, client_->SendMsg(&out));
  EXPECT_EQ(1, Counter("rmq/msg/tx"));
  EXPECT_TRUE(Render(FakeMpa::ReadDoc(peer)).find("amqp_payload=bin0:616e73776572") != std::string::npos);
  // A record the library refuses is logged and not counted.
  out.cookieId = -5;
  EXPECT_EQ(ZelMpa::kMpaInvalidCookie, client_->SendMsg(&out));
  EXPECT_EQ(1, Counter("rmq/msg/tx"));
  EXPECT_EQ(1u, g_log->Count("MPAERR_MPA_SENDMSG_FAILED\"] DORN_FABRIC_APPLICATION failed to send message to MPA"));

  // Close drops the connection without a CLOSE record, so no reconnect.
  client_->Close();
  EXPECT_EQ(ZelMpa::kMpaClientNotFound, NETClose(cookie));  // the library let it go
  EXPECT_EQ(-1, client_->GetCookieId());
  EXPECT_EQ(MpaClient::kStateDisconnected, client_->GetState());
  EXPECT_FALSE(client_->IsRegistrationAcked());
  EXPECT_EQ(-1, mpa_.Accept(100));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaClientTest, PeerCloseLeadsToReconnectAfterOneSecond) {
  MakeClient();
  const int peer = Start();
  const int32_t firstCookie = client_->GetCookieId();
  mpa_.ClosePeer(peer);
  ExpectReceived(RMQ_CLIENT_CLOSE, firstCookie);
  ASSERT_GE(mpa_.AcceptRegistration(kApp), 0);
  ASSERT_TRUE(g_log->WaitFor("Connected to mpa, cookie:", 2));
  EXPECT_EQ(1u, g_log->Count("[DORN_FABRIC_APPLICATION] ScheduleTimer after 1000000 microseconds"));
  EXPECT_EQ(MpaClient::kStateConnected, client_->GetState());
  EXPECT_NE(-1, client_->GetCookieId());
  EXPECT_FALSE(client_->IsRegistrationAcked());
  EXPECT_EQ(2, Counter("rmq/connection/establish"));
}

TEST_F(MpaClientTest, AbsentMpaIsRetriedAtTheConnectIntervalEvenAfterClose) {
  connectRetryMicros_ = 20000;
  MakeClient();
  client_->Start();
  EXPECT_EQ(ZelMpa::kMpaSocketError, client_->GetCookieId());
  EXPECT_EQ(MpaClient::kStateDisconnected, client_->GetState());
  ASSERT_TRUE(g_log->WaitFor("connecting to mpa return cookie [-2001]", 2));
  EXPECT_TRUE(g_log->InOrder({"connecting to mpa return cookie [-2001]",
                              "ScheduleTimer after 20000 microseconds", "Mpa reconnect timeout",
                              "connecting to mpa return cookie [-2001]"}));
  // Close has no connection to drop: the pending retry goes on.
  client_->Close();
  ASSERT_TRUE(mpa_.Listen());
  ASSERT_GE(mpa_.AcceptRegistration(kApp), 0);
  ASSERT_TRUE(WaitUntil([&] { return client_->GetState() == MpaClient::kStateConnected; }));
  EXPECT_EQ(1, Counter("rmq/connection/establish"));
  // Connected without an ACK: this application type arms no ACK timer.
  EXPECT_EQ(0u, g_log->Count("need to retry connection since ACK not received"));
}

TEST_F(MpaClientTest, RecordsOfTheConnectionBeforeItsCookieIsKnown) {
  // Each record with whether the client is connected afterwards.
  const struct { const char* name; int32_t type; int cookieOffset; const char* appType; bool connected; } cases[] = {
      // The ACK flag is cleared once the connection is stored, so an ACK in
      // this window is lost, and the ACK retry (where armed) re-registers.
      {"ACK", RMQ_CLIENT_REGISTRATION_ACK, 0, kApp, true},
      // A CLOSE of the new connection is acted on, with no mismatch line.
      {"own CLOSE", RMQ_CLIENT_CLOSE, 0, kApp, false},
      // A CLOSE of another connection is ignored, with one mismatch line.
      {"other CLOSE", RMQ_CLIENT_CLOSE, 1000, kApp, true},
      // A record of an application type without a client is dropped.
      {"other application", RMQ_CLIENT_CLOSE, 0, "nobody", true},
  };
  closeReconnectMicros_ = 60000000;
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    int injected = -1;
    MakeClient([&](int cookie, rmqClientCallback callback) {
      rmqClientMessage m = InboundRecord(t.type, (injected = cookie) + t.cookieOffset, t.appType);
      callback(&m);
    });
    Start(false);
    EXPECT_EQ(t.connected ? MpaClient::kStateConnected : MpaClient::kStateDisconnected, client_->GetState());
    EXPECT_EQ(t.connected ? injected : -1, client_->GetCookieId());
    EXPECT_FALSE(client_->IsRegistrationAcked());
    EXPECT_EQ(t.cookieOffset ? 1u : 0u, g_log->Count("MPAERR_MPA_COOKIEID_MISMATCH"));
    EXPECT_EQ(t.cookieOffset ? 1u : 0u, g_log->Count(MismatchLine(injected + t.cookieOffset, injected)));
    EXPECT_EQ(t.connected ? 0u : 1u, g_log->Count("ScheduleTimer after 60000000 microseconds"));
    EXPECT_EQ(t.appType == kApp ? 0u : 1u,
              g_log->Count("MPAERR_MPA_INVALID_MSG_HANDLER\"] No callback function for app type nobody"));
    DropClient();
    NETClose(injected);  // the library's end of a connection the client was told is gone
    g_log->Clear();
  }
}

TEST_F(MpaClientTest, MissingAckMakesTheVerticalsRegisterAgain) {
  appType_ = MpaClient::kSwitchingVertical;
  ackRetryMicros_ = 200000;
  MakeClient();
  const int first = Start(false);
  const int32_t cookie = client_->GetCookieId();
  ASSERT_GE(mpa_.AcceptRegistration(appType_), 0);
  EXPECT_TRUE(WaitForEof(first));
  EXPECT_TRUE(g_log->InOrder({"[SwitchingVertical] ScheduleTimer after 200000 microseconds",
                              "[SwitchingVertical] Already conncted to [" + std::to_string(cookie) +
                                  "] but didn't receive RMQ_CLIENT_REGISTRATION_ACK."}));
}

TEST_F(MpaClientTest, PendingReconnectAfterTearDownOnlyClearsTheCookie) {
  closeReconnectMicros_ = 1000;
  MakeClient();
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
  rmqClientMessage out = DataRecord(-1, "ct", "", "via proxy");
  EXPECT_EQ(-1, client_->SendMsg(&out));
  EXPECT_EQ(1u, g_log->Count("[DORN_FABRIC_APPLICATION] SendMsgViaTnProxy: () Not Implemented!"));
  EXPECT_EQ(0, Counter("rmq/msg/tx"));
  client_->ScheduleReconnect(1000);
  EXPECT_EQ(1u, g_log->Count("zel-rpc enabled. mpa client won't re-connect with rmqClient."));
}

TEST_F(MpaClientTest, StaleAppInitSequencesStartNoHandshake) {
  MakeClient();
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
