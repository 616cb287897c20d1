#include "core/thread.h"

#include <errno.h>

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

#include "core/log_capture.h"

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
  testing::LogCapture log_;
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
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("level=\"INFO\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("subcomp=\"zeldorn\""), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("] Thread got interrupted."), std::string::npos) << lines[0];
}

TEST_F(ThreadTest, JoiningItselfIsRefused) {
  Gate started;
  std::promise<std::pair<int, std::string>> result;
  FunctionThread thread([&](FunctionThread& self) {
    started.Wait();
    try {
      self.Join();
      result.set_value({0, "joined"});
    } catch (const boost::thread_resource_error& e) {
      result.set_value({e.code().value(), e.what()});
    }
  });
  thread.Start();
  started.Open();
  auto future = result.get_future();
  ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
  const auto outcome = future.get();
  EXPECT_EQ(outcome.first, EDEADLK);
  EXPECT_EQ(outcome.first, 35);
  EXPECT_NE(outcome.second.find("boost thread: trying joining itself"), std::string::npos)
      << outcome.second;
}

// A thread that drops its own last owner: the destructor, running on the
// thread itself, cannot join and says so.
class SelfDeletingThread : public Thread {
 public:
  SelfDeletingThread(Gate* started, std::promise<int>* result)
      : Thread("SelfDeleting"), started_(started), result_(result) {}
  void run() override {
    started_->Wait();
    std::promise<int>* result = result_;
    try {
      delete this;
      result->set_value(0);
    } catch (const boost::thread_resource_error& e) {
      result->set_value(e.code().value());
    }
  }

 private:
  Gate* started_;
  std::promise<int>* result_;
};

TEST_F(ThreadTest, DestructorOnTheThreadItselfThrowsInsteadOfJoining) {
  Gate started;
  std::promise<int> result;
  auto* thread = new SelfDeletingThread(&started, &result);
  thread->Start();
  started.Open();
  auto future = result.get_future();
  ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
  EXPECT_EQ(future.get(), EDEADLK);
}

TEST_F(ThreadTest, StartTwiceIsAProgrammingError) {
  FunctionThread thread([](FunctionThread&) {});
  thread.Join();  // not started: nothing to wait for
  thread.Start();
  EXPECT_THROW(thread.Start(), std::logic_error);
  thread.Join();
  thread.Join();  // already joined: returns at once
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
