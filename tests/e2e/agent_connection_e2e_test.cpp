// The agent's connection to the relay over real sockets: reconnects after
// the relay closes it (by socket and by RMQ_CLIENT_CLOSE), a stale CLOSE,
// a relay that is not there at start or restarts, frames cut inside their
// length prefix or packed together, and damaged frames. After each, the
// agent must still answer. Each test has its own sandbox and agent.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "mpa_relay/relay_script.h"
#include "mpa_relay/relay_wire.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using zel::e2e::AgentHarness;

// Runs one command; the answer's status message is its output.
std::string Echo(const std::string& word) {
  return "message_type: MT_RUN_COMMAND operation_id: \"" + word +
         "\" dorn_fabric_object { runCommand { command: \"echo " + word + "\" } }";
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
    ASSERT_TRUE(a.has_value()) << "no answer to " << word << "\n" << h_.Report();
    ASSERT_NE(a->message, nullptr);
    ASSERT_EQ(a->message->operation_status_size(), 1);
    EXPECT_EQ(a->message->operation_status(0).message(), word + "\n");
    EXPECT_EQ(a->connection, h_.relay().current_connection());
    for (const auto& p : a->problems) ADD_FAILURE() << "wire: " << p;
  }
  void TearDown() override {
    EXPECT_EQ(h_.SanitizerReport(), "");
    if (h_.relay().registrations().empty()) return;
    EXPECT_TRUE(h_.agent().Running()) << h_.Report();
  }

  AgentHarness h_;
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
  ASSERT_TRUE(h_.WaitForLogPolling("Got CLIENT CLOSE Message for cookie", 10s)) << h_.Report();
  ASSERT_TRUE(h_.WaitForRegistrations(2, 10s)) << h_.Report();
  const int second = h_.relay().current_connection();
  EXPECT_NE(second, first);
  EXPECT_TRUE(h_.relay().IsOpen(first));  // the agent does not close it
  ExpectServes("after-close");

  // The old connection's cookie is stale now: the CLOSE on it changes nothing.
  const size_t from = h_.sandbox().LogLines().size();
  ASSERT_TRUE(h_.relay().SendClose(first));
  ASSERT_TRUE(h_.WaitForLogPolling("does not match with .*ignored", 10s, from)) << h_.Report();
  ExpectServes("after-stale-close");
  EXPECT_EQ(h_.relay().registrations().size(), 2u);
  EXPECT_EQ(h_.relay().current_connection(), second);
}

TEST_F(AgentConnectionTest, AgentRetriesUntilTheRelayListens) {
  h_.StartAgent();
  // The first attempt fails: nobody listens on 9002 yet.
  ASSERT_TRUE(h_.WaitForLogPolling("connecting to mpa return cookie", 20s)) << h_.Report();
  const auto listening = Clock::now();
  ASSERT_TRUE(h_.Listen());
  ASSERT_TRUE(h_.WaitForRegistrations(1, 15s)) << h_.Report();
  const auto took = h_.relay().registrations()[0].at - listening;
  EXPECT_LT(took, 6500ms) << std::chrono::duration<double>(took).count() << " s";
  ExpectServes("late-relay");
}

TEST_F(AgentConnectionTest, RelayRestartIsSurvived) {
  StartAndRegister();
  const size_t from = h_.sandbox().LogLines().size();
  h_.relay().DropAll();
  h_.relay().StopListening();
  // Down until the agent has tried once and failed; then back.
  ASSERT_TRUE(h_.WaitForLogPolling("connecting to mpa return cookie", 15s, from)) << h_.Report();
  ASSERT_TRUE(h_.Listen());
  ASSERT_TRUE(h_.WaitForRegistrations(2, 15s)) << h_.Report();
  ExpectServes("after-restart");
}

TEST_F(AgentConnectionTest, FramesCutInTheirPrefixOrPackedTogetherAreServed) {
  StartAndRegister();
  auto request = [](const std::string& word) {
    mpa_relay::Request r;
    mpa_relay::Step step;
    std::string error;
    EXPECT_TRUE(mpa_relay::ParseRequest(Echo(word), &step, &error)) << error;
    r.payload = step.payload;
    r.correlation_id = word;
    r.reply_to = "e2e-replies";
    return r;
  };
  std::vector<uint64_t> seqs;
  for (size_t at = 1; at <= 6; ++at) {
    seqs.push_back(h_.relay().SendSplit(request("cut-" + std::to_string(at)), at, 50ms));
  }
  const uint64_t pair = h_.relay().SendBatch({request("pair-a"), request("pair-b")});
  const uint64_t three = h_.relay().SendBatch({request("t-a"), request("t-b"), request("t-c")});
  seqs.insert(seqs.end(), {pair, pair + 1, three, three + 1, three + 2});
  const std::vector<std::string> words = {"cut-1",  "cut-2",  "cut-3", "cut-4", "cut-5", "cut-6",
                                          "pair-a", "pair-b", "t-a",   "t-b",   "t-c"};
  for (size_t i = 0; i < seqs.size(); ++i) {
    const auto a = h_.AnswerTo(seqs[i]);
    ASSERT_TRUE(a.has_value()) << words[i] << "\n" << h_.Report();
    ASSERT_NE(a->message, nullptr);
    EXPECT_EQ(a->message->operation_id(), words[i]);
  }
  EXPECT_EQ(h_.relay().registrations().size(), 1u);  // never reconnected
}

TEST_F(AgentConnectionTest, DamagedFramesDoNotStopTheAgent) {
  StartAndRegister();
  mpa_relay::Step probe;
  std::string error;
  ASSERT_TRUE(mpa_relay::ParseRequest(
      "message_type: MT_SOFTWARE_STATUS operation_id: \"damaged\"", &probe, &error));
  for (const std::string& kind : mpa_relay::MalformedKinds()) {
    SCOPED_TRACE(kind);
    const int connection = h_.relay().current_connection();
    ASSERT_NE(connection, 0) << h_.Report();
    const size_t from = h_.sandbox().LogLines().size();
    const size_t answers = h_.relay().answers().size();
    const bool answered = mpa_relay::MalformedKindIsAnswered(kind);
    const auto frame = mpa_relay::MalformedFrame(kind, "DORN_FABRIC_APPLICATION", probe.payload);
    ASSERT_TRUE(h_.relay().SendRaw(*frame, answered, connection));
    if (kind == "half-frame") {
      h_.relay().Flush(connection, Clock::now() + 5s);
      h_.relay().Drop(connection);
    }
    if (answered) {
      ASSERT_TRUE(h_.PollUntil([&] { return h_.relay().answers().size() > answers; }, 20s))
          << h_.Report();
      const auto& a = h_.relay().answers()[answers];
      ASSERT_NE(a.message, nullptr);
      EXPECT_EQ(a.message->operation_id(), "damaged");
    }
    if (kind == "not-dorn") {
      EXPECT_TRUE(h_.WaitForLogPolling("Failed to parse DornMessage", 10s, from)) << h_.Report();
    }
    if (kind == "unknown-type") {
      EXPECT_TRUE(h_.WaitForLogPolling("Unrecognized RMQ messageType \\[4\\]", 10s, from))
          << h_.Report();
    }
    ExpectServes("after-" + kind);
  }
}

}  // namespace
