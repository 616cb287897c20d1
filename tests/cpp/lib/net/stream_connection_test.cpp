// StreamConnection: connecting through resolved addresses with the guard
// timer, the outcomes a connect handler gets, closing from every state and
// from inside handlers, and the read and write failures (real sockets in the
// test's private network namespace, where 10.77.0.2 is a black hole, and a
// fake socket for failures a real peer can't produce on demand).
#include "cpp/lib/net/stream_connection.h"

#include <cerrno>
#include <future>
#include <map>

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/net_error.h"
#include "fakes/fake_stream_socket.h"
#include "net_test_rig.h"
#include "support/log_capture.h"
#include "support/private_network.h"

namespace zel {
namespace net {
namespace testing {
namespace {

using State = StreamConnection::ConnectionState;

error_code Sys(int e) { return error_code(e, boost::system::system_category()); }
error_code Gen(int e) { return error_code(e, boost::system::generic_category()); }

// Answers each host with a fixed list or error, or never ("pending").
class ScriptedResolver : public HostNameResolver {
 public:
  struct Answer {
    error_code status;
    AddressList addresses;
    bool never = false;
  };
  void Set(const std::string& host, Answer answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    answers_[host] = std::move(answer);
  }
  void Resolve(const std::string& host, ResolveHandler handler) override {
    Answer a;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      a = answers_[host];
    }
    // Answers at once, on the caller's thread: the connection must cope.
    if (!a.never) handler(a.status, a.addresses);
  }
  void Cancel(const std::string&) override {}
  void Remove(const std::string&) override {}
  void CancelAll() override {}
  void RemoveAll() override {}
  void Shutdown() override {}

 private:
  std::mutex mutex_;
  std::map<std::string, Answer> answers_;
};

class StreamConnectionTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ready_ = zel::testing::EnterPrivateNetwork() && zel::testing::AddBlackhole("10.77.0.2");
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root and iproute2";
  }

  NetLogCapture log_;
  std::shared_ptr<ScriptedResolver> resolver_ = std::make_shared<ScriptedResolver>();
  NetRig rig_{resolver_};
  static bool ready_;
};

bool StreamConnectionTest::ready_ = false;

TEST_F(StreamConnectionTest, EchoesOverTcpAndLocalSockets) {
  for (const std::string uri : {"tcp://127.0.0.1:4100", "unix:///run/netns/echo.sock"}) {
    SCOPED_TRACE(uri);
    auto server = rig_.Listen(uri);
    ASSERT_TRUE(server) << rig_.listenStatus.message();
    ConnectOutcome client = rig_.Connect(uri);
    ASSERT_TRUE(client.done);
    ASSERT_FALSE(client.status) << client.status.message();
    ConnectionPtr accepted = server->Next();
    ASSERT_TRUE(accepted);

    EXPECT_FALSE(WriteAll(client.connection, "ping"));
    EXPECT_EQ(Read(accepted, 4).data, "ping");
    EXPECT_FALSE(WriteAll(accepted, "pong!"));
    // A read of some bytes returns what has come, up to the size.
    EXPECT_EQ(Read(client.connection, 64, kReadSome).data, "pong!");

    const ConnectionInfo c = client.connection->info();
    const ConnectionInfo s = accepted->info();
    EXPECT_EQ(c.side, StreamSide::CLIENT);
    EXPECT_EQ(s.side, StreamSide::SERVER);
    EXPECT_EQ(c.endpoint, uri);
    EXPECT_EQ(s.local_endpoint, uri);
    EXPECT_EQ(c.peer_endpoint, uri);
    if (uri.rfind("tcp", 0) == 0) {
      EXPECT_EQ(s.peer_endpoint, c.local_endpoint);
      EXPECT_EQ(c.local_endpoint.rfind("tcp://127.0.0.1:", 0), 0u) << c.local_endpoint;
    } else {
      // The client side of a local socket has no path: the server sees its
      // credentials.
      EXPECT_NE(s.peer_endpoint.find("(pid:"), std::string::npos) << s.peer_endpoint;
    }
    EXPECT_NE(ToString(c).find("peer-auth: {certificate: none}"), std::string::npos);

    // The client's close reaches the server as end of stream: "by peer".
    client.connection->Close(CloseReason::BY_USER);
    ReadOutcome end = Read(accepted, 1);
    EXPECT_EQ(end.status, boost::asio::error::eof);
    EXPECT_TRUE(log_.WaitFor("(reason: by peer, error: 2-End of file)"));
    log_.Clear();
  }
}

TEST_F(StreamConnectionTest, TimedOutAttemptMovesOnToTheNextAddress) {
  auto server = rig_.Listen("tcp://127.0.0.1:4101");
  ASSERT_TRUE(server);
  resolver_->Set("two.test", {{}, {"10.77.0.2", "127.0.0.1"}});
  SocketOptions options;
  options.timeout = 300;

  ConnectOutcome out = rig_.Connect("tcp://two.test:4101", options);
  ASSERT_TRUE(out.done);
  EXPECT_FALSE(out.status) << out.status.message();
  EXPECT_EQ(out.connection->remote_endpoint().uri(), "tcp://127.0.0.1:4101");
  EXPECT_TRUE(server->Next());
  EXPECT_EQ(log_.Count("Starting connect guard timer for 300 milliseconds"), 2u);
  EXPECT_EQ(log_.Count("Couldn't connect to 'tcp://10.77.0.2:4101' (error: 110-"), 1u);
}

TEST_F(StreamConnectionTest, ConnectOutcomes) {
  struct Row {
    const char* name;
    std::string uri;
    ScriptedResolver::Answer answer;
    int64_t timeout;
    error_code expected;
  };
  const Row rows[] = {
      // Every resolved address failing reports EHOSTUNREACH, not the last error.
      {"all refused", "tcp://refused.test:4102", {{}, {"127.0.0.1", "127.0.0.1"}}, 0,
       Sys(EHOSTUNREACH)},
      {"empty answer", "tcp://empty.test:4102", {{}, {}}, 0, Sys(EHOSTUNREACH)},
      // A literal reports the connect error itself.
      {"literal refused", "tcp://127.0.0.1:4102", {}, 0, Sys(ECONNREFUSED)},
      {"literal timed out", "tcp://10.77.0.2:4102", {}, 200, Gen(ETIMEDOUT)},
      {"local path missing", "unix:///run/netns/none.sock", {}, 0, Sys(ENOENT)},
      {"lookup failed", "tcp://fail.test:4102", {boost::asio::error::host_not_found, {}}, 0,
       boost::asio::error::host_not_found},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    resolver_->Set(std::string(Endpoint(r.uri).host()), r.answer);
    SocketOptions options;
    if (r.timeout > 0) options.timeout = r.timeout;
    ConnectOutcome out = rig_.Connect(r.uri, options);
    ASSERT_TRUE(out.done);
    EXPECT_EQ(out.status, r.expected) << out.status.message();
    EXPECT_EQ(std::static_pointer_cast<StreamConnection>(out.connection)->state(), State::ERROR);
  }
}

// Close from each state: a connect still under way ends with ECONNABORTED,
// a second close only logs.
TEST_F(StreamConnectionTest, CloseFromEveryState) {
  auto server = rig_.Listen("tcp://127.0.0.1:4103");
  ASSERT_TRUE(server);
  resolver_->Set("never.test", {{}, {}, true});
  struct Row {
    const char* name;
    std::string uri;
    State before;
    bool connect;
    error_code handlerGets;
  };
  const Row rows[] = {
      {"init", "tcp://127.0.0.1:4103", State::INIT, false, {}},
      {"resolving", "tcp://never.test:4103", State::RESOLVING, true, Gen(ECONNABORTED)},
      {"connecting", "tcp://10.77.0.2:4103", State::CONNECTING, true, Gen(ECONNABORTED)},
      {"connected", "tcp://127.0.0.1:4103", State::CONNECTED, true, {}},
      {"error", "tcp://127.0.0.1:4199", State::ERROR, true, Sys(ECONNREFUSED)},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    auto c = std::static_pointer_cast<StreamConnection>(
        rig_.transport->NewConnection(Endpoint(r.uri), SocketOptions()).value());
    ASSERT_TRUE(c);
    auto outcome = std::make_shared<std::promise<error_code>>();
    auto calls = std::make_shared<std::atomic<int>>(0);
    if (r.connect) {
      c->Connect([outcome, calls](const error_code& ec) {
        if (calls->fetch_add(1) == 0) outcome->set_value(ec);
      });
    }
    ASSERT_TRUE(zel::testing::WaitUntil([&] { return c->state() == r.before; }));
    c->Close(CloseReason::BY_USER);
    c->Close(CloseReason::BY_USER);
    ASSERT_TRUE(log_.WaitFor("StreamConnection[" + std::to_string(c->id()) + " Closed "));
    ASSERT_TRUE(log_.WaitFor("] is already closed"));
    EXPECT_EQ(c->state(), State::CLOSED);
    if (r.connect) {
      auto future = outcome->get_future();
      ASSERT_EQ(future.wait_for(kDeadline), std::future_status::ready);
      EXPECT_EQ(future.get(), r.handlerGets);
      EXPECT_EQ(calls->load(), 1);
    }
    // Nothing can be read or written any more.
    EXPECT_EQ(WriteAll(c, "x"), Gen(ENOTCONN));
    log_.Clear();
  }
  EXPECT_TRUE(server->Next());
}

TEST_F(StreamConnectionTest, MisuseIsLoggedAndDropped) {
  resolver_->Set("never.test", {{}, {}, true});
  auto c = std::static_pointer_cast<StreamConnection>(
      rig_.transport->NewConnection(Endpoint("tcp://never.test:4104"), SocketOptions()).value());
  auto first = std::make_shared<std::atomic<int>>(0);
  c->Connect([first](const error_code&) { ++*first; });
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return c->state() == State::RESOLVING; }));
  // A second connect is dropped; the first handler still gets the one outcome.
  c->Connect([](const error_code&) { ADD_FAILURE() << "second handler ran"; });
  EXPECT_TRUE(log_.WaitFor("Can't schedule async connect in Resolving state"));
  // Reads and writes before the connection is up fail through the dispatcher.
  EXPECT_EQ(WriteAll(c, "x"), Gen(ENOTCONN));
  EXPECT_EQ(Read(c, 1).status, Gen(ENOTCONN));
  EXPECT_NE(log_.Find("Couldn't write data - not connected").find(Tagged(kTagNet6)), std::string::npos);
  EXPECT_NE(log_.Find("Couldn't read data - not connected").find(Tagged(kTagNet5)), std::string::npos);
  c->Accept();
  EXPECT_NE(log_.Find("Accept must not be called in Resolving state").find(Tagged(kTagNet500)),
            std::string::npos);
  c->Close(CloseReason::BY_USER);
  EXPECT_TRUE(zel::testing::WaitUntil([&] { return first->load() == 1; }));
}

// Handlers may close the connection they are called for.
TEST_F(StreamConnectionTest, CloseFromInsideHandlers) {
  auto server = rig_.Listen("tcp://127.0.0.1:4105");
  ASSERT_TRUE(server);
  ConnectionResult made = rig_.transport->NewConnection(Endpoint("tcp://127.0.0.1:4105"), {});
  ConnectionPtr c = made.value();
  zel::testing::Event closed;
  c->Connect([c, &closed](const error_code& ec) {
    EXPECT_FALSE(ec);
    c->Close(CloseReason::BY_USER);
    closed.Set();
  });
  ASSERT_TRUE(closed.WaitFor());
  ConnectionPtr accepted = server->Next();
  ASSERT_TRUE(accepted);
  auto buffer = MakeRefCounted<SharedBuffer>(1);
  zel::testing::Event readEnded;
  accepted->Read(IoBuffer(buffer), 1, kReadFill, [accepted, &readEnded](const error_code& ec, size_t) {
    EXPECT_EQ(ec, boost::asio::error::eof);
    accepted->Close(CloseReason::BY_USER);
    readEnded.Set();
  });
  ASSERT_TRUE(readEnded.WaitFor());
  EXPECT_TRUE(log_.WaitFor("is already closed"));
}

// Failures at the Nth read or write, on a fake socket.
TEST_F(StreamConnectionTest, IoFailuresCloseWithTheirReason) {
  struct Row {
    const char* name;
    bool write;
    error_code failure;
    bool closeDuringRead;
    error_code handlerGets;
    const char* closed;  // the Closed line's reason, or none when it stays up
  };
  const Row rows[] = {
      {"read eof", false, boost::asio::error::eof, false, boost::asio::error::eof, "by peer"},
      {"write reset", true, boost::asio::error::connection_reset, false,
       boost::asio::error::connection_reset, "network error"},
      {"socket closed under a read", false, {}, true, Gen(ENOTCONN), "network error"},
      {"cancelled write", true, boost::asio::error::operation_aborted, false,
       boost::asio::error::operation_aborted, nullptr},
  };
  uint32_t id = 100;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    auto socket = std::make_shared<FakeStreamSocket>(rig_.dispatcher, ++id);
    StreamConnection::Params params;
    params.id = id;
    params.role = Role::SERVER;
    params.endpoint = Endpoint("tcp://10.0.0.1:4096");
    params.socket = socket;
    params.dispatcher = rig_.dispatcher;
    params.timers = rig_.timers;
    auto c = StreamConnection::Create(params);
    c->Accept();
    ASSERT_EQ(c->state(), State::CONNECTED);
    EXPECT_EQ(c->remote_endpoint().uri(), "tcp://10.0.0.2:50000");
    // The first operation succeeds, the second fails.
    EXPECT_FALSE(r.write ? WriteAll(c, "ok") : Read(c, 2).status);
    if (r.write) {
      socket->FailWrite(2, r.failure);
    } else if (r.failure) {
      socket->FailRead(2, r.failure);
    }
    if (r.closeDuringRead) socket->CloseDuringRead(2);
    const error_code got = r.write ? WriteAll(c, "no") : Read(c, 2).status;
    EXPECT_EQ(got, r.handlerGets);
    if (r.closed) {
      EXPECT_TRUE(log_.WaitFor(std::string("Closed (reason: ") + r.closed));
      EXPECT_EQ(c->state(), State::CLOSED);
      EXPECT_EQ(socket->closes(), 1);
    } else {
      EXPECT_EQ(c->state(), State::CONNECTED);
    }
    log_.Clear();
  }
}

TEST_F(StreamConnectionTest, HandlerThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto server = rig_.Listen("tcp://127.0.0.1:4106");
        ConnectionPtr c = rig_.transport->NewConnection(Endpoint("tcp://127.0.0.1:4106"), {}).value();
        c->Connect([](const error_code&) { throw std::runtime_error("boom"); });
        zel::testing::Event().WaitFor();  // the abort comes first
      },
      "");
  (void)kTagNet9999;
}

}  // namespace
}  // namespace testing
}  // namespace net
}  // namespace zel
