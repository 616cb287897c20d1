#include "cpp/lib/metrics/counters.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/fake_clock.h"
#include "cpp/lib/metrics/net_counters.h"
#include "cpp/lib/metrics/queue_counters.h"
#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {
namespace {

template <typename Counter, typename... Args>
boost::intrusive_ptr<Counter> Make(Args&&... args) {
  return boost::intrusive_ptr<Counter>(new Counter(std::forward<Args>(args)...));
}

template <typename Counter>
BasicSerializer Serialized(Counter& counter, bool current) {
  BasicSerializer out;
  counter.serialize(out, current);
  return out;
}

class CountersTest : public ::testing::Test {
 protected:
  FakeClock clock_;
};

TEST_F(CountersTest, TypeMasksNameTheWireFieldsTheyFill) {
  EXPECT_EQ(UnitCounter::kType, 0x180000000u);
  EXPECT_EQ(SimpleUnitCounter::kType, 0u);
  EXPECT_EQ(LatencyCounter::kType, 0xd80000000u);
  EXPECT_EQ(LatencyStatsCounter::kType, 0xd80000000u | (1ull << 43) | (1ull << 44));
  EXPECT_EQ(FrequencyCounter::kType, 0x2080000000u);
  EXPECT_EQ(net::NetObjectCounter::kType, 0x2180001800u);
  EXPECT_EQ(net::NetFreqCounter::kType, 0x2080000800u);
  EXPECT_EQ(net::NetRateCounter::kType, 0x1800008000u);
  // The object counter's fields with sample_twa (38) in place of sample_freq (37).
  EXPECT_EQ(queue::QueueSizeCounter::kType, 0x4180001800u);
  // The stats latency's fields with value_num (11) and value_min (12).
  EXPECT_EQ(queue::QueueLatencyCounter::kType, LatencyStatsCounter::kType | 0x1800u);
  // The mask is what a key compares, so it is what the value reports.
  EXPECT_EQ(Make<UnitCounter>()->type(), UnitCounter::kType);
}

TEST_F(CountersTest, UnitCounterFollowsItsLevelAndKeepsItOverRollover) {
  auto c = Make<UnitCounter>("items");
  EXPECT_EQ(c->to_string(true), "units: items, v~last: 0, s~num: 0, s~min: 0, s~max: 0");
  for (int i = 0; i < 3; ++i) c->increment();
  c->set(10);
  c->decrement();
  EXPECT_EQ(c->to_string(true), "units: items, v~last: 9, s~num: 5, s~min: 1, s~max: 10");
  // The frozen slot is untouched until a rollover.
  EXPECT_EQ(c->to_string(false), "units: items, v~last: 0, s~num: 0, s~min: 0, s~max: 0");
  c->rollover();
  EXPECT_EQ(c->to_string(false), "units: items, v~last: 9, s~num: 5, s~min: 1, s~max: 10");
  EXPECT_EQ(c->to_string(true), "units: items, v~last: 9, s~num: 0, s~min: 0, s~max: 0");
  c->add(5);
  EXPECT_EQ(c->to_string(true), "units: items, v~last: 14, s~num: 1, s~min: 14, s~max: 14");
  // Reset clears the running figures too.
  c->reset();
  EXPECT_EQ(c->to_string(true), "units: items, v~last: 0, s~num: 0, s~min: 0, s~max: 0");

  auto bare = Make<UnitCounter>();
  bare->decrement();  // stays at 0 and still counts
  EXPECT_EQ(bare->to_string(true), "v~last: 0, s~num: 1, s~min: 0, s~max: 0");
}

TEST_F(CountersTest, LatencyCounterSummarisesThePeriod) {
  auto c = Make<LatencyCounter>();
  c->record(20);
  c->record(10);
  c->record(std::chrono::microseconds(30));
  c->rollover();
  EXPECT_EQ(c->to_string(false),
            "units: µs, s~last: 30, s~num: 3, s~min: 10, s~max: 30, s~sum: 60, s~avg: 20");
  // A period with no samples: num and avg 0, and the next first sample sets min and max.
  EXPECT_EQ(c->to_string(true),
            "units: µs, s~last: 0, s~num: 0, s~min: 0, s~max: 0, s~sum: 0, s~avg: 0");
  c->record(std::chrono::milliseconds(2));
  c->record(std::chrono::microseconds(-5));  // a clock step back counts as 0
  c->record(1);
  EXPECT_EQ(c->to_string(true),
            "units: µs, s~last: 1, s~num: 3, s~min: 0, s~max: 2000, s~sum: 2001, s~avg: 667");
  c->reset();
  c->record(1);
  c->record(2);
  c->record(2);
  EXPECT_EQ(c->to_string(true),  // the average keeps fractions
            "units: µs, s~last: 2, s~num: 3, s~min: 1, s~max: 2, s~sum: 5, s~avg: 1.667");
}

// r = p * (n + 1), k = r cut: the first sample for k = 0, the last for
// k >= n, else samples k and k + 1 weighed by r - k.
TEST(PercentileTest, FollowsTheRankRule) {
  const struct {
    std::vector<uint64_t> sorted;
    double p;
    double expected;
  } cases[] = {
      {{}, 0.95, 0.0},           {{42}, 0.95, 42.0},       // r = 1.9, k = 1 = n
      {{5, 6, 7}, 0.2, 5.0},     {{5, 6, 7}, 0.5, 6.0},    // k = 0; r = k = 2
      {{5, 6, 10, 11}, 0.5, 8.0},                          // r = 2.5: 6 + 0.5 * 4
      {{5, 6, 10, 11}, 0.8, 11.0}, {{5, 6, 10, 20}, 0.7, 15.0},  // r = 4 = n; r = 3.5
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(aggregation::Percentile(c.sorted, c.p), c.expected)
        << c.sorted.size() << " samples, p " << c.p;
  }
}

TEST_F(CountersTest, StatsLatencyPercentilesOverOneHundredSamples) {
  auto c = Make<LatencyStatsCounter>();
  std::vector<uint64_t> samples(100);
  std::iota(samples.begin(), samples.end(), 1);
  std::shuffle(samples.begin(), samples.end(), std::mt19937(7));
  for (uint64_t s : samples) c->record(s);
  c->rollover();
  // r = 95.95, k = 95: 95 + 0.95 * (96 - 95); r = 99.99, k = 99: 99 + 0.99.
  BasicSerializer out = Serialized(*c, false);
  EXPECT_NEAR(out.sample_p95().value, 95.95, 1e-9);
  EXPECT_NEAR(out.sample_p99().value, 99.99, 1e-9);
  EXPECT_EQ(c->to_string(false), "units: µs, s~last: " + std::to_string(samples.back()) +
                                     ", s~num: 100, s~min: 1, s~max: 100, s~sum: 5050, "
                                     "s~avg: 50.5, s~p95: 95.95, s~p99: 99.99");
}

TEST_F(CountersTest, StatsStoreIsEmptiedAtRolloverAndReset) {
  auto c = Make<LatencyStatsCounter>();
  c->record(1000);
  c->rollover();
  // The sample of the last period must not weigh in this one.
  for (uint64_t s : {3, 1, 2}) c->record(s);
  c->rollover();
  EXPECT_EQ(Serialized(*c, false).sample_p99().value, 3.0);
  c->rollover();
  EXPECT_EQ(Serialized(*c, false).sample_p95().value, 0.0);

  c->record(50);
  c->reset();
  c->record(4);
  EXPECT_EQ(Serialized(*c, true).sample_p95().value, 4.0);
  // A current read does not consume the store.
  EXPECT_EQ(Serialized(*c, true).sample_p95().value, 4.0);
  c->rollover();
  EXPECT_EQ(Serialized(*c, false).sample_p95().value, 4.0);
}

// Period figures over whole milliseconds of elapsed time E; E = 0 gives 0.
TEST_F(CountersTest, RatesAndFrequenciesArePerSecondOverThePeriod) {
  auto freq = Make<FrequencyCounter>();
  for (int i = 0; i < 5; ++i) freq->mark();
  clock_.AdvanceMs(2000);
  EXPECT_EQ(freq->to_string(true), "s~num: 5, s~freq: 2.5");
  freq->rollover();
  EXPECT_EQ(freq->to_string(false), "s~num: 5, s~freq: 2.5");
  freq->mark();
  clock_.AdvanceNs(999999);  // under 1 ms: E = 0
  freq->rollover();
  EXPECT_EQ(freq->to_string(false), "s~num: 1, s~freq: 0");
  freq->mark();
  clock_.AdvanceNs(3999999);  // E = 3
  freq->rollover();
  EXPECT_EQ(freq->to_string(false), "s~num: 1, s~freq: 333.333");

  auto rate = Make<net::NetRateCounter>();
  rate->add(1000);
  rate->add(500);
  clock_.AdvanceMs(3000);
  rate->rollover();
  EXPECT_EQ(rate->to_string(false), "units: bytes, v~sum: 1500, s~sum: 1500, s~rate: 500");
  rate->add(10);
  clock_.AdvanceMs(4);
  EXPECT_EQ(rate->to_string(true), "units: bytes, v~sum: 1510, s~sum: 10, s~rate: 2500");

  auto netFreq = Make<net::NetFreqCounter>();
  for (int i = 0; i < 4; ++i) netFreq->mark();
  clock_.AdvanceMs(1000);
  netFreq->rollover();
  EXPECT_EQ(netFreq->to_string(false), "v~num: 4, s~num: 4, s~freq: 4");
  netFreq->mark();
  EXPECT_EQ(netFreq->to_string(true), "v~num: 5, s~num: 1, s~freq: 0");  // marks counted for ever
}

TEST_F(CountersTest, NetObjectCounterKeepsRunningFiguresAndRestartsPeriodOnes) {
  auto c = Make<net::NetObjectCounter>();
  for (int i = 0; i < 3; ++i) c->increment();
  c->decrement();
  clock_.AdvanceMs(1000);
  c->rollover();
  EXPECT_EQ(c->to_string(false),
            "units: objects, v~last: 2, v~num: 4, v~min: 1, v~max: 3, s~num: 4, s~min: 1, "
            "s~max: 3, s~freq: 4");
  // The level stays; the period's min starts anew at the next change.
  c->decrement();
  clock_.AdvanceMs(500);
  c->rollover();
  EXPECT_EQ(c->to_string(false),
            "units: objects, v~last: 1, v~num: 5, v~min: 1, v~max: 3, s~num: 1, s~min: 1, "
            "s~max: 1, s~freq: 2");
}

TEST_F(CountersTest, QueueCountersWeighLevelsByTimeAndKeepRunningLatencies) {
  auto size = Make<queue::QueueSizeCounter>("items");
  size->set(2);
  clock_.AdvanceMs(1000);
  size->set(4);
  clock_.AdvanceMs(1000);
  size->rollover();
  // (2 * 1000 + 4 * 1000) / 2000
  EXPECT_EQ(size->to_string(false),
            "units: items, v~last: 4, v~num: 2, v~min: 2, v~max: 4, s~num: 2, s~min: 2, "
            "s~max: 4, s~twa: 3");
  // With no change the level held all period is the average; E = 0 gives 0.
  clock_.AdvanceMs(500);
  size->rollover();
  EXPECT_EQ(Serialized(*size, false).sample_twa().value, 4.0);
  size->rollover();
  EXPECT_EQ(Serialized(*size, false).sample_twa().value, 0.0);

  auto latency = Make<queue::QueueLatencyCounter>();
  latency->record(5);
  latency->record(15);
  latency->rollover();
  latency->record(1);
  latency->rollover();
  EXPECT_EQ(latency->to_string(false),
            "units: µs, s~last: 1, v~num: 3, v~min: 1, v~max: 15, s~num: 1, s~min: 1, "
            "s~max: 1, s~sum: 1, s~avg: 1, s~p95: 1, s~p99: 1");
}

TEST_F(CountersTest, SerializeWritesTheFieldsOfTheMaskOnly) {
  auto c = Make<SimpleUnitCounter>("MB");
  c->set(7);
  c->rollover();
  EXPECT_EQ(c->to_string(false), "units: MB, v~last: 7");
  EXPECT_EQ(c->to_string(true), "units: MB, v~last: 7");

  auto u = Make<UnitCounter>("items");
  u->set(3);
  u->set(1);
  clock_.AdvanceMs(60000);
  u->rollover();
  BasicSerializer out = Serialized(*u, false);
  // The frozen period started when the counter was made, the active one at the rollover.
  EXPECT_EQ(out.timestamp().value, static_cast<uint64_t>(FakeClock::kSystemStartNs / 1000000));
  EXPECT_EQ(Serialized(*u, true).timestamp().value,
            static_cast<uint64_t>(FakeClock::kSystemStartNs / 1000000 + 60000));
  EXPECT_EQ(out.units().value, "items");
  EXPECT_EQ(out.value().value, u->to_string(false));
  EXPECT_EQ(out.value_last().value, 1.0);
  EXPECT_EQ(out.sample_num().value, 2u);
  EXPECT_EQ(out.sample_min().value, 1.0);
  EXPECT_EQ(out.sample_max().value, 3.0);
  for (bool set : {out.sample_last().set, out.value_num().set, out.sample_avg().set,
                   out.sample_freq().set, out.sample_p95().set}) EXPECT_FALSE(set);
  BasicSerializer freq = Serialized(*Make<FrequencyCounter>(), true);
  EXPECT_FALSE(freq.units().set);
  EXPECT_FALSE(freq.value_last().set);
  EXPECT_TRUE(freq.sample_freq().set);
}

// Updates race with rollovers: nothing may be lost or counted twice.
TEST(CountersConcurrencyTest, UpdatesAndRolloversFromManyThreads) {
  auto level = Make<UnitCounter>();
  auto latency = Make<LatencyStatsCounter>();
  constexpr uint64_t kUpdates = 4 * 5000;
  std::atomic<bool> done{false};
  uint64_t frozenSamples = 0;
  std::thread collector([&] {
    while (!done.load()) {
      latency->rollover();
      frozenSamples += Serialized(*latency, false).sample_num().value;
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        level->increment();
        latency->record(static_cast<uint64_t>(i));
      }
    });
  }
  for (auto& t : threads) t.join();
  done = true;
  collector.join();
  latency->rollover();
  frozenSamples += Serialized(*latency, false).sample_num().value;
  EXPECT_EQ(frozenSamples, kUpdates);
  EXPECT_EQ(Serialized(*level, true).value_last().value, kUpdates);
  EXPECT_EQ(Serialized(*level, true).sample_num().value, kUpdates);
}

}  // namespace
}  // namespace metrics
}  // namespace zel
