// Every operation of the agent over the real wire: the agent binary in a
// sandbox that shows it an Ubuntu host, the stand-in relay in this process.
// The answers are checked field by field (frame, kind, routing key, headers,
// statuses, objects), and so is what each operation did to the host: the
// files written and the host commands the stand-ins recorded.
//
// One agent serves the whole suite; every case uses its own operation ids
// and files, and the tracking case sets the tracked software itself.
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/agent_harness.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace zel {
namespace e2e {
namespace {

using namespace std::chrono_literals;
using orvane::zel::dorn::DornMessage;
namespace dorn = orvane::zel::dorn;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";
constexpr const char* kGeneratedCorrelation = "DORN_FABRIC_APPLICATION-0";

// One expected OperationStatus; a null message means none is set.
struct Status {
  dorn::Status status;
  std::string id;
  const char* message;
};

class AgentOperationsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    h_ = new AgentHarness();
    h_->sandbox().WriteFile("/etc/init.d/othersvc", Standin("othersvc", "exit 0\n"), 0755);
    if (!h_->Listen()) return;
    h_->StartAgent();
    registered_ = h_->WaitForRegistrations(1, 30s);
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(h_->SanitizerReport(), "");
    delete h_;
  }
  void SetUp() override { ASSERT_TRUE(registered_) << h_->Report(); }
  void TearDown() override { EXPECT_TRUE(h_->agent().Running()) << h_->Report(); }

  // Sends and returns the answer's message, after checking the frame around
  // it: an answer to a request with a reply-to, without wire problems.
  static DornMessage Ask(const std::string& text, const AskOptions& ask = {}) {
    const auto a = h_->Request(text, ask);
    EXPECT_TRUE(a.has_value()) << "no answer to: " << text << "\n" << h_->Report();
    if (!a || !a->message) return DornMessage();
    for (const auto& p : a->problems) ADD_FAILURE() << "wire: " << p;
    EXPECT_EQ(a->kind, ask.reply_to ? 11 : 10);
    EXPECT_EQ(a->routing_key, ask.reply_to.value_or(""));
    EXPECT_EQ(a->app_type, kApp);
    EXPECT_EQ(a->type_id, mpa_relay::kDornTypeId);
    EXPECT_EQ(a->content_type, mpa_relay::kProtobufContentType);
    return *a->message;
  }

  static std::vector<std::string> Calls(const std::string& name = "") { return h_->sandbox().StandinCalls(name); }

  static AgentHarness* h_;
  static bool registered_;
};

AgentHarness* AgentOperationsTest::h_ = nullptr;
bool AgentOperationsTest::registered_ = false;

TEST_F(AgentOperationsTest, RegistrationAndCorrelationShapeTheFrames) {
  const auto& reg = h_->relay().registrations().at(0);
  EXPECT_EQ(reg.app_type, kApp);
  EXPECT_EQ(reg.msg_type, mpa_relay::kRegistration);
  for (const auto& p : reg.problems) ADD_FAILURE() << "registration: " << p;

  // The caller's correlation id comes back only when asked for; otherwise
  // every answer carries the one generated id.
  AskOptions mine;
  mine.correlation_id = "mine-7";
  DornMessage m = Ask(R"(message_type: MT_GET_RSA_KEY operation_id: "corr-1" return_same_correlationid: true)", mine);
  EXPECT_TRUE(m.return_same_correlationid());
  EXPECT_EQ(h_->relay().answers().back().correlation_id, "mine-7");
  m = Ask(R"(message_type: MT_GET_RSA_KEY operation_id: "corr-2")", mine);
  EXPECT_FALSE(m.return_same_correlationid());
  EXPECT_EQ(h_->relay().answers().back().correlation_id, kGeneratedCorrelation);

  // Without a reply-to: kind 10 and an empty routing key (checked in Ask).
  AskOptions plain;
  plain.reply_to.reset();
  EXPECT_EQ(Ask(R"(message_type: MT_GET_RSA_KEY operation_id: "corr-3")", plain).operation_id(), "corr-3");
}

TEST_F(AgentOperationsTest, EachOperationAnswersItsStatusesAndActsOnTheHost) {
  auto file = [](const std::string& path) { return h_->sandbox().ReadFile(path); };
  auto run = [](const std::string& script) {
    std::string out;
    EXPECT_TRUE(h_->sandbox().Run({"sh", "-c", script}, 10s, &out).Success()) << script;
    return out;
  };
  struct Case {
    const char* name;
    std::string request;
    std::vector<Status> statuses;
    std::vector<std::string> calls;  // stand-in calls the operation makes, in order
    std::string never;               // no call contains this
    std::function<void()> before = nullptr, after = nullptr;
  };
  const std::vector<Case> cases = {
      {"commands run up to the first failure",
       R"(message_type: MT_RUN_COMMAND operation_id: "run-1"
          dorn_fabric_object { fabric_object_identifier: "r1" runCommand { command: "printf 'a\\tb\\n'" } }
          dorn_fabric_object { fabric_object_identifier: "r2" runCommand { command: "echo two; exit 3" } }
          dorn_fabric_object { fabric_object_identifier: "r3" runCommand { command: "touch /tmp/never-run" } })",
       {{dorn::COMMAND_SUCCESS, "r1", "a\tb\n"}, {dorn::COMMAND_FAILED, "r2", "two\n"}}, {}, "", nullptr,
       [&] { EXPECT_FALSE(h_->sandbox().Exists("/tmp/never-run")); }},
      {"files are written with the bytes that came over the wire",
       R"(message_type: MT_FILE_COPY operation_id: "copy-1"
          dorn_fabric_object { fabric_object_identifier: "x" fileCopy { file: "/opt/e2e/new/dir/run.sh"
              data: "#!/bin/sh\necho \"ran\"\n\303\251\n" make_executable: true } }
          dorn_fabric_object { fabric_object_identifier: "y" fileCopy { file: "/var/lib/e2e/data.bin"
              data: "bytes\000and more" } })",
       {{dorn::FILE_COPY_SUCCESS, "", nullptr}}, {}, "", nullptr,
       [&] {
         EXPECT_EQ(file("/opt/e2e/new/dir/run.sh"), "#!/bin/sh\necho \"ran\"\n\xc3\xa9\n");
         EXPECT_EQ(run("stat -c %a /opt/e2e/new/dir/run.sh /var/lib/e2e/data.bin"), "700\n644\n");
         EXPECT_EQ(file("/var/lib/e2e/data.bin"), std::string("bytes\0and more", 14));
       }},
      {"a copy stops at the first failure and names it",
       R"(message_type: MT_FILE_COPY operation_id: "copy-2"
          dorn_fabric_object { fabric_object_identifier: "obj-relative" fileCopy { file: "relative.txt" } }
          dorn_fabric_object { fabric_object_identifier: "obj-later" fileCopy { file: "/var/lib/e2e/never.txt" } })",
       {{dorn::FILE_COPY_FAILED, "obj-relative", "Provide absolute path"}}, {}, "", nullptr,
       [&] { EXPECT_FALSE(h_->sandbox().Exists("/var/lib/e2e/never.txt")); }},
      {"a user is made from the first object by the Ubuntu script",
       R"(message_type: MT_CREATE_USER operation_id: "user-1"
          dorn_fabric_object { createOrDeleteUser { username: "alice" password: "s3cret" } }
          dorn_fabric_object { createOrDeleteUser { username: "mallory" } })",
       {{dorn::USER_CREATE_DELETE_SUCCESS, "", nullptr}},
       {"groupadd alice", "useradd -m -p xxcryptedxx -g alice alice", "usermod -aG sudo,syslog alice"}, "mallory"},
      {"a failing last step of the script fails the user",
       R"(message_type: MT_CREATE_USER operation_id: "user-2"
          dorn_fabric_object { createOrDeleteUser { username: "refused" password: "pw" } })",
       {{dorn::USER_CREATE_DELETE_FAILED, "", nullptr}}, {"usermod -aG sudo,syslog refused"}, ""},
      {"reboot runs reboot", R"(message_type: MT_REBOOT_HOST operation_id: "reboot-1")",
       {{dorn::COMMAND_SUCCESS, "", ""}}, {"reboot"}, ""},
      {"a failing reboot answers what it printed", R"(message_type: MT_REBOOT_HOST operation_id: "reboot-2")",
       {{dorn::COMMAND_FAILED, "", "reboot refused"}}, {"reboot"}, "",
       [] { h_->sandbox().AddStandin("reboot", Standin("reboot", "printf 'reboot refused'\nexit 1\n")); },
       [] { h_->sandbox().AddStandin("reboot", Standin("reboot", "")); }},
      {"the certificate comes from its file", R"(message_type: MT_GET_CERTIFICATE operation_id: "cert-1")",
       {{dorn::GET_CERTIFICATE_SUCCESS, "", kHostCertificate}}, {}, ""},
      {"the SSH key comes from its file", R"(message_type: MT_GET_RSA_KEY operation_id: "key-1")",
       {{dorn::GET_CERTIFICATE_SUCCESS, "", kSshRsaKey}}, {}, ""},
      {"no certificate file fails empty", R"(message_type: MT_GET_CERTIFICATE operation_id: "cert-2")",
       {{dorn::GET_CERTIFICATE_FAILED, "", ""}}, {}, "",
       [&] { run("mv /etc/orvane/zel/host-cert.pem /etc/orvane/zel/host-cert.away"); },
       [&] { run("mv /etc/orvane/zel/host-cert.away /etc/orvane/zel/host-cert.pem"); }},
      {"no key file fails empty", R"(message_type: MT_GET_RSA_KEY operation_id: "key-2")",
       {{dorn::GET_CERTIFICATE_FAILED, "", ""}}, {}, "",
       [&] { run("mv /etc/ssh/ssh_host_rsa_key.pub /etc/ssh/key.away"); },
       [&] { run("mv /etc/ssh/key.away /etc/ssh/ssh_host_rsa_key.pub"); }},
      {"a restart ends at the first failing script and names its object",
       R"(message_type: MT_RESTART_SERVICES operation_id: "svc-1"
          dorn_fabric_object { fabric_object_identifier: "s1" restartServices { name: "zelsvc" } }
          dorn_fabric_object { fabric_object_identifier: "s2" restartServices { name: "brokensvc" } }
          dorn_fabric_object { fabric_object_identifier: "s3" restartServices { name: "othersvc" } })",
       {{dorn::COMMAND_FAILED, "s2", nullptr}}, {"zelsvc restart", "brokensvc restart"}, "othersvc"},
      {"a stop reads the name from restartServices only",
       R"(message_type: MT_STOP_SERVICES operation_id: "svc-2"
          dorn_fabric_object { fabric_object_identifier: "s4"
              stopServices { name: "brokensvc" } restartServices { name: "zelsvc" } })",
       {{dorn::COMMAND_SUCCESS, "", nullptr}}, {"zelsvc stop"}, "brokensvc"},
      {"a stop without a restartServices name runs no script",
       R"(message_type: MT_STOP_SERVICES operation_id: "svc-3"
          dorn_fabric_object { fabric_object_identifier: "s5" stopServices { name: "zelsvc" } })",
       {{dorn::COMMAND_FAILED, "s5", nullptr}}, {}, "zelsvc"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.before) c.before();
    const size_t callsBefore = Calls().size();
    const DornMessage m = Ask(c.request);
    EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
    EXPECT_EQ(m.dorn_fabric_object_size(), 0);
    ASSERT_EQ(m.operation_status_size(), static_cast<int>(c.statuses.size())) << m.ShortDebugString();
    for (size_t i = 0; i < c.statuses.size(); ++i) {
      const auto& got = m.operation_status(static_cast<int>(i));
      EXPECT_EQ(got.status(), c.statuses[i].status) << got.ShortDebugString();
      EXPECT_EQ(got.has_fabric_object_identifier(), !c.statuses[i].id.empty()) << got.ShortDebugString();
      EXPECT_EQ(got.fabric_object_identifier(), c.statuses[i].id);
      EXPECT_EQ(got.has_message(), c.statuses[i].message != nullptr) << got.ShortDebugString();
      EXPECT_EQ(got.message(), c.statuses[i].message ? c.statuses[i].message : "");
    }
    const auto all = Calls();
    std::vector<std::string> made(all.begin() + static_cast<long>(std::min(callsBefore, all.size())), all.end());
    size_t at = 0;
    for (const auto& call : made) {
      if (at < c.calls.size() && call == c.calls[at]) ++at;
      if (!c.never.empty()) {
        EXPECT_EQ(call.find(c.never), std::string::npos) << call;
      }
    }
    EXPECT_EQ(at, c.calls.size()) << "calls made:\n" << ::testing::PrintToString(made);
    if (c.after) c.after();
  }
}

TEST_F(AgentOperationsTest, TrackedSoftwareIsReportedByStatusAndMissingPackageRequests) {
  DornMessage m = Ask(R"(message_type: MT_INIT operation_id: "init-1"
      dorn_fabric_object { software { name: "bash" version: "5.2" } }
      dorn_fabric_object { software { name: "oldpkg" version: "2.0" } }
      dorn_fabric_object { software { name: "gonepkg" version: "0.9" } }
      dorn_fabric_object { software { name: "missing-pkg" version: "1.0" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_INIT);
  EXPECT_EQ(m.operation_id(), "init-1");
  EXPECT_EQ(m.dorn_fabric_object_size(), 0);
  EXPECT_EQ(m.operation_status_size(), 0);

  // Unmet: a wrong version (with the installed one), a package whose files
  // were removed and one never installed (both absent, with no version).
  m = Ask("message_type: MT_SOFTWARE_STATUS operation_id: \"status-1\"");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(m.operation_status_size(), 0);
  ASSERT_EQ(m.dorn_fabric_object_size(), 3) << m.ShortDebugString();
  const struct {
    const char* name;
    dorn::SoftwareState state;
    const char* version;
  } unmet[] = {{"oldpkg", dorn::INVALID_VERSION, "1.0"}, {"gonepkg", dorn::ABSENT, ""}, {"missing-pkg", dorn::ABSENT, ""}};
  for (int i = 0; i < 3; ++i) {
    const auto& o = m.dorn_fabric_object(i);
    EXPECT_FALSE(o.has_fabric_object_identifier());
    EXPECT_EQ(o.software().name(), unmet[i].name);
    EXPECT_EQ(o.software().state(), unmet[i].state);
    EXPECT_EQ(o.software().version(), unmet[i].version);
  }
  EXPECT_FALSE(Calls("dpkg-query").empty());

  // Missing from the list the status request read: only their operands come
  // back, without the identifiers.
  m = Ask(R"(message_type: MT_FIND_MISSING_PACKAGES_FROM_LIST operation_id: "find-1"
      dorn_fabric_object { fabric_object_identifier: "id-1" findMissingPackagesFromList { name: "bash" } }
      dorn_fabric_object { fabric_object_identifier: "id-2" findMissingPackagesFromList { name: "gonepkg" } }
      dorn_fabric_object { fabric_object_identifier: "id-3" findMissingPackagesFromList { name: "nope" } })");
  EXPECT_EQ(m.message_type(), dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(m.operation_status_size(), 0);
  ASSERT_EQ(m.dorn_fabric_object_size(), 2) << m.ShortDebugString();
  EXPECT_EQ(m.dorn_fabric_object(0).findmissingpackagesfromlist().name(), "gonepkg");
  EXPECT_EQ(m.dorn_fabric_object(1).findmissingpackagesfromlist().name(), "nope");
  EXPECT_FALSE(m.dorn_fabric_object(0).has_fabric_object_identifier());

  // MT_INIT without an operation id clears the list and is not answered: the
  // next answer to arrive is the status request's, and it is empty.
  AskOptions silent;
  silent.expect_answer = false;
  ASSERT_NE(h_->Send("message_type: MT_INIT", silent), 0u);
  m = Ask("message_type: MT_SOFTWARE_STATUS operation_id: \"status-2\"");
  EXPECT_EQ(m.operation_id(), "status-2");
  EXPECT_EQ(m.dorn_fabric_object_size(), 0);
}

TEST_F(AgentOperationsTest, OperationStatusAndUnknownTypesGetNoOperation) {
  const int connection = h_->relay().current_connection();
  AskOptions silent;
  silent.expect_answer = false;
  ASSERT_NE(h_->Send("message_type: MT_OPERATION_STATUS operation_id: \"ignored\"", silent), 0u);
  // Answers come in order, so the next one is the key's.
  EXPECT_EQ(Ask("message_type: MT_GET_RSA_KEY operation_id: \"after-ignored\"").operation_id(), "after-ignored");

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
}  // namespace e2e
}  // namespace zel
