// Metric values (counters and their aggregates), keys and the registry.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/clock.h"
#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/net_counters.h"
#include "cpp/lib/metrics/queue_counters.h"
#include "cpp/lib/metrics/serializer.h"
#include "support/log_capture.h"

namespace zel {
namespace metrics {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A metrics clock that stands still until the test moves it; installed for
// the life of the object. 2021-01-01T00:00:00Z on the system clock; the
// steady clock starts at 1 s.
class FakeClock : public Clock {
 public:
  static constexpr int64_t kSystemStartNs = 1609459200000LL * 1000000;

  FakeClock() { SetClockForTest(this); }
  ~FakeClock() override { SetClockForTest(nullptr); }

  void AdvanceMs(int64_t ms) { AdvanceNs(ms * 1000000); }
  void AdvanceNs(int64_t ns) {
    steady_.fetch_add(ns);
    system_.fetch_add(ns);
  }
  int64_t SteadyNanos() const override { return steady_.load(); }
  int64_t SystemNanos() const override { return system_.load(); }

 private:
  std::atomic<int64_t> steady_{1000000000LL};
  std::atomic<int64_t> system_{kSystemStartNs};
};

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
  EXPECT_EQ(SimpleUnitCounter::kType, 0u);
  EXPECT_EQ(LatencyCounter::kType, 0xd80000000u);
  EXPECT_EQ(LatencyStatsCounter::kType, 0xd80000000u | (1ull << 43) | (1ull << 44));
  EXPECT_EQ(net::NetObjectCounter::kType, 0x2180001800u);
  EXPECT_EQ(net::NetFreqCounter::kType, 0x2080000800u);
  EXPECT_EQ(net::NetRateCounter::kType, 0x1800008000u);
  // The object counter's fields with sample_twa (38) in place of sample_freq (37).
  EXPECT_EQ(queue::QueueSizeCounter::kType, 0x4180001800u);
  // The stats latency's fields with value_num (11) and value_min (12).
  EXPECT_EQ(queue::QueueLatencyCounter::kType, LatencyStatsCounter::kType | 0x1800u);
}

TEST_F(CountersTest, UnitCounterFollowsItsLevelAndKeepsItOverRollover) {
  auto c = Make<UnitCounter>("items");
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
  for (uint64_t s : {20, 10}) c->record(s);
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
  for (uint64_t s : {1, 2, 2}) c->record(s);
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
  c->rollover();  // the current read did not consume the store
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
  for (uint64_t bytes : {1000, 500}) rate->add(bytes);
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
  for (uint64_t s : {5, 15}) latency->record(s);
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
  EXPECT_EQ(std::make_tuple(out.value_last().value, out.sample_num().value, out.sample_min().value,
                            out.sample_max().value), std::make_tuple(1.0, uint64_t{2}, 1.0, 3.0));
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

// A unit counter that tells when it is destroyed.
class ProbeCounter : public UnitCounter {
 public:
  explicit ProbeCounter(std::atomic<bool>* destroyed) : destroyed_(destroyed) {}
  ~ProbeCounter() override { destroyed_->store(true); }

 private:
  std::atomic<bool>* destroyed_;
};

std::vector<std::string> Names(const MetricKeyPtr& key) {
  std::vector<std::string> names;
  for (const MetricKeyPtr& child : key->subkeys()) names.push_back(child->name());
  return names;
}

class MetricKeyTest : public ::testing::Test {
 protected:
  zel::testing::LogCapture log_;
  MetricKeyPtr root_ = impl::RootKey::MakeRoot();
};

TEST_F(MetricKeyTest, SubkeySplitsOnSlashesAndFindsExistingNodes) {
  MetricKeyPtr c = root_->subkey("a/b/c");
  EXPECT_EQ(c->name(), "c");
  EXPECT_EQ(c->kind(), KeyKind::kPath);
  EXPECT_EQ(c->path(), "/a/b/c");
  EXPECT_EQ(root_->kind(), KeyKind::kRoot);

  // Leading, doubled and trailing slashes name the same node.
  EXPECT_EQ(root_->subkey("/a//b/c/"), c);
  EXPECT_EQ(root_->subkey("a")->subkey("b/c"), c);
  EXPECT_EQ(root_->subkey(""), root_);
  root_->subkey("a/d");
  EXPECT_EQ(Names(root_->subkey("a")), (std::vector<std::string>{"b", "d"}));
}

TEST_F(MetricKeyTest, InstanceEscapesSlashesSoAUriIsOneNodeOfItsOwnKind) {
  MetricKeyPtr family = root_->subkey("net/connection");
  MetricKeyPtr inst = family->instance("tcp://a/b");
  EXPECT_EQ(inst->name(), "tcp:\\\\a\\b");
  EXPECT_EQ(inst->kind(), KeyKind::kInstance);
  EXPECT_EQ(Names(family), (std::vector<std::string>{"tcp:\\\\a\\b"}));
  EXPECT_EQ(family->instance("tcp://a/b"), inst);
  // Kinds do not share a node.
  EXPECT_THROW(family->subkey("tcp:\\\\a\\b"), std::invalid_argument);
  root_->subkey("x");
  EXPECT_THROW(root_->instance("x"), std::invalid_argument);

  EXPECT_EQ(InstanceName({}), "");
  EXPECT_EQ(InstanceName({{"port", "9002"}, {"app", "DORN"}}), "port=9002,app=DORN");  // as given
}

TEST_F(MetricKeyTest, AReferencedChildKeepsItsParentsReferenced) {
  const int32_t rootRefs = root_->ref_count();
  MetricKeyPtr b = root_->subkey("a/b");
  MetricKey* a = b->parent();
  EXPECT_EQ(b->ref_count(), 1);
  EXPECT_EQ(a->ref_count(), 1);
  EXPECT_EQ(root_->ref_count(), rootRefs + 1);

  MetricKeyPtr b2 = b;
  EXPECT_EQ(a->ref_count(), 1);  // only the 0 -> 1 step reaches the parent

  b2.reset();
  MetricKey* raw = b.get();
  b.reset();
  EXPECT_EQ(raw->ref_count(), 0);
  EXPECT_EQ(a->ref_count(), 0);
  EXPECT_EQ(root_->ref_count(), rootRefs);
  // Released keys stay in the tree until a sweep; a release at zero changes nothing.
  EXPECT_EQ(root_->subkey("a")->find_subkey("b").get(), raw);
  raw->release();
  EXPECT_EQ(raw->ref_count(), 0);
  EXPECT_EQ(a->ref_count(), 0);
  EXPECT_EQ(root_->ref_count(), rootRefs);
}

// Released keys stay, values and all, until a sweep deletes them; a key in
// use and its parents stay.
TEST_F(MetricKeyTest, SweepDeletesOnlyReleasedKeysWithTheirValues) {
  std::atomic<bool> destroyed{false};
  MetricKeyPtr kept = root_->subkey("conn/kept");
  root_->subkey("old/deep/er");
  {
    MetricKeyPtr key = root_->subkey("conn")->instance("tcp://h:1");
    key->set_value(MetricValuePtr(new ProbeCounter(&destroyed)));
    Metric<UnitCounter> m(key);
    m->set(5);
  }
  MetricKeyPtr closed = root_->subkey("conn")->find_subkey("tcp:\\\\h:1");
  ASSERT_TRUE(closed);
  // One last report of the released key is still possible.
  BasicSerializer out;
  EXPECT_TRUE(closed->report(out, true));
  EXPECT_EQ(out.value_last().value, 5.0);
  closed.reset();
  EXPECT_FALSE(destroyed.load());
  root_->sweep_released_subkeys();
  EXPECT_TRUE(destroyed.load());
  EXPECT_EQ(Names(root_), (std::vector<std::string>{"conn"}));
  EXPECT_EQ(Names(root_->subkey("conn")), (std::vector<std::string>{"kept"}));
}

TEST_F(MetricKeyTest, TheLastReferenceToTheRootDeletesTheTree) {
  std::atomic<bool> destroyed{false};
  MetricKeyPtr leaf = root_->subkey("x/y/z");
  leaf->set_value(MetricValuePtr(new ProbeCounter(&destroyed)));
  root_.reset();
  // The leaf keeps the whole chain up to the root alive.
  EXPECT_EQ(leaf->path(), "/x/y/z");
  EXPECT_FALSE(destroyed.load());
  leaf.reset();
  EXPECT_TRUE(destroyed.load());
}

TEST_F(MetricKeyTest, MetricsOnOneKeyShareTheValueAndCollectRollsItOver) {
  MetricKeyPtr key = root_->subkey("k");
  EXPECT_FALSE(key->collect());  // no value yet
  Metric<UnitCounter> first(key, "items");
  Metric<UnitCounter> second(root_->subkey("k"), "ignored");
  first->increment();
  second->increment();
  EXPECT_EQ(first->to_string(true), "units: items, v~last: 2, s~num: 2, s~min: 1, s~max: 2");
  EXPECT_TRUE(key->collect());
  EXPECT_EQ(first->to_string(false), "units: items, v~last: 2, s~num: 2, s~min: 1, s~max: 2");
}

// A value of another type: set_value replaces it with a warning, a Metric
// refuses it with an error and an exception.
TEST_F(MetricKeyTest, ValueOfAnotherType) {
  MetricKeyPtr key = root_->subkey("k");
  key->set_value(MetricValuePtr(new FrequencyCounter()));
  key->set_value(MetricValuePtr(new FrequencyCounter()));
  EXPECT_TRUE(log_.Lines().empty());
  key->set_value(MetricValuePtr(new UnitCounter()));
  EXPECT_THAT(log_.Take(), ElementsAre(::testing::Pair(
                               180, HasSubstr("level=\"WARN\"] MKey[k 1]: changing value type!"))));
  EXPECT_EQ(key->get_value()->type(), UnitCounter::kType);

  Metric<UnitCounter> unit(key);
  EXPECT_THROW(Metric<FrequencyCounter>{key}, std::runtime_error);
  EXPECT_THAT(log_.Lines(), ElementsAre(HasSubstr("errorCode=\"MXLIB200\"] Metric: wrong value "
                                                  "type (6442450944 != 139586437120)")));
  EXPECT_EQ(key->get_value().get(), unit.value());  // the key keeps its value
}

TEST_F(MetricKeyTest, ReportNamesTheKeyAndTagsInstances) {
  Metric<UnitCounter> plain(root_->subkey("rmq/msg/rx"), "msgs");
  Metric<UnitCounter> inst(root_->subkey("rmq/msg/tx")->instance(InstanceName({{"app", "DORN"}})));
  plain->increment();
  inst->increment();

  BasicSerializer out;
  EXPECT_TRUE(plain.key()->report(out, true));
  EXPECT_EQ(out.type().value, UnitCounter::kType);
  EXPECT_EQ(out.name().value, "rx");
  EXPECT_TRUE(out.tags().empty());
  EXPECT_EQ(out.units().value, "msgs");
  EXPECT_EQ(out.value().value, "units: msgs, v~last: 1, s~num: 1, s~min: 1, s~max: 1");

  out.Clear();
  EXPECT_TRUE(inst.key()->report(out, true));
  EXPECT_EQ(out.name().value, "app=DORN");
  EXPECT_EQ(out.instance(), "app=DORN");
  EXPECT_FALSE(out.units().set);

  out.Clear();
  EXPECT_FALSE(root_->subkey("rmq")->report(out, true));
  EXPECT_FALSE(out.name().set);
}

TEST(MetricRegistryTest, RootIsTheNamespaceKeyAndMetricsOutliveTheRegistry) {
  Metric<UnitCounter> m;
  {
    MetricRegistry registry;
    EXPECT_EQ(registry.root()->path(), "/zel");
    EXPECT_EQ(registry.tree_root()->subkey("zel"), registry.root());
    EXPECT_EQ(MetricRegistry("/zel/agent").root()->path(), "/zel/agent");
    m = Metric<UnitCounter>(registry.root()->subkey("a/b"));
  }
  m->increment();
  EXPECT_EQ(m.key()->path(), "/zel/a/b");
}

// Threads make and drop keys while another sweeps: no key in use is deleted.
TEST(MetricKeyConcurrencyTest, SweepRacesWithKeyUse) {
  MetricKeyPtr root = impl::RootKey::MakeRoot();
  std::atomic<bool> done{false};
  std::thread sweeper([&] {
    while (!done.load()) {
      root->sweep_released_subkeys();
      std::this_thread::yield();
    }
  });
  std::vector<std::thread> users;
  for (int t = 0; t < 3; ++t) {
    users.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) {
        MetricKeyPtr parent = root->subkey("conn/" + std::to_string(t));
        Metric<UnitCounter> m(parent->instance("peer" + std::to_string(i % 7)));
        m->increment();
        EXPECT_EQ(m.key()->parent(), parent.get());
      }
    });
  }
  for (auto& u : users) u.join();
  done = true;
  sweeper.join();
  root->sweep_released_subkeys();
  EXPECT_TRUE(root->subkeys().empty());
}

}  // namespace
}  // namespace metrics
}  // namespace zel
