#include "core/host_operations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/execute_command.h"
#include "core/fake_host.h"
#include "core/host_info.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ZelDorn {
namespace {

using testing::FakeHost;
using zel::testing::TempDir;

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

class HostOperationsTest : public ::testing::Test {
 protected:
  HostOperationsTest() {
    HostInfo::SetHostTypeForTest(nullptr);
  }
  ~HostOperationsTest() override { HostInfo::SetHostTypeForTest(nullptr); }

  zel::testing::LogCapture log_{"VERBOSE"};
  TempDir dir_;
  HostOperations host_;
};

// CreateFile

TEST_F(HostOperationsTest, CreateFileWritesVerifiesAndMakesParents) {
  const std::string file = dir_.path() + "/a/b/c.txt";
  EXPECT_EQ(host_.CreateFile(file, "line 1\nline 2\n", false), "");
  EXPECT_EQ(TempDir::ReadFile(file), "line 1\nline 2\n");
  EXPECT_EQ(log_.Count("] Created directory " + dir_.path() + "/a/b."), 1u);
  EXPECT_EQ(log_.Count("] Created file " + file + "."), 1u);
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
  EXPECT_EQ(ModeOf(plain), 0640u);
  EXPECT_EQ(host_.CreateFile(plain, "newer", true), "");
  EXPECT_EQ(ModeOf(plain), 0700u);
  umask(oldMask);
}

TEST_F(HostOperationsTest, CreateFileWantsADirectoryPart) {
  EXPECT_EQ(host_.CreateFile("bare-name.txt", "x", false), "Provide absolute path");
  EXPECT_EQ(access("bare-name.txt", F_OK), -1);
  EXPECT_EQ(log_.Count("level=\"WARN\"] Failed to create file bare-name.txt (Provide absolute "
                       "path)."),
            1u);
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

  // Writes to the null device vanish, so reading back finds nothing; the
  // full device accepts the open and refuses the data.
  EXPECT_EQ(host_.CreateFile("/dev/null", "lost", false), "File verification failed");
  EXPECT_EQ(log_.Count("] Contents of file /dev/null do not match source buffer."), 1u);
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
  EXPECT_EQ(log_.Count("level=\"WARN\"] Command echo no; exit 4 failed with return-code 4 "
                       "(no\n)."),
            1u);
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

TEST_F(HostOperationsTest, SoftwareListFailureOrUnknownHostEmptiesTheList) {
  FakeHost fake("rhel");
  HostInfo::InitVersionInfo();
  host_.GetSoftwareList();
  ASSERT_FALSE(host_.softwareList().empty());

  fake.AddTool("rpmquery", "echo partial; exit 3");
  host_.GetSoftwareList();
  EXPECT_EQ(host_.softwareList(), "");
  EXPECT_EQ(log_.Count("] Get software list operation failed (3)."), 1u);

  // An unknown host type empties it too, without running anything.
  fake.AddTool("rpmquery", "echo x 1; echo ran >> \"$ZEL_FAKE_HOST_DIR/ran\"");
  host_.GetSoftwareList();
  ASSERT_EQ(host_.softwareList(), "x 1\n");
  HostInfo::SetHostTypeForTest(nullptr);
  host_.GetSoftwareList();
  EXPECT_EQ(host_.softwareList(), "");
  EXPECT_EQ(log_.Count("] Invalid host type: ((null))."), 1u);
  EXPECT_EQ(TempDir::ReadFile(fake.state() + "/ran"), "ran\n");
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
  Load("ba 1.0\na 2.0\nfoo 3.1-2 extra\nnover \n");
  EXPECT_EQ(host_.GetSoftwareVersion("a"), "1.0");  // "ba 1.0" comes first
  EXPECT_EQ(host_.GetSoftwareVersion("foo"), "3.1-2 extra");
  EXPECT_EQ(host_.GetSoftwareVersion("nover"), "");  // a name without version reads as absent
  EXPECT_EQ(log_.Lines().size(), 0u);
  EXPECT_EQ(host_.GetSoftwareVersion("fo"), "");
  EXPECT_EQ(host_.GetSoftwareVersion("missing"), "");
  EXPECT_EQ(log_.Count("] Get software version failed for fo."), 1u);
  EXPECT_EQ(log_.Count("] Get software version failed for missing."), 1u);
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

TEST_F(CreateUserModuleTest, FailuresExitWithTheirMessage) {
  struct Case {
    const char* mode;
    const char* message;
    bool printed;  // printed before exit, which prints it again on stderr
  };
  const Case cases[] = {
      {"nopermission",
       "Permission denied. Please check whether the host is not in Lockdown Mode", true},
      {"lockdown,stale", "Please remove the stale user olduserfrom lockdown exception list.",
       true},
      {"lockdown,lockdown-error", "Exception boomoccured on updating exception list", true},
      {"norole", "Admin permission's roleId is not valid", true},
      // An account that exists but cannot be removed: deleteUser only exits.
      {"ghost", "ulm user does not exist", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.mode);
    std::string output;
    EXPECT_EQ(Run("dave", "pw", c.mode, output), 1);
    const std::string line = std::string(c.message) + "\n";
    EXPECT_EQ(output, c.printed ? line + line : line);
    EXPECT_EQ(fake_.Calls("hst Logout").size(), 0u);
  }
}

}  // namespace
}  // namespace ZelDorn
