#include "mpalib/mpa_lib_client.h"

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "mpalib/bson_object.h"
#include "mpalib/mpa_test_peer.h"
#include "support/log_capture.h"

namespace ZelMpa {
namespace {

using namespace mpa_test;

constexpr std::chrono::milliseconds kNow{0};

// A client registered with the fake MPA: its cookie, the MPA's end of the
// connection and the registration document the MPA read.
struct Conn {
  std::unique_ptr<MpaLibClient> client;
  int cookie = -1;
  int peer = -1;
  std::vector<Element> registration;
};

const Bytes kHeaders = Doc().String("amqp_correlationId", "corr-1").Finish();
const Bytes kFullDataDoc =
    Doc().Int64("msg_type", 8).String("app_type", kApp).String("app_id", "mp-app")
        .Int64("mp-version", (int64_t{7} << 32) | 3).Object("amqp_headers", kHeaders)
        .String("amqp_routing_key", "rk").String("content_type", "application/protobuf")
        .Int64("payload_len", 4).Binary("amqp_payload", Bytes{1, 2, 3, 4})
        .String("amqp_correlationId", "dropped").String("amqp_replyTo", "dropped").Finish();

class MpaLibClientTest : public ::testing::Test {
 protected:
  void SetUp() override { Inbox::Clear(); }

  Conn Open(int connectionType = 1, const bson* headers = nullptr,
            rmqClientCallback callback = &Inbox::Callback) {
    Conn c;
    c.client = std::make_unique<MpaLibClient>(kApp, connectionType, callback);
    EXPECT_EQ(kMpaOk, c.client->Init("127.0.0.1", mpa_.portText().c_str(), headers, &c.cookie));
    c.peer = mpa_.Accept();
    c.registration = FakeMpa::ReadDoc(c.peer);
    return c;
  }
  // Writes `bytes` and lets the client read once they are there.
  static int Feed(Conn& c, const Bytes& bytes) {
    EXPECT_TRUE(WriteAll(c.peer, bytes) && WaitReadable(c.cookie));
    return c.client->Receive();
  }

  zel::testing::LogCapture log_;
  FakeMpa mpa_;
};

TEST_F(MpaLibClientTest, RegistrationsAndDataMessagesHaveTheirLayout) {
  Conn c = Open();
  ASSERT_EQ(5u, c.registration.size());
  const std::string id = c.registration[3].value;
  EXPECT_TRUE(std::regex_match(id, std::regex("^[1-9][0-9]*$")));
  EXPECT_EQ("msg_type=1 app_type=\"DORN_FABRIC_APPLICATION\" app_id=\"zel\" amqp-message-id=\"" + id +
                "\" session-id=\"no-session\"", Render(c.registration));
  // The cookie is the connected descriptor, non-blocking from here on, and a
  // session is drawn.
  EXPECT_EQ(c.cookie, c.client->GetCookieId());
  EXPECT_TRUE(fcntl(c.cookie, F_GETFL) & O_NONBLOCK);
  const std::string session = c.client->GetSessionId();
  EXPECT_TRUE(std::regex_match(session, std::regex("^[0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12}$")));

  // Data messages carry app_id as the boolean true, the next message id of
  // the one global counter, and the session.
  BSON headers(kHeaders.data());
  const uint8_t payload[] = {9, 8, 7, 0, 6};
  rmqClientMessage m = DataRecord(-1, "application/protobuf", "route");
  m.appType = "ignored: the client's own type is sent";
  m.amqpHeaders = headers.raw();
  m.payload = payload;
  m.payloadLen = sizeof payload;
  char out[kMpaMessageIdSize];
  std::memset(out, 'x', sizeof out);
  ASSERT_EQ(kMpaOk, c.client->Send(&m, session.c_str(), out));
  const std::string next = std::to_string(std::stoull(id) + 1);
  EXPECT_EQ("msg_type=3 app_type=\"DORN_FABRIC_APPLICATION\" app_id=true amqp_headers=doc:" + Hex(kHeaders) +
                " content_type=\"application/protobuf\" amqp_routing_key=\"route\" "
                "amqp_payload=bin0:0908070006 payload_len=5 amqp-message-id=\"" + next +
                "\" session-id=\"" + session + "\"", Render(FakeMpa::ReadDoc(c.peer)));
  EXPECT_EQ(session + ":" + next, std::string(out));
  for (size_t i = std::strlen(out); i < sizeof out; ++i) ASSERT_EQ('\0', out[i]) << i;

  // Every registration draws a fresh session; connection type 3 registers
  // as type 6, with the headers given.
  Conn second = Open(3, headers.raw());
  EXPECT_EQ("msg_type=6 app_type=\"DORN_FABRIC_APPLICATION\" app_id=\"zel\" amqp_headers=doc:" + Hex(kHeaders) +
                " amqp-message-id=\"" + std::to_string(std::stoull(next) + 1) + "\" session-id=\"no-session\"",
            Render(second.registration));
  EXPECT_NE(session, second.client->GetSessionId());
}

TEST_F(MpaLibClientTest, InitFailuresLeaveNoCookie) {
  const std::string closedPort = FakeMpa(false).portText();
  const struct { const char *ip, *port; int connectionType, rc; const char* line; } cases[] = {
      {nullptr, "1", 1, kMpaInvalidArgument, "MPA2\"] MPALIBCLIENT: Unable to initialize client"},
      {"127.0.0.1", nullptr, 1, kMpaInvalidArgument, "with null IP or port"},
      {"127.0.0.1", "1", 2, kMpaFailure, "MPA122\"] MPALIBCLIENT: HCOM is not supported"},
      {"127.0.0.1", "1", 4, kMpaFailure, "HCOM is not supported in this release"},
      {"127.0.0.1", "1", 9, kMpaUnsupported, "MPA129\"] MPALIBCLIENT: Invalid client connection type specified 9"},
      // Nothing listens: a socket exception, logged at debug level only, and
      // the socket is closed.
      {"127.0.0.1", closedPort.c_str(), 1, kMpaSocketError, "Client triggered close"},
  };
  for (const auto& t : cases) {
    log_.Clear();
    MpaLibClient client(kApp, t.connectionType, &Inbox::Callback);
    int cookie = 5;
    EXPECT_EQ(t.rc, client.Init(t.ip, t.port, nullptr, &cookie)) << t.line;
    EXPECT_EQ(-1, cookie);
    EXPECT_EQ("no-session", client.GetSessionId());
    EXPECT_EQ(1u, log_.Count(t.line));
    EXPECT_EQ(0u, log_.Count("MPA101") + log_.Count("MPA132"));  // no "Couldn't get a valid cookie"
  }
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibClientTest, SendEdgeCases) {
  Conn c = Open();
  const std::string session = c.client->GetSessionId();
  char id[kMpaMessageIdSize];
  // Missing content type or routing key: nothing is written; the next frame
  // on the wire is the valid message below.
  rmqClientMessage noType = DataRecord(-1, nullptr, "rk"), noKey = DataRecord(-1, "ct", nullptr);
  EXPECT_EQ(kMpaFailure, c.client->Send(&noType, session.c_str(), id));
  EXPECT_EQ(session + ":no-seq", std::string(id));
  EXPECT_EQ(kMpaFailure, c.client->Send(&noKey, session.c_str(), nullptr));
  EXPECT_EQ(kMpaInvalidArgument, c.client->Send(nullptr, session.c_str(), id));
  EXPECT_EQ(session + ":no-seq", std::string(id));
  EXPECT_TRUE(log_.InOrder({"MPA125\"] MPALIBCLIENT: amqpContentType is not specified",
                            "MPA125\"] MPALIBCLIENT: amqpRoutingKey is not specified"}));

  // A payload pointer with length 0 writes neither payload key; a missing
  // session is sent and reported as "no-session".
  rmqClientMessage m = DataRecord(-1, "ct", "rk");
  m.payload = reinterpret_cast<const uint8_t*>("x");
  ASSERT_EQ(kMpaOk, c.client->Send(&m, nullptr, id));
  const std::vector<Element> msg = FakeMpa::ReadDoc(c.peer);
  ASSERT_EQ(7u, msg.size());
  EXPECT_EQ("msg_type=3 app_type=\"DORN_FABRIC_APPLICATION\" app_id=true content_type=\"ct\" "
            "amqp_routing_key=\"rk\" amqp-message-id=\"" + msg[5].value + "\" session-id=\"no-session\"",
            Render(msg));
  EXPECT_EQ("no-session:" + msg[5].value, std::string(id));

  // Headers that are not a finished document are refused by the codec.
  BSON open;
  ASSERT_EQ(0, open.appendInt("k", 1));
  m.amqpHeaders = open.raw();
  EXPECT_EQ(BSON_RC_NOT_FINISHED, c.client->Send(&m, session.c_str(), nullptr));
  EXPECT_EQ(1u, log_.Count("MPA1501\"] MPALIBCLIENT: Failed in appending bson amqpHeaders"));

  // After a close the socket stays without a descriptor: the send fails on
  // it as a socket error.
  m.amqpHeaders = nullptr;
  c.client->Close(false);
  EXPECT_EQ(kMpaSendFailed, c.client->Send(&m, session.c_str(), nullptr));
  EXPECT_TRUE(log_.InOrder({"MPA101\"] MPALIBCLIENT: SocketException: While Sending  SocketError on sd -1, in send",
                            "MPA122\"] MPALIBCLIENT: Socket Send exception for client (DORN_FABRIC_APPLICATION): "
                            "SocketError on sd -1, in send"}));
}

TEST_F(MpaLibClientTest, ReceiveDeliversEveryFieldAndSkipsUnknownKeys) {
  Conn c = Open();
  EXPECT_EQ(kMpaOk, Feed(c, Frame(kFullDataDoc)));
  EXPECT_EQ("type=8 cookie=" + std::to_string(c.cookie) +
                " app=DORN_FABRIC_APPLICATION id=mp-app rk=rk ct=application/protobuf v=7.3 len=4 "
                "payload=01020304 headers=" + Hex(kHeaders), Inbox::Take(kNow).line);

  // Unknown keys are logged and skipped; missing fields stay zero.
  EXPECT_EQ(kMpaOk, Feed(c, Frame(Doc().String("extra_s", "x").Int64("extra_l", 42)
                                      .Object("extra_o", Doc().Finish()).Binary("extra_b", Bytes{1, 2, 3})
                                      .Raw(16, "extra_i", Le(1, 4)).Raw(1, "extra_d", Le(0, 8))
                                      .String("content_type", "ct").Finish())));
  EXPECT_EQ("type=0 cookie=" + std::to_string(c.cookie) + " ct=ct len=0", Inbox::Take(kNow).line);
  EXPECT_TRUE(log_.InOrder({"MPALIBCLIENT: Unsupported string key:extra_s and value:x in BSON",
                            "MPALIBCLIENT: Unsupported long Key extra_l and value 42 in BSON",
                            "MPA108\"] MPALIBCLIENT: Unsupported Key extra_o of type BSON",
                            "MPA108\"] MPALIBCLIENT: Unexpected Key = extra_b of Raw type and len 3",
                            "MPALIBCLIENT: Nonsupported type 2", "MPALIBCLIENT: Nonsupported type 4"}));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibClientTest, FramesAreAssembledAcrossAndWithinReads) {
  Conn c = Open();
  const Bytes frame = Frame(kFullDataDoc);
  auto piece = [&frame](size_t from, size_t to) { return Bytes(&frame[from], &frame[0] + to); };
  // Every cut point: 1 to 3 cut the length prefix, 4 leaves exactly a whole
  // prefix at the end of the first read. Then the prefix over three reads.
  for (size_t cut = 1; cut < frame.size(); ++cut) {
    ASSERT_EQ(kMpaOk, Feed(c, piece(0, cut)));
    ASSERT_EQ(0u, Inbox::Size()) << cut;
    ASSERT_EQ(kMpaOk, Feed(c, piece(cut, frame.size())));
    ASSERT_EQ((Bytes{1, 2, 3, 4}), Inbox::Take(kNow).payload) << cut;
  }
  for (auto [from, to] : {std::pair<size_t, size_t>{0, 1}, {1, 3}, {3, 4}, {4, frame.size()}}) {
    ASSERT_EQ(kMpaOk, Feed(c, piece(from, to)));
  }
  EXPECT_EQ(8, Inbox::Take(kNow).type);

  // Two frames and the start of a third in one read: two deliveries in order;
  // a read that ends exactly with a message leaves nothing behind.
  const Bytes third = TypeFrame(9);
  ASSERT_EQ(kMpaOk, Feed(c, Cat(Cat(TypeFrame(2), TypeFrame(3)), Bytes(&third[0], &third[6]))));
  EXPECT_EQ(2, Inbox::Take(kNow).type);
  EXPECT_EQ(3, Inbox::Take(kNow).type);
  EXPECT_EQ(0u, Inbox::Size());
  ASSERT_EQ(kMpaOk, Feed(c, Bytes(&third[6], &third[0] + third.size())));
  EXPECT_EQ(9, Inbox::Take(kNow).type);
  ASSERT_EQ(kMpaOk, Feed(c, TypeFrame(13)));
  EXPECT_EQ(13, Inbox::Take(kNow).type);

  // A message of many reads (at most 2000 bytes each).
  Bytes payload(10000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(WriteAll(c.peer, Frame(Doc().Int64("payload_len", 10000).Binary("amqp_payload", payload).Finish())));
  int reads = 0;
  for (; Inbox::Size() == 0 && WaitReadable(c.cookie); ++reads) ASSERT_EQ(kMpaOk, c.client->Receive());
  EXPECT_GE(reads, 6);
  EXPECT_EQ(payload, Inbox::Take(kNow).payload);
}

// The frame's length rules: the document's own length field is not read, the
// elements end at the first terminator, and payload_len is delivered as sent.
// Only a frame that cannot be read without going outside its bytes is
// dropped; the connection stays and the next frame is read.
TEST_F(MpaLibClientTest, OddFramesAreDeliveredUnlessReadingThemLeavesTheFrame) {
  const Bytes good = Doc().Int64("msg_type", 8).Finish();
  Bytes longer = good, noTerminator = good;
  ++longer[0];
  noTerminator.back() = 1;
  auto payload = [](std::optional<int64_t> len, const Bytes& bin) {
    Doc d;
    d.Int64("msg_type", 8);
    if (len) d.Int64("payload_len", *len);
    if (!bin.empty()) d.Binary("amqp_payload", bin);
    return Frame(d.Finish());
  };
  constexpr int64_t kDropped = -99;
  // Each frame with the payload length it is delivered with, or kDropped.
  const struct { const char* name; Bytes frame; int64_t payloadLen; } cases[] = {
      {"empty frame", Frame({}), kDropped},
      {"length field 1", {0, 0, 0, 1, 0}, kDropped},
      {"four bytes", {0, 0, 0, 4, 5, 0, 0, 0}, kDropped},
      {"document length above the frame", Frame(longer), 0},
      {"bytes after the terminator", Frame(Cat(good, {7, 7})), 0},
      {"last byte not a terminator", Frame(noTerminator), kDropped},
      {"string past the end", Frame(Doc().Raw(2, "app_type", {0x40, 0, 0, 0, 'a', 0}).Finish()), kDropped},
      {"no payload_len", payload(std::nullopt, {1, 2}), 0},
      {"payload_len of the binary", payload(2, {1, 2}), 2},
      {"payload_len below the binary", payload(1, {1, 2}), 1},
      {"negative payload_len", payload(-1, {1}), -1},
      {"payload_len above the binary", payload(3, {1, 2}), kDropped},
      {"payload_len without payload", payload(9, {}), kDropped},
  };
  Conn c = Open();
  EXPECT_EQ(kMpaOk, Feed(c, Cat(Frame(Doc().Finish()), TypeFrame(3))));  // the empty document
  EXPECT_EQ(0, Inbox::Take(kNow).type);
  EXPECT_EQ(3, Inbox::Take(kNow).type);
  for (const auto& t : cases) {
    log_.Clear();
    EXPECT_EQ(kMpaOk, Feed(c, Cat(t.frame, TypeFrame(3)))) << t.name;
    EXPECT_EQ(t.payloadLen == kDropped, log_.Count("MPA131\"] MPALIBCLIENT: Dropped a frame") == 1) << t.name;
    if (t.payloadLen != kDropped) {
      EXPECT_EQ(t.payloadLen, Inbox::Take(kNow).payloadLen) << t.name;
    }
    EXPECT_EQ(3, Inbox::Take(kNow).type) << t.name;
    EXPECT_EQ(0u, Inbox::Size()) << t.name;
  }
}

TEST_F(MpaLibClientTest, WrongTypeForKnownKeyThrowsBsonException) {
  const std::pair<Bytes, std::string> cases[] = {
      {Doc().String("msg_type", "3").Finish(), "long"},
      {Doc().Raw(16, "mp-version", Le(3, 4)).Finish(), "long"},
      {Doc().Int64("app_type", 1).Finish(), "string"},
      {Doc().Raw(8, "app_id", {1}).Finish(), "string"},
      {Doc().Int64("amqp_replyTo", 1).Finish(), "string"},
      {Doc().String("amqp_headers", "h").Finish(), "BSON"},
      {Doc().String("amqp_payload", "p").Finish(), "Binary"},
  };
  Conn c = Open();
  for (const auto& [doc, kind] : cases) {
    try {
      Feed(c, Frame(doc));
      ADD_FAILURE() << "no exception for " << kind;
    } catch (BsonException* raw) {
      std::unique_ptr<BsonException> e(raw);
      EXPECT_EQ("MpaLibClient: Getting " + kind + " value from BSON failed.", e->what());
    }
  }
  // The messages were dropped whole; the next one is read from its start.
  EXPECT_EQ(kMpaOk, Feed(c, TypeFrame(2)));
  EXPECT_EQ(2, Inbox::Take(kNow).type);
  EXPECT_EQ(0u, Inbox::Size());
}

// Only a frame followed by more bytes of the same read has its delivery
// status counted; the frame that ends the read is delivered and the read ends.
TEST_F(MpaLibClientTest, MessageWithoutCallbackIsDropped) {
  Conn c = Open(1, nullptr, nullptr);
  EXPECT_EQ(kMpaOk, Feed(c, Frame(kFullDataDoc)));
  EXPECT_EQ(kMpaFailure, Feed(c, Cat(Frame(kFullDataDoc), Frame(kFullDataDoc))));
  EXPECT_EQ(kMpaNoCallback, c.client->Close(true));
  const std::string noCallback =
      "MPA130\"] MPALIBCLIENT: No function callback found for client:DORN_FABRIC_APPLICATION";
  EXPECT_EQ(3u, log_.Count(noCallback));
  EXPECT_EQ(1u, log_.Count("Returned error code"));
  EXPECT_TRUE(log_.InOrder(
      {noCallback, noCallback, noCallback,
       "MPA131\"] MPALIBCLIENT: Returned error code -2026 when receiving message - chunk index: 0",
       "MPA130\"] MPALIBCLIENT: Invalid callback for client(DORN_FABRIC_APPLICATION)"}));
}

TEST_F(MpaLibClientTest, CloseKeepsTheClosedSocket) {
  Conn c = Open();
  EXPECT_EQ(kMpaOk, c.client->Close(true));
  EXPECT_EQ("type=5 cookie=" + std::to_string(c.cookie) + " app=DORN_FABRIC_APPLICATION id=zel len=0 raw=app",
            Inbox::Take(kNow).line);
  EXPECT_EQ("no-session", c.client->GetSessionId());
  EXPECT_TRUE(WaitForEof(c.peer));

  // Later calls meet a socket without a descriptor, not a missing socket; a
  // second close notifies again, with the cookie the client now has.
  EXPECT_EQ(-1, c.client->GetCookieId());
  EXPECT_EQ(-1, c.client->GetSocketDescriptor());
  EXPECT_EQ(kMpaFailure, c.client->Receive());
  EXPECT_TRUE(log_.InOrder({"MPA122\"] Attempted to recv 2000 bytes from sd -1",
                            "MPA122\"] MPALIBCLIENT: Socket Exception while processing recvall on socket -1, "
                            "for AppName DORN_FABRIC_APPLICATION: Reason SocketError"}));
  EXPECT_EQ(kMpaOk, c.client->Close(true));
  EXPECT_EQ("type=5 cookie=-1 app=DORN_FABRIC_APPLICATION id=zel len=0 raw=app", Inbox::Take(kNow).line);
  EXPECT_EQ(0u, log_.Count("MPA132") + log_.Count("is not open or is already closed"));

  // Without notify nothing is delivered; a client that never had a socket
  // says so.
  EXPECT_EQ(kMpaOk, Open().client->Close(false));
  EXPECT_EQ(0u, Inbox::Size());
  MpaLibClient never(kApp, 1, &Inbox::Callback);
  EXPECT_EQ(kMpaFailure, never.Receive());
  EXPECT_EQ(kMpaOk, never.Close(false));
  EXPECT_TRUE(log_.InOrder({"MPA132\"] MPALIBCLIENT: Socket missing for app: DORN_FABRIC_APPLICATION",
                            "MPA132\"] MPALIBCLIENT:  Bad socket for app: DORN_FABRIC_APPLICATION",
                            "Socket of client (DORN_FABRIC_APPLICATION) is not open"}));
}

// A peer that takes nothing for the whole retry budget ends the process with
// status 0, so that the supervisor restarts it.
TEST_F(MpaLibClientTest, SendThatNeverGetsRoomExitsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT({
    zel::log_testing::SetConsoleEchoForTest(stderr);
    MpaLibClient::SetSendRetryLimitForTest(20);
    Conn c = Open();
    // Far more than the socket buffers of both ends can hold.
    std::vector<uint8_t> big(32 * 1024 * 1024, 0x5a);
    rmqClientMessage m = DataRecord(-1, "ct", "rk");
    m.payload = big.data();
    m.payloadLen = static_cast<int64_t>(big.size());
    c.client->Send(&m, c.client->GetSessionId().c_str(), nullptr);
    std::exit(3);  // should the send ever return
  }, ::testing::ExitedWithCode(0),
     "after 21 tries.*Restarting :: problem while sending data from app to MPA.");
}

}  // namespace
}  // namespace ZelMpa
