#include "core/host_operations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/execute_command.h"
#include "core/fake_host.h"
#include "core/host_info.h"
#include "core/log_capture.h"
#include "core/temp_dir.h"

namespace ZelDorn {
namespace {

using testing::FakeHost;
using testing::TempDir;

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

class HostOperationsTest : public ::testing::Test {
 protected:
  HostOperationsTest() {
    zel::log_testing::SetUpLoggerForTest("VERBOSE", "DEVLOG", "/nonexistent/zel_issue");
    log_.Clear();  // the set-up's own complaints
    HostInfo::SetHostTypeForTest(nullptr);
  }
  ~HostOperationsTest() override { HostInfo::SetHostTypeForTest(nullptr); }

  testing::LogCapture log_;
  TempDir dir_;
  HostOperations host_;
};

// CreateFile

TEST_F(HostOperationsTest, CreateFileWritesVerifiesAndMakesParents) {
  const std::string file = dir_.path() + "/a/b/c.txt";
  EXPECT_EQ(host_.CreateFile(file, "line 1\nline 2\n", false), "");
  EXPECT_EQ(TempDir::ReadFile(file), "line 1\nline 2\n");
  EXPECT_EQ(log_.Count("] Creating directory " + dir_.path() + "/a/b."), 1u);
  EXPECT_EQ(log_.Count("] Created directory " + dir_.path() + "/a/b."), 1u);
  EXPECT_EQ(log_.Count("] Read " + file + " to verify contents"), 1u);
  EXPECT_EQ(log_.Count("] Created file " + file + "."), 1u);

  // The parent exists now: no directory lines the second time.
  log_.Clear();
  EXPECT_EQ(host_.CreateFile(dir_.path() + "/a/b/empty", "", false), "");
  EXPECT_EQ(TempDir::ReadFile(dir_.path() + "/a/b/empty"), "");
  EXPECT_EQ(log_.Count("directory"), 0u);
}

TEST_F(HostOperationsTest, CreateFileKeepsBinaryContentWhole) {
  std::string data(70000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  const std::string file = dir_.path() + "/blob";
  EXPECT_EQ(host_.CreateFile(file, data, false), "");
  EXPECT_EQ(TempDir::ReadFile(file), data);
}

TEST_F(HostOperationsTest, CreateFileModes) {
  const mode_t oldMask = umask(022);
  const std::string plain = dir_.path() + "/plain";
  EXPECT_EQ(host_.CreateFile(plain, "x", false), "");
  EXPECT_EQ(ModeOf(plain), 0644u);

  const std::string tool = dir_.path() + "/tool.sh";
  EXPECT_EQ(host_.CreateFile(tool, "#!/bin/sh\n", true), "");
  EXPECT_EQ(ModeOf(tool), 0700u);
  EXPECT_EQ(log_.Count("] Set execute permission for file " + tool), 1u);

  // Rewriting replaces the contents and keeps the mode it had.
  ASSERT_EQ(chmod(plain.c_str(), 0640), 0);
  EXPECT_EQ(host_.CreateFile(plain, "new", false), "");
  EXPECT_EQ(TempDir::ReadFile(plain), "new");
  EXPECT_EQ(ModeOf(plain), 0640u);
  EXPECT_EQ(host_.CreateFile(plain, "newer", true), "");
  EXPECT_EQ(ModeOf(plain), 0700u);
  umask(oldMask);
}

TEST_F(HostOperationsTest, CreateFileWantsADirectoryPart) {
  EXPECT_EQ(host_.CreateFile("bare-name.txt", "x", false), "Provide absolute path");
  EXPECT_EQ(access("bare-name.txt", F_OK), -1);
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("level=\"WARN\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("] Failed to create file bare-name.txt (Provide absolute path)."),
            std::string::npos)
      << lines[0];

  // Only the presence of a directory part is checked: a relative path with
  // one is written below the working directory.
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  const std::string reason = host_.CreateFile("sub/rel.txt", "r", false);
  ASSERT_EQ(chdir(cwd), 0);
  EXPECT_EQ(reason, "");
  EXPECT_EQ(TempDir::ReadFile(dir_.path() + "/sub/rel.txt"), "r");
}

TEST_F(HostOperationsTest, CreateFileReportsTheFailingStep) {
  const std::string blocker = dir_.WriteFile("blocker", "i am a file");

  // The parent is a file: nothing to create, the open fails.
  EXPECT_EQ(host_.CreateFile(blocker + "/x", "x", false), "Not a directory");
  EXPECT_EQ(log_.Count("] Failed to create file " + blocker + "/x (Not a directory)."), 1u);

  // A missing parent below a file cannot be created.
  log_.Clear();
  const std::string deep = blocker + "/sub/x";
  EXPECT_EQ(host_.CreateFile(deep, "x", false), "Not a directory");
  EXPECT_EQ(log_.Count("] Creating directory " + blocker + "/sub."), 1u);
  EXPECT_EQ(log_.Count("] Failed to create directory " + blocker + "/sub (Not a directory)."),
            1u);
  EXPECT_EQ(TempDir::ReadFile(blocker), "i am a file");
}

TEST_F(HostOperationsTest, CreateFileVerifiesWhatWasWritten) {
  // Writes to the null device vanish, so reading back finds nothing.
  EXPECT_EQ(host_.CreateFile("/dev/null", "lost", false), "File verification failed");
  EXPECT_EQ(log_.Count("] Contents of file /dev/null do not match source buffer."), 1u);
  EXPECT_EQ(log_.Count("Created file"), 0u);
}

TEST_F(HostOperationsTest, CreateFileReportsAFailedWrite) {
  // The full device accepts the open and refuses the data.
  EXPECT_EQ(host_.CreateFile("/dev/full", "data", false), "No space left on device");
  EXPECT_EQ(log_.Count("] Failed to create file /dev/full (No space left on device)."), 1u);
}

// Execute

TEST_F(HostOperationsTest, ExecuteLogsTheCommandAndItsOutcome) {
  std::string output;
  EXPECT_EQ(host_.Execute("echo hello", output), 0);
  EXPECT_EQ(output, "hello\n");
  EXPECT_EQ(log_.Count("] Running command echo hello."), 1u);
  EXPECT_EQ(log_.Count("] Command echo hello succeeded (hello\n)."), 1u);

  log_.Clear();
  EXPECT_EQ(host_.Execute("echo no; exit 4", output), 4);
  EXPECT_EQ(output, "no\n");
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[1].find("level=\"WARN\""), std::string::npos) << lines[1];
  EXPECT_NE(lines[1].find("] Command echo no; exit 4 failed with return-code 4 (no\n)."),
            std::string::npos)
      << lines[1];
}

// Software list

TEST_F(HostOperationsTest, SoftwareListOfRpmHosts) {
  for (const char* type : {"rhel", "centos", "sles"}) {
    SCOPED_TRACE(type);
    FakeHost fake(type);
    HostInfo::InitVersionInfo();
    host_.GetSoftwareList();
    EXPECT_EQ(host_.softwareList(),
              "bash 4.4.20\nglibc 2.28\nopenssl-libs 1.1.1k\npython3-libs 3.6.8\n"
              "zel-host-core 3.2.0.0\nzel-host-agent 3.2.0.0\n");
    // The stand-in refuses any other arguments.
    EXPECT_EQ(fake.Calls("rpmquery"),
              std::vector<std::string>{"rpmquery -a --queryformat %{NAME} %{VERSION}\\n"});
  }
}

TEST_F(HostOperationsTest, SoftwareListOfUlmHostSqueezesTheTable) {
  FakeHost fake("ulm");
  HostInfo::InitVersionInfo();
  fake.WriteState("packages", "zel-host-core 3.2.0.0-7.0.1\nulm-base 7.0.3-0.0.1\n");
  host_.GetSoftwareList();
  EXPECT_EQ(host_.softwareList(),
            "Name Version\n"
            "-------------------------------- ------------------------------------\n"
            "zel-host-core 3.2.0.0-7.0.1\n"
            "ulm-base 7.0.3-0.0.1\n");
  EXPECT_EQ(host_.GetSoftwareVersion("ulm-base"), "7.0.3-0.0.1");
}

TEST_F(HostOperationsTest, SoftwareListOfUbuntuHostUsesThePackageDatabase) {
  // dpkg-query is this machine's own.
  std::string expected;
  ASSERT_EQ(ExecuteCommand("dpkg-query -W -f '${Version}' dpkg", expected), 0);
  FakeHost fake("ubuntu");
  HostInfo::InitVersionInfo();
  ASSERT_EQ(HostInfo::GetHostType(), kHostTypeUbuntu);
  host_.GetSoftwareList();
  EXPECT_NE(host_.softwareList().find("\ndpkg " + expected + "\n"), std::string::npos);
  EXPECT_EQ(host_.GetSoftwareVersion("dpkg"), expected);
}

TEST_F(HostOperationsTest, SoftwareListFailureEmptiesTheList) {
  FakeHost fake("rhel");
  HostInfo::InitVersionInfo();
  host_.GetSoftwareList();
  ASSERT_FALSE(host_.softwareList().empty());

  fake.AddTool("rpmquery", "echo partial; exit 3");
  host_.GetSoftwareList();
  EXPECT_EQ(host_.softwareList(), "");
  EXPECT_EQ(log_.Count("] Get software list operation failed (3)."), 1u);
}

TEST_F(HostOperationsTest, SoftwareListOfUnknownHostIsEmpty) {
  FakeHost fake("rhel");
  HostInfo::InitVersionInfo();
  host_.GetSoftwareList();
  ASSERT_FALSE(host_.softwareList().empty());

  HostInfo::SetHostTypeForTest(nullptr);
  host_.GetSoftwareList();
  EXPECT_EQ(host_.softwareList(), "");
  EXPECT_EQ(log_.Count("] Invalid host type: ((null))."), 1u);
  EXPECT_EQ(fake.Calls("rpmquery").size(), 1u);
}

// Version search, over a list read from the rpm stand-in.
class SoftwareVersionTest : public HostOperationsTest {
 protected:
  void Load(const std::string& packages) {
    fake_.WriteState("packages", packages);
    host_.GetSoftwareList();
    log_.Clear();
  }
  FakeHost fake_{"rhel"};
  const int detected_ = HostInfo::InitVersionInfo();
};

TEST_F(SoftwareVersionTest, FirstLineContainingNameAndBlankDecides) {
  Load("ba 1.0\na 2.0\nfoo 3.1-2 extra\n");
  EXPECT_EQ(host_.GetSoftwareVersion("a"), "1.0");  // "ba 1.0" comes first
  EXPECT_EQ(host_.GetSoftwareVersion("foo"), "3.1-2 extra");
  EXPECT_EQ(log_.Lines().size(), 0u);
}

TEST_F(SoftwareVersionTest, AbsentPackageLogsAndGivesNothing) {
  Load("foobar 1.0\n");
  EXPECT_EQ(host_.GetSoftwareVersion("foo"), "");
  EXPECT_EQ(host_.GetSoftwareVersion("missing"), "");
  EXPECT_EQ(log_.Count("] Get software version failed for foo."), 1u);
  EXPECT_EQ(log_.Count("] Get software version failed for missing."), 1u);
}

TEST_F(SoftwareVersionTest, NameWithoutVersionReadsAsAbsent) {
  Load("a \n");
  EXPECT_EQ(host_.GetSoftwareVersion("a"), "");
  EXPECT_EQ(log_.Lines().size(), 0u);
}

TEST_F(SoftwareVersionTest, HostFamilyNameMatchesLongerNamesSecond) {
  Load("zel-host-core 3.2.0\nzel-host 1.0\n");
  EXPECT_EQ(host_.GetSoftwareVersion("zel-host"), "1.0");  // the exact name wins
  Load("zel-host-core 3.2.0\nzel-host-agent 3.3.0\n");
  EXPECT_EQ(host_.GetSoftwareVersion("zel-host"), "3.2.0");
  EXPECT_EQ(host_.GetSoftwareVersion("zel-host-c"), "3.2.0");
  // Other names get no second pass.
  EXPECT_EQ(host_.GetSoftwareVersion("zel-hos"), "");
  EXPECT_EQ(log_.Count("Get software version failed"), 1u);
}

TEST_F(SoftwareVersionTest, SearchReadsTheListAsLastFetched) {
  Load("a 1.0\n");
  fake_.WriteState("packages", "a 2.0\n");
  EXPECT_EQ(host_.GetSoftwareVersion("a"), "1.0");
  host_.GetSoftwareList();
  EXPECT_EQ(host_.GetSoftwareVersion("a"), "2.0");
}

// User scripts. They run only inside the end-to-end sandbox; here their text
// is checked against the exact bytes the hosts expect.

TEST_F(HostOperationsTest, UserScriptsOfLinuxHosts) {
  const std::string head =
      "#!/bin/bash \nexport PATH=$PATH:/usr/sbin\nZEL_USER=\"alice\"\nPASSWORD=\"s3cret\"\n"
      "ENCRYPTED_PSWD=$(openssl passwd -crypt \"$PASSWORD\")\n"
      "if id \"$ZEL_USER\" >/dev/null 2>&1; then\n";
  const std::string create =
      "groupadd \"$ZEL_USER\"\n"
      "useradd -m -p \"$ENCRYPTED_PSWD\" -g \"$ZEL_USER\" \"$ZEL_USER\"\n";
  const std::string rpm = head +
                          "groupdel \"$ZEL_USER\"\nuserdel -r --force \"$ZEL_USER\"\nfi\n" +
                          create + "usermod -G root -g 0 -ou 0 \"$ZEL_USER\"\n";
  const std::string ubuntu = head + "userdel -r --force \"$ZEL_USER\"\nfi\n" + create +
                             "usermod -aG sudo,syslog \"$ZEL_USER\"\n";
  EXPECT_EQ(HostOperations::UserCommand(kHostTypeRhel, "alice", "s3cret"), rpm);
  EXPECT_EQ(HostOperations::UserCommand(kHostTypeCentos, "alice", "s3cret"), rpm);
  EXPECT_EQ(HostOperations::UserCommand(kHostTypeSles, "alice", "s3cret"), rpm);
  EXPECT_EQ(HostOperations::UserCommand(kHostTypeUbuntu, "alice", "s3cret"), ubuntu);
  EXPECT_EQ(HostOperations::UserCommand(nullptr, "alice", "s3cret"), "");
  // Types are told apart by address, not by text.
  const std::string copy = kHostTypeUbuntu;
  EXPECT_EQ(HostOperations::UserCommand(copy.c_str(), "alice", "s3cret"), "");
}

TEST_F(HostOperationsTest, UserCommandOfUlmHost) {
  EXPECT_EQ(HostOperations::UserCommand(kHostTypeUlm, "bob", "pw"),
            "python -B -c \"from __future__ import print_function; import os; "
            "os.chdir('/tmp/'); import create; print(create.createUser('bob','pw'))\"");
}

// Runs the Ulm user module from a private directory against the stand-in
// host modules, the way the user command does from /tmp.
class CreateUserModuleTest : public HostOperationsTest {
 protected:
  CreateUserModuleTest() {
    EXPECT_EQ(host_.CreateFile(dir_.path() + "/create.py", HostOperations::CreateUserModule(),
                               true),
              "");
  }
  int Run(const std::string& user, const std::string& password, const std::string& mode,
          std::string& output) {
    return ExecuteCommand("cd '" + dir_.path() + "' && ZEL_FAKE_HST_MODE='" + mode +
                              "' PYTHONPATH='" + FakeHost::FakesDir() +
                              "/ulm/pylib' python3 -B -c \"import create; "
                              "print(create.createUser('" + user + "','" + password +
                              "'))\" 2>&1",
                          output);
  }
  FakeHost fake_{""};
};

TEST_F(CreateUserModuleTest, CreatesTheUserWithTheAdminRole) {
  std::string output;
  EXPECT_EQ(Run("carol", "pw1", "", output), 0) << output;
  EXPECT_EQ(output, "None\n");
  EXPECT_EQ(fake_.Calls(), (std::vector<std::string>{
                               "hst SmartConnect hmon",
                               "hst CreateUser carol pw1",
                               "hst SetEntityPermissions rootFolder carol -1 False True",
                               "hst Logout",
                           }));
  EXPECT_EQ(TempDir::ReadFile(fake_.state() + "/hst_users"), "carol\n");
}

TEST_F(CreateUserModuleTest, ReplacesAnExistingUserAndExtendsLockdownExceptions) {
  fake_.WriteState("hst_users", "carol\n");
  std::string output;
  EXPECT_EQ(Run("carol", "pw2", "lockdown", output), 0) << output;
  EXPECT_EQ(fake_.Calls(), (std::vector<std::string>{
                               "hst SmartConnect hmon",
                               "hst CreateUser carol pw2",
                               "hst RemoveUser carol",
                               "hst CreateUser carol pw2",
                               "hst QueryLockdownExceptions",
                               "hst UpdateLockdownExceptions root,carol",
                               "hst SetEntityPermissions rootFolder carol -1 False True",
                               "hst Logout",
                           }));
}

TEST_F(CreateUserModuleTest, FailuresExitWithTheirMessage) {
  struct Case {
    const char* mode;
    const char* message;
  };
  const Case cases[] = {
      {"nopermission",
       "Permission denied. Please check whether the host is not in Lockdown Mode"},
      {"lockdown,stale", "Please remove the stale user olduserfrom lockdown exception list."},
      {"lockdown,lockdown-error", "Exception boomoccured on updating exception list"},
      {"norole", "Admin permission's roleId is not valid"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode);
    std::string output;
    EXPECT_EQ(Run("dave", "pw", c.mode, output), 1);
    // Printed, then given to exit, which prints it again on stderr.
    EXPECT_EQ(output, std::string(c.message) + "\n" + c.message + "\n");
    EXPECT_EQ(fake_.Calls("hst Logout").size(), 0u);
  }
}

}  // namespace
}  // namespace ZelDorn
