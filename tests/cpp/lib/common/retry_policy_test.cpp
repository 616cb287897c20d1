#include "cpp/lib/common/retry_policy.h"

#include <cstdint>
#include <limits>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace zel {
namespace {

std::vector<int64_t> Delays(RetryPolicy& policy, int count) {
  std::vector<int64_t> delays;
  for (int i = 0; i < count; ++i) delays.push_back(policy.NextDelay());
  return delays;
}

TEST(RetryPolicyTest, DefaultsDoubleFromTheInitialDelayUpToTheCap) {
  RetryPolicy policy;
  EXPECT_EQ(Delays(policy, 12), (std::vector<int64_t>{100, 200, 400, 800, 1600, 3200, 6400, 12800,
                                                      25600, 51200, 60000, 60000}));
  EXPECT_TRUE(policy.capped());
  EXPECT_EQ(policy.attempts(), 12u);
}

TEST(RetryPolicyTest, MaxAttemptsEndsTheSequenceAndResetStartsItAnew) {
  RetryPolicy policy(100, 60000, 2.0, 2);
  EXPECT_EQ(Delays(policy, 4), (std::vector<int64_t>{100, 200, -1, -1}));
  policy.Reset();
  EXPECT_EQ(policy.attempts(), 0u);
  EXPECT_EQ(Delays(policy, 3), (std::vector<int64_t>{100, 200, -1}));
}

TEST(RetryPolicyTest, ZeroMaxAttemptsAllowsNoRetry) {
  // The single-try policy of the stub creators.
  RetryPolicy policy(1, 1, 1.0, 0);
  EXPECT_EQ(policy.NextDelay(), -1);
}

TEST(RetryPolicyTest, TheTwoTopValuesOfMaxAttemptsAreUnlimited) {
  for (uint32_t unlimited : {0xFFFFFFFFu, 0xFFFFFFFEu}) {
    RetryPolicy policy(5, 5, 1.0, unlimited);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(policy.NextDelay(), 5) << unlimited;
  }
  RetryPolicy limited(5, 5, 1.0, 0xFFFFFFFDu);
  EXPECT_EQ(limited.NextDelay(), 5);
}

TEST(RetryPolicyTest, ResetClearsTheCap) {
  RetryPolicy policy(10, 35, 2.0);
  EXPECT_EQ(Delays(policy, 4), (std::vector<int64_t>{10, 20, 35, 35}));
  EXPECT_TRUE(policy.capped());
  policy.Reset();
  EXPECT_FALSE(policy.capped());
  EXPECT_EQ(Delays(policy, 3), (std::vector<int64_t>{10, 20, 35}));
}

TEST(RetryPolicyTest, FractionalGrowthIsTruncated) {
  RetryPolicy policy(100, 1000, 1.5);
  EXPECT_EQ(Delays(policy, 7), (std::vector<int64_t>{100, 150, 225, 337, 506, 759, 1000}));
}

TEST(RetryPolicyTest, GrowthPastTheIntegerRangeCapsInsteadOfOverflowing) {
  const int64_t max = std::numeric_limits<int64_t>::max();
  RetryPolicy policy(1, max, 1000.0);
  int64_t last = 0;
  for (int i = 0; i < 200; ++i) {
    const int64_t delay = policy.NextDelay();
    ASSERT_GE(delay, last) << "attempt " << i + 1;
    last = delay;
  }
  EXPECT_EQ(last, max);
  EXPECT_TRUE(policy.capped());
}

TEST(RetryPolicyTest, TextForm) {
  EXPECT_EQ(RetryPolicy().ToString(),
            "RetryPolicy(initial_delay=100, max_delay=60000, backoff_mult=2.000000, "
            "max-attempts=unlimited)");
  EXPECT_EQ(RetryPolicy(1, 1, 1.0, 0).ToString(),
            "RetryPolicy(initial_delay=1, max_delay=1, backoff_mult=1.000000, max-attempts=0)");
  // Only the exact marker prints as unlimited.
  EXPECT_EQ(RetryPolicy(1, 2, 1.5, 0xFFFFFFFEu).ToString(),
            "RetryPolicy(initial_delay=1, max_delay=2, backoff_mult=1.500000, "
            "max-attempts=4294967294)");
}

TEST(RetryPolicyTest, CopiesCarrySettingsAndProgress) {
  RetryPolicy policy(10, 1000, 3.0, 5);
  policy.NextDelay();
  policy.NextDelay();
  RetryPolicy copy(policy);
  EXPECT_EQ(copy.NextDelay(), 90);
  RetryPolicy assigned;
  assigned = policy;
  EXPECT_EQ(assigned.ToString(), policy.ToString());
  EXPECT_EQ(assigned.NextDelay(), 90);
  // The original is untouched by its copies.
  EXPECT_EQ(policy.attempts(), 2u);
}

TEST(RetryPolicyTest, RejectsNegativeDelaysAndBadMultipliers) {
  EXPECT_THROW(RetryPolicy(-1, 10, 2.0), std::invalid_argument);
  EXPECT_THROW(RetryPolicy(1, -10, 2.0), std::invalid_argument);
  EXPECT_THROW(RetryPolicy(1, 10, -2.0), std::invalid_argument);
  EXPECT_THROW(RetryPolicy(1, 10, std::numeric_limits<double>::infinity()), std::invalid_argument);
  EXPECT_THROW(RetryPolicy(1, 10, std::numeric_limits<double>::quiet_NaN()),
               std::invalid_argument);
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
  int granted = 0;
  std::multiset<int64_t> delays;
  for (const auto& values : seen) {
    for (int64_t value : values) {
      if (value >= 0) {
        ++granted;
        delays.insert(value);
      }
    }
  }
  EXPECT_EQ(granted, kThreads * kCalls / 2);
  for (int64_t d = 1; d < (1 << 20); d *= 2) EXPECT_EQ(delays.count(d), 1u) << d;
}

}  // namespace
}  // namespace zel
