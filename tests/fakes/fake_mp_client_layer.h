// In-memory management-plane client layer for tests of the agent.
//
// FakeMpClientLayer implements the agent's seam (core/mp_client_layer.h). It
// records what the agent asks of it (Register with its arguments, Unregister,
// proxy start) and hands out one FakeMpClient per
// registered application type. FakeMpClient records every rmqClientMessage
// sent through it as a SentMessage: kind, routing key, content type, cookie,
// the header document's string elements and the payload, parsed as a
// DornMessage when it is one.
//
// Inbound records are made the way the real layer makes them: one heap block
// holds the header document and the payload, `amqpHeaders` is a finished
// read-only wrap of the document inside it, and the block is freed after the
// callback returns.
//
//   auto layer = boost::make_shared<ZelDorn::testing::FakeMpClientLayer>();
//   ... CommunicationHandler::CreateInstance(monitor, provider, layer) ...
//   layer->Register(dispatcher, callback, "DORN_FABRIC_APPLICATION", ...);
//   layer->Deliver(RMQ_CLIENT_DATA_MESSAGE, request.SerializeAsString(),
//                  {{"amqp_correlationId", "c-1"}, {"amqp_replyTo", "q"}});
//   auto sent = layer->client()->Sent();
//   EXPECT_EQ(sent.at(0).Header("amqp_correlationId"), "c-1");
//
// Threads: every member may be called from any thread; records are kept
// under a mutex and callbacks run with no lock held.
#ifndef DORN_TESTS_FAKES_FAKE_MP_CLIENT_LAYER_H_
#define DORN_TESTS_FAKES_FAKE_MP_CLIENT_LAYER_H_

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "core/mp_client_layer.h"
#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"
#include "mpalib/rmq_client_message.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace testing {

// One record handed to FakeMpClient::SendMsg, copied at the time of the call.
struct SentMessage {
  int32_t kind = 0;
  int32_t cookieId = 0;
  // Null pointers in the record read as nullopt.
  std::optional<std::string> routingKey;
  std::optional<std::string> contentType;
  // False when the record carried no header document.
  bool hasHeaders = false;
  // True when the header document was finished and free of error flags, as
  // the real library requires of an outbound record.
  bool headersValid = false;
  // Keys of the header document in order, and the string elements by key.
  std::vector<std::string> headerKeys;
  std::map<std::string, std::string> headers;
  std::string payload;
  bool parsed = false;  // payload parsed as a DornMessage
  orvane::zel::dorn::DornMessage message;

  // The string header `key`, or nullopt.
  std::optional<std::string> Header(const std::string& key) const {
    auto it = headers.find(key);
    if (it == headers.end()) return std::nullopt;
    return it->second;
  }
};

class FakeMpClient : public MpClient {
 public:
  // MpClient
  void Start() override { ++starts_; }
  void Stop() override { ++stops_; }
  int32_t GetCookieId() override {
    std::lock_guard<std::mutex> lock(mutex_);
    return cookie_;
  }
  int SendMsg(rmqClientMessage* message) override {
    SentMessage copy = Copy(message);
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.push_back(std::move(copy));
    return sendResult_;
  }

  // Steering.
  void SetCookieId(int32_t cookie) {
    std::lock_guard<std::mutex> lock(mutex_);
    cookie_ = cookie;
  }
  // What SendMsg returns from now on (the record is recorded either way).
  void SetSendResult(int result) {
    std::lock_guard<std::mutex> lock(mutex_);
    sendResult_ = result;
  }

  // Observations.
  std::vector<SentMessage> Sent() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sent_;
  }
  void ClearSent() {
    std::lock_guard<std::mutex> lock(mutex_);
    sent_.clear();
  }
  int starts() const { return starts_; }
  int stops() const { return stops_; }

  static SentMessage Copy(const rmqClientMessage* message) {
    SentMessage out;
    if (message == nullptr) return out;
    out.kind = message->messageType;
    out.cookieId = message->cookieId;
    if (message->amqpRoutingKey != nullptr) out.routingKey = message->amqpRoutingKey;
    if (message->amqpContentType != nullptr) out.contentType = message->amqpContentType;
    if (message->payload != nullptr && message->payloadLen > 0) {
      out.payload.assign(reinterpret_cast<const char*>(message->payload),
                         static_cast<size_t>(message->payloadLen));
    }
    out.parsed = out.message.ParseFromString(out.payload);
    const bson* headers = message->amqpHeaders;
    if (headers != nullptr) {
      out.hasHeaders = true;
      out.headersValid = headers->finished != 0 && headers->err == 0;
      if (out.headersValid) {
        ZelMpa::BsonIterator it(reinterpret_cast<const uint8_t*>(bson_data(headers)));
        while (it.next() != ZelMpa::BsonIterator::END) {
          out.headerKeys.emplace_back(it.key());
          const char* key = nullptr;
          const char* value = nullptr;
          if (it.getString(key, value) == 0) out.headers[key] = value;
        }
      }
    }
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<SentMessage> sent_;
  int32_t cookie_ = 7;
  int sendResult_ = 0;
  std::atomic<int> starts_{0};
  std::atomic<int> stops_{0};
};

class FakeMpClientLayer : public MpClientLayer {
 public:
  // Arguments of the last Register.
  struct Registration {
    boost::shared_ptr<zel::AsioDispatcher> dispatcher;
    std::string appType;
    std::string appId;
    int connectionType = 0;
    uint16_t port = 0;
    uint64_t ackRetryMicros = 0;
    uint64_t connectRetryMicros = 0;
  };

  // MpClientLayer
  void StartEventLoop(const std::string&) override {}
  void StopEventLoop() override {}
  void Register(const boost::shared_ptr<zel::AsioDispatcher>& dispatcher,
                MessageCallback callback, const std::string& appType, const std::string& appId,
                int connectionType, uint16_t port, uint64_t ackRetryMicros,
                uint64_t connectRetryMicros) override {
    std::lock_guard<std::mutex> lock(mutex_);
    registration_ = Registration{dispatcher,     appType,        appId,
                                 connectionType, port,           ackRetryMicros,
                                 connectRetryMicros};
    callback_ = std::move(callback);
    if (!clients_.count(appType)) clients_[appType] = boost::make_shared<FakeMpClient>();
  }
  boost::shared_ptr<MpClient> Lookup(const std::string& appType) override {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = clients_.find(appType);
    return it == clients_.end() ? boost::shared_ptr<MpClient>() : it->second;
  }
  void Unregister(const std::string& appType) override {
    std::lock_guard<std::mutex> lock(mutex_);
    unregistered_.push_back(appType);
    clients_.erase(appType);
    callback_.clear();
  }
  void StartProxyClient() override { ++proxyStarts_; }

  // The client of `appType` (made by Register), or null.
  boost::shared_ptr<FakeMpClient> client(
      const std::string& appType = "DORN_FABRIC_APPLICATION") const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = clients_.find(appType);
    return it == clients_.end() ? nullptr : it->second;
  }

  // Builds an inbound record of `kind` with `payload` and, when `headers` is
  // given, its header document (finished here), delivers it to the callback
  // of the last Register on the calling thread and frees its buffer
  // afterwards. Throws std::logic_error when nothing is registered.
  void Deliver(int32_t kind, const std::string& payload,
               std::optional<ZelMpa::BSON> headers, int32_t cookie = 7) {
    MessageCallback callback;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      callback = callback_;
    }
    if (!callback) throw std::logic_error("FakeMpClientLayer::Deliver: nothing registered");
    size_t headerSize = 0;
    if (headers) {
      if (headers->finish() != 0) throw std::logic_error("header document does not finish");
      headerSize = static_cast<size_t>(headers->size());
    }
    // Layout of the block: [bson record][header bytes][payload][appType NUL].
    static constexpr char kAppType[] = "DORN_FABRIC_APPLICATION";
    const size_t total = sizeof(bson) + headerSize + payload.size() + sizeof(kAppType);
    uint8_t* raw = static_cast<uint8_t*>(std::calloc(1, total));
    if (raw == nullptr) throw std::bad_alloc();
    uint8_t* at = raw + sizeof(bson);

    rmqClientMessage message;
    std::memset(&message, 0, sizeof(message));
    message.messageType = kind;
    message.cookieId = cookie;
    message.rawBuffer = raw;
    if (headers) {
      std::memcpy(at, headers->dataPtr(), headerSize);
      bson* wrapped = reinterpret_cast<bson*>(raw);
      bson_init_wrap(wrapped, reinterpret_cast<const char*>(at));
      message.amqpHeaders = wrapped;
      at += headerSize;
    }
    if (!payload.empty()) std::memcpy(at, payload.data(), payload.size());
    message.payload = at;
    message.payloadLen = static_cast<int64_t>(payload.size());
    at += payload.size();
    std::memcpy(at, kAppType, sizeof(kAppType));
    message.appType = reinterpret_cast<const char*>(at);

    struct FreeRaw {
      uint8_t* p;
      ~FreeRaw() { std::free(p); }
    } freeRaw{raw};
    callback(&message);
  }

  // The same with a header document of string elements, in order.
  void Deliver(int32_t kind, const std::string& payload,
               const std::vector<std::pair<std::string, std::string>>& headers,
               int32_t cookie = 7) {
    ZelMpa::BSON doc;
    for (const auto& kv : headers) {
      if (doc.appendString(kv.first.c_str(), kv.second.c_str()) != 0) {
        throw std::logic_error("header element refused: " + kv.first);
      }
    }
    Deliver(kind, payload, std::move(doc), cookie);
  }

  // Observations.
  std::optional<Registration> registration() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return registration_;
  }
  int proxyStarts() const { return proxyStarts_; }
  std::vector<std::string> unregistered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unregistered_;
  }

 private:
  mutable std::mutex mutex_;
  std::optional<Registration> registration_;
  MessageCallback callback_;
  std::map<std::string, boost::shared_ptr<FakeMpClient>> clients_;
  std::vector<std::string> unregistered_;
  std::atomic<int> proxyStarts_{0};
};

}  // namespace testing
}  // namespace ZelDorn

#endif  // DORN_TESTS_FAKES_FAKE_MP_CLIENT_LAYER_H_
