#include "cpp/lib/common/weak_callback.h"

#include <functional>
#include <memory>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

namespace zel {
namespace {

struct Target {
  void Fire() { ++fired; }
  int fired = 0;
};

TEST(WeakCallback0Test, CallsWhileTheTargetLivesAndTheExpiredHookAfter) {
  int late = 0;
  auto target = boost::make_shared<Target>();
  boost::weak_ptr<Target> watch = target;
  auto callback = MakeWeakCallback(target, &Target::Fire, [&late] { ++late; });
  boost::function<void()> plain = MakeWeakCallback(target, &Target::Fire);
  auto stdTarget = std::make_shared<Target>();
  std::function<void()> onStd = MakeWeakCallback(stdTarget, &Target::Fire);
  callback();
  plain();
  onStd();
  EXPECT_EQ(target->fired, 2);
  EXPECT_EQ(stdTarget->fired, 1);
  EXPECT_FALSE(callback.Expired());

  target.reset();  // the callbacks hold no strong reference
  stdTarget.reset();
  EXPECT_TRUE(watch.expired());
  EXPECT_TRUE(callback.Expired());
  callback();
  plain();  // nothing to call; must not touch freed memory
  onStd();
  EXPECT_EQ(late, 1);
}

TEST(WeakCallback0Test, TargetCanDropItsLastOwnerInsideTheCall) {
  // The callback holds a strong reference while the member runs, so a target
  // that releases its own owner mid-call stays valid until the call returns.
  struct SelfReleasing {
    boost::shared_ptr<SelfReleasing>* owner = nullptr;
    int ran = 0;
    void Run() {
      owner->reset();
      ++ran;  // ASan sees a use after free here if the target died early
    }
  };
  auto holder = boost::make_shared<SelfReleasing>();
  holder->owner = &holder;
  boost::weak_ptr<SelfReleasing> watch = holder;
  MakeWeakCallback(holder, &SelfReleasing::Run)();
  EXPECT_TRUE(watch.expired());
}

}  // namespace
}  // namespace zel
