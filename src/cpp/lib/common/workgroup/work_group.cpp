#include "cpp/lib/common/workgroup/work_group.h"

#include <cerrno>
#include <deque>
#include <stdexcept>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <boost/throw_exception.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"

namespace zel {

using metrics::FrequencyCounter;
using metrics::LatencyCounter;
using metrics::Metric;
using metrics::UnitCounter;

struct WorkGroup::State {
  State(std::string groupName, metrics::MetricRegistry& registry, int32_t maxQueue)
      : name(std::move(groupName)),
        logName("WorkGroup[" + name + "]"),
        runWhere(logName + "::Run"),
        maxQueueSize(maxQueue),
        queueLength(registry.root()->subkey("work_group/queue/length"), "items"),
        enqueueFreq(registry.root()->subkey("work_group/queue/enqueue_freq")),
        dequeueFreq(registry.root()->subkey("work_group/queue/dequeue_freq")),
        queuedTime(registry.root()->subkey("work_group/item/queued_time")),
        processingTime(registry.root()->subkey("work_group/item/processing_time")),
        idleCount(registry.root()->subkey("work_group/thread/idle_count"), "threads") {}

  const std::string name;
  const std::string logName;
  const std::string runWhere;
  const int32_t maxQueueSize;
  std::atomic<uint32_t> numThreads{0};
  std::atomic<int32_t> idleThreads{0};

  mutable boost::mutex queueMutex;
  // Threads sleep on it with queueMutex, so that a Push cannot slip between
  // a thread's look at the queue and its sleep.
  boost::condition_variable wake;
  bool running = false;                 // guarded by queueMutex
  std::deque<RefPtr<WorkItem>> queue;  // guarded by queueMutex

  Metric<UnitCounter> queueLength;
  Metric<FrequencyCounter> enqueueFreq;
  Metric<FrequencyCounter> dequeueFreq;
  Metric<LatencyCounter> queuedTime;
  Metric<LatencyCounter> processingTime;
  Metric<UnitCounter> idleCount;
};

namespace {

// The group whose thread this is, if any.
thread_local const void* tls_ownGroup = nullptr;

}  // namespace

WorkItem::~WorkItem() = default;

WorkGroup::WorkGroup(std::string name, metrics::MetricRegistry& registry, int32_t maxQueueSize)
    : state_(std::make_shared<State>(std::move(name), registry, maxQueueSize)) {
  if (maxQueueSize < kUnbounded) {
    throw std::invalid_argument(state_->logName + ": bad maxQueueSize " +
                                std::to_string(maxQueueSize));
  }
}

WorkGroup::~WorkGroup() {
  try {
    {
      boost::lock_guard<boost::mutex> lock(state_->queueMutex);
      state_->running = false;
    }
    state_->wake.notify_all();
    JoinThreads_(true);
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, "WorkGroup::~WorkGroup");
  }
  // A thread left joinable by a failed join is let go rather than joined.
  for (auto& thread : threads_) {
    if (thread->joinable()) thread->detach();
  }
}

void WorkGroup::Start(uint32_t numThreads) {
  MutexLock threadsLock(threadsMutex_);
  if (started_) throw std::logic_error(state_->logName + ": already started");
  started_ = true;
  {
    boost::lock_guard<boost::mutex> lock(state_->queueMutex);
    state_->running = true;
    state_->numThreads = numThreads;
  }
  threads_.reserve(numThreads);
  for (uint32_t i = 0; i < numThreads; ++i) {
    threads_.push_back(std::make_unique<boost::thread>(&WorkGroup::ThreadBody_, state_));
  }
  ZEL_CORE_LOG(kLogInfo).format("%s: started %u threads", state_->logName.c_str(), numThreads);
}

bool WorkGroup::Push(RefPtr<WorkItem> item) {
  if (!item) throw std::invalid_argument(state_->logName + ": null work item");
  State& s = *state_;
  boost::lock_guard<boost::mutex> lock(s.queueMutex);
  if (s.maxQueueSize != kUnbounded && s.queue.size() >= static_cast<size_t>(s.maxQueueSize)) {
    return false;
  }
  item->enqueueTime_ = std::chrono::steady_clock::now();
  s.queue.push_back(std::move(item));
  s.queueLength->increment();
  s.enqueueFreq->mark();
  if (s.idleThreads.load(std::memory_order_relaxed) > 0) s.wake.notify_one();
  return true;
}

void WorkGroup::Stop() {
  {
    boost::lock_guard<boost::mutex> lock(state_->queueMutex);
    state_->running = false;
  }
  state_->wake.notify_all();
  if (tls_ownGroup == state_.get()) {
    // This thread would wait for itself. Checked before any join, so that a
    // Stop running elsewhere is not left waiting for this one.
    boost::throw_exception(
        boost::thread_resource_error(EDEADLK, "boost thread: trying joining itself"));
  }
  JoinThreads_(false);
}

void WorkGroup::JoinThreads_(bool detachOwn) {
  MutexLock threadsLock(threadsMutex_);
  bool joined = false;
  for (auto& thread : threads_) {
    if (!thread->joinable()) continue;
    joined = true;
    if (detachOwn && thread->get_id() == boost::this_thread::get_id()) {
      thread->detach();
    } else {
      thread->join();
    }
  }
  if (joined) ZEL_CORE_LOG(kLogInfo).format("%s: stopped", state_->logName.c_str());
}

const std::string& WorkGroup::name() const { return state_->name; }

int32_t WorkGroup::maxQueueSize() const { return state_->maxQueueSize; }

uint32_t WorkGroup::numThreads() const { return state_->numThreads.load(); }

size_t WorkGroup::QueueLength() const {
  boost::lock_guard<boost::mutex> lock(state_->queueMutex);
  return state_->queue.size();
}

void WorkGroup::ThreadBody_(std::shared_ptr<State> state) {
  State& s = *state;
  tls_ownGroup = &s;
  boost::unique_lock<boost::mutex> lock(s.queueMutex);
  for (;;) {
    while (!s.queue.empty()) {
      RefPtr<WorkItem> item = std::move(s.queue.front());
      s.queue.pop_front();
      const auto taken = std::chrono::steady_clock::now();
      s.queueLength->decrement();
      s.dequeueFreq->mark();
      s.queuedTime->record(taken - item->enqueueTime_);
      lock.unlock();
      RunItem_(s, *item);
      // The item's destructor may do anything, Push included: not under the lock.
      item.reset();
      lock.lock();
    }
    if (!s.running) break;
    s.idleThreads.fetch_add(1, std::memory_order_relaxed);
    s.idleCount->increment();
    s.wake.wait(lock);
    s.idleThreads.fetch_sub(1, std::memory_order_relaxed);
    s.idleCount->decrement();
  }
  tls_ownGroup = nullptr;
}

void WorkGroup::RunItem_(State& s, WorkItem& item) {
  const auto start = std::chrono::steady_clock::now();
  try {
    item.Run();
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, s.runWhere.c_str());
  }
  s.processingTime->record(std::chrono::steady_clock::now() - start);
}

namespace {

// Never destroyed: an exit of the process must not wait for items that may
// never return.
std::mutex& FrameworkMutex() {
  static std::mutex* mutex = new std::mutex();
  return *mutex;
}
RefPtr<WorkGroup>& FrameworkGroup() {
  static RefPtr<WorkGroup>* group = new RefPtr<WorkGroup>();
  return *group;
}

}  // namespace

RefPtr<WorkGroup> StartFrameworkWorkGroup(metrics::MetricRegistry& registry, uint32_t numThreads) {
  std::lock_guard<std::mutex> lock(FrameworkMutex());
  if (FrameworkGroup()) {
    throw std::logic_error(std::string("WorkGroup[") + kFrameworkWorkGroupName +
                           "]: already created");
  }
  RefPtr<WorkGroup> group =
      MakeRefCounted<WorkGroup>(kFrameworkWorkGroupName, registry, WorkGroup::kUnbounded);
  group->Start(numThreads);
  FrameworkGroup() = group;
  return group;
}

RefPtr<WorkGroup> GetFrameworkWorkGroup() {
  std::lock_guard<std::mutex> lock(FrameworkMutex());
  return FrameworkGroup();
}

void StopFrameworkWorkGroup() {
  RefPtr<WorkGroup> group = GetFrameworkWorkGroup();
  if (!group) return;
  // Not under the mutex: the items that still run may look the group up.
  group->Stop();
  std::lock_guard<std::mutex> lock(FrameworkMutex());
  if (FrameworkGroup() == group) FrameworkGroup().reset();
}

}  // namespace zel
