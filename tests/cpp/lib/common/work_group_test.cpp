#include "cpp/lib/common/workgroup/work_group.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/thread/exceptions.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/logger_test_util.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace {

using log_test::SyslogCapture;
using Clock = std::chrono::steady_clock;

constexpr auto kDeadline = std::chrono::seconds(10);

// A one-way gate with a bounded wait.
class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, kDeadline, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Counts down to zero; Wait returns false if it is not reached in time.
class Countdown {
 public:
  explicit Countdown(int n) : left_(n) {}
  void Done() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--left_ == 0) cv_.notify_all();
  }
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, kDeadline, [this] { return left_ <= 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  int left_;
};

class FunctionItem : public WorkItem {
 public:
  explicit FunctionItem(std::function<void()> fn) : fn_(std::move(fn)) {}
  void Run() override { fn_(); }

 private:
  std::function<void()> fn_;
};

RefPtr<WorkItem> Item(std::function<void()> fn) {
  return RefPtr<WorkItem>(new FunctionItem(std::move(fn)));
}

void BusyFor(std::chrono::microseconds d) {
  const auto end = Clock::now() + d;
  while (Clock::now() < end) std::this_thread::yield();
}

metrics::BasicSerializer Current(metrics::MetricRegistry& registry, const std::string& path) {
  metrics::BasicSerializer out;
  EXPECT_TRUE(registry.root()->subkey(path)->report(out, true)) << path;
  return out;
}

class WorkGroupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_testing::SetSyslogSinkForTest(&SyslogCapture::Sink);
    log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");
    SyslogCapture::Take();
  }
  void TearDown() override { log_testing::SetSyslogSinkForTest(nullptr); }

  RefPtr<WorkGroup> Make(int32_t maxQueueSize = WorkGroup::kUnbounded) {
    return MakeRefCounted<WorkGroup>("test", registry_, maxQueueSize);
  }

  metrics::MetricRegistry registry_;
};

TEST_F(WorkGroupTest, StartZeroQueuesAndNeverRuns) {
  RefPtr<WorkGroup> group = Make();
  group->Start(0);
  std::atomic<int> ran{0};
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(group->Push(Item([&] { ++ran; })));
  group->Stop();
  EXPECT_EQ(group->QueueLength(), 3u);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(group->numThreads(), 0u);
}

TEST_F(WorkGroupTest, BoundedQueueRefusesTheItemOverTheLimit) {
  RefPtr<WorkGroup> group = Make(2);
  EXPECT_TRUE(group->Push(Item([] {})));
  EXPECT_TRUE(group->Push(Item([] {})));
  EXPECT_FALSE(group->Push(Item([] {})));
  EXPECT_EQ(group->QueueLength(), 2u);
  EXPECT_EQ(Current(registry_, "work_group/queue/enqueue_freq").sample_num().value, 2u);
  EXPECT_EQ(Current(registry_, "work_group/queue/length").value_last().value, 2.0);
  // Nothing is logged for a full queue.
  EXPECT_TRUE(SyslogCapture::Take().empty());
}

TEST_F(WorkGroupTest, BadArgumentsAreRefused) {
  EXPECT_THROW(Make(-2), std::invalid_argument);
  RefPtr<WorkGroup> group = Make();
  EXPECT_THROW((void)group->Push(RefPtr<WorkItem>()), std::invalid_argument);
  group->Start(1);
  EXPECT_THROW(group->Start(1), std::logic_error);
  group->Stop();
}

TEST_F(WorkGroupTest, PushAfterStopIsQueuedAndNotRun) {
  RefPtr<WorkGroup> group = Make();
  group->Start(2);
  group->Stop();
  std::atomic<int> ran{0};
  EXPECT_TRUE(group->Push(Item([&] { ++ran; })));
  EXPECT_EQ(group->QueueLength(), 1u);
  group->Stop();
  EXPECT_EQ(ran.load(), 0);
}

TEST_F(WorkGroupTest, StopRunsEverythingPushedBeforeIt) {
  RefPtr<WorkGroup> group = Make();
  group->Start(3);
  std::atomic<int> ran{0};
  constexpr int kItems = 300;
  for (int i = 0; i < kItems; ++i) {
    ASSERT_TRUE(group->Push(Item([&] {
      BusyFor(std::chrono::microseconds(100));
      ++ran;
    })));
  }
  group->Stop();
  EXPECT_EQ(ran.load(), kItems);
  EXPECT_EQ(group->QueueLength(), 0u);
}

TEST_F(WorkGroupTest, AThrowingItemIsLoggedAndLosesNothing) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  Countdown done(3);
  ASSERT_TRUE(group->Push(Item([] { throw std::runtime_error("boom"); })));
  ASSERT_TRUE(group->Push(Item([&] { done.Done(); })));
  ASSERT_TRUE(group->Push(Item([] { throw 42; })));
  ASSERT_TRUE(group->Push(Item([&] { done.Done(); })));
  ASSERT_TRUE(group->Push(Item([&] { done.Done(); })));
  // The one thread survived both and ran the rest.
  ASSERT_TRUE(done.Wait());
  group->Stop();

  std::vector<std::string> errors;
  for (const auto& line : SyslogCapture::Take()) {
    if (line.second.find("level=\"ERROR\"") != std::string::npos) errors.push_back(line.second);
  }
  ASSERT_EQ(errors.size(), 2u);
  EXPECT_NE(errors[0].find("errorCode=\"CMNLIB9999\"] Exception in WorkGroup[test]::Run: boom"),
            std::string::npos)
      << errors[0];
  EXPECT_NE(errors[1].find("errorCode=\"CMNLIB9999\"] Exception in WorkGroup[test]::Run"),
            std::string::npos)
      << errors[1];
  EXPECT_EQ(Current(registry_, "work_group/item/processing_time").sample_num().value, 5u);
}

TEST_F(WorkGroupTest, StopFromItsOwnThreadRaisesJoiningItself) {
  RefPtr<WorkGroup> group = Make();
  group->Start(2);
  Gate checked;
  std::string what;
  int code = 0;
  ASSERT_TRUE(group->Push(Item([&] {
    try {
      group->Stop();
    } catch (const boost::thread_resource_error& e) {
      what = e.what();
      code = e.code().value();
    }
    checked.Open();
  })));
  ASSERT_TRUE(checked.Wait());
  group->Stop();
  EXPECT_EQ(what.rfind("boost thread: trying joining itself", 0), 0u) << what;
  EXPECT_EQ(code, EDEADLK);
}

TEST_F(WorkGroupTest, LastReferenceDroppedByItsOwnItem) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  Gate ranAfter;
  struct Holder {
    RefPtr<WorkGroup> group;
  };
  auto holder = std::make_shared<Holder>(Holder{group});
  ASSERT_TRUE(group->Push(Item([holder] { holder->group.reset(); })));
  ASSERT_TRUE(group->Push(Item([&] { ranAfter.Open(); })));
  group.reset();
  // The group is destroyed on its own thread, which lets itself go and still
  // runs what was queued.
  EXPECT_TRUE(ranAfter.Wait());
}

class Target : public RefCounted<Target> {
 public:
  void Work() { ++calls; }
  std::atomic<int> calls{0};
};

TEST_F(WorkGroupTest, WorkItemImplCallsTheMemberAndReleasesTheTarget) {
  RefPtr<Target> target = MakeRefCounted<Target>();
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  ASSERT_TRUE(group->Push(MakeWorkItem(target, &Target::Work)));
  group->Stop();
  EXPECT_EQ(target->calls.load(), 1);
  EXPECT_EQ(target->RefCountForLog(), 1);
}

TEST_F(WorkGroupTest, MetricsDescribeTheRun) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  // The thread goes to sleep on the empty queue.
  const auto deadline = Clock::now() + kDeadline;
  while (Current(registry_, "work_group/thread/idle_count").value_last().value != 1.0) {
    ASSERT_LT(Clock::now(), deadline);
    std::this_thread::yield();
  }
  Gate release;
  Gate started;
  ASSERT_TRUE(group->Push(Item([&] {
    started.Open();
    ASSERT_TRUE(release.Wait());
  })));
  ASSERT_TRUE(started.Wait());
  // Waits behind the first item at least 2 ms, then runs at least 2 ms.
  ASSERT_TRUE(group->Push(Item([] { BusyFor(std::chrono::milliseconds(2)); })));
  EXPECT_EQ(Current(registry_, "work_group/queue/length").value_last().value, 1.0);
  BusyFor(std::chrono::milliseconds(2));
  release.Open();
  group->Stop();

  EXPECT_EQ(Current(registry_, "work_group/queue/enqueue_freq").sample_num().value, 2u);
  EXPECT_EQ(Current(registry_, "work_group/queue/dequeue_freq").sample_num().value, 2u);
  metrics::BasicSerializer length = Current(registry_, "work_group/queue/length");
  EXPECT_EQ(length.value_last().value, 0.0);
  EXPECT_EQ(length.sample_num().value, 4u);
  EXPECT_EQ(length.sample_max().value, 1.0);
  metrics::BasicSerializer queued = Current(registry_, "work_group/item/queued_time");
  EXPECT_EQ(queued.units().value, "µs");
  EXPECT_EQ(queued.sample_num().value, 2u);
  EXPECT_GE(queued.sample_max().value, 2000.0);
  metrics::BasicSerializer processing = Current(registry_, "work_group/item/processing_time");
  EXPECT_EQ(processing.sample_num().value, 2u);
  EXPECT_GE(processing.sample_min().value, 2000.0);
  // Every sleep was matched by a wake-up.
  metrics::BasicSerializer idle = Current(registry_, "work_group/thread/idle_count");
  EXPECT_EQ(idle.value_last().value, 0.0);
  EXPECT_GE(idle.sample_num().value, 2u);
  EXPECT_EQ(idle.sample_num().value % 2, 0u);
}

TEST_F(WorkGroupTest, ConcurrentPushesAllRun) {
  RefPtr<WorkGroup> group = Make();
  group->Start(3);
  std::atomic<int> ran{0};
  constexpr int kPushers = 4;
  constexpr int kPerPusher = 500;
  std::vector<std::thread> pushers;
  for (int p = 0; p < kPushers; ++p) {
    pushers.emplace_back([&] {
      for (int i = 0; i < kPerPusher; ++i) ASSERT_TRUE(group->Push(Item([&] { ++ran; })));
    });
  }
  for (auto& p : pushers) p.join();
  group->Stop();
  EXPECT_EQ(ran.load(), kPushers * kPerPusher);
  EXPECT_EQ(Current(registry_, "work_group/item/processing_time").sample_num().value,
            static_cast<uint64_t>(kPushers * kPerPusher));
}

TEST_F(WorkGroupTest, FrameworkGroupIsProcessWide) {
  EXPECT_FALSE(GetFrameworkWorkGroup());
  RefPtr<WorkGroup> group = StartFrameworkWorkGroup(registry_);
  EXPECT_EQ(GetFrameworkWorkGroup(), group);
  EXPECT_EQ(group->name(), "framework");
  EXPECT_EQ(group->numThreads(), 10u);
  EXPECT_EQ(group->maxQueueSize(), WorkGroup::kUnbounded);
  EXPECT_THROW(StartFrameworkWorkGroup(registry_), std::logic_error);

  std::atomic<bool> ran{false};
  ASSERT_TRUE(group->Push(Item([&] { ran = true; })));
  StopFrameworkWorkGroup();
  EXPECT_TRUE(ran.load());
  EXPECT_FALSE(GetFrameworkWorkGroup());
  StopFrameworkWorkGroup();  // none: nothing happens

  // A new one may be made after the stop.
  StartFrameworkWorkGroup(registry_, 1);
  EXPECT_EQ(GetFrameworkWorkGroup()->numThreads(), 1u);
  StopFrameworkWorkGroup();
}

}  // namespace
}  // namespace zel
