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
      : steadyNs_(steady.time_since_epoch().count()), system_(system) {}
  SteadyTime SteadyNow() const override { return SteadyTime(nanoseconds(steadyNs_.load())); }
  SystemTime SystemNow() const override { return system_; }
  void SetSteady(SteadyTime t) { steadyNs_ = t.time_since_epoch().count(); }

 private:
  std::atomic<int64_t> steadyNs_;
  const SystemTime system_;
};

// Lets a callback reach its own timer once the test has stored it.
class SelfRef {
 public:
  void Store(boost::shared_ptr<AsioTimer> timer) {
    std::lock_guard<std::mutex> lock(mutex_);
    timer_ = std::move(timer);
    stored_.Set();
  }
  boost::shared_ptr<AsioTimer> Get() {
    EXPECT_TRUE(stored_.WaitFor());
    std::lock_guard<std::mutex> lock(mutex_);
    return timer_;
  }
  // Drops the stored reference, outside the lock.
  void Reset() {
    EXPECT_TRUE(stored_.WaitFor());
    boost::shared_ptr<AsioTimer> last;
    std::lock_guard<std::mutex> lock(mutex_);
    last.swap(timer_);
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

// Far from both clocks' zero, and 30 ms past a multiple of 100 ms on the wall.
const SteadyTime kSteadyStart = SteadyTime(seconds(5000));
const SystemTime kWallStart = SystemTime(seconds(1700000000) + milliseconds(30));

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
  // A periodic timer on a manual clock.
  boost::shared_ptr<AsioTimer> ManualPeriodic(SystemTime wall, nanoseconds interval,
                                              TimerCallback callback, bool aligned) {
    clock_ = boost::make_shared<ManualClock>(kSteadyStart, wall);
    AsioTimerFactory factory(dispatcher_.GetIoContextHandle(), clock_);
    return AsAsio(factory.CreatePeriodicTimer(interval, std::move(callback), aligned));
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
  boost::shared_ptr<ManualClock> clock_;
};

TEST(ComputeNextCycleTest, LateCyclesAreDroppedOnTheGrid) {
  const SteadyTime d = kSteadyStart;
  const struct {
    const char* what;
    SteadyTime deadline;
    nanoseconds step;
    SteadyTime now;
    SteadyTime next;
    uint64_t skipped;
  } cases[] = {
      {"on time", d, milliseconds(100), d + milliseconds(40), d + milliseconds(100), 0},
      {"due exactly now is not late", d, milliseconds(100), d + milliseconds(100),
       d + milliseconds(100), 0},
      {"took 3.5 intervals", d, milliseconds(100), d + milliseconds(350), d + milliseconds(400), 3},
      {"1 ns past a grid point skips it", d, milliseconds(100),
       d + milliseconds(300) + nanoseconds(1), d + milliseconds(400), 3},
      {"the 1 ns step of interval 0", d, nanoseconds(1), d + milliseconds(2), d + milliseconds(2),
       1999999},
      // Aligned timers may start from an epoch before the clock's zero.
      {"before the epoch", SteadyTime(milliseconds(-250)), milliseconds(100),
       SteadyTime(milliseconds(10)), SteadyTime(milliseconds(50)), 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const impl::NextCycle next = impl::ComputeNextCycle(c.deadline, c.step, c.now);
    EXPECT_EQ(next.deadline, c.next);
    EXPECT_EQ(next.skipped, c.skipped);
  }
}

TEST(ComputeNextCycleTest, SaturatesAtTheEndOfTheClock) {
  auto next = impl::ComputeNextCycle(SteadyTime::max() - nanoseconds(5), seconds(1), kSteadyStart);
  EXPECT_EQ(next.deadline, SteadyTime::max());
  // Catching up from far below zero to far above it stays on the grid.
  next = impl::ComputeNextCycle(SteadyTime::min(), seconds(1), SteadyTime::max() - seconds(10));
  EXPECT_GE(next.deadline, SteadyTime::max() - seconds(10));
  const uint64_t span = static_cast<uint64_t>(next.deadline.time_since_epoch().count()) -
                        static_cast<uint64_t>(SteadyTime::min().time_since_epoch().count());
  EXPECT_EQ(span % 1000000000u, 0u);
}

TEST_F(TimerTest, OneShotWithZeroIntervalFiresOnceThenIsDoneAndCancelChangesNothing) {
  Counter fired;
  auto timer = OneShot(nanoseconds(0), [&] { fired.Increment(); });
  ASSERT_TRUE(fired.WaitForAtLeast(1));
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(timer->state(), TimerState::DONE);
  EXPECT_EQ(fired.Value(), 1);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Done") + "done"), 1);
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::DONE);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Done") + "cancel is noop in current state"), 1);
}

TEST_F(TimerTest, OneShotNeverFiresBeforeItsInterval) {
  const auto start = std::chrono::steady_clock::now();
  std::atomic<int64_t> firedAfterMs{-1};
  Event fired;
  auto timer = OneShot(milliseconds(30), [&] {
    firedAfterMs = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start)
                       .count();
    fired.Set();
  });
  ASSERT_TRUE(fired.WaitFor());
  EXPECT_GE(firedAfterMs.load(), 30);
}

TEST_F(TimerTest, BadIntervalsAreRefusedWithAnError) {
  const struct {
    bool periodic;
    bool aligned;
    nanoseconds interval;
    const char* logged;
  } cases[] = {
      {false, false, milliseconds(-1), "schedule failed - interval -1000000 < 0"},
      {true, false, milliseconds(-1), "schedule failed - interval -1000000 < 0"},
      {true, true, nanoseconds(-5), "schedule failed - interval -5 < 0"},
      {true, true, nanoseconds(0), "schedule failed -interval 0 <= 0"},
  };
  Counter fired;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.logged);
    auto callback = [&] { fired.Increment(); };
    auto timer = c.periodic ? Periodic(c.interval, callback, c.aligned) : OneShot(c.interval, callback);
    EXPECT_EQ(timer->state(), TimerState::ERROR);
    EXPECT_EQ(CountLogged("errorCode=\"CMNLIB700\"] " + TimerName(*timer, "Init") + c.logged), 1);
    timer->Cancel();
    EXPECT_EQ(timer->state(), TimerState::ERROR);
    EXPECT_EQ(CountLogged(TimerName(*timer, "Error") + "cancel is noop in current state"), 1);
  }
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(fired.Value(), 0);
}

// Zero-interval timers, cancelled from inside their own callback: a periodic
// one keeps firing until then, and neither fires again.
TEST_F(TimerTest, CancelFromInsideTheCallbackEndsTheTimer) {
  for (bool periodic : {false, true}) {
    SelfRef self;
    Counter fired;
    Event after;
    const int cancelAt = periodic ? 5 : 1;
    auto callback = [&] {
      if (fired.Increment() == cancelAt) {
        self.Get()->Cancel();
        // Runs once this expiry's handler has finished.
        dispatcher_.Post([&] { after.Set(); });
      }
    };
    self.Store(periodic ? Periodic(nanoseconds(0), callback) : OneShot(nanoseconds(0), callback));
    ASSERT_TRUE(after.WaitFor());
    ASSERT_TRUE(Drain(dispatcher_));
    auto timer = self.Get();
    EXPECT_EQ(timer->state(), TimerState::CANCELLED) << periodic;
    EXPECT_EQ(fired.Value(), cancelAt);
    EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "cancelled during user callback"), 1);
  }
}

TEST_F(TimerTest, AlignedTimerFiresOnTheNextWallClockMultiple) {
  SelfRef self;
  Counter fired;
  Event second;
  SteadyTime secondDeadline;
  // Held until the first cycle has been read.
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  auto timer = ManualPeriodic(kWallStart, milliseconds(100), [&] {
    auto me = self.Get();
    if (fired.Increment() == 1) {
      clock_->SetSteady(me->deadline());  // as if it ran on time
      return;
    }
    secondDeadline = me->deadline();
    me->Cancel();
    second.Set();
  }, true);
  self.Store(timer);
  // Wall clock at ...030 ms: the first expiry comes 70 ms later, on ...100.
  EXPECT_EQ(timer->deadline(), kSteadyStart + milliseconds(70));
  EXPECT_EQ(timer->epoch(), kSteadyStart - milliseconds(30));
  EXPECT_EQ(timer->cycle(), 1u);
  EXPECT_EQ(CountLogged(" ms (aligned)"), 1);
  release->Set();
  ASSERT_TRUE(second.WaitFor());
  EXPECT_EQ(secondDeadline, kSteadyStart + milliseconds(170));

  // On a multiple of the interval it is due at once.
  release = std::make_shared<Event>();
  BlockDispatcher(release);
  Event fired2;
  timer = ManualPeriodic(SystemTime(seconds(1700000040)), seconds(60), [&] { fired2.Set(); }, true);
  EXPECT_EQ(timer->deadline(), kSteadyStart);
  EXPECT_EQ(timer->epoch(), kSteadyStart - seconds(60));
  release->Set();
  ASSERT_TRUE(fired2.WaitFor());
  timer->Cancel();
}

// A callback that takes 3.5 intervals: the three expiries it overlapped are
// dropped, and the next one is still on the timer's grid.
TEST_F(TimerTest, OverrunningCallbackSkipsThreeCyclesAndKeepsPhase) {
  SelfRef self;
  Counter fired;
  Event second;
  uint64_t cycleAtSecond = 0;
  SteadyTime deadlineAtSecond;
  auto release = std::make_shared<Event>();
  BlockDispatcher(release);
  auto timer = ManualPeriodic(kWallStart, milliseconds(50), [&] {
    auto me = self.Get();
    if (fired.Increment() == 1) {
      clock_->SetSteady(me->deadline() + milliseconds(175));
      return;
    }
    cycleAtSecond = me->cycle();
    deadlineAtSecond = me->deadline();
    me->Cancel();
    second.Set();
  }, false);
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

// An interval past the end of the clock waits for ever, until cancelled.
TEST_F(TimerTest, CancelWhileScheduledDropsThePendingExpiry) {
  Counter fired;
  auto timer = Periodic(nanoseconds::max(), [&] { fired.Increment(); });
  EXPECT_EQ(timer->state(), TimerState::SCHEDULED);
  EXPECT_EQ(timer->deadline(), SteadyTime::max());
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  ASSERT_TRUE(Drain(dispatcher_));
  EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "ignoring timer handler (status: 125"), 1);
  timer->Cancel();
  EXPECT_EQ(timer->state(), TimerState::CANCELLED);
  EXPECT_EQ(CountLogged(TimerName(*timer, "Cancelled") + "can't cancel - already cancelled"), 1);
  EXPECT_EQ(fired.Value(), 0);
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
  EXPECT_EQ(
      CountLogged("Timer[" + std::to_string(id) + "#DESTROYED]: timer handler is skipped (status: "),
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
    EXPECT_TRUE(state == TimerState::DONE || (n % 2 == 0 && state == TimerState::CANCELLED)) << n;
    if (state == TimerState::DONE) {
      EXPECT_EQ(fired[n].load(), 1) << n;
    }
  }
}

}  // namespace
}  // namespace zel
