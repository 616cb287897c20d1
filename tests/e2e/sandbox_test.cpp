// The end-to-end sandbox (tools/sandbox): what the other e2e tests rely on
// for the machine's safety and for their own checks.
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sandbox/sandbox.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace zel {
namespace sandbox {
namespace {

constexpr Millis kWait{10000};

bool HostExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string ReadLinkText(const std::string& path) {
  char buf[256];
  const ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
  return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// Exit code and output of a command run on the machine (only our wrapper).
int RunHost(const std::string& command, std::string* output) {
  FILE* p = popen((command + " 2>&1 </dev/null").c_str(), "r");
  char buf[1024];
  output->clear();
  while (fgets(buf, sizeof buf, p) != nullptr) *output += buf;
  const int st = pclose(p);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_THROW(sb_ = std::make_unique<Sandbox>()); }

  // Runs a shell script inside and returns its output.
  std::string Sh(const std::string& script, bool must_succeed = true) {
    std::string out;
    const ExitStatus st = sb_->Run({"sh", "-c", script}, kWait, &out);
    if (must_succeed) {
      EXPECT_TRUE(st.Success()) << script << ": " << st.ToString() << "\n" << sb_->DebugReport();
    }
    return out;
  }

  std::unique_ptr<Sandbox> sb_;
};

TEST_F(SandboxTest, WritesStayInsideAndTheRestOfTheMachineIsReadOnly) {
  const std::string tag = std::to_string(getpid());
  const std::string passwd = zel::testing::TempDir::ReadFile("/etc/passwd");
  const std::vector<std::string> inside = {"/etc/zel_probe" + tag, "/root/.zel_probe" + tag,
                                           "/var/lib/zel_probe" + tag, "/opt/zel_probe" + tag,
                                           "/tmp/zel_probe" + tag, "/run/zel_probe" + tag};
  for (const auto& path : inside) {
    Sh("echo inside > " + path);
    EXPECT_EQ(sb_->ReadFile(path), "inside\n") << path;
    EXPECT_FALSE(HostExists(path)) << path;
  }
  Sh("groupadd zele2e && useradd -m -g zele2e zele2e && id zele2e");
  EXPECT_NE(sb_->ReadFile("/etc/passwd")->find("zele2e:"), std::string::npos);
  EXPECT_TRUE(sb_->Exists("/home/zele2e"));
  EXPECT_EQ(zel::testing::TempDir::ReadFile("/etc/passwd"), passwd);
  EXPECT_FALSE(HostExists("/home/zele2e"));

  // Everywhere else the sandbox cannot write, neither from inside nor
  // through WriteFile, also not by a link that points there.
  const std::string usr = "/usr/local/zel_probe" + tag;
  EXPECT_NE(Sh("touch " + usr + " 2>&1", false).find("Read-only file system"), std::string::npos);
  EXPECT_THROW(sb_->WriteFile(usr, "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile(usr + "/dir/x", "x"), SandboxError);
  Sh("ln -s /usr/local /etc/zel_dir_link && ln -s " + usr + " /etc/zel_leaf_link");
  EXPECT_THROW(sb_->WriteFile("/etc/zel_dir_link/zel_probe" + tag, "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile("/etc/zel_leaf_link", "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile("etc/relative", "x"), SandboxError);
  EXPECT_FALSE(HostExists(usr));

  // WriteFile makes the parents, sets the mode and replaces the contents.
  sb_->WriteFile("/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid", "#!/bin/sh\necho 0123abcd\n", 0755);
  EXPECT_EQ(Sh("/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid"), "0123abcd\n");
  sb_->WriteFile("/var/run/orvane/marker", "m", 0600);
  EXPECT_EQ(Sh("stat -c %a /run/orvane/marker; cat /run/orvane/marker"), "600\nm");
  EXPECT_EQ(sb_->ReadFile("/etc/no_such_file"), std::nullopt);
}

TEST_F(SandboxTest, LoopbackIsPrivateAndSyslogRecordsAreCollected) {
  const int listener = sb_->SocketInside(AF_INET, SOCK_STREAM);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(9002);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0) << strerror(errno);
  ASSERT_EQ(listen(listener, 4), 0);
  Process& client = sb_->Spawn({"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/9002 && cat <&3"});
  pollfd p = {listener, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, static_cast<int>(kWait.count())), 1) << sb_->DebugReport();
  const int conn = accept(listener, nullptr, nullptr);
  ASSERT_EQ(write(conn, "token\n", 6), 6);
  close(conn);
  const auto st = client.WaitExit(kWait);
  ASSERT_TRUE(st && st->Success()) << sb_->DebugReport();
  EXPECT_EQ(client.Stdout(), "token\n");
  EXPECT_NE(ReadLinkText("/proc/" + std::to_string(client.pid()) + "/ns/net"), ReadLinkText("/proc/self/ns/net"));
  close(listener);

  // One datagram, one line: inner newlines escaped, the last one cut.
  ASSERT_TRUE(sb_->Run({"bash", "-c", "printf '<134>1 udp-probe' > /dev/udp/127.0.0.1/514 && printf "
                       "'two\\nlines\\n' > /tmp/m && cat /tmp/m > /dev/udp/127.0.0.1/514"}).Success());
  EXPECT_TRUE(zel::testing::WaitUntil([&] { return sb_->LogLines().size() >= 2; }, kWait));
  EXPECT_EQ(sb_->LogLines(), (std::vector<std::string>{"<134>1 udp-probe", "two\\nlines"}));
}

TEST_F(SandboxTest, StandinsComeFirstAndProcessesRunCleanly) {
  EXPECT_EQ(Sh("command -v reboot"), "/run/zel-sandbox/bin/reboot\n");
  Sh("reboot; export PATH=$PATH:/usr/sbin; reboot -f now");
  EXPECT_EQ(sb_->StandinCalls("reboot"), (std::vector<std::string>{"reboot", "reboot -f now"}));
  sb_->AddStandin("uname", "#!/bin/sh\necho \"uname $*\" >> \"$ZEL_SANDBOX_DIR/calls.log\"\necho Ulmcore 7.0\n");
  EXPECT_EQ(Sh("uname -s -r"), "Ulmcore 7.0\n");
  EXPECT_EQ(sb_->StandinCalls("uname"), std::vector<std::string>{"uname -s -r"});
  EXPECT_THROW(sb_->AddStandin("../x", ""), SandboxError);

  // A clean environment, with what the spawner adds; PATH stays fixed.
  setenv("ZEL_SYSLOG_METHOD", "DEVLOG", 1);
  SpawnOptions opts;
  opts.env["ZEL_LOG_LEVEL"] = "DEBUG";
  opts.cwd = "/etc";
  std::string out;
  const char* show = "echo \"$PATH|$HOME|$ZEL_SANDBOX_DIR|$ZEL_LOG_LEVEL|${ZEL_SYSLOG_METHOD-unset}|$(pwd)\"";
  ASSERT_TRUE(sb_->Run({"sh", "-c", show}, kWait, &out, opts).Success());
  unsetenv("ZEL_SYSLOG_METHOD");
  EXPECT_EQ(out, "/run/zel-sandbox/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin|"
                 "/root|/run/zel-sandbox|DEBUG|unset|/etc\n");
  opts.env["PATH"] = "/usr/bin";
  EXPECT_THROW(sb_->Spawn({"true"}, opts), SandboxError);

  // Output, signals and exit codes.
  Process& sleeper = sb_->Spawn({"sh", "-c", "echo one; echo two >&2; exec sleep 100"});
  EXPECT_TRUE(zel::testing::WaitUntil([&] { return sleeper.Stderr() == "two\n"; }, kWait));
  EXPECT_EQ(sleeper.Stdout(), "one\n");
  EXPECT_TRUE(sleeper.Running());
  EXPECT_TRUE(sleeper.Signal(SIGTERM));
  const auto st = sleeper.WaitExit(kWait);
  ASSERT_TRUE(st);
  EXPECT_EQ(st->signal, SIGTERM);
  EXPECT_FALSE(sleeper.Signal(SIGTERM));  // reaped: no stray signal to a reused pid
  EXPECT_EQ(sb_->Run({"sh", "-c", "exit 3"}).code, 3);
  EXPECT_EQ(sb_->Run({"zel-no-such-program"}).code, 127);
}

TEST(SandboxTeardownTest, LeavesNoProcessesOrMounts) {
  const std::string mounts = zel::testing::TempDir::ReadFile("/proc/self/mountinfo");
  std::string ns;
  std::vector<pid_t> pids;
  {
    Sandbox sb;
    pids.push_back(sb.holder_pid());
    pids.push_back(sb.Spawn({"sleep", "1000"}).pid());
    ns = ReadLinkText("/proc/" + std::to_string(sb.holder_pid()) + "/ns/mnt");
    // An orphan that has left this process's tree.
    std::string out;
    ASSERT_TRUE(sb.Run({"sh", "-c", "sleep 1000 >/dev/null 2>&1 & echo $!"}, kWait, &out).Success());
    pids.push_back(std::atoi(out.c_str()));
    EXPECT_EQ(ReadLinkText("/proc/" + std::to_string(pids.back()) + "/ns/mnt"), ns);
  }
  for (pid_t pid : pids) EXPECT_NE(ReadLinkText("/proc/" + std::to_string(pid) + "/ns/mnt"), ns) << pid;
  EXPECT_EQ(zel::testing::TempDir::ReadFile("/proc/self/mountinfo"), mounts);
}

TEST(SandboxHolderTest, RefusesToMountInTheNamespaceItWasStartedFrom) {
  // Run by hand, its parent shares its mount namespace: nothing may be
  // mounted. The namespace here is a throw-away one, so that even a broken
  // check could not touch the machine's mounts.
  const std::string script = std::string("unshare --mount -- sh -c 'sh ") + ZEL_SANDBOX_HOLD +
                             "; echo exit $?; grep -c zel-sandbox /proc/self/mountinfo || true'";
  std::string out;
  EXPECT_EQ(RunHost(script, &out), 0) << out;
  EXPECT_EQ(out, "error: not in a mount namespace of its own; refusing to mount anything\nexit 1\n0\n");
}

TEST(SandboxCliTest, RunsACommandWithFilesAndStandinsAndTellsHowItEnded) {
  zel::testing::TempDir dir;
  const std::string conf = dir.WriteFile("dornConfig.ini", "[CommunicationHandler]\nackTimeout=7\n");
  const std::string uname = dir.WriteFile("uname", "#!/bin/sh\necho Ulmcore\n");
  const std::string cli = ZEL_SANDBOX_CLI;
  const std::string run = cli + " --file /etc/orvane/zel-dorn/dornConfig.ini=" + conf + " --standin " + uname +
                          " --log-copy " + dir.path() + "/log -- bash -c 'cat /etc/orvane/zel-dorn/dornConfig.ini;"
                          " uname; printf logged > /dev/udp/127.0.0.1/514; exit 7'";
  std::string out;
  EXPECT_EQ(RunHost(run, &out), 7) << out;
  EXPECT_EQ(out, "[CommunicationHandler]\nackTimeout=7\nUlmcore\n");
  EXPECT_EQ(zel::testing::TempDir::ReadFile(dir.path() + "/log"), "logged\n");
  EXPECT_EQ(RunHost(cli + " --timeout 1 -- sleep 100", &out), 124) << out;
  EXPECT_EQ(RunHost(cli + " -- sh -c 'kill -TERM $$'", &out), 128 + SIGTERM) << out;
  EXPECT_EQ(RunHost(cli + " --bogus x -- true", &out), 2) << out;
  EXPECT_EQ(RunHost("setpriv --reuid=65534 --regid=65534 --clear-groups " + cli + " -- true", &out), 125);
  EXPECT_NE(out.find("sandbox needs root"), std::string::npos) << out;
}

}  // namespace
}  // namespace sandbox
}  // namespace zel
