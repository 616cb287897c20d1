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

#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace {

using impl::AsioTimer;
using impl::TimerState;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;
using zel::testing::Counter;
using zel::testing::Event;
using SteadyTime = std::chrono::steady_clock::time_point;
using SystemTime = std::chrono::system_clock::time_point;
using TimerPtrT = boost::shared_ptr<AsioTimer>;

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
  void Store(TimerPtrT timer) {
    std::lock_guard<std::mutex> lock(mutex_);
    timer_.swap(timer);  // a replaced timer is released after the lock
    stored_.Set();
  }
  TimerPtrT Get() {
    EXPECT_TRUE(stored_.WaitFor());
    std::lock_guard<std::mutex> lock(mutex_);
    return timer_;
  }

 private:
  std::mutex mutex_;
  TimerPtrT timer_;
  Event stored_;
};

TimerPtrT AsAsio(const TimerPtr& timer) {
  auto asio = boost::dynamic_pointer_cast<AsioTimer>(timer);
  EXPECT_TRUE(asio);
  return asio;
}

// Far from both clocks' zero, and 30 ms past a multiple of 100 ms on the wall.
const SteadyTime kSteadyStart = SteadyTime(seconds(5000));
const SystemTime kWallStart = SystemTime(seconds(1700000000) + milliseconds(30));

// Every record of the library, VERBOSE and DEBUG included, goes to an
// in-memory capture instead of syslog.
class TimerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_coreLogCeiling = kLogDebug;
    dispatcher_.Run(1, false);
  }
  void TearDown() override { dispatcher_.StopAndWait(true); }

  TimerPtrT OneShot(nanoseconds interval, TimerCallback callback) {
    return AsAsio(factory_.CreateTimer(interval, std::move(callback)));
  }
  TimerPtrT Periodic(nanoseconds interval, TimerCallback callback, bool aligned = false) {
    return AsAsio(factory_.CreatePeriodicTimer(interval, std::move(callback), aligned));
  }
  // Holds the one dispatcher thread until the returned event is set.
  std::shared_ptr<Event> BlockDispatcher() {
    auto entered = std::make_shared<Event>();
    auto release = std::make_shared<Event>();
    dispatcher_.Post([entered, release] {
      entered->Set();
      release->WaitFor();
    });
    EXPECT_TRUE(entered->WaitFor());
    return release;
  }
  // Waits until every handler posted before this call has finished.
  bool Drain() {
    auto done = std::make_shared<Event>();
    dispatcher_.Post([done] { done->Set(); });
    return done->WaitFor();
  }

  zel::testing::LogCapture log_{"TRIVIA"};
  AsioDispatcher dispatcher_;
  AsioTimerFactory factory_{dispatcher_.GetIoContextHandle()};
};

TEST(ComputeNextCycleTest, LateCyclesAreDroppedOnTheGrid) {
  const SteadyTime d = kSteadyStart;
  const struct {
    const char* what;
    SteadyTime deadline;
    nanoseconds step;
    SteadyTime now, next;
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
      {"saturates at the end of the clock", SteadyTime::max() - nanoseconds(5), seconds(1), d,
       SteadyTime::max(), 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const impl::NextCycle next = impl::ComputeNextCycle(c.deadline, c.step, c.now);
    EXPECT_EQ(next.deadline, c.next);
    EXPECT_EQ(next.skipped, c.skipped);
  }
  // Catching up from far below zero to far above it stays on the grid.
  auto next = impl::ComputeNextCycle(SteadyTime::min(), seconds(1), SteadyTime::max() - seconds(10));
  EXPECT_GE(next.deadline, SteadyTime::max() - seconds(10));
  const uint64_t span = static_cast<uint64_t>(next.deadline.time_since_epoch().count()) -
                        static_cast<uint64_t>(SteadyTime::min().time_since_epoch().count());
  EXPECT_EQ(span % 1000000000u, 0u);
}

// A one-shot timer never fires before its interval; with interval 0 it fires
// at once, once, and a cancel of the done timer changes nothing.
TEST_F(TimerTest, OneShotFiresOnceNotBeforeItsIntervalThenIsDone) {
  const auto start = std::chrono::steady_clock::now();
  std::atomic<bool> early{true};
  Event late;
  auto timer = OneShot(milliseconds(30), [&] {
    early = std::chrono::steady_clock::now() - start < milliseconds(30);
    late.Set();
  });
  Counter fired;
  auto now = OneShot(nanoseconds(0), [&] { fired.Increment(); });
  ASSERT_TRUE(late.WaitFor());
  EXPECT_FALSE(early.load());
  ASSERT_TRUE(Drain());
  EXPECT_EQ(now->state(), TimerState::DONE);
  EXPECT_EQ(fired.Value(), 1);
  now->Cancel();
  EXPECT_EQ(now->state(), TimerState::DONE);
}

// Negative intervals, and 0 for an aligned timer, which has no grid then.
TEST_F(TimerTest, BadIntervalsAreRefusedWithAnError) {
  const struct {
    bool periodic, aligned;
    nanoseconds interval;
  } cases[] = {{false, false, milliseconds(-1)}, {true, false, milliseconds(-1)},
               {true, true, nanoseconds(-5)},    {true, true, nanoseconds(0)}};
  Counter fired;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.interval.count()) + (c.periodic ? " periodic" : ""));
    auto callback = [&] { fired.Increment(); };
    auto timer = c.periodic ? Periodic(c.interval, callback, c.aligned) : OneShot(c.interval, callback);
    EXPECT_EQ(timer->state(), TimerState::ERROR);
    EXPECT_EQ(log_.Count("errorCode=\"CMNLIB700\"] Timer[" + std::to_string(timer->id()) +
                         "#Init]: schedule failed"), 1u);
    timer->Cancel();
    EXPECT_EQ(timer->state(), TimerState::ERROR);
  }
  ASSERT_TRUE(Drain());
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
    ASSERT_TRUE(Drain());
    EXPECT_EQ(self.Get()->state(), TimerState::CANCELLED) << periodic;
    EXPECT_EQ(fired.Value(), cancelAt);
  }
}

// Periodic timers on a manual clock: where the first expiry lies, and where
// the second lies when the first callback leaves the clock `late` past its
// deadline. Cycles that passed meanwhile are dropped; the grid stays.
TEST_F(TimerTest, CyclesStayOnTheGridOfTheEpoch) {
  const struct {
    const char* what;
    SystemTime wall;
    nanoseconds interval;
    bool aligned;
    nanoseconds late;
    SteadyTime epoch, first, second;
    uint64_t secondCycle;
  } cases[] = {
      // Wall clock at ...030 ms: the first expiry comes 70 ms later, on ...100.
      {"aligned", kWallStart, milliseconds(100), true, milliseconds(90),
       kSteadyStart - milliseconds(30), kSteadyStart + milliseconds(70),
       kSteadyStart + milliseconds(170), 2},
      {"aligned on a multiple is due at once", SystemTime(seconds(1700000040)), seconds(60), true,
       milliseconds(59990), kSteadyStart - seconds(60), kSteadyStart, kSteadyStart + seconds(60), 2},
      {"a callback of 3.5 intervals skips three cycles", kWallStart, milliseconds(50), false,
       milliseconds(175), kSteadyStart, kSteadyStart + milliseconds(50),
       kSteadyStart + milliseconds(250), 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto release = BlockDispatcher();  // held until the first cycle has been read
    auto clock = boost::make_shared<ManualClock>(kSteadyStart, c.wall);
    AsioTimerFactory factory(dispatcher_.GetIoContextHandle(), clock);
    SelfRef self;
    Counter fired;
    Event second;
    uint64_t secondCycle = 0;
    SteadyTime secondDeadline;
    auto timer = AsAsio(factory.CreatePeriodicTimer(c.interval, [&] {
      auto me = self.Get();
      if (fired.Increment() == 1) return clock->SetSteady(me->deadline() + c.late);
      secondCycle = me->cycle();
      secondDeadline = me->deadline();
      me->Cancel();
      second.Set();
    }, c.aligned));
    self.Store(timer);
    EXPECT_EQ(timer->epoch(), c.epoch);
    EXPECT_EQ(timer->deadline(), c.first);
    EXPECT_EQ(timer->cycle(), 1u);
    release->Set();
    ASSERT_TRUE(second.WaitFor());
    ASSERT_TRUE(Drain());
    EXPECT_EQ(secondDeadline, c.second);
    EXPECT_EQ(secondCycle, c.secondCycle);
    EXPECT_EQ(fired.Value(), 2);
  }
}

// Cancelled while scheduled (an interval past the end of the clock waits for
// ever), while its callback runs on another thread, or destroyed while its
// expiry is queued: no further callback runs.
TEST_F(TimerTest, CancelOrDestructionStopsFurtherCallbacks) {
  Counter fired;
  auto waiting = Periodic(nanoseconds::max(), [&] { fired.Increment(); });
  EXPECT_EQ(waiting->state(), TimerState::SCHEDULED);
  EXPECT_EQ(waiting->deadline(), SteadyTime::max());
  waiting->Cancel();
  EXPECT_EQ(waiting->state(), TimerState::CANCELLED);
  waiting->Cancel();
  EXPECT_EQ(waiting->state(), TimerState::CANCELLED);

  Event entered, release;
  auto running = Periodic(milliseconds(1), [&] {
    fired.Increment();
    entered.Set();
    release.WaitFor();
  });
  ASSERT_TRUE(entered.WaitFor());
  EXPECT_EQ(running->state(), TimerState::EXECUTING);
  running->Cancel();
  EXPECT_EQ(running->state(), TimerState::CANCELLED);
  release.Set();
  ASSERT_TRUE(Drain());
  EXPECT_EQ(running->state(), TimerState::CANCELLED);

  auto block = BlockDispatcher();
  OneShot(nanoseconds(0), [&] { fired.Increment(); }).reset();
  block->Set();
  ASSERT_TRUE(Drain());
  EXPECT_EQ(fired.Value(), 1);
}

// A callback that throws is logged and the timer goes on; a callback may drop
// the last reference to its own timer.
TEST_F(TimerTest, CallbackMayThrowOrDropTheLastReference) {
  SelfRef self;
  Counter fired;
  Event after;
  self.Store(Periodic(milliseconds(1), [&] {
    if (fired.Increment() == 1) throw std::runtime_error("boom");
    if (self.Get()) self.Store(nullptr);  // drops the last reference
    dispatcher_.Post([&] { after.Set(); });
  }));
  ASSERT_TRUE(after.WaitFor());
  ASSERT_TRUE(Drain());
  EXPECT_EQ(fired.Value(), 2);
  EXPECT_EQ(log_.Count("errorCode=\"CMNLIB9999\"] Exception in Timer callback: boom"), 1u);
}

TEST_F(TimerTest, TimerMayOutliveItsDispatcher) {
  TimerPtr timer;
  {
    AsioDispatcher dispatcher;
    AsioTimerFactory factory(dispatcher.GetIoContextHandle());
    timer = factory.CreatePeriodicTimer(milliseconds(1), [] {}, false);
    dispatcher.Run(1, false);
    dispatcher.StopAndWait(true);
  }
  timer->Cancel();
  EXPECT_EQ(AsAsio(timer)->state(), TimerState::CANCELLED);
}

// Timers made, fired and cancelled from several threads at once, on a
// dispatcher with two threads: each callback runs at most once, and every
// timer ends done or cancelled.
TEST_F(TimerTest, CreateFireAndCancelFromManyThreads) {
  constexpr int kTimers = 400;
  AsioDispatcher dispatcher;
  AsioTimerFactory factory(dispatcher.GetIoContextHandle());
  dispatcher.Run(2, false);
  std::vector<std::atomic<int>> fired(kTimers);
  std::vector<TimerPtrT> timers(kTimers);
  Counter uncancelledFired;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int n = t; n < kTimers; n += 4) {
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
  ASSERT_TRUE(uncancelledFired.WaitForAtLeast(kTimers / 2));
  // Nothing is pending any more, so the loop runs dry and ends.
  dispatcher.StopAndWait(false);
  for (int n = 0; n < kTimers; ++n) {
    const TimerState state = timers[n]->state();
    EXPECT_TRUE(state == TimerState::DONE ? fired[n] == 1
                                          : n % 2 == 0 && state == TimerState::CANCELLED && fired[n] <= 1)
        << n;
  }
}

}  // namespace
}  // namespace zel
