#include "cpp/lib/common/workgroup/work_group.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/thread/exceptions.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/serializer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace {

using zel::testing::Counter;
using zel::testing::Event;
using ::testing::Contains;
using ::testing::EndsWith;
using Clock = std::chrono::steady_clock;

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

// Keeps the thread busy without sleeping.
void BusyFor(std::chrono::microseconds d) {
  const auto end = Clock::now() + d;
  while (Clock::now() < end) std::this_thread::yield();
}

class WorkGroupTest : public ::testing::Test {
 protected:
  RefPtr<WorkGroup> Make(int32_t maxQueueSize = WorkGroup::kUnbounded) {
    return MakeRefCounted<WorkGroup>("test", registry_, maxQueueSize);
  }
  metrics::BasicSerializer Current(const std::string& path) {
    metrics::BasicSerializer out;
    EXPECT_TRUE(registry_.root()->subkey(path)->report(out, true)) << path;
    return out;
  }

  zel::testing::LogCapture log_;
  metrics::MetricRegistry registry_;
};

TEST_F(WorkGroupTest, WithoutThreadsOrAfterStopItemsAreQueuedAndNeverRun) {
  std::atomic<int> ran{0};
  RefPtr<WorkGroup> idle = Make();
  idle->Start(0);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(idle->Push(Item([&] { ++ran; })));
  idle->Stop();
  EXPECT_EQ(idle->QueueLength(), 3u);
  EXPECT_EQ(idle->numThreads(), 0u);

  RefPtr<WorkGroup> stopped = Make();
  stopped->Start(2);
  stopped->Stop();
  EXPECT_TRUE(stopped->Push(Item([&] { ++ran; })));
  stopped->Stop();
  EXPECT_EQ(stopped->QueueLength(), 1u);
  EXPECT_EQ(ran.load(), 0);
}

TEST_F(WorkGroupTest, BoundedQueueRefusesTheItemOverTheLimitSilently) {
  RefPtr<WorkGroup> group = Make(2);
  EXPECT_TRUE(group->Push(Item([] {})));
  EXPECT_TRUE(group->Push(Item([] {})));
  EXPECT_FALSE(group->Push(Item([] {})));
  EXPECT_EQ(group->QueueLength(), 2u);
  EXPECT_EQ(Current("work_group/queue/enqueue_freq").sample_num().value, 2u);
  EXPECT_EQ(Current("work_group/queue/length").value_last().value, 2.0);
  EXPECT_FALSE(Make(0)->Push(Item([] {})));  // a limit of 0 takes nothing
  EXPECT_TRUE(log_.Lines().empty());

  EXPECT_THROW(Make(-2), std::invalid_argument);
  EXPECT_THROW((void)group->Push(RefPtr<WorkItem>()), std::invalid_argument);
  group->Start(1);
  EXPECT_THROW(group->Start(1), std::logic_error);
  group->Stop();
}

TEST_F(WorkGroupTest, StopRunsEverythingPushedBeforeItAndConcurrentPushesAllRun) {
  RefPtr<WorkGroup> group = Make();
  group->Start(3);
  std::atomic<int> ran{0};
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(group->Push(Item([&] {
      BusyFor(std::chrono::microseconds(100));
      ++ran;
    })));
  }
  std::vector<std::thread> pushers;
  for (int p = 0; p < 4; ++p) {
    pushers.emplace_back([&] {
      for (int i = 0; i < 500; ++i) ASSERT_TRUE(group->Push(Item([&] { ++ran; })));
    });
  }
  for (auto& p : pushers) p.join();
  group->Stop();
  EXPECT_EQ(ran.load(), 2300);
  EXPECT_EQ(group->QueueLength(), 0u);
  EXPECT_EQ(Current("work_group/item/processing_time").sample_num().value, 2300u);
}

TEST_F(WorkGroupTest, AThrowingItemIsLoggedAndLosesNothing) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  Counter done;
  ASSERT_TRUE(group->Push(Item([] { throw std::runtime_error("boom"); })));
  ASSERT_TRUE(group->Push(Item([&] { done.Increment(); })));
  ASSERT_TRUE(group->Push(Item([] { throw 42; })));
  ASSERT_TRUE(group->Push(Item([&] { done.Increment(); })));
  // The one thread survived both and ran the rest.
  ASSERT_TRUE(done.WaitForAtLeast(2));
  group->Stop();

  const std::string text = "level=\"ERROR\" errorCode=\"CMNLIB9999\"] Exception in WorkGroup[test]::Run";
  EXPECT_EQ(log_.Count("level=\"ERROR\""), 2u);
  EXPECT_THAT(log_.Lines(), Contains(EndsWith(text + ": boom")));
  EXPECT_THAT(log_.Lines(), Contains(EndsWith(text)));  // no what() to add
  EXPECT_EQ(Current("work_group/item/processing_time").sample_num().value, 4u);
}

TEST_F(WorkGroupTest, StopFromItsOwnThreadRaisesJoiningItself) {
  RefPtr<WorkGroup> group = Make();
  group->Start(2);
  Event checked;
  std::string what;
  int code = 0;
  ASSERT_TRUE(group->Push(Item([&] {
    try {
      group->Stop();
    } catch (const boost::thread_resource_error& e) {
      what = e.what();
      code = e.code().value();
    }
    checked.Set();
  })));
  ASSERT_TRUE(checked.WaitFor());
  group->Stop();
  EXPECT_EQ(what.rfind("boost thread: trying joining itself", 0), 0u) << what;
  EXPECT_EQ(code, EDEADLK);
}

TEST_F(WorkGroupTest, LastReferenceDroppedByItsOwnItem) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  Event ranAfter;
  auto holder = std::make_shared<RefPtr<WorkGroup>>(group);
  ASSERT_TRUE(group->Push(Item([holder] { holder->reset(); })));
  ASSERT_TRUE(group->Push(Item([&] { ranAfter.Set(); })));
  group.reset();
  // The group is destroyed on its own thread, which lets itself go and still
  // runs what was queued.
  EXPECT_TRUE(ranAfter.WaitFor());
}

TEST_F(WorkGroupTest, MetricsDescribeTheRun) {
  RefPtr<WorkGroup> group = Make();
  group->Start(1);
  // The thread goes to sleep on the empty queue.
  ASSERT_TRUE(zel::testing::WaitUntil(
      [&] { return Current("work_group/thread/idle_count").value_last().value == 1.0; }));
  Event release, started;
  ASSERT_TRUE(group->Push(Item([&] {
    started.Set();
    release.WaitFor();
  })));
  ASSERT_TRUE(started.WaitFor());
  // Waits behind the first item at least 2 ms, then runs at least 2 ms.
  ASSERT_TRUE(group->Push(Item([] { BusyFor(std::chrono::milliseconds(2)); })));
  EXPECT_EQ(Current("work_group/queue/length").value_last().value, 1.0);
  BusyFor(std::chrono::milliseconds(2));
  release.Set();
  group->Stop();

  EXPECT_EQ(Current("work_group/queue/enqueue_freq").sample_num().value, 2u);
  EXPECT_EQ(Current("work_group/queue/dequeue_freq").sample_num().value, 2u);
  EXPECT_EQ(Current("work_group/queue/length").value_last().value, 0.0);
  metrics::BasicSerializer queued = Current("work_group/item/queued_time");
  EXPECT_EQ(queued.units().value, "µs");
  EXPECT_GE(queued.sample_max().value, 2000.0);
  EXPECT_GE(Current("work_group/item/processing_time").sample_min().value, 2000.0);
  // Every sleep was matched by a wake-up.
  EXPECT_EQ(Current("work_group/thread/idle_count").value_last().value, 0.0);
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
