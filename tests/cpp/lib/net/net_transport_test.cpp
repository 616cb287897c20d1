// NetTransport: listening (override, re-arm after an accept error, stop),
// shutdown with connections open, identifiers, the metric groups, and bad
// input that must fail alone, with its tag, and leave no descriptor behind.
#include "cpp/lib/net/net_transport.h"

#include <sys/resource.h>

#include <set>
#include <thread>

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/net_error.h"
#include "cpp/lib/net/net_security_context.h"
#include "net_test_rig.h"
#include "support/child_process.h"
#include "support/private_network.h"

namespace zel {
namespace net {
namespace testing {
namespace {

using zel::testing::ChildProcess;
using zel::testing::OpenFdCount;
using zel::testing::WaitUntil;

const error_code kShutDown = error::make_error_code(error::shut_down);

class NetTransportTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ready_ = zel::testing::EnterPrivateNetwork(); }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root and iproute2";
  }

  // The printed counter at `path` below /zel, or at its instance for `uri`.
  std::string Metric(const std::string& path, const std::string& uri = "") {
    metrics::MetricKeyPtr key = rig_.registry->root()->subkey(path);
    if (!uri.empty()) key = key->instance(metrics::InstanceName({{"ep", uri}}));
    if (!key || !key->get_value()) return "<none>";
    return key->get_value()->to_string(true);
  }

  static bool ready_;
  NetLogCapture log_;
  NetRig rig_;
};

bool NetTransportTest::ready_ = false;

TEST_F(NetTransportTest, ListenTwiceReplacesOnlyTheHandler) {
  auto first = rig_.Listen("tcp://127.0.0.1:4300");
  ASSERT_TRUE(first);
  auto second = rig_.Listen("tcp://127.0.0.1:4300");
  ASSERT_TRUE(second);
  EXPECT_TRUE(log_.WaitFor("Listen - overriding acceptor handler for 'tcp://127.0.0.1:4300'"));
  ASSERT_FALSE(rig_.Connect("tcp://127.0.0.1:4300").status);
  EXPECT_TRUE(second->Next());
  EXPECT_FALSE(first->Next(std::chrono::milliseconds(0)));
  EXPECT_EQ(rig_.transport->ListeningAddress(Endpoint("tcp://127.0.0.1:4300")),
            "tcp://127.0.0.1:4300");

  // Two at once on one socket file: one acceptor, and the file stays.
  const std::string uri = "unix:///run/netns/twice.sock";
  std::vector<std::shared_ptr<AcceptQueue>> queues(2, std::make_shared<AcceptQueue>());
  auto listen = [&](int i) {
    rig_.transport->Listen(Endpoint(uri), {}, [q = queues[i]](const error_code& ec, const ConnectionPtr& c) {
      return q->Push(ec, c);
    });
  };
  std::thread other(listen, 1);
  listen(0);
  other.join();
  EXPECT_FALSE(rig_.Connect(uri).status);
  EXPECT_EQ(log_.Count("CreateAcceptor(" + uri + ")"), 1u);
}

// A listener started again on a URI hears nothing of the one stopped before.
TEST_F(NetTransportTest, StoppedListenerDoesNotReachItsSuccessor) {
  auto first = rig_.Listen("tcp://127.0.0.1:4309");
  ASSERT_TRUE(first);
  rig_.transport->StopListening(Endpoint("tcp://127.0.0.1:4309"));
  EXPECT_EQ(first->NextError(), boost::asio::error::operation_aborted);
  // The old acceptor's close is a posted step of its own, which may still
  // hold the port while the aborted handler runs on another thread.
  std::shared_ptr<AcceptQueue> second;
  ASSERT_TRUE(WaitUntil([&] { return (second = rig_.Listen("tcp://127.0.0.1:4309")) != nullptr; }));
  ASSERT_TRUE(log_.WaitFor("Accept on endpoint 'tcp://127.0.0.1:4309' was cancelled"));
  ASSERT_FALSE(rig_.Connect("tcp://127.0.0.1:4309").status);
  EXPECT_TRUE(second->Next());
  EXPECT_FALSE(second->NextError(std::chrono::milliseconds(0)));
}

// An accept that fails (no descriptor left) re-arms at once; once
// descriptors are free again, the waiting peer is accepted.
TEST_F(NetTransportTest, AcceptErrorKeepsTheAcceptorArmed) {
  auto server = rig_.Listen("tcp://127.0.0.1:4301");
  ASSERT_TRUE(server);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit tight = saved;
  ConnectionPtr client = rig_.transport->NewConnection(Endpoint("tcp://127.0.0.1:4301"), {}).value();
  // The lowest free descriptor number becomes the limit: no new one can be
  // made until it is lifted.
  const int lowest = dup(0);
  close(lowest);
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
  zel::testing::Event connected;
  client->Connect([&](const error_code& ec) {
    EXPECT_FALSE(ec);
    connected.Set();
  });
  const bool failed = log_.WaitFor("Accept on endpoint 'tcp://127.0.0.1:4301' failed with 24-");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
  EXPECT_TRUE(failed);
  EXPECT_TRUE(connected.WaitFor());
  EXPECT_TRUE(server->Next());
  // The user's handler heard of the failure too.
  EXPECT_EQ(server->NextError(), error_code(EMFILE, boost::system::system_category()));
  EXPECT_NE(log_.Find("failed with error 24-").find(Tagged(kTagNet4)), std::string::npos);
}

TEST_F(NetTransportTest, StopListening) {
  auto server = rig_.Listen("tcp://127.0.0.1:4302");
  ASSERT_TRUE(server);
  rig_.transport->StopListening(Endpoint("tcp://127.0.0.1:4302"));
  // The handler hears of the stop; nothing listens any more.
  EXPECT_EQ(server->NextError(), boost::asio::error::operation_aborted);
  // The acceptor's close is a posted step of its own, which may come just
  // after the handler heard of the stop.
  EXPECT_TRUE(WaitUntil([&] {
    return rig_.Connect("tcp://127.0.0.1:4302").status == error_code(ECONNREFUSED, boost::system::system_category());
  }));
  rig_.transport->StopListening(Endpoint("tcp://127.0.0.1:4399"));
  EXPECT_TRUE(log_.WaitFor("Can't stop listening on tcp://127.0.0.1:4399 - no such acceptor"));
}

TEST_F(NetTransportTest, ShutdownClosesEverythingAndRefusesWhatComesAfter) {
  auto server = rig_.Listen("tcp://127.0.0.1:4303");
  ASSERT_TRUE(server);
  ConnectOutcome client = rig_.Connect("tcp://127.0.0.1:4303");
  ASSERT_FALSE(client.status);
  ConnectionPtr accepted = server->Next();
  ASSERT_TRUE(accepted);
  EXPECT_EQ(rig_.transport->ConnectionCount(), 3u);  // client, accepted, the next to accept

  rig_.transport->Shutdown();
  EXPECT_TRUE(log_.WaitFor("Closed (reason: shutdown", 2));
  EXPECT_EQ(Read(client.connection, 1).status,
            error_code(ENOTCONN, boost::system::generic_category()));
  EXPECT_EQ(rig_.transport->ConnectionCount(), 0u);
  EXPECT_EQ(rig_.transport->NewConnection(Endpoint("tcp://127.0.0.1:4303"), {}).error(), kShutDown);
  EXPECT_EQ(rig_.transport->NewStreamSocket(Endpoint("tcp://127.0.0.1:4303"), {}).error(), kShutDown);
  EXPECT_EQ(rig_.transport->Listen(Endpoint("tcp://127.0.0.1:4304"), {}, nullptr), kShutDown);
  EXPECT_EQ(kShutDown.message(), "Shut down");
  EXPECT_EQ(std::string(kShutDown.category().name()), "zel.net");
  rig_.transport->StopListening(Endpoint("tcp://127.0.0.1:4303"));
  EXPECT_TRUE(log_.WaitFor("Is shut down, won't stop listening on tcp://127.0.0.1:4303"));
}

TEST_F(NetTransportTest, IdentifiersAreUniqueAcrossObjects) {
  auto server = rig_.Listen("tcp://127.0.0.1:4305");
  ASSERT_TRUE(server);
  std::set<uint32_t> ids;
  std::vector<ConnectionPtr> keep;
  for (int i = 0; i < 3; ++i) {
    ConnectOutcome c = rig_.Connect("tcp://127.0.0.1:4305");
    ASSERT_FALSE(c.status);
    ConnectionPtr s = server->Next();
    ASSERT_TRUE(s);
    for (const ConnectionPtr& x : {c.connection, s}) {
      EXPECT_TRUE(ids.insert(x->id()).second);
      EXPECT_TRUE(ids.insert(x->socket()->id()).second);
      keep.push_back(x);
    }
  }
  EXPECT_EQ(ids.size(), 12u);
}

TEST_F(NetTransportTest, MetricGroupsCountTotalsAndEndpoints) {
  const std::string uri = "tcp://127.0.0.1:4306";
  auto server = rig_.Listen(uri);
  ASSERT_TRUE(server);
  ConnectOutcome client = rig_.Connect(uri);
  ASSERT_FALSE(client.status);
  ConnectionPtr accepted = server->Next();
  ASSERT_TRUE(accepted);
  ASSERT_FALSE(WriteAll(client.connection, "12345"));
  ASSERT_EQ(Read(accepted, 5).data, "12345");
  client.connection->Close(CloseReason::BY_USER);
  ASSERT_EQ(Read(accepted, 1).status, boost::asio::error::eof);
  ASSERT_TRUE(log_.WaitFor("Closed (reason: by peer", 1));

  struct Row {
    std::string path;
    std::string instance;
    std::string has;
  };
  const Row rows[] = {
      {"net/acceptor/#/listening", "", "v~last: 1"},
      {"net/acceptor/~/accept/ok", uri, "v~num: 1"},
      {"net/connection/~/close/local", "", "v~num: 1"},
      {"net/connection/~/close/remote", uri, "v~num: 1"},
      {"net/connection/~/open/remote", uri, "v~num: 2"},
      {"net/connection/data/tx/bytes", uri, "v~sum: 5"},
      {"net/connection/data/rx/bytes", uri, "v~sum: 5"},
      {"net/socket/~/connect/ok", "", "v~num: 1"},
      {"net/socket/data/rx/ops", "", "v~num: 1"},
      {"net/socket/#/connected", "", "v~last: 0, v~num: 4, v~min: 0, v~max: 2"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.path + " " + r.instance);
    EXPECT_NE(Metric(r.path, r.instance).find(r.has), std::string::npos) << Metric(r.path, r.instance);
  }
}

// Bad input fails with its tag and error and leaves the transport working.
TEST_F(NetTransportTest, BadEndpointsFailAlone) {
  rig_.security->AddClientContext("real", NetSecurityContext::Builder().Build());
  SocketOptions elsewhere;
  elsewhere.ns = "zel-nowhere";
  SocketOptions noContext;
  noContext.security_context_id = "missing";
  const std::string longPath = "unix:///run/netns/" + std::string(108 - 11, 'p');
  struct Row {
    std::string uri;
    SocketOptions options;
    const char* tag;
    std::string line;
    error_code status;
  };
  const Row rows[] = {
      {"http://127.0.0.1:80", {}, kTagNet7, "Unsupported socket type 'http'", {}},
      {"::::", {}, kTagNet7, "Unsupported socket type ''", {}},
      {"tcp://127.0.0.1:1", elsewhere, kTagNet1, "Couldn't open ns file '/var/run/netns/zel-nowhere'",
       error_code(ENOENT, boost::system::system_category())},
      {longPath, {}, kTagNet1, "Couldn't create socket '" + longPath + "'",
       error_code(ENAMETOOLONG, boost::system::system_category())},
      {"ssl://127.0.0.1:1", noContext, kTagNet100, "Couldn't get security context 'missing'", {}},
  };
  // A port past 16 bits is cut to them: 99999 is 34463.
  auto cut = rig_.Listen("tcp://127.0.0.1:34463");
  ASSERT_TRUE(cut);
  const int fds = OpenFdCount();
  for (const Row& r : rows) {
    SCOPED_TRACE(r.uri);
    ConnectionResult made = rig_.transport->NewConnection(Endpoint(r.uri), r.options);
    EXPECT_FALSE(made.ok());
    if (r.status) {
      EXPECT_EQ(made.error(), r.status) << made.error().message();
    }
    EXPECT_NE(log_.Find(r.line).find(Tagged(r.tag)), std::string::npos) << r.line;
    log_.Clear();
  }
  EXPECT_EQ(OpenFdCount(), fds);
  // One byte shorter the path is taken (and nobody listens there).
  EXPECT_EQ(rig_.Connect(longPath.substr(0, longPath.size() - 1)).status,
            error_code(ENOENT, boost::system::system_category()));
  EXPECT_FALSE(rig_.Connect("tcp://127.0.0.1:99999").status);

  // Listening fails alone too.
  EXPECT_FALSE(rig_.Listen("http://127.0.0.1:80"));
  EXPECT_NE(log_.Find("Unsupported acceptor type 'http'").find(Tagged(kTagNet7)), std::string::npos);
  EXPECT_FALSE(rig_.Listen("tcp://127.0.0.1:34463/other"));
  EXPECT_EQ(rig_.listenStatus, error_code(EADDRINUSE, boost::system::system_category()));
  EXPECT_NE(log_.Find("Failed to start listening on 'tcp://127.0.0.1:34463/other'").find(Tagged(kTagNet3)),
            std::string::npos);
  EXPECT_FALSE(rig_.Listen("tcp://no.such.host:80"));
  EXPECT_EQ(rig_.listenStatus, error_code(EINVAL, boost::system::system_category()));
  EXPECT_FALSE(rig_.Connect("tcp://127.0.0.1:34463").status);
  EXPECT_TRUE(cut->Next());
  EXPECT_TRUE(cut->Next());
}

// A TLS listener with a peer that connects and says nothing, and one that
// gives up half-way through its hello: each fails alone, the others are
// served, and every descriptor is given back.
TEST_F(NetTransportTest, SilentAndAbandonedHandshakesLeaveNothingBehind) {
  NetSecurityContext::Builder b;
  rig_.security->AddServerContext("srv", b.Build());
  SocketOptions options;
  options.security_context_id = "srv";
  auto server = rig_.Listen("ssl://127.0.0.1:4307", options);
  auto plain = rig_.Listen("tcp://127.0.0.1:4308");
  ASSERT_TRUE(server && plain);
  const int fds = OpenFdCount();
  {
    ChildProcess peers({"python3", "-c",
                        "import socket, sys\n"
                        "silent = socket.create_connection(('127.0.0.1', 4307))\n"
                        "half = socket.create_connection(('127.0.0.1', 4307))\n"
                        "half.sendall(bytes([22, 3, 1, 0, 200, 1, 0, 0, 196, 3, 3]))\n"
                        "half.close()\n"
                        "print('SENT', flush=True)\n"
                        "sys.stdin.read()\n"});
    ASSERT_TRUE(peers.WaitForOutput("SENT"));
    EXPECT_EQ(server->NextError(), boost::asio::ssl::error::stream_truncated);
    EXPECT_TRUE(log_.WaitFor(Tagged(kTagNet4) + "] " + rig_.transport->name() +
                             " Accept on endpoint 'ssl://127.0.0.1:4307' failed with error"));
    // Meanwhile the others are served.
    ConnectOutcome c = rig_.Connect("tcp://127.0.0.1:4308");
    ASSERT_FALSE(c.status);
    ConnectionPtr s = plain->Next();
    ASSERT_TRUE(s);
    EXPECT_FALSE(WriteAll(c.connection, "ok"));
    EXPECT_EQ(Read(s, 2).data, "ok");
    c.connection->Close(CloseReason::BY_USER);
    s->Close(CloseReason::BY_USER);
    peers.CloseInput();
    EXPECT_TRUE(peers.WaitExit().has_value());
  }
  // The silent peer has gone: its handshake ends with the end of stream.
  EXPECT_EQ(server->NextError(), boost::asio::ssl::error::stream_truncated);
  EXPECT_TRUE(WaitUntil([&] { return OpenFdCount() == fds; })) << OpenFdCount() << " vs " << fds;
}

}  // namespace
}  // namespace testing
}  // namespace net
}  // namespace zel
