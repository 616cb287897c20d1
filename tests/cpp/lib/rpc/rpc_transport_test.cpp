// The RPC transport, the stream forwarder, the server, the connection keeper
// and the stub factory, with whole nodes (providers) talking over local
// sockets in one process: connections shared and refused, names resolved
// from what peers announce, gateways, relaying through a middle node,
// reconnecting with back-off, stubs made by URL within a time limit.
#include <gtest/gtest.h>

#include <future>
#include <string>

#include "cpp/lib/rpc/connection_keeper.h"
#include "cpp/lib/rpc/rpc_error.h"
#include "cpp/lib/rpc/rpc_resolvers.h"
#include "cpp/lib/rpc/zel_rpc_server.h"
#include "rpc_node.h"
#include "rpc_test_rig.h"
#include "support/temp_dir.h"

namespace zel {
namespace rpc {
namespace testing {
namespace {

using boost::system::error_code;
using zel::testing::WaitUntil;

const std::string kService = TestService::kServiceName;

// One echo through `stub`: the final status and the texts.
std::pair<RpcStatus, std::vector<std::string>> Echo(TestService::Stub& stub,
                                                    const std::string& text) {
  auto replies = std::make_shared<Replies>();
  stub.Echo(ClientContext(), Req(text), replies);
  return {replies->Wait(), replies->texts()};
}

class RpcTransportTest : public ::testing::Test {
 protected:
  std::string Socket(const std::string& name) { return "unix://" + dir_.path() + "/" + name; }

  RpcLogCapture log_;
  zel::testing::TempDir dir_;
};

TEST_F(RpcTransportTest, ConnectionsAreSharedByEndpointAndFailuresComeThroughTheHandler) {
  RpcNode server("node-s");
  ASSERT_FALSE(server.Listen(Socket("s.sock")));
  RpcNode client("node-c", false);

  auto [ec, first] = client.Connect(Socket("s.sock"));
  ASSERT_FALSE(ec) << ec.message();
  auto [ec2, second] = client.Connect(Socket("s.sock"));
  ASSERT_FALSE(ec2);
  EXPECT_EQ(first, second) << "a usable connection is shared";

  const struct {
    const char* url;
    const char* log;
  } failures[] = {
      {"unix:///nonexistent/dir/x.sock", "Unable to connect to unix:///nonexistent/dir/x.sock"},
      {"bogus://x", "Failed to get net connection to bogus://x"},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.url);
    auto [bad, none] = client.Connect(f.url);
    EXPECT_TRUE(bad);
    EXPECT_FALSE(none);
    EXPECT_EQ(log_.Count(f.log), 1);
  }

  client.transport()->Shutdown();
  auto [down, nothing] = client.Connect(Socket("s.sock"));
  EXPECT_EQ(down, error::make_error_code(error::shut_down));
  EXPECT_FALSE(nothing);
  EXPECT_TRUE(WaitUntil([&] { return first->state() == RpcConnection::State::CLOSED; }));
}

TEST_F(RpcTransportTest, NamesResolveFromWhatThePeerAnnounces) {
  RpcNode server("node-s");
  ASSERT_FALSE(server.Listen(Socket("s.sock")));
  RpcNode client("node-c", false);

  // Asked before anything is known: the answer waits for the settings.
  auto byService = std::async(std::launch::async, [&] { return client.Connect("service://" + kService); });
  auto byId = std::async(std::launch::async, [&] { return client.Connect("zel://node-s"); });
  ASSERT_TRUE(WaitUntil([&] { return log_.Count("Saving request for 'node-s' resolution") == 1; }));
  auto [ec, direct] = client.Connect(Socket("s.sock"));
  ASSERT_FALSE(ec);
  for (auto* f : {&byService, &byId}) {
    auto [rc, connection] = f->get();
    EXPECT_FALSE(rc) << rc.message();
    EXPECT_EQ(connection, direct);
  }

  auto [stubError, stub] = client.Stub<TestService::Stub>("zel://node-s");
  ASSERT_FALSE(stubError) << stubError.message();
  EXPECT_EQ(Echo(*stub, "by id").second, std::vector<std::string>{"by id"});

  // Gone: the names go with the connection.
  direct->Close(CloseReason::CLOSED_BY_USER);
  ASSERT_TRUE(WaitUntil([&] {
    return log_.Count("Unregistering remote endpoint ids 'node-c','node-s'") +
               log_.Count("Unregistering remote endpoint ids 'node-s'") >= 1;
  }));
  EXPECT_FALSE(client.transport()->endpoint_resolver().Get("node-s"));
}

TEST_F(RpcTransportTest, AGatewayAnswersUnmappedNamesUntilItGoes) {
  RpcNode gateway("gw");
  ASSERT_FALSE(gateway.Listen(Socket("gw.sock")));
  RpcNode client("node-c", false);
  ConnectionOptions options;
  options.gateway = ConnectionOptions::Gateway{true, true};
  auto [ec, viaGateway] = client.Connect(Socket("gw.sock"), options);
  ASSERT_FALSE(ec);
  EXPECT_EQ(log_.Count("Updating default service resolution to"), 1);

  auto [rc, connection] = client.Connect("service://orvane.zel.Unheard");
  EXPECT_FALSE(rc);
  EXPECT_EQ(connection, viaGateway);

  viaGateway->Close(CloseReason::CLOSED_BY_USER);
  ASSERT_TRUE(WaitUntil([&] { return log_.Count("Resetting default service resolution") == 1; }));
  EXPECT_FALSE(client.transport()->service_resolver().Get("orvane.zel.Unheard"));
}

TEST_F(RpcTransportTest, ASecondConnectionToAnEndpointReplacesTheFirst) {
  RpcNode server("node-s");
  ASSERT_FALSE(server.Listen(Socket("s.sock")));
  RpcNode client("node-c", false);
  // Asked for twice before either is up (the answers come later, through
  // the dispatcher): two connections, the later one registered over the
  // earlier.
  std::promise<boost::shared_ptr<RpcConnection>> first, second;
  for (auto* p : {&first, &second}) {
    client.transport()->GetConnection(
        Socket("s.sock"), ConnectionOptions(),
        [p](const error_code&, const boost::shared_ptr<RpcConnection>& c) { p->set_value(c); });
  }
  auto fa = first.get_future(), fb = second.get_future();
  ASSERT_EQ(fa.wait_for(zel::testing::kDeadline), std::future_status::ready);
  ASSERT_EQ(fb.wait_for(zel::testing::kDeadline), std::future_status::ready);
  auto a = fa.get(), b = fb.get();
  ASSERT_TRUE(a && b);
  ASSERT_NE(a, b);
  EXPECT_EQ(log_.Count("is already registered"), 1);
  EXPECT_EQ(client.transport()->connections().size(), 2u);
  auto [ec, shared] = client.Connect(Socket("s.sock"));
  const auto earlier = shared == a ? b : a;
  // Both announced node-s: whichever goes, the other serves the name.
  ASSERT_TRUE(WaitUntil([&] { return client.transport()->endpoint_resolver().Get("node-s").has_value(); }));
  earlier->Close(CloseReason::CLOSED_BY_USER);
  EXPECT_EQ(log_.Count("(by endpoint) - does not match the registered one"), 1);
  EXPECT_EQ(client.Connect(Socket("s.sock")).second, shared) << "the later one stays";
  EXPECT_EQ(client.Connect("zel://node-s").second, shared);

  // One no longer usable is not handed out: the next caller gets a new one.
  shared->Close(CloseReason::CLOSED_BY_USER);
  auto [ec2, fresh] = client.Connect(Socket("s.sock"));
  ASSERT_FALSE(ec2);
  EXPECT_NE(fresh, shared);
}

TEST_F(RpcTransportTest, AMiddleNodeRelaysStreamsWithoutDecodingThem) {
  RpcNode server("node-s");
  ASSERT_FALSE(server.Listen(Socket("s.sock")));
  RpcNode middle("node-m", false);
  middle.transport()->SetForwardingEnabled(true);
  ASSERT_FALSE(middle.Listen(Socket("m.sock")));
  RpcNode client("node-c", false);

  // The client knows only the middle node, as its gateway.
  ConnectionOptions gateway;
  gateway.gateway = ConnectionOptions::Gateway{true, true};
  ASSERT_FALSE(client.Connect(Socket("m.sock"), gateway).first);
  // The middle node learns where the service lives once it has met it.
  ASSERT_FALSE(middle.Connect(Socket("s.sock")).first);
  ASSERT_TRUE(WaitUntil([&] {
    return middle.transport()->service_resolver().Get(kService).has_value();
  }));

  auto [ec, stub] = client.Stub<TestService::Stub>("service://" + kService);
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_EQ(Echo(*stub, "relayed").second, std::vector<std::string>{"relayed"});

  // Addressed to the middle node itself, for a service it does not have: the
  // middle consumes its own id and relays the stream for the service alone
  // (the server would refuse a stream for another node).
  auto [viaId, byId] = client.Stub<TestService::Stub>("zel://node-m");
  ASSERT_FALSE(viaId) << viaId.message();
  EXPECT_EQ(Echo(*byId, "patched").second, std::vector<std::string>{"patched"});

  auto replies = std::make_shared<Replies>();
  auto writer = stub->Chat(ClientContext(), replies);
  for (const char* text : {"a", "b", "c"}) writer->Write(Req(text, 2));
  writer->Done(RpcStatus::Success());
  EXPECT_TRUE(writer->Wait(zel::testing::kDeadline).ok());
  EXPECT_EQ(replies->texts(), (std::vector<std::string>{"a", "a", "b", "b", "c", "c"}));

  // The opening frame waited for the destination and went first.
  EXPECT_GE(log_.Count("Queuing frame"), 1);
  EXPECT_GE(log_.Count("Sending queued frame"), 1);
  EXPECT_EQ(server.service->calls(), 3);

  // A destination that goes away ends the relayed streams.
  for (const auto& c : middle.transport()->connections()) {
    if (c->direction() == 0) c->Close(CloseReason::CLOSED_BY_USER);
  }
  ASSERT_TRUE(WaitUntil([&] { return log_.Count("Releasing destination") >= 1; }));
  auto late = std::make_shared<Replies>();
  stub->Chat(ClientContext(), late)->Write(Req("after"));
  const RpcStatus lost = late->Wait();
  EXPECT_TRUE(lost.IsSet());
  EXPECT_NE(lost.code(), SUCCESS);
}

TEST_F(RpcTransportTest, AStubByUrlWaitsForItsServerAndTimesOutWithoutOne) {
  RpcNode client("node-c", false);
  auto nowhere = client.Stub<TestService::Stub>(Socket("none.sock"), 150);
  EXPECT_EQ(nowhere.first, error::make_error_code(error::timed_out));
  EXPECT_EQ(log_.Count("Failed to create stub in time"), 1);

  // Asked before the server exists, served once it comes up.
  const int before = log_.Count("Scheduling channel request in");
  auto pending = std::async(std::launch::async, [&] {
    return client.Stub<TestService::Stub>(Socket("late.sock"), 0);
  });
  // Its first attempt has failed: the server comes after it.
  ASSERT_TRUE(WaitUntil([&] { return log_.Count("Scheduling channel request in") > before; }));
  RpcNode server("node-s");
  ASSERT_FALSE(server.Listen(Socket("late.sock")));
  auto [ec, stub] = pending.get();
  ASSERT_FALSE(ec) << ec.message();
  EXPECT_TRUE(Echo(*stub, "late").first.ok());
  EXPECT_EQ(log_.Count("Stub creation timeout is infinite"), 1);
}

TEST_F(RpcTransportTest, TheKeeperReconnectsWithBackoffWhenTheServerComesBack) {
  auto server = std::make_unique<RpcNode>("node-s");
  ASSERT_FALSE(server->Listen(Socket("k.sock")));
  RpcNode client("node-c", false);
  std::atomic<int> connects{0}, closes{0};
  ConnectionKeeper::Params p;
  p.transport = client.provider->GetTransport();
  p.url = Socket("k.sock");
  p.policy = RetryPolicy(20, 100, 2.0);
  p.user_dispatcher = p.dispatcher = client.provider->GetDispatcher();
  p.timers = client.provider->GetTimers();
  p.on_connect = [&](const boost::shared_ptr<RpcConnection>&) { ++connects; };
  p.on_close = [&](CloseReason) { ++closes; };
  auto keeper = ConnectionKeeper::Create(std::move(p));
  keeper->Connect();
  ASSERT_TRUE(WaitUntil([&] { return connects == 1; }));
  keeper->Connect();  // connected: replaces the connection
  ASSERT_TRUE(WaitUntil([&] { return connects == 2; }));

  server.reset();
  ASSERT_TRUE(WaitUntil([&] { return closes == 1; }));
  // Attempts fail while the server is away, each after a longer wait.
  ASSERT_TRUE(WaitUntil([&] { return log_.Count("scheduling connection attempt in") >= 2; }));
  server = std::make_unique<RpcNode>("node-s");
  ASSERT_FALSE(server->Listen(Socket("k.sock")));
  ASSERT_TRUE(WaitUntil([&] { return connects == 3; }));
  EXPECT_EQ(keeper->state(), ConnectionKeeper::State::CONNECTED);
}

TEST_F(RpcTransportTest, AConnectDuringTheBackoffIsIgnored) {
  RpcNode client("node-c", false);
  ConnectionKeeper::Params p;
  p.transport = client.provider->GetTransport();
  p.url = Socket("away.sock");
  p.policy = RetryPolicy(60000, 60000, 1.0);  // the wait outlasts the test
  p.user_dispatcher = p.dispatcher = client.provider->GetDispatcher();
  p.timers = client.provider->GetTimers();
  auto keeper = ConnectionKeeper::Create(std::move(p));
  keeper->Connect();
  ASSERT_TRUE(WaitUntil([&] { return keeper->state() == ConnectionKeeper::State::WAITING; }));
  keeper->Connect();
  ASSERT_TRUE(WaitUntil([&] {
    return log_.Count("is waiting for the backoff timer to expire. Ignoring this connection "
                      "request") == 1;
  }));
  EXPECT_EQ(keeper->state(), ConnectionKeeper::State::WAITING);
  keeper->Reset();
  EXPECT_EQ(keeper->state(), ConnectionKeeper::State::IDLE);
}

TEST_F(RpcTransportTest, AKeeperOutOfAttemptsStaysDown) {
  RpcNode client("node-c", false);
  std::promise<error_code> failed;
  ConnectionKeeper::Params p;
  p.transport = client.provider->GetTransport();
  p.url = Socket("never.sock");
  p.policy = RetryPolicy(10, 10, 1.0, 2);
  p.user_dispatcher = p.dispatcher = client.provider->GetDispatcher();
  p.timers = client.provider->GetTimers();
  p.on_failure = [&](const error_code& ec) { failed.set_value(ec); };
  auto keeper = ConnectionKeeper::Create(std::move(p));
  keeper->Connect();
  auto f = failed.get_future();
  ASSERT_EQ(f.wait_for(zel::testing::kDeadline), std::future_status::ready);
  EXPECT_TRUE(f.get());
  EXPECT_EQ(keeper->state(), ConnectionKeeper::State::IDLE);
  EXPECT_EQ(log_.Count("maximum number of connection attempt reached, not retrying"), 1);
}

TEST_F(RpcTransportTest, TheServerStartsOnceAndCannotBeStopped) {
  RpcNode node("node-s");
  ZelRpcServer server(node.provider, {{Socket("srv.sock"), ConnectionOptions()}});
  server.Start();
  server.Start();
  server.Stop();
  EXPECT_EQ(log_.Count("ZelRpcServer: already started"), 1);
  EXPECT_EQ(log_.Count("ZelRpcServer: stop is not implemented!"), 1);
  RpcNode client("node-c", false);
  auto [ec, stub] = client.Stub<TestService::Stub>(Socket("srv.sock"));
  ASSERT_FALSE(ec);
  EXPECT_TRUE(Echo(*stub, "still serving").first.ok());
}

}  // namespace
}  // namespace testing
}  // namespace rpc
}  // namespace zel
