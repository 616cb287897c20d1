#include "cpp/lib/common/asio_dispatcher.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "support/wait.h"

namespace zel {
namespace {

using zel::testing::BackgroundCall;
using zel::testing::Counter;
using zel::testing::Event;
using zel::testing::WaitUntil;

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
  EXPECT_EQ(dispatcher.NumThreads(), 0u);
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
    EXPECT_EQ(QueuedThatRan(dispatcher, 10,
                            [&](Event& release) {
                              dispatcher.Stop(force);
                              release.Set();
                              dispatcher.StopAndWait(force);
                            }),
              force ? 0 : 10)
        << "force " << force;
  }
}

TEST(AsioDispatcherStopTest, ForceInterruptsAHandlerBlockedAtAnInterruptionPoint) {
  AsioDispatcher dispatcher;
  dispatcher.Run(1, false);
  Event entered;
  std::atomic<bool> interrupted{false};
  dispatcher.Post([&] {
    boost::mutex mutex;
    boost::condition_variable never;
    boost::unique_lock<boost::mutex> lock(mutex);
    entered.Set();
    try {
      never.wait_for(lock, boost::chrono::seconds(20));
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
  const std::string prefix = "AsioDispatcher[" + std::to_string(dispatcher.id()) +
                             "]::StopAndWait: - joining thread group from one of its thread (";
  EXPECT_EQ(error.compare(0, prefix.size(), prefix), 0) << error;
  EXPECT_NE(error.find(") will cause deadlock!"), std::string::npos) << error;
  // The stop itself went through: the thread ends and can be joined.
  dispatcher.StopAndWait(false);
  EXPECT_EQ(dispatcher.NumThreads(), 0u);
}

TEST(AsioDispatcherStopTest, StopFromInsideAHandlerEndsEveryMode) {
  for (bool force : {false, true}) {
    AsioDispatcher pooled;
    pooled.Post([&] { pooled.Stop(force); });
    BackgroundCall pooledRun([&] { pooled.Run(2, true); });
    ASSERT_TRUE(pooledRun.WaitFor()) << "force " << force;

    AsioDispatcher single;
    single.Post([&] {
      single.Stop(force);
      // Nothing to join in the one-thread blocking mode; it must not wait.
      single.StopAndWait(force);
    });
    BackgroundCall singleRun([&] { single.Run(1, true); });
    ASSERT_TRUE(singleRun.WaitFor()) << "force " << force;
  }
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
  dispatcher.StopAndWait(false);
}

// The destructor stops an io_context it owns with force, and one it shares
// without: the queued handlers behind a busy thread show which.
TEST(AsioDispatcherDestructorTest, ForcesOnlyAnIoContextItOwns) {
  for (bool owned : {true, false}) {
    auto io = boost::make_shared<boost::asio::io_context>();
    auto dispatcher =
        owned ? std::make_unique<AsioDispatcher>() : std::make_unique<AsioDispatcher>(io);
    if (owned) io = dispatcher->GetIoContextHandle();
    EXPECT_EQ(dispatcher->OwnsIoContext(), owned);
    dispatcher->Run(1, false);
    EXPECT_EQ(QueuedThatRan(*dispatcher, 5,
                            [&](Event& release) {
                              BackgroundCall destroy([&] { dispatcher.reset(); });
                              if (owned) EXPECT_TRUE(WaitUntil([&] { return io->stopped(); }));
                              release.Set();
                              EXPECT_TRUE(destroy.WaitFor());
                            }),
              owned ? 0 : 5)
        << "owned " << owned;
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

}  // namespace
}  // namespace zel
