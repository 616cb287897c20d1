#include "cpp/lib/metrics/metric_key.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/serializer.h"
#include "support/log_capture.h"

namespace zel {
namespace metrics {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
  EXPECT_EQ(c->parent()->name(), "b");
  EXPECT_EQ(root_->kind(), KeyKind::kRoot);
  EXPECT_EQ(root_->name(), "/");

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
  EXPECT_EQ(inst->parent(), family.get());
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
  EXPECT_EQ(b->ref_count(), 2);
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
  EXPECT_EQ(root_->subkey("conn/kept"), kept);
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
  EXPECT_EQ(first.value(), second.value());
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
  const char* text = "Metric: wrong value type (6442450944 != 139586437120)";
  try {
    Metric<FrequencyCounter> freq(key);
    FAIL() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), text);
  }
  EXPECT_THAT(log_.Lines(),
              ElementsAre(HasSubstr(std::string("errorCode=\"MXLIB200\"] ") + text)));
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
  EXPECT_EQ(out.instance(), "");
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
