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

TEST(RetryPolicyTest, TextFormAndRefusedArguments) {
  EXPECT_EQ(RetryPolicy().ToString(),
            "RetryPolicy(initial_delay=100, max_delay=60000, backoff_mult=2.000000, "
            "max-attempts=unlimited)");
  // Only the exact marker prints as unlimited.
  EXPECT_EQ(RetryPolicy(1, 2, 1.5, 0xFFFFFFFEu).ToString(),
            "RetryPolicy(initial_delay=1, max_delay=2, backoff_mult=1.500000, "
            "max-attempts=4294967294)");
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
