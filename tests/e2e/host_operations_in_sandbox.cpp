// HostOperations::CreateUser for real: the user scripts of each host type run
// useradd, usermod, groupadd and userdel, and every run empties /tmp/zel* and
// /tmp/create.py*. This program must only ever run inside the e2e sandbox,
// where /etc, /home and /tmp are the sandbox's own; main() refuses to start
// anywhere else. host_operations_e2e_test.cpp starts it there, with the Ulm
// hypervisor's interpreter stand-in (tests/fakes/hosts/ulm/python) on PATH.
#include <grp.h>
#include <pwd.h>
#include <shadow.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/execute_command.h"
#include "core/host_info.h"
#include "core/host_operations.h"
#include "core/log_capture.h"

namespace ZelDorn {
namespace {

constexpr char kSandboxCalls[] = "/run/zel-sandbox/calls.log";

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

void Touch(const std::string& path) { std::ofstream(path) << "scratch\n"; }

std::string Shell(const std::string& command) {
  std::string output;
  ExecuteCommand(command, output);
  return output;
}

// Lines of /etc/passwd that name `user`.
int PasswdEntries(const std::string& user) {
  std::ifstream in("/etc/passwd");
  int n = 0;
  for (std::string line; std::getline(in, line);) n += line.rfind(user + ":", 0) == 0;
  return n;
}

std::vector<std::string> Groups(const std::string& user) {
  std::istringstream words(Shell("id -nG '" + user + "'"));
  std::vector<std::string> groups;
  for (std::string word; words >> word;) groups.push_back(word);
  return groups;
}

bool Contains(const std::vector<std::string>& list, const std::string& item) {
  for (const std::string& entry : list) {
    if (entry == item) return true;
  }
  return false;
}

class CreateUserInSandboxTest : public ::testing::Test {
 protected:
  CreateUserInSandboxTest() {
    HostOperations::CreateInstance();
    // Scratch the clean-up must remove, and a neighbour it must leave.
    Touch("/tmp/zel-scratch");
    Touch("/tmp/create.pyc");
    Touch("/tmp/keep-me");
    std::remove(kSandboxCalls);
  }
  ~CreateUserInSandboxTest() override {
    HostInfo::SetHostTypeForTest(nullptr);
    unsetenv("ZEL_FAKE_HST_MODE");
  }

  void ExpectTmpCleaned() {
    EXPECT_FALSE(Exists("/tmp/zel-scratch"));
    EXPECT_FALSE(Exists("/tmp/create.pyc"));
    EXPECT_FALSE(Exists("/tmp/create.py"));
    EXPECT_TRUE(Exists("/tmp/keep-me"));
    EXPECT_EQ(log_.Count("] Running command rm -rf /tmp/create.py*."), 1u);
    EXPECT_EQ(log_.Count("] Running command rm -rf /tmp/zel*."), 1u);
  }

  testing::LogCapture log_;
};

TEST_F(CreateUserInSandboxTest, UbuntuScriptMakesASudoUserAndReplacesItOnTheNextRun) {
  // A Ubuntu host has a syslog group; the script adds the user to it.
  ASSERT_EQ(std::system("getent group syslog >/dev/null || groupadd syslog"), 0);
  HostInfo::SetHostTypeForTest(kHostTypeUbuntu);
  ASSERT_EQ(PasswdEntries("zelalice"), 0);

  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zelalice", "s3cret"), 0);
  const passwd* account = getpwnam("zelalice");
  ASSERT_NE(account, nullptr);
  EXPECT_NE(account->pw_uid, 0u);
  EXPECT_EQ(std::string(account->pw_dir), "/home/zelalice");
  EXPECT_TRUE(Exists("/home/zelalice"));
  const auto groups = Groups("zelalice");
  EXPECT_TRUE(Contains(groups, "zelalice"));
  EXPECT_TRUE(Contains(groups, "sudo"));
  EXPECT_TRUE(Contains(groups, "syslog"));
  EXPECT_EQ(log_.Count("] Creating user with name zelalice and password s3cret"), 1u);
  ExpectTmpCleaned();

  // The password hash comes from "openssl passwd -crypt". An OpenSSL without
  // that cipher prints nothing, and the account gets an empty hash field.
  const spwd* shadow = getspnam("zelalice");
  ASSERT_NE(shadow, nullptr);
  std::string ignored;
  if (ExecuteCommand("openssl passwd -crypt probe 2>/dev/null", ignored) != 0) {
    EXPECT_EQ(std::string(shadow->sp_pwdp), "");
  } else {
    EXPECT_EQ(std::string(shadow->sp_pwdp).size(), 13u);
  }

  // Again, with a file in the old home: the account is deleted with its home
  // and made anew.
  Touch("/home/zelalice/old-file");
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zelalice", "other"), 0);
  EXPECT_EQ(PasswdEntries("zelalice"), 1);
  EXPECT_FALSE(Exists("/home/zelalice/old-file"));
}

TEST_F(CreateUserInSandboxTest, UbuntuScriptFailsWhenItsLastStepFails) {
  // Without the sudo group the final usermod fails, and so does the call.
  HostInfo::SetHostTypeForTest(kHostTypeUbuntu);
  ASSERT_EQ(std::system("groupdel zelnogroup 2>/dev/null; true"), 0);
  const std::string command = HostOperations::UserCommand(kHostTypeUbuntu, "zelbob", "pw");
  std::string output;
  const std::string broken = command.substr(0, command.rfind("usermod")) +
                             "usermod -aG zelnogroup \"$ZEL_USER\"\n";
  EXPECT_NE(HostOperations::GetInstance()->Execute(broken, output), 0);
  EXPECT_NE(getpwnam("zelbob"), nullptr);  // the steps before it did run
}

TEST_F(CreateUserInSandboxTest, RpmScriptMakesAnAccountWithUidZero) {
  HostInfo::SetHostTypeForTest(kHostTypeRhel);
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zelroot", "pw"), 0);
  const passwd* account = getpwnam("zelroot");
  ASSERT_NE(account, nullptr);
  EXPECT_EQ(account->pw_uid, 0u);
  EXPECT_EQ(account->pw_gid, 0u);
  EXPECT_TRUE(Contains(Groups("zelroot"), "root"));
  ExpectTmpCleaned();

  // The next run deletes the group and the account before making them anew.
  log_.Clear();
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zelroot", "pw2"), 0);
  EXPECT_EQ(PasswdEntries("zelroot"), 1);
  EXPECT_EQ(getpwnam("zelroot")->pw_uid, 0u);
}

TEST_F(CreateUserInSandboxTest, UlmHostRunsTheModuleFromTmpAndRemovesIt) {
  HostInfo::SetHostTypeForTest(kHostTypeUlm);
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zelcarol", "pw"), 0);
  EXPECT_EQ(log_.Count("] Copy file /tmp/create.py"), 1u);
  EXPECT_EQ(log_.Count("(None\n)."), 1u);  // what createUser printed
  std::ifstream in(kSandboxCalls);
  std::vector<std::string> hst;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("hst ", 0) == 0) hst.push_back(line);
  }
  EXPECT_EQ(hst, (std::vector<std::string>{
                     "hst SmartConnect hmon",
                     "hst CreateUser zelcarol pw",
                     "hst SetEntityPermissions rootFolder zelcarol -1 False True",
                     "hst Logout",
                 }));
  EXPECT_EQ(PasswdEntries("zelcarol"), 0);  // a hypervisor account, not a Linux one
  ExpectTmpCleaned();
}

TEST_F(CreateUserInSandboxTest, UlmHostReportsTheModulesFailureAndStillCleansUp) {
  HostInfo::SetHostTypeForTest(kHostTypeUlm);
  setenv("ZEL_FAKE_HST_MODE", "nopermission", 1);
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zeldave", "pw"), 1);
  EXPECT_EQ(log_.Count("(Permission denied. Please check whether the host is not in Lockdown "
                       "Mode\n)."),
            1u);
  ExpectTmpCleaned();
}

TEST_F(CreateUserInSandboxTest, UnknownHostRunsNoScriptAndReportsSuccess) {
  HostInfo::SetHostTypeForTest(nullptr);
  std::ifstream before("/etc/passwd");
  const std::string passwdBefore((std::istreambuf_iterator<char>(before)),
                                 std::istreambuf_iterator<char>());
  EXPECT_EQ(HostOperations::GetInstance()->CreateUser("zeleve", "pw"), 0);
  EXPECT_EQ(log_.Count("] Invalid host type: ((null))."), 1u);
  EXPECT_EQ(log_.Count("] Running command ."), 1u);
  std::ifstream after("/etc/passwd");
  EXPECT_EQ(std::string((std::istreambuf_iterator<char>(after)), std::istreambuf_iterator<char>()),
            passwdBefore);
  ExpectTmpCleaned();
}

// True only inside the e2e sandbox: /etc on a mount of its own, reboot
// resolving to the sandbox's stand-in, and this program not under /tmp
// (the user clean-up empties /tmp/zel*, and a build tree there stays
// visible inside).
bool InsideSandbox(std::string& why) {
  struct stat root {};
  struct stat etc {};
  if (stat("/", &root) != 0 || stat("/etc", &etc) != 0) {
    why = "cannot stat / or /etc";
    return false;
  }
  if (root.st_dev == etc.st_dev) {
    why = "/etc is the machine's own";
    return false;
  }
  std::string reboot;
  ExecuteCommand("command -v reboot", reboot);
  if (reboot != "/run/zel-sandbox/bin/reboot\n") {
    why = "reboot resolves to '" + reboot + "'";
    return false;
  }
  char self[4096] = {};
  // The user scripts delete /tmp/zel* and /tmp/create.py*; a build tree kept
  // visible under such a name would be deleted with them.
  if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0 ||
      std::string(self).rfind("/tmp/zel", 0) == 0 || std::string(self).rfind("/tmp/create.py", 0) == 0) {
    why = std::string("program lies where the user scripts clean up, or cannot be found: ") + self;
    return false;
  }
  return true;
}

}  // namespace
}  // namespace ZelDorn

int main(int argc, char** argv) {
  std::string why;
  if (!ZelDorn::InsideSandbox(why)) {
    std::fprintf(stderr, "host_operations_in_sandbox runs only inside the e2e sandbox: %s\n",
                 why.c_str());
    return 2;
  }
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
