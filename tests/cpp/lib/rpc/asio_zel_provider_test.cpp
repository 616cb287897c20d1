#include "cpp/lib/rpc/asio_zel_provider.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <boost/property_tree/ptree.hpp>
#include <gtest/gtest.h>

#include "core/log_capture.h"
#include "cpp/lib/common/asio_dispatcher.h"

namespace zel {
namespace rpc {
namespace {

using Clock = std::chrono::steady_clock;

template <class Pred>
bool WaitFor(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
  const auto deadline = Clock::now() + timeout;
  while (!pred()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

using Handler = void (*)(int);

Handler Disposition(int signo) {
  struct sigaction sa {};
  sigaction(signo, nullptr, &sa);
  return sa.sa_handler;
}

std::atomic<int> g_testHandlerCalls{0};
void TestHandler(int) { g_testHandlerCalls.fetch_add(1); }

// Puts SIGINT and SIGTERM on a recognisable handler for the test, and back
// to the default action afterwards.
class SignalGuard {
 public:
  SignalGuard() {
    signal(SIGINT, TestHandler);
    signal(SIGTERM, TestHandler);
    g_testHandlerCalls = 0;
  }
  ~SignalGuard() {
    signal(SIGINT, SIG_DFL);
    signal(SIGTERM, SIG_DFL);
  }
};

boost::shared_ptr<AsioZelProvider> MakeProvider(bool stopOnSignals) {
  return AsioZelProvider::Create(boost::property_tree::ptree(), {stopOnSignals});
}

class AsioZelProviderTest : public ::testing::Test {
 protected:
  ZelDorn::testing::LogCapture log_;
};

TEST_F(AsioZelProviderTest, BlockingRunServesOnTheCallingThreadUntilStopped) {
  auto provider = MakeProvider(false);
  EXPECT_TRUE(provider->GetConfig().empty());
  EXPECT_FALSE(provider->IsRunning());

  std::thread::id ranOn;
  provider->GetDispatcher()->Post([&] {
    ranOn = std::this_thread::get_id();
    EXPECT_TRUE(provider->IsRunning());
    provider->Stop();
  });
  provider->Run(1, true);

  EXPECT_EQ(ranOn, std::this_thread::get_id());
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(log_.Count("AsioZelProvider: initializing..."), 1u);
  EXPECT_EQ(log_.Count("AsioZelProvider: successfully initialized"), 1u);
}

TEST_F(AsioZelProviderTest, SecondRunAndIdleStopAreRefusedWithTheirLines) {
  auto provider = MakeProvider(false);
  provider->Run(1, false);
  provider->Run(2, false);
  EXPECT_EQ(provider->GetDispatcher()->NumThreads(), 1u);
  EXPECT_EQ(log_.Count("AsioZelProvider: can't run - already running"), 1u);
  EXPECT_EQ(log_.Count("errorCode=\"CMNLIB100\""), 1u);

  provider->Stop();
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(log_.Count("can't stop - not running"), 0u);
  provider->Stop();
  EXPECT_EQ(log_.Count("AsioZelProvider: can't stop - not running"), 1u);
}

TEST_F(AsioZelProviderTest, RunsAgainAfterANonBlockingRunWasStopped) {
  auto provider = MakeProvider(false);
  provider->Run(1, false);
  provider->Stop();

  bool ran = false;
  provider->GetDispatcher()->Post([&] {
    ran = true;
    provider->Stop();
  });
  provider->Run(1, true);
  EXPECT_TRUE(ran);
  EXPECT_EQ(provider->GetDispatcher()->NumThreads(), 0u);
}

TEST_F(AsioZelProviderTest, WithoutStopOnSignalsTheDispositionsStayAsTheyWere) {
  SignalGuard guard;
  auto provider = MakeProvider(false);
  provider->Run(1, false);
  EXPECT_EQ(Disposition(SIGINT), &TestHandler);
  EXPECT_EQ(Disposition(SIGTERM), &TestHandler);
  EXPECT_EQ(log_.Count("setting up signal handlers"), 0u);
  provider->Stop();
}

TEST_F(AsioZelProviderTest, FirstSigtermEndsABlockingRunAndRestoresDefaultActions) {
  SignalGuard guard;
  auto provider = MakeProvider(true);

  std::thread signaller([&] {
    // Run replaces the test's handler before it starts serving.
    ASSERT_TRUE(WaitFor([] { return Disposition(SIGTERM) != &TestHandler; }));
    kill(getpid(), SIGTERM);
  });
  provider->Run(1, true);
  signaller.join();

  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(g_testHandlerCalls.load(), 0);
  EXPECT_EQ(Disposition(SIGINT), SIG_DFL);
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
  EXPECT_EQ(log_.Count("AsioZelProvider: setting up signal handlers"), 1u);
  const auto lines = log_.Lines();
  size_t found = 0;
  for (const auto& line : lines) {
    if (line.find("AsioZelProvider: got signal 15") == std::string::npos) continue;
    ++found;
    EXPECT_NE(line.find("s2comp=\"zel-rpc\""), std::string::npos) << line;
    EXPECT_NE(line.find("level=\"WARN\""), std::string::npos) << line;
  }
  EXPECT_EQ(found, 1u);
}

TEST_F(AsioZelProviderTest, SigintStopsANonBlockingRunWithForce) {
  SignalGuard guard;
  auto provider = MakeProvider(true);
  provider->Run(1, false);
  EXPECT_NE(Disposition(SIGINT), &TestHandler);

  kill(getpid(), SIGINT);
  ASSERT_TRUE(WaitFor([&] { return Disposition(SIGINT) == SIG_DFL; }));
  EXPECT_FALSE(provider->IsRunning());
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
  EXPECT_EQ(log_.Count("AsioZelProvider: got signal 2"), 1u);
  EXPECT_EQ(g_testHandlerCalls.load(), 0);
}

TEST_F(AsioZelProviderTest, StopAndDestructionDropTheSignalRegistration) {
  SignalGuard guard;
  {
    auto provider = MakeProvider(true);
    provider->Run(1, false);
    provider->Stop();
    EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
    EXPECT_EQ(Disposition(SIGINT), SIG_DFL);
  }
  signal(SIGTERM, TestHandler);
  {
    auto provider = MakeProvider(true);
    provider->Run(1, false);
    EXPECT_NE(Disposition(SIGTERM), &TestHandler);
  }
  EXPECT_EQ(Disposition(SIGTERM), SIG_DFL);
}

}  // namespace
}  // namespace rpc
}  // namespace zel
