// ChannelScheduler: decides which channel's op queue runs next and for how
// long, so that a busy low-priority channel can't starve a high one and the
// ops of one channel stay serial.
//
// Channels, not ops, are queued: one queue per ChannelPriority, served by
// weight in cycles (high 5, normal 2, low 1), and a channel runs at most its
// batch of ops in one turn (high 10, normal 5, low 1). A run takes at most 5
// turns, then posts the next run so that other work of the dispatcher gets
// its turn.
//
// AsioChannelScheduler posts its runs to a dispatcher: one run is posted at a
// time, so the channels of one scheduler run on one thread at a time.
//
// Threads: Schedule may be called from any thread (with the channel's lock
// held: the channel's lock is taken before the scheduler's); runs happen on
// the dispatcher's threads.
#ifndef ZEL_RPC_CHANNEL_SCHEDULER_H_
#define ZEL_RPC_CHANNEL_SCHEDULER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/rpc/rpc_metrics.h"
#include "cpp/lib/rpc/zel_rpc_message.h"

namespace zel {

class Dispatcher;

namespace rpc {

class ChannelImpl;

// Ops a channel of `priority` may run in one turn: 1, 5 or 10; 0 out of range.
std::size_t BatchSize(ChannelPriority priority);

class ChannelScheduler {
 public:
  explicit ChannelScheduler(const metrics::MetricKeyPtr& metricsRoot = nullptr);
  virtual ~ChannelScheduler();
  ChannelScheduler(const ChannelScheduler&) = delete;
  ChannelScheduler& operator=(const ChannelScheduler&) = delete;

  // Queues `channel` by its priority (the channel has marked itself pending)
  // and starts a run if none is posted. An unknown priority aborts.
  void Schedule(const boost::shared_ptr<ChannelImpl>& channel);
  // Serves channels; see the top of this file.
  void Run();

  // "RpcChannelScheduler[<id>]".
  const std::string& name() const { return name_; }

 protected:
  // Starts a run of Run() later.
  virtual void ScheduleRun() = 0;

 private:
  struct Entry {
    boost::weak_ptr<ChannelImpl> channel;
    std::chrono::steady_clock::time_point queued;
  };
  struct Queue {
    std::deque<Entry> entries;
    int weight;
    int served = 0;
    ChannelPriority priority;
    CounterSet metrics;
  };

  // The next channel by weight, or none when every queue is empty.
  bool Next_(Entry* out) REQUIRES(mutex_);
  bool Try_(Entry* out) REQUIRES(mutex_);

  const std::string name_;
  Mutex mutex_;
  // high, normal, low: the order of the weighted search.
  Queue queues_[3] GUARDED_BY(mutex_);
  std::size_t nextIndex_ GUARDED_BY(mutex_) = 0;
  bool running_ GUARDED_BY(mutex_) = false;
};

class AsioChannelScheduler : public ChannelScheduler,
                             public std::enable_shared_from_this<AsioChannelScheduler> {
 public:
  explicit AsioChannelScheduler(boost::shared_ptr<Dispatcher> dispatcher,
                                const metrics::MetricKeyPtr& metricsRoot = nullptr);

 protected:
  void ScheduleRun() override;

 private:
  const boost::shared_ptr<Dispatcher> dispatcher_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CHANNEL_SCHEDULER_H_
