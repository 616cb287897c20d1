#include "mpalib/net_api.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "mpa_test_peer.h"
#include "mpalib/bson_object.h"
#include "mpalib/mpa_lib_client.h"

namespace {

using mpa_test::Bytes;
using mpa_test::Doc;
using mpa_test::Element;
using mpa_test::FakeMpa;
using mpa_test::Frame;
using mpa_test::Inbox;
using mpa_test::LogLines;
using mpa_test::Received;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

rmqClientMessage DataMessage(int cookie) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = RMQ_CLIENT_DATA_MESSAGE;
  m.cookieId = cookie;
  m.amqpContentType = "application/protobuf";
  m.amqpRoutingKey = "";
  return m;
}

class NetApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
    zel::log_testing::SetSyslogSinkForTest(&LogLines::Sink);
    LogLines::Clear();
    Inbox::Clear();
    loop_ = std::thread([] { NETEventLoop(nullptr); });
  }
  void TearDown() override {
    if (loop_.joinable()) {
      NETStop();
      loop_.join();
    }
  }

  // Registers once the event loop is up, waiting at most 5 seconds for it.
  int Register() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    int rc;
    do {
      rc = NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, &endpoint_);
      if (rc == -2018 || rc == -2024) std::this_thread::yield();
    } while ((rc == -2018 || rc == -2024) && std::chrono::steady_clock::now() < deadline);
    return rc;
  }

  // Accepts the connection of a registration and reads one document on it.
  std::vector<Element> Read(int* peer) {
    if (*peer < 0) *peer = mpa_.Accept();
    Bytes doc;
    std::vector<Element> elements;
    EXPECT_TRUE(FakeMpa::ReadFrame(*peer, &doc));
    EXPECT_TRUE(mpa_test::ParseDoc(doc, &elements));
    return elements;
  }

  FakeMpa mpa_;
  rmqClientEndpoint endpoint_{mpa_.port(), nullptr};
  std::thread loop_;
};

TEST_F(NetApiTest, RoundTripThroughTheEntryPoints) {
  const int cookie = Register();
  ASSERT_GE(cookie, 0);
  int peer = -1;
  Read(&peer);  // the registration

  // A second event loop is refused at once.
  EXPECT_EQ(0, NETEventLoop(nullptr));
  EXPECT_TRUE(LogLines::Contains({"MPA128", "RMQCLIENTLIB: Existing NETEventLoop already running"}));

  // The MPA acknowledges, then sends data: both reach the callback.
  ASSERT_TRUE(mpa_test::WriteAll(peer, Frame(Doc().Int64("msg_type", 2).Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_REGISTRATION_ACK, r.type);
  EXPECT_EQ(cookie, r.cookie);
  ASSERT_TRUE(mpa_test::WriteAll(peer, Frame(Doc()
                                                 .Int64("msg_type", 8)
                                                 .String("app_type", kApp)
                                                 .Binary("amqp_payload", Bytes{5})
                                                 .Finish())));
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_MPA_DATA_MESSAGE, r.type);
  EXPECT_EQ((Bytes{5}), r.payload);

  // The application answers; the message carries the session drawn at
  // registration, and the message id says so.
  ZelMpa::BSON headers;
  ASSERT_EQ(0, headers.appendString("amqp_correlationId", "c1"));
  ASSERT_EQ(0, headers.finish());
  rmqClientMessage m = DataMessage(cookie);
  m.amqpHeaders = headers.raw();
  const uint8_t payload[] = {1, 2, 3};
  m.payload = payload;
  m.payloadLen = 3;
  char id[ZelMpa::kMpaMessageIdSize];
  ASSERT_EQ(0, NETSend(&m, id));
  std::vector<Element> sent = Read(&peer);
  ASSERT_EQ(10u, sent.size());
  EXPECT_EQ(sent[9].text + ":" + sent[8].text, std::string(id));
  EXPECT_NE("no-session", sent[9].text);

  // Unsupported and invalid requests are refused with their codes.
  EXPECT_EQ(-2010, NETSendToHost(&m));
  EXPECT_EQ(-2010, NETRegister("zel", kApp, 2, nullptr, &Inbox::Callback, &endpoint_));
  EXPECT_EQ(-2003, NETRegister("zel", nullptr, 1, nullptr, &Inbox::Callback, &endpoint_));
  EXPECT_EQ(-2003, NETRegister("zel", kApp, 1, nullptr, nullptr, &endpoint_));
  EXPECT_TRUE(LogLines::Contains({"MPA2", "Registration Init, Invalid Arguments"}));
  for (uint16_t port : {0, 1, 65535}) {
    rmqClientEndpoint bad{port, nullptr};
    EXPECT_EQ(-2003, NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, &bad)) << port;
  }

  // Closing a cookie that is not registered changes nothing.
  EXPECT_EQ(-2016, NETClose(cookie + 1000));
  ASSERT_TRUE(mpa_test::WriteAll(peer, Frame(Doc().Int64("msg_type", 3).Finish())));
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(3, r.type);

  // The application's close sends no close record back to it.
  EXPECT_EQ(0, NETClose(cookie));
  EXPECT_TRUE(mpa_test::WaitForEof(peer));
  EXPECT_EQ(-2016, NETClose(cookie));
  EXPECT_EQ(-2001, NETSend(&m, nullptr));
  EXPECT_TRUE(LogLines::Contains({"MPA142", "Could not find client with cookieId"}));
  EXPECT_EQ(0u, Inbox::Size());

  // After the stop every entry point says there is no loop.
  EXPECT_EQ(0, NETStop());
  loop_.join();
  EXPECT_TRUE(LogLines::Contains({"MPA128", "RMQCLIENTLIB: NETEventLoop unexpected break"}));
  EXPECT_TRUE(LogLines::Contains({"RMQCLIENTLIB: NETEventLoop stopped"}));
  EXPECT_EQ(-2024, NETStop());
  EXPECT_EQ(-2024, NETSend(&m, nullptr));
  EXPECT_EQ(-2024, NETClose(cookie));
}

TEST_F(NetApiTest, ApplicationHearsOfPeerCloseAndFailedSend) {
  int peerA = -1, peerB = -1;
  const int a = Register();
  ASSERT_GE(a, 0);
  Read(&peerA);
  const int b = Register();
  ASSERT_GE(b, 0);
  Read(&peerB);

  // The MPA drops one connection: one close record for that cookie.
  mpa_.ClosePeer(peerA);
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(a, r.cookie);
  EXPECT_EQ(kApp, r.appType);

  // Messages the library refuses before any client sees them.
  rmqClientMessage m = DataMessage(b);
  EXPECT_EQ(-2004, NETSend(nullptr, nullptr));
  m.cookieId = -1;
  EXPECT_EQ(-2002, NETSend(&m, nullptr));
  m.cookieId = b;
  const uint8_t byte = 0;
  m.payload = &byte;
  m.payloadLen = -1;
  EXPECT_EQ(-2023, NETSend(&m, nullptr));
  m.payload = nullptr;
  m.payloadLen = 0;
  ZelMpa::BSON open;
  ASSERT_EQ(0, open.appendInt("k", 1));
  m.amqpHeaders = open.raw();
  EXPECT_EQ(-2012, NETSend(&m, nullptr));
  m.amqpHeaders = nullptr;
  EXPECT_EQ(0u, Inbox::Size());

  // A send the client refuses closes that client and tells the application.
  m.amqpRoutingKey = nullptr;
  EXPECT_EQ(-1, NETSend(&m, nullptr));
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(b, r.cookie);
  EXPECT_TRUE(mpa_test::WaitForEof(peerB));
  EXPECT_TRUE(LogLines::Contains({"MPA125", "Client returned error code -1 when sending message"}));
}

TEST_F(NetApiTest, ThirtyThirdClientIsRefused) {
  std::vector<int> peers(32, -1);
  for (int& peer : peers) {
    ASSERT_GE(Register(), 0);
    Read(&peer);
  }
  EXPECT_EQ(-2022, Register());
  EXPECT_TRUE(LogLines::Contains({"MPAERR_RMQCLIENTLIB_NUM_CLIENTS_EXCEEDED",
                                  "Number of allowed clients exceeded"}));
  // The refused client had connected and registered; its socket closes with it.
  int refused = -1;
  Read(&refused);
  EXPECT_TRUE(mpa_test::WaitForEof(refused));
  EXPECT_EQ(0u, Inbox::Size());
}

// Runs in a fresh process: the library's ready flag is process-wide and is
// never cleared once an event loop has run.
TEST(NetApiDeathTest, EntryPointsWithoutEventLoopRefuseAfterOneSecond) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
        zel::log_testing::SetSyslogSinkForTest(&LogLines::ToStderr);
        const auto begin = std::chrono::steady_clock::now();
        const int rc = NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, nullptr);
        const auto waited = std::chrono::steady_clock::now() - begin;
        rmqClientMessage m = DataMessage(3);
        std::exit(rc != -2024 ? 1
                  : waited < std::chrono::milliseconds(1000) ? 2
                  : NETSend(&m, nullptr) != -2024 ? 3
                  : NETClose(3) != -2024 ? 4
                  : NETStop() != -2024 ? 5
                  : 0);
      },
      ::testing::ExitedWithCode(0),
      "RMQCLIENTLIB: No running NETEventLoop.*RMQCLIENTLIB: No NETEventLoop running");
}

}  // namespace
