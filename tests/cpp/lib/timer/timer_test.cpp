#include "cpp/lib/timer/impl/asio_timer.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/dispatcher_test_util.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_test_util.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"

namespace zel {
namespace {

using dispatch_test::Counter;
using dispatch_test::Drain;
using dispatch_test::Event;
using impl::AsioTimer;
using impl::TimerState;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using SteadyTime = std::chrono::steady_clock::time_point;
using SystemTime = std::chrono::system_clock::time_point;

// Every record of the library, VERBOSE and DEBUG included, goes to an
// in-memory capture instead of syslog.
class TimerLogEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent/zel_issue");
    log_testing::SetSyslogSinkForTest(&log_test::SyslogCapture::Sink);
    g_coreLogCeiling = kLogDebug;
  }
};
::testing::Environment* const g_logEnvironment =
    ::testing::AddGlobalTestEnvironment(new TimerLogEnvironment);

int CountLogged(const std::string& text) {
  std::lock_guard<std::mutex> lock(log_test::SyslogCapture::Mutex());
  int count = 0;
  for (const auto& line : log_test::SyslogCapture::Lines()) {
    if (line.second.find(text) != std::string::npos) ++count;
  }
  return count;
}

void DoNothing() {}

std::string TimerName(const AsioTimer& timer, const char* state) {
  return "Timer[" + std::to_string(timer.id()) + "#" + state + "]: ";
}

// A time source the test moves by hand; the cycle arithmetic sees only it.
class ManualClock : public TimerClock {
 public:
  ManualClock(SteadyTime steady, SystemTime system)
      : steadyNs_(steady.time_since_epoch().count()), systemNs_(Ns(system.time_since_epoch())) {}

  SteadyTime SteadyNow() const override { return SteadyTime(nanoseconds(steadyNs_.load())); }
  SystemTime SystemNow() const override {
    return SystemTime(std::chrono::duration_cast<SystemTime::duration>(nanoseconds(systemNs_.load())));
  }
  void SetSteady(SteadyTime t) { steadyNs_ = t.time_since_epoch().count(); }

 private:
  template <class D>
  static int64_t Ns(D d) {
    return std::chrono::duration_cast<nanoseconds>(d).count();
  }
  std::atomic<int64_t> steadyNs_;
  std::atomic<int64_t> systemNs_;
};

// Lets a callback reach its own timer once the test has stored it.
class SelfRef {
 public:
  void Store(boost::shared_ptr<AsioTimer> timer) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      timer_ = std::move(timer);
    }
    stored_.Set();
  }
  boost::shared_ptr<AsioTimer> Get() {
    EXPECT_TRUE(stored_.WaitFor());
    std::lock_guard<std::mutex> lock(mutex_);
    return timer_;
  }
  void Reset() {
    EXPECT_TRUE(stored_.WaitFor());
    boost::shared_ptr<AsioTimer> last;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      last.swap(timer_);
    }
  }

 private:
  std::mutex mutex_;
  boost::shared_ptr<AsioTimer> timer_;
  Event stored_;
};

boost::shared_ptr<AsioTimer> AsAsio(const TimerPtr& timer) {
  auto asio = boost::dynamic_pointer_cast<AsioTimer>(timer);
  EXPECT_TRUE(asio);
  return asio;
}

class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_test::SyslogCapture::Take();
    dispatcher_.Run(1, false);
  }
  void TearDown() override { dispatcher_.StopAndWait(true); }

  boost::shared_ptr<AsioTimer> OneShot(nanoseconds interval, TimerCallback callback) {
    return AsAsio(factory_.CreateTimer(interval, std::move(callback)));
  }
  boost::shared_ptr<AsioTimer> Periodic(nanoseconds interval, TimerCallback callback,
                                        bool aligned = false) {
    return AsAsio(factory_.CreatePeriodicTimer(interval, std::move(callback), aligned));
  }

  // Holds the one dispatcher thread until `release` is set.
  void BlockDispatcher(const std::shared_ptr<Event>& release) {
    auto entered = std::make_shared<Event>();
    dispatcher_.Post([entered, release] {
      entered->Set();
      release->WaitFor();
    });
    ASSERT_TRUE(entered->WaitFor());
  }

  AsioDispatcher dispatcher_;
  AsioTimerFactory factory_{dispatcher_.GetIoContextHandle()};
};

// Far from both clocks' zero, and 30 ms past a multiple of 100 ms on the wall.
const SteadyTime kSteadyStart = SteadyTime(seconds(5000));
const SystemTime kWallStart = SystemTime(seconds(1700000000) + milliseconds(30));

class ManualClockTimerTest : public TimerTest {
 protected:
  boost::shared_ptr<ManualClock> clock_ =
      boost::make_shared<ManualClock>(kSteadyStart, kWallStart);
  AsioTimerFactory manualFactory_{dispatcher_.GetIoContextHandle(), clock_};
};

TEST(TimerStateNameTest, NamesEveryStateAndFlagsTheRest) {
  EXPECT_STREQ(impl::TimerStateName(TimerState::INIT), "Init");
  EXPECT_STREQ(impl::TimerStateName(TimerState::SCHEDULED), "Scheduled");
  EXPECT_STREQ(impl::TimerStateName(TimerState::EXECUTING), "Executing");
  EXPECT_STREQ(impl::TimerStateName(TimerState::CANCELLED), "Cancelled");
  EXPECT_STREQ(impl::TimerStateName(TimerState::ERROR), "Error");
  EXPECT_STREQ(impl::TimerStateName(TimerState::DONE), "Done");
  EXPECT_STREQ(impl::TimerStateName(static_cast<TimerState>(6)), "<INVALID>");
  EXPECT_STREQ(impl::TimerStateName(static_cast<TimerState>(-1)), "<INVALID>");
}

TEST(ComputeNextCycleTest, OnTimeMovesOneStep) {
  const SteadyTime d = kSteadyStart;
  auto next = impl::ComputeNextCycle(d, milliseconds(100), d + milliseconds(40));
  EXPECT_EQ(next.deadline, d + milliseconds(100));
  EXPECT_EQ(next.skipped, 0u);
  // Due exactly now is not late.
  next = impl::ComputeNextCycle(d, milliseconds(100), d + milliseconds(100));
  EXPECT_EQ(next.deadline, d + milliseconds(100));
  EXPECT_EQ(next.skipped, 0u);
}

TEST(ComputeNextCycleTest, LateCyclesAreDroppedOnTheGrid) {
  const SteadyTime d = kSteadyStart;
  // A callback that started at d and took 3.5 intervals.
  auto next = impl::ComputeNextCycle(d, milliseconds(100), d + milliseconds(350));
  EXPECT_EQ(next.skipped, 3u);
  EXPECT_EQ(next.deadline, d + milliseconds(400));
  // One nanosecond past a grid point skips that point too.
  next = impl::ComputeNextCycle(d, milliseconds(100), d + milliseconds(300) + nanoseconds(1));
  EXPECT_EQ(next.skipped, 3u);
  EXPECT_EQ(next.deadline, d + milliseconds(400));
  // The 1 ns step of an interval of 0 counts every nanosecond.
  next = impl::ComputeNextCycle(d, nanoseconds(1), d + milliseconds(2));
  EXPECT_EQ(next.skipped, 1999999u);
  EXPECT_EQ(next.deadline, d + milliseconds(2));
}

TEST(ComputeNextCycleTest, WorksBeforeTheClockEpochAndSaturatesAtItsEnd) {
  // Aligned timers may start from an epoch before the clock's zero.
  auto next = impl::ComputeNextCycle(SteadyTime(milliseconds(-250)), milliseconds(100),
                                     SteadyTime(milliseconds(10)));
  EXPECT_EQ(next.deadline, SteadyTime(milliseconds(50)));
  EXPECT_EQ(next.skipped, 2u);
  next = impl::ComputeNextCycle(SteadyTime::max() - nanoseconds(5), seconds(1), kSteadyStart);
  EXPECT_EQ(next.deadline, SteadyTime::max());
  // Catching up from far below zero to far above it.
  next = impl::ComputeNextCycle(SteadyTime::min(), seconds(1), SteadyTime::max() - seconds(10));
  EXPECT_LE(next.deadline, SteadyTime::max());
  EXPECT_GE(next.deadline, SteadyTime::max() - seconds(10));
  const uint64_t span = static_cast<uint64_t>(next.deadline.time_since_epoch().count()) -
                        static_cast<uint64_t>(SteadyTime::min().time_since_epoch().count());
  EXPECT_EQ(span % 1000000000u, 0u);  // still on the grid
}

TEST_F(TimerTest, OneShotWithZeroIntervalFiresOnceThenIsDone) {
  Counter fired;
  auto timer = OneShot(nanoseconds(0), [&] { fired.Increment(); });
  ASSERT_TRUE(fired.WaitForAtLeast(1));
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(timer->state(), TimerState::DONE);
  EXPECT_EQ(fired.Value(), 1);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Done") + "done"), 1);
}

TEST_F(TimerTest, OneShotNeverFiresBeforeItsInterval) {
  const auto start = std::chrono::steady_clock::now();
  std::atomic<int64_t> firedAfterMs{-1};
  Event fired;
  auto timer = OneShot(milliseconds(30), [&] {
    firedAfterMs = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() -
                                                            start)
                       .count();
    fired.Set();
  });
  ASSERT_TRUE(fired.WaitFor());
  EXPECT_GE(firedAfterMs.load(), 30);
}

TEST_F(TimerTest, IntervalPastTheEndOfTheClockWaitsForever) {
  Counter fired;
  auto timer = OneShot(nanoseconds::max(), [&] { fired.Increment(); });
  EXPECT_EQ(timer->state(), TimerState::SCHEDULED);
  EXPECT_EQ(timer->deadline(), SteadyTime::max());
  timer->Cancel();
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  EXPECT_EQ(fired.Value(), 0);
}

TEST_F(TimerTest, NegativeIntervalsAreRefusedWithAnError) {
  Counter fired;
  for (bool periodic : {false, true}) {
    auto timer = periodic ? Periodic(milliseconds(-1), [&] { fired.Increment(); })
                          : OneShot(milliseconds(-1), [&] { fired.Increment(); });
    EXPECT_EQ(timer->state(), TimerState::ERROR);
    EXPECT_EQ(CountLogged("errorCode=\"CMNLIB700\"] " + TimerName(*timer, "Init") +
                          "schedule failed - interval -1000000 < 0"),
              1);
    timer->Cancel();
    EXPECT_EQ(timer->state(), TimerState::ERROR);
    EXPECT_EQ(CountLogged(TimerName(*timer, "Error") + "cancel is noop in current state"), 1);
  }
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(fired.Value(), 0);
}

TEST_F(TimerTest, AlignedTimersRefuseAZeroInterval) {
  auto zero = Periodic(nanoseconds(0), DoNothing, true);
  EXPECT_EQ(zero->state(), TimerState::ERROR);
  EXPECT_EQ(CountLogged("errorCode=\"CMNLIB700\"] " + TimerName(*zero, "Init") +
                        "schedule failed -interval 0 <= 0"),
            1);
  auto negative = Periodic(nanoseconds(-5), DoNothing, true);
  EXPECT_EQ(negative->state(), TimerState::ERROR);
  EXPECT_EQ(CountLogged(TimerName(*negative, "Init") + "schedule failed - interval -5 < 0"), 1);
}

TEST_F(TimerTest, PeriodicWithZeroIntervalKeepsFiring) {
  SelfRef self;
  Counter fired;
  Event stopped;
  self.Store(Periodic(nanoseconds(0), [&] {
    if (fired.Increment() == 5) {
      self.Get()->Cancel();
      dispatcher_.Post([&] { stopped.Set(); });
    }
  }));
  ASSERT_TRUE(stopped.WaitFor());
  EXPECT_EQ(fired.Value(), 5);
  EXPECT_EQ(self.Get()->state(), TimerState::CANCELLED);
}

TEST_F(ManualClockTimerTest, AlignedTimerFiresOnTheNextWallClockMultiple) {
  SelfRef self;
  Counter fired;
  Event second;
  SteadyTime secondDeadline;
  // Held until the first cycle has been read.
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  auto timer = AsAsio(manualFactory_.CreatePeriodicTimer(
      milliseconds(100),
      [&] {
        auto me = self.Get();
        if (fired.Increment() == 1) {
          clock_->SetSteady(me->deadline());  // as if it ran on time
          return;
        }
        secondDeadline = me->deadline();
        me->Cancel();
        second.Set();
      },
      true));
  self.Store(timer);
  // Wall clock at ...030 ms: the first expiry comes 70 ms later, on ...100.
  EXPECT_EQ(timer->deadline(), kSteadyStart + milliseconds(70));
  EXPECT_EQ(timer->epoch(), kSteadyStart - milliseconds(30));
  EXPECT_EQ(timer->cycle(), 1u);
  EXPECT_EQ(CountLogged(" ms (aligned)"), 1);
  release->Set();

  ASSERT_TRUE(second.WaitFor());
  EXPECT_EQ(secondDeadline, kSteadyStart + milliseconds(170));
}

TEST_F(ManualClockTimerTest, AlignedTimerOnAMultipleFiresAtOnce) {
  auto clock = boost::make_shared<ManualClock>(kSteadyStart, SystemTime(seconds(1700000040)));
  AsioTimerFactory factory(dispatcher_.GetIoContextHandle(), clock);
  Event fired;
  // Held until the first cycle has been read, since it is due at once.
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  auto timer = AsAsio(factory.CreatePeriodicTimer(seconds(60), [&] { fired.Set(); }, true));
  EXPECT_EQ(timer->deadline(), kSteadyStart);
  EXPECT_EQ(timer->epoch(), kSteadyStart - seconds(60));
  release->Set();
  ASSERT_TRUE(fired.WaitFor());
  timer->Cancel();
}

// A callback that takes 3.5 intervals: the three expiries it overlapped are
// dropped, and the next one is still on the timer's grid.
TEST_F(ManualClockTimerTest, OverrunningCallbackSkipsThreeCyclesAndKeepsPhase) {
  SelfRef self;
  Counter fired;
  Event second;
  uint64_t cycleAtSecond = 0;
  SteadyTime deadlineAtSecond;
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  auto timer = AsAsio(manualFactory_.CreatePeriodicTimer(
      milliseconds(50),
      [&] {
        auto me = self.Get();
        if (fired.Increment() == 1) {
          clock_->SetSteady(me->deadline() + milliseconds(175));
          return;
        }
        cycleAtSecond = me->cycle();
        deadlineAtSecond = me->deadline();
        me->Cancel();
        second.Set();
      },
      false));
  self.Store(timer);
  EXPECT_EQ(timer->epoch(), kSteadyStart);
  EXPECT_EQ(timer->deadline(), kSteadyStart + milliseconds(50));
  release->Set();

  ASSERT_TRUE(second.WaitFor());
  EXPECT_EQ(cycleAtSecond, 5u);
  EXPECT_EQ(deadlineAtSecond, kSteadyStart + milliseconds(250));
  EXPECT_EQ(CountLogged(TimerName(*timer, "Executing") + "skipped 3 cycles"), 1);
  EXPECT_EQ(fired.Value(), 2);
}

// The same on the real clock, where only lower bounds are certain: a
// 70 ms callback on a 20 ms timer drops at least three expiries, and the
// next one still lies on the grid.
TEST_F(TimerTest, OverrunOnTheRealClockStaysOnTheGrid) {
  SelfRef self;
  Counter fired;
  Event second;
  uint64_t cycle = 0;
  SteadyTime deadline;
  SteadyTime epoch;
  self.Store(Periodic(milliseconds(20), [&] {
    auto me = self.Get();
    if (fired.Increment() == 1) {
      std::this_thread::sleep_for(milliseconds(70));  // the overrunning work
      return;
    }
    cycle = me->cycle();
    deadline = me->deadline();
    epoch = me->epoch();
    me->Cancel();
    second.Set();
  }));
  ASSERT_TRUE(second.WaitFor());
  EXPECT_GE(cycle, 5u);
  EXPECT_EQ(deadline - epoch, milliseconds(20) * cycle);
}

TEST_F(TimerTest, CancelWhileScheduledDropsThePendingExpiry) {
  Counter fired;
  auto timer = Periodic(std::chrono::hours(1), [&] { fired.Increment(); });
  EXPECT_EQ(timer->state(), TimerState::SCHEDULED);
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "ignoring timer handler (status: 125"), 1);

  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "can't cancel - already cancelled"), 1);
  EXPECT_EQ(fired.Value(), 0);
}

TEST_F(TimerTest, CancelFromInsideThePeriodicCallbackEndsIt) {
  SelfRef self;
  Counter fired;
  Event after;
  self.Store(Periodic(milliseconds(1), [&] {
    if (fired.Increment() == 3) {
      self.Get()->Cancel();
      // Runs once this expiry's handler has finished.
      dispatcher_.Post([&] { after.Set(); });
    }
  }));
  ASSERT_TRUE(after.WaitFor());
  auto timer = self.Get();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  EXPECT_EQ(fired.Value(), 3);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "cancelled during user callback"), 1);
}

TEST_F(TimerTest, CancelFromInsideAOneShotCallbackLeavesItCancelled) {
  SelfRef self;
  Event after;
  self.Store(OneShot(nanoseconds(0), [&] {
    self.Get()->Cancel();
    dispatcher_.Post([&] { after.Set(); });
  }));
  ASSERT_TRUE(after.WaitFor());
  EXPECT_EQ(self.Get()->state(), TimerState::CANCELLED);
}

TEST_F(TimerTest, CancelFromAnotherThreadWhileTheCallbackRuns) {
  Counter fired;
  Event entered;
  Event release;
  auto timer = Periodic(milliseconds(1), [&] {
    fired.Increment();
    entered.Set();
    release.WaitFor();
  });
  ASSERT_TRUE(entered.WaitFor());
  EXPECT_EQ(timer->state(), TimerState::EXECUTING);
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  release.Set();
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  EXPECT_EQ(fired.Value(), 1);
}

TEST_F(TimerTest, CancelAfterDoneChangesNothing) {
  auto timer = OneShot(nanoseconds(0), DoNothing);
  ASSERT_TRUE(dispatch_test::WaitUntil([&] { return timer->state() == TimerState::DONE; }));
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::DONE);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Done") + "cancel is noop in current state"), 1);
}

TEST_F(TimerTest, TimerDestroyedWhileItsExpiryIsQueuedIsSkipped) {
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  Counter fired;
  auto timer = OneShot(nanoseconds(0), [&] { fired.Increment(); });
  const uint64_t id = timer->id();
  timer.reset();
  release->Set();
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(fired.Value(), 0);
  EXPECT_EQ(CountLogged("Timer[" + std::to_string(id) +
                        "#DESTROYED]: timer handler is skipped (status: "),
            1);
}

TEST_F(TimerTest, CallbackMayDropTheLastReferenceToItsTimer) {
  SelfRef self;
  Counter fired;
  Event after;
  self.Store(Periodic(milliseconds(1), [&] {
    fired.Increment();
    self.Reset();
    dispatcher_.Post([&] { after.Set(); });
  }));
  ASSERT_TRUE(after.WaitFor());
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(fired.Value(), 1);
}

TEST_F(TimerTest, ExceptionFromTheCallbackIsLoggedAndTheTimerGoesOn) {
  SelfRef self;
  Counter fired;
  Event after;
  self.Store(Periodic(milliseconds(1), [&] {
    if (fired.Increment() == 1) throw std::runtime_error("boom");
    self.Get()->Cancel();
    dispatcher_.Post([&] { after.Set(); });
  }));
  ASSERT_TRUE(after.WaitFor());
  EXPECT_EQ(fired.Value(), 2);
  EXPECT_EQ(CountLogged("errorCode=\"CMNLIB9999\"] Exception in Timer callback: boom"), 1);
}

TEST(TimerLifetimeTest, TimerMayOutliveItsDispatcher) {
  TimerPtr timer;
  {
    AsioDispatcher dispatcher;
    AsioTimerFactory factory(dispatcher.GetIoContextHandle());
    timer = factory.CreatePeriodicTimer(milliseconds(1), DoNothing, false);
    dispatcher.Run(1, false);
    dispatcher.StopAndWait(true);
  }
  timer->Cancel();
  EXPECT_EQ(AsAsio(timer)->state(), TimerState::CANCELLED);
  timer.reset();
}

// Timers made, fired and cancelled from several threads at once, on a
// dispatcher with two threads: each callback runs at most once, and every
// timer ends done or cancelled.
TEST(TimerConcurrencyTest, CreateFireAndCancelFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 100;
  AsioDispatcher dispatcher;
  AsioTimerFactory factory(dispatcher.GetIoContextHandle());
  dispatcher.Run(2, false);

  std::vector<std::atomic<int>> fired(kThreads * kPerThread);
  std::vector<boost::shared_ptr<AsioTimer>> timers(kThreads * kPerThread);
  Counter uncancelledFired;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const int n = t * kPerThread + i;
        const bool cancel = n % 2 == 0;
        timers[n] = AsAsio(factory.CreateTimer(microseconds(n % 7 * 300), [&, n, cancel] {
          fired[n]++;
          if (!cancel) uncancelledFired.Increment();
        }));
        if (cancel) timers[n]->Cancel();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(uncancelledFired.WaitForAtLeast(kThreads * kPerThread / 2));
  // Nothing is pending any more, so the loop runs dry and ends.
  dispatcher.StopAndWait(false);

  for (int n = 0; n < kThreads * kPerThread; ++n) {
    const TimerState state = timers[n]->state();
    EXPECT_LE(fired[n].load(), 1) << n;
    if (n % 2 != 0) {
      EXPECT_EQ(state, TimerState::DONE) << n;
    } else {
      EXPECT_TRUE(state == TimerState::CANCELLED || state == TimerState::DONE) << n;
    }
    if (state == TimerState::DONE) {
      EXPECT_EQ(fired[n].load(), 1) << n;
    }
  }
}

}  // namespace
}  // namespace zel
