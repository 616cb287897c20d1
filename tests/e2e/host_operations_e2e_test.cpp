// Runs host_operations_in_sandbox (user creation on every host type) inside a
// sandbox, with the Ulm interpreter stand-in on PATH, and checks from outside
// that the machine's own accounts were not touched.
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "e2e/sandbox.h"

namespace {

std::string HostFile(const std::string& path) {
  std::ifstream in(path);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(HostOperationsE2eTest, UserScriptsRunInsideTheSandboxOnly) {
  const std::string passwd = HostFile("/etc/passwd");
  const std::string group = HostFile("/etc/group");

  zel::e2e::SandboxOptions options;
  options.extra_standins = {std::string(ZEL_FAKE_HOSTS_DIR) + "/ulm/python"};
  zel::e2e::Sandbox sandbox(options);
  zel::e2e::SpawnOptions spawn;
  spawn.env["ZEL_FAKE_PYLIB"] = std::string(ZEL_FAKE_HOSTS_DIR) + "/ulm/pylib";
  std::string output;
  const zel::e2e::ExitStatus status = sandbox.Run({HOST_OPERATIONS_IN_SANDBOX},
                                                  zel::e2e::Millis(120000), &output, spawn);
  EXPECT_TRUE(status.Success()) << status.ToString() << "\n"
                                << output << "\n"
                                << sandbox.DebugReport();
  // The accounts exist in the sandbox's /etc only.
  EXPECT_NE(sandbox.ReadFile("/etc/passwd").value_or("").find("zelalice:"), std::string::npos);
  EXPECT_EQ(HostFile("/etc/passwd"), passwd);
  EXPECT_EQ(HostFile("/etc/group"), group);
}

TEST(HostOperationsE2eTest, CasesRefuseToRunOutsideTheSandbox) {
  // Only listed, never run, should the guard ever let it through here.
  const std::string command =
      std::string(HOST_OPERATIONS_IN_SANDBOX) + " --gtest_list_tests >/dev/null 2>&1";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 2);
}

}  // namespace
