// The RPC framework beside gRPC, from one schema (echo.proto), one process
// pair each, over TCP loopback, rounds alternating between the two; with the
// client and the server pinned to one core each, and unpinned:
//   unary round trip, 64 B: p50 and p99;
//   a client stream of 64 B, 4 KiB and 64 KiB messages: messages per second,
//   and 64 KiB beside a raw TCP stream of the same bytes;
//   1000 client streams at once on one connection: messages per second and
//   memory per stream.
//
//   build/default/bench/rpc_grpc_bench [--rounds 3] [--quick] [--only zel|grpc]
//
// The servers are this program again: rpc_grpc_bench --serve zel|grpc|raw PORT [CPU].
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <malloc.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <grpcpp/grpcpp.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/stub_factory.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "echo.grpc.pb.h"
#include "echo.zelrpc.pb.h"

namespace {

using Clock = std::chrono::steady_clock;
using orvane::zel::bench::EchoMessage;
namespace zr = zel::rpc;

constexpr int kZelPort = 47101;
constexpr int kGrpcPort = 47102;
constexpr int kRawPort = 47103;

void Pin(int cpu) {
  if (cpu < 0) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}

// Heap bytes in use (malloc's own count): unlike the resident size it is not
// hidden by memory that earlier phases freed, but it counts reservations that
// are never touched.
double HeapKiB() { return static_cast<double>(mallinfo2().uordblks) / 1024; }

long RssKiB() {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

// Dispatcher threads of each side of our framework (ZEL_BENCH_THREADS, 1 by
// default): with one, a step posted from the loop stays on its thread.
std::size_t ZelThreads() {
  const char* n = std::getenv("ZEL_BENCH_THREADS");
  return n != nullptr && std::atoi(n) > 0 ? static_cast<std::size_t>(std::atoi(n)) : 1;
}

void WaitStdinEof() {
  char c;
  while (read(0, &c, 1) > 0) {
  }
}

// ---------------------------------------------------------------------------
// Servers

class ZelEcho : public orvane::zel::bench::zelrpc::Echo::Service {
 public:
  void Say(const zr::ServerContext&, const EchoMessage& request,
           const zr::StreamWriterPtr<EchoMessage>& writer) override {
    writer->Complete(request, zr::RpcStatus::Success());
  }
  zr::CallObserverPtr<EchoMessage> Upload(const zr::ServerContext&,
                                          const zr::StreamWriterPtr<EchoMessage>& writer) override {
    struct Counter : zr::CallObserver<EchoMessage> {
      zr::StreamWriterPtr<EchoMessage> writer;
      uint64_t count = 0;
      void Next(const EchoMessage&) override { ++count; }
      void RemoteStatus(const zr::RpcStatus&) override {
        EchoMessage reply;
        reply.set_count(count);
        writer->Complete(reply, zr::RpcStatus::Success());
      }
    };
    auto counter = std::make_shared<Counter>();
    counter->writer = writer;
    return counter;
  }
};

class GrpcEcho final : public orvane::zel::bench::Echo::Service {
 public:
  grpc::Status Say(grpc::ServerContext*, const EchoMessage* request, EchoMessage* reply) override {
    *reply = *request;
    return grpc::Status::OK;
  }
  grpc::Status Upload(grpc::ServerContext*, grpc::ServerReader<EchoMessage>* reader,
                      EchoMessage* reply) override {
    EchoMessage m;
    uint64_t count = 0;
    while (reader->Read(&m)) ++count;
    reply->set_count(count);
    return grpc::Status::OK;
  }
};

int ServeRaw(int port) {
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listener, 4) != 0) {
    return 1;
  }
  std::printf("ready\n");
  std::fflush(stdout);
  std::thread([listener] {
    for (;;) {
      int c = accept(listener, nullptr, nullptr);
      if (c < 0) return;
      std::vector<char> buffer(1 << 20);
      while (read(c, buffer.data(), buffer.size()) > 0) {
      }
      char done = 1;
      (void)!write(c, &done, 1);
      close(c);
    }
  }).detach();
  WaitStdinEof();
  return 0;
}

int Serve(const std::string& kind, int port, int cpu) {
  Pin(cpu);
  if (kind == "raw") return ServeRaw(port);
  if (kind == "grpc") {
    GrpcEcho service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("127.0.0.1:" + std::to_string(port),
                             grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    if (!server) return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    WaitStdinEof();
    server->Shutdown();
    return 0;
  }
  auto provider = zr::AsioZelRpcProvider::Create(boost::property_tree::ptree());
  provider->GetRegistry()->RegisterService(std::make_shared<ZelEcho>());
  if (provider->GetTransport()->Listen("tcp://127.0.0.1:" + std::to_string(port),
                                       zr::ConnectionOptions(), nullptr)) {
    return 1;
  }
  provider->Run(ZelThreads(), false);
  std::printf("ready\n");
  std::fflush(stdout);
  WaitStdinEof();
  return 0;
}

// A server process of this program; ended when the object goes.
class ServerProcess {
 public:
  ServerProcess(const char* self, const std::string& kind, int port, int cpu) {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      close(in[1]);
      close(out[0]);
      const std::string p = std::to_string(port), c = std::to_string(cpu);
      execl(self, self, "--serve", kind.c_str(), p.c_str(), c.c_str(), nullptr);
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    char buffer[64];
    const ssize_t n = read(out[0], buffer, sizeof buffer);
    close(out[0]);
    if (n <= 0 || std::strncmp(buffer, "ready", 5) != 0) {
      std::fprintf(stderr, "server %s did not start\n", kind.c_str());
      std::exit(1);
    }
  }
  ~ServerProcess() {
    close(input_);
    int status = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (Clock::now() > deadline) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::yield();
    }
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

// ---------------------------------------------------------------------------
// Clients: the same operations on either framework.

class Client {
 public:
  virtual ~Client() = default;
  virtual void Unary(const EchoMessage& m) = 0;
  // One stream of `n` copies of `m`; false if the server counted otherwise.
  virtual bool Stream(const EchoMessage& m, int n) = 0;
  // `streams` streams at once, `n` messages each; `opened` runs once all are
  // open and before any message goes.
  virtual bool ManyStreams(const EchoMessage& m, int streams, int n,
                           const std::function<void()>& opened) = 0;
};

class ZelClient : public Client {
 public:
  ZelClient() : provider_(zr::AsioZelRpcProvider::Create(boost::property_tree::ptree())) {
    provider_->Run(ZelThreads(), false);
    auto done = std::make_shared<std::promise<std::shared_ptr<orvane::zel::bench::zelrpc::Echo::Stub>>>();
    auto creator = zr::StubFactory(provider_).MakeCreator<orvane::zel::bench::zelrpc::Echo::Stub>(
        "tcp://127.0.0.1:" + std::to_string(kZelPort), zr::ChannelPriority::NORMAL, 10000,
        zel::RetryPolicy(10, 100, 2.0));
    creator->Create([done](const boost::system::error_code& ec,
                           std::shared_ptr<orvane::zel::bench::zelrpc::Echo::Stub> stub) {
      done->set_value(ec ? nullptr : stub);
    });
    stub_ = done->get_future().get();
    if (!stub_) std::abort();
  }
  void Unary(const EchoMessage& m) override {
    if (!stub_->Say(zr::ClientContext(), m, observer_)->Wait(std::chrono::seconds(10)).ok()) {
      std::abort();
    }
  }
  bool Stream(const EchoMessage& m, int n) override {
    auto reply = std::make_shared<Reply>();
    auto writer = stub_->Upload(zr::ClientContext(), reply);
    for (int i = 0; i < n; ++i) writer->Write(m);
    writer->Done(zr::RpcStatus::Success());
    return writer->Wait(std::chrono::seconds(60)).ok() && reply->count == uint64_t(n);
  }
  bool ManyStreams(const EchoMessage& m, int streams, int n,
                   const std::function<void()>& opened) override {
    std::vector<std::shared_ptr<Reply>> replies;
    std::vector<zr::StreamWriterPtr<EchoMessage>> writers;
    for (int s = 0; s < streams; ++s) {
      replies.push_back(std::make_shared<Reply>());
      writers.push_back(stub_->Upload(zr::ClientContext(), replies.back()));
    }
    opened();
    for (int i = 0; i < n; ++i) {
      for (auto& w : writers) w->Write(m);
    }
    bool ok = true;
    for (auto& w : writers) w->Done(zr::RpcStatus::Success());
    for (int s = 0; s < streams; ++s) {
      ok = writers[s]->Wait(std::chrono::seconds(60)).ok() && replies[s]->count == uint64_t(n) && ok;
    }
    return ok;
  }

 private:
  struct Reply : zr::CallObserver<EchoMessage> {
    std::atomic<uint64_t> count{0};
    void Next(const EchoMessage& m) override { count = m.count(); }
  };
  std::shared_ptr<zr::AsioZelRpcProvider> provider_;
  std::shared_ptr<orvane::zel::bench::zelrpc::Echo::Stub> stub_;
  const zr::CallObserverPtr<EchoMessage> observer_ = std::make_shared<zr::CallObserver<EchoMessage>>();
};

class GrpcClient : public Client {
 public:
  GrpcClient()
      : stub_(orvane::zel::bench::Echo::NewStub(grpc::CreateChannel(
            "127.0.0.1:" + std::to_string(kGrpcPort), grpc::InsecureChannelCredentials()))) {}
  void Unary(const EchoMessage& m) override {
    grpc::ClientContext context;
    EchoMessage reply;
    if (!stub_->Say(&context, m, &reply).ok()) std::abort();
  }
  bool Stream(const EchoMessage& m, int n) override {
    grpc::ClientContext context;
    EchoMessage reply;
    auto writer = stub_->Upload(&context, &reply);
    for (int i = 0; i < n; ++i) writer->Write(m);
    writer->WritesDone();
    return writer->Finish().ok() && reply.count() == uint64_t(n);
  }
  // The callback API: no thread per stream.
  bool ManyStreams(const EchoMessage& m, int streams, int n,
                   const std::function<void()>& opened) override {
    struct Upload : grpc::ClientWriteReactor<EchoMessage> {
      const EchoMessage* message;
      int left;
      grpc::ClientContext context;
      EchoMessage reply;
      std::mutex* mutex;
      std::condition_variable* done;
      int* finished;
      bool ok = false;
      void Next() {
        if (left-- > 0) {
          StartWrite(message);
        } else {
          StartWritesDone();
        }
      }
      void OnWriteDone(bool ok_) override {
        if (ok_) Next();
      }
      void OnDone(const grpc::Status& s) override {
        ok = s.ok();
        std::lock_guard<std::mutex> lock(*mutex);
        ++*finished;
        done->notify_all();
      }
    };
    std::mutex mutex;
    std::condition_variable done;
    int finished = 0;
    std::vector<std::unique_ptr<Upload>> uploads;
    for (int s = 0; s < streams; ++s) {
      auto u = std::make_unique<Upload>();
      u->message = &m;
      u->left = n;
      u->mutex = &mutex;
      u->done = &done;
      u->finished = &finished;
      stub_->async()->Upload(&u->context, &u->reply, u.get());
      u->StartCall();
      uploads.push_back(std::move(u));
    }
    opened();
    for (auto& u : uploads) u->Next();
    std::unique_lock<std::mutex> lock(mutex);
    done.wait_for(lock, std::chrono::seconds(120), [&] { return finished == streams; });
    bool ok = finished == streams;
    for (auto& u : uploads) ok = ok && u->ok && u->reply.count() == uint64_t(n);
    return ok;
  }

 private:
  std::unique_ptr<orvane::zel::bench::Echo::Stub> stub_;
};

// Seconds to send `bytes` bytes (in `chunk` writes) over a plain socket to
// the raw sink, until it has read them all.
double RawStream(std::size_t chunk, int n) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(kRawPort);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) std::abort();
  std::vector<char> buffer(chunk, 'r');
  const auto start = Clock::now();
  for (int i = 0; i < n; ++i) {
    for (std::size_t off = 0; off < chunk;) {
      const ssize_t w = write(s, buffer.data() + off, chunk - off);
      if (w <= 0) std::abort();
      off += static_cast<std::size_t>(w);
    }
  }
  shutdown(s, SHUT_WR);
  char done;
  (void)!read(s, &done, 1);
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  close(s);
  return seconds;
}

EchoMessage Message(std::size_t bytes) {
  EchoMessage m;
  m.set_data(std::string(bytes, 'x'));
  return m;
}

struct Figures {
  std::map<std::string, std::vector<double>> values;
  void Add(const std::string& name, double v) { values[name].push_back(v); }
  double Median(const std::string& name) {
    std::vector<double> v = values[name];
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
  }
};

struct Sizes {
  int unary = 20000;
  int small = 200000;
  int medium = 20000;
  int large = 2000;
  int streams = 1000;
  int perStream = 50;
};

void Measure(const char* self, const std::string& kind, bool pinned, const Sizes& n, Figures& f) {
  const int port = kind == "zel" ? kZelPort : kGrpcPort;
  ServerProcess server(self, kind, port, pinned ? 1 : -1);
  std::unique_ptr<Client> client;
  if (kind == "zel") {
    client = std::make_unique<ZelClient>();
  } else {
    client = std::make_unique<GrpcClient>();
  }
  const EchoMessage small = Message(64);
  for (int i = 0; i < n.unary / 10; ++i) client->Unary(small);  // warm-up
  std::vector<double> rtt;
  rtt.reserve(n.unary);
  for (int i = 0; i < n.unary; ++i) {
    const auto t = Clock::now();
    client->Unary(small);
    rtt.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t).count());
  }
  std::sort(rtt.begin(), rtt.end());
  f.Add(kind + " unary p50 us", rtt[rtt.size() / 2]);
  f.Add(kind + " unary p99 us", rtt[rtt.size() * 99 / 100]);

  const struct {
    const char* name;
    std::size_t bytes;
    int count;
  } streams[] = {{"64B", 64, n.small}, {"4KiB", 4096, n.medium}, {"64KiB", 65536, n.large}};
  for (const auto& s : streams) {
    const EchoMessage m = Message(s.bytes);
    const auto t = Clock::now();
    if (!client->Stream(m, s.count)) std::fprintf(stderr, "%s stream %s miscounted\n", kind.c_str(), s.name);
    const double seconds = std::chrono::duration<double>(Clock::now() - t).count();
    f.Add(kind + " stream " + s.name + " msg/s", s.count / seconds);
    if (s.bytes == 65536) f.Add(kind + " stream 64KiB MiB/s", s.count * 64.0 / 1024 / seconds);
  }

  // Memory: the client's heap growth once the streams are open, before any
  // message.
  const double before = HeapKiB();
  const long rssBefore = RssKiB();
  double open = before;
  long rssOpen = rssBefore;
  const auto t = Clock::now();
  if (!client->ManyStreams(small, n.streams, n.perStream, [&] {
        open = HeapKiB();
        rssOpen = RssKiB();
      })) {
    std::fprintf(stderr, "%s: %d streams miscounted\n", kind.c_str(), n.streams);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - t).count();
  f.Add(kind + " 1000 streams msg/s", double(n.streams) * n.perStream / seconds);
  f.Add(kind + " 1000 streams heap KiB/str", std::max(0.0, open - before) / n.streams);
  f.Add(kind + " 1000 streams RSS KiB/str", double(std::max(0L, rssOpen - rssBefore)) / n.streams);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::string(argv[1]) == "--serve") {
    return Serve(argv[2], std::atoi(argv[3]), argc >= 5 ? std::atoi(argv[4]) : -1);
  }
  signal(SIGPIPE, SIG_IGN);
  zel::log_testing::SetUpLoggerForTest("ERROR", "DEVLOG", nullptr);
  int rounds = 3;
  Sizes sizes;
  std::vector<const char*> kinds = {"zel", "grpc"};
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]);
    // One framework only, for a profile: --only zel
    if (std::string(argv[i]) == "--only" && i + 1 < argc) kinds = {argv[++i]};
    if (std::string(argv[i]) == "--quick") sizes = Sizes{2000, 20000, 2000, 200, 100, 20};
  }
  for (bool pinned : {true, false}) {
    Figures f;
    Pin(pinned ? 0 : -1);
    if (!pinned) {
      cpu_set_t all;
      CPU_ZERO(&all);
      for (int c = 0; c < CPU_SETSIZE; ++c) CPU_SET(c, &all);
      sched_setaffinity(0, sizeof all, &all);
    }
    for (int r = 0; r < rounds; ++r) {
      for (const char* kind : kinds) Measure(argv[0], kind, pinned, sizes, f);
      ServerProcess raw(argv[0], "raw", kRawPort, pinned ? 1 : -1);
      f.Add("raw stream 64KiB MiB/s", sizes.large * 64.0 / 1024 / RawStream(65536, sizes.large));
    }
    std::printf("\n== %s (median of %d rounds)\n", pinned ? "pinned: client cpu 0, server cpu 1"
                                                          : "unpinned", rounds);
    std::printf("%-28s %14s %14s %8s\n", "measure", "zel", "grpc", "ratio");
    for (const char* m : {"unary p50 us", "unary p99 us", "stream 64B msg/s", "stream 4KiB msg/s",
                          "stream 64KiB msg/s", "1000 streams msg/s", "1000 streams heap KiB/str",
                          "1000 streams RSS KiB/str"}) {
      const double z = f.Median(std::string("zel ") + m), g = f.Median(std::string("grpc ") + m);
      std::printf("%-28s %14.1f %14.1f %8.2f\n", m, z, g, g > 0 ? z / g : 0.0);
    }
    const double raw = f.Median("raw stream 64KiB MiB/s");
    std::printf("%-28s %14.1f %14.1f %8s\n", "stream 64KiB MiB/s", f.Median("zel stream 64KiB MiB/s"),
                f.Median("grpc stream 64KiB MiB/s"), "");
    std::printf("%-28s %14.1f   zel/raw %.2f   grpc/raw %.2f\n", "raw TCP 64KiB MiB/s", raw,
                raw > 0 ? f.Median("zel stream 64KiB MiB/s") / raw : 0.0,
                raw > 0 ? f.Median("grpc stream 64KiB MiB/s") / raw : 0.0);
  }
  return 0;
}
