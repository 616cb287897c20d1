#include "examples/connection/line_connection.h"

#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <gtest/gtest.h>

#include "support/wait.h"

namespace zel {
namespace example {
namespace {

using Socket = LineConnection::Socket;

// A connection on one end of a socket pair, the other end a plain descriptor
// the test reads and writes, and the io_context on its own thread.
class LineConnectionTest : public ::testing::Test {
 protected:
  LineConnectionTest() {
    Socket peer(io_);
    boost::asio::local::connect_pair(ours_, peer);
    peerFd_ = peer.release();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~LineConnectionTest() override {
    work_.reset();
    io_.stop();
    thread_.join();
    if (peerFd_ >= 0) close(peerFd_);
  }

  // What the peer reads until `n` bytes or the end of the stream.
  std::string PeerRead(size_t n) {
    std::string got;
    char buf[256];
    while (got.size() < n) {
      const ssize_t r = read(peerFd_, buf, sizeof buf);
      if (r <= 0) break;
      got.append(buf, static_cast<size_t>(r));
    }
    return got;
  }

  boost::asio::io_context io_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      io_.get_executor()};
  Socket ours_{io_};
  int peerFd_ = -1;
  std::thread thread_;
};

TEST_F(LineConnectionTest, EchoesLinesInOrderAcrossSplitReadsAndReportsThePeersClose) {
  testing::Event closed;
  boost::system::error_code closeCode;
  std::shared_ptr<LineConnection> conn;
  conn = LineConnection::Create(
      std::move(ours_), [&](const std::string& line) { conn->Send("re:" + line); },
      [&](const boost::system::error_code& ec) {
        closeCode = ec;
        closed.Set();
      });
  conn->Start();

  for (const char* part : {"one\ntw", "o\n", "\nthree\n"}) {
    ASSERT_EQ(write(peerFd_, part, strlen(part)), static_cast<ssize_t>(strlen(part)));
  }
  const std::string expected = "re:one\nre:two\nre:\nre:three\n";
  EXPECT_EQ(PeerRead(expected.size()), expected);

  shutdown(peerFd_, SHUT_WR);
  ASSERT_TRUE(closed.WaitFor());
  EXPECT_EQ(closeCode, boost::asio::error::eof);
}

TEST_F(LineConnectionTest, DroppingTheOwnersReferenceClosesAfterQueuedWrites) {
  auto conn = LineConnection::Create(std::move(ours_), nullptr, nullptr);
  conn->Start();
  conn->Send("last words");
  conn.reset();  // the pending read holds only a weak reference
  // The queued line is written out, then the socket closes: end of stream.
  EXPECT_EQ(PeerRead(1000), "last words\n");
}

}  // namespace
}  // namespace example
}  // namespace zel
