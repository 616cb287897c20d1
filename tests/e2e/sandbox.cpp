#include "e2e/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

extern char** environ;

namespace zel {
namespace e2e {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kInsidePath =
    "/run/zel-sandbox/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string HelperPath() {
  const char* override_path = std::getenv("ZEL_SANDBOX_HELPER");
  return override_path != nullptr && *override_path != '\0' ? override_path : ZEL_SANDBOX_HELPER;
}

std::string ReadLink(const std::string& path) {
  char buf[256];
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
}

std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Trim(const std::string& s) {
  const char* ws = " \t\r\n";
  size_t b = s.find_first_not_of(ws);
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

// A zombie counts as gone: it runs nothing and holds no namespace.
bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  const std::string stat = ReadHostFile("/proc/" + std::to_string(pid) + "/stat");
  const size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

int OpenAt2(int dirfd, const std::string& path, uint64_t flags, mode_t mode, uint64_t resolve) {
  struct open_how how;
  std::memset(&how, 0, sizeof(how));
  how.flags = flags;
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = resolve;
  return static_cast<int>(syscall(SYS_openat2, dirfd, path.c_str(), &how, sizeof(how)));
}

constexpr uint64_t kInRoot = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;

// Sandbox paths are absolute, without "." or ".." parts; returns the parts.
std::vector<std::string> SplitSandboxPath(const std::string& path) {
  if (path.empty() || path[0] != '/') throw SandboxError("sandbox path must be absolute: '" + path + "'");
  std::vector<std::string> parts;
  std::stringstream in(path);
  std::string part;
  while (std::getline(in, part, '/')) {
    if (part.empty()) continue;
    if (part == "." || part == "..") throw SandboxError("sandbox path must not contain . or ..: " + path);
    parts.push_back(part);
  }
  return parts;
}

std::string JoinParts(const std::vector<std::string>& parts, size_t count) {
  std::string out;
  for (size_t i = 0; i < count; ++i) out += (i == 0 ? "" : "/") + parts[i];
  return out.empty() ? "." : out;
}

uint64_t MountIdOf(int fd) {
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
  std::string key;
  uint64_t id = 0;
  while (info >> key) {
    if (key == "mnt_id:" && info >> id) return id;
  }
  throw SandboxError("no mnt_id for descriptor " + std::to_string(fd));
}

std::string SafeName(const std::string& name) {
  std::string out;
  for (char c : name) out += (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.') ? c : '_';
  return out.empty() ? "proc" : out;
}

// Environment variables of this process that spawned programs inherit.
bool PassedThrough(const std::string& name) {
  static const char* const kNames[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS",        "TSAN_OPTIONS",
                                       "LSAN_OPTIONS", "ASAN_SYMBOLIZER_PATH", "LLVM_SYMBOLIZER_PATH",
                                       "TERM"};
  return std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

struct SpawnAttributes {
  posix_spawnattr_t attr;
  posix_spawn_file_actions_t actions;
  SpawnAttributes(bool new_group) {
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_init(&actions);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
    if (new_group) flags |= POSIX_SPAWN_SETPGROUP;
    posix_spawnattr_setflags(&attr, flags);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setpgroup(&attr, 0);
  }
  ~SpawnAttributes() {
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
};

pid_t SpawnHelper(const std::vector<std::string>& args, const std::vector<std::string>& env,
                  SpawnAttributes* sa) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, args[0].c_str(), &sa->actions, &sa->attr, argv.data(), envp.data());
  if (rc != 0) throw SandboxError("cannot start " + args[0] + ": " + std::strerror(rc));
  return pid;
}

// Removes stale scratch directories of earlier runs whose test process and
// holder have both gone (for example after a crash or a killed test).
void SweepStaleScratch(const std::string& parent) {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(parent, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("zel-sandbox.", 0) != 0 || !entry.is_directory(ec) || entry.is_symlink(ec)) continue;
    if (fs::exists(entry.path() / "kept", ec)) continue;  // kept on purpose for debugging
    const std::string owner = Trim(ReadHostFile(entry.path().string() + "/owner.pid"));
    if (owner.empty()) continue;  // being created right now, or not ours
    const std::string holder = Trim(ReadHostFile(entry.path().string() + "/holder.pid"));
    if (ProcessAlive(std::atoi(owner.c_str()))) continue;
    if (!holder.empty() && ProcessAlive(std::atoi(holder.c_str()))) continue;
    fs::remove_all(entry.path(), ec);
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// Free helpers

std::string ExitStatus::ToString() const {
  if (exited) return "exit " + std::to_string(code);
  if (signal != 0) return "signal " + std::to_string(signal);
  return "unknown";
}

ExitStatus ExitStatus::FromWaitStatus(int status) {
  ExitStatus st;
  if (WIFEXITED(status)) {
    st.exited = true;
    st.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    st.signal = WTERMSIG(status);
  }
  return st;
}

std::vector<std::string> ReadLines(const std::string& host_path) {
  std::vector<std::string> lines;
  std::ifstream in(host_path, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

bool WaitUntil(const std::function<bool()>& done, Millis timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (Clock::now() >= deadline) return done();
    std::this_thread::sleep_for(Millis(5));
  }
}

std::optional<std::string> WaitForLine(const std::string& host_path, const std::string& pattern,
                                       Millis timeout, size_t from_line) {
  const std::regex re(pattern);
  std::optional<std::string> found;
  WaitUntil(
      [&] {
        const auto lines = ReadLines(host_path);
        for (size_t i = from_line; i < lines.size(); ++i) {
          if (std::regex_search(lines[i], re)) {
            found = lines[i];
            return true;
          }
        }
        return false;
      },
      timeout);
  return found;
}

// ---------------------------------------------------------------------------
// Process

Process::Process(pid_t pid, std::string name, std::string out, std::string err, bool own_group)
    : pid_(pid), own_group_(own_group), name_(std::move(name)), stdout_path_(std::move(out)),
      stderr_path_(std::move(err)) {
  // A pidfd lets WaitExit sleep in poll() until the process ends.
  pidfd_ = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

Process::~Process() {
  if (pidfd_ >= 0) close(pidfd_);
}

std::string Process::Stdout() const { return stdout_path_.empty() ? "" : ReadHostFile(stdout_path_); }
std::string Process::Stderr() const { return stderr_path_.empty() ? "" : ReadHostFile(stderr_path_); }

std::optional<std::string> Process::WaitForStdout(const std::string& pattern, Millis timeout,
                                                  size_t from_line) const {
  return WaitForLine(stdout_path_, pattern, timeout, from_line);
}

std::optional<std::string> Process::WaitForStderr(const std::string& pattern, Millis timeout,
                                                  size_t from_line) const {
  return WaitForLine(stderr_path_, pattern, timeout, from_line);
}

bool Process::Signal(int sig) {
  // Until it is reaped the pid cannot be reused, so kill() reaches this process.
  return !status_ && kill(pid_, sig) == 0;
}

std::optional<ExitStatus> Process::WaitExit(Millis timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!status_) {
    int raw = 0;
    pid_t r = waitpid(pid_, &raw, WNOHANG);
    if (r == pid_) {
      status_ = ExitStatus::FromWaitStatus(raw);
      break;
    }
    if (r < 0 && errno != EINTR) {
      status_ = ExitStatus{};  // reaped elsewhere; the status is lost
      break;
    }
    const auto now = Clock::now();
    if (now >= deadline) return std::nullopt;
    const auto left = std::chrono::duration_cast<Millis>(deadline - now).count();
    if (pidfd_ >= 0) {
      struct pollfd p = {pidfd_, POLLIN, 0};
      poll(&p, 1, static_cast<int>(std::min<long long>(left + 1, 100)));
    } else {
      std::this_thread::sleep_for(Millis(5));
    }
  }
  if (pidfd_ >= 0) {
    close(pidfd_);
    pidfd_ = -1;
  }
  return status_;
}

bool Process::Running() { return !WaitExit(Millis(0)).has_value(); }

void Process::Kill() {
  if (status_) return;
  if (own_group_) kill(-pid_, SIGKILL);
  kill(pid_, SIGKILL);
  if (!WaitExit(Millis(10000))) {
    std::fprintf(stderr, "zel-sandbox: process %d (%s) did not end after SIGKILL\n", pid_, name_.c_str());
  }
}

// ---------------------------------------------------------------------------
// Sandbox

Sandbox::Sandbox(SandboxOptions options) : options_(std::move(options)) {
  const char* keep = std::getenv("ZEL_SANDBOX_KEEP");
  if (keep != nullptr && std::string(keep) == "1") options_.keep_scratch = true;
  try {
    Start();
  } catch (...) {
    Shutdown();
    throw;
  }
}

Sandbox::~Sandbox() {
  try {
    Shutdown();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zel-sandbox: teardown: %s\n", e.what());
  }
}

void Sandbox::Start() {
  if (geteuid() != 0) {
    throw SandboxError("sandbox needs root: running as uid " + std::to_string(geteuid()) +
                       "; the end-to-end sandbox mounts and unshares namespaces, run it as root");
  }
  const std::string& parent = options_.scratch_parent;
  if (parent.empty() || parent[0] != '/' ||
      parent.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-") !=
          std::string::npos) {
    throw SandboxError("scratch parent must be an absolute path of plain characters: '" + parent + "'");
  }
  std::error_code ec;
  const std::string real_parent = fs::canonical(parent, ec).string();
  if (ec) throw SandboxError("scratch parent " + parent + ": " + ec.message());
  for (const char* dir : {"/etc", "/var", "/home", "/root", "/opt", "/run", "/dev"}) {
    const std::string d = dir;
    if (real_parent == d || real_parent.rfind(d + "/", 0) == 0) {
      throw SandboxError("scratch parent " + real_parent + " lies under " + d + ", which the sandbox hides");
    }
  }

  SweepStaleScratch(real_parent);
  std::string tmpl = real_parent + "/zel-sandbox.XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) throw SandboxError(Errno("mkdtemp " + tmpl));
  scratch_ = tmpl;
  std::ofstream(scratch_ + "/owner.pid") << getpid() << "\n";
  fs::create_directories(scratch_ + "/sandbox/bin");
  fs::create_directories(scratch_ + "/logs");
  std::ofstream(scratch_ + "/sandbox/calls.log").flush();
  fs::permissions(scratch_ + "/sandbox/calls.log", fs::perms(0666));

  InstallStandins();
  StartHolder();

  root_fd_ = open(("/proc/" + std::to_string(holder_pid_) + "/root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (root_fd_ < 0) throw SandboxError(Errno("open the sandbox root"));
  // Older kernels lack openat2; fail here rather than on the first file.
  int probe = OpenAt2(root_fd_, ".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0, kInRoot);
  if (probe < 0) throw SandboxError(Errno("sandbox needs openat2 (Linux 5.6 or newer)"));
  close(probe);

  if (options_.collect_logs) {
    SpawnOptions so;
    so.name = "syslog";
    log_collector_ = &SpawnInternal({HelperPath(), "syslog", std::to_string(options_.syslog_port)}, so);
    if (!log_collector_->WaitForStderr("^listening", Millis(10000))) {
      throw SandboxError("log collector did not start: " + log_collector_->Stderr());
    }
  }
  CheckStandins();
}

void Sandbox::InstallStandins() {
  const std::string bin = scratch_ + "/sandbox/bin/";
  std::vector<std::string> sources;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(ZEL_SANDBOX_STANDINS, ec)) {
    if (entry.is_regular_file()) sources.push_back(entry.path().string());
  }
  if (ec) throw SandboxError("stand-in directory " + std::string(ZEL_SANDBOX_STANDINS) + ": " + ec.message());
  sources.insert(sources.end(), options_.extra_standins.begin(), options_.extra_standins.end());
  for (const auto& src : sources) {
    const std::string dest = bin + fs::path(src).filename().string();
    fs::copy_file(src, dest, fs::copy_options::overwrite_existing, ec);
    if (ec) throw SandboxError("copying stand-in " + src + ": " + ec.message());
    fs::permissions(dest, fs::perms(0755));
  }
}

void Sandbox::StartHolder() {
  int control[2];
  int report[2];
  if (pipe2(control, O_CLOEXEC) != 0) throw SandboxError(Errno("pipe"));
  if (pipe2(report, O_CLOEXEC) != 0) {
    close(control[0]);
    close(control[1]);
    throw SandboxError(Errno("pipe"));
  }
  const std::string err_path = scratch_ + "/holder.err";
  int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  holder_control_ = control[1];

  std::vector<std::string> env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  for (char** e = environ; *e != nullptr; ++e) {
    std::string kv = *e;
    if (PassedThrough(kv.substr(0, kv.find('=')))) env.push_back(kv);
  }
  // The holder gets its own process group, so a terminal's ^C reaches the
  // programs in the sandbox but not the holder, which must clean up.
  SpawnAttributes sa(true);
  posix_spawn_file_actions_adddup2(&sa.actions, control[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&sa.actions, report[1], STDOUT_FILENO);
  if (err >= 0) posix_spawn_file_actions_adddup2(&sa.actions, err, STDERR_FILENO);
  try {
    holder_pid_ = SpawnHelper({HelperPath(), "hold", scratch_}, env, &sa);
  } catch (...) {
    close(control[0]);
    close(report[0]);
    close(report[1]);
    if (err >= 0) close(err);
    throw;
  }
  close(control[0]);
  close(report[1]);
  if (err >= 0) close(err);
  std::ofstream(scratch_ + "/holder.pid") << holder_pid_ << "\n";

  std::string text;
  const auto deadline = Clock::now() + options_.start_timeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<Millis>(deadline - Clock::now()).count();
    if (left <= 0) break;
    struct pollfd p = {report[0], POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) continue;
    char buf[4096];
    ssize_t n = read(report[0], buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(report[0]);

  bool ready = false;
  std::string error;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "mount") {
      uint64_t id = 0;
      words >> id;
      owned_mounts_.push_back(id);
    } else if (key == "mntns") {
      words >> mnt_ns_;
    } else if (key == "netns") {
      words >> net_ns_;
    } else if (key == "ready") {
      ready = true;
    } else if (key == "error") {
      error = line.substr(6);
    }
  }
  if (!ready || mnt_ns_.empty()) {
    if (error.empty()) error = "no answer from the namespace holder within the start time-out";
    const std::string detail = Trim(ReadHostFile(err_path));
    if (error.rfind("sandbox needs", 0) != 0) error = "sandbox could not start: " + error;
    throw SandboxError(error + (detail.empty() ? "" : " [holder: " + detail + "]"));
  }
  if (mnt_ns_ == ReadLink("/proc/self/ns/mnt") || net_ns_ == ReadLink("/proc/self/ns/net")) {
    throw SandboxError("sandbox namespaces are this process's own; refusing to go on");
  }
}

void Sandbox::CheckStandins() {
  const std::string want = std::string(kStandinDir) + "/reboot";
  std::string out;
  const ExitStatus st = Run({"sh", "-c", "command -v reboot"}, Millis(10000), &out);
  if (!st.Success() || Trim(out) != want) {
    throw SandboxError("reboot inside the sandbox resolves to '" + Trim(out) + "' (" + st.ToString() +
                       "), not the stand-in " + want + "; refusing to start");
  }
}

std::vector<std::string> Sandbox::Environment(const SpawnOptions& options) const {
  std::map<std::string, std::string> env = {
      {"PATH", kInsidePath},  {"HOME", "/root"},      {"USER", "root"},
      {"LOGNAME", "root"},    {"SHELL", "/bin/sh"},   {"LANG", "C.UTF-8"},
      {"ZEL_SANDBOX_DIR", kInsideDir},
  };
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string kv = *e;
    const size_t eq = kv.find('=');
    if (eq != std::string::npos && PassedThrough(kv.substr(0, eq))) env[kv.substr(0, eq)] = kv.substr(eq + 1);
  }
  for (const auto& [key, value] : options.env) {
    if (key == "PATH") {
      throw SandboxError("PATH of sandboxed processes is fixed (stand-ins first); add stand-ins instead");
    }
    if (key.empty() || key.find('=') != std::string::npos) throw SandboxError("bad environment name '" + key + "'");
    env[key] = value;
  }
  std::vector<std::string> out;
  for (const auto& [key, value] : env) out.push_back(key + "=" + value);
  return out;
}

Process& Sandbox::Spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
  return SpawnInternal(argv, options);
}

Process& Sandbox::SpawnInternal(const std::vector<std::string>& argv, const SpawnOptions& options) {
  if (shut_down_ || holder_pid_ <= 0) throw SandboxError("sandbox is not running");
  if (argv.empty() || argv[0].empty()) throw SandboxError("Spawn needs a program");
  const std::vector<std::string> env = Environment(options);
  const std::string name = SafeName(options.name.empty() ? fs::path(argv[0]).filename().string() : options.name);

  std::vector<std::string> args = {HelperPath(), "enter", std::to_string(holder_pid_), options.cwd, "--"};
  args.insert(args.end(), argv.begin(), argv.end());

  SpawnAttributes sa(options.new_process_group);
  std::string out_path, err_path;
  std::vector<int> fds;
  if (!options.inherit_stdio) {
    const std::string base = scratch_ + "/logs/" + std::to_string(processes_.size()) + "-" + name;
    out_path = base + ".out";
    err_path = base + ".err";
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    fds = {in, out, err};
    if (in < 0 || out < 0 || err < 0) {
      for (int fd : fds) {
        if (fd >= 0) close(fd);
      }
      throw SandboxError(Errno("opening output files for " + name));
    }
    posix_spawn_file_actions_adddup2(&sa.actions, in, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&sa.actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&sa.actions, err, STDERR_FILENO);
  }
  pid_t pid = -1;
  try {
    pid = SpawnHelper(args, env, &sa);
  } catch (...) {
    for (int fd : fds) close(fd);
    throw;
  }
  for (int fd : fds) close(fd);
  processes_.emplace_back(new Process(pid, name, out_path, err_path, options.new_process_group));
  return *processes_.back();
}

ExitStatus Sandbox::Run(const std::vector<std::string>& argv, Millis timeout, std::string* stdout_text,
                        const SpawnOptions& options) {
  Process& p = Spawn(argv, options);
  auto st = p.WaitExit(timeout);
  if (!st) {
    p.Kill();
    throw SandboxError("'" + argv[0] + "' did not finish within " + std::to_string(timeout.count()) +
                       " ms; stderr: " + p.Stderr());
  }
  if (stdout_text != nullptr) *stdout_text = p.Stdout();
  return *st;
}

void Sandbox::CheckOwnedMount(int fd, const std::string& path) const {
  const uint64_t id = MountIdOf(fd);
  if (std::find(owned_mounts_.begin(), owned_mounts_.end(), id) == owned_mounts_.end()) {
    throw SandboxError("refusing to write " + path +
                       ": it is not on one of the sandbox's own mounts (/etc /var /home /root /opt "
                       "/tmp /run /dev)");
  }
}

int Sandbox::OpenDirInside(const std::string& path, bool create, bool check_owned) const {
  if (root_fd_ < 0) throw SandboxError("sandbox is not running");
  const std::vector<std::string> parts = SplitSandboxPath(path);
  int dir = OpenAt2(root_fd_, ".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0, kInRoot);
  if (dir < 0) throw SandboxError(Errno("open sandbox root"));
  for (size_t i = 0; i < parts.size(); ++i) {
    const std::string sub = JoinParts(parts, i + 1);
    int next = OpenAt2(root_fd_, sub, O_PATH | O_DIRECTORY | O_CLOEXEC, 0, kInRoot);
    if (next < 0 && errno == ENOENT && create) {
      try {
        CheckOwnedMount(dir, "/" + sub);
      } catch (...) {
        close(dir);
        throw;
      }
      if (mkdirat(dir, parts[i].c_str(), 0755) != 0 && errno != EEXIST) {
        const std::string reason = Errno("mkdir /" + sub);
        close(dir);
        throw SandboxError(reason);
      }
      next = OpenAt2(root_fd_, sub, O_PATH | O_DIRECTORY | O_CLOEXEC, 0, kInRoot);
    }
    if (next < 0) {
      const std::string reason = Errno("open /" + sub);
      close(dir);
      throw SandboxError(reason);
    }
    close(dir);
    dir = next;
  }
  if (check_owned) {
    try {
      CheckOwnedMount(dir, path);
    } catch (...) {
      close(dir);
      throw;
    }
  }
  return dir;
}

void Sandbox::WriteFile(const std::string& path, const std::string& content, mode_t mode) {
  std::vector<std::string> parts = SplitSandboxPath(path);
  if (parts.empty()) throw SandboxError("cannot write the sandbox root");
  const std::string leaf = parts.back();
  parts.pop_back();
  std::string parent = "/";
  for (size_t i = 0; i < parts.size(); ++i) parent += (i == 0 ? "" : "/") + parts[i];

  int dir = OpenDirInside(parent, true, true);
  // The leaf is one name in a directory that is ours; O_NOFOLLOW keeps a
  // symbolic link there from pointing the write elsewhere.
  int fd = openat(dir, leaf.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, mode);
  const int open_errno = errno;
  close(dir);
  if (fd < 0) {
    errno = open_errno;
    throw SandboxError(Errno("open " + path + " for writing"));
  }
  try {
    CheckOwnedMount(fd, path);
    if (ftruncate(fd, 0) != 0) throw SandboxError(Errno("truncate " + path));
    size_t done = 0;
    while (done < content.size()) {
      ssize_t n = write(fd, content.data() + done, content.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) throw SandboxError(Errno("write " + path));
      done += static_cast<size_t>(n);
    }
    if (fchmod(fd, mode) != 0) throw SandboxError(Errno("chmod " + path));
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
}

std::optional<std::string> Sandbox::ReadFile(const std::string& path) const {
  if (root_fd_ < 0) throw SandboxError("sandbox is not running");
  const std::vector<std::string> parts = SplitSandboxPath(path);
  int fd = OpenAt2(root_fd_, JoinParts(parts, parts.size()), O_RDONLY | O_CLOEXEC, 0, kInRoot);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    throw SandboxError(Errno("open " + path));
  }
  std::string text;
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const std::string reason = Errno("read " + path);
      close(fd);
      throw SandboxError(reason);
    }
    if (n == 0) break;
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return text;
}

std::optional<std::string> Sandbox::WaitForFile(const std::string& path, Millis timeout) const {
  std::optional<std::string> text;
  WaitUntil([&] { return (text = ReadFile(path)).has_value(); }, timeout);
  return text;
}

bool Sandbox::Exists(const std::string& path) const {
  if (root_fd_ < 0) throw SandboxError("sandbox is not running");
  const std::vector<std::string> parts = SplitSandboxPath(path);
  int fd = OpenAt2(root_fd_, JoinParts(parts, parts.size()), O_PATH | O_CLOEXEC, 0, kInRoot);
  if (fd < 0) return false;
  close(fd);
  return true;
}

void Sandbox::AddStandin(const std::string& name, const std::string& script) {
  if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..") {
    throw SandboxError("bad stand-in name '" + name + "'");
  }
  if (scratch_.empty()) throw SandboxError("sandbox is not running");
  const std::string dest = scratch_ + "/sandbox/bin/" + name;
  const std::string tmp = dest + ".new";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out << script;
    if (!out) throw SandboxError("cannot write stand-in " + name);
  }
  fs::permissions(tmp, fs::perms(0755));
  // Rename, so a program running the old stand-in never sees half a script.
  if (rename(tmp.c_str(), dest.c_str()) != 0) throw SandboxError(Errno("install stand-in " + name));
}

std::vector<std::string> Sandbox::StandinCalls(const std::string& name) const {
  std::vector<std::string> out;
  for (auto& line : ReadLines(shared_dir() + "/calls.log")) {
    if (name.empty() || line == name || line.rfind(name + " ", 0) == 0) out.push_back(line);
  }
  return out;
}

std::optional<std::string> Sandbox::WaitForStandinCall(const std::string& pattern, Millis timeout) const {
  return WaitForLine(shared_dir() + "/calls.log", pattern, timeout);
}

std::string Sandbox::log_path() const { return log_collector_ != nullptr ? log_collector_->stdout_path() : ""; }

std::vector<std::string> Sandbox::LogLines() const {
  if (log_collector_ == nullptr) throw SandboxError("this sandbox collects no logs");
  return ReadLines(log_path());
}

std::optional<std::string> Sandbox::WaitForLog(const std::string& pattern, Millis timeout,
                                               size_t from_line) const {
  if (log_collector_ == nullptr) throw SandboxError("this sandbox collects no logs");
  return WaitForLine(log_path(), pattern, timeout, from_line);
}

int Sandbox::SocketInside(int domain, int type, int protocol) const {
  if (domain != AF_INET && domain != AF_INET6) {
    throw SandboxError("SocketInside supports AF_INET and AF_INET6 only");
  }
  if (shut_down_ || holder_pid_ <= 0) throw SandboxError("sandbox is not running");
  const std::string ns_path = "/proc/" + std::to_string(holder_pid_) + "/ns/net";
  int result = -1;
  int error = 0;
  // A thread of its own changes network namespace and ends; the rest of this
  // process stays where it was. A socket keeps the namespace it was made in.
  std::thread maker([&] {
    int ns = open(ns_path.c_str(), O_RDONLY | O_CLOEXEC);
    if (ns < 0 || setns(ns, CLONE_NEWNET) != 0) {
      error = errno;
    } else {
      result = socket(domain, type | SOCK_CLOEXEC, protocol);
      if (result < 0) error = errno;
    }
    if (ns >= 0) close(ns);
  });
  maker.join();
  if (result < 0) {
    errno = error;
    throw SandboxError(Errno("socket in the sandbox"));
  }
  return result;
}

void Sandbox::KillNamespaceProcesses() const {
  if (mnt_ns_.empty()) return;
  // While the holder lives the namespace cannot be freed, so its name cannot
  // be reused by another sandbox and matches only our processes.
  for (int round = 0; round < 200; ++round) {
    int found = 0;
    DIR* dir = opendir("/proc");
    if (dir == nullptr) return;
    while (struct dirent* entry = readdir(dir)) {
      char* end = nullptr;
      long pid = std::strtol(entry->d_name, &end, 10);
      if (*end != '\0' || pid <= 0 || pid == holder_pid_) continue;
      if (ReadLink("/proc/" + std::string(entry->d_name) + "/ns/mnt") != mnt_ns_) continue;
      kill(static_cast<pid_t>(pid), SIGKILL);
      ++found;
    }
    closedir(dir);
    if (found == 0) return;
    std::this_thread::sleep_for(Millis(10));
  }
}

void Sandbox::Shutdown() {
  if (shut_down_) return;
  shut_down_ = true;

  for (auto& p : processes_) {
    if (p->status_) continue;
    if (p->own_group_) kill(-p->pid_, SIGKILL);
    kill(p->pid_, SIGKILL);
  }
  if (holder_pid_ > 0 && ProcessAlive(holder_pid_)) KillNamespaceProcesses();
  for (auto& p : processes_) p->Kill();

  if (root_fd_ >= 0) {
    close(root_fd_);
    root_fd_ = -1;
  }
  if (holder_control_ >= 0) {
    close(holder_control_);  // end of file on its stdin: the holder cleans up and exits
    holder_control_ = -1;
  }
  if (holder_pid_ > 0) {
    Process holder(holder_pid_, "holder", "", "", false);
    if (!holder.WaitExit(Millis(10000))) {
      std::fprintf(stderr, "zel-sandbox: holder %d did not exit; killing it\n", holder_pid_);
      holder.Kill();
    }
  }

  if (scratch_.empty()) return;
  if (options_.keep_scratch) {
    std::ofstream(scratch_ + "/kept") << "kept after teardown; remove by hand\n";
    std::fprintf(stderr, "zel-sandbox: kept scratch directory %s\n", scratch_.c_str());
    return;
  }
  // The scratch directory holds files only; a mount below it in this
  // namespace would mean something went badly wrong, so leave it alone then.
  std::ifstream mountinfo("/proc/self/mountinfo");
  std::string line;
  while (std::getline(mountinfo, line)) {
    std::istringstream words(line);
    std::string id, parent, dev, root, point;
    words >> id >> parent >> dev >> root >> point;
    if (point == scratch_ || point.rfind(scratch_ + "/", 0) == 0) {
      std::fprintf(stderr, "zel-sandbox: %s has a mount below it; not removing it\n", scratch_.c_str());
      return;
    }
  }
  std::error_code ec;
  fs::remove_all(scratch_, ec);
  if (ec) std::fprintf(stderr, "zel-sandbox: removing %s: %s\n", scratch_.c_str(), ec.message().c_str());
}

std::string Sandbox::DebugReport(size_t tail_lines) const {
  auto tail = [tail_lines](const std::vector<std::string>& lines) {
    std::string out;
    size_t from = lines.size() > tail_lines ? lines.size() - tail_lines : 0;
    for (size_t i = from; i < lines.size(); ++i) out += "    " + lines[i] + "\n";
    return out;
  };
  std::ostringstream out;
  out << "sandbox " << scratch_ << " holder " << holder_pid_ << " " << mnt_ns_ << "\n";
  for (const auto& p : processes_) {
    out << "  [" << p->name_ << " pid " << p->pid_ << "] "
        << (p->status_ ? p->status_->ToString() : std::string("running")) << "\n";
    if (!p->stdout_path_.empty()) out << "   stdout:\n" << tail(ReadLines(p->stdout_path_));
    if (!p->stderr_path_.empty()) out << "   stderr:\n" << tail(ReadLines(p->stderr_path_));
  }
  if (log_collector_ != nullptr) out << "  log:\n" << tail(ReadLines(log_path()));
  out << "  stand-in calls:\n" << tail(ReadLines(scratch_ + "/sandbox/calls.log"));
  return out.str();
}

}  // namespace e2e
}  // namespace zel
