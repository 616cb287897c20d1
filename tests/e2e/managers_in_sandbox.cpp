// The manager operations that act on the host as a whole: reboot, the host
// certificate and SSH key, user creation and init scripts. This program runs
// them for real and must only ever run inside the e2e sandbox; main() refuses
// to start anywhere else. managers_e2e_test.cpp starts it there.
//
// Inside, the host files it reads are written or removed by the cases
// themselves (in the sandbox's /etc overlay), the account commands are
// stand-ins put first on PATH, and reboot is the sandbox's stand-in or one of
// ours that fails.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/host_manager.h"
#include "core/manager_test_support.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using orvane::zel::dorn::DornMessage;
using orvane::zel::dorn::OperationStatus;
using testing::ManagerTestEnv;
using testing::Request;
using testing::TempDir;

constexpr char kCertificate[] = "/etc/orvane/zel/host-cert.pem";
constexpr char kRsaKey[] = "/etc/ssh/ssh_host_rsa_key.pub";
constexpr char kSandboxCalls[] = "/run/zel-sandbox/calls.log";

void WriteHostFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
  const std::string dir = path.substr(0, path.rfind('/'));
  ASSERT_EQ(std::system(("mkdir -p '" + dir + "'").c_str()), 0);
  std::ofstream out(path, std::ios::trunc);
  out << text;
  out.close();
  ASSERT_TRUE(out) << path;
  ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

std::vector<std::string> Lines(const std::string& file) {
  std::vector<std::string> lines;
  std::ifstream in(file);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ManagersInSandboxTest : public ::testing::Test {
 protected:
  ManagersInSandboxTest() {
    HostManager::CreateInstance();
    UserManager::CreateInstance();
    SoftwareManager::CreateInstance();
    calls_ = env_.dir().path() + "/calls";
  }

  OperationStatus OnlyStatus() {
    const DornMessage answer = env_.OnlyAnswer();
    EXPECT_EQ(answer.operation_status_size(), 1);
    return answer.operation_status_size() > 0 ? answer.operation_status(0) : OperationStatus();
  }

  // A stand-in that records "<name> <args>" in our calls file and exits with
  // `code` after printing `output`.
  void Standin(const std::string& name, int code, const std::string& output = "") {
    env_.AddStandin(name, "echo \"" + name + " $*\" >> '" + calls_ + "'\nprintf '%s' '" + output +
                              "'\nexit " + std::to_string(code) + "\n");
  }
  std::vector<std::string> Calls() const { return Lines(calls_); }

  ManagerTestEnv env_;
  std::string calls_;
};

// ---- HostManager ----------------------------------------------------------

TEST_F(ManagersInSandboxTest, RebootRunsRebootAndReportsItsExitCodeAndOutput) {
  const size_t before = Lines(kSandboxCalls).size();
  HostManager::GetInstance()->RebootHost(Request(orvane::zel::dorn::MT_REBOOT_HOST, "reboot-1"),
                                         nullptr, nullptr);
  OperationStatus status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::COMMAND_SUCCESS);
  EXPECT_TRUE(status.has_message());
  EXPECT_EQ(status.message(), "");
  const auto calls = Lines(kSandboxCalls);
  ASSERT_EQ(calls.size(), before + 1);
  EXPECT_EQ(calls.back(), "reboot");

  // A reboot that fails: COMMAND_FAILED with what it printed.
  env_.ClearSent();
  Standin("reboot", 1, "reboot refused");
  HostManager::GetInstance()->RebootHost(Request(orvane::zel::dorn::MT_REBOOT_HOST, "reboot-2"),
                                         nullptr, nullptr);
  status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::COMMAND_FAILED);
  EXPECT_EQ(status.message(), "reboot refused");
}

TEST_F(ManagersInSandboxTest, CertificateAndKeyAreReadFromTheirFilesAndFailEmptyWhenMissing) {
  struct Case {
    const char* name;
    const char* file;
    const char* command;
    void (HostManager::*operation)(const DornMessage&, const char*, const char*);
  };
  const Case cases[] = {
      {"GetCertificate", kCertificate, "cat /etc/orvane/zel/host-cert.pem",
       &HostManager::GetCertificate},
      {"GetRsaKey", kRsaKey, "cat /etc/ssh/ssh_host_rsa_key.pub", &HostManager::GetRsaKey},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string text = std::string("-----BEGIN ") + c.name + "-----\nAAAA\n-----END-----\n";
    WriteHostFile(c.file, text);
    env_.ClearSent();
    env_.log().Clear();
    (HostManager::GetInstance().get()->*c.operation)(
        Request(orvane::zel::dorn::MT_GET_CERTIFICATE, "read-1"), nullptr, nullptr);
    OperationStatus status = OnlyStatus();
    EXPECT_EQ(status.status(), orvane::zel::dorn::GET_CERTIFICATE_SUCCESS);
    EXPECT_EQ(status.message(), text);
    EXPECT_FALSE(status.has_fabric_object_identifier());
    EXPECT_EQ(env_.log().Count(std::string("Invoking ") + c.command), 1u);

    // Missing: the shell's complaint goes to standard error, which is not
    // captured, so the message is present and empty.
    ASSERT_EQ(unlink(c.file), 0);
    env_.ClearSent();
    (HostManager::GetInstance().get()->*c.operation)(
        Request(orvane::zel::dorn::MT_GET_CERTIFICATE, "read-2"), nullptr, nullptr);
    status = OnlyStatus();
    EXPECT_EQ(status.status(), orvane::zel::dorn::GET_CERTIFICATE_FAILED);
    EXPECT_TRUE(status.has_message());
    EXPECT_EQ(status.message(), "");
  }
}

// ---- UserManager ----------------------------------------------------------

TEST_F(ManagersInSandboxTest, CreateUserReadsTheFirstObjectAndReportsTheScriptsExitCode) {
  // The account commands of the rpm hosts' script; "id" says the user does
  // not exist yet, so nothing is deleted first.
  Standin("id", 1);
  Standin("openssl", 0, "crypted");
  Standin("groupadd", 0);
  Standin("useradd", 0);
  Standin("usermod", 0);

  DornMessage request = Request(orvane::zel::dorn::MT_CREATE_USER, "user-1");
  auto* first = request.add_dorn_fabric_object()->mutable_createordeleteuser();
  first->set_username("alice");
  first->set_password("s3cret");
  request.add_dorn_fabric_object()->mutable_createordeleteuser()->set_username("mallory");
  UserManager::GetInstance()->CreateUser(request, nullptr, nullptr);

  OperationStatus status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::USER_CREATE_DELETE_SUCCESS);
  EXPECT_FALSE(status.has_message());
  EXPECT_FALSE(status.has_fabric_object_identifier());
  const auto calls = Calls();
  EXPECT_NE(std::find(calls.begin(), calls.end(), "useradd -m -p crypted -g alice alice"),
            calls.end());
  for (const std::string& call : calls) EXPECT_EQ(call.find("mallory"), std::string::npos);

  // The script's last step fails: the whole operation fails.
  Standin("usermod", 6);
  env_.ClearSent();
  UserManager::GetInstance()->CreateUser(request, nullptr, nullptr);
  status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::USER_CREATE_DELETE_FAILED);
  EXPECT_EQ(env_.log().Count("Failed to create user alice"), 1u);
}

// ---- Services -------------------------------------------------------------

class ServicesInSandboxTest : public ManagersInSandboxTest {
 protected:
  // An init script that records "<name> <action>" and exits with `code`.
  void InitScript(const std::string& name, int code) {
    WriteHostFile("/etc/init.d/" + name,
                  "#!/bin/sh\necho \"" + name + " $*\" >> '" + calls_ + "'\nexit " +
                      std::to_string(code) + "\n",
                  0755);
  }

  void AddService(DornMessage& request, const std::string& id, const std::string& name) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(id);
    object->mutable_restartservices()->set_name(name);
  }
};

TEST_F(ServicesInSandboxTest, RestartEndsAtTheFirstFailingScriptAndNamesItsObject) {
  InitScript("svc-one", 0);
  InitScript("svc-bad", 3);
  InitScript("svc-two", 0);
  DornMessage request = Request(orvane::zel::dorn::MT_RESTART_SERVICES, "restart-1");
  AddService(request, "s1", "svc-one");
  AddService(request, "s2", "svc-bad");
  AddService(request, "s3", "svc-two");
  SoftwareManager::GetInstance()->RestartServices(request, nullptr, nullptr);

  EXPECT_EQ(Calls(), (std::vector<std::string>{"svc-one restart", "svc-bad restart"}));
  const OperationStatus status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::COMMAND_FAILED);
  EXPECT_EQ(status.fabric_object_identifier(), "s2");
  // The failure text is logged, not sent.
  EXPECT_FALSE(status.has_message());
  EXPECT_EQ(env_.log().Count("restart service svc-bad failed"), 1u);
}

TEST_F(ServicesInSandboxTest, StopReadsTheNameOnlyFromTheRestartOperand) {
  InitScript("svc-one", 0);
  DornMessage request = Request(orvane::zel::dorn::MT_STOP_SERVICES, "stop-2");
  auto* object = request.add_dorn_fabric_object();
  object->set_fabric_object_identifier("only-stop");
  object->mutable_stopservices()->set_name("svc-one");
  SoftwareManager::GetInstance()->StopServices(request, nullptr, nullptr);

  EXPECT_TRUE(Calls().empty());
  EXPECT_EQ(env_.log().Count("Running command /etc/init.d/ stop."), 1u);
  const OperationStatus status = OnlyStatus();
  EXPECT_EQ(status.status(), orvane::zel::dorn::COMMAND_FAILED);
  EXPECT_EQ(status.fabric_object_identifier(), "only-stop");
}

// True only inside the e2e sandbox: /etc on a mount of its own (the
// sandbox's overlay; on the machine it lies on the root file system) and
// reboot resolving to the sandbox's stand-in.
bool InsideSandbox(std::string& why) {
  struct stat root;
  struct stat etc;
  if (stat("/", &root) != 0 || stat("/etc", &etc) != 0) {
    why = "cannot stat / or /etc";
    return false;
  }
  if (root.st_dev == etc.st_dev) {
    why = "/etc is the machine's own";
    return false;
  }
  FILE* pipe = popen("command -v reboot", "r");
  char path[256] = {};
  if (pipe == nullptr || fgets(path, sizeof(path), pipe) == nullptr) {
    if (pipe != nullptr) pclose(pipe);
    why = "reboot does not resolve";
    return false;
  }
  pclose(pipe);
  if (std::string(path) != "/run/zel-sandbox/bin/reboot\n") {
    why = std::string("reboot resolves to ") + path;
    return false;
  }
  return true;
}

}  // namespace
}  // namespace ZelDorn

int main(int argc, char** argv) {
  std::string why;
  if (!ZelDorn::InsideSandbox(why)) {
    std::fprintf(stderr, "managers_in_sandbox runs only inside the e2e sandbox: %s\n",
                 why.c_str());
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
