#include "mpalib/mpa_lib_client.h"

#include <fcntl.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "mpa_test_peer.h"
#include "mpalib/bson_object.h"

namespace ZelMpa {
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

bool IsUuidText(const std::string& s) {
  static const std::regex uuid("^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$");
  return std::regex_match(s, uuid);
}

// Element keys and types in document order, e.g. "msg_type:18".
std::vector<std::string> Layout(const std::vector<Element>& elements) {
  std::vector<std::string> out;
  for (const Element& e : elements) out.push_back(e.key + ":" + std::to_string(e.type));
  return out;
}

const Element* Find(const std::vector<Element>& elements, const std::string& key) {
  for (const Element& e : elements) {
    if (e.key == key) return &e;
  }
  return nullptr;
}

// A client registered with the fake MPA: its cookie, the MPA's end of the
// connection and the registration document the MPA read.
struct Conn {
  std::unique_ptr<MpaLibClient> client;
  int cookie = -1;
  int peer = -1;
  std::vector<Element> registration;
};

rmqClientMessage Message(int32_t type, const char* contentType, const char* routingKey) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = type;
  m.amqpContentType = contentType;
  m.amqpRoutingKey = routingKey;
  return m;
}

class MpaLibClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
    zel::log_testing::SetSyslogSinkForTest(&LogLines::Sink);
    LogLines::Clear();
    Inbox::Clear();
  }

  Conn Open(int connectionType = 1, const bson* headers = nullptr,
            rmqClientCallback callback = &Inbox::Callback) {
    Conn c;
    c.client = std::make_unique<MpaLibClient>(kApp, connectionType, callback);
    EXPECT_EQ(0, c.client->Init("127.0.0.1", mpa_.portText().c_str(), headers, &c.cookie));
    c.peer = mpa_.Accept();
    EXPECT_GE(c.peer, 0);
    c.registration = ReadMessage(c.peer);
    return c;
  }

  // The document the library wrote next on `peer`.
  static std::vector<Element> ReadMessage(int peer) {
    Bytes doc;
    std::vector<Element> elements;
    EXPECT_TRUE(FakeMpa::ReadFrame(peer, &doc));
    EXPECT_TRUE(mpa_test::ParseDoc(doc, &elements));
    return elements;
  }

  // Writes `bytes` and lets the client read once they are there.
  static int Feed(Conn& c, const Bytes& bytes) {
    EXPECT_TRUE(mpa_test::WriteAll(c.peer, bytes));
    EXPECT_TRUE(mpa_test::WaitReadable(c.cookie));
    return c.client->Receive();
  }

  static Bytes FullDataDoc() {
    return Doc()
        .Int64("msg_type", 8)
        .String("app_type", kApp)
        .String("app_id", "mp-app")
        .Int64("mp-version", (int64_t{7} << 32) | 3)
        .Object("amqp_headers",
                Doc().String("amqp_correlationId", "corr-1").String("amqp_replyTo", "q").Finish())
        .String("amqp_routing_key", "rk")
        .String("content_type", "application/protobuf")
        .Int64("payload_len", 4)
        .Binary("amqp_payload", Bytes{1, 2, 3, 4})
        .String("amqp_correlationId", "dropped")
        .String("amqp_replyTo", "dropped")
        .Finish();
  }

  FakeMpa mpa_;
};

TEST_F(MpaLibClientTest, RegistrationFrameLayoutAndCookie) {
  Conn c = Open();
  const std::vector<Element>& reg = c.registration;
  ASSERT_EQ((std::vector<std::string>{"msg_type:18", "app_type:2", "app_id:2",
                                      "amqp-message-id:2", "session-id:2"}),
            Layout(reg));
  EXPECT_EQ(1, reg[0].i64);
  EXPECT_EQ(kApp, reg[1].text);
  EXPECT_EQ("zel", reg[2].text);
  EXPECT_TRUE(std::regex_match(reg[3].text, std::regex("^[1-9][0-9]*$")));
  EXPECT_EQ("no-session", reg[4].text);

  // The cookie is the connected descriptor, non-blocking from here on.
  EXPECT_EQ(c.cookie, c.client->GetCookieId());
  EXPECT_TRUE(fcntl(c.cookie, F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(IsUuidText(c.client->GetSessionId())) << c.client->GetSessionId();

  // Every registration draws a fresh session and a higher message id;
  // connection type 3 registers as type 6, with the headers given.
  BSON headers;
  ASSERT_EQ(0, headers.appendString("vertical", "dorn"));
  ASSERT_EQ(0, headers.finish());
  Conn second = Open(3, headers.raw());
  ASSERT_EQ((std::vector<std::string>{"msg_type:18", "app_type:2", "app_id:2", "amqp_headers:3",
                                      "amqp-message-id:2", "session-id:2"}),
            Layout(second.registration));
  EXPECT_EQ(6, second.registration[0].i64);
  EXPECT_EQ(Doc().String("vertical", "dorn").Finish(), second.registration[3].bytes);
  EXPECT_NE(c.client->GetSessionId(), second.client->GetSessionId());
  EXPECT_GT(std::stoull(second.registration[4].text), std::stoull(reg[3].text));
}

TEST_F(MpaLibClientTest, InitFailures) {
  int cookie = 5;
  MpaLibClient client(kApp, 1, &Inbox::Callback);
  EXPECT_EQ(-2003, client.Init(nullptr, "1", nullptr, &cookie));
  EXPECT_EQ(-1, cookie);
  EXPECT_EQ(-2003, client.Init("127.0.0.1", nullptr, nullptr, &cookie));
  for (int hcom : {2, 4}) {
    EXPECT_EQ(-1, MpaLibClient(kApp, hcom, &Inbox::Callback).Init("127.0.0.1", "1", nullptr, &cookie));
  }
  EXPECT_TRUE(LogLines::Contains({"MPA122", "HCOM is not supported in this release"}));
  EXPECT_EQ(-2010, MpaLibClient(kApp, 9, &Inbox::Callback).Init("127.0.0.1", "1", nullptr, &cookie));
  EXPECT_TRUE(LogLines::Contains({"MPA129", "Invalid client connection type specified 9"}));

  // Nothing listens: a socket exception, reported at debug level only.
  int port;
  {
    FakeMpa gone;
    port = gone.port();
  }
  cookie = 5;
  EXPECT_EQ(-2001, client.Init("127.0.0.1", std::to_string(port).c_str(), nullptr, &cookie));
  EXPECT_EQ(-1, cookie);
  EXPECT_EQ("no-session", client.GetSessionId());
  EXPECT_EQ(-1, client.GetCookieId());
  EXPECT_FALSE(LogLines::Contains({"Couldn't get a valid cookie id"}));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibClientTest, DataMessageLayout) {
  Conn c = Open();
  const std::string session = c.client->GetSessionId();
  BSON headers;
  ASSERT_EQ(0, headers.appendString("amqp_correlationId", "c-9"));
  ASSERT_EQ(0, headers.finish());
  const uint8_t payload[] = {9, 8, 7, 0, 6};
  rmqClientMessage m = Message(3, "application/protobuf", "route");
  m.appType = "ignored: the client's own type is sent";
  m.cookieId = c.cookie;
  m.amqpHeaders = headers.raw();
  m.payload = payload;
  m.payloadLen = sizeof payload;
  char id[kMpaMessageIdSize];
  std::memset(id, 'x', sizeof id);
  ASSERT_EQ(0, c.client->Send(&m, session.c_str(), id));

  std::vector<Element> msg = ReadMessage(c.peer);
  ASSERT_EQ((std::vector<std::string>{"msg_type:18", "app_type:2", "app_id:8", "amqp_headers:3",
                                      "content_type:2", "amqp_routing_key:2", "amqp_payload:5",
                                      "payload_len:18", "amqp-message-id:2", "session-id:2"}),
            Layout(msg));
  EXPECT_EQ(3, msg[0].i64);
  EXPECT_EQ(kApp, msg[1].text);
  EXPECT_EQ(1, msg[2].i64);  // boolean true, not a string, in data messages
  EXPECT_EQ(Doc().String("amqp_correlationId", "c-9").Finish(), msg[3].bytes);
  EXPECT_EQ("application/protobuf", msg[4].text);
  EXPECT_EQ("route", msg[5].text);
  EXPECT_EQ(0, msg[6].subtype);
  EXPECT_EQ(Bytes(payload, payload + sizeof payload), msg[6].bytes);
  EXPECT_EQ(5, msg[7].i64);
  // One global counter numbers all messages.
  EXPECT_EQ(std::to_string(std::stoull(c.registration[3].text) + 1), msg[8].text);
  EXPECT_EQ(session, msg[9].text);
  EXPECT_EQ(session + ":" + msg[8].text, std::string(id));
  for (size_t i = std::strlen(id); i < sizeof id; ++i) ASSERT_EQ('\0', id[i]) << i;
}

TEST_F(MpaLibClientTest, SendEdgeCases) {
  Conn c = Open();
  const std::string session = c.client->GetSessionId();
  const uint8_t payload[] = {1};
  char id[kMpaMessageIdSize];

  // Missing content type or routing key: -1 and nothing is written; the
  // next frame on the wire is the valid message below.
  rmqClientMessage m = Message(3, nullptr, "rk");
  EXPECT_EQ(-1, c.client->Send(&m, session.c_str(), id));
  EXPECT_EQ(session + ":no-seq", std::string(id));
  EXPECT_TRUE(LogLines::Contains({"amqpContentType is not specified"}));
  m = Message(3, "ct", nullptr);
  EXPECT_EQ(-1, c.client->Send(&m, session.c_str(), nullptr));
  EXPECT_EQ(-2003, c.client->Send(nullptr, session.c_str(), id));
  EXPECT_EQ(session + ":no-seq", std::string(id));

  // A payload pointer with length 0 writes neither payload key; a missing
  // session is sent and reported as "no-session".
  m = Message(3, "ct", "rk");
  m.payload = payload;
  ASSERT_EQ(0, c.client->Send(&m, nullptr, id));
  std::vector<Element> msg = ReadMessage(c.peer);
  EXPECT_EQ(nullptr, Find(msg, "amqp_payload"));
  EXPECT_EQ(nullptr, Find(msg, "payload_len"));
  EXPECT_EQ(nullptr, Find(msg, "amqp_headers"));
  ASSERT_NE(nullptr, Find(msg, "session-id"));
  EXPECT_EQ("no-session", Find(msg, "session-id")->text);
  EXPECT_EQ("no-session:" + Find(msg, "amqp-message-id")->text, std::string(id));

  // Headers that are not a finished document are refused by the codec.
  BSON open;
  ASSERT_EQ(0, open.appendInt("k", 1));
  m.amqpHeaders = open.raw();
  EXPECT_EQ(-1132, c.client->Send(&m, session.c_str(), nullptr));
  EXPECT_TRUE(LogLines::Contains({"MPA1501", "Failed in appending bson amqpHeaders"}));

  // After a close the send fails.
  m.amqpHeaders = nullptr;
  c.client->Close(false);
  EXPECT_EQ(-2005, c.client->Send(&m, session.c_str(), nullptr));
}

TEST_F(MpaLibClientTest, ReceiveDeliversEveryField) {
  Conn c = Open();
  EXPECT_EQ(0, Feed(c, Frame(FullDataDoc())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(8, r.type);
  EXPECT_EQ(kApp, r.appType);
  EXPECT_EQ("mp-app", r.appId);
  EXPECT_EQ(c.cookie, r.cookie);
  EXPECT_EQ(7, r.major);
  EXPECT_EQ(3, r.minor);
  EXPECT_EQ("rk", r.routingKey);
  EXPECT_EQ("application/protobuf", r.contentType);
  EXPECT_EQ(4, r.payloadLen);
  EXPECT_EQ((Bytes{1, 2, 3, 4}), r.payload);
  ASSERT_TRUE(r.headers);
  std::vector<Element> headers;
  ASSERT_TRUE(mpa_test::ParseDoc(*r.headers, &headers));
  ASSERT_EQ(2u, headers.size());
  EXPECT_EQ("amqp_correlationId", headers[0].key);
  EXPECT_EQ("corr-1", headers[0].text);
  EXPECT_FALSE(r.rawBufferIsAppType);
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibClientTest, UnknownKeysAreLoggedAndMissingFieldsStayZero) {
  Conn c = Open();
  EXPECT_EQ(0, Feed(c, Frame(Doc()
                                 .String("extra_s", "x")
                                 .Int64("extra_l", 42)
                                 .Object("extra_o", Doc().Finish())
                                 .Binary("extra_b", Bytes{1, 2, 3})
                                 .Int32("extra_i", 1)
                                 .Double("extra_d", 1.5)
                                 .String("content_type", "ct")
                                 .Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(0, r.type);
  EXPECT_FALSE(r.appType);
  EXPECT_FALSE(r.appId);
  EXPECT_FALSE(r.payload);
  EXPECT_FALSE(r.headers);
  EXPECT_EQ(0, r.payloadLen);
  EXPECT_EQ("ct", r.contentType);
  EXPECT_TRUE(LogLines::Contains({"Unsupported string key:extra_s and value:x in BSON, ignoring"}));
  EXPECT_TRUE(LogLines::Contains({"Unsupported long Key extra_l and value 42 in BSON, ignoring."}));
  EXPECT_TRUE(LogLines::Contains({"MPA108", "Unsupported Key extra_o of type BSON, ignoring."}));
  EXPECT_TRUE(LogLines::Contains({"MPA108", "Unexpected Key = extra_b of Raw type and len 3."}));
  EXPECT_TRUE(LogLines::Contains({"MPALIBCLIENT: Nonsupported type 2"}));  // int32
  EXPECT_TRUE(LogLines::Contains({"MPALIBCLIENT: Nonsupported type 4"}));  // double
}

TEST_F(MpaLibClientTest, FrameSplitAnywhereIsAssembled) {
  Conn c = Open();
  const Bytes frame = Frame(FullDataDoc());
  auto expectDelivered = [] {
    Received r;
    ASSERT_TRUE(Inbox::Take(&r, 0));
    EXPECT_EQ(8, r.type);
    EXPECT_EQ((Bytes{1, 2, 3, 4}), r.payload);
    EXPECT_TRUE(r.headers && !r.headers->empty());
  };
  // Every cut point: 1 to 3 cut the length prefix, 4 leaves exactly a whole
  // prefix at the end of the first read.
  for (size_t cut = 1; cut < frame.size(); ++cut) {
    SCOPED_TRACE(cut);
    ASSERT_EQ(0, Feed(c, Bytes(frame.begin(), frame.begin() + cut)));
    ASSERT_EQ(0u, Inbox::Size());
    ASSERT_EQ(0, Feed(c, Bytes(frame.begin() + cut, frame.end())));
    expectDelivered();
  }
  // The prefix over three reads.
  const std::pair<int, int> prefixPieces[] = {{0, 1}, {1, 3}, {3, 4}};
  for (auto [from, to] : prefixPieces) {
    ASSERT_EQ(0, Feed(c, Bytes(frame.begin() + from, frame.begin() + to)));
  }
  ASSERT_EQ(0u, Inbox::Size());
  ASSERT_EQ(0, Feed(c, Bytes(frame.begin() + 4, frame.end())));
  expectDelivered();
}

TEST_F(MpaLibClientTest, SeveralFramesInOneReadAreDeliveredInOrder) {
  Conn c = Open();
  Bytes both = Frame(Doc().Int64("msg_type", 2).Finish());
  Bytes second = Frame(Doc().Int64("msg_type", 3).String("amqp_routing_key", "b").Finish());
  Bytes third = Frame(Doc().Int64("msg_type", 9).Finish());
  both.insert(both.end(), second.begin(), second.end());
  // The third frame is cut after its prefix and two bytes of its document.
  both.insert(both.end(), third.begin(), third.begin() + 6);
  ASSERT_EQ(0, Feed(c, both));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(2, r.type);
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(3, r.type);
  EXPECT_EQ("b", r.routingKey);
  EXPECT_EQ(0u, Inbox::Size());
  ASSERT_EQ(0, Feed(c, Bytes(third.begin() + 6, third.end())));
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(9, r.type);
  // A read that ended exactly with a message left nothing behind.
  ASSERT_EQ(0, Feed(c, Frame(Doc().Int64("msg_type", 13).Finish())));
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(13, r.type);
}

TEST_F(MpaLibClientTest, LargeMessageSpansManyReads) {
  Conn c = Open();
  Bytes payload(10000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 7);
  ASSERT_TRUE(mpa_test::WriteAll(
      c.peer, Frame(Doc().Int64("msg_type", 8).Binary("amqp_payload", payload).Finish())));
  int reads = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (Inbox::Size() == 0 && std::chrono::steady_clock::now() < deadline) {
    if (!mpa_test::WaitReadable(c.cookie, 100)) continue;
    ASSERT_EQ(0, c.client->Receive());
    ++reads;
  }
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_GE(reads, 6);  // at most 2000 bytes per read
  // Without payload_len the length of the binary is reported.
  EXPECT_EQ(10000, r.payloadLen);
  EXPECT_EQ(payload, r.payload);
}

TEST_F(MpaLibClientTest, PeerThatClosesMidFrameEndsTheClientsStream) {
  Conn c = Open();
  const Bytes frame = Frame(FullDataDoc());
  ASSERT_TRUE(mpa_test::WriteAll(c.peer, Bytes(frame.begin(), frame.begin() + frame.size() / 2)));
  mpa_.ClosePeer(c.peer);
  ASSERT_TRUE(mpa_test::WaitReadable(c.cookie));
  EXPECT_EQ(-1, c.client->Receive());
  EXPECT_TRUE(LogLines::Contains({"MPA122", "Socket Exception while processing recvall on socket",
                                  "Reason SocketShutdown"}));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibClientTest, MalformedFramesAreNotDelivered) {
  const Bytes good = Doc().Int64("msg_type", 8).Finish();
  Bytes lengthMismatch = good;
  ++lengthMismatch[0];
  Bytes noTerminator = good;
  noTerminator.back() = 1;
  const std::pair<const char*, Bytes> cases[] = {
      {"empty frame", Frame(Bytes{})},
      {"document length differs from frame", Frame(lengthMismatch)},
      {"no closing NUL", Frame(noTerminator)},
      {"string runs past the end",
       Frame(Doc().Raw(2, "app_type", Bytes{0x40, 0, 0, 0, 'a', 0}).Finish())},
      {"payload_len above the binary",
       Frame(Doc().Int64("payload_len", 9).Binary("amqp_payload", Bytes{1}).Finish())},
      {"payload_len without payload", Frame(Doc().Int64("payload_len", 9).Finish())},
      {"negative payload_len",
       Frame(Doc().Int64("payload_len", -1).Binary("amqp_payload", Bytes{1}).Finish())},
  };
  for (const auto& [name, frame] : cases) {
    SCOPED_TRACE(name);
    Conn c = Open();
    // The bad frame is dropped; the frame after it in the same read is
    // delivered, and the read reports the failure.
    Bytes bytes = frame;
    const Bytes next = Frame(good);
    bytes.insert(bytes.end(), next.begin(), next.end());
    EXPECT_EQ(-1, Feed(c, bytes));
    Received r;
    ASSERT_TRUE(Inbox::Take(&r, 0));
    EXPECT_EQ(8, r.type);
    EXPECT_EQ(0u, Inbox::Size());
  }
  EXPECT_TRUE(LogLines::Contains({"MPA131", "Returned error code -2006 when receiving message"}));
}

TEST_F(MpaLibClientTest, WrongTypeForKnownKeyThrowsBsonException) {
  const std::string failed = "MpaLibClient: Getting ";
  const std::pair<Bytes, std::string> cases[] = {
      {Doc().String("msg_type", "3").Finish(), "long"},
      {Doc().Int32("mp-version", 3).Finish(), "long"},
      {Doc().Int64("app_type", 1).Finish(), "string"},
      {Doc().Bool("app_id", true).Finish(), "string"},
      {Doc().Int64("amqp_replyTo", 1).Finish(), "string"},
      {Doc().String("amqp_headers", "h").Finish(), "BSON"},
      {Doc().String("amqp_payload", "p").Finish(), "Binary"},
  };
  Conn c = Open();
  for (const auto& [doc, kind] : cases) {
    SCOPED_TRACE(kind);
    ASSERT_TRUE(mpa_test::WriteAll(c.peer, Frame(doc)));
    ASSERT_TRUE(mpa_test::WaitReadable(c.cookie));
    try {
      c.client->Receive();
      ADD_FAILURE() << "no exception";
    } catch (BsonException* raw) {
      std::unique_ptr<BsonException> e(raw);
      EXPECT_EQ(failed + kind + " value from BSON failed.", e->what());
    }
    EXPECT_EQ(0u, Inbox::Size());
  }
  // The message was dropped whole; the next one is read from its start.
  EXPECT_EQ(0, Feed(c, Frame(Doc().Int64("msg_type", 2).Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(2, r.type);
}

TEST_F(MpaLibClientTest, UnknownElementTypeEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Conn c = Open();
        Feed(c, Frame(Doc().Raw(25, "odd", Bytes{}).Finish()));
      },
      ::testing::ExitedWithCode(251), "unknown type: 25");
}

TEST_F(MpaLibClientTest, MessageWithoutCallbackIsDropped) {
  Conn c = Open(1, nullptr, nullptr);
  EXPECT_EQ(-1, Feed(c, Frame(FullDataDoc())));
  EXPECT_TRUE(LogLines::Contains(
      {"MPA130", "No function callback found for client:DORN_FABRIC_APPLICATION"}));
  EXPECT_TRUE(LogLines::Contains({"Returned error code -2026 when receiving message - chunk index: 0"}));
  EXPECT_EQ(-2026, c.client->Close(true));
}

TEST_F(MpaLibClientTest, CloseWithNotifyDeliversOneCloseRecord) {
  Conn c = Open();
  EXPECT_EQ(0, c.client->Close(true));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(5, r.type);
  EXPECT_EQ(c.cookie, r.cookie);
  EXPECT_EQ(kApp, r.appType);
  EXPECT_EQ("zel", r.appId);
  EXPECT_FALSE(r.payload);
  EXPECT_FALSE(r.headers);
  EXPECT_TRUE(r.rawBufferIsAppType);
  EXPECT_EQ("no-session", c.client->GetSessionId());
  EXPECT_TRUE(mpa_test::WaitForEof(c.peer));
  // Closed already: nothing more is delivered.
  EXPECT_EQ(0, c.client->Close(true));
  EXPECT_EQ(-1, c.client->GetCookieId());

  Conn quiet = Open();
  EXPECT_EQ(0, quiet.client->Close(false));
  EXPECT_EQ(0u, Inbox::Size());
  EXPECT_TRUE(LogLines::Contains({"Client triggered close, not sending RMQ_CLIENT_CLOSE msg"}));
}

// A peer that takes nothing for the whole retry budget ends the process with
// status 0, so that the supervisor restarts it.
TEST_F(MpaLibClientTest, SendThatNeverGetsRoomExitsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        zel::log_testing::SetSyslogSinkForTest(&LogLines::ToStderr);
        MpaLibClient::SetSendRetryLimitForTest(20);
        Conn c = Open();
        // Far more than the socket buffers of both ends can hold.
        std::vector<uint8_t> big(32 * 1024 * 1024, 0x5a);
        rmqClientMessage m = Message(3, "ct", "rk");
        m.payload = big.data();
        m.payloadLen = static_cast<int64_t>(big.size());
        c.client->Send(&m, c.client->GetSessionId().c_str(), nullptr);
        std::exit(3);  // should the send ever return
      },
      ::testing::ExitedWithCode(0),
      "after 21 tries.*Restarting :: problem while sending data from app to MPA.");
}

}  // namespace
}  // namespace ZelMpa
