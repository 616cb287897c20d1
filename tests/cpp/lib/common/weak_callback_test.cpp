#include "cpp/lib/common/weak_callback.h"

#include <memory>

#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

namespace zel {
namespace {

class Target : public boost::enable_shared_from_this<Target> {
 public:
  explicit Target(int* destroyed) : destroyed_(destroyed) {}
  virtual ~Target() { ++*destroyed_; }

  void Fire() { ++fired; }
  virtual void Hook() { ++hooked; }

  boost::function<void()> SelfCallback() {
    return MakeWeakCallback(shared_from_this(), &Target::Fire);
  }

  int fired = 0;
  int hooked = 0;

 private:
  int* destroyed_;
};

class DerivedTarget : public Target {
 public:
  using Target::Target;
  void Hook() override { ++derivedHooked; }
  int derivedHooked = 0;
};

TEST(WeakCallback0Test, CallsMemberWhileTargetLives) {
  int destroyed = 0;
  auto target = boost::make_shared<Target>(&destroyed);
  WeakCallback0<Target> callback(target, &Target::Fire);
  callback();
  callback();
  EXPECT_EQ(target->fired, 2);
  EXPECT_FALSE(callback.Expired());
}

TEST(WeakCallback0Test, DoesNotKeepTargetAlive) {
  int destroyed = 0;
  auto target = boost::make_shared<Target>(&destroyed);
  boost::function<void()> callback = target->SelfCallback();
  target.reset();
  EXPECT_EQ(destroyed, 1);
  callback();  // nothing to call; must not touch freed memory
}

TEST(WeakCallback0Test, RunsExpiredHookOnlyAfterTargetDied) {
  int destroyed = 0;
  int late = 0;
  auto target = boost::make_shared<Target>(&destroyed);
  auto callback = MakeWeakCallback(target, &Target::Fire, [&late] { ++late; });
  callback();
  EXPECT_EQ(late, 0);
  target.reset();
  EXPECT_TRUE(callback.Expired());
  callback();
  EXPECT_EQ(late, 1);
}

TEST(WeakCallback0Test, VirtualMemberReachesDerivedOverride) {
  int destroyed = 0;
  auto target = boost::make_shared<DerivedTarget>(&destroyed);
  auto callback = MakeWeakCallback(target, &Target::Hook);
  callback();
  EXPECT_EQ(target->derivedHooked, 1);
  EXPECT_EQ(target->hooked, 0);
}

TEST(WeakCallback0Test, TargetCanDropItsLastOwnerInsideTheCall) {
  // The callback holds a strong reference while the member runs, so a target
  // that releases its own owner mid-call stays valid until the call returns.
  struct SelfReleasing {
    boost::shared_ptr<SelfReleasing>* owner = nullptr;
    int ran = 0;
    void Run() {
      owner->reset();
      ++ran;
    }
  };
  auto holder = boost::make_shared<SelfReleasing>();
  holder->owner = &holder;
  boost::weak_ptr<SelfReleasing> watch = holder;
  auto callback = MakeWeakCallback(holder, &SelfReleasing::Run);
  callback();
  EXPECT_TRUE(watch.expired());
}

TEST(WeakCallback0Test, WorksWithStdSharedPointers) {
  int destroyed = 0;
  auto target = std::make_shared<Target>(&destroyed);
  std::function<void()> callback = MakeWeakCallback(target, &Target::Fire);
  callback();
  EXPECT_EQ(target->fired, 1);
  target.reset();
  callback();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace zel
