// A running network layer for tests: a dispatcher with two threads, timers,
// a name resolver, a security manager, a metric registry and a transport, with
// blocking helpers to listen, connect, read and write with a deadline.
//
//   NetRig rig;
//   auto server = rig.Listen("tcp://127.0.0.1:4096");
//   ConnectionPtr client = rig.Connect("tcp://127.0.0.1:4096").connection;
//   ConnectionPtr accepted = server->Next();
//   EXPECT_FALSE(WriteAll(client, "ping"));
//   EXPECT_EQ(ReadExactly(accepted, 4).data, "ping");
#ifndef ZEL_TESTS_CPP_LIB_NET_NET_TEST_RIG_H_
#define ZEL_TESTS_CPP_LIB_NET_NET_TEST_RIG_H_

#include <condition_variable>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <string>

#include <boost/smart_ptr/make_shared.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/buffer.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/net/connection.h"
#include "cpp/lib/net/net_name_resolver.h"
#include "cpp/lib/net/net_security_manager.h"
#include "cpp/lib/net/net_transport.h"
#include "cpp/lib/timer/impl/asio_timer_factory.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace net {
namespace testing {

using boost::system::error_code;
using zel::testing::kDeadline;

// A log capture at DEBUG ("TRIVIA") with the network and crypto libraries' ceilings
// raised, so that their detailed lines are seen too.
class NetLogCapture : public zel::testing::LogCapture {
 public:
  NetLogCapture() : LogCapture("TRIVIA") { zel::g_netLogCeiling = zel::g_cryptoLogCeiling = zel::kLogDebug; }
  ~NetLogCapture() { zel::g_netLogCeiling = zel::g_cryptoLogCeiling = zel::kLogInfo; }
};

// How a tag ("errorCode:NET6") reads in a captured line.
inline std::string Tagged(const char* tag) {
  const std::string t(tag);
  return "errorCode=\"" + t.substr(t.find(':') + 1) + "\"";
}

// Connections accepted on one listening endpoint, in order.
class AcceptQueue {
 public:
  bool Push(const error_code& ec, const ConnectionPtr& c) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (c) connections_.push_back(c);
    if (ec) errors_.push_back(ec);
    changed_.notify_all();
    return keep_;
  }
  // The next accepted connection; empty after the deadline.
  ConnectionPtr Next(std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return !connections_.empty(); })) return nullptr;
    ConnectionPtr c = connections_.front();
    connections_.pop_front();
    return c;
  }
  // The next failure handed to the accept handler.
  error_code NextError(std::chrono::milliseconds timeout = kDeadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, timeout, [&] { return !errors_.empty(); })) return error_code();
    error_code ec = errors_.front();
    errors_.pop_front();
    return ec;
  }
  void SetKeep(bool keep) {
    std::lock_guard<std::mutex> lock(mutex_);
    keep_ = keep;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<ConnectionPtr> connections_;
  std::deque<error_code> errors_;
  bool keep_ = true;
};

struct ConnectOutcome {
  ConnectionPtr connection;
  error_code status;
  bool done = false;  // the handler ran before the deadline
};

struct ReadOutcome {
  error_code status;
  std::string data;
  bool done = false;
};

class NetRig {
 public:
  explicit NetRig(std::shared_ptr<HostNameResolver> resolver = nullptr, int threads = 2)
      : dispatcher(boost::make_shared<AsioDispatcher>()),
        timers(std::make_shared<AsioTimerFactory>(dispatcher->GetIoContextHandle())),
        resolver(resolver ? std::move(resolver)
                          : std::make_shared<NetNameResolver>(dispatcher->GetIoContextHandle())),
        security(std::make_shared<NetSecurityManager>()),
        registry(std::make_unique<metrics::MetricRegistry>()) {
    transport = std::make_shared<NetTransport>(NetTransport::Params{
        dispatcher, dispatcher->GetIoContextHandle(), timers, this->resolver, security,
        registry->root()});
    dispatcher->Run(static_cast<std::size_t>(threads), false);
  }
  ~NetRig() {
    transport->Shutdown();
    resolver->Shutdown();
    dispatcher->StopAndWait(false);
  }

  std::shared_ptr<AcceptQueue> Listen(const std::string& uri, const SocketOptions& options = {}) {
    auto queue = std::make_shared<AcceptQueue>();
    listenStatus = transport->Listen(Endpoint(uri), options,
                                     [queue](const error_code& ec, const ConnectionPtr& c) {
                                       return queue->Push(ec, c);
                                     });
    return listenStatus ? nullptr : queue;
  }

  // Makes a connection and waits for its connect handler.
  ConnectOutcome Connect(const std::string& uri, const SocketOptions& options = {},
                         std::chrono::milliseconds timeout = kDeadline) {
    ConnectOutcome out;
    ConnectionResult made = transport->NewConnection(Endpoint(uri), options);
    out.connection = made.value();
    if (!out.connection) {
      out.status = made.error();
      return out;
    }
    auto promise = std::make_shared<std::promise<error_code>>();
    std::future<error_code> future = promise->get_future();
    out.connection->Connect([promise](const error_code& ec) { promise->set_value(ec); });
    out.done = future.wait_for(timeout) == std::future_status::ready;
    if (out.done) out.status = future.get();
    return out;
  }

  boost::shared_ptr<AsioDispatcher> dispatcher;
  std::shared_ptr<AsioTimerFactory> timers;
  std::shared_ptr<HostNameResolver> resolver;
  std::shared_ptr<NetSecurityManager> security;
  std::unique_ptr<metrics::MetricRegistry> registry;
  std::shared_ptr<NetTransport> transport;
  error_code listenStatus;
};

inline error_code WriteAll(const ConnectionPtr& c, const std::string& bytes,
                           std::chrono::milliseconds timeout = kDeadline) {
  auto promise = std::make_shared<std::promise<error_code>>();
  std::future<error_code> future = promise->get_future();
  c->Write(IoBuffer(MakeRefCounted<SharedBuffer>(bytes.data(), bytes.size())),
           [promise](const error_code& ec, std::size_t) { promise->set_value(ec); });
  if (future.wait_for(timeout) != std::future_status::ready) {
    return error_code(ETIMEDOUT, boost::system::generic_category());
  }
  return future.get();
}

inline ReadOutcome Read(const ConnectionPtr& c, std::size_t size, int mode = kReadFill,
                        std::chrono::milliseconds timeout = kDeadline) {
  auto buffer = MakeRefCounted<SharedBuffer>(size);
  auto promise = std::make_shared<std::promise<std::pair<error_code, std::size_t>>>();
  auto future = promise->get_future();
  c->Read(IoBuffer(buffer), size, mode, [promise](const error_code& ec, std::size_t n) {
    promise->set_value({ec, n});
  });
  ReadOutcome out;
  if (future.wait_for(timeout) != std::future_status::ready) return out;
  auto [ec, n] = future.get();
  out.done = true;
  out.status = ec;
  out.data.assign(reinterpret_cast<const char*>(buffer->data()), n);
  return out;
}

}  // namespace testing
}  // namespace net
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_NET_NET_TEST_RIG_H_
