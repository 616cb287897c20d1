// The small pieces of the common library: reference counting, shared
// buffers, weak callbacks, the error helpers and the retry policy.
#include <errno.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/buffer.h"
#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/not_reached.h"
#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/common/retry_policy.h"
#include "cpp/lib/common/weak_callback.h"
#include "support/log_capture.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

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

TEST(SharedBufferTest, EmptyBuffersHoldNullAndSizedOnesAreZeroFilled) {
  EXPECT_EQ(MakeRefCounted<SharedBuffer>()->data(), nullptr);
  EXPECT_EQ(MakeRefCounted<SharedBuffer>(size_t{0})->data(), nullptr);
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>(size_t{64});
  ASSERT_NE(buf->data(), nullptr);
  EXPECT_EQ(buf->size(), 64u);
  for (size_t i = 0; i < buf->size(); ++i) EXPECT_EQ(buf->data()[i], 0) << i;
}

TEST(SharedBufferTest, CopiesBytesAndAdoptsOwnedMemory) {
  const std::string text = "frame bytes";
  SharedBufferPtr copy = MakeRefCounted<SharedBuffer>(text.data(), text.size());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(copy->data()), copy->size()), text);
  EXPECT_NE(static_cast<const void*>(copy->data()), static_cast<const void*>(text.data()));

  std::unique_ptr<uint8_t[]> owned(new uint8_t[3]{1, 2, 3});
  const uint8_t* address = owned.get();
  SharedBufferPtr adopted = MakeRefCounted<SharedBuffer>(std::move(owned), size_t{3});
  EXPECT_EQ(adopted->data(), address);  // ASan sees a wrong delete of it
}

TEST(SharedBufferTest, ResizeKeepsPrefixAndZeroesGrowth) {
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>("hdr", size_t{3});
  buf->Resize(6);
  ASSERT_EQ(buf->size(), 6u);
  EXPECT_EQ(std::memcmp(buf->data(), "hdr\0\0\0", 6), 0);
  buf->Resize(2);
  ASSERT_EQ(buf->size(), 2u);
  EXPECT_EQ(std::memcmp(buf->data(), "hd", 2), 0);
  buf->Resize(0);
  EXPECT_EQ(buf->data(), nullptr);
}

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

TEST(ErrnoTest, ExceptionAndTextCarryStrerror) {
  const errno_exception e(ENOENT, "open");
  EXPECT_STREQ(e.what(), "open: No such file or directory");
  EXPECT_EQ(ErrnoText(99999), "Unknown error 99999");
}

// What a destructor that must not throw does with a failure.
template <class Thrown>
void SwallowInDestructorStyle(const Thrown& thrown) noexcept {
  try {
    throw thrown;
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, "Holder::~Holder");
  }
}

TEST(CaughtExceptionTest, LoggedWithWhatWhenThereIsOne) {
  zel::testing::LogCapture log;
  SwallowInDestructorStyle(std::logic_error("bad state"));
  SwallowInDestructorStyle(42);
  EXPECT_THAT(log.Lines(),
              ElementsAre(HasSubstr("level=\"ERROR\" errorCode=\"CMNLIB9999\"] Exception in "
                                    "Holder::~Holder: bad state"),
                          EndsWith("errorCode=\"CMNLIB9999\"] Exception in Holder::~Holder")));
}

TEST(NotReachedDeathTest, LogsCritAndWritesFileAndLineToStderrBeforeAborting) {
  zel::testing::LogCapture log;
  const int line = __LINE__ + 1;
  auto unreachable = [] { NOT_REACHED(); };
  // Written to standard error directly, whatever the log settings.
  EXPECT_DEATH(unreachable(),
               "NOT_REACHED reached at .*common_test\\.cpp:" + std::to_string(line));
  // The log record, echoed to standard error in the child.
  auto logged = [] {
    log_testing::SetConsoleEchoForTest(stderr);
    NOT_REACHED();
  };
  EXPECT_DEATH(logged(), "level=\"CRIT\" errorCode=\"CMNLIB900\"\\] NOT_REACHED reached at ");
}

std::vector<int64_t> Delays(RetryPolicy& policy, int count) {
  std::vector<int64_t> delays;
  for (int i = 0; i < count; ++i) delays.push_back(policy.NextDelay());
  return delays;
}

TEST(RetryPolicyTest, DelaySequences) {
  const struct {
    const char* what;
    RetryPolicy policy;
    std::vector<int64_t> delays;
  } cases[] = {
      {"defaults double up to the cap", RetryPolicy(),
       {100, 200, 400, 800, 1600, 3200, 6400, 12800, 25600, 51200, 60000, 60000}},
      {"max attempts end the sequence", RetryPolicy(100, 60000, 2.0, 2), {100, 200, -1, -1}},
      {"zero max attempts allow no retry", RetryPolicy(1, 1, 1.0, 0), {-1}},
      {"the marker below unlimited is a limit", RetryPolicy(5, 5, 1.0, 0xFFFFFFFDu), {5, 5}},
      {"fractional growth is truncated", RetryPolicy(100, 1000, 1.5),
       {100, 150, 225, 337, 506, 759, 1000}},
      {"zero delays and multiplier are allowed", RetryPolicy(0, 0, 0.0), {0, 0}},
  };
  for (auto c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Delays(c.policy, static_cast<int>(c.delays.size())), c.delays);
    EXPECT_EQ(c.policy.attempts(), c.delays.size());
  }
  for (uint32_t unlimited : {0xFFFFFFFFu, 0xFFFFFFFEu}) {
    RetryPolicy policy(5, 5, 1.0, unlimited);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(policy.NextDelay(), 5) << unlimited;
  }
  // Growth past the integer range caps instead of overflowing.
  const int64_t max = std::numeric_limits<int64_t>::max();
  RetryPolicy huge(1, max, 1000.0);
  int64_t last = 0;
  for (int i = 0; i < 200; ++i) {
    const int64_t delay = huge.NextDelay();
    ASSERT_GE(delay, last) << "attempt " << i + 1;
    last = delay;
  }
  EXPECT_EQ(last, max);
  EXPECT_TRUE(huge.capped());
}

TEST(RetryPolicyTest, ResetAndCopies) {
  RetryPolicy policy(10, 35, 2.0, 4);
  EXPECT_EQ(Delays(policy, 5), (std::vector<int64_t>{10, 20, 35, 35, -1}));
  EXPECT_TRUE(policy.capped());
  policy.Reset();
  EXPECT_FALSE(policy.capped());
  EXPECT_EQ(policy.attempts(), 0u);
  EXPECT_EQ(Delays(policy, 2), (std::vector<int64_t>{10, 20}));
  // Copies carry the settings and the progress; the original is untouched.
  RetryPolicy copy(policy);
  EXPECT_EQ(copy.NextDelay(), 35);
  RetryPolicy assigned;
  assigned = policy;
  EXPECT_EQ(assigned.ToString(), policy.ToString());
  EXPECT_EQ(Delays(assigned, 3), (std::vector<int64_t>{35, 35, -1}));
  EXPECT_EQ(policy.attempts(), 2u);
}

TEST(RetryPolicyTest, RefusedArguments) {
  EXPECT_THROW(RetryPolicy(-1, 10, 2.0), std::invalid_argument);
  EXPECT_THROW(RetryPolicy(1, -10, 2.0), std::invalid_argument);
  for (double mult : {-2.0, std::numeric_limits<double>::infinity(),
                      std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_THROW(RetryPolicy(1, 10, mult), std::invalid_argument) << mult;
  }
}

TEST(RetryPolicyTest, ConcurrentCallersEachCountOneAttempt) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 5000;
  RetryPolicy policy(1, 1 << 20, 2.0, kThreads * kCalls / 2);
  std::vector<std::vector<int64_t>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) seen[t].push_back(policy.NextDelay());
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(policy.attempts(), static_cast<uint64_t>(kThreads * kCalls));
  // Exactly max_attempts calls got a delay; each delay of the sequence below
  // the cap was handed out once.
  std::multiset<int64_t> granted;
  for (const auto& values : seen) {
    for (int64_t value : values) {
      if (value >= 0) granted.insert(value);
    }
  }
  EXPECT_EQ(granted.size(), static_cast<size_t>(kThreads * kCalls / 2));
  for (int64_t d = 1; d < (1 << 20); d *= 2) EXPECT_EQ(granted.count(d), 1u) << d;
}

}  // namespace
}  // namespace zel
