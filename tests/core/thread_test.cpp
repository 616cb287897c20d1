#include "core/thread.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "support/log_capture.h"

namespace ZelDorn {
namespace {

constexpr auto kDeadline = std::chrono::seconds(10);

// A thread whose body is a test-supplied function.
class FunctionThread : public Thread {
 public:
  explicit FunctionThread(std::function<void(FunctionThread&)> body)
      : Thread("FunctionThread"), body_(std::move(body)) {}
  ~FunctionThread() override { Join(); }
  void run() override { body_(*this); }

 private:
  std::function<void(FunctionThread&)> body_;
};

// A gate the body waits at with a boost interruption point, so that an
// interrupt would show as boost::thread_interrupted.
class Gate {
 public:
  void Open() {
    boost::lock_guard<boost::mutex> lock(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  void Wait() {
    boost::unique_lock<boost::mutex> lock(mutex_);
    while (!open_) cv_.wait(lock);
  }

 private:
  boost::mutex mutex_;
  boost::condition_variable cv_;
  bool open_ = false;
};

class ThreadTest : public ::testing::Test {
 protected:
  zel::testing::LogCapture log_;
};

TEST_F(ThreadTest, DestructorWaitsForTheBodyAndDoesNotInterruptIt) {
  Gate gate;
  std::promise<void> entered;
  std::atomic<bool> finished{false};
  auto thread = std::make_unique<FunctionThread>([&](FunctionThread&) {
    entered.set_value();
    gate.Wait();
    finished = true;
  });
  EXPECT_FALSE(thread->started());
  thread->Start();
  EXPECT_TRUE(thread->started());
  ASSERT_EQ(entered.get_future().wait_for(kDeadline), std::future_status::ready);

  // The gate opens only after the destructor has begun to wait; a destructor
  // that returned early, or interrupted the body, would leave `finished`
  // false.
  std::thread opener([&] { gate.Open(); });
  thread.reset();
  opener.join();
  EXPECT_TRUE(finished);
  EXPECT_EQ(log_.Count("Thread got interrupted."), 0u);
}

TEST_F(ThreadTest, InterruptionEndsTheThreadQuietly) {
  std::promise<void> entered;
  FunctionThread thread([&](FunctionThread&) {
    entered.set_value();
    for (;;) boost::this_thread::sleep_for(boost::chrono::hours(1));
  });
  thread.Start();
  ASSERT_EQ(entered.get_future().wait_for(kDeadline), std::future_status::ready);
  thread.Interrupt();
  thread.Join();
  ASSERT_EQ(log_.Lines().size(), 1u);
  EXPECT_EQ(log_.Count("level=\"INFO\"] Thread got interrupted."), 1u);
}

using ThreadDeathTest = ThreadTest;

TEST_F(ThreadDeathTest, OtherExceptionsEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        FunctionThread thread([](FunctionThread&) { throw std::runtime_error("body failed"); });
        thread.Start();
        thread.Join();
      },
      "body failed");
}

}  // namespace
}  // namespace ZelDorn
