// Runs communication_handler_inner (every operation through
// CommunicationHandler::Callback with the real managers) inside a sandbox
// that looks like a Ubuntu host, then checks what the operations did to the
// sandbox: the files written, and the host commands the stand-ins recorded.
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/sandbox.h"

namespace zel {
namespace e2e {
namespace {

constexpr char kCertificate[] =
    "-----BEGIN CERTIFICATE-----\nMIIBe2UtZTJlLWNlcnRpZmljYXRl\n-----END CERTIFICATE-----\n";
constexpr char kRsaKey[] = "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQDe2e root@ubuntu-host\n";

// Records its call like the sandbox's own stand-ins, then runs `body`.
std::string Recording(const std::string& name, const std::string& body) {
  return "#!/bin/sh\nprintf '" + name +
         "%s\\n' \"${*:+ $*}\" >> \"${ZEL_SANDBOX_DIR:-/run/zel-sandbox}/calls.log\"\n" + body;
}

bool HasCall(const std::vector<std::string>& calls, const std::string& line) {
  return std::find(calls.begin(), calls.end(), line) != calls.end();
}

TEST(CommunicationHandlerSandboxTest, EveryOperationRunsThroughTheHandlerOnAUbuntuHost) {
  SandboxOptions options;
  options.extra_standins = {std::string(ZEL_FAKE_HOSTS_DIR) + "/ubuntu/uname",
                            std::string(ZEL_FAKE_HOSTS_DIR) + "/ubuntu/lsb_release"};
  Sandbox sb(options);

  // Installed packages, in dpkg-query's format before the agent's grep.
  sb.AddStandin("dpkg-query",
                Recording("dpkg-query",
                          "printf '%s\\n' 'install ok installed pkg-ok 1.2.3-1' "
                          "'deinstall ok config-files pkg-gone 1.0.0' "
                          "'install ok installed pkg-old 1.9.0-1'\n"));
  // Account commands: no account exists yet; usermod fails for "e2e-fail".
  sb.AddStandin("openssl", Recording("openssl", "echo xxcryptedxx\n"));
  sb.AddStandin("id", Recording("id", "exit 1\n"));
  for (const char* name : {"groupadd", "useradd", "userdel", "groupdel"}) {
    sb.AddStandin(name, Recording(name, "exit 0\n"));
  }
  sb.AddStandin("usermod", Recording("usermod", "for a; do last=$a; done\n"
                                                "[ \"$last\" != e2e-fail ]\n"));
  // Services: zelsvc works, brokensvc fails.
  sb.WriteFile("/etc/init.d/zelsvc", Recording("zelsvc", "exit 0\n"), 0755);
  sb.WriteFile("/etc/init.d/brokensvc", Recording("brokensvc", "exit 1\n"), 0755);
  sb.WriteFile("/etc/init.d/othersvc", Recording("othersvc", "exit 0\n"), 0755);
  sb.WriteFile("/etc/orvane/zel/host-cert.pem", kCertificate);
  sb.WriteFile("/etc/ssh/ssh_host_rsa_key.pub", kRsaKey);

  SpawnOptions spawn;
  spawn.name = "inner";
  spawn.cwd = "/tmp";
  Process& inner = sb.Spawn({COMMUNICATION_HANDLER_INNER, "--gtest_color=no"}, spawn);
  const auto status = inner.WaitExit(Millis(120000));
  ASSERT_TRUE(status) << sb.DebugReport();
  EXPECT_TRUE(status->Success()) << status->ToString() << "\n"
                                 << inner.Stdout() << inner.Stderr();
  EXPECT_NE(inner.Stdout().find("[  PASSED  ] 11 tests."), std::string::npos) << inner.Stdout();

  // Files of MT_FILE_COPY; the failed copy wrote nothing.
  EXPECT_EQ(sb.ReadFile("/etc/orvane/e2e/run.sh"), "#!/bin/sh\necho copied\n");
  EXPECT_EQ(sb.ReadFile("/var/lib/e2e/data.bin"), std::string("bytes\0and more", 14));
  EXPECT_FALSE(sb.Exists("/var/lib/e2e/never.txt"));
  // The inner test removed these inside the sandbox only.
  EXPECT_FALSE(sb.Exists("/etc/orvane/zel/host-cert.pem"));

  const auto calls = sb.StandinCalls();
  // MT_REBOOT_HOST, once.
  EXPECT_EQ(sb.StandinCalls("reboot"), std::vector<std::string>{"reboot"});
  // MT_CREATE_USER, twice: a fresh account each time.
  EXPECT_TRUE(HasCall(calls, "groupadd e2e-admin"));
  EXPECT_TRUE(HasCall(calls, "useradd -m -p xxcryptedxx -g e2e-admin e2e-admin"));
  EXPECT_TRUE(HasCall(calls, "usermod -aG sudo,syslog e2e-admin"));
  EXPECT_TRUE(HasCall(calls, "usermod -aG sudo,syslog e2e-fail"));
  // MT_STOP_SERVICES reads the restart operand; MT_RESTART_SERVICES stops at
  // the failing script.
  EXPECT_EQ(sb.StandinCalls("zelsvc"), (std::vector<std::string>{"zelsvc stop", "zelsvc restart"}));
  EXPECT_EQ(sb.StandinCalls("brokensvc"), std::vector<std::string>{"brokensvc restart"});
  EXPECT_TRUE(sb.StandinCalls("othersvc").empty());
  // The software list was read for the checks and status requests.
  EXPECT_FALSE(sb.StandinCalls("dpkg-query").empty());
}

TEST(CommunicationHandlerSandboxTest, InnerProgramRefusesToRunOutsideTheSandbox) {
  // Started on the machine itself it must not run a single operation.
  // The filter excludes every test, so even a broken guard runs nothing.
  const std::string command =
      std::string(COMMUNICATION_HANDLER_INNER) + " --gtest_filter=-* >/dev/null 2>&1";
  const int rc = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(rc));
  EXPECT_EQ(WEXITSTATUS(rc), 3);
}

}  // namespace
}  // namespace e2e
}  // namespace zel
