// Every operation of the agent, driven through CommunicationHandler::Callback
// with a real serialised DornMessage, answered by the real managers and host
// operations, with the answer checked field by field.
//
// The operations run host commands as root (useradd, reboot, /etc/init.d
// scripts) and read /etc files, so this program runs only inside the e2e
// sandbox: communication_handler_sandbox_e2e_test spawns it there after
// setting up the host (stand-ins, certificate, key, service scripts) and then
// checks the stand-ins' calls and the written files. Started anywhere else it
// refuses to run any test.
//
// The client layer is the in-memory fake; nothing leaves the process.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "core/communication_handler.h"
#include "core/file_copy_manager.h"
#include "core/host_info.h"
#include "core/host_manager.h"
#include "core/host_operations.h"
#include "core/monitor.h"
#include "core/rpc_manager.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "fakes/fake_mp_client_layer.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using namespace orvane::zel::dorn;
using testing::FakeMpClientLayer;
using testing::SentMessage;

constexpr char kReplyTo[] = "e2e.replies";
constexpr char kGeneratedId[] = "DORN_FABRIC_APPLICATION-0";
constexpr char kStatusFile[] = "/tmp/e2e-software-status";

// Shared with the outer test, which writes these files before the run.
constexpr char kCertificatePath[] = "/etc/orvane/zel/host-cert.pem";
constexpr char kRsaKeyPath[] = "/etc/ssh/ssh_host_rsa_key.pub";

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string ReadLink(const std::string& path) {
  char buf[256];
  const ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// True only in a private mount namespace whose "reboot" is the sandbox's
// stand-in.
bool InsideSandbox(std::string* why) {
  const std::string self = ReadLink("/proc/self/ns/mnt");
  if (self.empty() || self == ReadLink("/proc/1/ns/mnt")) {
    *why = "the mount namespace is the machine's own";
    return false;
  }
  std::FILE* p = popen("command -v reboot", "r");
  if (p == nullptr) {
    *why = "cannot ask the shell for reboot";
    return false;
  }
  char line[256] = {0};
  const bool read = std::fgets(line, sizeof(line), p) != nullptr;
  pclose(p);
  if (!read || std::string(line) != "/run/zel-sandbox/bin/reboot\n") {
    *why = std::string("reboot resolves to ") + line;
    return false;
  }
  return true;
}

class OperationsThroughCallbackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    HostInfo::CreateInstance();
    HostOperations::CreateInstance();
    SoftwareManager::CreateInstance();
    FileCopyManager::CreateInstance();
    RpcManager::CreateInstance();
    UserManager::CreateInstance();
    HostManager::CreateInstance();
    monitor_ = new boost::shared_ptr<Monitor>(new Monitor(Monitor::kThreadName, kStatusFile));
    provider_ = new boost::shared_ptr<zel::rpc::AsioZelProvider>(
        zel::rpc::AsioZelProvider::Create(boost::property_tree::ptree()));
    layer_ = new boost::shared_ptr<FakeMpClientLayer>(boost::make_shared<FakeMpClientLayer>());
    CommunicationHandler::CreateInstance(*monitor_, provider_->get(), *layer_);
    // Registers with the fake layer, then serves the provider until the
    // queued stop.
    (*provider_)->GetDispatcher()->Post([] { (*provider_)->Stop(); });
    CommunicationHandler::GetInstance()->Start();
  }

  static void TearDownTestSuite() {
    CommunicationHandler::GetInstance()->Stop();
    CommunicationHandler::CreateInstance(nullptr, nullptr, nullptr);
    delete layer_;
    delete provider_;
    delete monitor_;
  }

  void SetUp() override {
    ASSERT_STREQ(HostInfo::GetHostType(), kHostTypeUbuntu);
    ASSERT_TRUE((*layer_)->client());
    (*layer_)->client()->ClearSent();
  }

  // Delivers `request` as a data record from the relay with a reply-to queue
  // and `correlationId`, and returns the one answer it produced.
  SentMessage Ask(const DornMessage& request, const std::string& correlationId = "e2e-corr") {
    (*layer_)->Deliver(RMQ_CLIENT_DATA_MESSAGE, request.SerializeAsString(),
                       {{"amqp_correlationId", correlationId}, {"amqp_replyTo", kReplyTo}});
    auto sent = (*layer_)->client()->Sent();
    (*layer_)->client()->ClearSent();
    EXPECT_EQ(sent.size(), 1u) << request.ShortDebugString();
    if (sent.empty()) return SentMessage();
    ExpectFrame(sent[0], request, correlationId);
    return sent[0];
  }

  // Everything of an answer that does not depend on the operation.
  static void ExpectFrame(const SentMessage& answer, const DornMessage& request,
                          const std::string& correlationId) {
    EXPECT_EQ(answer.kind, CommunicationHandler::kReplyKind);
    EXPECT_EQ(answer.routingKey, kReplyTo);
    EXPECT_EQ(answer.contentType, "application/protobuf");
    EXPECT_TRUE(answer.headersValid);
    EXPECT_EQ(answer.Header("__TypeId__"), "com.orvane.zel.dorn.DornFabricMessage.DornMessage");
    EXPECT_EQ(answer.Header("amqp_correlationId"),
              request.return_same_correlationid() ? correlationId : kGeneratedId);
    ASSERT_TRUE(answer.parsed);
    EXPECT_EQ(answer.message.operation_id(), request.operation_id());
    EXPECT_EQ(answer.message.return_same_correlationid(), request.return_same_correlationid());
  }

  static DornMessage Request(MessageType type, const std::string& operationId) {
    DornMessage m;
    m.set_message_type(type);
    m.set_operation_id(operationId);
    return m;
  }

  // MT_INIT tracking pkg-ok 1.2 (installed as 1.2.3-1), pkg-old 2.0
  // (installed as 1.9.0-1) and pkg-gone (not installed).
  DornMessage InitRequest(const std::string& operationId) {
    DornMessage m = Request(MT_INIT, operationId);
    const char* packages[][2] = {{"pkg-ok", "1.2"}, {"pkg-old", "2.0"}, {"pkg-gone", "1.0"}};
    for (const auto& p : packages) {
      auto* software = m.add_dorn_fabric_object()->mutable_software();
      software->set_name(p[0]);
      software->set_version(p[1]);
    }
    return m;
  }

  static void ExpectOneStatus(const SentMessage& answer, Status status,
                              const std::string& identifier, const std::string& message) {
    ASSERT_EQ(answer.message.operation_status_size(), 1) << answer.message.ShortDebugString();
    const OperationStatus& s = answer.message.operation_status(0);
    EXPECT_EQ(s.status(), status) << Status_Name(s.status());
    EXPECT_EQ(s.fabric_object_identifier(), identifier);
    EXPECT_EQ(s.message(), message);
    EXPECT_EQ(answer.message.dorn_fabric_object_size(), 0);
  }

  static boost::shared_ptr<Monitor>* monitor_;
  static boost::shared_ptr<zel::rpc::AsioZelProvider>* provider_;
  static boost::shared_ptr<FakeMpClientLayer>* layer_;
};

boost::shared_ptr<Monitor>* OperationsThroughCallbackTest::monitor_ = nullptr;
boost::shared_ptr<zel::rpc::AsioZelProvider>* OperationsThroughCallbackTest::provider_ = nullptr;
boost::shared_ptr<FakeMpClientLayer>* OperationsThroughCallbackTest::layer_ = nullptr;

TEST_F(OperationsThroughCallbackTest, InitReplacesTheTrackingListAndForcesAPublish) {
  const SentMessage answer = Ask(InitRequest("init-1"));
  EXPECT_EQ(answer.message.message_type(), MT_INIT);
  EXPECT_EQ(answer.message.operation_status_size(), 0);
  EXPECT_EQ(answer.message.dorn_fabric_object_size(), 0);

  // The monitor publishes the two unmet packages, then sees no change...
  Monitor& monitor = **monitor_;
  EXPECT_TRUE(monitor.CheckOnce());
  const std::string two("\x02\x00\x00\x00", 4);
  EXPECT_EQ(ReadText(kStatusFile), two);
  EXPECT_FALSE(monitor.CheckOnce());
  // ...until an init with the same list forces the next check to publish.
  Ask(InitRequest("init-2"));
  EXPECT_TRUE(monitor.CheckOnce());
  EXPECT_FALSE(monitor.CheckOnce());
}

TEST_F(OperationsThroughCallbackTest, SoftwareStatusReportsTheUnmetPackages) {
  Ask(InitRequest("init"));
  DornMessage request = Request(MT_SOFTWARE_STATUS, "status-1");
  request.set_return_same_correlationid(true);
  const SentMessage answer = Ask(request, "corr-status");

  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  EXPECT_EQ(answer.message.operation_status_size(), 0);
  ASSERT_EQ(answer.message.dorn_fabric_object_size(), 2) << answer.message.ShortDebugString();
  const DornFabricObject& old = answer.message.dorn_fabric_object(0);
  EXPECT_EQ(old.fabric_object_identifier(), "");
  EXPECT_EQ(old.software().name(), "pkg-old");
  EXPECT_EQ(old.software().version(), "1.9.0-1");
  EXPECT_EQ(old.software().state(), INVALID_VERSION);
  EXPECT_FALSE(old.has_filecopy());
  const DornFabricObject& gone = answer.message.dorn_fabric_object(1);
  EXPECT_EQ(gone.software().name(), "pkg-gone");
  EXPECT_EQ(gone.software().version(), "");
  EXPECT_EQ(gone.software().state(), ABSENT);
}

TEST_F(OperationsThroughCallbackTest, FindMissingPackagesAnswersTheMissingOperands) {
  Ask(InitRequest("init"));
  Ask(Request(MT_SOFTWARE_STATUS, "refresh"));  // reads the host's list
  DornMessage request = Request(MT_FIND_MISSING_PACKAGES_FROM_LIST, "find-1");
  for (const char* name : {"pkg-ok", "pkg-gone", "pkg-old", "pkg-nowhere"}) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(std::string("id-") + name);
    object->mutable_findmissingpackagesfromlist()->set_name(name);
  }
  const SentMessage answer = Ask(request);

  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  EXPECT_EQ(answer.message.operation_status_size(), 0);
  ASSERT_EQ(answer.message.dorn_fabric_object_size(), 2) << answer.message.ShortDebugString();
  EXPECT_EQ(answer.message.dorn_fabric_object(0).findmissingpackagesfromlist().name(),
            "pkg-gone");
  EXPECT_EQ(answer.message.dorn_fabric_object(0).fabric_object_identifier(), "");
  EXPECT_EQ(answer.message.dorn_fabric_object(1).findmissingpackagesfromlist().name(),
            "pkg-nowhere");
}

TEST_F(OperationsThroughCallbackTest, FileCopyWritesEveryFileAndStopsAtTheFirstFailure) {
  DornMessage request = Request(MT_FILE_COPY, "copy-1");
  auto* script = request.add_dorn_fabric_object();
  script->set_fabric_object_identifier("obj-script");
  script->mutable_filecopy()->set_file("/etc/orvane/e2e/run.sh");
  script->mutable_filecopy()->set_data("#!/bin/sh\necho copied\n");
  script->mutable_filecopy()->set_make_executable(true);
  auto* data = request.add_dorn_fabric_object();
  data->set_fabric_object_identifier("obj-data");
  data->mutable_filecopy()->set_file("/var/lib/e2e/data.bin");
  data->mutable_filecopy()->set_data(std::string("bytes\0and more", 14));

  SentMessage answer = Ask(request);
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, FILE_COPY_SUCCESS, "", "");
  struct stat st;
  ASSERT_EQ(stat("/etc/orvane/e2e/run.sh", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(ReadText("/var/lib/e2e/data.bin"), std::string("bytes\0and more", 14));

  DornMessage failing = Request(MT_FILE_COPY, "copy-2");
  auto* relative = failing.add_dorn_fabric_object();
  relative->set_fabric_object_identifier("obj-relative");
  relative->mutable_filecopy()->set_file("relative.txt");
  auto* later = failing.add_dorn_fabric_object();
  later->set_fabric_object_identifier("obj-later");
  later->mutable_filecopy()->set_file("/var/lib/e2e/never.txt");
  answer = Ask(failing);
  ExpectOneStatus(answer, FILE_COPY_FAILED, "obj-relative", "Provide absolute path");
  EXPECT_NE(access("/var/lib/e2e/never.txt", F_OK), 0);
}

TEST_F(OperationsThroughCallbackTest, RunCommandAnswersEachCommandRunUpToTheFirstFailure) {
  DornMessage request = Request(MT_RUN_COMMAND, "run-1");
  const char* commands[][2] = {{"c1", "echo one"}, {"c2", "printf two; exit 3"},
                               {"c3", "touch /tmp/e2e-never-run"}};
  for (const auto& c : commands) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(c[0]);
    object->mutable_runcommand()->set_command(c[1]);
  }
  const SentMessage answer = Ask(request);

  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ASSERT_EQ(answer.message.operation_status_size(), 2) << answer.message.ShortDebugString();
  EXPECT_EQ(answer.message.operation_status(0).status(), COMMAND_SUCCESS);
  EXPECT_EQ(answer.message.operation_status(0).fabric_object_identifier(), "c1");
  EXPECT_EQ(answer.message.operation_status(0).message(), "one\n");
  EXPECT_EQ(answer.message.operation_status(1).status(), COMMAND_FAILED);
  EXPECT_EQ(answer.message.operation_status(1).fabric_object_identifier(), "c2");
  EXPECT_EQ(answer.message.operation_status(1).message(), "two");
  EXPECT_EQ(answer.message.dorn_fabric_object_size(), 0);
  EXPECT_NE(access("/tmp/e2e-never-run", F_OK), 0);
}

TEST_F(OperationsThroughCallbackTest, CreateUserRunsTheHostsUserScript) {
  DornMessage request = Request(MT_CREATE_USER, "user-1");
  auto* user = request.add_dorn_fabric_object()->mutable_createordeleteuser();
  user->set_username("e2e-admin");
  user->set_password("s3cret");
  SentMessage answer = Ask(request);
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, USER_CREATE_DELETE_SUCCESS, "", "");

  // The outer test's usermod stand-in fails for this name.
  request.set_operation_id("user-2");
  request.mutable_dorn_fabric_object(0)->mutable_createordeleteuser()->set_username("e2e-fail");
  answer = Ask(request);
  ExpectOneStatus(answer, USER_CREATE_DELETE_FAILED, "", "");
}

TEST_F(OperationsThroughCallbackTest, RebootRunsRebootAndAnswersItsOutput) {
  const SentMessage answer = Ask(Request(MT_REBOOT_HOST, "reboot-1"));
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, COMMAND_SUCCESS, "", "");
}

TEST_F(OperationsThroughCallbackTest, CertificateAndRsaKeyAreReadFromTheirFiles) {
  const std::string certificate = ReadText(kCertificatePath);
  const std::string key = ReadText(kRsaKeyPath);
  ASSERT_FALSE(certificate.empty());
  ASSERT_FALSE(key.empty());

  SentMessage answer = Ask(Request(MT_GET_CERTIFICATE, "cert-1"));
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, GET_CERTIFICATE_SUCCESS, "", certificate);

  answer = Ask(Request(MT_GET_RSA_KEY, "key-1"));
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, GET_CERTIFICATE_SUCCESS, "", key);

  // Without the files (removed inside the sandbox only) both fail.
  ASSERT_EQ(unlink(kCertificatePath), 0);
  ASSERT_EQ(unlink(kRsaKeyPath), 0);
  answer = Ask(Request(MT_GET_CERTIFICATE, "cert-2"));
  ExpectOneStatus(answer, GET_CERTIFICATE_FAILED, "", "");
  answer = Ask(Request(MT_GET_RSA_KEY, "key-2"));
  ExpectOneStatus(answer, GET_CERTIFICATE_FAILED, "", "");
}

TEST_F(OperationsThroughCallbackTest, StopServicesRunsTheInitScriptsNamedAsRestartServices) {
  DornMessage request = Request(MT_STOP_SERVICES, "stop-1");
  auto* object = request.add_dorn_fabric_object();
  object->set_fabric_object_identifier("svc-1");
  object->mutable_stopservices()->set_name("brokensvc");  // not read
  object->mutable_restartservices()->set_name("zelsvc");
  const SentMessage answer = Ask(request);
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, COMMAND_SUCCESS, "", "");
}

TEST_F(OperationsThroughCallbackTest, RestartServicesStopsAtTheFirstFailingScript) {
  DornMessage request = Request(MT_RESTART_SERVICES, "restart-1");
  const char* services[][2] = {{"svc-a", "zelsvc"}, {"svc-b", "brokensvc"}, {"svc-c", "othersvc"}};
  for (const auto& s : services) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(s[0]);
    object->mutable_restartservices()->set_name(s[1]);
  }
  const SentMessage answer = Ask(request);
  EXPECT_EQ(answer.message.message_type(), MT_OPERATION_STATUS);
  ExpectOneStatus(answer, COMMAND_FAILED, "svc-b", "");
}

TEST_F(OperationsThroughCallbackTest, OperationStatusFromTheManagementPlaneIsNotAnswered) {
  DornMessage request = Request(MT_OPERATION_STATUS, "status-from-mp");
  request.add_operation_status()->set_status(COMMAND_SUCCESS);
  (*layer_)->Deliver(RMQ_CLIENT_MPA_DATA_MESSAGE, request.SerializeAsString(),
                     {{"amqp_correlationId", "c"}, {"amqp_replyTo", kReplyTo}});
  EXPECT_TRUE((*layer_)->client()->Sent().empty());
}

}  // namespace
}  // namespace ZelDorn

int main(int argc, char** argv) {
  std::string why;
  if (!ZelDorn::InsideSandbox(&why)) {
    std::fprintf(stderr, "refusing to run outside the e2e sandbox: %s\n", why.c_str());
    return 3;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
