#include "cpp/lib/rpc/channel_scheduler.h"

#include <atomic>
#include <cstdlib>
#include <utility>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/not_reached.h"
#include "cpp/lib/rpc/channel_impl.h"

namespace zel {
namespace rpc {
namespace {

using Clock = std::chrono::steady_clock;

// Turns of channels in one run before the dispatcher gets its turn.
constexpr int kTurnsPerRun = 5;

std::string NextName() {
  static std::atomic<uint32_t> next{0};
  return "RpcChannelScheduler[" + std::to_string(next.fetch_add(1)) + "]";
}

CounterSet QueueMetrics(const metrics::MetricKeyPtr& root, ChannelPriority priority) {
  if (!root) return CounterSet();
  return CounterSet(root->subkey("rpc/channel_scheduler"),
                    metrics::InstanceName({{"priority", ToString(priority)}}), {"scheduled"}, {},
                    {"queue/latency"});
}

}  // namespace

std::size_t BatchSize(ChannelPriority priority) {
  switch (priority) {
    case ChannelPriority::LOW: return 1;
    case ChannelPriority::NORMAL: return 5;
    case ChannelPriority::HIGH: return 10;
  }
  return 0;
}

ChannelScheduler::ChannelScheduler(const metrics::MetricKeyPtr& metricsRoot) : name_(NextName()) {
  MutexLock lock(mutex_);
  queues_[0] = Queue{{}, 5, 0, ChannelPriority::HIGH, QueueMetrics(metricsRoot, ChannelPriority::HIGH)};
  queues_[1] = Queue{{}, 2, 0, ChannelPriority::NORMAL, QueueMetrics(metricsRoot, ChannelPriority::NORMAL)};
  queues_[2] = Queue{{}, 1, 0, ChannelPriority::LOW, QueueMetrics(metricsRoot, ChannelPriority::LOW)};
}

ChannelScheduler::~ChannelScheduler() = default;

void ChannelScheduler::Schedule(const boost::shared_ptr<ChannelImpl>& channel) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Schedule %s", name_.c_str(), channel->ToString().c_str());
  bool start = false;
  {
    MutexLock lock(mutex_);
    Queue* queue = nullptr;
    for (Queue& q : queues_) {
      if (q.priority == channel->priority()) queue = &q;
    }
    if (!queue) NOT_REACHED();  // a priority out of range
    queue->entries.push_back(Entry{channel, Clock::now()});
    queue->metrics.Mark(0);
    start = !running_;
    running_ = true;
  }
  if (start) ScheduleRun();
}

bool ChannelScheduler::Try_(Entry* out) {
  const std::size_t n = sizeof queues_ / sizeof queues_[0];
  for (std::size_t step = 0; step < n; ++step) {
    const std::size_t i = (nextIndex_ + step) % n;
    Queue& q = queues_[i];
    if (q.served >= q.weight || q.entries.empty()) continue;
    *out = std::move(q.entries.front());
    q.entries.pop_front();
    q.metrics.Record(0, static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                                  Clock::now() - out->queued)
                                                  .count()));
    ++q.served;
    nextIndex_ = (i + 1) % n;
    return true;
  }
  return false;
}

bool ChannelScheduler::Next_(Entry* out) {
  if (Try_(out)) return true;
  // A new cycle: every queue's quota again, from the top.
  for (Queue& q : queues_) q.served = 0;
  nextIndex_ = 0;
  return Try_(out);
}

void ChannelScheduler::Run() {
  ZEL_RPC_LOG(kLogVerbose).format("%s Run start", name_.c_str());
  for (int turns = kTurnsPerRun; turns > 0; --turns) {
    Entry entry;
    {
      MutexLock lock(mutex_);
      if (!Next_(&entry)) {
        running_ = false;
        ZEL_RPC_LOG(kLogVerbose).format("%s Run end", name_.c_str());
        return;
      }
    }
    boost::shared_ptr<ChannelImpl> channel = entry.channel.lock();
    if (!channel) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Not processing channel because it has been destructed",
                                      name_.c_str());
      continue;
    }
    const std::size_t batch = BatchSize(channel->priority());
    ZEL_RPC_LOG(kLogVerbose).format("%s Processing %s batch size %zu", name_.c_str(),
                                    channel->ToString().c_str(), batch);
    channel->ProcessOpQueue(batch);
    channel->TurnEnded();
  }
  // If work is left the next run is posted, so that other work of the
  // dispatcher gets its turn; otherwise the next Schedule posts one.
  bool more = false;
  {
    MutexLock lock(mutex_);
    for (const Queue& q : queues_) more = more || !q.entries.empty();
    if (!more) running_ = false;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Run end", name_.c_str());
  if (more) ScheduleRun();
}

AsioChannelScheduler::AsioChannelScheduler(boost::shared_ptr<Dispatcher> dispatcher,
                                           const metrics::MetricKeyPtr& metricsRoot)
    : ChannelScheduler(metricsRoot), dispatcher_(std::move(dispatcher)) {}

void AsioChannelScheduler::ScheduleRun() {
  ZEL_RPC_LOG(kLogVerbose).format("%s Posting channel scheduler task", name().c_str());
  std::weak_ptr<AsioChannelScheduler> weak = weak_from_this();
  const std::string name = this->name();
  dispatcher_->Post([weak, name] {
    if (auto self = weak.lock()) {
      self->Run();
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s Skip running - already released", name.c_str());
    }
  });
}

}  // namespace rpc
}  // namespace zel
