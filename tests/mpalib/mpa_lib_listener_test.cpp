#include "mpalib/mpa_lib_listener.h"

#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger_testing.h"
#include "mpa_test_peer.h"
#include "mpalib/mpa_lib.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_lib_exceptions.h"
#include "mpalib/mpa_lib_registry.h"

namespace ZelMpa {
namespace {

using mpa_test::Bytes;
using mpa_test::Doc;
using mpa_test::FakeMpa;
using mpa_test::Frame;
using mpa_test::Inbox;
using mpa_test::LogLines;
using mpa_test::Received;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

// Waits for `condition` with a bounded deadline.
bool Eventually(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// A listener whose select() waits 20 ms instead of 5 s, so that stops are
// quick, and which remembers the descriptor count it was last given.
class QuickListener : public MpaLibListener {
 public:
  using MpaLibListener::MpaLibListener;
  std::atomic<int> lastNfds{-1};

 protected:
  int Select(int nfds, fd_set* readfds, long, long) override {
    lastNfds = nfds;
    return MpaLibListener::Select(nfds, readfds, 0, 20000);
  }
};

// Application callback that fails on data: an exception out of a callback.
void ThrowingCallback(rmqClientMessage* m) {
  if (m->messageType == RMQ_CLIENT_CLOSE) {
    Inbox::Callback(m);
    return;
  }
  std::free(m->rawBuffer);
  throw std::runtime_error("application failed");
}

class MpaLibListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
    zel::log_testing::SetSyslogSinkForTest(&LogLines::Sink);
    LogLines::Clear();
    Inbox::Clear();
  }

  // A client registered with the fake MPA; `peer` is the MPA's end.
  std::shared_ptr<MpaLibClient> Connected(int* cookie, int* peer,
                                          rmqClientCallback callback = &Inbox::Callback) {
    auto client = std::make_shared<MpaLibClient>(kApp, 1, callback);
    EXPECT_EQ(0, client->Init("127.0.0.1", mpa_.portText().c_str(), nullptr, cookie));
    *peer = mpa_.Accept();
    Bytes registration;
    EXPECT_TRUE(FakeMpa::ReadFrame(*peer, &registration));
    return client;
  }

  FakeMpa mpa_;
};

TEST_F(MpaLibListenerTest, RegistryTracksHighestDescriptor) {
  MpaLibRegistry registry;
  auto a = std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback);
  EXPECT_EQ(-1, registry.GetMaxDescriptor());
  EXPECT_EQ(0, registry.Add(3, a));
  EXPECT_EQ(0, registry.Add(9, std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback)));
  EXPECT_EQ(0, registry.Add(5, std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback)));
  EXPECT_EQ(9, registry.GetMaxDescriptor());
  EXPECT_EQ(a, registry.Get(3));
  EXPECT_EQ(nullptr, registry.Get(4));

  fd_set set;
  EXPECT_EQ(9, registry.Snapshot(&set));
  for (int fd = 0; fd < 12; ++fd) {
    EXPECT_EQ(fd == 3 || fd == 5 || fd == 9, FD_ISSET(fd, &set) != 0) << fd;
  }

  EXPECT_EQ(-1, registry.Add(9, a));
  EXPECT_TRUE(LogLines::Contains({"MPA139", "REGISTRY: Client with same cookie id already exists"}));

  // Removing the highest lowers it to the next client; others leave it.
  EXPECT_EQ(0, registry.Remove(9, false));
  EXPECT_EQ(5, registry.GetMaxDescriptor());
  EXPECT_EQ(0, registry.Remove(3, false));
  EXPECT_EQ(5, registry.GetMaxDescriptor());
  EXPECT_EQ(-2016, registry.Remove(42, false));
  EXPECT_TRUE(LogLines::Contains({"MPA143", "Client with index 42 not found in registry"}));
  EXPECT_EQ(0, registry.Remove(5, false));
  EXPECT_EQ(-1, registry.GetMaxDescriptor());
  EXPECT_EQ(0u, registry.Size());
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibListenerTest, RegistryRefusesThe33rdClientAndUnwatchableIds) {
  MpaLibRegistry registry;
  auto client = std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback);
  EXPECT_THROW(registry.Add(FD_SETSIZE, client), RegistrySizeError);
  EXPECT_THROW(registry.Add(-1, client), RegistrySizeError);
  for (int id = 0; id < 32; ++id) ASSERT_EQ(0, registry.Add(id, client));
  try {
    registry.Add(40, client);
    FAIL() << "33rd client accepted";
  } catch (const RegistrySizeError& e) {
    EXPECT_STREQ("Number of allowed clients exceeded", e.what());
  }
  EXPECT_EQ(32u, registry.Size());
  EXPECT_EQ(31, registry.GetMaxDescriptor());
}

TEST_F(MpaLibListenerTest, RegistryClearClosesAndNotifiesEveryClient) {
  MpaLibRegistry registry;
  std::vector<int> cookies, peers;
  for (int i = 0; i < 3; ++i) {
    int cookie = -1;
    int peer = -1;
    auto client = Connected(&cookie, &peer);
    ASSERT_EQ(0, registry.Add(cookie, client));
    cookies.push_back(cookie);
    peers.push_back(peer);
  }
  registry.Clear(true);
  EXPECT_EQ(0u, registry.Size());
  EXPECT_EQ(-1, registry.GetMaxDescriptor());
  for (int i = 0; i < 3; ++i) {
    Received r;
    ASSERT_TRUE(Inbox::Take(&r, 0));
    EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
    EXPECT_EQ(cookies[i], r.cookie);  // in ascending cookie order
    EXPECT_TRUE(mpa_test::WaitForEof(peers[i]));
  }
}

TEST_F(MpaLibListenerTest, LoopDeliversMessagesAndDropsClosedPeers) {
  auto registry = std::make_shared<MpaLibRegistry>();
  int cookieA = -1, peerA = -1, cookieB = -1, peerB = -1;
  auto a = Connected(&cookieA, &peerA);
  auto b = Connected(&cookieB, &peerB);
  ASSERT_LT(cookieA, cookieB);
  ASSERT_EQ(0, registry->Add(cookieA, a));
  ASSERT_EQ(0, registry->Add(cookieB, b));
  auto listener = std::make_shared<QuickListener>(registry, false);
  bool running = false;
  listener->Start([&running] { running = true; });
  EXPECT_TRUE(running);
  EXPECT_TRUE(listener->IsRunning());

  // Data reaches the callback on the listener's thread.
  ASSERT_TRUE(mpa_test::WriteAll(peerA, Frame(Doc().Int64("msg_type", 8).Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(8, r.type);
  EXPECT_EQ(cookieA, r.cookie);

  // The peer of the highest client goes away: one close record, the client
  // leaves the registry, and select() is given a lower bound.
  mpa_.ClosePeer(peerB);
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookieB, r.cookie);
  EXPECT_TRUE(Eventually([&] { return registry->Size() == 1; }));
  EXPECT_TRUE(Eventually([&] { return listener->lastNfds == cookieA + 1; }));
  EXPECT_EQ(0u, Inbox::Size());

  // A stop without notify closes the rest silently.
  EXPECT_TRUE(listener->Stop(false));
  EXPECT_FALSE(listener->IsRunning());
  EXPECT_EQ(0u, registry->Size());
  EXPECT_TRUE(mpa_test::WaitForEof(peerA));
  EXPECT_EQ(0u, Inbox::Size());
  EXPECT_TRUE(LogLines::Contains({"LISTENER: Listener thread successfully stopped"}));
  EXPECT_TRUE(LogLines::Contains({"LISTENER: Exiting loop"}));
}

TEST_F(MpaLibListenerTest, ClientAddedWhileIdleIsServed) {
  auto registry = std::make_shared<MpaLibRegistry>();
  auto listener = std::make_shared<QuickListener>(registry, false);
  listener->Start();
  int cookie = -1;
  int peer = -1;
  auto client = Connected(&cookie, &peer);
  ASSERT_EQ(0, registry->Add(cookie, client));
  ASSERT_TRUE(mpa_test::WriteAll(peer, Frame(Doc().Int64("msg_type", 2).Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(2, r.type);
  EXPECT_TRUE(listener->Stop(true));
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
}

TEST_F(MpaLibListenerTest, StartAndStopRules) {
  auto listener = std::make_shared<QuickListener>(std::make_shared<MpaLibRegistry>(), false);
  EXPECT_TRUE(listener->Stop(true));  // not running: no-op
  EXPECT_TRUE(LogLines::Contains({"Listen loop not running in seperate thread; no-op"}));
  listener->Start();
  EXPECT_THROW(listener->Start(), ExistingSelect);
  EXPECT_TRUE(LogLines::Contains({"MPA138", "Attempted to start a loop thread when one already exists"}));
  EXPECT_TRUE(listener->Stop(false));
  // A stopped listener can run again.
  listener->Start();
  EXPECT_TRUE(listener->Stop(false));

  auto orphan = std::make_shared<QuickListener>(nullptr, false);
  try {
    orphan->Start();
    FAIL() << "started without a registry";
  } catch (const NoRegistryError& e) {
    EXPECT_STREQ("Listener could not find a registry", e.what());
  }
}

TEST_F(MpaLibListenerTest, BcModeRunsTheLoopOnTheCallersThread) {
  auto registry = std::make_shared<MpaLibRegistry>();
  int cookie = -1;
  int peer = -1;
  auto client = Connected(&cookie, &peer);
  ASSERT_EQ(0, registry->Add(cookie, client));

  auto listener = std::make_shared<QuickListener>(registry, true);
  std::mutex m;
  std::condition_variable cv;
  std::thread::id loopThread;
  bool returned = false;
  std::thread caller([&] {
    listener->Start([&] {
      std::lock_guard<std::mutex> lock(m);
      loopThread = std::this_thread::get_id();
      cv.notify_all();
    });
    std::lock_guard<std::mutex> lock(m);
    returned = true;
  });
  {
    std::unique_lock<std::mutex> lock(m);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(5),
                            [&] { return loopThread != std::thread::id(); }));
    EXPECT_EQ(caller.get_id(), loopThread);
    EXPECT_FALSE(returned);
  }
  ASSERT_TRUE(mpa_test::WriteAll(peer, Frame(Doc().Int64("msg_type", 8).Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(8, r.type);

  EXPECT_TRUE(listener->Stop(true));
  caller.join();
  EXPECT_TRUE(returned);
  EXPECT_TRUE(LogLines::Contains({"BC mode is true. external listener thread not stoppable"}));
  EXPECT_TRUE(LogLines::Contains({"BC mode is true. listener loop exited"}));
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookie, r.cookie);
}

TEST_F(MpaLibListenerTest, BadMessageDropsOnlyItsClient) {
  auto registry = std::make_shared<MpaLibRegistry>();
  int cookieA = -1, peerA = -1, cookieB = -1, peerB = -1;
  auto a = Connected(&cookieA, &peerA);
  auto b = Connected(&cookieB, &peerB);
  ASSERT_EQ(0, registry->Add(cookieA, a));
  ASSERT_EQ(0, registry->Add(cookieB, b));
  auto listener = std::make_shared<QuickListener>(registry, false);
  listener->Start();

  // A known key with the wrong type: the library's BsonException.
  ASSERT_TRUE(mpa_test::WriteAll(peerA, Frame(Doc().String("msg_type", "8").Finish())));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookieA, r.cookie);
  EXPECT_TRUE(mpa_test::WaitForEof(peerA));
  EXPECT_TRUE(LogLines::Contains({"MPA101", "Getting long value from BSON failed."}));

  // A frame that is not a document: the read fails, the client goes.
  ASSERT_TRUE(mpa_test::WriteAll(peerB, Frame(Bytes{1, 2, 3})));
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookieB, r.cookie);
  EXPECT_TRUE(Eventually([&] { return registry->Size() == 0; }));

  // The loop itself goes on serving new clients.
  EXPECT_TRUE(listener->IsRunning());
  int cookieC = -1, peerC = -1;
  auto c = Connected(&cookieC, &peerC);
  ASSERT_EQ(0, registry->Add(cookieC, c));
  ASSERT_TRUE(mpa_test::WriteAll(peerC, Frame(Doc().Int64("msg_type", 3).Finish())));
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(3, r.type);
  EXPECT_TRUE(listener->Stop(false));
}

TEST_F(MpaLibListenerTest, ExceptionFromCallbackEndsLoopAndClosesAll) {
  auto registry = std::make_shared<MpaLibRegistry>();
  int cookieA = -1, peerA = -1, cookieB = -1, peerB = -1;
  auto a = Connected(&cookieA, &peerA, &ThrowingCallback);
  auto b = Connected(&cookieB, &peerB, &ThrowingCallback);
  ASSERT_EQ(0, registry->Add(cookieA, a));
  ASSERT_EQ(0, registry->Add(cookieB, b));
  auto listener = std::make_shared<QuickListener>(registry, false);
  listener->Start();
  ASSERT_TRUE(mpa_test::WriteAll(peerA, Frame(Doc().Int64("msg_type", 8).Finish())));
  EXPECT_TRUE(Eventually([&] { return !listener->IsRunning(); }));
  Received r;
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookieA, r.cookie);
  ASSERT_TRUE(Inbox::Take(&r));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookieB, r.cookie);
  EXPECT_EQ(0u, registry->Size());
  EXPECT_TRUE(LogLines::Contains({"MPA101", "application failed"}));
  EXPECT_TRUE(LogLines::Contains({"LISTENER: Closing all registry entries"}));
  EXPECT_TRUE(listener->Stop(false));  // already ended: a no-op
}

// Outside BC mode the library runs its listener on a thread of its own.
TEST_F(MpaLibListenerTest, LibraryOutsideBcModeOwnsItsThread) {
  MpaLib lib(false);
  EXPECT_FALSE(lib.IsStarted());
  EXPECT_EQ(-2018, lib.Init(kApp, 1, nullptr, &Inbox::Callback, nullptr));
  lib.Start();
  EXPECT_TRUE(lib.IsHealthy());
  lib.Start();
  EXPECT_TRUE(LogLines::Contains({"MPALIB: Library already initialized, no-op"}));
  rmqClientEndpoint endpoint{mpa_.port(), "127.0.0.1"};
  const int cookie = lib.Init(kApp, 1, nullptr, &Inbox::Callback, &endpoint);
  ASSERT_GE(cookie, 0);
  int peer = mpa_.Accept();
  ASSERT_GE(peer, 0);
  const std::string customPort = "MPALIB: Custom port: " + std::to_string(mpa_.port());
  EXPECT_TRUE(LogLines::Contains({customPort.c_str()}));
  EXPECT_TRUE(lib.Stop(true));
  EXPECT_FALSE(lib.IsStarted());
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, 0));
  EXPECT_EQ(RMQ_CLIENT_CLOSE, r.type);
  EXPECT_EQ(cookie, r.cookie);
  EXPECT_TRUE(lib.Stop(true));
  EXPECT_TRUE(LogLines::Contains({"MPALIB: MpaLib is already stopped"}));
}

}  // namespace
}  // namespace ZelMpa
