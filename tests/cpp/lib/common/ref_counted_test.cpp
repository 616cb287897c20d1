#include "cpp/lib/common/ref_counted.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace zel {
namespace {

// Counts destructor runs, so a test sees exactly when the object died.
class Tracked : public RefCounted<Tracked, IRefCountable> {
 public:
  explicit Tracked(int* destroyed) : destroyed_(destroyed) {}
  ~Tracked() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

// An interface that is itself counted, with an implementation behind it.
class Shape : public IRefCountable {
 public:
  virtual int Sides() const = 0;
};

class Square : public RefCounted<Square, Shape> {
 public:
  explicit Square(int* destroyed) : destroyed_(destroyed) {}
  ~Square() override { ++*destroyed_; }
  int Sides() const override { return 4; }

 private:
  int* destroyed_;
};

TEST(RefCountedTest, ReleaseFromOneDestroysFromTwoDoesNot) {
  int destroyed = 0;
  Tracked* raw = new Tracked(&destroyed);
  EXPECT_EQ(raw->RefCountForLog(), 0);  // born uncounted
  raw->AddRef();
  raw->AddRef();
  raw->Release();  // 2 -> 1
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(raw->RefCountForLog(), 1);
  raw->Release();  // 1 -> 0
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, PointerCopiesShareOneObject) {
  int destroyed = 0;
  RefPtr<Tracked> a = MakeRefCounted<Tracked>(&destroyed);
  EXPECT_EQ(a->RefCountForLog(), 1);
  {
    RefPtr<Tracked> b = a;
    RefPtr<const Tracked> c = a;
    EXPECT_EQ(a->RefCountForLog(), 3);
  }
  EXPECT_EQ(destroyed, 0);
  a.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, LastReleaseThroughInterfaceDestroysMostDerived) {
  int destroyed = 0;
  RefPtr<Shape> shape = MakeRefCounted<Square>(&destroyed);
  EXPECT_EQ(shape->Sides(), 4);
  shape.reset();
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, CopyOfObjectStartsWithItsOwnCount) {
  int destroyed = 0;
  RefPtr<Tracked> original = MakeRefCounted<Tracked>(&destroyed);
  RefPtr<Tracked> other = original;
  RefPtr<Tracked> copy(new Tracked(*original));
  EXPECT_EQ(copy->RefCountForLog(), 1);
  copy.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(original->RefCountForLog(), 2);
}

TEST(RefCountedTest, ConcurrentCopiesDestroyExactlyOnce) {
  int destroyed = 0;
  RefPtr<Tracked> shared = MakeRefCounted<Tracked>(&destroyed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = shared]() mutable {
      for (int i = 0; i < 20000; ++i) {
        RefPtr<Tracked> local = copy;
      }
      copy.reset();
    });
  }
  shared.reset();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace zel
