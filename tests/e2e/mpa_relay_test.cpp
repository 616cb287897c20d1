// mpa-relay against the MPA library: the relay in this thread on a free
// loopback port, the library's event loop on another, and a small client
// callback that answers requests the way the agent does. This checks the
// relay's side of the protocol before it is pointed at the agent, and its
// own parts (frame reader, layout checks, scripts, command line). Split,
// batched and damaged frames and CLOSE messages are checked against the
// agent itself in agent_connection_e2e_test.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mpa_relay/relay.h"
#include "mpa_relay/relay_script.h"
#include "mpa_relay/relay_wire.h"
#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"
#include "mpalib/mpa_test_peer.h"
#include "mpalib/net_api.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "support/log_capture.h"
#include "util/mpa_error_tags.h"

namespace {

using namespace std::chrono_literals;
using mpa_relay::Clock;
using mpa_test::Inbox;
using mpa_test::kApp;

// The client callback: records every delivery, then answers data messages
// the way the agent does: kind 11 to the reply-to (kind 10 without one), the
// correlation id echoed, the type header, and the request's own payload, so
// that its operation id comes back. Recorded first, so that a test that has
// seen the answer at the relay finds the delivery.
void Callback(rmqClientMessage* in) {
  Inbox::Record(in);
  if (in->messageType == RMQ_CLIENT_MPA_DATA_MESSAGE) {
    mpa_relay::Document request;
    std::string error;
    if (in->amqpHeaders) {
      mpa_relay::DecodeDocument(reinterpret_cast<const uint8_t*>(bson_data(in->amqpHeaders)),
                                bson_size(in->amqpHeaders), &request, &error);
    }
    ZelMpa::BSON headers;
    headers.appendString("amqp_correlationId", request.String("amqp_correlationId").value_or("none").c_str());
    headers.appendString("__TypeId__", mpa_relay::kDornTypeId);
    headers.finish();
    const std::string reply = request.String("amqp_replyTo").value_or("");
    rmqClientMessage m = mpa_test::DataRecord(in->cookieId, mpa_relay::kProtobufContentType, reply.c_str());
    m.messageType = reply.empty() ? 10 : 11;
    m.appType = kApp;
    m.amqpHeaders = headers.raw();
    m.payload = in->payload;
    m.payloadLen = in->payloadLen;
    NETSend(&m, nullptr);
  }
  free(in->rawBuffer);
}

std::string Serialized(const std::string& text) {
  mpa_relay::Step step;
  std::string error;
  EXPECT_TRUE(mpa_relay::ParseRequest(text, &step, &error)) << error;
  return step.payload;
}

class RelayWithLibraryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    log_ = new zel::testing::LogCapture("ERROR");  // the library's lines stay here
    loop_ = new std::thread([] { NETEventLoop(nullptr); });
  }
  static void TearDownTestSuite() {
    NETStop();
    loop_->join();
    delete loop_;
    delete log_;
  }

  void SetUp() override {
    Inbox::Clear();
    mpa_relay::RelayOptions options;
    options.port = 0;
    relay_ = std::make_unique<mpa_relay::Relay>(options);
    std::string error;
    ASSERT_TRUE(relay_->Listen(&error)) << error;
  }
  // The relay drops the connection and the library, on its own thread,
  // reports it. Closing the cookie from this thread instead (NETClose) would
  // leave the library's select() waiting on the closed descriptor, whose
  // number the next test's client takes: the select can then wake on the
  // old socket's end of stream and read the new client before its
  // acknowledgement has come, and the library drops the new client for
  // that empty read.
  void TearDown() override {
    if (cookie_ < 0) return;
    relay_->DropAll();
    // Every earlier delivery was taken by the test: the next is the CLOSE.
    mpa_test::ExpectReceived(RMQ_CLIENT_CLOSE, cookie_);
    // The sign of a read on a stale readiness: a live connection that had
    // nothing to read, dropped for it.
    const std::string tag = ZelMpa::tag::MPA131;
    EXPECT_EQ(log_->Count("errorCode=\"" + tag.substr(tag.find(':') + 1) + "\""), 0u) << log_->Find("MPA131");
  }

  // Registers the client with the relay and waits for the ACK.
  void Connect() {
    const rmqClientEndpoint endpoint{relay_->port(), nullptr};
    const auto deadline = Clock::now() + 15s;
    do {
      cookie_ = NETRegister("zel", kApp, 1, nullptr, &Callback, &endpoint);
    } while ((cookie_ == -2018 || cookie_ == -2024) && Clock::now() < deadline);
    ASSERT_GE(cookie_, 0);
    ASSERT_TRUE(relay_->RunUntil([&] { return relay_->current_connection() != 0; }, deadline));
    ack_ = Inbox::Take();
  }

  bool WaitAnswers(size_t n) {
    return relay_->RunUntil([&] { return relay_->answers().size() >= n; }, Clock::now() + 15s);
  }

  static zel::testing::LogCapture* log_;
  static std::thread* loop_;
  std::unique_ptr<mpa_relay::Relay> relay_;
  int cookie_ = -1;
  mpa_test::Received ack_;
};

zel::testing::LogCapture* RelayWithLibraryTest::log_ = nullptr;
std::thread* RelayWithLibraryTest::loop_ = nullptr;

TEST_F(RelayWithLibraryTest, RegistrationIsAcknowledgedAndRequestsAreAnsweredWithTheirHeaders) {
  Connect();
  ASSERT_EQ(relay_->registrations().size(), 1u);
  const auto& reg = relay_->registrations()[0];
  EXPECT_EQ(reg.app_type, kApp);
  EXPECT_TRUE(reg.problems.empty()) << reg.problems[0];
  EXPECT_EQ(ack_.type, RMQ_CLIENT_REGISTRATION_ACK);
  EXPECT_EQ(ack_.cookie, cookie_);
  EXPECT_NE(ack_.line.find(std::string(" app=") + kApp + " "), std::string::npos) << ack_.line;

  // With a reply-to the answer comes as kind 11 to it; without, as kind 10.
  for (const bool reply : {true, false}) {
    SCOPED_TRACE(reply ? "reply-to" : "no reply-to");
    const std::string op = reply ? "op-1" : "plain";
    mpa_relay::Request r;
    r.payload = Serialized("message_type: MT_RUN_COMMAND operation_id: \"" + op + "\"");
    r.correlation_id = "corr-" + op;
    if (reply) r.reply_to = "relay-replies";
    const uint64_t seq = relay_->Send(r);
    ASSERT_TRUE(WaitAnswers(seq)) << relay_->outstanding();

    // The client answers from what it was handed: the answer's kind, route,
    // correlation id and operation id show that headers and payload arrived.
    const mpa_test::Received data = Inbox::Take();
    EXPECT_EQ(data.type, RMQ_CLIENT_MPA_DATA_MESSAGE);
    EXPECT_NE(data.line.find(std::string(" app=") + kApp + " "), std::string::npos) << data.line;
    const auto& a = relay_->answers().back();
    EXPECT_TRUE(a.problems.empty()) << a.problems[0];
    EXPECT_EQ(a.request, seq);
    EXPECT_EQ(a.kind, reply ? 11 : 10);
    EXPECT_EQ(a.routing_key, r.reply_to.value_or(""));
    EXPECT_EQ(a.correlation_id, "corr-" + op);
    ASSERT_NE(a.message, nullptr);
    EXPECT_EQ(a.message->operation_id(), op);
  }
  EXPECT_TRUE(relay_->problems().empty());
}

TEST_F(RelayWithLibraryTest, LayoutProblemsOfAClientAreReported) {
  // A client that writes frames by hand.
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(relay_->port());
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  auto put = [fd](const mpa_test::Bytes& document) { return mpa_test::WriteAll(fd, mpa_test::Frame(document)); };
  // Registration with app_id as a boolean and the session before the id.
  ASSERT_TRUE(put(mpa_test::Doc().Int64("msg_type", 1).String("app_type", kApp).Raw(0x08, "app_id", {1})
                      .String("session-id", "no-session").String("amqp-message-id", "1").Finish()));
  ASSERT_TRUE(relay_->RunUntil([&] { return relay_->registrations().size() == 1; },
                               Clock::now() + 15s));
  const auto& reg = relay_->registrations()[0];
  ASSERT_EQ(reg.problems.size(), 2u);
  EXPECT_NE(reg.problems[0].find("keys are [msg_type, app_type, app_id, session-id, amqp-message-id]"),
            std::string::npos) << reg.problems[0];
  EXPECT_EQ(reg.problems[1], "app_id is bool, expected string");

  // Data message: app_id a string, payload_len an int32 and wrong, no type header,
  // kind 11 without a routing key, a session that is no UUID, a counter going back.
  ASSERT_TRUE(put(mpa_test::Doc().Int64("msg_type", 11).String("app_type", kApp).String("app_id", "zel")
                      .String("content_type", "text/plain").String("amqp_routing_key", "")
                      .Binary("amqp_payload", {0x08, 0x04}).Raw(0x10, "payload_len", {3, 0, 0, 0})
                      .String("amqp-message-id", "1").String("session-id", "NOT-A-UUID").Finish()));
  ASSERT_TRUE(WaitAnswers(1));
  std::string all;
  for (const auto& x : relay_->answers()[0].problems) all += x + "\n";
  for (const char* text : {"app_id is string, expected bool", "payload_len is int32, expected int64",
                           "session-id is \"NOT-A-UUID\"", "amqp-message-id 1 does not follow 1",
                           "content_type is \"text/plain\"", "__TypeId__ header is missing",
                           "kind 11 without a routing key"}) {
    EXPECT_NE(all.find(text), std::string::npos) << text << " in\n" << all;
  }
  EXPECT_EQ(all.find("not a DornMessage"), std::string::npos);  // 08 04: message_type 4

  // A frame that is not BSON is a problem of the connection, not a crash.
  const size_t before = relay_->problems().size();
  ASSERT_TRUE(put({5, 0, 0, 0, 1}));  // no terminator
  ASSERT_TRUE(relay_->RunUntil([&] { return relay_->problems().size() > before; }, Clock::now() + 15s));
  EXPECT_NE(relay_->problems().back().find("undecodable document"), std::string::npos)
      << relay_->problems().back();
  close(fd);
}

TEST(FrameReaderTest, FramesCutAnywhereAreAssembledAndOversizedLengthsStop) {
  const std::string a = mpa_relay::Frame(mpa_relay::EncodeClose("A"));
  const std::string b = mpa_relay::Frame(mpa_relay::EncodeAck("B", std::make_pair(1u, 2u)));
  const std::string stream = a + b;
  for (size_t cut = 0; cut <= stream.size(); ++cut) {
    mpa_relay::FrameReader reader;
    auto first = reader.Feed(reinterpret_cast<const uint8_t*>(stream.data()), cut);
    auto second = reader.Feed(reinterpret_cast<const uint8_t*>(stream.data()) + cut,
                              stream.size() - cut);
    first.insert(first.end(), second.begin(), second.end());
    ASSERT_EQ(first.size(), 2u) << "cut at " << cut;
    EXPECT_EQ(first[0], a.substr(4));
    EXPECT_EQ(first[1], b.substr(4));
    EXPECT_EQ(reader.pending(), 0u);
  }
  mpa_relay::Document doc;
  std::string error;
  ASSERT_TRUE(mpa_relay::DecodeDocument(reinterpret_cast<const uint8_t*>(b.data()) + 4,
                                        b.size() - 4, &doc, &error)) << error;
  EXPECT_EQ(doc.Int64("msg_type"), 2);
  EXPECT_EQ(doc.Int64("mp-version"), (int64_t{1} << 32) | 2);

  mpa_relay::FrameReader limited(100);
  const uint8_t prefix[] = {0, 0, 0, 101, 1, 2};
  EXPECT_TRUE(limited.Feed(prefix, sizeof prefix).empty());
  EXPECT_NE(limited.error().find("exceeds the limit of 100"), std::string::npos);
}

TEST(ScriptTest, BlocksTitlesDirectivesModifiersAndWhichRequestsTheAgentAnswers) {
  const std::string text =
      "# Run a command\nmessage_type: MT_RUN_COMMAND\noperation_id: \"op-1\"\n"
      "dorn_fabric_object { runCommand { command: \"true\" } }\n\n"
      "!no-answer\n!split 3\nmessage_type: MT_GET_RSA_KEY operation_id: \"k\"\n"
      "!close\n!restart 250\n"
      "# track nothing, no answer wanted\nmessage_type: MT_INIT\n\n"
      "!malformed half-frame\nmessage_type: MT_OPERATION_STATUS operation_id: \"x\"\n";
  std::vector<mpa_relay::Step> steps;
  std::string error;
  ASSERT_TRUE(mpa_relay::ParseScript(text, &steps, &error)) << error;
  ASSERT_EQ(steps.size(), 7u);
  EXPECT_EQ(steps[0].title, "Run a command");
  EXPECT_TRUE(steps[0].expect_answer);
  EXPECT_EQ(steps[1].split_at, 3u);
  EXPECT_FALSE(steps[1].expect_answer);
  EXPECT_EQ(steps[2].kind, mpa_relay::StepKind::kClose);
  EXPECT_EQ(steps[3].kind, mpa_relay::StepKind::kRestart);
  EXPECT_EQ(steps[3].number, 250);
  EXPECT_EQ(steps[4].title, "track nothing, no answer wanted");
  EXPECT_FALSE(steps[4].expect_answer);  // MT_INIT without operation_id
  EXPECT_EQ(steps[5].word, "half-frame");
  EXPECT_FALSE(steps[6].expect_answer);  // MT_OPERATION_STATUS
  EXPECT_EQ(steps[6].split_at, 0u);

  const std::pair<const char*, const char*> bad[] = {{"message_type: MT_NOPE\n", "request at line 1"},
                                                     {"\n\n!restart soon\n", "line 3"},
                                                     {"!malformed nonsense\n", "one of garbage"}};
  for (const auto& [script, why] : bad) {
    EXPECT_FALSE(mpa_relay::ParseScript(script, &steps, &error)) << script;
    EXPECT_NE(error.find(why), std::string::npos) << error;
  }

  EXPECT_TRUE(mpa_relay::AgentAnswers(Serialized("message_type: MT_INIT operation_id: \"i\"")));
  EXPECT_FALSE(mpa_relay::AgentAnswers(Serialized("message_type: MT_INIT")));
  EXPECT_FALSE(mpa_relay::AgentAnswers(Serialized("message_type: MT_OPERATION_STATUS")));
  EXPECT_TRUE(mpa_relay::AgentAnswers(Serialized("message_type: MT_REBOOT_HOST")));
  // 08 63: message_type 99, unknown to the schema, reads as MT_INIT.
  EXPECT_FALSE(mpa_relay::AgentAnswers(std::string("\x08\x63", 2)));
  EXPECT_TRUE(mpa_relay::AgentAnswers(std::string("\x08\x63\x12\x01x", 5)));
}

// The exit status and output of the relay run with `args`.
int RunRelay(const std::vector<std::string>& args, std::string* out) {
  std::string cmd = MPA_RELAY_BINARY;
  for (const auto& a : args) cmd += " '" + a + "'";
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  char buf[512];
  for (out->clear(); fgets(buf, sizeof buf, p) != nullptr;) *out += buf;
  const int status = pclose(p);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The command line: usage errors, a taken port, and a deadline without a client.
TEST(RelayCommandTest, ExitStatusTellsWhatHappened) {
  std::string out;
  EXPECT_EQ(RunRelay({"--help"}, &out), 0);
  EXPECT_NE(out.find("--close-stale"), std::string::npos);
  EXPECT_EQ(RunRelay({"--bogus"}, &out), 2);
  EXPECT_NE(out.find("unknown option --bogus"), std::string::npos) << out;
  EXPECT_EQ(RunRelay({"--send", "message_type: MT_NOPE"}, &out), 2);
  EXPECT_EQ(RunRelay({"--split", "2"}, &out), 2);

  std::string port;
  {
    const mpa_test::FakeMpa taken;  // listening on a loopback port
    port = taken.portText();
    EXPECT_EQ(RunRelay({"--port", port, "--timeout", "1"}, &out), 4) << out;
  }
  // Free again: nobody registers, so the answer never comes.
  EXPECT_EQ(RunRelay({"--port", port, "--timeout", "1", "--send",
                      "message_type: MT_GET_RSA_KEY operation_id: \"k\""}, &out), 1) << out;
  EXPECT_NE(out.find("0 answers (1 expected, 0 lost"), std::string::npos) << out;
}

}  // namespace
