// mpa-relay against the MPA library: the relay in this thread on a free
// loopback port, the library's event loop on another, and a small client
// callback that answers requests the way the agent does. This checks the
// relay's side of the protocol before it is pointed at the agent, and its
// own parts (frame reader, layout checks, scripts, command line).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mpa_relay/relay.h"
#include "mpa_relay/relay_script.h"
#include "mpa_relay/relay_wire.h"
#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"
#include "mpalib/net_api.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "support/log_capture.h"
#include "util/mpa_error_tags.h"

namespace {

using namespace std::chrono_literals;
using mpa_relay::Clock;
using orvane::zel::dorn::DornMessage;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

// What the library handed to the client callback.
struct Delivered {
  int type = 0;
  int cookie = -1;
  std::string app_type;
  std::string routing_key;
  std::string payload;
  mpa_relay::Document headers;
};

// The client side: records every delivery and answers data messages like
// the agent (kind 11 to the reply-to, correlation id echoed, type header).
class Client {
 public:
  static Client& Get() {
    static Client c;
    return c;
  }
  static void Callback(rmqClientMessage* m) {
    Delivered d;
    d.type = m->messageType;
    d.cookie = m->cookieId;
    if (m->appType) d.app_type = m->appType;
    if (m->amqpRoutingKey) d.routing_key = m->amqpRoutingKey;
    if (m->payload && m->payloadLen > 0) {
      d.payload.assign(reinterpret_cast<const char*>(m->payload), m->payloadLen);
    }
    if (m->amqpHeaders) {
      std::string error;
      mpa_relay::DecodeDocument(reinterpret_cast<const uint8_t*>(bson_data(m->amqpHeaders)),
                                bson_size(m->amqpHeaders), &d.headers, &error);
    }
    free(m->rawBuffer);
    // Record before answering: a test that has seen the answer at the relay
    // then finds the delivery here.
    {
      std::lock_guard<std::mutex> lock(Get().mutex_);
      Get().delivered_.push_back(d);
      Get().cv_.notify_all();
    }
    if (d.type == RMQ_CLIENT_MPA_DATA_MESSAGE) Answer(d);
  }
  static void Answer(const Delivered& d) {
    DornMessage request, answer;
    if (!request.ParseFromString(d.payload)) return;
    answer.set_message_type(orvane::zel::dorn::MT_OPERATION_STATUS);
    answer.set_operation_id(request.operation_id());
    const std::string bytes = answer.SerializeAsString();
    ZelMpa::BSON headers;
    headers.appendString("amqp_correlationId",
                         d.headers.String("amqp_correlationId").value_or("none").c_str());
    headers.appendString("__TypeId__", mpa_relay::kDornTypeId);
    headers.finish();
    const std::string reply = d.headers.String("amqp_replyTo").value_or("");
    rmqClientMessage m;
    std::memset(&m, 0, sizeof m);
    m.messageType = reply.empty() ? 10 : 11;
    m.cookieId = d.cookie;
    m.appType = kApp;
    m.amqpContentType = mpa_relay::kProtobufContentType;
    m.amqpRoutingKey = reply.c_str();
    m.amqpHeaders = headers.raw();
    m.payload = reinterpret_cast<const uint8_t*>(bytes.data());
    m.payloadLen = static_cast<int64_t>(bytes.size());
    NETSend(&m, nullptr);
  }

  // Deliveries of `type` seen so far.
  std::vector<Delivered> OfType(int type) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Delivered> out;
    for (const auto& d : delivered_) {
      if (d.type == type) out.push_back(d);
    }
    return out;
  }
  bool WaitFor(int type, size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, timeout, [&] {
      size_t n = 0;
      for (const auto& d : delivered_) n += d.type == type ? 1 : 0;
      return n >= count;
    });
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    delivered_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<Delivered> delivered_;
};

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
    Client::Get().Clear();
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
    const size_t closes = Client::Get().OfType(RMQ_CLIENT_CLOSE).size();
    relay_->DropAll();
    EXPECT_TRUE(Client::Get().WaitFor(RMQ_CLIENT_CLOSE, closes + 1, 20s))
        << "a dropped connection is reported to the client";
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
      cookie_ = NETRegister("zel", kApp, 1, nullptr, &Client::Callback, &endpoint);
    } while ((cookie_ == -2018 || cookie_ == -2024) && Clock::now() < deadline);
    ASSERT_GE(cookie_, 0);
    ASSERT_TRUE(relay_->RunUntil([&] { return relay_->current_connection() != 0; }, deadline));
    ASSERT_TRUE(Client::Get().WaitFor(RMQ_CLIENT_REGISTRATION_ACK, 1, 15s));
  }

  mpa_relay::Request MakeRequest(const std::string& op) {
    mpa_relay::Request r;
    r.payload = Serialized("message_type: MT_RUN_COMMAND operation_id: \"" + op + "\"");
    r.correlation_id = "corr-" + op;
    r.reply_to = "relay-replies";
    return r;
  }

  bool WaitAnswers(size_t n) {
    return relay_->RunUntil([&] { return relay_->answers().size() >= n; }, Clock::now() + 15s);
  }

  static zel::testing::LogCapture* log_;
  static std::thread* loop_;
  std::unique_ptr<mpa_relay::Relay> relay_;
  int cookie_ = -1;
};

zel::testing::LogCapture* RelayWithLibraryTest::log_ = nullptr;
std::thread* RelayWithLibraryTest::loop_ = nullptr;

TEST_F(RelayWithLibraryTest, RegistrationIsAcknowledgedAndRequestsAreAnsweredWithTheirHeaders) {
  Connect();
  ASSERT_EQ(relay_->registrations().size(), 1u);
  const auto& reg = relay_->registrations()[0];
  EXPECT_EQ(reg.app_type, kApp);
  EXPECT_TRUE(reg.problems.empty()) << reg.problems[0];
  const auto acks = Client::Get().OfType(RMQ_CLIENT_REGISTRATION_ACK);
  ASSERT_EQ(acks.size(), 1u);
  EXPECT_EQ(acks[0].app_type, kApp);
  EXPECT_EQ(acks[0].cookie, cookie_);

  // With a reply-to the answer comes as kind 11 to it; without, as kind 10.
  for (const bool reply : {true, false}) {
    SCOPED_TRACE(reply ? "reply-to" : "no reply-to");
    const std::string op = reply ? "op-1" : "plain";
    auto r = MakeRequest(op);
    if (!reply) r.reply_to.reset();
    const uint64_t seq = relay_->Send(r);
    ASSERT_TRUE(WaitAnswers(seq)) << relay_->outstanding();

    const auto data = Client::Get().OfType(RMQ_CLIENT_MPA_DATA_MESSAGE);
    ASSERT_EQ(data.size(), seq);
    EXPECT_EQ(data.back().app_type, kApp);
    EXPECT_EQ(data.back().headers.String("amqp_correlationId"), "corr-" + op);
    EXPECT_EQ(data.back().headers.String("amqp_replyTo"), reply ? std::optional<std::string>("relay-replies")
                                                                : std::nullopt);
    DornMessage got;
    ASSERT_TRUE(got.ParseFromString(data.back().payload));
    EXPECT_EQ(got.operation_id(), op);

    const auto& a = relay_->answers().back();
    EXPECT_TRUE(a.problems.empty()) << a.problems[0];
    EXPECT_EQ(a.request, seq);
    EXPECT_EQ(a.kind, reply ? 11 : 10);
    EXPECT_EQ(a.routing_key, reply ? "relay-replies" : "");
    EXPECT_EQ(a.correlation_id, "corr-" + op);
    ASSERT_NE(a.message, nullptr);
    EXPECT_EQ(a.message->operation_id(), op);
  }
  EXPECT_TRUE(relay_->problems().empty());
}

TEST_F(RelayWithLibraryTest, SplitAndBatchedFramesArriveWhole) {
  Connect();
  for (size_t at : {1, 2, 3, 4, 5}) {
    relay_->SendSplit(MakeRequest("split-" + std::to_string(at)), at, 20ms);
  }
  relay_->SendBatch({MakeRequest("batch-a"), MakeRequest("batch-b"), MakeRequest("batch-c")});
  ASSERT_TRUE(WaitAnswers(8)) << relay_->answers().size();
  const std::vector<std::string> want = {"split-1", "split-2", "split-3", "split-4",
                                         "split-5", "batch-a", "batch-b", "batch-c"};
  for (size_t i = 0; i < want.size(); ++i) {
    ASSERT_NE(relay_->answers()[i].message, nullptr);
    EXPECT_EQ(relay_->answers()[i].message->operation_id(), want[i]);
    EXPECT_EQ(relay_->answers()[i].request, i + 1);
  }
  EXPECT_EQ(relay_->outstanding(), 0u);
}

TEST_F(RelayWithLibraryTest, CloseMessageReachesClientAndConnectionStaysOpen) {
  Connect();
  const int conn = relay_->current_connection();
  ASSERT_TRUE(relay_->SendClose());
  ASSERT_TRUE(Client::Get().WaitFor(RMQ_CLIENT_CLOSE, 1, 15s));
  EXPECT_EQ(Client::Get().OfType(RMQ_CLIENT_CLOSE)[0].cookie, cookie_);
  EXPECT_TRUE(relay_->IsOpen(conn));
  EXPECT_EQ(relay_->current_connection(), 0);
  EXPECT_EQ(relay_->closed_by_message(), std::vector<int>{conn});
  // A request can still be aimed at it by number.
  relay_->Send(MakeRequest("after-close"), conn);
  ASSERT_TRUE(WaitAnswers(1));
}

// A client that writes frames by hand, to check the relay's layout checks.
class RawClient {
 public:
  explicit RawClient(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  }
  ~RawClient() { close(fd_); }
  void Write(const std::string& bytes) {
    ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

 private:
  int fd_;
};

std::string Doc(const std::function<void(ZelMpa::BSON&)>& fill) {
  ZelMpa::BSON b;
  fill(b);
  b.finish();
  return std::string(reinterpret_cast<const char*>(b.dataPtr()), b.size());
}

TEST_F(RelayWithLibraryTest, LayoutProblemsOfAClientAreReported) {
  RawClient raw(relay_->port());
  // Registration with app_id as a boolean and the session before the id.
  raw.Write(mpa_relay::Frame(Doc([](ZelMpa::BSON& b) {
    b.appendLong("msg_type", 1);
    b.appendString("app_type", kApp);
    b.appendBool("app_id", true);
    b.appendString("session-id", "no-session");
    b.appendString("amqp-message-id", "1");
  })));
  ASSERT_TRUE(relay_->RunUntil([&] { return relay_->registrations().size() == 1; },
                               Clock::now() + 15s));
  const auto& reg = relay_->registrations()[0];
  ASSERT_EQ(reg.problems.size(), 2u);
  EXPECT_NE(reg.problems[0].find("keys are [msg_type, app_type, app_id, session-id, amqp-message-id]"),
            std::string::npos) << reg.problems[0];
  EXPECT_EQ(reg.problems[1], "app_id is bool, expected string");

  // Data message: app_id a string, payload_len an int32 and wrong, no type header,
  // kind 11 without a routing key, a session that is no UUID, a counter going back.
  raw.Write(mpa_relay::Frame(Doc([](ZelMpa::BSON& b) {
    b.appendLong("msg_type", 11);
    b.appendString("app_type", kApp);
    b.appendString("app_id", "zel");
    b.appendString("content_type", "text/plain");
    b.appendString("amqp_routing_key", "");
    b.appendBinary("amqp_payload", reinterpret_cast<const uint8_t*>("\x08\x04"), 2);
    b.appendInt("payload_len", 3);
    b.appendString("amqp-message-id", "1");
    b.appendString("session-id", "NOT-A-UUID");
  })));
  ASSERT_TRUE(WaitAnswers(1));
  const auto& p = relay_->answers()[0].problems;
  auto has = [&](const std::string& text) {
    for (const auto& x : p) {
      if (x.find(text) != std::string::npos) return true;
    }
    return false;
  };
  EXPECT_TRUE(has("app_id is string, expected bool"));
  EXPECT_TRUE(has("payload_len is int32, expected int64"));
  EXPECT_TRUE(has("session-id is \"NOT-A-UUID\""));
  EXPECT_TRUE(has("amqp-message-id 1 does not follow 1"));
  EXPECT_TRUE(has("content_type is \"text/plain\""));
  EXPECT_TRUE(has("__TypeId__ header is missing"));
  EXPECT_TRUE(has("kind 11 without a routing key"));
  EXPECT_FALSE(has("not a DornMessage"));  // 08 04: message_type 4

  // A frame that is not BSON is a problem of the connection, not a crash.
  raw.Write(mpa_relay::Frame("\x05\x00\x00\x00\x01"));
  ASSERT_TRUE(relay_->RunUntil([&] { return relay_->problems().size() > p.size() + 2; },
                               Clock::now() + 15s));
  EXPECT_NE(relay_->problems().back().find("undecodable document"), std::string::npos)
      << relay_->problems().back();
}

TEST(FrameReaderTest, FramesCutAnywhereAreAssembled) {
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
}

TEST(FrameReaderTest, OversizedLengthStopsTheStream) {
  mpa_relay::FrameReader reader(100);
  const uint8_t prefix[] = {0, 0, 0, 101, 1, 2};
  EXPECT_TRUE(reader.Feed(prefix, sizeof prefix).empty());
  EXPECT_NE(reader.error().find("exceeds the limit of 100"), std::string::npos);
}

TEST(MalformedFrameTest, KindsDifferFromAValidRequest) {
  const std::string payload = Serialized("message_type: MT_SOFTWARE_STATUS operation_id: \"m\"");
  for (const auto& kind : mpa_relay::MalformedKinds()) {
    auto frame = mpa_relay::MalformedFrame(kind, kApp, payload);
    ASSERT_TRUE(frame.has_value()) << kind;
    mpa_relay::FrameReader reader;
    auto docs = reader.Feed(reinterpret_cast<const uint8_t*>(frame->data()), frame->size());
    mpa_relay::Document doc;
    std::string error;
    const bool whole = docs.size() == 1;
    const bool decodes = whole && mpa_relay::DecodeDocument(
                                      reinterpret_cast<const uint8_t*>(docs[0].data()),
                                      docs[0].size(), &doc, &error);
    if (kind == "half-frame") {
      EXPECT_FALSE(whole) << kind;
    } else if (kind == "garbage" || kind == "bad-length" || kind == "zero-length") {
      EXPECT_FALSE(decodes) << kind;
    } else {
      EXPECT_TRUE(decodes) << kind << ": " << error;
    }
    if (kind == "unknown-keys") {
      const mpa_relay::Element* p = doc.Find("amqp_payload");
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(p->bytes, payload);
    }
  }
  EXPECT_FALSE(mpa_relay::MalformedFrame("no-such-kind", kApp, payload).has_value());
}

TEST(ScriptTest, BlocksTitlesDirectivesAndModifiers) {
  const std::string text =
      "# Run a command\n"
      "message_type: MT_RUN_COMMAND\n"
      "operation_id: \"op-1\"\n"
      "dorn_fabric_object { runCommand { command: \"true\" } }\n"
      "\n"
      "!no-answer\n"
      "!split 3\n"
      "message_type: MT_GET_RSA_KEY operation_id: \"k\"\n"
      "!close\n"
      "!restart 250\n"
      "# track nothing, no answer wanted\n"
      "message_type: MT_INIT\n"
      "\n"
      "!malformed half-frame\n"
      "message_type: MT_OPERATION_STATUS operation_id: \"x\"\n";
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

  EXPECT_FALSE(mpa_relay::ParseScript("message_type: MT_NOPE\n", &steps, &error));
  EXPECT_NE(error.find("request at line 1"), std::string::npos) << error;
  EXPECT_FALSE(mpa_relay::ParseScript("\n\n!restart soon\n", &steps, &error));
  EXPECT_NE(error.find("line 3"), std::string::npos) << error;
  EXPECT_FALSE(mpa_relay::ParseScript("!malformed nonsense\n", &steps, &error));
  EXPECT_NE(error.find("one of garbage"), std::string::npos) << error;
}

TEST(ScriptTest, PredictsWhichRequestsTheAgentAnswers) {
  EXPECT_TRUE(mpa_relay::AgentAnswers(Serialized("message_type: MT_INIT operation_id: \"i\"")));
  EXPECT_FALSE(mpa_relay::AgentAnswers(Serialized("message_type: MT_INIT")));
  EXPECT_FALSE(mpa_relay::AgentAnswers(Serialized("message_type: MT_OPERATION_STATUS")));
  EXPECT_TRUE(mpa_relay::AgentAnswers(Serialized("message_type: MT_REBOOT_HOST")));
  // 08 63: message_type 99, unknown to the schema, reads as MT_INIT.
  EXPECT_FALSE(mpa_relay::AgentAnswers(std::string("\x08\x63", 2)));
  EXPECT_TRUE(mpa_relay::AgentAnswers(std::string("\x08\x63\x12\x01x", 5)));
}

// The command line: usage errors, a taken port, and a deadline without a client.
class RelayCommandTest : public ::testing::Test {
 protected:
  int Run(const std::vector<std::string>& args, std::string* out = nullptr) {
    std::string cmd = MPA_RELAY_BINARY;
    for (const auto& a : args) cmd += " '" + a + "'";
    cmd += " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    std::string text;
    char buf[512];
    while (fgets(buf, sizeof buf, p) != nullptr) text += buf;
    const int status = pclose(p);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(RelayCommandTest, ExitStatusTellsWhatHappened) {
  std::string out;
  EXPECT_EQ(Run({"--help"}, &out), 0);
  EXPECT_NE(out.find("--close-stale"), std::string::npos);
  EXPECT_EQ(Run({"--bogus"}, &out), 2);
  EXPECT_NE(out.find("unknown option --bogus"), std::string::npos) << out;
  EXPECT_EQ(Run({"--send", "message_type: MT_NOPE"}, &out), 2);
  EXPECT_EQ(Run({"--split", "2"}, &out), 2);

  // A port that is taken.
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  socklen_t len = sizeof a;
  getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  const std::string port = std::to_string(ntohs(a.sin_port));
  EXPECT_EQ(Run({"--port", port, "--timeout", "1"}, &out), 4) << out;
  close(fd);

  // Free again: nobody registers, so the answer never comes.
  EXPECT_EQ(Run({"--port", port, "--timeout", "1", "--send",
                 "message_type: MT_GET_RSA_KEY operation_id: \"k\""},
                &out),
            1)
      << out;
  EXPECT_NE(out.find("0 answers (1 expected, 0 lost"), std::string::npos) << out;
}

}  // namespace
