#include "mpalib/mpa_lib_listener.h"

#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mpalib/mpa_lib.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_lib_exceptions.h"
#include "mpalib/mpa_lib_registry.h"
#include "mpalib/mpa_test_peer.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace ZelMpa {
namespace {

using namespace mpa_test;
using zel::testing::WaitUntil;

// A listener whose waits are short, and which remembers what it was asked
// to wait: the select() time-out and descriptor count, and the idle sleep.
class QuickListener : public MpaLibListener {
 public:
  using MpaLibListener::MpaLibListener;
  std::atomic<long> nfds{-1}, selectSec{-1}, selectUsec{-1}, idleMillis{-1};

 protected:
  int Select(int n, fd_set* readfds, long sec, long usec) override {
    nfds = n;
    selectSec = sec;
    selectUsec = usec;
    return MpaLibListener::Select(n, readfds, 0, 20000);
  }
  void IdleWait(std::chrono::milliseconds wait) override {
    idleMillis = static_cast<long>(wait.count());
    MpaLibListener::IdleWait(std::chrono::milliseconds(20));
  }
};

// Application callback that fails on data: an exception out of a callback.
void ThrowingCallback(rmqClientMessage* m) {
  if (m->messageType == RMQ_CLIENT_CLOSE) return Inbox::Callback(m);
  std::free(m->rawBuffer);
  throw std::runtime_error("application failed");
}

// A client's cookie and the MPA's end of its connection.
struct Conn {
  int cookie = -1, peer = -1;
};

class MpaLibListenerTest : public ::testing::Test {
 protected:
  void SetUp() override { Inbox::Clear(); }

  // A client registered with the fake MPA and added to the registry.
  Conn Connect(rmqClientCallback callback = &Inbox::Callback) {
    Conn c;
    auto client = std::make_shared<MpaLibClient>(kApp, 1, callback);
    EXPECT_EQ(kMpaOk, client->Init("127.0.0.1", mpa_.portText().c_str(), nullptr, &c.cookie));
    c.peer = mpa_.AcceptRegistration(kApp);
    EXPECT_EQ(kMpaOk, registry_->Add(c.cookie, client));
    return c;
  }
  std::shared_ptr<QuickListener> Listener(bool bcMode = false) {
    return std::make_shared<QuickListener>(registry_, bcMode);
  }

  zel::testing::LogCapture log_;
  FakeMpa mpa_;
  std::shared_ptr<MpaLibRegistry> registry_ = std::make_shared<MpaLibRegistry>();
};

TEST_F(MpaLibListenerTest, RegistryTracksHighestDescriptorAndRefusesDescriptorsOutsideTheSet) {
  MpaLibRegistry& registry = *registry_;
  auto a = std::make_shared<MpaLibClient>(kApp, 1, &Inbox::Callback);
  EXPECT_EQ(-1, registry.GetMaxDescriptor());
  for (int id : {3, 9, 5}) EXPECT_EQ(kMpaOk, registry.Add(id, a));
  EXPECT_EQ(kMpaFailure, registry.Add(9, a));
  EXPECT_EQ(1u, log_.Count("MPA139\"] REGISTRY: Client with same cookie id already exists"));
  EXPECT_EQ(nullptr, registry.Get(4));
  fd_set set;
  EXPECT_EQ(9, registry.Snapshot(&set));
  for (int fd = 0; fd < 12; ++fd) EXPECT_EQ(fd == 3 || fd == 5 || fd == 9, FD_ISSET(fd, &set) != 0);

  // Removing the highest lowers it to the next client; others leave it.
  for (auto [id, max] : {std::pair<int, int>{9, 5}, {3, 5}, {5, -1}}) {
    EXPECT_EQ(kMpaOk, registry.Remove(id, false));
    EXPECT_EQ(max, registry.GetMaxDescriptor());
  }
  EXPECT_EQ(kMpaClientNotFound, registry.Remove(42, false));
  EXPECT_EQ(1u, log_.Count("MPA143\"] REGISTRY: Client with index 42 not found in registry"));

  // Descriptors outside select()'s set are refused; the limit of 32 clients
  // is checked through the entry points in net_api_test.
  EXPECT_THROW(registry.Add(FD_SETSIZE, a), RegistrySizeError);
  EXPECT_THROW(registry.Add(-1, a), RegistrySizeError);
  EXPECT_EQ(0u, registry.Size());
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibListenerTest, LoopWaitsServesAndDropsClosedPeers) {
  auto listener = Listener();
  bool running = false;
  listener->Start([&running] { running = true; });
  EXPECT_TRUE(running && listener->IsRunning());
  // With no client the loop sleeps in steps of 1 second; clients added
  // meanwhile are served, each select() waiting up to 5 seconds.
  ASSERT_TRUE(WaitUntil([&] { return listener->idleMillis == 1000; }));
  EXPECT_EQ(-1, listener->nfds);
  Conn a = Connect();
  Conn b = Connect();
  ASSERT_LT(a.cookie, b.cookie);
  ASSERT_TRUE(WriteAll(a.peer, TypeFrame(8)));
  ExpectReceived(8, a.cookie);
  EXPECT_EQ(5, listener->selectSec);
  EXPECT_EQ(0, listener->selectUsec);

  // The peer of the highest client goes away: one close record, the client
  // leaves the registry, and select() is given a lower bound.
  mpa_.ClosePeer(b.peer);
  ExpectReceived(RMQ_CLIENT_CLOSE, b.cookie);
  EXPECT_TRUE(WaitUntil([&] { return registry_->Size() == 1 && listener->nfds == a.cookie + 1; }));

  // A stop without notify closes the rest silently.
  EXPECT_TRUE(listener->Stop(false));
  EXPECT_FALSE(listener->IsRunning());
  EXPECT_EQ(0u, registry_->Size());
  EXPECT_TRUE(WaitForEof(a.peer));
  EXPECT_EQ(0u, Inbox::Size());
}

TEST_F(MpaLibListenerTest, StartAndStopRules) {
  auto listener = Listener();
  EXPECT_TRUE(listener->Stop(true));  // not running: no-op
  listener->Start();
  EXPECT_THROW(listener->Start(), ExistingSelect);
  EXPECT_EQ(1u, log_.Count("MPA138\"] LISTENER: Attempted to start a loop thread when one "));
  EXPECT_TRUE(listener->Stop(false));

  // A stopped listener runs again. A loop whose thread cannot be joined is
  // not reported as stopped, and its clients stay.
  Connect();
  listener->Start();
  listener->DetachThreadForTest();
  EXPECT_FALSE(listener->Stop(true));
  EXPECT_EQ(1u, log_.Count("MPA137\"] LISTENER: Listener thread not joinable"));
  ASSERT_TRUE(log_.WaitFor("LISTENER: Exiting loop", 2));
  EXPECT_EQ(1u, registry_->Size());
  EXPECT_EQ(0u, Inbox::Size());

  EXPECT_THROW(std::make_shared<QuickListener>(nullptr, false)->Start(), NoRegistryError);
  EXPECT_EQ(1u, log_.Count("MPA136\"] LISTENER: No registry detected; unable to start loop"));
}

TEST_F(MpaLibListenerTest, BcModeRunsTheLoopOnTheCallersThread) {
  Conn c = Connect();
  auto listener = Listener(true);
  std::atomic<std::thread::id> loopThread{};
  zel::testing::BackgroundCall caller(
      [&] { listener->Start([&] { loopThread = std::this_thread::get_id(); }); });
  // The loop serves on the caller's thread, which Start does not return to
  // until the loop ends.
  ASSERT_TRUE(WriteAll(c.peer, TypeFrame(8)));
  ExpectReceived(8, c.cookie);
  EXPECT_EQ(caller.id(), loopThread.load());
  EXPECT_FALSE(caller.WaitFor(std::chrono::milliseconds(0)));
  EXPECT_TRUE(listener->Stop(true));
  EXPECT_TRUE(caller.WaitFor());
  ExpectReceived(RMQ_CLIENT_CLOSE, c.cookie);
}

TEST_F(MpaLibListenerTest, BadInputDropsAFrameOrItsClientNeverTheLoop) {
  Conn a = Connect();
  Conn b = Connect();
  auto listener = Listener();
  listener->Start();
  // A known key with the wrong type: the library's BsonException drops the
  // client.
  ASSERT_TRUE(WriteAll(a.peer, Frame(Doc().String("msg_type", "8").Finish())));
  ExpectReceived(RMQ_CLIENT_CLOSE, a.cookie);
  EXPECT_TRUE(WaitForEof(a.peer));
  EXPECT_EQ(1u, log_.Count("MPA101\"] LISTENER: Exception while receiving on client"));
  // A frame that is not a document is dropped alone; the client stays.
  ASSERT_TRUE(WriteAll(b.peer, Cat(Frame({1, 2, 3}), TypeFrame(3))));
  ExpectReceived(3, b.cookie);
  EXPECT_EQ(1u, registry_->Size());
  EXPECT_TRUE(listener->IsRunning());
  EXPECT_TRUE(listener->Stop(false));
}

TEST_F(MpaLibListenerTest, ExceptionFromCallbackEndsLoopAndClosesAll) {
  Conn a = Connect(&ThrowingCallback);
  Conn b = Connect(&ThrowingCallback);
  auto listener = Listener();
  listener->Start();
  ASSERT_TRUE(WriteAll(a.peer, TypeFrame(8)));
  EXPECT_TRUE(WaitUntil([&] { return !listener->IsRunning(); }));
  // The registry is cleared with notify, client by client in cookie order.
  ExpectReceived(RMQ_CLIENT_CLOSE, a.cookie);
  ExpectReceived(RMQ_CLIENT_CLOSE, b.cookie);
  EXPECT_TRUE(WaitForEof(b.peer));
  EXPECT_EQ(0u, registry_->Size());
  EXPECT_EQ(-1, registry_->GetMaxDescriptor());
  EXPECT_EQ(1u, log_.Count("MPA101\"] LISTENER: Exception in listener loop: application failed"));
  EXPECT_TRUE(listener->Stop(false));  // already ended: a no-op
  // Its last line written, the loop's thread no longer touches the log.
  EXPECT_TRUE(WaitUntil([&] { return log_.Count("Exiting loop") >= 1; }));
}

// Outside BC mode the library runs its listener on a thread of its own, and
// creates clients only once started.
TEST_F(MpaLibListenerTest, LibraryOutsideBcModeOwnsItsThread) {
  MpaLib lib(false);
  EXPECT_EQ(kMpaNotStarted, lib.Init(kApp, 1, nullptr, &Inbox::Callback, nullptr));
  EXPECT_EQ(1u, log_.Count("MPA141\"] MPALIB: Unable to create client; library not initialized"));
  lib.Start();
  lib.Start();  // a no-op
  rmqClientEndpoint endpoint{mpa_.port(), "127.0.0.1"};
  const int cookie = lib.Init(kApp, 1, nullptr, &Inbox::Callback, &endpoint);
  ASSERT_GE(cookie, 0);
  ASSERT_GE(mpa_.Accept(), 0);
  EXPECT_TRUE(lib.Stop(true));
  ExpectReceived(RMQ_CLIENT_CLOSE, cookie);
  EXPECT_EQ(0u, Inbox::Size());
}

}  // namespace
}  // namespace ZelMpa
