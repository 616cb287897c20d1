// Stream sockets and acceptors against plain peers (a Python socket): a peer
// that resets in the middle of a write, a peer that half-closes, and the
// acceptor's close, late accepts and socket files.
#include "cpp/lib/net/stream_socket.h"

#include <sys/stat.h>
#include <unistd.h>

#include <thread>
#include <fstream>

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/impl/socket_factory.h"
#include "net_test_rig.h"
#include "support/child_process.h"
#include "support/private_network.h"

namespace zel {
namespace net {
namespace testing {
namespace {

using zel::testing::ChildProcess;

// A Python peer that listens on 127.0.0.1:`port` and runs `body` with the
// accepted socket `c`; it prints READY once listening.
std::unique_ptr<ChildProcess> PythonPeer(int port, const std::string& body) {
  const std::string script =
      "import socket, struct, sys\n"
      "s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)\n"
      "s.bind(('127.0.0.1', " + std::to_string(port) + ")); s.listen(1)\n"
      "print('READY', flush=True)\n"
      "c, _ = s.accept()\n" + body;
  auto peer = std::make_unique<ChildProcess>(std::vector<std::string>{"python3", "-c", script});
  EXPECT_TRUE(peer->WaitForOutput("READY")) << peer->Output();
  return peer;
}

class StreamSocketTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { ready_ = zel::testing::EnterPrivateNetwork(); }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root and iproute2";
  }

  StreamAcceptorPtr LocalAcceptor(const std::string& uri) {
    return detail::MakeAcceptor(detail::SocketKind::LOCAL, 900, Endpoint(uri), AcceptorOptions(),
                                rig_.dispatcher->GetIoContextHandle(), AcceptorMetrics());
  }

  static bool ready_;
  NetLogCapture log_;
  NetRig rig_;
};

bool StreamSocketTest::ready_ = false;

TEST_F(StreamSocketTest, PeerResetInTheMiddleOfAWrite) {
  auto peer = PythonPeer(4200,
                         "c.recv(1000)\n"
                         "c.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack('ii', 1, 0))\n"
                         "c.close()\n");
  ConnectOutcome out = rig_.Connect("tcp://127.0.0.1:4200");
  ASSERT_FALSE(out.status);
  const error_code ec = WriteAll(out.connection, std::string(64 << 20, 'x'));
  EXPECT_TRUE(ec == boost::asio::error::connection_reset || ec == boost::asio::error::broken_pipe)
      << ec.message();
  EXPECT_TRUE(log_.WaitFor("Closed (reason: network error"));
  EXPECT_EQ(WriteAll(out.connection, "x"), error_code(ENOTCONN, boost::system::generic_category()));
}

// A peer that stops sending still reads: the connection writes on until it
// reads the end of the stream, and then closes.
TEST_F(StreamSocketTest, PeerThatHalfCloses) {
  auto peer = PythonPeer(4201,
                         "c.sendall(b'bye'); c.shutdown(socket.SHUT_WR)\n"
                         "data = b''\n"
                         "while True:\n"
                         "  d = c.recv(100)\n"
                         "  if not d: break\n"
                         "  data += d\n"
                         "print('GOT', data.decode(), flush=True)\n");
  ConnectOutcome out = rig_.Connect("tcp://127.0.0.1:4201");
  ASSERT_FALSE(out.status);
  EXPECT_EQ(Read(out.connection, 3).data, "bye");
  EXPECT_FALSE(WriteAll(out.connection, "still here"));
  ReadOutcome end = Read(out.connection, 1);
  EXPECT_EQ(end.status, boost::asio::error::eof);
  EXPECT_TRUE(log_.WaitFor("Closed (reason: by peer"));
  EXPECT_TRUE(peer->WaitForOutput("GOT still here"));
}

TEST_F(StreamSocketTest, AcceptorCloseAndLateAccepts) {
  StreamAcceptorPtr acceptor = LocalAcceptor("unix:///run/netns/a.sock");
  acceptor->open();
  acceptor->bind();
  acceptor->listen();
  EXPECT_EQ(acceptor->state(), StreamAcceptor::State::LISTENING);
  acceptor->async_close();
  acceptor->async_close();
  EXPECT_EQ(log_.Count("Not closing - already scheduled"), 1u);

  // An accept after the close is answered through the event loop, never inline.
  detail::SocketParams params;
  params.side = StreamSide::SERVER;
  params.io = rig_.dispatcher->GetIoContextHandle();
  StreamSocketPtr socket = detail::MakeSocket(detail::SocketKind::LOCAL, params);
  zel::testing::Event answered;
  error_code got;
  std::thread::id where;
  acceptor->async_accept(
      socket, [](const error_code&) { ADD_FAILURE() << "no descriptor was accepted"; },
      [&](const error_code& ec) {
        got = ec;
        where = std::this_thread::get_id();
        answered.Set();
      });
  ASSERT_TRUE(answered.WaitFor());
  EXPECT_NE(where, std::this_thread::get_id());
  EXPECT_EQ(got, boost::asio::error::operation_aborted);
  EXPECT_TRUE(zel::testing::WaitUntil([&] { return acceptor->state() == StreamAcceptor::State::CLOSED; }));
  EXPECT_TRUE(log_.WaitFor("Attempting to unlink file /run/netns/a.sock after stop"));
  EXPECT_EQ(log_.Count(Tagged(kTagNet31)), 0u);
}

TEST_F(StreamSocketTest, LocalSocketFiles) {
  // A file left by an earlier run does not stop the bind.
  { std::ofstream("/run/netns/stale.sock") << "left over"; }
  auto server = rig_.Listen("unix:///run/netns/stale.sock");
  ASSERT_TRUE(server) << rig_.listenStatus.message();
  EXPECT_TRUE(log_.WaitFor("Attempting to unlink file /run/netns/stale.sock before create"));
  // A file already gone at stop is no error.
  ASSERT_EQ(unlink("/run/netns/stale.sock"), 0);
  rig_.transport->StopListening(Endpoint("unix:///run/netns/stale.sock"));
  EXPECT_TRUE(log_.WaitFor("Attempting to unlink file /run/netns/stale.sock after stop"));

  // A path that can't be removed is logged and creation goes on (and then
  // the bind fails on it).
  ASSERT_EQ(mkdir("/run/netns/dir.sock", 0755), 0);
  EXPECT_FALSE(rig_.Listen("unix:///run/netns/dir.sock"));
  EXPECT_NE(log_.Find("Failed to unlink file /run/netns/dir.sock (error: 21)").find(Tagged(kTagNet31)),
            std::string::npos);
  EXPECT_NE(log_.Find("Failed to start listening on 'unix:///run/netns/dir.sock'").find(Tagged(kTagNet3)),
            std::string::npos);
  // The acceptor that could not bind is closed, and tries again.
  EXPECT_TRUE(log_.WaitFor(Tagged(kTagNet31), 2));

  // Options of a local listener: parent directories and the file's mode.
  SocketOptions options;
  options.uds.mkdir = true;
  options.uds.perm = 0600;
  ASSERT_TRUE(rig_.Listen("unix:///run/netns/deep/er/p.sock", options));
  struct stat st {};
  ASSERT_EQ(stat("/run/netns/deep/er/p.sock", &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

}  // namespace
}  // namespace testing
}  // namespace net
}  // namespace zel
