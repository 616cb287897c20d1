// End-to-end sandbox: runs real programs (the agent, stand-ins, shell
// commands) as root in private mount and network namespaces, where they see
// the agent's fixed paths (/etc/orvane/zel-dorn, /opt/orvane, /tmp/create.py)
// and 127.0.0.1:9002 while this machine's files, accounts, services and
// network stay untouched.
//
// hold.sh builds the view (see there): overlays over /etc /var /home /root
// /opt, empty /run /tmp /dev, the rest of the machine read-only. Processes
// enter with nsenter. Spawned programs get a clean environment whose PATH
// starts with the stand-in directory /run/zel-sandbox/bin; the sandbox
// refuses to start unless `reboot` resolves there. A stand-in records itself
// by appending "<name> <args...>" to $ZEL_SANDBOX_DIR/calls.log.
//
// Logs: the sandbox receives on UDP 127.0.0.1:514 inside, where the agent
// sends its syslog records by default; LogLines() collects what has come.
//
// Teardown (destructor or Shutdown) closes the holder's control pipe: the
// holder kills every process left in the namespace, and the namespace goes
// with all its files. If this process dies first, the pipe closes all the
// same.
//
//   zel::sandbox::Sandbox sb({fakes + "/ubuntu/uname"});
//   sb.WriteFile("/etc/orvane/zel-dorn/dornConfig.ini", "[Monitoring]\n...");
//   zel::sandbox::Process& agent = sb.Spawn({agent_path});
//   agent.Signal(SIGTERM);
//   std::optional<zel::sandbox::ExitStatus> st = agent.WaitExit(10s);
//
// Needs root, overlayfs, util-linux (unshare, nsenter) and iproute2.
// Threads: a Sandbox and its Processes belong to one thread.
#ifndef ZEL_TOOLS_SANDBOX_SANDBOX_H_
#define ZEL_TOOLS_SANDBOX_SANDBOX_H_

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace zel {
namespace sandbox {

// A sandbox that cannot be made, or a refused request.
class SandboxError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

using Millis = std::chrono::milliseconds;

struct ExitStatus {
  bool exited = false;  // by exit(); `code` holds its code
  int code = -1;
  int signal = 0;  // ended by this signal
  bool Success() const { return exited && code == 0; }
  std::string ToString() const;  // "exit 0", "signal 9"
};

struct SpawnOptions {
  // Label in reports; default: the base name of argv[0].
  std::string name;
  // Added to the environment (HOME=/root, USER, LANG=C.UTF-8, PATH,
  // ZEL_SANDBOX_DIR, and this process's sanitizer options and TERM).
  // PATH cannot be set: stand-ins come first.
  std::map<std::string, std::string> env;
  // Working directory inside.
  std::string cwd = "/";
  // Share this process's stdin, stdout and stderr instead of capturing.
  bool inherit_stdio = false;
};

// A process started in a sandbox; owned by the Sandbox.
class Process {
 public:
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  pid_t pid() const { return pid_; }
  const std::string& name() const { return name_; }
  // What it wrote so far ("" with inherit_stdio).
  std::string Stdout() const;
  std::string Stderr() const;
  // False once it has been reaped (its pid may be reused) or if kill fails.
  bool Signal(int sig);
  // Waits for its end and reaps it; nullopt when `timeout` passes first.
  std::optional<ExitStatus> WaitExit(Millis timeout);
  bool Running() { return !WaitExit(Millis(0)).has_value(); }

 private:
  friend class Sandbox;
  Process(pid_t pid, std::string name, int out, int err);

  pid_t pid_;
  std::string name_;
  int pidfd_;
  int out_ = -1;  // memory files that hold the output
  int err_ = -1;
  std::optional<ExitStatus> status_;
};

class Sandbox {
 public:
  static constexpr const char* kDir = "/run/zel-sandbox";
  static constexpr const char* kStandinDir = "/run/zel-sandbox/bin";

  // Builds the sandbox and installs `standins` (host files, named by their
  // base name) and the recording `reboot`. Throws SandboxError with the
  // reason; nothing is left behind then.
  explicit Sandbox(const std::vector<std::string>& standins = {});
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // Starts argv inside (argv[0] looked up in the sandbox's PATH). A program
  // that cannot be run ends with exit code 127.
  Process& Spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});
  // Spawn, and wait. On time-out the process is killed and SandboxError
  // thrown. `out`, when given, receives its standard output.
  ExitStatus Run(const std::vector<std::string>& argv, Millis timeout = Millis(30000),
                 std::string* out = nullptr, const SpawnOptions& options = {});

  // Files at sandbox paths; symbolic links resolve inside. Writes make
  // missing parent directories and fail (SandboxError) outside the
  // sandbox's writable mounts.
  void WriteFile(const std::string& path, const std::string& content, mode_t mode = 0644);
  std::optional<std::string> ReadFile(const std::string& path) const;
  bool Exists(const std::string& path) const;

  void AddStandin(const std::string& name, const std::string& script);
  // Lines of calls.log, all or those of one stand-in ("reboot").
  std::vector<std::string> StandinCalls(const std::string& name = "") const;

  // Log records received so far, one line each (a newline inside a record
  // reads "\n").
  const std::vector<std::string>& LogLines();

  // A socket in the sandbox's network namespace (AF_INET or AF_INET6); the
  // caller owns it.
  int SocketInside(int domain, int type, int protocol = 0) const;

  // Kills every process of the sandbox and drops it. Idempotent.
  void Shutdown();

  // Processes with their status and output tails, the log tail and the
  // stand-in calls; for failure messages.
  std::string DebugReport(size_t tail_lines = 20);

  pid_t holder_pid() const { return holder_ ? holder_->pid() : -1; }

 private:
  // unshare runs hold.sh, which builds the namespaces; root_ is then its root.
  void StartHolder();
  // UDP 127.0.0.1:514 inside, where the agent sends its records.
  void OpenLogSocket();
  int OpenInside(const std::string& path, int flags, mode_t mode = 0) const;

  std::unique_ptr<Process> holder_;
  int control_ = -1;  // the holder's standard input
  int root_ = -1;     // the holder's root directory
  int log_socket_ = -1;
  std::vector<std::string> log_lines_;
  std::vector<std::unique_ptr<Process>> processes_;
};

}  // namespace sandbox
}  // namespace zel

#endif  // ZEL_TOOLS_SANDBOX_SANDBOX_H_
