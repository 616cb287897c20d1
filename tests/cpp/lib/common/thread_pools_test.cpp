// The two thread pools of the libraries: the asio dispatcher and the work
// group, with the process-wide "framework" group.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/workgroup/work_group.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/serializer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace {

using zel::testing::BackgroundCall;
using zel::testing::Counter;
using zel::testing::Event;
using zel::testing::WaitUntil;
using ::testing::Contains;
using ::testing::EndsWith;
using Clock = std::chrono::steady_clock;

// Holds the one thread of `dispatcher` in a handler, queues `queued` counting
// handlers behind it and calls `stop(release)`, which must set `release` to
// let the thread go. Returns how many of the queued handlers ran.
int QueuedThatRan(AsioDispatcher& dispatcher, int queued,
                  const std::function<void(Event& release)>& stop) {
  auto release = std::make_shared<Event>();
  auto entered = std::make_shared<Event>();
  dispatcher.Post([entered, release] {
    entered->Set();
    release->WaitFor();
  });
  EXPECT_TRUE(entered->WaitFor());
  auto ran = std::make_shared<Counter>();
  for (int i = 0; i < queued; ++i) dispatcher.Post([ran] { ran->Increment(); });
  stop(*release);
  return ran->Value();
}

TEST(AsioDispatcherRunTest, BlockingRunsServeOnTheCallerOrOnJoinedThreads) {
  AsioDispatcher single;
  std::thread::id ranOn;
  size_t threadsWhileRunning = 99;
  single.Post([&] {
    ranOn = std::this_thread::get_id();
    threadsWhileRunning = single.NumThreads();
    single.Stop(false);
    single.StopAndWait(false);  // nothing to join in this mode; it must not wait
  });
  // Run() through the interface is the one-thread blocking run.
  Dispatcher& base = single;
  BackgroundCall call([&] { base.Run(); });
  ASSERT_TRUE(call.WaitFor());
  EXPECT_EQ(ranOn, call.id());
  EXPECT_EQ(threadsWhileRunning, 0u);

  // Each handler waits for the other: only two threads at once get both done.
  AsioDispatcher pooled;
  Event first, second;
  std::atomic<bool> sawEachOther{true};
  pooled.Post([&] {
    first.Set();
    if (!second.WaitFor()) sawEachOther = false;
  });
  pooled.Post([&] {
    second.Set();
    if (!first.WaitFor()) sawEachOther = false;
    pooled.Stop(false);
  });
  BackgroundCall pooledRun([&] { pooled.Run(2, true); });
  ASSERT_TRUE(pooledRun.WaitFor());
  EXPECT_TRUE(sawEachOther);
  EXPECT_EQ(pooled.NumThreads(), 0u);  // joined before Run returned
}

TEST(AsioDispatcherRunTest, NonBlockingRunStartsItsThreadsAndRunsAgainAfterStopAndWait) {
  AsioDispatcher dispatcher;
  dispatcher.Run(0, false);
  std::thread::id ranOn;
  dispatcher.Post([&] { ranOn = std::this_thread::get_id(); });
  // Still queued: the test thread finds it and runs it itself.
  EXPECT_EQ(dispatcher.GetIoContext().poll(), 1u);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  dispatcher.StopAndWait(false);

  for (int round = 0; round < 3; ++round) {
    dispatcher.Run(1, false);
    EXPECT_EQ(dispatcher.NumThreads(), 1u);
    Event ran;
    dispatcher.Post([&] {
      ranOn = std::this_thread::get_id();
      ran.Set();
    });
    ASSERT_TRUE(ran.WaitFor()) << "round " << round;
    EXPECT_NE(ranOn, std::this_thread::get_id());
    dispatcher.StopAndWait(round % 2 == 0);
    EXPECT_EQ(dispatcher.NumThreads(), 0u);
  }
}

TEST(AsioDispatcherStopTest, QueuedHandlersRunWithoutForceAndAreDroppedWithIt) {
  for (bool force : {false, true}) {
    AsioDispatcher dispatcher;
    dispatcher.Run(1, false);
    const int ran = QueuedThatRan(dispatcher, 10, [&](Event& release) {
      dispatcher.Stop(force);
      release.Set();
      dispatcher.StopAndWait(force);
    });
    EXPECT_EQ(ran, force ? 0 : 10) << "force " << force;
  }
}

TEST(AsioDispatcherStopTest, ForceInterruptsAHandlerBlockedAtAnInterruptionPoint) {
  AsioDispatcher dispatcher;
  dispatcher.Run(1, false);
  Event entered;
  std::atomic<bool> interrupted{false};
  dispatcher.Post([&] {
    entered.Set();
    try {
      boost::this_thread::sleep_for(boost::chrono::seconds(20));
    } catch (const boost::thread_interrupted&) {
      interrupted = true;
      throw;
    }
  });
  ASSERT_TRUE(entered.WaitFor());
  dispatcher.StopAndWait(true);
  EXPECT_TRUE(interrupted);
}

TEST(AsioDispatcherStopTest, StopAndWaitFromADispatcherThreadThrows) {
  AsioDispatcher dispatcher;
  dispatcher.Run(1, false);
  std::string error;
  Event done;
  dispatcher.Post([&] {
    try {
      dispatcher.StopAndWait(false);
    } catch (const std::runtime_error& e) {
      error = e.what();
    }
    done.Set();
  });
  ASSERT_TRUE(done.WaitFor());
  EXPECT_NE(error.find("joining thread group from one of its thread"), std::string::npos) << error;
  // The stop itself went through: the thread ends and can be joined.
  dispatcher.StopAndWait(false);
  EXPECT_EQ(dispatcher.NumThreads(), 0u);
}

// The blocking runs of the first test, stopped with force from inside.
TEST(AsioDispatcherStopTest, ForcedStopFromInsideAHandlerEndsBlockingRuns) {
  AsioDispatcher pooled, single;
  pooled.Post([&] { pooled.Stop(true); });
  single.Post([&] {
    single.Stop(true);
    single.StopAndWait(true);
  });
  BackgroundCall pooledRun([&] { pooled.Run(2, true); });
  BackgroundCall singleRun([&] { single.Run(1, true); });
  EXPECT_TRUE(pooledRun.WaitFor());
  EXPECT_TRUE(singleRun.WaitFor());
}

// Dispatch runs inline on a dispatcher thread and is queued like Post from
// any other thread.
TEST(AsioDispatcherTest, DispatchRunsInlineOnlyOnADispatcherThread) {
  AsioDispatcher dispatcher;
  dispatcher.Run(1, false);
  const std::thread::id testThread = std::this_thread::get_id();
  std::vector<int> order;
  Event done;
  dispatcher.Dispatch([&] {
    EXPECT_NE(std::this_thread::get_id(), testThread);
    order.push_back(1);
    dispatcher.Dispatch([&] { order.push_back(2); });
    dispatcher.Post([&] {
      order.push_back(4);
      done.Set();
    });
    order.push_back(3);
  });
  ASSERT_TRUE(done.WaitFor());
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
}

// The destructor stops an io_context it owns with force, and one it shares
// without: the queued handlers behind a busy thread show which.
TEST(AsioDispatcherDestructorTest, ForcesOnlyAnIoContextItOwns) {
  for (bool owned : {true, false}) {
    auto io = boost::make_shared<boost::asio::io_context>();
    auto dispatcher =
        owned ? std::make_unique<AsioDispatcher>() : std::make_unique<AsioDispatcher>(io);
    if (owned) io = dispatcher->GetIoContextHandle();
    dispatcher->Run(1, false);
    const int ran = QueuedThatRan(*dispatcher, 5, [&](Event& release) {
      BackgroundCall destroy([&] { dispatcher.reset(); });
      if (owned) EXPECT_TRUE(WaitUntil([&] { return io->stopped(); }));
      release.Set();
      EXPECT_TRUE(destroy.WaitFor());
    });
    EXPECT_EQ(ran, owned ? 0 : 5) << "owned " << owned;
  }
}

TEST(AsioDispatcherDestructorTest, EndsALoopThatNeverRunsOutOfWork) {
  auto dispatcher = std::make_unique<AsioDispatcher>();
  dispatcher->Run(2, false);
  // Each handler posts its successor, so the queue is never empty.
  std::function<void()> again;
  AsioDispatcher* raw = dispatcher.get();
  again = [raw, &again] { raw->Post(again); };
  dispatcher->Post(again);
  dispatcher->Post(again);
  BackgroundCall destroy([&] { dispatcher.reset(); });
  ASSERT_TRUE(destroy.WaitFor());
}

TEST(AsioDispatcherDestructorTest, LastReferenceDroppedOnItsOwnThreadDoesNotHang) {
  auto dispatcher = std::make_shared<AsioDispatcher>();
  dispatcher->Run(1, false);
  boost::shared_ptr<boost::asio::io_context> io = dispatcher->GetIoContextHandle();
  Event destroyed;
  AsioDispatcher* raw = dispatcher.get();
  raw->Post([owner = std::move(dispatcher), &destroyed]() mutable {
    owner.reset();
    destroyed.Set();
  });
  ASSERT_TRUE(destroyed.WaitFor());
  // It stopped its loop; its thread ends on its own.
  EXPECT_TRUE(WaitUntil([&] { return io->stopped(); }));
}

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
  int code = 0;
  ASSERT_TRUE(group->Push(Item([&] {
    try {
      group->Stop();
    } catch (const boost::thread_resource_error& e) {
      code = e.code().value();
    }
    checked.Set();
  })));
  ASSERT_TRUE(checked.WaitFor());
  group->Stop();
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
  EXPECT_GE(Current("work_group/item/queued_time").sample_max().value, 2000.0);
  EXPECT_GE(Current("work_group/item/processing_time").sample_min().value, 2000.0);
  // Every sleep was matched by a wake-up.
  EXPECT_EQ(Current("work_group/thread/idle_count").value_last().value, 0.0);
}

TEST_F(WorkGroupTest, FrameworkGroupIsProcessWide) {
  EXPECT_FALSE(GetFrameworkWorkGroup());
  RefPtr<WorkGroup> group = StartFrameworkWorkGroup(registry_);
  EXPECT_EQ(GetFrameworkWorkGroup(), group);
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
