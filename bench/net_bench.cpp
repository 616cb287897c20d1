// The network transport beside its yardsticks, all in one run:
//
//   echo     64-byte round trips (p50, p99) and a 64 KiB-write one-way stream
//            (MiB/s), over TCP loopback and over a Unix socket, for our
//            Connection and for bare asio sockets of the same shape (an echo
//            server that reads what has come and writes it back). Both run on
//            one event-loop thread, pinned to the same core, alternating
//            rounds; the figure is the median over the rounds.
//   tls      handshakes per second of our TLS server and of `openssl
//            s_server` with the same certificate, each measured with
//            `openssl s_time` as the client (servers on core 0, s_time on
//            core 1); bulk TLS throughput of our server and of s_server,
//            each fed the same bytes by s_client.
//   memory   RSS growth over 1,000 idle connections (both ends in this
//            process), per connection.
//
//   net_bench [--rounds N] [--trips N] [--stream-mib N] [--tls-seconds N]
//             [--idle N] [--only echo|tls|memory] [--impl ours|asio]
//
// --impl runs one side only (of the echo rounds; with "ours", the TLS part
// skips its handshake comparison), for a profiler.
//
// Targets: throughput >= 0.9 of bare asio, round trip p50 <= 1.1 of it; TLS
// handshake rate >= 0.8 of s_server's.
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/buffer.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/net/net_name_resolver.h"
#include "cpp/lib/net/net_security_context.h"
#include "cpp/lib/net/net_security_manager.h"
#include "cpp/lib/net/net_transport.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"

namespace {

using Clock = std::chrono::steady_clock;
using boost::system::error_code;
namespace net = zel::net;

struct Options {
  int rounds = 5;
  int trips = 20000;
  int streamMib = 256;
  int tlsSeconds = 4;
  int idle = 1000;
  std::string only;
  // "ours" or "asio": run only that side of the echo rounds (for profiling).
  std::string impl;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[std::min(v.size() - 1, static_cast<size_t>(p * (v.size() - 1) + 0.5))];
}

void PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

// One figure of a round: round-trip samples in microseconds and a stream rate.
struct Round {
  std::vector<double> rtt;
  double mibPerSecond = 0;
};

// Bytes counted by a receiving end, and a wait for a total to be reached that
// sleeps rather than spins (a spinning waiter would share the pinned core).
class Tally {
 public:
  void Add(uint64_t n) {
    if (counted_.fetch_add(n) + n >= target_.load() && !fired_.exchange(true)) reached_.set_value();
  }
  // Starts a count towards `target`; WaitForTarget returns once it is met.
  void Expect(uint64_t target) {
    counted_ = 0;
    fired_ = false;
    reached_ = std::promise<void>();
    target_ = target;
  }
  void WaitForTarget() { reached_.get_future().wait(); }

 private:
  std::atomic<uint64_t> counted_{0};
  std::atomic<uint64_t> target_{~uint64_t{0}};
  std::atomic<bool> fired_{false};
  std::promise<void> reached_;
};

// ---------------------------------------------------------------------------
// Ours: a transport on one dispatcher thread.

class OursRig {
 public:
  OursRig()
      : dispatcher_(boost::make_shared<zel::AsioDispatcher>()),
        timers_(std::make_shared<zel::AsioTimerFactory>(dispatcher_->GetIoContextHandle())),
        resolver_(std::make_shared<net::NetNameResolver>(dispatcher_->GetIoContextHandle())),
        security_(std::make_shared<net::NetSecurityManager>()),
        transport_(std::make_shared<net::NetTransport>(net::NetTransport::Params{
            dispatcher_, dispatcher_->GetIoContextHandle(), timers_, resolver_, security_,
            registry_.root()})) {
    dispatcher_->Run(1, false);
  }
  ~OursRig() {
    transport_->Shutdown();
    resolver_->Shutdown();
    dispatcher_->StopAndWait(false);
  }

  net::NetSecurityManager& security() { return *security_; }
  net::NetTransport& transport() { return *transport_; }

  net::ConnectionPtr Connect(const std::string& uri, const net::SocketOptions& options = {}) {
    net::ConnectionPtr c = transport_->NewConnection(net::Endpoint(uri), options).value();
    if (!c) return nullptr;
    std::promise<error_code> done;
    c->Connect([&](const error_code& ec) { done.set_value(ec); });
    return done.get_future().get() ? nullptr : c;
  }

 private:
  zel::metrics::MetricRegistry registry_;
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_;
  std::shared_ptr<zel::AsioTimerFactory> timers_;
  std::shared_ptr<net::NetNameResolver> resolver_;
  std::shared_ptr<net::NetSecurityManager> security_;
  std::shared_ptr<net::NetTransport> transport_;
};

// Reads what has come and writes it back, until the peer goes. With
// `countOnly` it only counts what it reads.
class OursEcho : public std::enable_shared_from_this<OursEcho> {
 public:
  OursEcho(net::ConnectionPtr c, bool countOnly, Tally* counted)
      : c_(std::move(c)), countOnly_(countOnly), counted_(counted) {}
  void Start() { ReadNext(); }

 private:
  void ReadNext() {
    auto self = shared_from_this();
    c_->Read(net::IoBuffer(buffer_), buffer_->size(), net::kReadSome,
             [self](const error_code& ec, std::size_t n) {
               if (ec) return;
               if (self->countOnly_) {
                 self->counted_->Add(n);
                 return self->ReadNext();
               }
               self->c_->Write(net::IoBuffer(self->buffer_->data(), n, self->buffer_),
                               [self](const error_code& ec, std::size_t) {
                                 if (!ec) self->ReadNext();
                               });
             });
  }

  net::ConnectionPtr c_;
  const bool countOnly_;
  Tally* counted_;
  zel::SharedBufferPtr buffer_ = zel::MakeRefCounted<zel::SharedBuffer>(65536);
};

Round OursRound(OursRig& rig, const std::string& listen, const Options& o) {
  Round round;
  Tally counted;
  std::atomic<bool> countOnly{false};
  net::NetTransport& t = rig.transport();
  t.Listen(net::Endpoint(listen), {}, [&](const error_code& ec, const net::ConnectionPtr& c) {
    if (c) std::make_shared<OursEcho>(c, countOnly.load(), &counted)->Start();
    return true;
  });
  std::string target = t.ListeningAddress(net::Endpoint(listen));
  if (target.rfind("unix://", 0) == 0) target = listen;

  // Round trips: each completion starts the next, on the dispatcher thread.
  net::ConnectionPtr c = rig.Connect(target);
  auto out = zel::MakeRefCounted<zel::SharedBuffer>(64);
  auto in = zel::MakeRefCounted<zel::SharedBuffer>(64);
  round.rtt.reserve(o.trips);
  std::promise<void> tripsDone;
  std::function<void()> trip;
  Clock::time_point start;
  trip = [&] {
    start = Clock::now();
    c->Write(net::IoBuffer(out), [&](const error_code&, std::size_t) {
      c->Read(net::IoBuffer(in), 64, net::kReadFill, [&](const error_code& ec, std::size_t) {
        round.rtt.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        if (!ec && static_cast<int>(round.rtt.size()) < o.trips) return trip();
        tripsDone.set_value();
      });
    });
  };
  trip();
  tripsDone.get_future().wait();
  c->Close(net::CloseReason::BY_USER);

  // One-way stream of 64 KiB writes, one in flight.
  countOnly = true;
  net::ConnectionPtr s = rig.Connect(target);
  const uint64_t total = static_cast<uint64_t>(o.streamMib) << 20;
  auto chunk = zel::MakeRefCounted<zel::SharedBuffer>(65536);
  std::function<void(uint64_t)> send;
  send = [&](uint64_t sent) {
    if (sent >= total) return;
    s->Write(net::IoBuffer(chunk), [&, sent](const error_code& ec, std::size_t n) {
      if (!ec) send(sent + n);
    });
  };
  counted.Expect(total);
  const Clock::time_point streamStart = Clock::now();
  send(0);
  counted.WaitForTarget();
  const double seconds = std::chrono::duration<double>(Clock::now() - streamStart).count();
  round.mibPerSecond = o.streamMib / seconds;
  s->Close(net::CloseReason::BY_USER);
  t.StopListening(net::Endpoint(listen));
  return round;
}

// ---------------------------------------------------------------------------
// Bare asio, the same shape.

template <class Protocol>
class BareEcho : public std::enable_shared_from_this<BareEcho<Protocol>> {
 public:
  BareEcho(typename Protocol::socket s, bool countOnly, Tally* counted)
      : s_(std::move(s)), countOnly_(countOnly), counted_(counted) {}
  void Start() { ReadNext(); }

 private:
  void ReadNext() {
    auto self = this->shared_from_this();
    s_.async_read_some(boost::asio::buffer(buffer_), [self](const error_code& ec, std::size_t n) {
      if (ec) return;
      if (self->countOnly_) {
        self->counted_->Add(n);
        return self->ReadNext();
      }
      boost::asio::async_write(self->s_, boost::asio::buffer(self->buffer_, n),
                               [self](const error_code& ec, std::size_t) {
                                 if (!ec) self->ReadNext();
                               });
    });
  }

  typename Protocol::socket s_;
  const bool countOnly_;
  Tally* counted_;
  std::vector<char> buffer_ = std::vector<char>(65536);
};

template <class Protocol>
Round BareRound(const typename Protocol::endpoint& where, const Options& o) {
  Round round;
  boost::asio::io_context io;
  typename Protocol::acceptor acceptor(io, where);
  Tally counted;
  bool countOnly = false;
  std::function<void()> accept;
  accept = [&] {
    acceptor.async_accept([&](const error_code& ec, typename Protocol::socket s) {
      if (ec) return;
      std::make_shared<BareEcho<Protocol>>(std::move(s), countOnly, &counted)->Start();
      accept();
    });
  };
  accept();
  auto guard = boost::asio::make_work_guard(io);
  std::thread loop([&] { io.run(); });

  typename Protocol::socket c(io);
  c.connect(acceptor.local_endpoint());
  char out[64] = {};
  char in[64];
  round.rtt.reserve(o.trips);
  std::promise<void> tripsDone;
  std::function<void()> trip;
  Clock::time_point start;
  trip = [&] {
    start = Clock::now();
    boost::asio::async_write(c, boost::asio::buffer(out), [&](const error_code&, std::size_t) {
      boost::asio::async_read(c, boost::asio::buffer(in), [&](const error_code& ec, std::size_t) {
        round.rtt.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        if (!ec && static_cast<int>(round.rtt.size()) < o.trips) return trip();
        tripsDone.set_value();
      });
    });
  };
  boost::asio::post(io, trip);
  tripsDone.get_future().wait();

  countOnly = true;
  typename Protocol::socket s(io);
  s.connect(acceptor.local_endpoint());
  const uint64_t total = static_cast<uint64_t>(o.streamMib) << 20;
  std::vector<char> chunk(65536);
  std::function<void(uint64_t)> send;
  send = [&](uint64_t sent) {
    if (sent >= total) return;
    boost::asio::async_write(s, boost::asio::buffer(chunk), [&, sent](const error_code& ec, std::size_t n) {
      if (!ec) send(sent + n);
    });
  };
  counted.Expect(total);
  const Clock::time_point streamStart = Clock::now();
  boost::asio::post(io, [&] { send(0); });
  counted.WaitForTarget();
  round.mibPerSecond = o.streamMib / std::chrono::duration<double>(Clock::now() - streamStart).count();
  boost::asio::post(io, [&] {
    c.close();
    s.close();
    acceptor.close();
  });
  guard.reset();
  loop.join();
  return round;
}

void Report(const char* what, const std::vector<Round>& ours, const std::vector<Round>& bare) {
  std::vector<double> p50o, p99o, p50b, p99b, tpo, tpb;
  for (const Round& r : ours) {
    p50o.push_back(Percentile(r.rtt, 0.5));
    p99o.push_back(Percentile(r.rtt, 0.99));
    tpo.push_back(r.mibPerSecond);
  }
  for (const Round& r : bare) {
    p50b.push_back(Percentile(r.rtt, 0.5));
    p99b.push_back(Percentile(r.rtt, 0.99));
    tpb.push_back(r.mibPerSecond);
  }
  std::printf("%-5s round trip p50  ours %7.2f us   asio %7.2f us   ratio %.2f (target <= 1.10)\n",
              what, Median(p50o), Median(p50b), Median(p50o) / Median(p50b));
  std::printf("%-5s round trip p99  ours %7.2f us   asio %7.2f us   ratio %.2f\n", what,
              Median(p99o), Median(p99b), Median(p99o) / Median(p99b));
  std::printf("%-5s stream 64 KiB   ours %7.0f MiB/s asio %7.0f MiB/s ratio %.2f (target >= 0.90)\n",
              what, Median(tpo), Median(tpb), Median(tpo) / Median(tpb));
}

void EchoBench(const Options& o) {
  PinTo(0);
  std::vector<Round> oursTcp, bareTcp, oursUnix, bareUnix;
  const std::string path = "/tmp/zel-net-bench-" + std::to_string(getpid());
  for (int i = 0; i < o.rounds; ++i) {
    const bool ours = o.impl != "asio";
    const bool bare = o.impl != "ours";
    if (ours) {
      OursRig rig;
      oursTcp.push_back(OursRound(rig, "tcp://127.0.0.1:0", o));
    }
    if (bare) {
      bareTcp.push_back(BareRound<boost::asio::ip::tcp>(
          boost::asio::ip::tcp::endpoint(boost::asio::ip::make_address("127.0.0.1"), 0), o));
    }
    if (ours) {
      OursRig rig;
      oursUnix.push_back(OursRound(rig, "unix://" + path + ".ours", o));
    }
    if (bare) {
      ::unlink((path + ".bare").c_str());
      bareUnix.push_back(BareRound<boost::asio::local::stream_protocol>(
          boost::asio::local::stream_protocol::endpoint(path + ".bare"), o));
      ::unlink((path + ".bare").c_str());
    }
  }
  Report("tcp", oursTcp, bareTcp);
  Report("unix", oursUnix, bareUnix);
}

// ---------------------------------------------------------------------------
// TLS

std::string Run(const std::string& command) {
  std::string out;
  if (FILE* p = popen(command.c_str(), "r")) {
    char line[512];
    while (std::fgets(line, sizeof line, p)) out += line;
    pclose(p);
  }
  return out;
}

// Waits until something accepts on 127.0.0.1:`port` (at most 5 s). The probe
// is a connection of its own: a server started for one connection only
// would be used up by it.
void AwaitListener(int port) {
  for (int i = 0; i < 500; ++i) {
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket s(io);
    error_code ec;
    s.connect({boost::asio::ip::make_address("127.0.0.1"), static_cast<uint16_t>(port)}, ec);
    if (!ec) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Starts an openssl server in the background, in a process group of its
// own, with a standard input that stays open (at end of input s_server
// closes its sessions); returns the group's id, for Stop().
std::string Background(const std::string& command) {
  return Run("setsid sh -c 'tail -f /dev/null | " + command + "' > /dev/null 2>&1 & echo $!");
}

void Stop(const std::string& group) { Run("kill -- -" + group + " 2>/dev/null"); }

int FreePort() {
  boost::asio::io_context io;
  boost::asio::ip::tcp::acceptor a(io, {boost::asio::ip::make_address("127.0.0.1"), 0});
  return a.local_endpoint().port();
}

// "N connections in T real seconds": N / T.
double SessionsPerSecond(const std::string& sTimeOutput) {
  const size_t at = sTimeOutput.find("connections in ");
  if (at == std::string::npos) return 0;
  size_t start = sTimeOutput.rfind('\n', at);
  start = start == std::string::npos ? 0 : start + 1;
  const double n = std::atof(sTimeOutput.c_str() + start);
  const double seconds = std::atof(sTimeOutput.c_str() + at + 15);
  return seconds > 0 ? n / seconds : 0;
}

void TlsBench(const Options& o) {
  char dirTemplate[] = "/tmp/zel-tls-bench-XXXXXX";
  const std::string dir = mkdtemp(dirTemplate);
  const std::string key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  Run("openssl req -x509 " + key + " -keyout " + dir + "/s.key -out " + dir + "/s.pem -subj /CN=s -days 2 2>&1");
  Run("openssl req -x509 " + key + " -keyout " + dir + "/c.key -out " + dir + "/c.pem -subj /CN=c -days 2 2>&1");
  const std::string clientCert = " -cert " + dir + "/c.pem -key " + dir + "/c.key";
  const std::string sTime = "taskset -c 1 openssl s_time -new -time " + std::to_string(o.tlsSeconds) +
                            clientCert + " -connect 127.0.0.1:";

  PinTo(0);
  auto builder = [&](const std::string& own, const std::string& peer) {
    net::NetSecurityContext::Builder b;
    (void)b.UseCertificate(net::X509Certificate::LoadPem(dir + "/" + own + ".pem"));
    (void)b.UsePrivateKeyFile(dir + "/" + own + ".key");
    net::Sha256Digest d{};
    (void)net::X509Certificate::LoadPem(dir + "/" + peer + ".pem")->Sha256(&d);
    b.AddDigest(d);
    return b.Build();
  };
  std::vector<double> ours, theirs;
  for (int i = 0; i < (o.impl.empty() ? 2 : 0); ++i) {
    {
      OursRig rig;
      rig.security().AddServerContext("s", builder("s", "c"));
      net::SocketOptions options;
      options.security_context_id = "s";
      const int port = FreePort();
      rig.transport().Listen(net::Endpoint("ssl://127.0.0.1:" + std::to_string(port)), options,
                             [](const error_code&, const net::ConnectionPtr&) { return false; });
      ours.push_back(SessionsPerSecond(Run(sTime + std::to_string(port) + " 2>&1")));
    }
    // s_server asks for the client's certificate, as our server does.
    const int port = FreePort();
    const std::string pid =
        Background("taskset -c 0 openssl s_server -quiet -Verify 1 -accept 127.0.0.1:" +
                   std::to_string(port) + " -cert " + dir + "/s.pem -key " + dir + "/s.key");
    AwaitListener(port);
    theirs.push_back(SessionsPerSecond(Run(sTime + std::to_string(port) + " 2>&1")));
    Stop(pid);
  }
  std::printf("tls   handshakes      ours %7.0f /s    s_server %5.0f /s ratio %.2f (target >= 0.80)\n",
              Median(ours), Median(theirs), Median(ours) / Median(theirs));

  // Bulk: s_client pipes the same bytes into our server and into s_server.
  const uint64_t total = static_cast<uint64_t>(o.streamMib) << 20;
  auto pipe = [&](int port) {
    return "taskset -c 1 head -c " + std::to_string(total) +
           " /dev/zero | taskset -c 1 openssl s_client -quiet -no_ign_eof -tls1_2 -cipher "
           "ECDHE-ECDSA-AES256-GCM-SHA384" + clientCert + " -connect 127.0.0.1:" +
           std::to_string(port) + " > /dev/null 2>&1";
  };
  double oursMib = 0;
  {
    OursRig rig;
    rig.security().AddServerContext("s", builder("s", "c"));
    net::SocketOptions options;
    options.security_context_id = "s";
    Tally counted;
    counted.Expect(total);
    const int port = FreePort();
    rig.transport().Listen(net::Endpoint("ssl://127.0.0.1:" + std::to_string(port)), options,
                           [&](const error_code&, const net::ConnectionPtr& c) {
                             if (c) std::make_shared<OursEcho>(c, true, &counted)->Start();
                             return true;
                           });
    const Clock::time_point start = Clock::now();
    std::thread client([&] { Run(pipe(port)); });
    counted.WaitForTarget();
    oursMib = o.streamMib / std::chrono::duration<double>(Clock::now() - start).count();
    client.join();
  }
  const int port = FreePort();
  const std::string pid =
      Background("taskset -c 0 openssl s_server -quiet -Verify 1 -accept 127.0.0.1:" +
                 std::to_string(port) + " -cert " + dir + "/s.pem -key " + dir + "/s.key");
  AwaitListener(port);
  const Clock::time_point start = Clock::now();
  Run(pipe(port));
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  Stop(pid);
  const double theirMib = seconds > 0 ? o.streamMib / seconds : 0;
  std::printf("tls   bulk from s_client  ours %7.0f MiB/s s_server %5.0f MiB/s ratio %.2f\n",
              oursMib, theirMib, theirMib > 0 ? oursMib / theirMib : 0);
  Run("rm -rf " + dir);
}

// ---------------------------------------------------------------------------
// Memory

long RssKib() {
  FILE* f = std::fopen("/proc/self/status", "r");
  char line[256];
  long kib = 0;
  while (f && std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, "VmRSS:", 6) == 0) kib = std::atol(line + 6);
  }
  if (f) std::fclose(f);
  return kib;
}

void MemoryBench(const Options& o) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  OursRig rig;
  std::vector<net::ConnectionPtr> keep;
  std::mutex mutex;
  std::condition_variable grown;
  rig.transport().Listen(net::Endpoint("tcp://127.0.0.1:0"), {},
                         [&](const error_code&, const net::ConnectionPtr& c) {
                           std::lock_guard<std::mutex> lock(mutex);
                           if (c) keep.push_back(c);
                           grown.notify_all();
                           return true;
                         });
  const std::string target = rig.transport().ListeningAddress(net::Endpoint("tcp://127.0.0.1:0"));
  // Warm up: the first connections bring the event loop's own structures.
  auto add = [&](int n) {
    for (int i = 0; i < n; ++i) {
      net::ConnectionPtr c = rig.Connect(target);
      std::lock_guard<std::mutex> lock(mutex);
      keep.push_back(c);
    }
  };
  add(20);
  const long before = RssKib();
  add(o.idle);
  {
    std::unique_lock<std::mutex> lock(mutex);
    grown.wait(lock, [&] { return keep.size() >= static_cast<size_t>(2 * (o.idle + 20)); });
  }
  const long after = RssKib();
  std::printf("mem   idle connections %d (client and server end each): RSS +%ld KiB, "
              "%.0f bytes per connection end\n",
              o.idle, after - before, 1024.0 * (after - before) / (2.0 * o.idle));
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    const char* value = argv[i + 1];
    if (flag == "--rounds") o.rounds = std::atoi(value);
    if (flag == "--trips") o.trips = std::atoi(value);
    if (flag == "--stream-mib") o.streamMib = std::atoi(value);
    if (flag == "--tls-seconds") o.tlsSeconds = std::atoi(value);
    if (flag == "--idle") o.idle = std::atoi(value);
    if (flag == "--only") o.only = value;
    if (flag == "--impl") o.impl = value;
  }
  if (o.only.empty() || o.only == "echo") EchoBench(o);
  if (o.only.empty() || o.only == "tls") TlsBench(o);
  if (o.only.empty() || o.only == "memory") MemoryBench(o);
  return 0;
}
