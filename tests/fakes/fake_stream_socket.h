// FakeStreamSocket: a StreamSocket with no descriptor behind it, for the
// connection's state-machine cases that a real peer can't produce on demand.
// Reads complete with the bytes fed to it (zeros when none were fed), writes
// with their full size, and the Nth read or write can be made to fail with a
// chosen error instead. Completions are posted to the dispatcher, never run
// inline, as a real socket's are.
//
//   auto socket = std::make_shared<FakeStreamSocket>(dispatcher, 7);
//   socket->FailWrite(2, boost::asio::error::connection_reset);
#ifndef ZEL_TESTS_FAKES_FAKE_STREAM_SOCKET_H_
#define ZEL_TESTS_FAKES_FAKE_STREAM_SOCKET_H_

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/net/stream_socket.h"

namespace zel {
namespace net {
namespace testing {

class FakeStreamSocket : public StreamSocket {
 public:
  FakeStreamSocket(boost::shared_ptr<Dispatcher> dispatcher, uint32_t id)
      : dispatcher_(std::move(dispatcher)), id_(id) {}

  // The `n`th read (or write), counting from 1, completes with `ec`.
  void FailRead(int n, boost::system::error_code ec) { Set(reads_, n, ec); }
  void FailWrite(int n, boost::system::error_code ec) { Set(writes_, n, ec); }
  // The `n`th read completes with success, but finds the socket closed.
  void CloseDuringRead(int n) {
    std::lock_guard<std::mutex> lock(mutex_);
    closeOnRead_ = n;
  }
  // is_open() answers this from now on.
  void SetOpen(bool open) {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = open;
  }
  void Feed(const std::string& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    incoming_ += bytes;
  }
  std::string Written() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return written_;
  }
  int closes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return closes_;
  }

  // StreamSocket
  void open(const Endpoint&) override {}
  void on_accept(const boost::system::error_code& status, StatusHandler handler) override {
    handler(status);
  }
  void async_connect(const Endpoint&, StatusHandler handler) override {
    dispatcher_->Post([handler] { handler({}); });
  }
  void async_read(void* buffer, std::size_t size, IoHandler handler, int) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto ec = Next(reads_, readCount_);
    if (readCount_ == closeOnRead_) open_ = false;
    std::size_t n = 0;
    if (!ec) {
      n = size;
      std::memset(buffer, 0, size);
      const std::size_t fed = std::min(size, incoming_.size());
      std::memcpy(buffer, incoming_.data(), fed);
      incoming_.erase(0, fed);
    }
    dispatcher_->Post([handler, ec, n] { handler(ec, n); });
  }
  void async_write(const void* buffer, std::size_t size, IoHandler handler) override {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto ec = Next(writes_, writeCount_);
    if (!ec) written_.append(static_cast<const char*>(buffer), size);
    dispatcher_->Post([handler, ec, size] { handler(ec, ec ? 0 : size); });
  }
  void async_close(bool) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++closes_;
    open_ = false;
  }
  bool is_open() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return open_;
  }
  std::string local_endpoint() const override { return "tcp://10.0.0.1:4096"; }
  std::string remote_endpoint() const override { return "tcp://10.0.0.2:50000"; }
  uint32_t id() const override { return id_; }
  State state() const override { return State::CONNECTED; }
  X509CertificatePtr peer_certificate() const override { return nullptr; }
  int native_handle() const override { return -1; }

 private:
  using Script = std::map<int, boost::system::error_code>;

  void Set(Script& script, int n, boost::system::error_code ec) {
    std::lock_guard<std::mutex> lock(mutex_);
    script[n] = ec;
  }
  static boost::system::error_code Next(const Script& script, int& count) {
    auto it = script.find(++count);
    return it == script.end() ? boost::system::error_code() : it->second;
  }

  const boost::shared_ptr<Dispatcher> dispatcher_;
  const uint32_t id_;
  mutable std::mutex mutex_;
  Script reads_;
  Script writes_;
  int readCount_ = 0;
  int writeCount_ = 0;
  bool open_ = true;
  int closes_ = 0;
  int closeOnRead_ = 0;
  std::string incoming_;
  std::string written_;
};

}  // namespace testing
}  // namespace net
}  // namespace zel

#endif  // ZEL_TESTS_FAKES_FAKE_STREAM_SOCKET_H_
