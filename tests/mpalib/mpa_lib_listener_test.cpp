#include "mpalib/mpa_lib_listener.h"

#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
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

// Waits for `condition` with a bounded deadline, for states that have no
// event of their own.
bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
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
  if (m->messageType == RMQ_CLIENT_CLOSE) return Inbox::Callback(m);
  std::free(m->rawBuffer);
  throw std::runtime_error("application failed");
}

// Takes the next record and checks its type and cookie.
void ExpectReceived(int32_t type, int cookie, int timeoutMs = 5000) {
  Received r;
  ASSERT_TRUE(Inbox::Take(&r, timeoutMs));
  EXPECT_EQ(type, r.type);
  EXPECT_EQ(cookie, r.cookie);
}

struct Conn {
  std::shared_ptr<MpaLibClient> client;
  int cookie = -1;
  int peer = -1;  // the MPA's end
};

class MpaLibListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent");
    zel::log_testing::SetSyslogSinkForTest(&LogLines::Sink);
    LogLines::Clear();
    Inbox::Clear();
  }

  // A client registered with the fake MPA, and added to `registry` if given.
  Conn Connect(MpaLibRegistry* registry = nullptr, rmqClientCallback callback = &Inbox::Callback) {
    Conn c;
    c.client = std::make_shared<MpaLibClient>(kApp, 1, callback);
    EXPECT_EQ(0, c.client->Init("127.0.0.1", mpa_.portText().c_str(), nullptr, &c.cookie));
    c.peer = mpa_.Accept();
    Bytes registration;
    EXPECT_TRUE(FakeMpa::ReadFrame(c.peer, &registration));
    if (registry != nullptr) {
      EXPECT_EQ(0, registry->Add(c.cookie, c.client));
    }
    return c;
  }

  FakeMpa mpa_;
  std::shared_ptr<MpaLibRegistry> registry_ = std::make_shared<MpaLibRegistry>();
};

TEST_F(MpaLibListenerTest, RegistryTracksHighestDescriptor) {
  MpaLibRegistry& registry = *registry_;
  auto a = std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback);
  EXPECT_EQ(-1, registry.GetMaxDescriptor());
  EXPECT_EQ(0, registry.Add(3, a));
  for (int id : {9, 5}) {
    EXPECT_EQ(0, registry.Add(id, std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback)));
  }
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
  auto client = std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback);
  EXPECT_THROW(registry_->Add(FD_SETSIZE, client), RegistrySizeError);
  EXPECT_THROW(registry_->Add(-1, client), RegistrySizeError);
  for (int id = 0; id < 32; ++id) ASSERT_EQ(0, registry_->Add(id, client));
  try {
    registry_->Add(40, client);
    FAIL() << "33rd client accepted";
  } catch (const RegistrySizeError& e) {
    EXPECT_STREQ("Number of allowed clients exceeded", e.what());
  }
  EXPECT_EQ(32u, registry_->Size());
  EXPECT_EQ(31, registry_->GetMaxDescriptor());
}

TEST_F(MpaLibListenerTest, RegistryClearClosesAndNotifiesEveryClientInCookieOrder) {
  std::vector<Conn> conns;
  for (int i = 0; i < 3; ++i) conns.push_back(Connect(registry_.get()));
  registry_->Clear(true);
  EXPECT_EQ(0u, registry_->Size());
  EXPECT_EQ(-1, registry_->GetMaxDescriptor());
  for (const Conn& c : conns) {
    ExpectReceived(RMQ_CLIENT_CLOSE, c.cookie, 0);
    EXPECT_TRUE(mpa_test::WaitForEof(c.peer));
  }
}

TEST_F(MpaLibListenerTest, LoopDeliversMessagesAndDropsClosedPeers) {
  auto listener = std::make_shared<QuickListener>(registry_, false);
  bool running = false;
  listener->Start([&running] { running = true; });
  EXPECT_TRUE(running);
  EXPECT_TRUE(listener->IsRunning());
  // Clients added while the loop idles are served.
  Conn a = Connect(registry_.get());
  Conn b = Connect(registry_.get());
  ASSERT_LT(a.cookie, b.cookie);

  // Data reaches the callback on the listener's thread.
  ASSERT_TRUE(mpa_test::WriteAll(a.peer, Frame(Doc().Int64("msg_type", 8).Finish())));
  ExpectReceived(8, a.cookie);

  // The peer of the highest client goes away: one close record, the client
  // leaves the registry, and select() is given a lower bound.
  mpa_.ClosePeer(b.peer);
  ExpectReceived(RMQ_CLIENT_CLOSE, b.cookie);
  EXPECT_TRUE(Eventually([&] { return registry_->Size() == 1; }));
  EXPECT_TRUE(Eventually([&] { return listener->lastNfds == a.cookie + 1; }));
  EXPECT_EQ(0u, Inbox::Size());

  // A stop without notify closes the rest silently.
  EXPECT_TRUE(listener->Stop(false));
  EXPECT_FALSE(listener->IsRunning());
  EXPECT_EQ(0u, registry_->Size());
  EXPECT_TRUE(mpa_test::WaitForEof(a.peer));
  EXPECT_EQ(0u, Inbox::Size());
  EXPECT_TRUE(LogLines::Contains({"LISTENER: Listener thread successfully stopped"}));
  EXPECT_TRUE(LogLines::Contains({"LISTENER: Exiting loop"}));
}

TEST_F(MpaLibListenerTest, StartAndStopRules) {
  auto listener = std::make_shared<QuickListener>(registry_, false);
  EXPECT_TRUE(listener->Stop(true));  // not running: no-op
  EXPECT_TRUE(LogLines::Contains({"Listen loop not running in seperate thread; no-op"}));
  listener->Start();
  EXPECT_THROW(listener->Start(), ExistingSelect);
  EXPECT_TRUE(LogLines::Contains({"MPA138", "Attempted to start a loop thread when one already exists"}));
  EXPECT_TRUE(listener->Stop(false));
  // A stopped listener can run again.
  listener->Start();
  EXPECT_TRUE(listener->Stop(false));

  try {
    std::make_shared<QuickListener>(nullptr, false)->Start();
    FAIL() << "started without a registry";
  } catch (const NoRegistryError& e) {
    EXPECT_STREQ("Listener could not find a registry", e.what());
  }
}

TEST_F(MpaLibListenerTest, BcModeRunsTheLoopOnTheCallersThread) {
  Conn c = Connect(registry_.get());
  auto listener = std::make_shared<QuickListener>(registry_, true);
  std::atomic<std::thread::id> loopThread{};
  std::atomic<bool> returned{false};
  std::thread caller([&] {
    listener->Start([&] { loopThread = std::this_thread::get_id(); });
    returned = true;
  });
  // The loop serves on the caller's thread, which Start does not return to.
  ASSERT_TRUE(mpa_test::WriteAll(c.peer, Frame(Doc().Int64("msg_type", 8).Finish())));
  ExpectReceived(8, c.cookie);
  EXPECT_EQ(caller.get_id(), loopThread.load());
  EXPECT_FALSE(returned);

  EXPECT_TRUE(listener->Stop(true));
  caller.join();
  EXPECT_TRUE(returned);
  EXPECT_TRUE(LogLines::Contains({"BC mode is true. external listener thread not stoppable"}));
  EXPECT_TRUE(LogLines::Contains({"BC mode is true. listener loop exited"}));
  ExpectReceived(RMQ_CLIENT_CLOSE, c.cookie, 0);
}

TEST_F(MpaLibListenerTest, BadMessageDropsOnlyItsClient) {
  Conn a = Connect(registry_.get());
  Conn b = Connect(registry_.get());
  auto listener = std::make_shared<QuickListener>(registry_, false);
  listener->Start();

  // A known key with the wrong type: the library's BsonException.
  ASSERT_TRUE(mpa_test::WriteAll(a.peer, Frame(Doc().String("msg_type", "8").Finish())));
  ExpectReceived(RMQ_CLIENT_CLOSE, a.cookie);
  EXPECT_TRUE(mpa_test::WaitForEof(a.peer));
  EXPECT_TRUE(LogLines::Contains({"MPA101", "Getting long value from BSON failed."}));

  // A frame that is not a document: the read fails, the client goes.
  ASSERT_TRUE(mpa_test::WriteAll(b.peer, Frame(Bytes{1, 2, 3})));
  ExpectReceived(RMQ_CLIENT_CLOSE, b.cookie);
  EXPECT_TRUE(Eventually([&] { return registry_->Size() == 0; }));

  // The loop itself goes on serving new clients.
  EXPECT_TRUE(listener->IsRunning());
  Conn c = Connect(registry_.get());
  ASSERT_TRUE(mpa_test::WriteAll(c.peer, Frame(Doc().Int64("msg_type", 3).Finish())));
  ExpectReceived(3, c.cookie);
  EXPECT_TRUE(listener->Stop(false));
}

TEST_F(MpaLibListenerTest, ExceptionFromCallbackEndsLoopAndClosesAll) {
  Conn a = Connect(registry_.get(), &ThrowingCallback);
  Conn b = Connect(registry_.get(), &ThrowingCallback);
  auto listener = std::make_shared<QuickListener>(registry_, false);
  listener->Start();
  ASSERT_TRUE(mpa_test::WriteAll(a.peer, Frame(Doc().Int64("msg_type", 8).Finish())));
  EXPECT_TRUE(Eventually([&] { return !listener->IsRunning(); }));
  ExpectReceived(RMQ_CLIENT_CLOSE, a.cookie);
  ExpectReceived(RMQ_CLIENT_CLOSE, b.cookie);
  EXPECT_EQ(0u, registry_->Size());
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
  ASSERT_GE(mpa_.Accept(), 0);
  const std::string customPort = "MPALIB: Custom port: " + std::to_string(mpa_.port());
  EXPECT_TRUE(LogLines::Contains({customPort.c_str()}));
  EXPECT_TRUE(lib.Stop(true));
  EXPECT_FALSE(lib.IsStarted());
  ExpectReceived(RMQ_CLIENT_CLOSE, cookie, 0);
  EXPECT_TRUE(lib.Stop(true));
  EXPECT_TRUE(LogLines::Contains({"MPALIB: MpaLib is already stopped"}));
}

}  // namespace
}  // namespace ZelMpa
