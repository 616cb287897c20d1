// The RPC framework's costs, all in one run:
//
//   frame      building a frame (ZelRpcMessage::Serialize) and reading one
//              (header, body, parse) for 64 B, 4 KiB and 64 KiB payloads:
//              ns per frame and operator new calls per frame. Parse alone is
//              shown apart from the read buffers.
//   pipe       two RpcConnections over TCP loopback, one sending 4 KiB
//              frames of one stream and the other taking them through a
//              stream forwarder, beside two bare net Connections moving the
//              same bytes (the receiver reads whole frames). Same window of
//              frames in flight, same threads, alternating rounds; the
//              figure is the median over the rounds.
//   scheduler  ops per second through one channel, and through 100 channels
//              of mixed priority with the share of ops each priority got
//              while all were busy.
//
//   rpc_bench [--rounds N] [--frames N] [--ops N] [--only frame|pipe|scheduler]
//             [--impl ours|bare]
//
// --impl runs one side of the pipe rounds only, for a profiler.
//
// Targets: one allocation to build a frame, none to parse it; the pipe at
// least 0.85 of the bare connection's throughput.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/buffer.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/net/net_name_resolver.h"
#include "cpp/lib/net/net_transport.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/channel_scheduler.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_connection.h"
#include "cpp/lib/rpc/zel_rpc_message.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "probes.h"

namespace {

using Clock = std::chrono::steady_clock;
using boost::system::error_code;
namespace net = zel::net;
namespace rpc = zel::rpc;

struct Options {
  int rounds = 5;
  int frames = 100000;
  int ops = 2000000;
  std::string only;
  // "ours" or "bare": run only that side of the pipe rounds (for profiling).
  std::string impl;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

double Seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

// ---------------------------------------------------------------------------
// Frames

rpc::ZelRpcMessage PayloadMessage(std::size_t size) {
  rpc::ZelRpcMessage m;
  m.SetStreamId(rpc::StreamId{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}});
  m.frame.mutable_rpc_msg()->set_call_id(7);
  std::vector<char> bytes(size, 'x');
  m.SetPayload(zel::MakeRefCounted<zel::SharedBuffer>(bytes.data(), bytes.size()));
  return m;
}

void FrameBench(const Options& o) {
  std::printf("%-8s %12s %12s %12s %12s %12s %12s\n", "payload", "build ns", "build allocs",
              "read ns", "read allocs", "parse ns", "parse allocs");
  for (std::size_t size : {std::size_t{64}, std::size_t{4096}, std::size_t{65536}}) {
    const int n = size > 4096 ? o.ops / 40 : o.ops / 4;
    const rpc::ZelRpcMessage message = PayloadMessage(size);

    uint64_t before = zel::bench::ThreadAllocations();
    Clock::time_point start = Clock::now();
    std::size_t sink = 0;
    for (int i = 0; i < n; ++i) sink += rpc::ZelRpcMessage::Serialize(message)->size();
    const double buildNs = Seconds(start) * 1e9 / n;
    const double buildAllocs = double(zel::bench::ThreadAllocations() - before) / n;

    // Reading: the header into a fresh frame, the body sized from it and
    // filled, then parsed; as a connection does with each frame.
    const rpc::RpcFramePtr wire = rpc::ZelRpcMessage::Serialize(message);
    double parseSeconds = 0;
    uint64_t parseAllocs = 0;
    before = zel::bench::ThreadAllocations();
    start = Clock::now();
    for (int i = 0; i < n; ++i) {
      rpc::RpcFramePtr frame = rpc::RpcFrame::ForRead();
      std::memcpy(frame->data(), wire->data(), rpc::kHeaderSize);
      frame->AllocateBody();
      std::memcpy(frame->body().data, wire->data() + rpc::kHeaderSize, frame->body().size);
      const uint64_t parseBefore = zel::bench::ThreadAllocations();
      const Clock::time_point parseStart = Clock::now();
      rpc::ZelRpcMessage in;
      if (!rpc::ZelRpcMessage::Parse(frame, &in)) std::abort();
      sink += in.payload_view().size;
      parseSeconds += Seconds(parseStart);
      parseAllocs += zel::bench::ThreadAllocations() - parseBefore;
    }
    const double readNs = Seconds(start) * 1e9 / n;
    const double readAllocs = double(zel::bench::ThreadAllocations() - before) / n;
    std::printf("%-8zu %12.0f %12.2f %12.0f %12.2f %12.0f %12.2f%s\n", size, buildNs, buildAllocs,
                readNs, readAllocs, parseSeconds * 1e9 / n, double(parseAllocs) / n,
                sink ? "" : " ");
  }
  std::printf("(targets: 1 allocation to build, 0 to parse; parse ns includes two clock reads)\n");
}

// ---------------------------------------------------------------------------
// Pipe

// Frames in flight between sender and receiver: the sender waits at
// `limit` until the receiver has taken half of them.
class Window {
 public:
  explicit Window(int limit) : limit_(limit) {}
  void Acquire() {
    if (inFlight_.fetch_add(1) + 1 < limit_) return;
    std::unique_lock<std::mutex> lock(mutex_);
    waiting_ = true;
    drained_.wait(lock, [&] { return inFlight_.load() <= limit_ / 2; });
    waiting_ = false;
  }
  void Release() {
    if (inFlight_.fetch_sub(1) - 1 != limit_ / 2) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (waiting_) drained_.notify_one();
  }
  void WaitEmpty() {
    std::unique_lock<std::mutex> lock(mutex_);
    waiting_ = true;
    while (inFlight_.load() > 0) drained_.wait_for(lock, std::chrono::milliseconds(1));
    waiting_ = false;
  }

 private:
  const int limit_;
  std::atomic<int> inFlight_{0};
  std::mutex mutex_;
  std::condition_variable drained_;
  bool waiting_ = false;
};

constexpr int kWindow = 64;

// What RpcConnections need of a transport, no more.
class BenchTransport : public rpc::TransportInterface {
 public:
  std::vector<std::string> LocalEndpointIds() override { return {"bench"}; }
  bool IsLocalEndpointId(const std::string& id) override { return id == "bench"; }
  rpc::ServiceRegistry* Registry() override { return &registry_; }
  rpc::ChannelFactoryInterface* Channels() override { return nullptr; }
  void ConnectionSettings(const boost::shared_ptr<rpc::RpcConnection>&,
                          const std::vector<std::string>&, const std::vector<std::string>&) override {}
  void UnregisterConnection(const rpc::RpcConnection&) override {}
  bool ForwardingEnabled() override { return false; }
  bool SetupForwarding(const boost::shared_ptr<rpc::RpcConnection>&, const std::string&,
                       const rpc::ZelRpcMessage&, const rpc::RpcFramePtr&) override {
    return false;
  }

 private:
  rpc::RpcServiceRegistry registry_;
};

// Takes the frames of the stream and opens the window.
class CountingForwarder : public rpc::StreamForwarder {
 public:
  CountingForwarder(rpc::StreamId id, Window* window) : id_(id), window_(window) {}
  void Release(std::optional<rpc::CloseReason>) override {}
  bool Forward(const rpc::RpcFramePtr&, const boost::shared_ptr<rpc::RpcConnection>&) override {
    window_->Release();
    return true;
  }
  uint32_t GetPriority() const override { return 64; }
  const rpc::StreamId& GetStreamId() const override { return id_; }

 private:
  const rpc::StreamId id_;
  Window* window_;
};

// A dispatcher thread, a net transport and a listener on TCP loopback.
class PipeRig {
 public:
  PipeRig()
      : dispatcher_(boost::make_shared<zel::AsioDispatcher>()),
        timers_(std::make_shared<zel::AsioTimerFactory>(dispatcher_->GetIoContextHandle())),
        resolver_(std::make_shared<net::NetNameResolver>(dispatcher_->GetIoContextHandle())),
        net_(std::make_shared<net::NetTransport>(net::NetTransport::Params{
            dispatcher_, dispatcher_->GetIoContextHandle(), timers_, resolver_, nullptr,
            registry_.root()})) {
    dispatcher_->Run(1, false);
    net_->Listen(net::Endpoint(kListen), {}, [this](const error_code&, const net::ConnectionPtr& c) {
      if (c) accepted_.set_value(c);
      return false;
    });
    target_ = net_->ListeningAddress(net::Endpoint(kListen));
  }
  ~PipeRig() {
    net_->Shutdown();
    resolver_->Shutdown();
    dispatcher_->StopAndWait(false);
  }

  // A connection to the listener, not yet connected.
  net::ConnectionPtr NewConnection() {
    return net_->NewConnection(net::Endpoint(target_), {}).value();
  }
  // The connection the listener accepted.
  net::ConnectionPtr Accepted() { return accepted_.get_future().get(); }

  // Both ends of one connection, connected.
  std::pair<net::ConnectionPtr, net::ConnectionPtr> Pair() {
    net::ConnectionPtr c = NewConnection();
    std::promise<error_code> done;
    c->Connect([&](const error_code& ec) { done.set_value(ec); });
    if (done.get_future().get()) std::abort();
    return {c, Accepted()};
  }

  boost::shared_ptr<rpc::RpcConnection> Rpc(const net::ConnectionPtr& c, int direction) {
    rpc::RpcConnection::Params p;
    p.id = direction + 1;
    p.net = c;
    p.direction = direction;
    p.transport = transport_;
    p.dispatcher = dispatcher_;
    p.timers = timers_;
    p.metrics_root = registry_.root();
    return rpc::RpcConnection::Create(std::move(p));
  }

 private:
  static constexpr const char* kListen = "tcp://127.0.0.1:0";
  zel::metrics::MetricRegistry registry_;
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_;
  std::shared_ptr<zel::AsioTimerFactory> timers_;
  std::shared_ptr<net::NetNameResolver> resolver_;
  std::shared_ptr<net::NetTransport> net_;
  std::shared_ptr<BenchTransport> transport_ = std::make_shared<BenchTransport>();
  std::promise<net::ConnectionPtr> accepted_;
  std::string target_;
};

// MiB/s of 4 KiB-payload frames from one RpcConnection to another.
double OursPipe(const Options& o) {
  PipeRig rig;
  auto sender = rig.Rpc(rig.NewConnection(), 0);
  std::promise<error_code> negotiated[2];
  sender->AsyncConnect([&](const error_code& ec) { negotiated[0].set_value(ec); });
  auto receiver = rig.Rpc(rig.Accepted(), 1);
  receiver->Accept([&](const error_code& ec) { negotiated[1].set_value(ec); });
  if (negotiated[0].get_future().get() || negotiated[1].get_future().get()) std::abort();

  const rpc::RpcFramePtr frame = rpc::ZelRpcMessage::Serialize(PayloadMessage(4096));
  Window window(kWindow);
  if (!receiver->AddStreamForwarder(
          frame->stream_id(), std::make_shared<CountingForwarder>(frame->stream_id(), &window))) {
    std::abort();
  }
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < o.frames; ++i) {
    window.Acquire();
    if (!sender->Send(frame, 64).ok()) std::abort();
  }
  window.WaitEmpty();
  const double mib = double(frame->size()) * o.frames / (1 << 20);
  const double rate = mib / Seconds(start);
  sender->Close(rpc::CloseReason::CLOSED_BY_USER);
  receiver->Close(rpc::CloseReason::CLOSED_BY_USER);
  return rate;
}

// Reads whole frames of `size` bytes and opens the window for each.
class FrameReader : public std::enable_shared_from_this<FrameReader> {
 public:
  FrameReader(net::ConnectionPtr c, std::size_t size, Window* window)
      : c_(std::move(c)), buffer_(zel::MakeRefCounted<zel::SharedBuffer>(size)), window_(window) {}
  void Start() {
    auto self = shared_from_this();
    c_->Read(net::IoBuffer(buffer_), buffer_->size(), net::kReadFill,
             [self](const error_code& ec, std::size_t) {
               if (ec) return;
               self->window_->Release();
               self->Start();
             });
  }

 private:
  net::ConnectionPtr c_;
  zel::SharedBufferPtr buffer_;
  Window* window_;
};

// MiB/s of the same frames' bytes between two bare net Connections.
double BarePipe(const Options& o) {
  PipeRig rig;
  auto [out, in] = rig.Pair();
  const rpc::RpcFramePtr frame = rpc::ZelRpcMessage::Serialize(PayloadMessage(4096));
  Window window(kWindow);
  std::make_shared<FrameReader>(in, frame->size(), &window)->Start();
  const Clock::time_point start = Clock::now();
  for (int i = 0; i < o.frames; ++i) {
    window.Acquire();
    out->Write(net::IoBuffer(frame->data(), frame->size(), frame), [](const error_code&, std::size_t) {});
  }
  window.WaitEmpty();
  const double mib = double(frame->size()) * o.frames / (1 << 20);
  const double rate = mib / Seconds(start);
  out->Close(net::CloseReason::BY_USER);
  in->Close(net::CloseReason::BY_USER);
  return rate;
}

void PipeBench(const Options& o) {
  std::vector<double> ours, bare;
  for (int i = 0; i < o.rounds; ++i) {
    if (o.impl != "bare") ours.push_back(OursPipe(o));
    if (o.impl != "ours") bare.push_back(BarePipe(o));
  }
  std::printf("pipe 4 KiB frames  RpcConnection %7.0f MiB/s  net Connection %7.0f MiB/s  "
              "ratio %.2f (target >= 0.85)\n",
              Median(ours), Median(bare), Median(ours) / Median(bare));
}

// ---------------------------------------------------------------------------
// Scheduler

// Ops per second through `channels`, each holding `perChannel` ops before
// the dispatcher starts; `counts[p]` gets the ops each priority ran among
// the first `window` ops.
double RunChannels(const std::vector<rpc::ChannelPriority>& priorities, int perChannel,
                   int window, int counts[3]) {
  auto dispatcher = boost::make_shared<zel::AsioDispatcher>();
  auto timers = std::make_shared<zel::AsioTimerFactory>(dispatcher->GetIoContextHandle());
  auto scheduler = std::make_shared<rpc::AsioChannelScheduler>(dispatcher);
  rpc::ChannelFactory factory(scheduler, nullptr, timers, nullptr);
  const int total = perChannel * static_cast<int>(priorities.size());
  int ran = 0;  // ops run on the single dispatcher thread
  std::promise<void> done;
  std::vector<boost::shared_ptr<rpc::ChannelImpl>> channels;
  for (rpc::ChannelPriority p : priorities) {
    auto c = factory.CreateClientChannel("tcp://bench:1", "s", nullptr, p);
    for (int i = 0; i < perChannel; ++i) {
      c->AppendOp([&, p] {
        if (ran < window) ++counts[static_cast<int>(p)];
        if (++ran == total) done.set_value();
      });
    }
    channels.push_back(c);
  }
  const Clock::time_point start = Clock::now();
  dispatcher->Run(1, false);
  done.get_future().wait();
  const double rate = total / Seconds(start);
  dispatcher->StopAndWait(false);
  return rate;
}

void SchedulerBench(const Options& o) {
  int one[3] = {};
  const double single = RunChannels({rpc::ChannelPriority::NORMAL}, o.ops, 0, one);
  std::printf("scheduler one channel        %10.0f ops/s\n", single);

  std::vector<rpc::ChannelPriority> mixed;
  for (int i = 0; i < 100; ++i) mixed.push_back(static_cast<rpc::ChannelPriority>(i % 3));
  const int perChannel = o.ops / 100;
  // While every channel still has ops: the low channels run one op a turn,
  // so they are the last to drain.
  const int window = perChannel * 34 / 2;
  int counts[3] = {};
  const double rate = RunChannels(mixed, perChannel, window, counts);
  std::printf("scheduler 100 channels       %10.0f ops/s  (34 low, 33 normal, 33 high)\n", rate);
  const char* names[3] = {"low", "normal", "high"};
  for (int p = 2; p >= 0; --p) {
    std::printf("  share %-6s %5.1f %% of the first %d ops\n", names[p], 100.0 * counts[p] / window,
                window);
  }
  std::printf("  (a cycle of the three queues serves 5x10 high, 2x5 normal, 1x1 low: "
              "82.0 / 16.4 / 1.6 %%)\n");
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--rounds") o.rounds = std::atoi(argv[i + 1]);
    else if (flag == "--frames") o.frames = std::atoi(argv[i + 1]);
    else if (flag == "--ops") o.ops = std::atoi(argv[i + 1]);
    else if (flag == "--only") o.only = argv[i + 1];
    else if (flag == "--impl") o.impl = argv[i + 1];
    else {
      std::fprintf(stderr, "usage: rpc_bench [--rounds N] [--frames N] [--ops N] "
                           "[--only frame|pipe|scheduler] [--impl ours|bare]\n");
      return 2;
    }
  }
  if (o.only.empty() || o.only == "frame") FrameBench(o);
  if (o.only.empty() || o.only == "pipe") PipeBench(o);
  if (o.only.empty() || o.only == "scheduler") SchedulerBench(o);
  return 0;
}
