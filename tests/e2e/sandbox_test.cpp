#include "e2e/sandbox.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zel {
namespace e2e {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr Millis kWait{10000};

std::string HostText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

bool HostExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string Unique(const std::string& stem) { return stem + "_" + std::to_string(getpid()); }

std::string ReadLinkText(const std::string& path) {
  char buf[256];
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

// True when `pid` no longer runs in the namespace `mnt_ns`: gone, a zombie,
// or the number reused by an unrelated process.
bool GoneFrom(pid_t pid, const std::string& mnt_ns) {
  return ReadLinkText("/proc/" + std::to_string(pid) + "/ns/mnt") != mnt_ns;
}

// Runs a host command (only our own wrapper) and returns its exit code and
// combined output.
int RunHost(const std::string& command, std::string* output) {
  FILE* p = popen((command + " 2>&1 </dev/null").c_str(), "r");
  if (p == nullptr) return -1;
  char buf[1024];
  output->clear();
  while (fgets(buf, sizeof(buf), p) != nullptr) *output += buf;
  int st = pclose(p);
  return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NO_THROW(sb_ = std::make_unique<Sandbox>()); }

  // Runs a shell command inside and returns its stdout; fails the test on a
  // non-zero exit.
  std::string Sh(const std::string& script) {
    std::string out;
    ExitStatus st = sb_->Run({"sh", "-c", script}, kWait, &out);
    EXPECT_TRUE(st.Success()) << script << ": " << st.ToString() << "\n" << sb_->DebugReport();
    return out;
  }

  std::unique_ptr<Sandbox> sb_;
};

// --- File system ------------------------------------------------------------

TEST_F(SandboxTest, WritesToFixedPathsStayInsideTheSandbox) {
  const std::string etc_file = Unique("/etc/zel_e2e_probe");
  const std::string home_dir = Unique("/home/zel_e2e_probe");
  const std::string root_file = Unique("/root/.zel_e2e_probe");
  const std::string var_file = Unique("/var/lib/zel_e2e_probe");
  ASSERT_FALSE(HostExists(etc_file));
  const bool host_had_orvane = HostExists("/etc/orvane");

  Sh("echo inside > " + etc_file + " && mkdir -p /etc/orvane/zel-dorn && echo 1 > /etc/orvane/zel-dorn/x" +
     " && mkdir " + home_dir + " && touch " + root_file + " " + var_file + " /tmp/create.py");

  EXPECT_EQ(sb_->ReadFile(etc_file), "inside\n");
  EXPECT_TRUE(sb_->Exists(home_dir));
  EXPECT_TRUE(sb_->Exists("/tmp/create.py"));
  for (const auto& p : {etc_file, home_dir, root_file, var_file}) EXPECT_FALSE(HostExists(p)) << p;
  EXPECT_EQ(HostExists("/etc/orvane"), host_had_orvane);
  // The write went to the overlay's upper layer in the scratch directory.
  EXPECT_EQ(HostText(sb_->scratch_dir() + "/overlay" + etc_file.substr(0, 4) + "/upper" + etc_file.substr(4)),
            "inside\n");
}

TEST_F(SandboxTest, FilesWrittenByTheTestAreSeenInside) {
  sb_->WriteFile("/etc/orvane/zel-dorn/dornConfig.ini", "[Monitoring]\nupdateCheckFrequency=5\n");
  sb_->WriteFile("/etc/zel_issue", "node-type: zel-kvm\n");
  sb_->WriteFile("/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid",
                 "#!/bin/sh\necho 0123abcd-0000-0000-0000-000000000000\n", 0755);
  sb_->WriteFile("/var/run/orvane/zel-proxy/marker", "m");

  EXPECT_EQ(Sh("cat /etc/orvane/zel-dorn/dornConfig.ini /etc/zel_issue"),
            "[Monitoring]\nupdateCheckFrequency=5\nnode-type: zel-kvm\n");
  EXPECT_EQ(Sh("/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid"), "0123abcd-0000-0000-0000-000000000000\n");
  // /var/run is a link to /run; it resolves to the sandbox's private /run.
  EXPECT_EQ(Sh("cat /run/orvane/zel-proxy/marker"), "m");
  EXPECT_FALSE(HostExists("/run/orvane/zel-proxy/marker"));
  EXPECT_EQ(Sh("stat -c %a /opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid"), "755\n");

  // Rewriting replaces the contents and sets the mode.
  sb_->WriteFile("/etc/zel_issue", "x", 0600);
  EXPECT_EQ(sb_->ReadFile("/etc/zel_issue"), "x");
  EXPECT_EQ(Sh("stat -c %a /etc/zel_issue"), "600\n");
  EXPECT_EQ(sb_->ReadFile("/etc/no_such_file_here"), std::nullopt);

  sb_->Spawn({"sh", "-c", "printf 0000 > /etc/orvane/zel-dorn/software_status"});
  EXPECT_EQ(sb_->WaitForFile("/etc/orvane/zel-dorn/software_status", kWait), "0000");
}

TEST_F(SandboxTest, AbsoluteLinksResolveInsideTheSandbox) {
  const std::string host_twin = Unique("/tmp/zel_e2e_target");
  { std::ofstream(host_twin) << "host"; }
  Sh("printf inside > " + host_twin + " && ln -s " + host_twin + " /etc/zel_e2e_abs_link");
  EXPECT_EQ(sb_->ReadFile("/etc/zel_e2e_abs_link"), "inside");
  EXPECT_EQ(HostText(host_twin), "host");
  std::remove(host_twin.c_str());
}

TEST_F(SandboxTest, WritesOutsideTheSandboxMountsAreRefused) {
  const std::string usr_file = Unique("/usr/local/zel_e2e_probe");
  const std::string usr_dir = Unique("/usr/local/zel_e2e_dir");
  EXPECT_THROW(sb_->WriteFile(usr_file, "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile(usr_dir + "/x", "x"), SandboxError);
  EXPECT_FALSE(HostExists(usr_file));
  EXPECT_FALSE(HostExists(usr_dir));

  // A directory link out of the sandbox's mounts, and a leaf link, refused.
  Sh("ln -s /usr/local /etc/zel_e2e_dir_link && ln -s " + usr_file + " /etc/zel_e2e_leaf_link");
  EXPECT_THROW(sb_->WriteFile("/etc/zel_e2e_dir_link/y", "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile("/etc/zel_e2e_leaf_link", "x"), SandboxError);
  EXPECT_FALSE(HostExists(usr_file));
  EXPECT_FALSE(HostExists("/usr/local/y"));

  EXPECT_THROW(sb_->WriteFile("etc/relative", "x"), SandboxError);
  EXPECT_THROW(sb_->WriteFile("/etc/../usr/local/zel", "x"), SandboxError);
}

// --- Network and logs ------------------------------------------------------

bool TcpTableHasInode(const std::string& table, ino_t inode) {
  std::istringstream lines(HostText(table));
  std::string line;
  std::getline(lines, line);  // header
  while (std::getline(lines, line)) {
    std::istringstream f(line);
    std::string field;
    for (int i = 0; i < 10 && (f >> field); ++i) {
    }
    if (field == std::to_string(inode)) return true;
  }
  return false;
}

TEST_F(SandboxTest, LoopbackWorksAndIsPrivate) {
  int listener = sb_->SocketInside(AF_INET, SOCK_STREAM);
  int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(9002);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << strerror(errno);
  ASSERT_EQ(listen(listener, 4), 0);

  Process& client = sb_->Spawn({"bash", "-c", "exec 3<>/dev/tcp/127.0.0.1/9002 && cat <&3"});
  pollfd p = {listener, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, static_cast<int>(kWait.count())), 1) << sb_->DebugReport();
  int conn = accept(listener, nullptr, nullptr);
  ASSERT_GE(conn, 0);
  const std::string token = Unique("token") + "\n";
  ASSERT_EQ(write(conn, token.data(), token.size()), static_cast<ssize_t>(token.size()));
  close(conn);
  auto st = client.WaitExit(kWait);
  ASSERT_TRUE(st && st->Success()) << sb_->DebugReport();
  EXPECT_EQ(client.Stdout(), token);

  struct stat sst;
  ASSERT_EQ(fstat(listener, &sst), 0);
  EXPECT_TRUE(TcpTableHasInode("/proc/" + std::to_string(sb_->holder_pid()) + "/net/tcp", sst.st_ino));
  EXPECT_FALSE(TcpTableHasInode("/proc/self/net/tcp", sst.st_ino));
  close(listener);
}

TEST_F(SandboxTest, LogCollectorTakesUdpAndDevLogDatagrams) {
  ASSERT_TRUE(sb_->Run({"bash", "-c",
                       "printf '<134>1 udp-probe' > /dev/udp/127.0.0.1/514 && logger -t zelprobe devlog-probe"
                       " && printf 'two\\nlines\\n' > /tmp/m && cat /tmp/m > /dev/udp/127.0.0.1/514"})
                  .Success())
      << sb_->DebugReport();
  EXPECT_TRUE(sb_->WaitForLog("^<134>1 udp-probe$", kWait)) << sb_->DebugReport();
  EXPECT_TRUE(sb_->WaitForLog("zelprobe.*devlog-probe", kWait)) << sb_->DebugReport();
  // One datagram, one line: inner newlines are escaped, the last one cut.
  EXPECT_TRUE(sb_->WaitForLog("^two\\\\nlines$", kWait)) << sb_->DebugReport();
  // from_line skips what has been seen.
  const size_t seen = sb_->LogLines().size();
  EXPECT_FALSE(sb_->WaitForLog("udp-probe", Millis(50), seen));
}

// --- Stand-ins ---------------------------------------------------------------

TEST_F(SandboxTest, RebootIsTheRecordingStandin) {
  EXPECT_EQ(Sh("command -v reboot"), "/run/zel-sandbox/bin/reboot\n");
  Sh("reboot\n");
  Sh("#!/bin/bash \nexport PATH=$PATH:/usr/sbin\nreboot -f now\n");
  EXPECT_EQ(sb_->StandinCalls("reboot"), (std::vector<std::string>{"reboot", "reboot -f now"}));
  EXPECT_TRUE(sb_->WaitForStandinCall("^reboot -f", Millis(0)));
}

TEST_F(SandboxTest, AddedStandinsShadowSystemCommands) {
  sb_->AddStandin("uname", "#!/bin/sh\necho \"uname $*\" >> \"$ZEL_SANDBOX_DIR/calls.log\"\necho Ulmcore 7.0\n");
  EXPECT_EQ(Sh("uname -s -r"), "Ulmcore 7.0\n");
  EXPECT_EQ(sb_->StandinCalls("uname"), std::vector<std::string>{"uname -s -r"});
  EXPECT_THROW(sb_->AddStandin("../x", ""), SandboxError);
}

TEST(SandboxStartTest, RefusesWhenRebootDoesNotResolveToTheStandin) {
  // A stand-in "sh" that claims reboot is the system's: the start check runs
  // `sh -c 'command -v reboot'` and must refuse.
  char dir[] = "/tmp/zel-e2e-test.XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string fake_sh = std::string(dir) + "/sh";
  { std::ofstream(fake_sh) << "#!/bin/bash\necho /usr/sbin/reboot\n"; }
  SandboxOptions options;
  options.extra_standins = {fake_sh};
  try {
    Sandbox sb(options);
    ADD_FAILURE() << "sandbox started although reboot is not the stand-in";
  } catch (const SandboxError& e) {
    EXPECT_THAT(e.what(), HasSubstr("refusing to start"));
  }
  std::remove(fake_sh.c_str());
  rmdir(dir);
}

TEST(SandboxStartTest, RefusesScratchUnderAHiddenDirectory) {
  SandboxOptions options;
  options.scratch_parent = "/var/tmp";
  try {
    Sandbox sb(options);
    ADD_FAILURE() << "scratch under /var accepted";
  } catch (const SandboxError& e) {
    EXPECT_THAT(e.what(), HasSubstr("lies under /var"));
  }
}

// --- Users -------------------------------------------------------------------

TEST_F(SandboxTest, UseraddChangesOnlyTheSandboxAccounts) {
  const std::string passwd = HostText("/etc/passwd");
  const std::string group = HostText("/etc/group");
  const std::string shadow = HostText("/etc/shadow");
  ASSERT_THAT(passwd, Not(HasSubstr("zele2euser:")));

  Sh("groupadd zele2euser && useradd -m -g zele2euser zele2euser && id zele2euser");

  EXPECT_THAT(*sb_->ReadFile("/etc/passwd"), HasSubstr("zele2euser:"));
  EXPECT_THAT(*sb_->ReadFile("/etc/group"), HasSubstr("zele2euser:"));
  EXPECT_TRUE(sb_->Exists("/home/zele2euser"));
  EXPECT_EQ(HostText("/etc/passwd"), passwd);
  EXPECT_EQ(HostText("/etc/group"), group);
  EXPECT_EQ(HostText("/etc/shadow"), shadow);
  EXPECT_FALSE(HostExists("/home/zele2euser"));
}

// --- Processes -------------------------------------------------------------

TEST_F(SandboxTest, ProcessesReportOutputSignalsAndExitCodes) {
  Process& sleeper = sb_->Spawn({"sh", "-c", "echo one; echo ready-42 >&2; exec sleep 100"});
  EXPECT_EQ(sleeper.WaitForStderr("ready-[0-9]+", kWait), "ready-42");
  EXPECT_FALSE(sleeper.WaitForStdout("never", Millis(20)));
  EXPECT_TRUE(sleeper.Running());
  EXPECT_TRUE(sleeper.Signal(SIGTERM));
  auto st = sleeper.WaitExit(kWait);
  ASSERT_TRUE(st);
  EXPECT_EQ(st->signal, SIGTERM);
  EXPECT_FALSE(sleeper.Signal(SIGTERM));  // reaped: no stray signal to a reused pid

  EXPECT_EQ(sb_->Run({"sh", "-c", "exit 3"}).code, 3);
  Process& missing = sb_->Spawn({"zel-no-such-program"});
  st = missing.WaitExit(kWait);
  ASSERT_TRUE(st);
  EXPECT_EQ(st->code, 127);
  EXPECT_THAT(missing.Stderr(), HasSubstr("cannot run zel-no-such-program"));
}

TEST_F(SandboxTest, ProcessesRunInTheSandboxWithACleanEnvironment) {
  setenv("ZEL_SYSLOG_METHOD", "DEVLOG", 1);  // must not leak in
  SpawnOptions opts;
  opts.env["ZEL_LOG_LEVEL"] = "DEBUG";
  opts.cwd = "/etc";
  std::string out;
  ASSERT_TRUE(sb_->Run({"sh", "-c",
                        "echo \"$PATH|$HOME|$ZEL_SANDBOX_DIR|$ZEL_LOG_LEVEL|${ZEL_SYSLOG_METHOD-unset}|$(pwd)\";"
                        " readlink /proc/self/ns/mnt"},
                       kWait, &out, opts)
                  .Success());
  unsetenv("ZEL_SYSLOG_METHOD");
  EXPECT_EQ(out, std::string("/run/zel-sandbox/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin|"
                             "/root|/run/zel-sandbox|DEBUG|unset|/etc\n") +
                     sb_->mount_namespace() + "\n");
  opts.env["PATH"] = "/usr/bin";
  EXPECT_THROW(sb_->Spawn({"true"}, opts), SandboxError);
}

// --- Teardown --------------------------------------------------------------

TEST(SandboxTeardownTest, LeavesNoMountsProcessesOrScratch) {
  const std::string mounts_before = HostText("/proc/self/mountinfo");
  std::string scratch, ns;
  std::vector<pid_t> pids;
  {
    Sandbox sb;
    scratch = sb.scratch_dir();
    ns = sb.mount_namespace();
    pids.push_back(sb.holder_pid());
    pids.push_back(sb.Spawn({"sleep", "1000"}).pid());
    // An orphan that has left the test's process tree.
    std::string out;
    ASSERT_TRUE(sb.Run({"sh", "-c", "sleep 1000 >/dev/null 2>&1 & echo $!"}, kWait, &out).Success());
    pids.push_back(std::atoi(out.c_str()));
    ASSERT_GT(pids.back(), 0);
    EXPECT_FALSE(GoneFrom(pids.back(), ns));
    EXPECT_TRUE(HostExists(scratch));
    EXPECT_EQ(HostText("/proc/self/mountinfo"), mounts_before);  // nothing mounted here
  }
  EXPECT_FALSE(HostExists(scratch));
  for (pid_t pid : pids) EXPECT_TRUE(GoneFrom(pid, ns)) << pid;
  EXPECT_EQ(HostText("/proc/self/mountinfo"), mounts_before);
}

TEST(SandboxTeardownTest, KeepsScratchWhenAsked) {
  SandboxOptions options;
  options.keep_scratch = true;
  std::string scratch;
  {
    Sandbox sb(options);
    scratch = sb.scratch_dir();
    sb.WriteFile("/etc/zel_kept", "k");
  }
  EXPECT_EQ(HostText(scratch + "/overlay/etc/upper/zel_kept"), "k");
  std::error_code ec;
  std::filesystem::remove_all(scratch, ec);
}

// --- Command-line wrapper ----------------------------------------------------

TEST(SandboxCliTest, RunsCommandWithFilesEnvironmentAndBackgroundJobs) {
  char dir[] = "/tmp/zel-e2e-test.XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string conf = std::string(dir) + "/dornConfig.ini";
  const std::string log_copy = std::string(dir) + "/log";
  { std::ofstream(conf) << "[CommunicationHandler]\nackTimeout=7\n"; }
  const bool host_had_conf = HostExists("/etc/orvane/zel-dorn/dornConfig.ini");

  std::string out;
  const int rc = RunHost(std::string(ZEL_SANDBOX_CLI) + " --file /etc/orvane/zel-dorn/dornConfig.ini=" + conf +
                             " --env FOO=bar --log-copy " + log_copy +
                             " --bg 'logger -t zelbg bg-ran; echo bg > /tmp/bg-marker'"
                             " -- sh -c 'cat /etc/orvane/zel-dorn/dornConfig.ini; echo $FOO; reboot now;"
                             " i=0; while [ ! -e /tmp/bg-marker ] && [ $i -lt 500 ]; do sleep 0.01; i=$((i+1)); done;"
                             " cat /tmp/bg-marker /run/zel-sandbox/calls.log; exit 7'",
                         &out);
  EXPECT_EQ(rc, 7) << out;
  EXPECT_EQ(out, "[CommunicationHandler]\nackTimeout=7\nbar\nbg\nreboot now\n");
  EXPECT_THAT(HostText(log_copy), HasSubstr("bg-ran"));
  EXPECT_EQ(HostExists("/etc/orvane/zel-dorn/dornConfig.ini"), host_had_conf);

  EXPECT_EQ(RunHost(std::string(ZEL_SANDBOX_CLI) + " --timeout 1 -- sleep 100", &out), 124) << out;
  EXPECT_EQ(RunHost(std::string(ZEL_SANDBOX_CLI) + " -- sh -c 'kill -TERM $$'", &out), 128 + SIGTERM) << out;
  EXPECT_EQ(RunHost(std::string(ZEL_SANDBOX_CLI) + " --bogus -- true", &out), 2) << out;
  std::error_code ec;
  std::filesystem::remove_all(dir, ec);
}

TEST(SandboxCliTest, NonRootIsRefusedWithAClearMessage) {
  std::string out;
  const int rc = RunHost("setpriv --reuid=65534 --regid=65534 --clear-groups " + std::string(ZEL_SANDBOX_CLI) +
                             " -- true",
                         &out);
  EXPECT_EQ(rc, 125) << out;
  EXPECT_THAT(out, HasSubstr("sandbox needs root: running as uid 65534"));
}

}  // namespace
}  // namespace e2e
}  // namespace zel
