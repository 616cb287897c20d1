#include "mpalib/net_api.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "mpalib/bson_object.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_test_peer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace {

using namespace ZelMpa;
using namespace mpa_test;

// The entry points around a real event loop; delivery through them is
// checked by the management client's tests.
class NetApiTest : public ::testing::Test {
 protected:
  void SetUp() override { Inbox::Clear(); }
  void TearDown() override {
    NETStop();
    EXPECT_TRUE(loop_.WaitFor());
  }

  // Registers once the event loop is up; the registration reached the MPA
  // on `*peer`.
  int Register(int* peer) {
    int rc = kMpaNoEventLoop;
    zel::testing::WaitUntil([&] {
      rc = NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, &endpoint_);
      return rc != kMpaNotStarted && rc != kMpaNoEventLoop;
    });
    *peer = mpa_.AcceptRegistration(kApp);
    return rc;
  }

  zel::testing::LogCapture log_;
  FakeMpa mpa_;
  rmqClientEndpoint endpoint_{mpa_.port(), nullptr};
  zel::testing::BackgroundCall loop_{[] { NETEventLoop(nullptr); }};
};

TEST_F(NetApiTest, EntryPointsAndTheirRefusals) {
  int peer = -1;
  const int cookie = Register(&peer);
  ASSERT_GE(cookie, 0);
  ASSERT_GE(peer, 0);
  // A second event loop is refused at once.
  EXPECT_EQ(0, NETEventLoop(nullptr));

  // A message carries the session drawn at registration, and the message id
  // says so.
  rmqClientMessage m = DataRecord(cookie, "ct", "");
  char id[kMpaMessageIdSize];
  ASSERT_EQ(kMpaOk, NETSend(&m, id));
  const std::vector<Element> sent = FakeMpa::ReadDoc(peer);
  ASSERT_EQ(7u, sent.size());
  EXPECT_EQ(sent[6].value + ":" + sent[5].value, std::string(id));
  EXPECT_NE("no-session", sent[6].value);

  // Unsupported and invalid requests are refused with their codes.
  EXPECT_EQ(kMpaUnsupported, NETSendToHost(&m));
  EXPECT_EQ(kMpaUnsupported, NETRegister("zel", kApp, 2, nullptr, &Inbox::Callback, &endpoint_));
  EXPECT_EQ(kMpaInvalidArgument, NETRegister("zel", nullptr, 1, nullptr, &Inbox::Callback, &endpoint_));
  EXPECT_EQ(kMpaInvalidArgument, NETRegister("zel", kApp, 1, nullptr, nullptr, &endpoint_));
  for (uint16_t port : {0, 1, 65535}) {
    rmqClientEndpoint bad{port, nullptr};
    EXPECT_EQ(kMpaInvalidArgument, NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, &bad));
  }
  EXPECT_EQ(kMpaClientNotFound, NETClose(cookie + 1000));
  EXPECT_EQ(kMpaOk, NETClose(cookie));
  EXPECT_EQ(kMpaSocketError, NETSend(&m, nullptr));
  EXPECT_TRUE(log_.InOrder({"MPA128\"] RMQCLIENTLIB: Existing NETEventLoop already running",
                            "MPA2\"] RMQCLIENTLIB: SendToHost not supported; no-op",
                            "MPA129\"] MPALIB: Invalid client type: 2",
                            "MPA2\"] Registration Init, Invalid Arguments",
                            "MPA2\"] Registration Init, Invalid Arguments",
                            "MPA2\"] MPALIB: Unable to initialize client with invalid port: 0",
                            "invalid port: 1", "invalid port: 65535",
                            "MPA143\"] REGISTRY: Client with index " + std::to_string(cookie + 1000),
                            "MPA142\"] MPALIB: Could not find client with cookieId " +
                                std::to_string(cookie)}));

  // After the stop every entry point says there is no loop.
  EXPECT_EQ(kMpaOk, NETStop());
  ASSERT_TRUE(loop_.WaitFor());
  EXPECT_EQ(kMpaNoEventLoop, NETStop());
  EXPECT_EQ(kMpaNoEventLoop, NETSend(&m, nullptr));
  EXPECT_EQ(kMpaNoEventLoop, NETClose(cookie));
  EXPECT_TRUE(log_.InOrder({"MPA128\"] RMQCLIENTLIB: NETEventLoop unexpected break",
                            "MPA128\"] RMQCLIENTLIB: No NETEventLoop running",
                            "MPA128\"] RMQCLIENTLIB: No running NETEventLoop",
                            "MPA128\"] RMQCLIENTLIB: No running NETEventLoop"}));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(NetApiTest, RefusedMessagesAndAFailedSend) {
  int peer = -1;
  const int cookie = Register(&peer);
  ASSERT_GE(cookie, 0);
  // Messages the library refuses before any client sees them.
  rmqClientMessage m = DataRecord(-1, "ct", "");
  EXPECT_EQ(kMpaNoData, NETSend(nullptr, nullptr));
  EXPECT_EQ(kMpaInvalidCookie, NETSend(&m, nullptr));
  m.cookieId = cookie;
  const uint8_t byte = 0;
  m.payload = &byte;
  m.payloadLen = -1;
  EXPECT_EQ(kMpaInvalidPayload, NETSend(&m, nullptr));
  m.payload = nullptr;
  BSON open;
  ASSERT_EQ(0, open.appendInt("k", 1));
  m.amqpHeaders = open.raw();
  EXPECT_EQ(kMpaBadDocument, NETSend(&m, nullptr));
  EXPECT_EQ(0u, Inbox::Size());

  // A send the client refuses closes that client and tells the application.
  m.amqpHeaders = nullptr;
  m.amqpRoutingKey = nullptr;
  EXPECT_EQ(kMpaFailure, NETSend(&m, nullptr));
  ExpectReceived(RMQ_CLIENT_CLOSE, cookie);
  EXPECT_TRUE(WaitForEof(peer));
  EXPECT_TRUE(log_.InOrder({"MPA125\"] MPALIB: Failed to send null message",
                            "MPA125\"] MPALIB: Failed to send message with invalid cookie Id -1",
                            "MPA125\"] MPALIB: Failed to send message with invalid payload",
                            "MPA125\"] MPALIB: Failed to send message with unfinished or invalid",
                            "MPA125\"] MPALIB: Client returned error code -1 when sending message"}));
}

TEST_F(NetApiTest, ThirtyThirdClientIsRefused) {
  std::vector<int> peers(32, -1);
  for (int& peer : peers) ASSERT_GE(Register(&peer), 0);
  int refused = -1;
  EXPECT_EQ(kMpaTooManyClients, Register(&refused));
  EXPECT_EQ(1u, log_.Count("MPAERR_RMQCLIENTLIB_NUM_CLIENTS_EXCEEDED\"] MPALIB: Number of allowed clients"));
  // The refused client had connected and registered; its socket closes with it.
  EXPECT_GE(refused, 0);
  EXPECT_TRUE(WaitForEof(refused));
  EXPECT_EQ(0u, Inbox::Size());
}

// Runs in a fresh process: the library's ready flag is process-wide and is
// never cleared once an event loop has run.
TEST(NetApiDeathTest, EntryPointsWithoutEventLoopRefuseAfterOneSecond) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT({
    zel::testing::LogCapture capture;
    zel::log_testing::SetConsoleEchoForTest(stderr);
    const auto begin = std::chrono::steady_clock::now();
    const int rc = NETRegister("zel", kApp, 1, nullptr, &Inbox::Callback, nullptr);
    const auto waited = std::chrono::steady_clock::now() - begin;
    rmqClientMessage m = DataRecord(3, "ct", "");
    std::exit(rc != kMpaNoEventLoop                      ? 1
              : waited < std::chrono::milliseconds(1000) ? 2
              : NETSend(&m, nullptr) != kMpaNoEventLoop  ? 3
              : NETClose(3) != kMpaNoEventLoop           ? 4
              : NETStop() != kMpaNoEventLoop             ? 5
                                                         : 0);
  }, ::testing::ExitedWithCode(0),
     "RMQCLIENTLIB: No running NETEventLoop.*RMQCLIENTLIB: No NETEventLoop running");
}

}  // namespace
