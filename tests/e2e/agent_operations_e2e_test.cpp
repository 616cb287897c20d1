// Every operation of the agent over the real wire: the agent binary in a
// sandbox that shows it an Ubuntu host, the stand-in relay in this process.
// Each test checks what the answer frame carries (kind, routing key,
// headers, layout) and the answer's statuses, and what the operation did to
// the sandbox. The logic behind each operation in depth is the managers'
// own tests' affair; here it is the road from the wire to the host and back.
//
// The operations in depth (every status, edge and stand-in call) are tested
// through CommunicationHandler::Callback in communication_handler_inner.cpp;
// this suite is the wire around them, one or two requests per type.
//
// One agent serves the whole suite; every test uses its own operation ids
// and files, and the tests that change tracked software set it themselves.
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace {

using namespace std::chrono_literals;
using mpa_relay::Answer;
using orvane::zel::dorn::DornMessage;
using orvane::zel::dorn::OperationStatus;
using zel::e2e::AgentHarness;
using zel::e2e::AskOptions;
namespace dorn = orvane::zel::dorn;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";
constexpr const char* kGeneratedCorrelation = "DORN_FABRIC_APPLICATION-0";

class AgentOperationsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    h_ = new AgentHarness();
    if (!h_->Listen()) return;
    h_->StartAgent();
    registered_ = h_->WaitForRegistrations(1, 30s);
  }
  static void TearDownTestSuite() {
    if (h_ != nullptr) {
      EXPECT_EQ(h_->SanitizerReport(), "");
    }
    delete h_;
    h_ = nullptr;
  }
  void SetUp() override { ASSERT_TRUE(registered_) << h_->Report(); }
  void TearDown() override {
    // The agent is shared: it must still be up for the next test.
    EXPECT_TRUE(h_->agent().Running()) << h_->Report();
  }

  // Sends and returns the answer's message, after checking the frame around
  // it: an answer to a request with a reply-to, without problems.
  static DornMessage Ask(const std::string& text, const AskOptions& ask = {}) {
    std::optional<Answer> a = h_->Request(text, ask);
    EXPECT_TRUE(a.has_value()) << "no answer to: " << text << "\n" << h_->Report();
    if (!a) return DornMessage();
    for (const auto& p : a->problems) ADD_FAILURE() << "wire: " << p;
    EXPECT_EQ(a->kind, ask.reply_to ? 11 : 10);
    EXPECT_EQ(a->routing_key, ask.reply_to.value_or(""));
    EXPECT_EQ(a->app_type, kApp);
    EXPECT_EQ(a->type_id, mpa_relay::kDornTypeId);
    EXPECT_EQ(a->content_type, mpa_relay::kProtobufContentType);
    return a->message ? *a->message : DornMessage();
  }

  static void ExpectStatus(const OperationStatus& s, dorn::Status status, const std::string& id,
                           const std::string& message) {
    EXPECT_EQ(s.status(), status) << s.ShortDebugString();
    EXPECT_EQ(s.fabric_object_identifier(), id) << s.ShortDebugString();
    EXPECT_EQ(s.message(), message) << s.ShortDebugString();
  }

  static std::vector<std::string> Calls(const std::string& name) {
    return h_->sandbox().StandinCalls(name);
  }
  static bool Called(const std::string& name, const std::string& line) {
    for (const auto& c : Calls(name)) {
      if (c == line) return true;
    }
    return false;
  }

  static AgentHarness* h_;
  static bool registered_;
};

AgentHarness* AgentOperationsTest::h_ = nullptr;
bool AgentOperationsTest::registered_ = false;

TEST_F(AgentOperationsTest, RegistrationAcknowledgementAndAnswerKeepTheWireLayout) {
  const auto& reg = h_->relay().registrations().at(0);
  EXPECT_EQ(reg.app_type, kApp);
  EXPECT_EQ(reg.msg_type, mpa_relay::kRegistration);
  for (const auto& p : reg.problems) ADD_FAILURE() << "registration: " << p;
  EXPECT_TRUE(h_->WaitForLogPolling("Received CLIENT_REGISTRATION_ACK message\\.", 10s))
      << h_->Report();

  const DornMessage m = Ask(R"(message_type: MT_RUN_COMMAND operation_id: "wire-1"
      dorn_fabric_object { fabric_object_identifier: "c1" runCommand { command: "echo hello" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(m.operation_id(), "wire-1");
  ASSERT_EQ(m.operation_status_size(), 1);
  ExpectStatus(m.operation_status(0), dorn::COMMAND_SUCCESS, "c1", "hello\n");
  EXPECT_EQ(h_->relay().answers().back().correlation_id, kGeneratedCorrelation);
}

TEST_F(AgentOperationsTest, CorrelationIdAndReplyToShapeTheAnswerFrame) {
  AskOptions echo;
  echo.correlation_id = "mine-7";
  DornMessage m = Ask("message_type: MT_GET_RSA_KEY operation_id: \"corr-1\" "
                      "return_same_correlationid: true",
                      echo);
  EXPECT_TRUE(m.return_same_correlationid());
  EXPECT_EQ(h_->relay().answers().back().correlation_id, "mine-7");

  // Without the flag every answer carries the one generated id.
  Ask("message_type: MT_GET_RSA_KEY operation_id: \"corr-2\"", echo);
  EXPECT_EQ(h_->relay().answers().back().correlation_id, kGeneratedCorrelation);

  // Without a reply-to: kind 10 and an empty routing key (checked in Ask).
  AskOptions plain;
  plain.reply_to.reset();
  m = Ask("message_type: MT_GET_RSA_KEY operation_id: \"corr-3\"", plain);
  EXPECT_EQ(m.operation_id(), "corr-3");
}

TEST_F(AgentOperationsTest, RunCommandAnswersTheOutputOfEachCommand) {
  const DornMessage m = Ask(R"(message_type: MT_RUN_COMMAND operation_id: "run-1"
      dorn_fabric_object { fabric_object_identifier: "r1" runCommand { command: "printf 'a\\tb\\n'" } }
      dorn_fabric_object { fabric_object_identifier: "r2" runCommand { command: "echo two; exit 3" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  ASSERT_EQ(m.operation_status_size(), 2) << m.ShortDebugString();
  ExpectStatus(m.operation_status(0), dorn::COMMAND_SUCCESS, "r1", "a\tb\n");
  ExpectStatus(m.operation_status(1), dorn::COMMAND_FAILED, "r2", "two\n");
}

TEST_F(AgentOperationsTest, FileCopyWritesTheBytesThatCameOverTheWire) {
  const DornMessage m = Ask(R"(message_type: MT_FILE_COPY operation_id: "copy-1"
      dorn_fabric_object { fabric_object_identifier: "x"
          fileCopy { file: "/opt/e2e/new/dir/run.sh" data: "#!/bin/sh\necho \"ran\"\n\303\251\n"
                     make_executable: true } })");
  ASSERT_EQ(m.operation_status_size(), 1);
  EXPECT_EQ(m.operation_status(0).status(), dorn::FILE_COPY_SUCCESS);
  EXPECT_EQ(h_->sandbox().ReadFile("/opt/e2e/new/dir/run.sh"),
            "#!/bin/sh\necho \"ran\"\n\xc3\xa9\n");
  std::string mode;
  h_->sandbox().Run({"stat", "-c", "%a", "/opt/e2e/new/dir/run.sh"}, 10s, &mode);
  EXPECT_EQ(mode, "700\n");
}

TEST_F(AgentOperationsTest, TrackedSoftwareIsReportedByStatusRequests) {
  DornMessage m = Ask(R"(message_type: MT_INIT operation_id: "init-1"
      dorn_fabric_object { software { name: "bash" version: "5.2" } }
      dorn_fabric_object { software { name: "oldpkg" version: "2.0" } }
      dorn_fabric_object { software { name: "missing-pkg" version: "1.0" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_INIT);
  EXPECT_EQ(m.operation_id(), "init-1");
  EXPECT_EQ(m.dorn_fabric_object_size(), 0);
  EXPECT_EQ(m.operation_status_size(), 0);

  m = Ask("message_type: MT_SOFTWARE_STATUS operation_id: \"status-1\"");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(m.operation_status_size(), 0);
  ASSERT_EQ(m.dorn_fabric_object_size(), 2) << m.ShortDebugString();
  EXPECT_EQ(m.dorn_fabric_object(0).software().name(), "oldpkg");
  EXPECT_EQ(m.dorn_fabric_object(0).software().state(), dorn::INVALID_VERSION);
  EXPECT_EQ(m.dorn_fabric_object(0).software().version(), "1.0");
  EXPECT_EQ(m.dorn_fabric_object(1).software().name(), "missing-pkg");
  EXPECT_EQ(m.dorn_fabric_object(1).software().state(), dorn::ABSENT);

  // MT_INIT without an operation id clears the list and is not answered: the
  // next answer to arrive is the status request's, and it is empty.
  AskOptions silent;
  silent.expect_answer = false;
  ASSERT_NE(h_->Send("message_type: MT_INIT", silent), 0u);
  m = Ask("message_type: MT_SOFTWARE_STATUS operation_id: \"status-2\"");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(m.operation_id(), "status-2");
  EXPECT_EQ(m.dorn_fabric_object_size(), 0);
}

TEST_F(AgentOperationsTest, MissingPackagesAreAnsweredWithTheirOperands) {
  // A status request with something tracked reads the package list.
  Ask(R"(message_type: MT_INIT operation_id: "init-2" dorn_fabric_object { software { name: "bash" } })");
  Ask("message_type: MT_SOFTWARE_STATUS operation_id: \"status-3\"");
  const DornMessage m = Ask(R"(message_type: MT_FIND_MISSING_PACKAGES_FROM_LIST operation_id: "find-1"
      dorn_fabric_object { findMissingPackagesFromList { name: "bash" } }
      dorn_fabric_object { findMissingPackagesFromList { name: "nope" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  ASSERT_EQ(m.dorn_fabric_object_size(), 1) << m.ShortDebugString();
  EXPECT_EQ(m.dorn_fabric_object(0).findmissingpackagesfromlist().name(), "nope");
  Ask("message_type: MT_INIT operation_id: \"init-3\"");  // track nothing again
}

TEST_F(AgentOperationsTest, CreateUserRunsTheUbuntuScript) {
  const DornMessage m = Ask(R"(message_type: MT_CREATE_USER operation_id: "user-1"
      dorn_fabric_object { createOrDeleteUser { username: "alice" password: "s3cret" } })");
  ASSERT_EQ(m.operation_status_size(), 1);
  EXPECT_EQ(m.operation_status(0).status(), dorn::USER_CREATE_DELETE_SUCCESS);
  EXPECT_TRUE(Called("useradd", "useradd -m -p xxcryptedxx -g alice alice"));
  EXPECT_TRUE(Called("usermod", "usermod -aG sudo,syslog alice"));
}

TEST_F(AgentOperationsTest, RebootRunsTheRebootStandin) {
  const DornMessage m = Ask("message_type: MT_REBOOT_HOST operation_id: \"reboot-1\"");
  ASSERT_EQ(m.operation_status_size(), 1);
  EXPECT_EQ(m.operation_status(0).status(), dorn::COMMAND_SUCCESS);
  EXPECT_EQ(Calls("reboot").size(), 1u);
}

TEST_F(AgentOperationsTest, CertificateAndKeyComeFromTheirFiles) {
  DornMessage m = Ask("message_type: MT_GET_CERTIFICATE operation_id: \"cert-1\"");
  ASSERT_EQ(m.operation_status_size(), 1);
  ExpectStatus(m.operation_status(0), dorn::GET_CERTIFICATE_SUCCESS, "",
               zel::e2e::kHostCertificate);
  m = Ask("message_type: MT_GET_RSA_KEY operation_id: \"key-1\"");
  ASSERT_EQ(m.operation_status_size(), 1);
  ExpectStatus(m.operation_status(0), dorn::GET_CERTIFICATE_SUCCESS, "", zel::e2e::kSshRsaKey);
}

TEST_F(AgentOperationsTest, ServicesAreStoppedAndRestartedThroughInitScripts) {
  DornMessage m = Ask(R"(message_type: MT_RESTART_SERVICES operation_id: "svc-1"
      dorn_fabric_object { fabric_object_identifier: "s1" restartServices { name: "zelsvc" } })");
  ASSERT_EQ(m.operation_status_size(), 1);
  EXPECT_EQ(m.operation_status(0).status(), dorn::COMMAND_SUCCESS);
  EXPECT_TRUE(Called("zelsvc", "zelsvc restart"));

  // A stop reads its name from restartServices too; a failing script fails it.
  m = Ask(R"(message_type: MT_STOP_SERVICES operation_id: "svc-2"
      dorn_fabric_object { fabric_object_identifier: "s2" restartServices { name: "brokensvc" } })");
  ASSERT_EQ(m.operation_status_size(), 1);
  ExpectStatus(m.operation_status(0), dorn::COMMAND_FAILED, "s2", "");
  EXPECT_TRUE(Called("brokensvc", "brokensvc stop"));
}

TEST_F(AgentOperationsTest, OperationStatusAndUnknownTypesGetNoOperation) {
  const int connection = h_->relay().current_connection();
  AskOptions silent;
  silent.expect_answer = false;
  ASSERT_NE(h_->Send("message_type: MT_OPERATION_STATUS operation_id: \"ignored\"", silent), 0u);
  // Answers come in order, so the next one is the key's.
  DornMessage m = Ask("message_type: MT_GET_RSA_KEY operation_id: \"after-ignored\"");
  EXPECT_EQ(m.operation_id(), "after-ignored");

  // message_type 99 is unknown to the schema and reads as MT_INIT.
  mpa_relay::Request r;
  r.payload = std::string("\x08\x63\x12\x07unknown", 11);
  r.correlation_id = "c";
  r.reply_to = "e2e-replies";
  const auto a = h_->AnswerTo(h_->relay().Send(r));
  ASSERT_TRUE(a.has_value()) << h_->Report();
  ASSERT_NE(a->message, nullptr);
  EXPECT_EQ(a->message->message_type(), dorn::MT_INIT);
  EXPECT_EQ(a->message->operation_id(), "unknown");
  EXPECT_EQ(h_->relay().current_connection(), connection);
}

}  // namespace
