// Runs managers_in_sandbox (the HostManager, user creation and init-script
// cases) inside a sandbox, and checks from outside that the reboot it asked
// for reached only the sandbox's stand-in.
#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/sandbox.h"

namespace {

TEST(ManagersE2eTest, HostWideOperationsPassInsideTheSandbox) {
  zel::e2e::Sandbox sandbox;
  std::string output;
  const zel::e2e::ExitStatus status =
      sandbox.Run({MANAGERS_IN_SANDBOX}, zel::e2e::Millis(120000), &output);
  EXPECT_TRUE(status.Success()) << status.ToString() << "\n"
                                << output << "\n"
                                << sandbox.DebugReport();
  // One real call of the sandbox's reboot; the failing reboot case uses a
  // stand-in of its own.
  EXPECT_EQ(sandbox.StandinCalls("reboot"), std::vector<std::string>{"reboot"});
}

TEST(ManagersE2eTest, CasesRefuseToRunOutsideTheSandbox) {
  // Only listed, never run, should the guard ever let it through here.
  const std::string command =
      std::string(MANAGERS_IN_SANDBOX) + " --gtest_list_tests >/dev/null 2>&1";
  const int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 2);
}

}  // namespace
