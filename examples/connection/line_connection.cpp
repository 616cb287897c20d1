#include "examples/connection/line_connection.h"

#include <istream>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/write.hpp>

#include "cpp/lib/common/weak_callback.h"

namespace zel {
namespace example {

std::shared_ptr<LineConnection> LineConnection::Create(Socket socket, LineHandler onLine,
                                                       CloseHandler onClose) {
  return std::make_shared<LineConnection>(PrivateTag{}, std::move(socket), std::move(onLine),
                                          std::move(onClose));
}

LineConnection::LineConnection(PrivateTag, Socket socket, LineHandler onLine,
                               CloseHandler onClose)
    : socket_(std::move(socket)), onLine_(std::move(onLine)), onClose_(std::move(onClose)) {}

// Closing the socket cancels the pending read; the read commits into the
// buffer it holds, then finds no connection behind the weak reference and
// does nothing.
LineConnection::~LineConnection() = default;

void LineConnection::Start() {
  boost::asio::post(socket_.get_executor(), [self = shared_from_this()] { self->DoRead(); });
}

void LineConnection::Send(std::string line) {
  // The public call only posts; the queue is touched on the executor alone.
  boost::asio::post(socket_.get_executor(),
                    [self = shared_from_this(), line = std::move(line)]() mutable {
                      self->Enqueue_(std::move(line));
                    });
}

void LineConnection::Close() {
  boost::asio::post(socket_.get_executor(), [self = shared_from_this()] {
    self->Shutdown_(boost::asio::error::operation_aborted);
  });
}

void LineConnection::DoRead() {
  // The read operation writes into the buffer before it calls the handler,
  // also when it completes after this object is gone: the handler holds the
  // buffer, and only a weak reference to the connection.
  boost::asio::async_read_until(
      socket_, *input_, '\n',
      [input = input_, onRead = zel::MakeWeakCallback(weak_from_this(), &LineConnection::OnRead)](
          const boost::system::error_code& ec, std::size_t bytes) { onRead(ec, bytes); });
}

void LineConnection::OnRead(const boost::system::error_code& ec, std::size_t bytes) {
  if (ec) return Shutdown_(ec);
  std::string line(bytes - 1, '\0');
  std::istream in(input_.get());
  in.read(&line[0], static_cast<std::streamsize>(line.size()));
  in.ignore(1);  // the newline
  // The handler may Close or drop the owner's reference; `self` keeps this
  // object alive until the next read is started (or not).
  auto self = shared_from_this();
  if (onLine_) onLine_(line);
  if (!closed_) DoRead();
}

void LineConnection::Enqueue_(std::string line) {
  if (closed_) return;
  outbox_.push_back(std::move(line) + '\n');
  if (outbox_.size() == 1) DoWrite();  // otherwise a write is in flight
}

void LineConnection::DoWrite() {
  boost::asio::async_write(socket_, boost::asio::buffer(outbox_.front()),
                           [self = shared_from_this()](const boost::system::error_code& ec,
                                                       std::size_t n) { self->OnWrite(ec, n); });
}

void LineConnection::OnWrite(const boost::system::error_code& ec, std::size_t /*bytes*/) {
  if (ec) return Shutdown_(ec);
  outbox_.pop_front();
  if (!outbox_.empty() && !closed_) DoWrite();
}

void LineConnection::Shutdown_(const boost::system::error_code& ec) {
  if (closed_) return;
  closed_ = true;
  boost::system::error_code ignored;
  // Cancels the pending operations; a write in flight still owns its buffer
  // in outbox_ until its completion has run, so the queue stays as it is.
  socket_.close(ignored);
  // Moved out first: the handler may drop the last reference to this object.
  CloseHandler onClose = std::move(onClose_);
  onLine_ = nullptr;
  if (onClose) onClose(ec);
}

}  // namespace example
}  // namespace zel
