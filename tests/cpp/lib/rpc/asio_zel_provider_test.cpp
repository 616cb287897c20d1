#include "cpp/lib/rpc/asio_zel_provider.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <string>
#include <thread>

#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace rpc {
namespace {

using zel::testing::WaitUntil;
using Handler = void (*)(int);

Handler Disposition(int signo) {
  struct sigaction sa {};
  sigaction(signo, nullptr, &sa);
  return sa.sa_handler;
}

std::atomic<int> g_testHandlerCalls{0};
void TestHandler(int) { g_testHandlerCalls.fetch_add(1); }

boost::shared_ptr<AsioZelProvider> MakeProvider(bool stopOnSignals) {
  return AsioZelProvider::Create(boost::property_tree::ptree(), {stopOnSignals});
}

// SIGINT and SIGTERM sit on a recognisable handler during each test, and go
// back to the default action afterwards.
class AsioZelProviderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGINT, TestHandler);
    signal(SIGTERM, TestHandler);
    g_testHandlerCalls = 0;
  }
  void TearDown() override {
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
  }

  zel::testing::LogCapture log_;
};

TEST_F(AsioZelProviderTest, BlockingRunServesOnTheCallingThreadAndRunsAgainAfterAStop) {
  auto provider = MakeProvider(false);
  EXPECT_FALSE(provider->IsRunning());
  provider->Run(1, false);
  provider->Stop();

  std::thread::id ranOn;
  provider->GetDispatcher()->Post([&] {
    ranOn = std::this_thread::get_id();
    EXPECT_TRUE(provider->IsRunning());
    provider->Stop();
  });
  provider->Run(1, true);
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(provider->GetDispatcher()->NumThreads(), 0u);
  // Without stop_on_signals the dispositions stay as they were.
  EXPECT_EQ(Disposition(SIGINT), &TestHandler);
  EXPECT_EQ(Disposition(SIGTERM), &TestHandler);
}

TEST_F(AsioZelProviderTest, SecondRunAndIdleStopAreRefusedWithTheirLines) {
  auto provider = MakeProvider(false);
  provider->Run(1, false);
  provider->Run(2, false);
  EXPECT_EQ(provider->GetDispatcher()->NumThreads(), 1u);
  EXPECT_EQ(log_.Count("errorCode=\"CMNLIB100\"] AsioZelProvider: can't run - already running"),
            1u);
  provider->Stop();
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(log_.Count("can't stop - not running"), 0u);
  provider->Stop();
  EXPECT_EQ(log_.Count("AsioZelProvider: can't stop - not running"), 1u);
  // Its thread ends before the test does, so the provider goes here and
  // not on that thread while the next test sets the logger up.
  provider->GetDispatcher()->StopAndWait(true);
}

TEST_F(AsioZelProviderTest, FirstSigtermEndsABlockingRunAndRestoresDefaultActions) {
  auto provider = MakeProvider(true);
  std::thread signaller([&] {
    // Run replaces the test's handler before it starts serving.
    ASSERT_TRUE(WaitUntil([] { return Disposition(SIGTERM) != &TestHandler; }));
    kill(getpid(), SIGTERM);
  });
  provider->Run(1, true);
  signaller.join();

  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(g_testHandlerCalls.load(), 0);
  EXPECT_EQ(Disposition(SIGINT), SIG_DFL);
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
  EXPECT_EQ(log_.Count("level=\"WARN\"] AsioZelProvider: got signal 15"), 1u);
}

TEST_F(AsioZelProviderTest, SigintStopsANonBlockingRunWithForce) {
  auto provider = MakeProvider(true);
  provider->Run(1, false);
  EXPECT_NE(Disposition(SIGINT), &TestHandler);
  kill(getpid(), SIGINT);
  ASSERT_TRUE(WaitUntil([&] { return Disposition(SIGINT) == SIG_DFL; }));
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
  EXPECT_EQ(log_.Count("AsioZelProvider: got signal 2"), 1u);
  EXPECT_EQ(g_testHandlerCalls.load(), 0);
  provider->GetDispatcher()->StopAndWait(true);
}

TEST_F(AsioZelProviderTest, StopAndDestructionDropTheSignalRegistration) {
  {
    auto provider = MakeProvider(true);
    provider->Run(1, false);
    provider->Stop();
    EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(Disposition(SIGINT), SIG_DFL);
    provider->GetDispatcher()->StopAndWait(true);
  }
  signal(SIGTERM, TestHandler);
  {
    auto provider = MakeProvider(true);
    provider->Run(1, false);
    EXPECT_NE(Disposition(SIGTERM), &TestHandler);
    // The run's first step holds the provider for a moment: once a later
    // step has run, the last reference goes here, on the test's thread.
    std::promise<void> ran;
    provider->GetDispatcher()->Post([&ran] { ran.set_value(); });
    ASSERT_EQ(ran.get_future().wait_for(zel::testing::kDeadline), std::future_status::ready);
  }
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
}

}  // namespace
}  // namespace rpc
}  // namespace zel
