// WorkGroup: a fixed pool of threads that run WorkItems from one FIFO queue.
//
// It is for work that may block for a long time and so must not run on a
// dispatcher thread, such as the client's event loop. The process has one
// group, "framework", with 10 threads and an unbounded queue; see
// StartFrameworkWorkGroup below.
//
//   zel::RefPtr<zel::WorkGroup> group =
//       zel::MakeRefCounted<zel::WorkGroup>("io", registry, zel::WorkGroup::kUnbounded);
//   group->Start(4);
//   if (!group->Push(zel::MakeWorkItem(loop, &EventLoop::Run))) { /* queue full */ }
//   group->Stop();  // runs what is queued, then ends the threads
//
// Threads. Push, Stop and the accessors may be called from any thread,
// including from inside a running item; Start once, from any thread. Run is
// called with no lock of the group held. A Push wakes at most one idle
// thread. Items start in the order of Push; with several threads they
// overlap. An item that never returns holds its thread for ever, and Stop
// then blocks until the item is made to return.
//
// Failures. An exception that escapes WorkItem::Run is caught by the group
// and logged at ERROR, tagged "errorCode:CMNLIB9999", as
// "Exception in WorkGroup[<name>]::Run: <what>" (or without ": <what>" for an
// exception that is not a std::exception). The item counts as processed, the
// thread goes on with the next item, and no other item is lost: a Run that
// may fail should handle the failure itself; this is the net under it.
//
// Metrics, under the namespace key of the registry given to the constructor:
//   work_group/queue/length          unit counter: +1 at Push, -1 at take
//   work_group/queue/enqueue_freq    frequency: each Push
//   work_group/queue/dequeue_freq    frequency: each take
//   work_group/item/queued_time      latency (µs): from Push to take
//   work_group/item/processing_time  latency (µs): duration of Run
//   work_group/thread/idle_count     unit counter: +1 before a thread sleeps, -1 after
// Groups made on one registry share these metrics.
#ifndef ZEL_COMMON_WORKGROUP_WORK_GROUP_H_
#define ZEL_COMMON_WORKGROUP_WORK_GROUP_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/common/ref_counted.h"

namespace boost {
class thread;
}  // namespace boost

namespace zel {

namespace metrics {
class MetricRegistry;
}  // namespace metrics

class WorkGroup;

// One unit of work. Reference counted: the queue holds a reference until the
// item has run.
class WorkItem : public RefCounted<WorkItem, IRefCountable> {
 public:
  ~WorkItem() override;

  virtual void Run() = 0;

  // Steady-clock time of the last Push of this item.
  std::chrono::steady_clock::time_point enqueueTime() const { return enqueueTime_; }

 protected:
  WorkItem() = default;

 private:
  friend class WorkGroup;
  std::chrono::steady_clock::time_point enqueueTime_{};  // written under the queue lock
};

// Runs `(target->*method)()`, holding a reference to `target` until the item
// is released.
template <class T>
class WorkItemImpl : public WorkItem {
 public:
  using Method = void (T::*)();

  WorkItemImpl(RefPtr<T> target, Method method) : target_(std::move(target)), method_(method) {}

  void Run() override { ((*target_).*method_)(); }

 private:
  RefPtr<T> target_;
  Method method_;
};

template <class T>
RefPtr<WorkItem> MakeWorkItem(RefPtr<T> target, void (T::*method)()) {
  return RefPtr<WorkItem>(new WorkItemImpl<T>(std::move(target), method));
}

class WorkGroup : public RefCounted<WorkGroup, IRefCountable> {
 public:
  static constexpr int32_t kUnbounded = -1;

  // `maxQueueSize` is the most items waiting at once, or kUnbounded; any
  // other negative number throws std::invalid_argument. The metrics are made
  // here; a key of the same name with a value of another type throws
  // std::runtime_error.
  WorkGroup(std::string name, metrics::MetricRegistry& registry,
            int32_t maxQueueSize = kUnbounded);
  // Stops the group as Stop does and releases the threads. Run on one of the
  // group's own threads (an item dropped the last reference), it waits for
  // the other threads only and lets its own end by itself.
  ~WorkGroup() override;

  WorkGroup(const WorkGroup&) = delete;
  WorkGroup& operator=(const WorkGroup&) = delete;

  // Starts `numThreads` threads; 0 starts none, and queued items then never
  // run. A second Start throws std::logic_error; a failure to make a thread
  // throws boost::thread_resource_error, with the threads made so far running.
  void Start(uint32_t numThreads);

  // Queues `item` and returns true, or returns false, logging nothing, when
  // the queue is full. After Stop the item is queued and nothing runs it. A
  // null item throws std::invalid_argument.
  [[nodiscard]] bool Push(RefPtr<WorkItem> item);

  // Lets the threads run everything queued so far, then end; returns when all
  // have ended. Called on one of the group's threads, it throws
  // boost::thread_resource_error "boost thread: trying joining itself"
  // (EDEADLK), the threads having been told to end.
  void Stop();

  const std::string& name() const;
  int32_t maxQueueSize() const;
  uint32_t numThreads() const;
  // Items waiting to be taken.
  size_t QueueLength() const;

 private:
  struct State;

  // The body of each thread. The threads share State with the group, so that
  // a group destroyed by one of its own threads does not pull the queue away
  // from under the others.
  static void ThreadBody_(std::shared_ptr<State> state);
  static void RunItem_(State& state, WorkItem& item);
  void JoinThreads_(bool detachOwn) EXCLUDES(threadsMutex_);

  const std::shared_ptr<State> state_;
  Mutex threadsMutex_;
  bool started_ GUARDED_BY(threadsMutex_) = false;
  std::vector<std::unique_ptr<boost::thread>> threads_ GUARDED_BY(threadsMutex_);
};

// The process-wide group.
inline constexpr char kFrameworkWorkGroupName[] = "framework";
inline constexpr uint32_t kFrameworkWorkGroupThreads = 10;

// Makes the group "framework" with an unbounded queue on `registry`, starts
// it with `numThreads` threads and keeps it as the process-wide group, which
// it returns. Throws std::logic_error while a framework group exists.
RefPtr<WorkGroup> StartFrameworkWorkGroup(metrics::MetricRegistry& registry,
                                          uint32_t numThreads = kFrameworkWorkGroupThreads);
// The process-wide group; empty before StartFrameworkWorkGroup and after
// StopFrameworkWorkGroup.
RefPtr<WorkGroup> GetFrameworkWorkGroup();
// Stops the process-wide group (Stop: what is queued still runs) and clears
// it; nothing happens when there is none. Items that run meanwhile may still
// reach the group through GetFrameworkWorkGroup. Must not be called from an
// item of that group (see Stop). The process-wide group is never destroyed by
// the exit of the process: a program that wants its items finished calls
// this before it returns.
void StopFrameworkWorkGroup();

}  // namespace zel

#endif  // ZEL_COMMON_WORKGROUP_WORK_GROUP_H_
