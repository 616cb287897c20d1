#include "cpp/lib/common/ref_counted.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace zel {
namespace {

// An interface that is itself counted, with an implementation behind it that
// counts its destructor runs, so a test sees exactly when the object died.
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

TEST(RefCountedTest, OnlyTheLastReleaseDestroysTheMostDerivedObject) {
  int destroyed = 0;
  Square* raw = new Square(&destroyed);
  EXPECT_EQ(raw->RefCountForLog(), 0);  // born uncounted
  RefPtr<Shape> shape(raw);
  {
    RefPtr<Square> b(raw);
    RefPtr<const Square> c = b;
    EXPECT_EQ(raw->RefCountForLog(), 3);
  }
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(raw->RefCountForLog(), 1);
  EXPECT_EQ(shape->Sides(), 4);
  shape.reset();  // through the interface
  EXPECT_EQ(destroyed, 1);
}

TEST(RefCountedTest, CopiesOfTheObjectKeepTheirOwnCount) {
  int destroyed = 0;
  RefPtr<Square> original = MakeRefCounted<Square>(&destroyed);
  RefPtr<Square> other = original;
  RefPtr<Square> copy(new Square(*original));
  EXPECT_EQ(copy->RefCountForLog(), 1);
  *copy = *original;
  EXPECT_EQ(copy->RefCountForLog(), 1);
  copy.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(original->RefCountForLog(), 2);
}

TEST(RefCountedTest, ConcurrentCopiesDestroyExactlyOnce) {
  int destroyed = 0;
  RefPtr<Square> shared = MakeRefCounted<Square>(&destroyed);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([copy = shared]() mutable {
      for (int i = 0; i < 20000; ++i) RefPtr<Square> local = copy;
      copy.reset();
    });
  }
  shared.reset();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace zel
