// What an idle agent costs: resident memory and CPU time of the real agent,
// registered with the stand-in relay and asked nothing, over a window of
// wall-clock time (60 s by default), read from /proc/<pid>/status and
// /proc/<pid>/stat. The agent runs in an end-to-end sandbox with its default
// monitoring intervals and logs at INFO over UDP. Needs root.
//
//   agent_idle [--seconds N]
//
// Targets: RSS <= 8 MB, CPU <= 0.1 % of one core over the window.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "sandbox/sandbox.h"
#include "mpa_relay/relay.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// utime + stime of `pid` in clock ticks; -1 when unreadable.
long long CpuTicks(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream fields(text.substr(close + 2));
  std::string f;
  long long utime = 0, stime = 0;
  // Fields from the state (3rd) on; utime and stime are the 14th and 15th.
  for (int i = 3; i <= 15 && fields >> f; ++i) {
    if (i == 14) utime = std::atoll(f.c_str());
    if (i == 15) stime = std::atoll(f.c_str());
  }
  return utime + stime;
}

// A "VmRSS:"-style line of /proc/<pid>/status, in kB; -1 when missing.
long StatusKb(pid_t pid, const char* key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + std::strlen(key));
  }
  return -1;
}

int Threads(pid_t pid) { return static_cast<int>(StatusKb(pid, "Threads:")); }

}  // namespace

int main(int argc, char** argv) {
  long seconds = 60;
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], "--seconds") == 0) seconds = std::atol(argv[i + 1]);
  }

  zel::sandbox::Sandbox sb;
  sb.WriteFile("/etc/orvane/zel-dorn/dornConfig.ini",
               "[CommunicationHandler]\nackTimeout=300\n"
               "[Monitoring]\nupdateCheckFrequency=60\nmonitoringStartDelay=180\n");
  sb.AddStandin("uname", "#!/bin/sh\necho 'Linux 5.15.0-91-generic'\n");
  sb.AddStandin("lsb_release", "#!/bin/sh\necho Ubuntu\n");

  mpa_relay::RelayOptions options;
  options.make_listener = [&sb]() {
    const int fd = sb.SocketInside(AF_INET, SOCK_STREAM);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(9002);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 16) != 0) {
      close(fd);
      return -1;
    }
    return fd;
  };
  mpa_relay::Relay relay(options);
  std::string error;
  if (!relay.Listen(&error)) {
    std::fprintf(stderr, "agent_idle: cannot listen in the sandbox: %s\n", error.c_str());
    return 1;
  }
  zel::sandbox::SpawnOptions spawn;
  spawn.name = "dorn-host-agent";
  zel::sandbox::Process& agent = sb.Spawn({DORN_AGENT_BINARY}, spawn);
  if (!relay.RunUntil([&] { return relay.current_connection() != 0; }, Clock::now() + 30s)) {
    std::fprintf(stderr, "agent_idle: the agent did not register\n%s\n", sb.DebugReport().c_str());
    return 1;
  }
  // Settle: the start-up's own work is not idle time.
  relay.RunUntil([] { return false; }, Clock::now() + 2s);

  const pid_t pid = agent.pid();
  const long rss_start = StatusKb(pid, "VmRSS:");
  const long long ticks_start = CpuTicks(pid);
  const auto t0 = Clock::now();
  // The window is the measurement itself: the relay keeps serving during it.
  relay.RunUntil([] { return false; }, t0 + std::chrono::seconds(seconds));
  const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
  const long long ticks_end = CpuTicks(pid);
  const long rss_end = StatusKb(pid, "VmRSS:");
  const long hwm = StatusKb(pid, "VmHWM:");
  const long anon = StatusKb(pid, "RssAnon:");
  const long file = StatusKb(pid, "RssFile:");
  if (!agent.Running() || ticks_start < 0 || ticks_end < 0) {
    std::fprintf(stderr, "agent_idle: the agent ended\n%s\n", sb.DebugReport().c_str());
    return 1;
  }
  const double cpu_s = static_cast<double>(ticks_end - ticks_start) / sysconf(_SC_CLK_TCK);
  const double cpu_pct = 100.0 * cpu_s / wall;

  std::printf("idle agent, pid %d, %d threads, over %.1f s:\n", pid, Threads(pid), wall);
  std::printf("  RSS %ld kB at start, %ld kB at end (anon %ld kB, file %ld kB), peak %ld kB\n",
              rss_start, rss_end, anon, file, hwm);
  std::printf("  CPU %.2f s = %.3f %% of one core\n", cpu_s, cpu_pct);
  std::printf("RSS target <= 8 MB (8192 kB): %s\n", rss_end <= 8192 ? "met" : "NOT met");
  std::printf("CPU target <= 0.1 %%: %s\n", cpu_pct <= 0.1 ? "met" : "NOT met");
  return 0;
}
