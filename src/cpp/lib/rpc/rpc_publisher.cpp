#include "cpp/lib/rpc/rpc_publisher.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <deque>
#include <mutex>

#include <boost/property_tree/ptree.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/serializer.h"
#include "cpp/lib/rpc/stub_factory.h"
#include "cpp/lib/timer/timer.h"
#include "cpp/lib/timer/timer_factory.h"
#include "orvane/zel/metrics/zel_metrics.zelrpc.pb.h"

namespace zel {
namespace rpc {

namespace {

using Collector = ::orvane::zel::metrics::MetricsCollector;
using ::orvane::zel::metrics::MetricKeyMsg;
using ::orvane::zel::metrics::MetricsReportMsg;
using ::orvane::zel::metrics::MetricValueMsg;

void Fill(const metrics::BasicSerializer& s, MetricValueMsg* v) {
  if (s.type().set) v->set_type(s.type().value);
  if (s.timestamp().set) v->set_timestamp(s.timestamp().value);
  if (s.units().set) v->set_units(s.units().value);
  if (s.value().set) v->set_value(s.value().value);
  for (const auto& tag : s.tags()) {
    auto* t = v->add_tag();
    t->set_key(tag.first);
    t->set_value(tag.second);
  }
#define ZEL_COPY(field) \
  if (s.field().set) v->set_##field(s.field().value)
  ZEL_COPY(value_last);
  ZEL_COPY(value_num);
  ZEL_COPY(value_min);
  ZEL_COPY(value_max);
  ZEL_COPY(value_sum);
  ZEL_COPY(value_rate);
  ZEL_COPY(sample_last);
  ZEL_COPY(sample_num);
  ZEL_COPY(sample_min);
  ZEL_COPY(sample_max);
  ZEL_COPY(sample_sum);
  ZEL_COPY(sample_avg);
  ZEL_COPY(sample_rate);
  ZEL_COPY(sample_freq);
  ZEL_COPY(sample_twa);
  ZEL_COPY(sample_p50);
  ZEL_COPY(sample_p95);
  ZEL_COPY(sample_p99);
#undef ZEL_COPY
}

bool SystemHostName(std::string* name) {
  char buffer[1024];
  if (gethostname(buffer, sizeof buffer) != 0) return false;
  buffer[sizeof buffer - 1] = '\0';
  *name = buffer;
  return true;
}

}  // namespace

std::string RpcPublisherOptions::ToString() const {
  char text[512];
  std::snprintf(text, sizeof text, "{ endpoint:'%s', max_report_queue_size:%zu, tags:%u }", endpoint.c_str(),
                max_report_queue_size, static_cast<unsigned>(tags.size()));
  return text;
}

RpcPublisherOptions RpcPublisherOptions::FromTree(const boost::property_tree::ptree& node,
                                                  const std::string& appName) {
  RpcPublisherOptions o;
  o.endpoint = node.get<std::string>("endpoint", kDefaultEndpoint);
  if (const auto text = node.get_optional<std::string>("max_report_queue_size")) {
    const auto n = node.get_optional<std::size_t>("max_report_queue_size");
    if (n && *n > 0 && text->find('-') == std::string::npos) {
      o.max_report_queue_size = *n;
    } else {
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher: Options - invalid max_report_queue_size '%s'",
                                       text->c_str());
    }
  }
  if (const auto tags = node.get_child_optional("tags")) {
    o.tags.clear();
    for (const auto& tag : *tags) {
      if (tag.first != "tag") continue;
      auto key = tag.second.get_optional<std::string>("key");
      auto value = tag.second.get_optional<std::string>("value");
      if (!key) key = tag.second.get_optional<std::string>("<xmlattr>.key");
      if (!value) value = tag.second.get_optional<std::string>("<xmlattr>.value");
      if (!key || !value || key->empty()) {
        ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher: Options - skipping tag '%s' - no key/value",
                                         key ? key->c_str() : tag.second.data().c_str());
        continue;
      }
      o.tags.emplace_back(*key, *value);
    }
  }
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher: adding tag app='%s'", appName.c_str());
  o.tags.emplace_back("app", appName);
  return o;
}

struct RpcPublisher::Impl : std::enable_shared_from_this<RpcPublisher::Impl> {
  Impl(RpcPublisherOptions o, std::shared_ptr<Transport> t, std::shared_ptr<ChannelFactoryInterface> c,
       std::shared_ptr<TimerFactory> tf, HostName h)
      : options(std::move(o)),
        transport(std::move(t)),
        channels(std::move(c)),
        timers(std::move(tf)),
        hostname(h ? std::move(h) : HostName(SystemHostName)),
        retry(options.retry) {}

  // The end of a call, seen through a watcher that holds the publisher weakly.
  struct CallWatcher : CallObserver<::orvane::zel::VoidMsg> {
    std::weak_ptr<Impl> impl;
    std::atomic<bool> ended{false};
    void CallStatus(const RpcStatus& status) override {
      ended = true;
      if (auto self = impl.lock()) self->OnCallStatus(status);
    }
  };

  class KeyReporter : public metrics::Reporter {
   public:
    KeyReporter(std::shared_ptr<Impl> impl, MetricKeyMsg* node, bool top)
        : impl_(std::move(impl)), node_(node), top_(top) {}
    std::unique_ptr<metrics::Reporter> subkey(const std::string& name) override {
      ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - subkey '%s'", name.c_str());
      MetricKeyMsg* child = node_->add_subkey();
      child->set_name(name);
      return std::make_unique<KeyReporter>(impl_, child, false);
    }
    void report(const std::string& path, const metrics::MetricKey&, const metrics::BasicSerializer& s) override {
      if (!s.value().set) {
        ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - ignoring empty '%s'", path.c_str());
        return;
      }
      const std::string instance = s.instance();
      if (!instance.empty()) {
        ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - reporting '%s'[%s]", path.c_str(),
                                          instance.c_str());
        MetricKeyMsg* child = node_->add_subkey();
        child->set_name(instance);
        Fill(s, child->mutable_value());
      } else {
        ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - reporting '%s'", path.c_str());
        Fill(s, node_->mutable_value());
      }
    }
    void done() override {
      if (top_) impl_->Queue();
    }

   private:
    const std::shared_ptr<Impl> impl_;
    MetricKeyMsg* const node_;
    const bool top_;
  };

  void RequestStub() {
    std::shared_ptr<StubCreator<Collector::Stub>> c;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (destroyed) return;
      const std::string service = Collector::Stub::ServiceName();
      c = std::make_shared<StubCreator<Collector::Stub>>(
          std::make_shared<ChannelCreator>(transport, channels, options.endpoint, service, ChannelPriority::NORMAL),
          // One attempt: the publisher's own policy spaces the tries.
          timers, service, options.endpoint, ChannelPriority::NORMAL, options.stub_timeout_ms,
          RetryPolicy(0, 0, 1.0, 0));
      creator = c;
    }
    ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - requesting new stub");
    std::weak_ptr<Impl> weak = shared_from_this();
    c->Create([weak](const boost::system::error_code& ec, std::shared_ptr<Collector::Stub> stub) {
      auto self = weak.lock();
      if (!self) {
        ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - ignoring SetStub - already destroyed");
        return;
      }
      self->SetStub(ec, std::move(stub));
    });
  }

  void SetStub(const boost::system::error_code& ec, std::shared_ptr<Collector::Stub> s) {
    if (ec) {
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher - couldn't get stub");
      RetryGetStub();
      return;
    }
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - got stub");
    {
      std::lock_guard<std::mutex> lock(mutex);
      retry.Reset();
      stub = std::move(s);
    }
    StartCall();
  }

  // Runs `step` after `delayMs` on the dispatcher, holding this weakly.
  void After(int64_t delayMs, void (Impl::*step)()) {
    std::weak_ptr<Impl> weak = shared_from_this();
    pending = timers->CreateTimer(std::chrono::milliseconds(delayMs), [weak, step] {
      if (auto self = weak.lock()) ((*self).*step)();
    });
  }

  void RetryGetStub() {
    std::lock_guard<std::mutex> lock(mutex);
    if (destroyed) return;
    const int64_t delay = retry.NextDelay();
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - retrying to get stub in %li ms",
                                     static_cast<long>(delay));
    if (delay >= 0) After(delay, &Impl::RequestStub);
  }

  void StartCall() {
    std::shared_ptr<Collector::Stub> s;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (destroyed) {
        ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - ignoring StartCall - already destroyed");
        return;
      }
      if (!stub) {
        ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - ignoring StartCall - no stub");
        return;
      }
      if (call || starting) {
        ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - ignoring StartCall - already started");
        return;
      }
      starting = true;
      s = stub;
    }
    // Opened outside the lock: a call that cannot start may report its end
    // at once, and that takes the lock.
    auto watcher = std::make_shared<CallWatcher>();
    watcher->impl = shared_from_this();
    StreamWriterPtr<MetricsReportMsg> opened = s->Report(ClientContext(), watcher);
    std::lock_guard<std::mutex> lock(mutex);
    starting = false;
    if (watcher->ended || destroyed) return;
    call = std::move(opened);
    while (!queue.empty()) {
      ZEL_METRICS_LOG(kLogVerbose).format("Metrics: RpcPublisher - sending queued report");
      SendFrontLocked();
    }
  }

  void SendFrontLocked() {
    const RpcStatus sent = call->Write(queue.front());
    queue.pop_front();
    if (sent.ok()) {
      restartsWithoutReport = 0;
    } else {
      ++dropped;
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher - report not sent: %s (%llu dropped so far)",
                                       sent.ToString().c_str(), static_cast<unsigned long long>(dropped));
    }
  }

  void OnCallStatus(const RpcStatus& status) {
    std::lock_guard<std::mutex> lock(mutex);
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - CallStatus %s", status.ToString().c_str());
    call.reset();
    if (destroyed) return;
    if (status.code() == StatusCode::COMMUNICATION_ERROR) {
      ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - not restarting call for status %s",
                                       status.ToString().c_str());
      stub.reset();
      const int64_t delay = retry.NextDelay();
      ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - retrying to get stub in %li ms",
                                       static_cast<long>(delay));
      if (delay >= 0) After(delay, &Impl::RequestStub);
      return;
    }
    ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - restarting call for status %s",
                                     status.ToString().c_str());
    // A collector that ends every call at once must not make a busy loop:
    // the second restart in a row without a report waits like a retry.
    After(restartsWithoutReport++ == 0 ? 0 : retry.NextDelay(), &Impl::StartCall);
  }

  void Queue() {
    std::lock_guard<std::mutex> lock(mutex);
    ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - queuing report");
    queue.push_back(report);
    while (queue.size() > options.max_report_queue_size) {
      queue.pop_front();
      ++dropped;
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher - dropped the oldest report (%llu so far)",
                                       static_cast<unsigned long long>(dropped));
    }
    if (call) {
      ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - sending report");
      while (!queue.empty()) SendFrontLocked();
    }
  }

  const RpcPublisherOptions options;
  const std::shared_ptr<Transport> transport;
  const std::shared_ptr<ChannelFactoryInterface> channels;
  const std::shared_ptr<TimerFactory> timers;
  const HostName hostname;

  std::mutex mutex;
  // Guarded by mutex.
  RetryPolicy retry;
  std::shared_ptr<StubCreator<Collector::Stub>> creator;
  std::shared_ptr<Collector::Stub> stub;
  StreamWriterPtr<MetricsReportMsg> call;
  TimerPtr pending;
  std::deque<MetricsReportMsg> queue;
  uint64_t dropped = 0;
  int restartsWithoutReport = 0;
  bool starting = false;  // a call is being opened outside the lock
  bool destroyed = false;
  // Built by the cycle's reporters, on the cycle's thread only.
  MetricsReportMsg report;
};

RpcPublisher::RpcPublisher(RpcPublisherOptions options, std::shared_ptr<Transport> transport,
                           std::shared_ptr<ChannelFactoryInterface> channels, std::shared_ptr<TimerFactory> timers,
                           HostName hostname)
    : impl_(std::make_shared<Impl>(std::move(options), std::move(transport), std::move(channels),
                                   std::move(timers), std::move(hostname))) {
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher %s", impl_->options.ToString().c_str());
}

RpcPublisher::~RpcPublisher() {
  StreamWriterPtr<MetricsReportMsg> call;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->destroyed = true;
    call = std::move(impl_->call);
    if (impl_->pending) impl_->pending->Cancel();
  }
  // The reports written so far go before the end of the stream.
  if (call) call->Done(RpcStatus::Success());
}

void RpcPublisher::Start() {
  ZEL_METRICS_LOG(kLogInfo).format("Metrics: RpcPublisher - Start");
  impl_->RequestStub();
}

std::unique_ptr<metrics::Reporter> RpcPublisher::GetReporter() {
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - starting report");
  MetricsReportMsg& report = impl_->report;
  report.Clear();
  for (const auto& tag : impl_->options.tags) {
    auto* t = report.add_tag();
    t->set_key(tag.first);
    std::string value = tag.second;
    if (tag.first == "source" && value.empty() && !impl_->hostname(&value)) {
      const int e = errno;
      ZEL_METRICS_LOG(kLogWarn).format("Metrics: RpcPublisher - failed to get host name: %i-%s", e,
                                       ErrnoText(e).c_str());
      value = "unknown";
    }
    t->set_value(value);
  }
  report.mutable_root()->set_name("/");
  ZEL_METRICS_LOG(kLogDebug).format("Metrics: RpcPublisher - new KeyReporter '%s'", "/");
  return std::make_unique<Impl::KeyReporter>(impl_, report.mutable_root(), true);
}

uint64_t RpcPublisher::dropped() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->dropped;
}

const RpcPublisherOptions& RpcPublisher::options() const { return impl_->options; }

}  // namespace rpc
}  // namespace zel
