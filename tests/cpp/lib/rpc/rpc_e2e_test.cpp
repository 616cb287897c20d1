// The RPC framework between processes over real sockets: this test is the
// client, rpc_test_node the servers and relays. Every call kind over a Unix
// socket, TCP and TLS; cancelling from either side; failures of the server;
// a server that goes away and comes back; a stub asked for before its server
// exists; relaying through a middle node; and reading held back by a slow
// server. Runs in a private network namespace of its own.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cpp/lib/rpc/connection_keeper.h"
#include "rpc_node.h"
#include "rpc_test_rig.h"
#include "rpc_tls.h"
#include "support/child_process.h"
#include "support/private_network.h"
#include "support/temp_dir.h"

namespace zel {
namespace rpc {
namespace testing {
namespace {

using zel::testing::ChildProcess;
using zel::testing::kDeadline;
using zel::testing::WaitUntil;

const std::string kService = TestService::kServiceName;

// A node process; gone (killed and reaped) with the object.
std::unique_ptr<ChildProcess> StartNode(std::vector<std::string> args) {
  args.insert(args.begin(), RPC_TEST_NODE);
  auto node = std::make_unique<ChildProcess>(args);
  EXPECT_TRUE(node->WaitForOutput("ready")) << node->Output();
  return node;
}

class RpcE2eTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ready_ = zel::testing::EnterPrivateNetwork() &&
             zel::testing::Shell("cd " + Dir() + " && for n in a b; do openssl req -x509 -newkey ec"
                                 " -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout $n.key"
                                 " -out $n.pem -subj /CN=$n -days 2 2>/dev/null || exit 1; done");
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root, iproute2 and openssl";
  }
  // Removed with its keys and sockets when the program ends.
  static const std::string& Dir() {
    static zel::testing::TempDir dir;
    return dir.path();
  }
  static std::string Unix(const std::string& name) { return "unix://" + Dir() + "/" + name; }
  static std::vector<std::string> Tls(const std::string& own, const std::string& peer) {
    return {"--tls", Dir() + "/" + own + ".pem", Dir() + "/" + own + ".key",
            Dir() + "/" + peer + ".pem"};
  }
  static std::shared_ptr<net::NetSecurityManager> ClientTls() {
    return PinnedTls(Dir() + "/b.pem", Dir() + "/b.key", Dir() + "/a.pem");
  }

  static inline bool ready_ = false;
};

// ---------------------------------------------------------------------------
// Every call kind, over each transport.

class RpcE2eTransportTest : public RpcE2eTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(RpcE2eTransportTest, EveryCallKindAndOutcome) {
  const std::string kind = GetParam();
  const bool tls = kind == "tls";
  const std::string url = kind == "unix" ? Unix("calls.sock")
                          : tls          ? "ssl://127.0.0.1:4097"
                                         : "tcp://127.0.0.1:4096";
  std::vector<std::string> args = {"--id", "node-s", "--listen", url};
  if (tls) {
    for (const std::string& a : Tls("a", "b")) args.push_back(a);
  }
  auto server = StartNode(args);
  RpcNode client("node-c", false, tls ? ClientTls() : nullptr);
  auto [ec, stub] = client.Stub<TestService::Stub>(url);
  ASSERT_FALSE(ec) << ec.message() << "\n" << server->Output();

  const ClientContext none;
  using Texts = std::vector<std::string>;
  // One request each.
  const struct {
    const char* name;
    bool stream;
    TestRequest request;
    int32_t status;
    Texts texts;
  } unary[] = {
      {"unary", false, Req("u"), SUCCESS, {"u"}},
      {"server stream", true, Req("s", 3), SUCCESS, {"s", "s", "s"}},
      {"server throws", false, Throwing(), APPLICATION_ERROR, {}},
      {"server fails", true, Failing(PERMISSION_DENIED), PERMISSION_DENIED, {}},
  };
  for (const auto& c : unary) {
    SCOPED_TRACE(c.name);
    auto replies = std::make_shared<Replies>();
    auto handle = c.stream ? stub->Stream(none, c.request, replies) : stub->Echo(none, c.request, replies);
    EXPECT_EQ(handle->Wait(kDeadline).code(), c.status);
    EXPECT_EQ(replies->texts(), c.texts);
  }
  // The client streams.
  {
    auto replies = std::make_shared<Replies>();
    auto writer = stub->Collect(none, replies);
    for (const char* t : {"x", "y"}) writer->Write(Req(t));
    writer->Done(RpcStatus::Success());
    EXPECT_TRUE(writer->Wait(kDeadline).ok());
    EXPECT_EQ(replies->texts(), Texts{"x,y"});
  }
  {
    auto replies = std::make_shared<Replies>();
    auto writer = stub->Chat(none, replies);
    writer->Write(Req("c", 2));
    ASSERT_TRUE(WaitUntil([&] { return replies->texts().size() == 2; }));
    writer->Cancel();  // the client cancels mid-stream
    EXPECT_EQ(writer->Wait(kDeadline).code(), CANCELED);
  }
  // A method the server does not offer.
  {
    auto collector = std::make_shared<Collector>();
    RpcCallPtr call = stub->channel()->CreateCall(
        RpcMethod{kService + ".Nope", kService, RMT_SIMPLE});
    call->Start(ClientContext(), collector);
    call->SendPayload(MakeRefCounted<SharedBuffer>("", 0));
    EXPECT_EQ(collector->WaitStatus().code(), UNIMPLEMENTED);
  }
}

INSTANTIATE_TEST_SUITE_P(Transports, RpcE2eTransportTest, ::testing::Values("unix", "tcp", "tls"),
                         [](const auto& info) { return std::string(info.param); });

// ---------------------------------------------------------------------------

TEST_F(RpcE2eTest, AServerThatGoesAwayFailsItsCallsAndTheKeeperFindsItAgain) {
  auto server = StartNode({"--id", "node-s", "--listen", Unix("gone.sock")});
  RpcNode client("node-c", false);
  auto [ec, stub] = client.Stub<TestService::Stub>(Unix("gone.sock"));
  ASSERT_FALSE(ec);

  std::atomic<int> connects{0};
  ConnectionKeeper::Params p;
  p.transport = client.provider->GetTransport();
  p.url = Unix("gone.sock");
  p.policy = RetryPolicy(20, 200, 2.0);
  p.user_dispatcher = p.dispatcher = client.provider->GetDispatcher();
  p.timers = client.provider->GetTimers();
  p.on_connect = [&](const boost::shared_ptr<RpcConnection>&) { ++connects; };
  auto keeper = ConnectionKeeper::Create(std::move(p));
  keeper->Connect();
  ASSERT_TRUE(WaitUntil([&] { return connects == 1; }));

  // A call in progress when the server goes.
  auto replies = std::make_shared<Replies>();
  TestRequest slow = Req("never");
  slow.set_delay_ms(60000);
  auto handle = stub->Echo(ClientContext(), slow, replies);
  server.reset();
  EXPECT_EQ(handle->Wait(kDeadline).code(), COMMUNICATION_ERROR);

  server = StartNode({"--id", "node-s", "--listen", Unix("gone.sock")});
  ASSERT_TRUE(WaitUntil([&] { return connects == 2; }));
  auto [again, fresh] = client.Stub<TestService::Stub>(Unix("gone.sock"));
  ASSERT_FALSE(again);
  auto echoed = std::make_shared<Replies>();
  EXPECT_TRUE(fresh->Echo(ClientContext(), Req("back"), echoed)->Wait(kDeadline).ok());
}

TEST_F(RpcE2eTest, AStubAskedForBeforeItsServerExistsIsServedOnceItComes) {
  RpcNode client("node-c", false);
  auto pending = std::async(std::launch::async, [&] {
    return client.Stub<TestService::Stub>("zel://node-late", 0);
  });
  // Names come from peers: a gateway node that meets the server later.
  auto gateway = StartNode({"--id", "node-g", "--listen", Unix("g.sock"), "--no-service", "--forward"});
  ConnectionOptions viaGateway;
  viaGateway.gateway = ConnectionOptions::Gateway{true, true};
  ASSERT_FALSE(client.Connect(Unix("g.sock"), viaGateway).first);
  auto server = StartNode({"--id", "node-late", "--connect", Unix("g.sock")});
  auto [ec, stub] = pending.get();
  ASSERT_FALSE(ec) << ec.message() << "\n" << gateway->Output();
  auto replies = std::make_shared<Replies>();
  EXPECT_TRUE(stub->Echo(ClientContext(), Req("late"), replies)->Wait(kDeadline).ok());
}

TEST_F(RpcE2eTest, AMiddleNodeRelaysBetweenProcesses) {
  auto server = StartNode({"--id", "node-s", "--listen", Unix("rs.sock")});
  auto middle = StartNode({"--id", "node-m", "--listen", Unix("rm.sock"), "--no-service",
                           "--forward", "--connect", Unix("rs.sock")});
  RpcNode client("node-c", false);
  ConnectionOptions viaMiddle;
  viaMiddle.gateway = ConnectionOptions::Gateway{true, true};
  ASSERT_FALSE(client.Connect(Unix("rm.sock"), viaMiddle).first);

  auto [ec, stub] = client.Stub<TestService::Stub>("service://" + kService);
  ASSERT_FALSE(ec) << ec.message();
  auto replies = std::make_shared<Replies>();
  EXPECT_TRUE(stub->Stream(ClientContext(), Req("r", 4), replies)->Wait(kDeadline).ok());
  EXPECT_EQ(replies->texts().size(), 4u);
  // The stream's first frame waited in the middle until the server was
  // bound, and then went first.
  EXPECT_TRUE(middle->WaitForOutput("Queuing frame"));
  EXPECT_TRUE(middle->WaitForOutput("Sending queued frame"));

  server.reset();
  EXPECT_TRUE(middle->WaitForOutput("Releasing destination"));
  auto lost = std::make_shared<Replies>();
  stub->Chat(ClientContext(), lost)->Write(Req("after"));
  EXPECT_NE(lost->Wait().code(), SUCCESS);
}

TEST_F(RpcE2eTest, ASlowServerHoldsReadingBackBetweenTheMarks) {
  auto server = StartNode({"--id", "node-s", "--listen", Unix("slow.sock")});
  RpcNode client("node-c", false);
  auto [ec, stub] = client.Stub<TestService::Stub>(Unix("slow.sock"));
  ASSERT_FALSE(ec);
  auto replies = std::make_shared<Replies>();
  auto writer = stub->Collect(ClientContext(), replies);
  // The first request holds the server's observer until its connection has
  // stopped reading: the frames behind it pile up to the mark whatever the
  // speed of either side.
  TestRequest first = Req("m");
  first.set_hold(true);
  writer->Write(first);
  constexpr int kMessages = 3000;
  for (int i = 1; i < kMessages; ++i) writer->Write(Req("m"));
  writer->Done(RpcStatus::Success());
  EXPECT_TRUE(writer->Wait(kDeadline).ok());
  ASSERT_EQ(replies->texts().size(), 1u);
  EXPECT_EQ(replies->texts()[0].size(), 2u * kMessages - 1);
  EXPECT_TRUE(server->WaitForOutput("read suspended")) << server->Output();
  EXPECT_TRUE(server->WaitForOutput("read resumed"));
}

}  // namespace
}  // namespace testing
}  // namespace rpc
}  // namespace zel
