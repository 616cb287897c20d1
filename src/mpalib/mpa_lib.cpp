#include "mpalib/mpa_lib.h"

#include <string>
#include <utility>

#include "cpp/lib/common/logger.h"
#include "mpalib/bson_codec.h"
#include "mpalib/mpa_lib_client.h"
#include "mpalib/mpa_lib_exceptions.h"
#include "mpalib/mpa_lib_listener.h"
#include "mpalib/mpa_lib_registry.h"
#include "mpalib/mpa_lib_result.h"
#include "util/mpa_error_tags.h"

namespace ZelMpa {

namespace {
constexpr const char* kDefaultPort = "9002";
constexpr const char* kDefaultAddress = "127.0.0.1";
}  // namespace

MpaLib::MpaLib(bool bcMode, std::function<void()> onReady)
    : bcMode_(bcMode), onReady_(std::move(onReady)) {}

MpaLib::~MpaLib() { Stop(false); }

std::shared_ptr<MpaLibClient> MpaLib::CreateClient(const char* name, int type,
                                                   rmqClientCallback callback) {
  return std::make_shared<MpaLibClient>(name, type, callback);
}

bool MpaLib::IsStarted() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return listener_ && registry_;
}

bool MpaLib::IsHealthy() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return listener_ && registry_ && listener_->IsRunning();
}

void MpaLib::Start() {
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  if (listener_ && registry_) {
    MPALIB_LOG(zel::kLogInfo).format("%sLibrary already initialized, no-op\n", logPrefix_);
    return;
  }
  registry_ = std::make_shared<MpaLibRegistry>();
  listener_ = std::make_shared<MpaLibListener>(registry_, bcMode_);
  // The loop keeps its listener even if Stop() drops the library's pointer.
  std::shared_ptr<MpaLibListener> listener = listener_;
  if (bcMode_) lock.unlock();
  listener->Start(onReady_);
}

bool MpaLib::Stop(bool notify) {
  std::shared_ptr<MpaLibListener> listener;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!listener_ || !registry_) {
      MPALIB_LOG(zel::kLogInfo).format("%sMpaLib is already stopped", logPrefix_);
      return true;
    }
    listener = listener_;
  }
  // Not under the library's lock: callbacks still running on the listener
  // thread may need it to finish.
  if (!listener->Stop(notify)) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA137)
        .format("%sMpaLib Listener thread failed to join", logPrefix_);
    return false;
  }
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (listener_ == listener) {
    listener_.reset();
    registry_.reset();
  }
  MPALIB_LOG(zel::kLogInfo).format("%sMpaLib has been stopped\n", logPrefix_);
  return true;
}

int MpaLib::Init(const char* name, int type, const bson* headers,
                 rmqClientCallback callback, const rmqClientEndpoint* endpoint) {
  std::string port = kDefaultPort;
  std::string address = kDefaultAddress;
  if (type != 1) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA129)
        .format("%sInvalid client type: %d\n", logPrefix_, type);
    return kMpaUnsupported;
  }
  if (endpoint != nullptr) {
    if (endpoint->address != nullptr) address = endpoint->address;
    if (endpoint->port == 0 || endpoint->port == 1 || endpoint->port == 65535) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA2)
          .format("%sUnable to initialize client with invalid port: %d", logPrefix_,
                  endpoint->port);
      return kMpaInvalidArgument;
    }
    port = std::to_string(endpoint->port);
    MPALIB_LOG(zel::kLogInfo).format("%sCustom port: %d", logPrefix_, endpoint->port);
  }

  try {
    std::shared_ptr<MpaLibClient> client = CreateClient(name, 1, callback);
    if (!client) return kMpaNoClient;
    if (!IsHealthy()) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA141)
          .format("%sUnable to create client; library not initialized\n", logPrefix_);
      return kMpaNotStarted;
    }
    // Connecting and registering happen without the library's lock: a
    // registration may wait for room in the socket.
    int cookie = -1;
    int rc = client->Init(address.c_str(), port.c_str(), headers, &cookie);
    if (rc < 0) {
      if (rc == kMpaSocketError) {
        MPALIB_LOG(zel::kLogDebug)
            .format("%sError creating client, returned error code %d\n", logPrefix_, rc);
      } else {
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA101)
            .format("%sCreating client returned error code %d\n", logPrefix_, rc);
      }
      return rc;
    }
    {
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      if (!IsHealthy()) {
        // Stopped while this client was connecting.
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA141)
            .format("%sUnable to create client; library not initialized\n", logPrefix_);
        client->Close(false);
        return kMpaNotStarted;
      }
      rc = registry_->Add(cookie, client);
    }
    if (rc < 0) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA139)
          .format("%sClient with same socket fd exists in registry\n", logPrefix_);
      return kMpaDuplicateClient;
    }
    MPALIB_LOG(zel::kLogInfo)
        .format("%s MpaLibClient initialized with cookie id %d\n", logPrefix_, cookie);
    return cookie;
  } catch (const RegistrySizeError& e) {
    // The refused client's socket closes with the client.
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPAERR_RMQCLIENTLIB_NUM_CLIENTS_EXCEEDED)
        .format("%s%s", logPrefix_, e.what());
    return kMpaTooManyClients;
  } catch (const MpaException& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%s%s", logPrefix_, e.what());
    return kMpaLibraryException;
  }
}

int MpaLib::Send(const rmqClientMessage* message, char* messageIdOut) {
  if (message == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA125)
        .format("%sFailed to send null message", logPrefix_);
    return kMpaNoData;
  }
  if (message->payload != nullptr && message->payloadLen < 0) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA125)
        .format("%sFailed to send message with invalid payload", logPrefix_);
    return kMpaInvalidPayload;
  }
  if (message->cookieId < 0) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA125)
        .format("%sFailed to send message with invalid cookie Id %d", logPrefix_,
                message->cookieId);
    return kMpaInvalidCookie;
  }
  const bson* headers = message->amqpHeaders;
  if (headers != nullptr && (!headers->finished || headers->err != 0)) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA125)
        .format("%sFailed to send message with unfinished or invalid headers", logPrefix_);
    return kMpaBadDocument;
  }

  std::shared_ptr<MpaLibClient> client;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!IsHealthy()) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA141)
          .format("%sUnable to send message; library not started\n", logPrefix_);
      return kMpaNotStarted;
    }
    client = registry_->Get(message->cookieId);
  }
  if (!client) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA142)
        .format("%sCould not find client with cookieId %d", logPrefix_, message->cookieId);
    return kMpaSocketError;
  }
  const int rc = client->Send(message, client->GetSessionId().c_str(), messageIdOut);
  if (rc < 0) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA125)
        .format("%sClient returned error code %d when sending message\n", logPrefix_, rc);
    // The application hears of it through a RMQ_CLIENT_CLOSE record.
    CloseClient(message->cookieId, true);
  }
  return rc;
}

int MpaLib::CloseClient(int cookie, bool notify) {
  std::shared_ptr<MpaLibRegistry> registry;
  {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!IsHealthy()) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA141)
          .format("%sFailed to close client; MpaLib not fully initialized/unhealthy",
                  logPrefix_);
      return kMpaNotStarted;
    }
    registry = registry_;
  }
  const int rc = registry->Remove(cookie, notify);
  MPALIB_LOG(zel::kLogInfo).format("%sClient %d closed", logPrefix_, cookie);
  return rc;
}

}  // namespace ZelMpa
