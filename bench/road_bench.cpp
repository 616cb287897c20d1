// The whole MPA road, relay -> agent -> relay, for MT_SOFTWARE_STATUS with an
// empty tracking list (the agent answers from memory, no command runs):
//   - round-trip latency, one request at a time: median and p99;
//   - sustained requests per second with requests pipelined;
// beside the floor of the machine: a raw 64-byte TCP ping-pong over loopback
// between two processes, and the ratio of the two medians.
//
// The agent is the real binary in an end-to-end sandbox (private mount and
// network namespaces, so its fixed paths and port 9002 are the sandbox's),
// logging at INFO as RFC 5424 datagrams over UDP to the sandbox's collector.
// The relay is mpa_relay::Relay in this process, on a socket made in the
// sandbox's network namespace. Needs root.
//
//   road_bench [--latency N] [--requests N] [--window N] [--pingpong N]
//              [--log-level LEVEL]     (default INFO; ERROR shows the cost of the log)
//
// Targets: road median <= 1.5 x ping-pong median; >= 10,000 requests/s.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sandbox/sandbox.h"
#include "mpa_relay/relay.h"
#include "mpa_relay/relay_script.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

struct Figures {
  double median_us = 0;
  double p99_us = 0;
  size_t samples = 0;
};

Figures Summarise(std::vector<double> v) {
  Figures f;
  f.samples = v.size();
  if (v.empty()) return f;
  std::sort(v.begin(), v.end());
  f.median_us = v[v.size() / 2];
  f.p99_us = v[std::min(v.size() - 1, static_cast<size_t>(0.99 * (v.size() - 1) + 0.5))];
  return f;
}

// 64-byte ping-pong between this process and a forked echo process over
// 127.0.0.1, blocking reads and writes, TCP_NODELAY on both ends. The echo
// process lives as long as the object, so that rounds can be interleaved
// with the road's: both then see the machine in the same state (on a shared
// or virtual machine the wake-up cost of an idle core moves both figures).
class PingPong {
 public:
  PingPong() {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      std::perror("ping-pong listener");
      std::exit(1);
    }
    child_ = fork();
    if (child_ == 0) Echo(listener);
    close(listener);
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      std::perror("ping-pong connect");
      std::exit(1);
    }
    std::memset(buf_, 'p', sizeof buf_);
  }
  ~PingPong() {
    close(fd_);
    waitpid(child_, nullptr, 0);
  }
  // One round trip, in microseconds.
  double Round() {
    const auto t0 = Clock::now();
    if (write(fd_, buf_, sizeof buf_) != static_cast<ssize_t>(sizeof buf_)) std::exit(1);
    size_t got = 0;
    while (got < sizeof buf_) {
      const ssize_t n = read(fd_, buf_ + got, sizeof buf_ - got);
      if (n <= 0) std::exit(1);
      got += static_cast<size_t>(n);
    }
    return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
  }

 private:
  [[noreturn]] static void Echo(int listener) {
    const int fd = accept(listener, nullptr, nullptr);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char buf[64];
    for (;;) {
      size_t got = 0;
      while (got < sizeof buf) {
        const ssize_t n = read(fd, buf + got, sizeof buf - got);
        if (n <= 0) _exit(0);
        got += static_cast<size_t>(n);
      }
      if (write(fd, buf, sizeof buf) != static_cast<ssize_t>(sizeof buf)) _exit(1);
    }
  }

  pid_t child_ = -1;
  int fd_ = -1;
  char buf_[64];
};

class RoundTrips : public mpa_relay::RelayObserver {
 public:
  void OnAnswer(const mpa_relay::Answer& a) override {
    if (a.request != 0 && record) {
      rtt.push_back(std::chrono::duration<double, std::micro>(a.round_trip).count());
    }
    if (!a.problems.empty()) ++problems;
  }
  bool record = false;
  std::vector<double> rtt;
  size_t problems = 0;
};

const char* TextArg(int argc, char** argv, const char* name, const char* fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) return argv[i + 1];
  }
  return fallback;
}

long Arg(int argc, char** argv, const char* name, long fallback) {
  const char* text = TextArg(argc, argv, name, nullptr);
  return text == nullptr ? fallback : std::atol(text);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t latency_rounds = static_cast<size_t>(Arg(argc, argv, "--latency", 10000));
  const uint64_t total = static_cast<uint64_t>(Arg(argc, argv, "--requests", 50000));
  const size_t window = static_cast<size_t>(Arg(argc, argv, "--window", 64));
  const size_t pingpong_rounds = static_cast<size_t>(Arg(argc, argv, "--pingpong", 20000));
  const std::string log_level = TextArg(argc, argv, "--log-level", "INFO");

  PingPong ping;
  for (int i = 0; i < 1000; ++i) ping.Round();  // warm-up
  std::vector<double> floor_rtt;

  zel::sandbox::Sandbox sb;
  sb.WriteFile("/etc/orvane/zel-dorn/dornConfig.ini",
               "[CommunicationHandler]\nackTimeout=300\n"
               "[Monitoring]\nupdateCheckFrequency=3600\nmonitoringStartDelay=3600\n");
  sb.AddStandin("uname", "#!/bin/sh\necho 'Linux 5.15.0-91-generic'\n");
  sb.AddStandin("lsb_release", "#!/bin/sh\necho Ubuntu\n");

  RoundTrips observer;
  mpa_relay::RelayOptions options;
  options.keep_history = false;
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
  mpa_relay::Relay relay(options, &observer);
  std::string error;
  if (!relay.Listen(&error)) {
    std::fprintf(stderr, "road_bench: cannot listen in the sandbox: %s\n", error.c_str());
    return 1;
  }
  zel::sandbox::SpawnOptions spawn;
  spawn.name = "dorn-host-agent";
  spawn.env["ZEL_LOG_LEVEL"] = log_level;
  zel::sandbox::Process& agent = sb.Spawn({DORN_AGENT_BINARY}, spawn);
  std::printf("agent pid %d (log at %s over UDP to the sandbox's collector)\n", agent.pid(),
              log_level.c_str());
  std::fflush(stdout);
  if (!relay.RunUntil([&] { return relay.current_connection() != 0; }, Clock::now() + 30s)) {
    std::fprintf(stderr, "road_bench: the agent did not register\n%s\n", sb.DebugReport().c_str());
    return 1;
  }

  mpa_relay::Step step;
  mpa_relay::ParseRequest(
      "message_type: MT_SOFTWARE_STATUS operation_id: \"bench\" return_same_correlationid: true",
      &step, &error);
  mpa_relay::Request request;
  request.payload = step.payload;
  request.correlation_id = "bench";
  request.reply_to = "bench-replies";

  // Warm-up, which also waits out the agent's first select on a new client.
  for (int i = 0; i < 200; ++i) {
    const uint64_t before = relay.answers_received();
    relay.Send(request);
    if (!relay.RunUntil([&] { return relay.answers_received() > before; }, Clock::now() + 10s)) {
      std::fprintf(stderr, "road_bench: no answer in warm-up\n%s\n", sb.DebugReport().c_str());
      return 1;
    }
  }

  // Latency: one request at a time, in blocks that alternate with blocks of
  // the ping-pong floor.
  constexpr size_t kBlocks = 20;
  for (size_t block = 0; block < kBlocks; ++block) {
    for (size_t i = 0; i < pingpong_rounds / kBlocks; ++i) floor_rtt.push_back(ping.Round());
    observer.record = true;
    for (size_t i = 0; i < latency_rounds / kBlocks; ++i) {
      const uint64_t before = relay.answers_received();
      relay.Send(request);
      if (!relay.RunUntil([&] { return relay.answers_received() > before; },
                          Clock::now() + 10s)) {
        std::fprintf(stderr, "road_bench: answer %zu missing\n", i);
        return 1;
      }
    }
    observer.record = false;
  }
  const Figures floor = Summarise(floor_rtt);
  const Figures road = Summarise(observer.rtt);

  // Throughput: `window` requests in flight.
  const uint64_t base = relay.answers_received();
  uint64_t sent = 0;
  const auto t0 = Clock::now();
  const auto deadline = t0 + 120s;
  while (relay.answers_received() - base < total && Clock::now() < deadline) {
    while (sent < total && relay.outstanding() < window) {
      relay.Send(request);
      ++sent;
    }
    relay.Poll(std::chrono::milliseconds(100));
  }
  const double secs = std::chrono::duration<double>(Clock::now() - t0).count();
  const uint64_t answered = relay.answers_received() - base;
  const double rate = static_cast<double>(answered) / secs;

  std::printf("raw TCP loopback ping-pong, 64 bytes, two processes: %zu round trips, "
              "median %.1f us, p99 %.1f us\n",
              floor.samples, floor.median_us, floor.p99_us);
  std::printf("road relay -> agent -> relay, MT_SOFTWARE_STATUS, empty tracking list\n");
  std::printf("  one at a time: %zu round trips, median %.1f us, p99 %.1f us\n", road.samples,
              road.median_us, road.p99_us);
  std::printf("  pipelined (window %zu): %llu answers in %.2f s = %.0f requests/s\n", window,
              static_cast<unsigned long long>(answered), secs, rate);
  const double ratio = floor.median_us > 0 ? road.median_us / floor.median_us : 0;
  std::printf("ratio road median / ping-pong median: %.2f (target <= 1.5: %s)\n", ratio,
              ratio <= 1.5 ? "met" : "NOT met");
  std::printf("throughput target >= 10000 requests/s: %s\n", rate >= 10000 ? "met" : "NOT met");
  if (observer.problems > 0) {
    std::printf("wire problems in %zu answers, e.g. %s\n", observer.problems,
                relay.problems().empty() ? "?" : relay.problems().front().c_str());
  }
  if (!agent.Running()) {
    std::fprintf(stderr, "road_bench: the agent ended during the run\n%s\n",
                 sb.DebugReport().c_str());
    return 1;
  }
  return answered == total ? 0 : 1;
}
