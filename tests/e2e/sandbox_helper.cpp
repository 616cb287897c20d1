// zel-sandbox-helper: the parts of the end-to-end sandbox that must run in a
// process of their own. Started only by the sandbox library (sandbox.cpp).
//
//   zel-sandbox-helper hold SCRATCH_DIR
//       Unshares a mount and a network namespace, makes all mounts private,
//       brings loopback up and builds the sandbox's view of the file system
//       from SCRATCH_DIR. Reports "mount <id> <path>" for each mount it made,
//       "mntns <link>", "netns <link>" and "ready" on stdout (or "error
//       <reason>" and exit 1), then holds the namespaces until its stdin
//       reaches end of file. Before it exits it kills every process left in
//       its mount namespace.
//   zel-sandbox-helper enter HOLDER_PID CWD -- PROGRAM [ARG...]
//       Joins the holder's network and mount namespaces, changes to CWD and
//       execs PROGRAM (looked up in PATH). Exit code 127 when that fails.
//   zel-sandbox-helper syslog PORT
//       Run inside a sandbox: receives datagrams on UDP 127.0.0.1:PORT and on
//       the datagram socket /dev/log and writes each as one line to stdout.
//
// Every mount() of the sandbox is in this file, in `hold`, and each goes
// through MountPrivate, which refuses to run before the process has its own
// mount namespace with private propagation.
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Fail(const std::string& reason) {
  std::string line = "error " + reason + "\n";
  (void)!write(STDOUT_FILENO, line.data(), line.size());
  std::fprintf(stderr, "zel-sandbox-helper: %s\n", reason.c_str());
  _exit(1);
}

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string ReadLink(const std::string& path) {
  char buf[256];
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  if (n < 0) return "";
  return std::string(buf, static_cast<size_t>(n));
}

bool IsDir(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// "/tmp/x" for any path below /tmp/x, and "" for paths outside /tmp.
std::string TopDirUnderTmp(const std::string& path) {
  const std::string prefix = "/tmp/";
  if (path.compare(0, prefix.size(), prefix) != 0) return "";
  const size_t end = path.find('/', prefix.size());
  return end == std::string::npos ? "" : path.substr(0, end);
}

void MakeDirs(const std::string& path, mode_t mode) {
  std::string sofar;
  std::stringstream in(path);
  std::string part;
  while (std::getline(in, part, '/')) {
    if (part.empty()) continue;
    sofar += "/" + part;
    if (mkdir(sofar.c_str(), mode) != 0 && errno != EEXIST) Fail(Errno("mkdir " + sofar));
  }
}

// Set once unshare has given this process its own mount namespace and "/" has
// been made recursively private; no mount may happen before.
bool g_private_namespace = false;

int MountPrivate(const char* source, const std::string& target, const char* type,
                 unsigned long flags, const std::string& data) {
  if (!g_private_namespace) {
    std::fprintf(stderr, "zel-sandbox-helper: mount of %s outside a private namespace refused\n",
                 target.c_str());
    abort();
  }
  return mount(source, target.c_str(), type, flags, data.empty() ? nullptr : data.c_str());
}

void MountOrFail(const char* source, const std::string& target, const char* type,
                 unsigned long flags, const std::string& data) {
  if (MountPrivate(source, target, type, flags, data) != 0) {
    Fail(Errno(std::string("mount ") + (type ? type : "bind") + " on " + target));
  }
}

uint64_t MountId(const std::string& path) {
  int fd = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (fd < 0) Fail(Errno("open " + path));
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(fd));
  std::string key;
  uint64_t id = 0;
  bool found = false;
  while (info >> key) {
    if (key == "mnt_id:") {
      found = static_cast<bool>(info >> id);
      break;
    }
  }
  close(fd);
  if (!found) Fail("no mnt_id for " + path);
  return id;
}

void LoopbackUp() {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail(Errno("socket for loopback"));
  struct ifreq ifr;
  std::memset(&ifr, 0, sizeof(ifr));
  std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
  if (ioctl(fd, SIOCGIFFLAGS, &ifr) != 0) Fail(Errno("SIOCGIFFLAGS lo"));
  ifr.ifr_flags |= IFF_UP | IFF_RUNNING;
  if (ioctl(fd, SIOCSIFFLAGS, &ifr) != 0) Fail(Errno("SIOCSIFFLAGS lo"));
  close(fd);
}

void MakeNode(const std::string& path, unsigned major_no, unsigned minor_no) {
  if (mknod(path.c_str(), S_IFCHR | 0666, makedev(major_no, minor_no)) != 0) {
    Fail(Errno("mknod " + path));
  }
  if (chmod(path.c_str(), 0666) != 0) Fail(Errno("chmod " + path));
}

void MakeLink(const std::string& target, const std::string& path) {
  if (symlink(target.c_str(), path.c_str()) != 0) Fail(Errno("symlink " + path));
}

// A private /dev: the few device nodes programs expect, its own pty
// instance and shared-memory tmpfs, and nothing of this machine's /dev/log.
void BuildDev(std::vector<std::string>* mounted) {
  MountOrFail("zel-sandbox", "/dev", "tmpfs", MS_NOSUID, "mode=0755");
  mounted->push_back("/dev");
  MakeNode("/dev/null", 1, 3);
  MakeNode("/dev/zero", 1, 5);
  MakeNode("/dev/full", 1, 7);
  MakeNode("/dev/random", 1, 8);
  MakeNode("/dev/urandom", 1, 9);
  MakeNode("/dev/tty", 5, 0);
  MakeLink("/proc/self/fd", "/dev/fd");
  MakeLink("/proc/self/fd/0", "/dev/stdin");
  MakeLink("/proc/self/fd/1", "/dev/stdout");
  MakeLink("/proc/self/fd/2", "/dev/stderr");
  MakeDirs("/dev/pts", 0755);
  // A pty instance is a convenience for interactive shells; its absence is
  // no reason to refuse the sandbox.
  if (MountPrivate("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                   "newinstance,ptmxmode=0666,mode=0620") == 0) {
    MakeLink("pts/ptmx", "/dev/ptmx");
  } else {
    std::fprintf(stderr, "zel-sandbox-helper: no devpts in sandbox: %s\n", std::strerror(errno));
  }
  MakeDirs("/dev/shm", 0755);
  MountOrFail("zel-sandbox", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
  mounted->push_back("/dev/shm");
}

void KillNamespace() {
  const std::string own = ReadLink("/proc/self/ns/mnt");
  const pid_t self = getpid();
  for (int round = 0; round < 200; ++round) {
    int found = 0;
    DIR* dir = opendir("/proc");
    if (dir == nullptr) return;
    while (struct dirent* entry = readdir(dir)) {
      char* end = nullptr;
      long pid = std::strtol(entry->d_name, &end, 10);
      if (*end != '\0' || pid <= 0 || pid == self) continue;
      if (ReadLink("/proc/" + std::string(entry->d_name) + "/ns/mnt") != own) continue;
      kill(static_cast<pid_t>(pid), SIGKILL);
      ++found;
    }
    closedir(dir);
    if (found == 0) return;
    usleep(25 * 1000);
  }
}

int Hold(const std::string& scratch) {
  signal(SIGINT, SIG_IGN);
  signal(SIGQUIT, SIG_IGN);
  signal(SIGHUP, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  umask(022);
  if (scratch.empty() || scratch[0] != '/' || !IsDir(scratch + "/sandbox")) {
    Fail("scratch directory " + scratch + " is not prepared");
  }

  const std::string parent_ns = ReadLink("/proc/" + std::to_string(getppid()) + "/ns/mnt");
  const std::string init_ns = ReadLink("/proc/1/ns/mnt");
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) Fail(Errno("unshare(CLONE_NEWNS|CLONE_NEWNET)"));
  const std::string own_ns = ReadLink("/proc/self/ns/mnt");
  if (own_ns.empty() || own_ns == parent_ns || own_ns == init_ns) {
    Fail("no private mount namespace after unshare (" + own_ns + ")");
  }
  // Without this, mounts below would propagate to the peers of a shared "/".
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    Fail(Errno("making / private"));
  }
  g_private_namespace = true;

  LoopbackUp();

  std::vector<std::string> mounted;
  // /opt may be missing on a minimal host; the sandbox then refuses writes
  // there instead of creating it on the real root.
  const struct {
    const char* dir;
    bool required;
  } overlays[] = {{"etc", true}, {"var", true}, {"home", true}, {"root", true}, {"opt", false}};
  for (const auto& o : overlays) {
    const std::string dir = std::string("/") + o.dir;
    if (!IsDir(dir)) {
      if (o.required) Fail(dir + " is not a directory on this host");
      continue;
    }
    const std::string base = scratch + "/overlay/" + o.dir;
    MakeDirs(base + "/upper", 0755);
    MakeDirs(base + "/work", 0755);
    const std::string data = "lowerdir=" + dir + ",upperdir=" + base + "/upper,workdir=" + base + "/work";
    if (MountPrivate("zel-sandbox", dir, "overlay", 0, data) != 0) {
      Fail(Errno("sandbox needs overlayfs: mount -t overlay on " + dir));
    }
    mounted.push_back(dir);
  }

  MountOrFail("zel-sandbox", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
  mounted.push_back("/run");
  MakeDirs("/run/lock", 0755);
  if (chmod("/run/lock", 01777) != 0) Fail(Errno("chmod /run/lock"));
  MakeDirs("/run/zel-sandbox", 0755);
  MountOrFail((scratch + "/sandbox").c_str(), "/run/zel-sandbox", nullptr, MS_BIND, "");
  mounted.push_back("/run/zel-sandbox");

  // Last: the scratch directory lives in the real /tmp, which this hides. A
  // build tree that itself lies under /tmp (a throw-away clone, say) must stay
  // visible, since the programs started inside run from it: park a bind of its
  // top directory under /run, mount the private /tmp, and move it back.
  const std::string keep = TopDirUnderTmp(ReadLink("/proc/self/exe"));
  const std::string parked = "/run/zel-sandbox-keep";
  if (!keep.empty()) {
    MakeDirs(parked, 0755);
    MountOrFail(keep.c_str(), parked, nullptr, MS_BIND | MS_REC, "");
  }
  MountOrFail("zel-sandbox", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
  mounted.push_back("/tmp");
  if (!keep.empty()) {
    MakeDirs(keep, 0755);
    MountOrFail(parked.c_str(), keep, nullptr, MS_MOVE, "");
    mounted.push_back(keep);
  }

  BuildDev(&mounted);

  std::string report;
  for (const std::string& m : mounted) report += "mount " + std::to_string(MountId(m)) + " " + m + "\n";
  report += "mntns " + own_ns + "\n";
  report += "netns " + ReadLink("/proc/self/ns/net") + "\n";
  report += "ready\n";
  if (write(STDOUT_FILENO, report.data(), report.size()) != static_cast<ssize_t>(report.size())) {
    Fail(Errno("report"));
  }
  close(STDOUT_FILENO);

  char buf[64];
  for (;;) {
    ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
    if (n == 0 || (n < 0 && errno != EINTR)) break;
  }
  KillNamespace();
  return 0;
}

int Enter(const std::string& holder, const std::string& cwd, char** argv) {
  auto fail = [](const std::string& reason) {
    std::fprintf(stderr, "zel-sandbox-helper: %s\n", reason.c_str());
    _exit(127);
  };
  const std::string ns_dir = "/proc/" + holder + "/ns/";
  int net = open((ns_dir + "net").c_str(), O_RDONLY | O_CLOEXEC);
  int mnt = open((ns_dir + "mnt").c_str(), O_RDONLY | O_CLOEXEC);
  if (net < 0 || mnt < 0) fail(Errno("open " + ns_dir));
  if (setns(net, CLONE_NEWNET) != 0) fail(Errno("setns net"));
  if (setns(mnt, CLONE_NEWNS) != 0) fail(Errno("setns mnt"));
  close(net);
  close(mnt);
  const std::string want = ReadLink(ns_dir + "mnt");
  if (want.empty() || ReadLink("/proc/self/ns/mnt") != want) fail("not in the sandbox's mount namespace");
  if (chdir(cwd.c_str()) != 0) fail(Errno("chdir " + cwd));
  execvp(argv[0], argv);
  fail(Errno(std::string("cannot run ") + argv[0]));
  return 127;
}

std::string AsLine(const char* data, size_t n) {
  while (n > 0 && (data[n - 1] == '\n' || data[n - 1] == '\0')) --n;
  std::string line;
  line.reserve(n + 1);
  for (size_t i = 0; i < n; ++i) {
    if (data[i] == '\n') {
      line += "\\n";
    } else {
      line += data[i];
    }
  }
  line += '\n';
  return line;
}

int Syslog(const std::string& port_text) {
  auto fail = [](const std::string& reason) {
    std::fprintf(stderr, "zel-sandbox-helper syslog: %s\n", reason.c_str());
    _exit(1);
  };
  const std::string own = ReadLink("/proc/self/ns/mnt");
  if (own.empty() || own == ReadLink("/proc/1/ns/mnt")) fail("refusing to run outside a sandbox");
  struct statfs devfs;
  if (statfs("/dev", &devfs) != 0 || devfs.f_type != TMPFS_MAGIC) fail("/dev is not the sandbox's tmpfs");
  const int port = std::atoi(port_text.c_str());
  if (port <= 0 || port > 65535) fail("bad port " + port_text);

  int udp = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (udp < 0) fail(Errno("socket"));
  int one = 1;
  setsockopt(udp, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  struct sockaddr_in in;
  std::memset(&in, 0, sizeof(in));
  in.sin_family = AF_INET;
  in.sin_port = htons(static_cast<uint16_t>(port));
  in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(udp, reinterpret_cast<sockaddr*>(&in), sizeof(in)) != 0) fail(Errno("bind udp " + port_text));

  int dev_log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (dev_log < 0) fail(Errno("socket unix"));
  struct sockaddr_un un;
  std::memset(&un, 0, sizeof(un));
  un.sun_family = AF_UNIX;
  std::strncpy(un.sun_path, "/dev/log", sizeof(un.sun_path) - 1);
  unlink(un.sun_path);
  if (bind(dev_log, reinterpret_cast<sockaddr*>(&un), sizeof(un)) != 0) fail(Errno("bind /dev/log"));
  chmod(un.sun_path, 0666);

  std::fprintf(stderr, "listening on udp 127.0.0.1:%d and /dev/log\n", port);
  std::fflush(stderr);

  std::vector<char> buf(65536);
  struct pollfd fds[2] = {{udp, POLLIN, 0}, {dev_log, POLLIN, 0}};
  for (;;) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      fail(Errno("poll"));
    }
    for (auto& p : fds) {
      if ((p.revents & POLLIN) == 0) continue;
      ssize_t n = recv(p.fd, buf.data(), buf.size(), MSG_DONTWAIT);
      if (n < 0) continue;
      const std::string line = AsLine(buf.data(), static_cast<size_t>(n));
      if (write(STDOUT_FILENO, line.data(), line.size()) < 0) fail(Errno("write"));
    }
  }
}

void Usage() {
  std::fprintf(stderr,
               "usage: zel-sandbox-helper hold SCRATCH_DIR\n"
               "       zel-sandbox-helper enter HOLDER_PID CWD -- PROGRAM [ARG...]\n"
               "       zel-sandbox-helper syslog PORT\n"
               "(started by the e2e sandbox library; not meant to be run by hand)\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string cmd = argc > 1 ? argv[1] : "";
  if (cmd == "hold" && argc == 3) return Hold(argv[2]);
  if (cmd == "enter" && argc >= 6 && std::string(argv[4]) == "--") return Enter(argv[2], argv[3], argv + 5);
  if (cmd == "syslog" && argc == 3) return Syslog(argv[2]);
  Usage();
  return 2;
}
