// End-to-end sandbox: runs real programs (the agent, stand-in relays, shell
// commands) as root inside private mount and network namespaces, so that they
// see the agent's fixed paths and ports while this machine's /etc, /var,
// /home, /root, /opt, /tmp, /run, /dev and network stay untouched.
//
// What a sandbox is
//   A holder process (zel-sandbox-helper hold) unshares a mount and a network
//   namespace, makes every mount private, brings loopback up and builds this
//   view, all backed by a scratch directory /tmp/zel-sandbox.XXXXXX:
//     /etc /var /home /root /opt   overlayfs over the real directory; writes
//                                  land in <scratch>/overlay/<name>/upper
//     /tmp /run                    empty private tmpfs (/var/run -> /run too)
//     /dev                         private tmpfs with null, zero, full,
//                                  random, urandom, tty, pts, shm; /dev/log
//                                  is the log collector's socket
//     /run/zel-sandbox             bind of <scratch>/sandbox, seen from both
//                                  sides: bin/ (stand-ins), calls.log
//   If the test process dies, the holder sees end of file on its control pipe
//   and kills whatever is left in the namespace; the next sandbox removes the
//   orphaned scratch directory.
//   Everything else (/usr, /proc, the build tree) is the machine's own and is
//   shared read-write: programs in the sandbox must not write there. Programs
//   of the build tree run inside under their host paths.
//   Processes join the holder's namespaces with setns before they exec. The
//   test process itself never mounts anything and never changes namespace.
//
// Stand-ins
//   PATH inside is /run/zel-sandbox/bin first, then the usual system PATH.
//   Every file of tests/e2e/standins/ is copied there (reboot among them), and
//   SandboxOptions::extra_standins and AddStandin() add more. A stand-in
//   records itself by appending one line "<name> <args...>" to
//   "${ZEL_SANDBOX_DIR:-/run/zel-sandbox}/calls.log"; see standins/reboot.
//   The constructor checks that `sh -c 'command -v reboot'` inside resolves to
//   the stand-in and refuses to start otherwise; PATH cannot be overridden.
//
// Logs
//   With collect_logs (the default) a collector process listens inside on UDP
//   127.0.0.1:514 (what the agent uses with ZEL_SYSLOG_METHOD unset) and on
//   the datagram socket /dev/log (the C library's syslog()). Every datagram
//   becomes one line of log_path(); embedded newlines are written as "\n".
//   Spawned processes start with a clean environment (see Spawn), so the
//   agent logs the way it does in production unless a test sets
//   ZEL_SYSLOG_METHOD or ZEL_LOG_LEVEL through SpawnOptions::env.
//
// C++ use (link zel::e2e_sandbox; tests run as root, label them "e2e"):
//
//   zel::e2e::Sandbox sb;                               // throws SandboxError
//   sb.WriteFile("/etc/orvane/zel-dorn/dornConfig.ini", "[Monitoring]\n...");
//   sb.AddStandin("uname", "#!/bin/sh\necho 'Linux 6.1.0'\n");
//   auto& relay = sb.Spawn({relay_path, "--port", "9002"});
//   ASSERT_TRUE(relay.WaitForStdout("listening", 10s)) << sb.DebugReport();
//   zel::e2e::SpawnOptions opts;
//   opts.env["ZEL_LOG_LEVEL"] = "DEBUG";
//   auto& agent = sb.Spawn({agent_path}, opts);
//   ASSERT_TRUE(sb.WaitForLog("Starting Dorn Host Agent", 10s));
//   ASSERT_TRUE(sb.WaitForStandinCall("^reboot", 10s));
//   agent.Signal(SIGINT);
//   auto st = agent.WaitExit(10s);                      // nullopt on time-out
//   // ~Sandbox kills what is left, drops the namespaces, removes the scratch.
//
//   A test process can also own sockets in the sandbox's network namespace:
//   SocketInside(AF_INET, SOCK_STREAM, 0) gives a descriptor on the sandbox's
//   loopback (bind, listen, connect as usual, or hand it to asio). Unix
//   sockets at sandbox paths (/var/run/orvane/...) must be made by a spawned
//   process, since only those see the sandbox's file system.
//
// Command line (tests/e2e/zel-sandbox in the build tree, as root):
//
//   zel-sandbox [options] -- COMMAND [ARG...]
//     --file SANDBOX_PATH=HOST_FILE  copy a host file in before anything runs
//     --standin HOST_FILE            add an executable to the stand-in dir
//     --env NAME=VALUE               environment of every command
//     --bg 'SHELL COMMAND'           start in the background first (sh -c),
//                                    output to this terminal; repeatable
//     --follow-log                   print collected log lines to stderr live
//     --log-copy HOST_FILE           copy the collected log here at the end
//     --no-logs                      no log collector
//     --timeout SECONDS              kill COMMAND after this long
//     --keep                         keep the scratch directory, print it
//   COMMAND runs in the foreground with this terminal's stdio; its exit code
//   is returned (128+N when killed by signal N, 124 after --timeout, 125 when
//   the sandbox fails, 2 for bad usage).
//   Background commands get SIGTERM when COMMAND ends, then SIGKILL.
//   Example, relay and agent in one sandbox:
//     zel-sandbox --follow-log --file /etc/orvane/zel-dorn/dornConfig.ini=my.ini
//                 --bg "$AGENT" -- "$RELAY"          (one command line)
//
// Threads: a Sandbox and its Process objects belong to one thread (the test's
// thread); nothing here starts threads except SocketInside, which joins its
// short-lived thread before returning.
#ifndef ZEL_TESTS_E2E_SANDBOX_H_
#define ZEL_TESTS_E2E_SANDBOX_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zel {
namespace e2e {

// Set-up failures and refused requests (not root, no overlayfs, reboot not
// resolving to the stand-in, a write outside the sandbox's mounts).
class SandboxError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Millis = std::chrono::milliseconds;

// How a process ended.
struct ExitStatus {
  bool exited = false;  // ended by exit(); `code` is set
  int code = -1;
  int signal = 0;  // ended by this signal
  bool Success() const { return exited && code == 0; }
  std::string ToString() const;  // "exit 0", "signal 9"
  static ExitStatus FromWaitStatus(int status);
};

// Lines of a file, split at '\n'; a last line without newline is included.
// A missing file gives no lines.
std::vector<std::string> ReadLines(const std::string& host_path);

// Waits until a line of `host_path` with index >= from_line matches the
// ECMAScript regex `pattern` (std::regex_search) and returns that line, or
// nullopt when `timeout` passes first. The file may not exist yet.
std::optional<std::string> WaitForLine(const std::string& host_path, const std::string& pattern,
                                       Millis timeout, size_t from_line = 0);

// Calls `done` until it returns true or `timeout` passes; returns its last
// answer. Checks every few milliseconds.
bool WaitUntil(const std::function<bool()>& done, Millis timeout);

struct SandboxOptions {
  // Start the log collector (UDP 127.0.0.1:syslog_port and /dev/log).
  bool collect_logs = true;
  uint16_t syslog_port = 514;
  // Host files copied into the stand-in directory, named by their base name.
  std::vector<std::string> extra_standins;
  // Keep the scratch directory after teardown (also when ZEL_SANDBOX_KEEP=1);
  // a kept directory is marked and never swept, remove it by hand.
  bool keep_scratch = false;
  // Where the scratch directory is made; must not lie under a directory the
  // sandbox overlays.
  std::string scratch_parent = "/tmp";
  Millis start_timeout{30000};
};

struct SpawnOptions {
  // Label of the process in output file names and reports; default: the
  // base name of argv[0].
  std::string name;
  // Added to the sandbox environment (PATH, HOME=/root, USER, LOGNAME,
  // SHELL, LANG=C.UTF-8, ZEL_SANDBOX_DIR, sanitizer variables and TERM of
  // this process). Setting PATH throws SandboxError.
  std::map<std::string, std::string> env;
  // Working directory inside the sandbox.
  std::string cwd = "/";
  // Share this process's stdin, stdout and stderr instead of /dev/null and
  // capture files.
  bool inherit_stdio = false;
  // Run in a process group of its own (teardown kills the group).
  bool new_process_group = true;
};

class Sandbox;

// A process started inside a sandbox. Owned by its Sandbox; references stay
// valid until the Sandbox is destroyed.
class Process {
 public:
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  const std::string& name() const { return name_; }
  // Host paths of the captured output (empty with inherit_stdio).
  const std::string& stdout_path() const { return stdout_path_; }
  const std::string& stderr_path() const { return stderr_path_; }
  std::string Stdout() const;
  std::string Stderr() const;
  std::optional<std::string> WaitForStdout(const std::string& pattern, Millis timeout,
                                           size_t from_line = 0) const;
  std::optional<std::string> WaitForStderr(const std::string& pattern, Millis timeout,
                                           size_t from_line = 0) const;

  // Sends `sig` to the process (not its group). False once it has been
  // reaped or when kill fails.
  bool Signal(int sig);
  // Waits for the end of the process and reaps it; nullopt on time-out.
  // Returns the stored status if it has already been reaped.
  std::optional<ExitStatus> WaitExit(Millis timeout);
  // True until the process has ended (reaps it if it has).
  bool Running();
  std::optional<ExitStatus> status() const { return status_; }

 private:
  friend class Sandbox;
  Process(pid_t pid, std::string name, std::string out, std::string err, bool own_group);
  void Kill();  // SIGKILL to the process (and its group), then reap

  pid_t pid_;
  int pidfd_ = -1;
  bool own_group_;
  std::string name_;
  std::string stdout_path_;
  std::string stderr_path_;
  std::optional<ExitStatus> status_;
};

class Sandbox {
 public:
  // Fixed paths inside every sandbox.
  static constexpr const char* kInsideDir = "/run/zel-sandbox";
  static constexpr const char* kStandinDir = "/run/zel-sandbox/bin";
  static constexpr const char* kCallsLog = "/run/zel-sandbox/calls.log";

  // Builds and checks the sandbox. Throws SandboxError with a clear reason:
  // "sandbox needs root: ...", "sandbox needs overlayfs: ...", or a refused
  // stand-in check. Nothing is left behind on failure.
  explicit Sandbox(SandboxOptions options = {});
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;
  // Same as Shutdown(); never throws.
  ~Sandbox();

  // Starts argv inside the sandbox (argv[0] looked up in the sandbox PATH).
  // An exec failure shows as exit code 127 with the reason on stderr.
  Process& Spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});
  // Spawn, then wait. On time-out the process is killed and SandboxError is
  // thrown. `stdout_text`, if given, receives the process's output.
  ExitStatus Run(const std::vector<std::string>& argv, Millis timeout = Millis(30000),
                 std::string* stdout_text = nullptr, const SpawnOptions& options = {});

  // Files at sandbox paths. Symbolic links resolve inside the sandbox. Writes
  // create missing parent directories (0755) and are refused (SandboxError)
  // unless the target directory is on one of the sandbox's own mounts.
  void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
  std::optional<std::string> ReadFile(const std::string& path) const;
  bool Exists(const std::string& path) const;
  // Waits until `path` exists inside and returns its contents; nullopt on
  // time-out. A file that its writer has just truncated may read empty.
  std::optional<std::string> WaitForFile(const std::string& path, Millis timeout) const;

  // Writes an executable stand-in into the stand-in directory.
  void AddStandin(const std::string& name, const std::string& script);
  // Lines of calls.log, optionally only those of one stand-in ("reboot").
  std::vector<std::string> StandinCalls(const std::string& name = "") const;
  std::optional<std::string> WaitForStandinCall(const std::string& pattern, Millis timeout) const;

  // Collected log lines (requires collect_logs).
  std::vector<std::string> LogLines() const;
  std::optional<std::string> WaitForLog(const std::string& pattern, Millis timeout,
                                        size_t from_line = 0) const;

  // A socket created in the sandbox's network namespace (AF_INET or
  // AF_INET6 only: a Unix socket would bind its path in this process's
  // mount namespace). The caller owns the descriptor. Throws on failure.
  int SocketInside(int domain, int type, int protocol = 0) const;

  // Kills every process of the sandbox, drops the namespaces and removes the
  // scratch directory (unless kept). Idempotent.
  void Shutdown();

  // Processes with status and output tails, and the log tail; for failure
  // messages.
  std::string DebugReport(size_t tail_lines = 20) const;

  const std::string& scratch_dir() const { return scratch_; }
  // Host path of /run/zel-sandbox.
  std::string shared_dir() const { return scratch_ + "/sandbox"; }
  std::string log_path() const;
  pid_t holder_pid() const { return holder_pid_; }
  // "mnt:[...]" of the sandbox, as /proc/<pid>/ns/mnt reads.
  const std::string& mount_namespace() const { return mnt_ns_; }

 private:
  void Start();
  void StartHolder();
  void InstallStandins();
  void CheckStandins();
  std::vector<std::string> Environment(const SpawnOptions& options) const;
  Process& SpawnInternal(const std::vector<std::string>& argv, const SpawnOptions& options);
  void KillNamespaceProcesses() const;
  int OpenDirInside(const std::string& path, bool create, bool check_owned) const;
  void CheckOwnedMount(int fd, const std::string& path) const;

  SandboxOptions options_;
  std::string scratch_;
  pid_t holder_pid_ = -1;
  int holder_control_ = -1;  // write end of the holder's stdin; closing it ends the holder
  int root_fd_ = -1;         // O_PATH descriptor of the holder's root directory
  std::string mnt_ns_;
  std::string net_ns_;
  std::vector<uint64_t> owned_mounts_;
  std::vector<std::unique_ptr<Process>> processes_;
  Process* log_collector_ = nullptr;
  bool shut_down_ = false;
};

}  // namespace e2e
}  // namespace zel

#endif  // ZEL_TESTS_E2E_SANDBOX_H_
