// The agent's connection to the relay over real sockets: reconnects after
// the relay closes it (by socket and by RMQ_CLIENT_CLOSE), a stale CLOSE,
// a relay that is not there at start or restarts, frames cut inside their
// length prefix or packed together, and damaged frames. After each, the
// agent must still answer. Each test has its own sandbox and agent.
#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "mpa_relay/relay_script.h"
#include "mpa_relay/relay_wire.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "util/mpa_error_tags.h"

namespace zel {
namespace e2e {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kConnectFailed[] = "connecting to mpa return cookie";

// Runs one command; the answer's status message is its output.
std::string Echo(const std::string& word) {
  return "message_type: MT_RUN_COMMAND operation_id: \"" + word +
         "\" dorn_fabric_object { runCommand { command: \"echo " + word + "\" } }";
}

mpa_relay::Request EchoRequest(const std::string& word) {
  mpa_relay::Step step;
  std::string error;
  EXPECT_TRUE(mpa_relay::ParseRequest(Echo(word), &step, &error)) << error;
  mpa_relay::Request r;
  r.payload = step.payload;
  r.correlation_id = word;
  r.reply_to = "e2e-replies";
  return r;
}

class AgentConnectionTest : public ::testing::Test {
 protected:
  void StartAndRegister() {
    ASSERT_TRUE(h_.Listen());
    h_.StartAgent();
    ASSERT_TRUE(h_.WaitForRegistrations(1, 30s)) << h_.Report();
  }
  // The agent answers `word` on the current connection.
  void ExpectServes(const std::string& word) {
    const auto a = h_.RequestAcrossReconnects(Echo(word));
    ASSERT_TRUE(a && a->message) << "no answer to " << word << "\n" << h_.Report();
    ASSERT_EQ(a->message->operation_status_size(), 1);
    EXPECT_EQ(a->message->operation_status(0).message(), word + "\n");
    EXPECT_EQ(a->connection, h_.relay().current_connection());
    for (const auto& p : a->problems) ADD_FAILURE() << "wire: " << p;
  }
  void TearDown() override {
    EXPECT_EQ(h_.SanitizerReport(), "");
    if (!h_.relay().registrations().empty() && !ends_) {
      EXPECT_TRUE(h_.agent().Running()) << h_.Report();
    }
  }

  AgentHarness h_;
  bool ends_ = false;  // the test ends the agent
};

TEST_F(AgentConnectionTest, ClosedSocketIsReopenedWithinAboutASecond) {
  StartAndRegister();
  const auto dropped = Clock::now();
  ASSERT_TRUE(h_.relay().Drop());
  ASSERT_TRUE(h_.WaitForRegistrations(2, 10s)) << h_.Report();
  const auto took = h_.relay().registrations()[1].at - dropped;
  EXPECT_LT(took, 3s) << std::chrono::duration<double>(took).count() << " s";
  EXPECT_GE(took, 900ms);  // the reconnect timer, not an immediate retry
  ExpectServes("after-drop");
}

TEST_F(AgentConnectionTest, CloseMessageReconnectsAndAStaleOneIsIgnored) {
  StartAndRegister();
  const int first = h_.relay().current_connection();
  ASSERT_TRUE(h_.relay().SendClose());
  ASSERT_TRUE(h_.WaitForRegistrations(2, 10s)) << h_.Report();
  const int second = h_.relay().current_connection();
  EXPECT_NE(second, first);
  EXPECT_TRUE(h_.relay().IsOpen(first));  // the agent does not close it
  ExpectServes("after-close");

  // The old connection's cookie is stale now: the CLOSE on it changes nothing.
  const size_t from = h_.sandbox().LogLines().size();
  ASSERT_TRUE(h_.relay().SendClose(first));
  ASSERT_TRUE(h_.WaitForLog(LoggedTag(ZelMpa::tag::MPAERR_MPA_COOKIEID_MISMATCH), 10s, from)) << h_.Report();
  ExpectServes("after-stale-close");
  EXPECT_EQ(h_.relay().registrations().size(), 2u);
  EXPECT_EQ(h_.relay().current_connection(), second);
}

// The agent tries, fails while nobody listens on 9002, and registers within
// its retry interval once the relay is back: at start, and after a restart.
TEST_F(AgentConnectionTest, AgentRetriesUntilTheRelayListens) {
  h_.StartAgent();
  ASSERT_TRUE(h_.WaitForLog(kConnectFailed, 20s)) << h_.Report();
  const auto listening = Clock::now();
  ASSERT_TRUE(h_.Listen());
  ASSERT_TRUE(h_.WaitForRegistrations(1, 15s)) << h_.Report();
  const auto took = h_.relay().registrations()[0].at - listening;
  EXPECT_LT(took, 6500ms) << std::chrono::duration<double>(took).count() << " s";
  ExpectServes("late-relay");

  const size_t from = h_.sandbox().LogLines().size();
  h_.relay().DropAll();
  h_.relay().StopListening();
  ASSERT_TRUE(h_.WaitForLog(kConnectFailed, 15s, from)) << h_.Report();
  ASSERT_TRUE(h_.Listen());
  ASSERT_TRUE(h_.WaitForRegistrations(2, 15s)) << h_.Report();
  ExpectServes("after-restart");
}

TEST_F(AgentConnectionTest, FramesCutInTheirPrefixOrPackedTogetherAreServed) {
  StartAndRegister();
  std::vector<std::string> words;
  std::vector<uint64_t> seqs;
  for (size_t at = 1; at <= 6; ++at) {
    words.push_back("cut-" + std::to_string(at));
    seqs.push_back(h_.relay().SendSplit(EchoRequest(words.back()), at, 50ms));
  }
  for (const std::vector<std::string>& batch :
       {std::vector<std::string>{"pair-a", "pair-b"}, std::vector<std::string>{"t-a", "t-b", "t-c"}}) {
    std::vector<mpa_relay::Request> requests;
    for (const auto& w : batch) requests.push_back(EchoRequest(w));
    const uint64_t first = h_.relay().SendBatch(requests);
    for (size_t i = 0; i < batch.size(); ++i) {
      words.push_back(batch[i]);
      seqs.push_back(first + i);
    }
  }
  for (size_t i = 0; i < seqs.size(); ++i) {
    const auto a = h_.AnswerTo(seqs[i]);
    ASSERT_TRUE(a && a->message) << words[i] << "\n" << h_.Report();
    EXPECT_EQ(a->message->operation_id(), words[i]);
  }
  EXPECT_EQ(h_.relay().registrations().size(), 1u);  // never reconnected
}

// What the agent does with each damaged frame of the relay's catalogue.
enum class Outcome { kAnswered, kIgnored, kReconnects, kEndsWith251 };
struct Damage {
  const char* kind;
  Outcome outcome;
  const char* tag;  // logged, when not null
};

void PrintTo(const Damage& d, std::ostream* os) { *os << d.kind; }

class DamagedFrameTest : public AgentConnectionTest, public ::testing::WithParamInterface<Damage> {};

TEST_P(DamagedFrameTest, IsDealtWithAndTheAgentServesOn) {
  const Damage& d = GetParam();
  StartAndRegister();
  mpa_relay::Step probe;
  std::string error;
  ASSERT_TRUE(mpa_relay::ParseRequest("message_type: MT_SOFTWARE_STATUS operation_id: \"damaged\"", &probe, &error));
  const int connection = h_.relay().current_connection();
  const bool answered = d.outcome == Outcome::kAnswered;
  const auto frame = mpa_relay::MalformedFrame(d.kind, "DORN_FABRIC_APPLICATION", probe.payload);
  ASSERT_TRUE(frame && h_.relay().SendRaw(*frame, answered, connection));
  if (std::string(d.kind) == "half-frame") {
    h_.relay().Flush(connection, Clock::now() + 5s);
    h_.relay().Drop(connection);
  }
  if (d.tag != nullptr) {
    EXPECT_TRUE(h_.WaitForLog(LoggedTag(d.tag), 20s)) << h_.Report();
  }
  switch (d.outcome) {
    case Outcome::kEndsWith251: {
      ends_ = true;
      const auto status = h_.agent().WaitExit(20s);
      ASSERT_TRUE(status) << h_.Report();
      EXPECT_EQ(status->ToString(), "exit 251");
      return;
    }
    case Outcome::kAnswered:
      ASSERT_TRUE(h_.PollUntil([&] { return !h_.relay().answers().empty(); }, 20s)) << h_.Report();
      ASSERT_NE(h_.relay().answers()[0].message, nullptr);
      EXPECT_EQ(h_.relay().answers()[0].message->operation_id(), "damaged");
      break;
    case Outcome::kIgnored:
      break;
    case Outcome::kReconnects:
      EXPECT_TRUE(h_.WaitForRegistrations(2, 20s)) << h_.Report();
      break;
  }
  ExpectServes(std::string("after-") + d.kind);
  EXPECT_EQ(h_.relay().registrations().size(), d.outcome == Outcome::kReconnects ? 2u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DamagedFrameTest,
    ::testing::Values(Damage{"garbage", Outcome::kEndsWith251, nullptr},
                      Damage{"bad-length", Outcome::kAnswered, nullptr},
                      Damage{"wrong-types", Outcome::kReconnects, nullptr},
                      Damage{"not-dorn", Outcome::kIgnored, ZelMpa::tag::MPAERR_PARSE_DORN_MSG_FAIL},
                      Damage{"unknown-type", Outcome::kIgnored, ZelMpa::tag::MPAERR_MPA_UNSUPPORT_MSG},
                      Damage{"unknown-keys", Outcome::kAnswered, nullptr},
                      Damage{"empty-doc", Outcome::kIgnored, nullptr},
                      Damage{"zero-length", Outcome::kIgnored, nullptr},
                      Damage{"half-frame", Outcome::kReconnects, nullptr}),
    [](const auto& info) {
      std::string name = info.param.kind;
      name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
      return name;
    });

}  // namespace
}  // namespace e2e
}  // namespace zel
