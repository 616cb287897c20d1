#include "sandbox/sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace zel {
namespace sandbox {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kUnshare[] = "/usr/bin/unshare";
constexpr char kNsenter[] = "/usr/bin/nsenter";
constexpr char kInsidePath[] =
    "/run/zel-sandbox/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
constexpr uint16_t kSyslogPort = 514;

// reboot must never reach the machine: this one only records the call.
constexpr char kRebootStandin[] =
    "#!/bin/sh\nprintf 'reboot%s\\n' \"${*:+ $*}\" >> \"${ZEL_SANDBOX_DIR:-/run/zel-sandbox}/calls.log\"\n";

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadAll(int fd) {
  std::string text;
  char buf[8192];
  for (off_t at = 0;;) {
    const ssize_t n = pread(fd, buf, sizeof buf, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return text;
    text.append(buf, static_cast<size_t>(n));
    at += n;
  }
}

// Spawn attributes that give the child default signal dispositions and an
// empty mask, whatever this process ignores or blocks.
class SpawnAttributes {
 public:
  SpawnAttributes() {
    posix_spawnattr_init(&attr_);
    posix_spawn_file_actions_init(&actions_);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setflags(&attr_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setsigmask(&attr_, &none);
    posix_spawnattr_setsigdefault(&attr_, &all);
  }
  ~SpawnAttributes() {
    posix_spawn_file_actions_destroy(&actions_);
    posix_spawnattr_destroy(&attr_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  void Dup(int fd, int to) { posix_spawn_file_actions_adddup2(&actions_, fd, to); }

  pid_t Spawn(const std::vector<std::string>& args, const std::vector<std::string>& env) {
    std::vector<char*> argv, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0].c_str(), &actions_, &attr_, argv.data(), envp.data());
    if (rc != 0) throw SandboxError("cannot start " + args[0] + ": " + std::strerror(rc));
    return pid;
  }

 private:
  posix_spawnattr_t attr_;
  posix_spawn_file_actions_t actions_;
};

}  // namespace

std::string ExitStatus::ToString() const {
  if (exited) return "exit " + std::to_string(code);
  return signal != 0 ? "signal " + std::to_string(signal) : "unknown";
}

// ---------------------------------------------------------------------------
// Process

Process::Process(pid_t pid, std::string name, int out, int err)
    : pid_(pid), name_(std::move(name)), pidfd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))),
      out_(out), err_(err) {}

Process::~Process() {
  for (int fd : {pidfd_, out_, err_}) {
    if (fd >= 0) close(fd);
  }
}

std::string Process::Stdout() const { return out_ < 0 ? "" : ReadAll(out_); }
std::string Process::Stderr() const { return err_ < 0 ? "" : ReadAll(err_); }

bool Process::Signal(int sig) {
  // Until it is reaped its pid cannot be reused, so this reaches the process.
  return !status_ && kill(pid_, sig) == 0;
}

std::optional<ExitStatus> Process::WaitExit(Millis timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!status_) {
    int raw = 0;
    const pid_t r = waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
      ExitStatus st;
      st.exited = WIFEXITED(raw);
      st.code = st.exited ? WEXITSTATUS(raw) : -1;
      st.signal = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
      status_ = st;
    } else if (r < 0 && errno != EINTR) {
      status_ = ExitStatus{};  // reaped elsewhere; how it ended is lost
    } else {
      const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
      if (left <= 0) return std::nullopt;
      // The pidfd turns readable when the process ends.
      pollfd p = {pidfd_, POLLIN, 0};
      poll(&p, pidfd_ >= 0 ? 1 : 0, static_cast<int>(std::min<long long>(left, 100)));
    }
  }
  return status_;
}

// ---------------------------------------------------------------------------
// Sandbox

Sandbox::Sandbox(const std::vector<std::string>& standins) {
  if (geteuid() != 0) {
    throw SandboxError("sandbox needs root: running as uid " + std::to_string(geteuid()) +
                       "; it unshares namespaces and mounts");
  }
  try {
    StartHolder();
    OpenLogSocket();
    AddStandin("reboot", kRebootStandin);
    for (const std::string& path : standins) {
      std::ifstream in(path, std::ios::binary);
      std::stringstream text;
      text << in.rdbuf();
      if (!in) throw SandboxError("cannot read stand-in " + path);
      AddStandin(path.substr(path.rfind('/') + 1), text.str());
    }
    std::string reboot;
    const ExitStatus st = Run({"sh", "-c", "command -v reboot"}, Millis(10000), &reboot);
    if (!st.Success() || reboot != std::string(kStandinDir) + "/reboot\n") {
      throw SandboxError("reboot inside resolves to '" + reboot + "', not the stand-in; refusing to start");
    }
  } catch (...) {
    Shutdown();
    throw;
  }
}

void Sandbox::StartHolder() {
  int control[2], report[2];
  if (pipe2(control, O_CLOEXEC) != 0) throw SandboxError(Errno("pipe"));
  control_ = control[1];
  if (pipe2(report, O_CLOEXEC) != 0) {
    close(control[0]);
    throw SandboxError(Errno("pipe"));
  }
  // Trees under /tmp that programs inside run from stay visible there.
  char self[4096] = {};
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  const std::string exe = std::string(self, n > 0 ? static_cast<size_t>(n) : 0);
  SpawnAttributes sa;
  sa.Dup(control[0], STDIN_FILENO);
  sa.Dup(report[1], STDOUT_FILENO);
  try {
    const pid_t pid = sa.Spawn({kUnshare, "--mount", "--net", "--", "/bin/sh", ZEL_SANDBOX_HOLD_SCRIPT,
                                exe.substr(0, exe.rfind('/')), ZEL_SOURCE_DIR, ZEL_BINARY_DIR},
                               {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"});
    holder_.reset(new Process(pid, "holder", -1, -1));
  } catch (...) {
    for (int fd : {control[0], report[0], report[1]}) close(fd);
    throw;
  }
  close(control[0]);
  close(report[1]);

  // The holder says "ready" and closes its end; an error text otherwise.
  std::string said;
  const auto deadline = Clock::now() + std::chrono::seconds(30);
  for (ssize_t got = -1; got != 0 && Clock::now() < deadline;) {
    pollfd p = {report[0], POLLIN, 0};
    char buf[256];
    got = poll(&p, 1, 100) > 0 ? read(report[0], buf, sizeof buf) : -1;
    if (got > 0) said.append(buf, static_cast<size_t>(got));
  }
  close(report[0]);
  if (said != "ready\n") {
    throw SandboxError("sandbox holder did not start (needs overlayfs, unshare and ip): " + said);
  }
  root_ = open(("/proc/" + std::to_string(holder_->pid()) + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (root_ < 0) throw SandboxError(Errno("open the sandbox's root"));
}

void Sandbox::OpenLogSocket() {
  log_socket_ = SocketInside(AF_INET, SOCK_DGRAM);
  const int big = 8 << 20;  // the agent logs in bursts; keep them until read
  setsockopt(log_socket_, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(kSyslogPort);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(log_socket_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    throw SandboxError(Errno("bind the log socket"));
  }
}

Sandbox::~Sandbox() { Shutdown(); }

Process& Sandbox::Spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
  if (root_ < 0) throw SandboxError("the sandbox is not running");
  if (argv.empty() || argv[0].empty()) throw SandboxError("Spawn needs a program");
  std::map<std::string, std::string> env = {
      {"PATH", kInsidePath}, {"HOME", "/root"},    {"USER", "root"},       {"LOGNAME", "root"},
      {"SHELL", "/bin/sh"},  {"LANG", "C.UTF-8"}, {"ZEL_SANDBOX_DIR", kDir},
  };
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string kv = *e;
    const std::string key = kv.substr(0, kv.find('='));
    for (const char* passed : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS",
                               "ASAN_SYMBOLIZER_PATH", "LLVM_SYMBOLIZER_PATH", "TERM"}) {
      if (key == passed) env[key] = kv.substr(key.size() + 1);
    }
  }
  for (const auto& [key, value] : options.env) {
    if (key == "PATH") throw SandboxError("the PATH inside is fixed (stand-ins first); add stand-ins instead");
    env[key] = value;
  }
  std::vector<std::string> envp;
  for (const auto& [key, value] : env) envp.push_back(key + "=" + value);

  // nsenter joins the holder's namespaces (which also moves to the sandbox's
  // root), env changes to the working directory inside and runs argv.
  std::vector<std::string> args = {kNsenter, "--target", std::to_string(holder_->pid()), "--mount",
                                   "--net",  "--",       "/usr/bin/env",                  "-C",
                                   options.cwd, "--"};
  args.insert(args.end(), argv.begin(), argv.end());
  const std::string name = options.name.empty() ? argv[0].substr(argv[0].rfind('/') + 1) : options.name;

  SpawnAttributes sa;
  int out = -1, err = -1, in = -1;
  if (!options.inherit_stdio) {
    out = memfd_create((name + ".out").c_str(), MFD_CLOEXEC);
    err = memfd_create((name + ".err").c_str(), MFD_CLOEXEC);
    in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (out < 0 || err < 0 || in < 0) throw SandboxError(Errno("output files for " + name));
    sa.Dup(in, STDIN_FILENO);
    sa.Dup(out, STDOUT_FILENO);
    sa.Dup(err, STDERR_FILENO);
  }
  pid_t pid = -1;
  try {
    pid = sa.Spawn(args, envp);
  } catch (...) {
    for (int fd : {in, out, err}) {
      if (fd >= 0) close(fd);
    }
    throw;
  }
  if (in >= 0) close(in);
  processes_.emplace_back(new Process(pid, name, out, err));
  return *processes_.back();
}

ExitStatus Sandbox::Run(const std::vector<std::string>& argv, Millis timeout, std::string* out,
                        const SpawnOptions& options) {
  Process& p = Spawn(argv, options);
  const auto st = p.WaitExit(timeout);
  if (!st) {
    p.Signal(SIGKILL);
    p.WaitExit(Millis(10000));
    throw SandboxError("'" + argv[0] + "' did not end within " + std::to_string(timeout.count()) +
                       " ms; stderr: " + p.Stderr());
  }
  if (out != nullptr) *out = p.Stdout();
  return *st;
}

int Sandbox::OpenInside(const std::string& path, int flags, mode_t mode) const {
  if (root_ < 0) throw SandboxError("the sandbox is not running");
  if (path.empty() || path[0] != '/') throw SandboxError("sandbox paths are absolute: '" + path + "'");
  // Resolved with the sandbox's root as "/": neither ".." nor a link can
  // lead out of it.
  open_how how{};
  how.flags = static_cast<uint64_t>(flags) | O_CLOEXEC;
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  const std::string relative = path.size() > 1 ? path.substr(1) : ".";
  return static_cast<int>(syscall(SYS_openat2, root_, relative.c_str(), &how, sizeof how));
}

void Sandbox::WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  // Parents first; outside the writable mounts mkdir fails read-only.
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    const int fd = OpenInside(dir, O_PATH | O_DIRECTORY);
    if (fd >= 0) {
      close(fd);
      continue;
    }
    const size_t cut = dir.rfind('/');
    const int parent = OpenInside(cut == 0 ? "/" : dir.substr(0, cut), O_PATH | O_DIRECTORY);
    const int made = parent < 0 ? -1 : mkdirat(parent, dir.substr(cut + 1).c_str(), 0755);
    const int saved = errno;
    if (parent >= 0) close(parent);
    errno = saved;
    if (made != 0 && errno != EEXIST) throw SandboxError(Errno("mkdir " + dir + " in the sandbox"));
  }
  const int fd = OpenInside(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fd < 0) throw SandboxError(Errno("write " + path + " in the sandbox"));
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    done += static_cast<size_t>(n);
  }
  const bool ok = done == content.size() && fchmod(fd, mode) == 0;
  close(fd);
  if (!ok) throw SandboxError(Errno("write " + path + " in the sandbox"));
}

std::optional<std::string> Sandbox::ReadFile(const std::string& path) const {
  const int fd = OpenInside(path, O_RDONLY);
  if (fd < 0) return std::nullopt;
  std::string text = ReadAll(fd);
  close(fd);
  return text;
}

bool Sandbox::Exists(const std::string& path) const {
  const int fd = OpenInside(path, O_PATH);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

void Sandbox::AddStandin(const std::string& name, const std::string& script) {
  if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
    throw SandboxError("bad stand-in name '" + name + "'");
  }
  WriteFile(std::string(kStandinDir) + "/" + name, script, 0755);
}

std::vector<std::string> Sandbox::StandinCalls(const std::string& name) const {
  std::vector<std::string> calls;
  for (auto& line : Lines(ReadFile(std::string(kDir) + "/calls.log").value_or(""))) {
    if (name.empty() || line == name || line.rfind(name + " ", 0) == 0) calls.push_back(line);
  }
  return calls;
}

const std::vector<std::string>& Sandbox::LogLines() {
  char buf[65536];
  ssize_t n;
  while (log_socket_ >= 0 && (n = recv(log_socket_, buf, sizeof buf, MSG_DONTWAIT)) >= 0) {
    size_t len = static_cast<size_t>(n);
    while (len > 0 && (buf[len - 1] == '\n' || buf[len - 1] == '\0')) --len;
    std::string line;
    for (size_t i = 0; i < len; ++i) line += buf[i] == '\n' ? std::string("\\n") : std::string(1, buf[i]);
    log_lines_.push_back(line);
  }
  return log_lines_;
}

int Sandbox::SocketInside(int domain, int type, int protocol) const {
  if (domain != AF_INET && domain != AF_INET6) throw SandboxError("SocketInside makes AF_INET or AF_INET6 sockets");
  if (!holder_) throw SandboxError("the sandbox is not running");
  const std::string ns = "/proc/" + std::to_string(holder_->pid()) + "/ns/net";
  int fd = -1, error = 0;
  // A thread of its own changes network namespace and ends; a socket keeps
  // the namespace it was made in.
  std::thread maker([&] {
    const int nsfd = open(ns.c_str(), O_RDONLY | O_CLOEXEC);
    if (nsfd >= 0 && setns(nsfd, CLONE_NEWNET) == 0) fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    error = errno;
    if (nsfd >= 0) close(nsfd);
  });
  maker.join();
  if (fd < 0) {
    errno = error;
    throw SandboxError(Errno("socket in the sandbox"));
  }
  return fd;
}

void Sandbox::Shutdown() {
  for (auto& p : processes_) p->Signal(SIGKILL);
  if (control_ >= 0) close(control_);  // the holder kills what is left and exits
  control_ = -1;
  if (holder_ && !holder_->WaitExit(Millis(20000))) {
    std::fprintf(stderr, "zel-sandbox: holder %d did not end; killing it\n", holder_->pid());
    holder_->Signal(SIGKILL);
    holder_->WaitExit(Millis(10000));
  }
  for (auto& p : processes_) {
    if (!p->WaitExit(Millis(10000))) std::fprintf(stderr, "zel-sandbox: %s did not end\n", p->name().c_str());
  }
  for (int* fd : {&root_, &log_socket_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

std::string Sandbox::DebugReport(size_t tail_lines) {
  auto tail = [tail_lines](const std::vector<std::string>& lines) {
    std::string out;
    for (size_t i = lines.size() > tail_lines ? lines.size() - tail_lines : 0; i < lines.size(); ++i) {
      out += "    " + lines[i] + "\n";
    }
    return out;
  };
  std::ostringstream out;
  out << "sandbox of holder " << holder_pid() << "\n";
  for (const auto& p : processes_) {
    const auto status = p->WaitExit(Millis(0));
    out << "  [" << p->name() << " pid " << p->pid() << "] " << (status ? status->ToString() : "running") << "\n"
        << "   stdout:\n" << tail(Lines(p->Stdout())) << "   stderr:\n" << tail(Lines(p->Stderr()));
  }
  if (root_ >= 0) {
    out << "  log:\n" << tail(LogLines()) << "  stand-in calls:\n" << tail(StandinCalls());
  }
  return out.str();
}

}  // namespace sandbox
}  // namespace zel
