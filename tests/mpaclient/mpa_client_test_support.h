// Test support for the management client: a relay (the MPA end of the
// protocol) whose listening can be switched on late, a log watch that waits
// for lines, an inbox for the message callback, and an MpaClient whose MPA
// road goes to the relay's port with shortened intervals.
#ifndef ZEL_TESTS_MPACLIENT_MPA_CLIENT_TEST_SUPPORT_H_
#define ZEL_TESTS_MPACLIENT_MPA_CLIENT_TEST_SUPPORT_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/metrics/metric_value.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/rmq_client.h"
#include "mpalib/mpa_test_peer.h"
#include "mpalib/rmq_client_message.h"

namespace mpa_client_test {

using Clock = std::chrono::steady_clock;
constexpr auto kWait = std::chrono::seconds(10);

// The relay: a socket on 127.0.0.1, port 0, bound at once and listening only
// after Listen; until then connects are refused (the relay is "absent").
class Relay {
 public:
  Relay() {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      socklen_t len = sizeof addr;
      ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
      port_ = ntohs(addr.sin_port);
    }
  }
  ~Relay() {
    for (int fd : peers_) ::close(fd);
    if (fd_ >= 0) ::close(fd_);
  }
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  uint16_t port() const { return port_; }
  bool Listen() { return ::listen(fd_, 16) == 0; }

  // Accepts one connection; -1 when none is waiting within `timeoutMs`.
  int Accept(int timeoutMs = 10000) {
    if (!mpa_test::WaitReadable(fd_, timeoutMs)) return -1;
    const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) peers_.push_back(fd);
    return fd;
  }

  // Accepts a connection and reads its registration; -1 on any failure.
  int AcceptRegistration(const std::string& appType) {
    const int fd = Accept();
    if (fd < 0) return -1;
    mpa_test::Bytes doc;
    std::vector<mpa_test::Element> elements;
    if (!mpa_test::FakeMpa::ReadFrame(fd, &doc) || !mpa_test::ParseDoc(doc, &elements)) return -1;
    bool isRegistration = false;
    bool ofType = false;
    for (const auto& e : elements) {
      if (e.key == "msg_type") isRegistration = e.i64 == RMQ_CLIENT_REGISTRATION;
      if (e.key == "app_type") ofType = e.text == appType;
    }
    return isRegistration && ofType ? fd : -1;
  }

  static bool SendAck(int fd, const std::string& appType) {
    return mpa_test::WriteAll(fd, mpa_test::Frame(mpa_test::Doc()
                                                      .Int64("msg_type", RMQ_CLIENT_REGISTRATION_ACK)
                                                      .String("app_type", appType)
                                                      .String("app_id", "zel")
                                                      .Finish()));
  }

  static bool SendData(int fd, int64_t type, const std::string& appType,
                       const mpa_test::Bytes& payload) {
    return mpa_test::WriteAll(
        fd, mpa_test::Frame(mpa_test::Doc()
                                .Int64("msg_type", type)
                                .String("app_type", appType)
                                .String("app_id", "zel")
                                .String("amqp_routing_key", "reply-queue")
                                .String("content_type", "application/protobuf")
                                .Int64("payload_len", static_cast<int64_t>(payload.size()))
                                .Binary("amqp_payload", payload)
                                .Finish()));
  }

  void ClosePeer(int fd) {
    for (auto it = peers_.begin(); it != peers_.end(); ++it) {
      if (*it == fd) {
        peers_.erase(it);
        ::close(fd);
        return;
      }
    }
  }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
  std::vector<int> peers_;
};

// Every log record of the process, kept while the test binary runs.
class LogWatch {
 public:
  static void Sink(int /*priority*/, const char* line) {
    {
      std::lock_guard<std::mutex> lock(Mutex());
      Lines().emplace_back(line);
    }
    Cond().notify_all();
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().clear();
  }
  static std::vector<std::string> Snapshot() {
    std::lock_guard<std::mutex> lock(Mutex());
    return Lines();
  }
  static size_t Count(const std::string& needle) {
    size_t n = 0;
    for (const std::string& line : Snapshot()) n += line.find(needle) != std::string::npos;
    return n;
  }
  // Waits until `count` records contain `needle`.
  static bool WaitFor(const std::string& needle, size_t count = 1) {
    std::unique_lock<std::mutex> lock(Mutex());
    return Cond().wait_until(lock, Clock::now() + kWait, [&] {
      size_t n = 0;
      for (const std::string& line : Lines()) n += line.find(needle) != std::string::npos;
      return n >= count;
    });
  }
  // True when records containing each needle appear in this order.
  static bool InOrder(const std::vector<std::string>& needles) {
    size_t next = 0;
    for (const std::string& line : Snapshot()) {
      if (next < needles.size() && line.find(needles[next]) != std::string::npos) ++next;
    }
    return next == needles.size();
  }
  // The record containing `needle`, or "".
  static std::string Find(const std::string& needle) {
    for (const std::string& line : Snapshot()) {
      if (line.find(needle) != std::string::npos) return line;
    }
    return std::string();
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex m;
    return m;
  }
  static std::condition_variable& Cond() {
    static std::condition_variable c;
    return c;
  }
  static std::vector<std::string>& Lines() {
    static std::vector<std::string> lines;
    return lines;
  }
};

// What the message callback saw, copied out of the record.
struct Seen {
  int32_t type = 0;
  int32_t cookie = 0;
  std::string routingKey;
  std::string payload;
};

class Inbox {
 public:
  void Callback(rmqClientMessage* m) {
    Seen s;
    s.type = m->messageType;
    s.cookie = m->cookieId;
    if (m->amqpRoutingKey != nullptr) s.routingKey = m->amqpRoutingKey;
    if (m->payload != nullptr) {
      s.payload.assign(reinterpret_cast<const char*>(m->payload),
                       static_cast<size_t>(m->payloadLen));
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seen_.push_back(std::move(s));
    }
    cond_.notify_all();
  }
  // Takes the oldest record, waiting for one at most kWait.
  bool Take(Seen* out) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cond_.wait_until(lock, Clock::now() + kWait, [&] { return !seen_.empty(); })) {
      return false;
    }
    *out = std::move(seen_.front());
    seen_.pop_front();
    return true;
  }
  size_t Size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return seen_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::deque<Seen> seen_;
};

// The library's client aimed at the relay: Register goes to 127.0.0.1:<port>
// instead of the MPA's fixed port.
class RelayRmqClient : public zel::RmqClient {
 public:
  explicit RelayRmqClient(uint16_t port) : port_(port) {}
  int Register(const char* appId, const char* appType, int connectionType,
               rmqClientCallback callback) override {
    const rmqClientEndpoint endpoint{port_, nullptr};
    return RegisterWithEndpoint(appId, appType, connectionType, nullptr, callback, &endpoint);
  }

 private:
  const uint16_t port_;
};

struct TestIntervals {
  uint64_t ackRetryMicros = 30000000;
  uint64_t connectRetryMicros = 5000000;
  uint64_t closeReconnectMicros = zel::MpaClient::kCloseReconnectMicros;
  uint64_t appInitWaitMicros = zel::MpaClient::kAppInitWaitMicros;
  uint64_t appInitRetryMicros = zel::MpaClient::kAppInitRetryMicros;
};

// An MpaClient on the relay's port whose handshake only counts its starts.
class TestMpaClient : public zel::MpaClient {
 public:
  static boost::shared_ptr<TestMpaClient> Make(boost::shared_ptr<zel::AsioDispatcher> dispatcher,
                                               Inbox* inbox, const std::string& appType,
                                               uint16_t port, const TestIntervals& intervals,
                                               zel::metrics::MetricKeyPtr metricRoot) {
    boost::shared_ptr<TestMpaClient> client(new TestMpaClient(
        std::move(dispatcher), inbox, appType, port, intervals, std::move(metricRoot)));
    boost::shared_ptr<zel::MpaClient> registered =
        RegisterInstance(client, intervals.ackRetryMicros, intervals.connectRetryMicros);
    return registered == client ? client : nullptr;
  }

  using zel::MpaClient::OnMessage;

  int handshakes() const { return handshakes_.load(); }

 protected:
  void CreateRmqClient() override {
    SetRmqClient(zel::MakeRefCounted<RelayRmqClient>(port()));
  }
  void AppInitHandshake() override { ++handshakes_; }

 private:
  TestMpaClient(boost::shared_ptr<zel::AsioDispatcher> dispatcher, Inbox* inbox,
                const std::string& appType, uint16_t port, const TestIntervals& intervals,
                zel::metrics::MetricKeyPtr metricRoot)
      : zel::MpaClient(std::move(dispatcher),
                       [inbox](rmqClientMessage* m) { inbox->Callback(m); }, appType, "zel", 1,
                       port, std::move(metricRoot)) {
    intervals_.closeReconnectMicros = intervals.closeReconnectMicros;
    intervals_.appInitWaitMicros = intervals.appInitWaitMicros;
    intervals_.appInitRetryMicros = intervals.appInitRetryMicros;
  }

  std::atomic<int> handshakes_{0};
};

// The level of the counter at `path` with the label app=<appType>, or -1.
inline long CounterLevel(zel::metrics::MetricRegistry& registry, const std::string& path,
                         const std::string& appType) {
  zel::metrics::MetricKeyPtr key = registry.root()->subkey(path)->find_subkey("app=" + appType);
  if (!key || !key->get_value()) return -1;
  const std::string text = key->get_value()->to_string(true);
  const std::string label = "v~last: ";
  const size_t at = text.find(label);
  if (at == std::string::npos) return -1;
  return std::strtol(text.c_str() + at + label.size(), nullptr, 10);
}

}  // namespace mpa_client_test

#endif  // ZEL_TESTS_MPACLIENT_MPA_CLIENT_TEST_SUPPORT_H_
