// LineConnection: the shape of an asynchronous connection in this code base,
// kept small enough to read in one sitting. It reads newline-ended lines from
// a stream socket and writes lines to it.
//
//   auto conn = LineConnection::Create(std::move(socket), onLine, onClose);
//   conn->Start();
//   conn->Send("hello");      // any thread; only posts
//   conn->Close();            // any thread; only posts
//
// Lifetime. The owner holds the one strong reference. A pending read holds
// only a weak one (zel::MakeWeakCallback), so dropping the owner's reference
// ends the connection: the socket closes and the read completes into nothing.
// What an operation writes into must outlive it, whatever happens to the
// object: the read's handler holds the input buffer itself.
// A pending write holds a strong one, so a line already queued is written out
// before the connection goes.
//
// Threads. Every member runs on the socket's executor (one thread of the
// io_context, or a strand of it); Send and Close post there, so no lock is
// needed. Handlers are called there too, with nothing held: onLine may call
// Send or Close, and may drop the last strong reference.
#ifndef ZEL_EXAMPLES_CONNECTION_LINE_CONNECTION_H_
#define ZEL_EXAMPLES_CONNECTION_LINE_CONNECTION_H_

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/system/error_code.hpp>

namespace zel {
namespace example {

class LineConnection : public std::enable_shared_from_this<LineConnection> {
 public:
  using Socket = boost::asio::local::stream_protocol::socket;
  using LineHandler = std::function<void(const std::string& line)>;
  // Called once, when the connection ends: with the peer's close (eof) or
  // the error, or with operation_aborted after Close.
  using CloseHandler = std::function<void(const boost::system::error_code& ec)>;

  static std::shared_ptr<LineConnection> Create(Socket socket, LineHandler onLine,
                                                CloseHandler onClose);
  ~LineConnection();
  LineConnection(const LineConnection&) = delete;
  LineConnection& operator=(const LineConnection&) = delete;

  void Start();
  // Queues `line` (a newline is added); lines go out in the order sent.
  void Send(std::string line);
  void Close();

 private:
  struct PrivateTag {};

 public:
  LineConnection(PrivateTag, Socket socket, LineHandler onLine, CloseHandler onClose);

 private:
  void DoRead();
  void OnRead(const boost::system::error_code& ec, std::size_t bytes);
  void Enqueue_(std::string line);
  void DoWrite();
  void OnWrite(const boost::system::error_code& ec, std::size_t bytes);
  void Shutdown_(const boost::system::error_code& ec);

  Socket socket_;
  // Shared with the pending read, which may complete after this object.
  std::shared_ptr<boost::asio::streambuf> input_ = std::make_shared<boost::asio::streambuf>();
  std::deque<std::string> outbox_;  // front() is the write in flight
  LineHandler onLine_;
  CloseHandler onClose_;
  bool closed_ = false;
};

}  // namespace example
}  // namespace zel

#endif  // ZEL_EXAMPLES_CONNECTION_LINE_CONNECTION_H_
