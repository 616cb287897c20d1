#include "mpalib/mpa_lib_client.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "cpp/lib/common/logger.h"
#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"
#include "mpalib/mpa_lib_result.h"
#include "util/SocketObject.h"
#include "util/mpa_error_tags.h"

namespace ZelMpa {

namespace {

constexpr size_t kChunkSize = 2000;
constexpr const char* kNoSession = "no-session";
constexpr const char* kNoSequence = "no-seq";
constexpr unsigned kDefaultSendRetryLimit = 23999;

std::atomic<unsigned> g_sendRetryLimit{kDefaultSendRetryLimit};

// Numbers every message of every client ("amqp-message-id").
std::mutex g_messageIdMutex;
uint64_t g_messageId = 0;

std::string NextMessageId() {
  std::lock_guard<std::mutex> lock(g_messageIdMutex);
  return std::to_string(++g_messageId);
}

struct FreeDeleter {
  void operator()(uint8_t* p) const { std::free(p); }
};
using MallocBuffer = std::unique_ptr<uint8_t, FreeDeleter>;

// A message buffer holds the document, then (aligned) room for the `bson`
// record that wraps its headers, so that one free() releases both.
size_t HeadersOffset(size_t documentLength) {
  return (documentLength + alignof(bson) - 1) / alignof(bson) * alignof(bson);
}
constexpr uint32_t kMaxDocumentLength =
    static_cast<uint32_t>(INT32_MAX) - sizeof(bson) - alignof(bson);

uint32_t ReadBigEndian32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

// Writes "<session>:<sequence>" into the caller's buffer on every way out of
// Send, whatever was reached.
class MessageIdWriter {
 public:
  MessageIdWriter(char* out, const char* session) : out_(out), session_(session) {}
  ~MessageIdWriter() {
    if (out_ == nullptr) return;
    std::memset(out_, 0, kMpaMessageIdSize);
    const char* session = (session_ != nullptr && *session_ != '\0') ? session_ : kNoSession;
    const char* sequence = sequence_.empty() ? kNoSequence : sequence_.c_str();
    std::snprintf(out_, kMpaMessageIdSize, "%s:%s", session, sequence);
  }
  MessageIdWriter(const MessageIdWriter&) = delete;
  MessageIdWriter& operator=(const MessageIdWriter&) = delete;

  void SetSequence(const std::string& sequence) { sequence_ = sequence; }

 private:
  char* out_;
  const char* session_;
  std::string sequence_;
};

}  // namespace

void MpaLibClient::SetSendRetryLimitForTest(unsigned limit) {
  g_sendRetryLimit = limit;
}

MpaLibClient::MpaLibClient(const char* appType, int connectionType,
                           rmqClientCallback callback)
    : connectionType_(connectionType),
      callback_(callback),
      appType_(appType != nullptr ? appType : ""),
      sessionId_(kNoSession) {}

MpaLibClient::~MpaLibClient() { ResetAssembler_(true); }

std::string MpaLibClient::NewSessionId_() {
  std::lock_guard<std::mutex> lock(idMutex_);
  boost::uuids::random_generator generator;
  return boost::uuids::to_string(generator());
}

void MpaLibClient::CreateSocket() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  socket_ = std::make_shared<Socket>();
}

int MpaLibClient::GetCookieId() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (!socket_) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA132)
        .format("%s Bad socket for app: %s", logPrefix_, appType_.c_str());
    return -1;
  }
  return socket_->GetDescriptor();
}

int MpaLibClient::GetSocketDescriptor() {
  if (!socket_) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA132)
        .format("%sSocket missing for app: %s", logPrefix_, appType_.c_str());
    return -1;
  }
  return socket_->GetDescriptor();
}

std::string MpaLibClient::GetSessionId() {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return sessionId_;
}

int MpaLibClient::Init(const char* ip, const char* port, const bson* headers,
                       int* cookieOut) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (cookieOut != nullptr) *cookieOut = -1;
  if (ip == nullptr || port == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA2)
        .format("%sUnable to initialize client with null IP or port", logPrefix_);
    return kMpaInvalidArgument;
  }
  switch (connectionType_) {
    case 1:
    case 3:
      break;
    case 2:
    case 4:
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA122)
          .format("%sHCOM is not supported in this release", logPrefix_);
      return kMpaFailure;
    default:
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA129)
          .format("%sInvalid client connection type specified %d\n", logPrefix_,
                  connectionType_);
      return kMpaUnsupported;
  }

  CreateSocket();
  sessionId_ = kNoSession;

  int rc = 0;
  try {
    socket_->Connect(ip, port, true, true);
  } catch (const SocketException& e) {
    // The MPA not listening yet is the normal case while the agent retries.
    MPALIB_LOG(zel::kLogDebug)
        .format("%sSocket exception while connecting client (%s) to MPA: %s.\n",
                logPrefix_, appType_.c_str(), e.what());
    rc = kMpaSocketError;
  }

  if (rc == 0) {
    try {
      rc = SendRegistration(headers);
      if (rc < 0) {
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA125)
            .format("%sFailed to send client registration message to MP", logPrefix_);
      } else {
        rc = 0;
        const int cookie = GetCookieId();
        if (cookieOut != nullptr) *cookieOut = cookie;
        sessionId_ = NewSessionId_();
        MPALIB_LOG(zel::kLogInfo)
            .format("%sGot cookie id (%d) for client(%s). session: %s", logPrefix_,
                    cookie, appType_.c_str(), sessionId_.c_str());
        socket_->SetNonBlocking();
      }
    } catch (const SocketException& e) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA101)
          .format("%sSocket Exception while sending Host registration for client "
                  "(%s): %s\n",
                  logPrefix_, appType_.c_str(), e.what());
      rc = kMpaSocketError;
    } catch (BsonException* raw) {
      std::unique_ptr<BsonException> e(raw);
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA101)
          .format("%sBSON Exception while sending Host registration for client "
                  "(%s): %s\n",
                  logPrefix_, appType_.c_str(), e->what());
      rc = kMpaBadDocument;
    }
  }

  if (rc < 0) {
    sessionId_ = kNoSession;
    if (rc != kMpaSocketError) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA101)
          .format("%s: Couldn't get a valid cookie id: err[%d]", logPrefix_, rc);
    }
    Close(false);
    if (cookieOut != nullptr) *cookieOut = -1;
  }
  return rc;
}

int MpaLibClient::SendRegistration(const bson* headers) {
  BSON doc;
  const int32_t type = (connectionType_ == 1 || connectionType_ == 2)
                           ? RMQ_CLIENT_REGISTRATION
                           : RMQ_CLIENT_REGISTRATION_OTHER;
  if (doc.appendLong("msg_type", type) != 0) {
    throw new BsonException("BSON exception while appending message type.");
  }
  if (doc.appendString("app_type", appType_.c_str()) != 0) {
    throw new BsonException("BSON exception while appending apptype.");
  }
  if (doc.appendString("app_id", "zel") != 0) {
    throw new BsonException("BSON exception while appending app id.");
  }
  if (headers != nullptr && doc.appendRaw("amqp_headers", headers) != 0) {
    throw new BsonException("BSON exception while appending custom headers.");
  }
  const std::string sequence = NextMessageId();
  if (doc.appendString("amqp-message-id", sequence.c_str()) != 0 ||
      doc.appendString("session-id", GetSessionId().c_str()) != 0) {
    throw new BsonException("BSON exception while appending seq Id.");
  }
  doc.finish();
  return SendDocument_(doc);
}

int MpaLibClient::Send(const rmqClientMessage* message, const char* sessionId,
                       char* messageIdOut) {
  MessageIdWriter messageId(messageIdOut, sessionId);
  if (message == nullptr) return kMpaInvalidArgument;

  auto appendFailed = [this](const char* tag, const char* what, int rc) {
    MPALIB_LOG(zel::kLogError).addTag(tag).format("%s%s", logPrefix_, what);
    return rc;
  };

  try {
    BSON doc;
    int rc = doc.appendLong("msg_type", message->messageType);
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson messageType", rc);
    }
    rc = doc.appendString("app_type", appType_.c_str());
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson appName", rc);
    }
    // Data messages carry app_id as the boolean true; registrations carry a
    // string. The MPA expects exactly this.
    rc = doc.appendBool("app_id", true);
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson appID", rc);
    }
    if (message->amqpHeaders != nullptr) {
      rc = doc.appendRaw("amqp_headers", message->amqpHeaders);
      if (rc != 0) {
        return appendFailed(tag::MPA1501, "Failed in appending bson amqpHeaders", rc);
      }
    }
    if (message->amqpContentType == nullptr) {
      return appendFailed(tag::MPA125, "amqpContentType is not specified", kMpaFailure);
    }
    rc = doc.appendString("content_type", message->amqpContentType);
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson amqpContentType", rc);
    }
    if (message->amqpRoutingKey == nullptr) {
      return appendFailed(tag::MPA125, "amqpRoutingKey is not specified", kMpaFailure);
    }
    rc = doc.appendString("amqp_routing_key", message->amqpRoutingKey);
    if (rc != 0) {
      return appendFailed(tag::MPA108, "Failed in appending bson amqpRoutingKey", rc);
    }
    if (message->payload != nullptr && message->payloadLen > 0) {
      // A BSON binary cannot hold more than an int32 length.
      rc = message->payloadLen > INT32_MAX
               ? -1
               : doc.appendBinary("amqp_payload", message->payload,
                                  static_cast<int32_t>(message->payloadLen));
      if (rc != 0) {
        return appendFailed(tag::MPA1501, "Failed in appending bson amqpPayload", rc);
      }
      rc = doc.appendLong("payload_len", message->payloadLen);
      if (rc != 0) {
        return appendFailed(tag::MPA1501, "Failed in appending bson amqpPayloadLen", rc);
      }
    }
    const std::string sequence = NextMessageId();
    messageId.SetSequence(sequence);
    rc = doc.appendString("amqp-message-id", sequence.c_str());
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson sequence id", rc);
    }
    rc = doc.appendString("session-id", (sessionId != nullptr && *sessionId != '\0')
                                            ? sessionId
                                            : kNoSession);
    if (rc != 0) {
      return appendFailed(tag::MPA1501, "Failed in appending bson session id", rc);
    }
    doc.finish();
    return SendDocument_(doc);
  } catch (const SocketException& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA122)
        .format("%sSocket Send exception for client (%s): %s\n", logPrefix_,
                appType_.c_str(), e.what());
    return kMpaSendFailed;
  } catch (const std::bad_alloc&) {
    return kMpaOutOfMemory;
  }
}

int MpaLibClient::SendDocument_(const BSON& doc) {
  const uint8_t* data = doc.dataPtr();
  if (data == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA1506)
        .format("%sNo BSON data to send", logPrefix_);
    return kMpaNoData;
  }
  if (!doc.isFinished()) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA1506)
        .format("%sBSON Object is not finished", logPrefix_);
    return kMpaBadDocument;
  }
  const int len = doc.size();
  if (len < 1) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA1506)
        .format("%sInvalid Len of BSON Object %d\n", logPrefix_, len);
    return kMpaInvalidLength;
  }
  const size_t total = static_cast<size_t>(len) + 4;
  MallocBuffer frame(static_cast<uint8_t*>(std::malloc(total)));
  if (!frame) return kMpaOutOfMemory;
  uint8_t* p = frame.get();
  p[0] = static_cast<uint8_t>(static_cast<uint32_t>(len) >> 24);
  p[1] = static_cast<uint8_t>(static_cast<uint32_t>(len) >> 16);
  p[2] = static_cast<uint8_t>(static_cast<uint32_t>(len) >> 8);
  p[3] = static_cast<uint8_t>(static_cast<uint32_t>(len));
  std::memcpy(p + 4, data, static_cast<size_t>(len));

  std::unique_lock<std::recursive_mutex> lock(mutex_);
  size_t offset = 0;
  unsigned retries = 0;
  try {
    while (offset < total) {
      size_t sent = 0;
      int err = EBADF;
      if (socket_) {
        errno = 0;
        sent = socket_->Send(p + offset, total - offset);
        err = errno;
      }
      if (sent > 0) {
        offset += sent;
        retries = 0;
        continue;
      }
      if (err != EAGAIN && err != EWOULDBLOCK && err != ENOBUFS) {
        lock.unlock();
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA125)
            .format("%sError Sending Data for AppName %s Status %d\n", logPrefix_,
                    appType_.c_str(), err);
        return kMpaSendFailed;
      }
      if (retries > g_sendRetryLimit.load()) {
        MPALIB_LOG(zel::kLogInfo)
            .format("%sSend returned %d Err No %d, While Sending Len %d after %u tries\n",
                    logPrefix_, static_cast<int>(sent), err, static_cast<int>(total),
                    retries);
        MPALIB_LOG(zel::kLogInfo)
            .format("%sRestarting :: problem while sending data from app to MPA.",
                    logPrefix_);
        // The MPA has not taken a byte for about ten minutes. Ending the
        // process lets its supervisor start it afresh with a new connection.
        std::exit(0);
      }
      ++retries;
      // Back off up to 25 ms, still holding the client mutex: the frame must
      // go out whole before anything else is written on this socket.
      usleep(std::min(retries, 100u) * 250);
    }
  } catch (const SocketException& e) {
    lock.unlock();
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%sSocketException: While Sending  %s\n", logPrefix_, e.what());
    throw;
  }
  return 0;
}

int MpaLibClient::Receive() {
  uint8_t chunk[kChunkSize];
  std::memset(chunk, 0, sizeof chunk);
  int descriptor = -1;
  try {
    size_t received = 0;
    {
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      if (!socket_) {
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA132)
            .format("%sSocket missing for app: %s", logPrefix_, appType_.c_str());
        return kMpaFailure;
      }
      descriptor = socket_->GetDescriptor();
      received = socket_->Recv(chunk, sizeof chunk);
    }
    if (received == 0) {
      MPALIB_LOG(zel::kLogError)
          .addTag(tag::MPA131)
          .format("%sSocket returned %zu bytes read", logPrefix_, received);
      return kMpaNothingRead;
    }
    const std::vector<int> statuses = AssembleChunk_(chunk, received);
    int rc = 0;
    for (size_t i = 0; i < statuses.size(); ++i) {
      if (statuses[i] < 0) {
        MPALIB_LOG(zel::kLogError)
            .addTag(tag::MPA131)
            .format("%sReturned error code %d when receiving message - chunk index: %u\n",
                    logPrefix_, statuses[i], static_cast<unsigned>(i));
        rc = kMpaFailure;
      }
    }
    return rc;
  } catch (const SocketException& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA122)
        .format("%sSocket Exception while processing recvall on socket %d, for "
                "AppName %s: Reason %s\n",
                logPrefix_, descriptor, appType_.c_str(), e.what());
    return kMpaFailure;
  }
}

void MpaLibClient::ResetAssembler_(bool free) {
  if (free) std::free(msgBuf_);
  msgBuf_ = nullptr;
  bytesRead_ = 0;
  bytesToRead_ = 0;
  partialLen_ = 0;
}

int MpaLibClient::StartMessage_(uint32_t length) {
  ResetAssembler_(true);
  if (length > kMaxDocumentLength) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA131)
        .format("%sInvalid message length %u from MPA for client %s", logPrefix_,
                length, appType_.c_str());
    return kMpaInvalidLength;
  }
  msgBuf_ = static_cast<uint8_t*>(std::malloc(HeadersOffset(length) + sizeof(bson)));
  if (msgBuf_ == nullptr) return kMpaOutOfMemory;
  bytesToRead_ = static_cast<int32_t>(length);
  bytesRead_ = 0;
  return 0;
}

// A frame may end, and the next begin, at any byte of any read; the state
// kept between calls is the message being filled and the bytes of a length
// prefix that a read cut short.
std::vector<int> MpaLibClient::AssembleChunk_(const uint8_t* chunk, size_t len) {
  std::vector<int> statuses;
  size_t pos = 0;
  while (pos != len) {
    if (bytesToRead_ == 0 && msgBuf_ == nullptr) {
      if (partialLen_ == 0) {
        // Exactly four bytes left are kept as a cut prefix as well; the
        // message starts with the next read.
        if (len - pos > 4) {
          const int rc = StartMessage_(ReadBigEndian32(chunk + pos));
          pos += 4;
          if (rc != 0) {
            statuses.push_back(rc);
            break;
          }
        } else {
          partialLen_ = static_cast<int32_t>(len - pos);
          std::memcpy(partialBuf_, chunk + pos, len - pos);
          pos = len;
          break;
        }
      } else {
        const size_t have = static_cast<size_t>(partialLen_);
        if (len - pos + have < 5) {
          std::memcpy(partialBuf_ + have, chunk + pos, len - pos);
          partialLen_ += static_cast<int32_t>(len - pos);
          pos = len;
          break;
        }
        uint8_t prefix[4];
        std::memcpy(prefix, partialBuf_, have);
        std::memcpy(prefix + have, chunk + pos, 4 - have);
        pos += 4 - have;
        partialLen_ = 0;
        const int rc = StartMessage_(ReadBigEndian32(prefix));
        if (rc != 0) {
          statuses.push_back(rc);
          break;
        }
      }
    }
    if (pos == len) {
      statuses.push_back(0);
      break;
    }
    const size_t remaining = len - pos;
    const size_t missing = static_cast<size_t>(bytesToRead_ - bytesRead_);
    if (remaining <= missing) {
      std::memcpy(msgBuf_ + bytesRead_, chunk + pos, remaining);
      bytesRead_ += static_cast<int32_t>(remaining);
      pos = len;
      // A frame that ends the chunk is delivered; its status is not pushed.
      if (bytesRead_ == bytesToRead_) Deliver_();
      break;
    }
    std::memcpy(msgBuf_ + bytesRead_, chunk + pos, missing);
    bytesRead_ += static_cast<int32_t>(missing);
    pos += missing;
    statuses.push_back(Deliver_());
  }
  return statuses;
}

int MpaLibClient::Deliver_() {
  if (msgBuf_ == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA131)
        .format("%sNo message received for callback", logPrefix_);
    return kMpaFailure;
  }
  // From here the assembler is ready for the next frame; the buffer is ours
  // until it is handed to the callback.
  MallocBuffer document(msgBuf_);
  const size_t length = static_cast<size_t>(bytesToRead_);
  ResetAssembler_(false);

  if (callback_ == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA130)
        .format("%sNo function callback found for client:%s", logPrefix_,
                appType_.c_str());
    return kMpaNoCallback;
  }
  rmqClientMessage message;
  std::memset(&message, 0, sizeof message);
  // A BsonException thrown here frees the document on its way out. A frame
  // that cannot be read safely is dropped alone: the frames around it are
  // whole, so the stream stays in step and the connection stays up.
  if (!FillRecord_(document.get(), length, &message)) return kMpaOk;
  message.cookieId = GetCookieId();
  message.rawBuffer = document.release();
  callback_(&message);
  return 0;
}

bool MpaLibClient::FillRecord_(uint8_t* doc, size_t len, rmqClientMessage* m) {
  // The document's own length field is not read: the frame's length rules,
  // and the elements end at the first terminator.
  BsonIterator it = BsonIterator::OverFrame(doc, len);
  bson* headers = reinterpret_cast<bson*>(doc + HeadersOffset(len));
  size_t binaryLen = 0;

  auto getString = [&it](const char*& value) {
    const char* key;
    if (it.getString(key, value) != 0) {
      throw new BsonException("MpaLibClient: Getting string value from BSON failed.");
    }
  };
  auto getLong = [&it]() {
    const char* key;
    int64_t value = 0;
    if (it.getLong(key, value) != 0) {
      throw new BsonException("MpaLibClient: Getting long value from BSON failed.");
    }
    return value;
  };

  for (BsonIterator::Type type = it.next(); type != BsonIterator::END; type = it.next()) {
    const char* key = it.key();
    if (std::strcmp(key, "msg_type") == 0) {
      m->messageType = static_cast<int32_t>(getLong());
    } else if (std::strcmp(key, "app_type") == 0) {
      getString(m->appType);
    } else if (std::strcmp(key, "app_id") == 0) {
      getString(m->appId);
    } else if (std::strcmp(key, "mp-version") == 0) {
      const uint64_t version = static_cast<uint64_t>(getLong());
      m->mpMajorVersion = static_cast<int32_t>(version >> 32);
      m->mpMinorVersion = static_cast<int32_t>(version & 0xffffffffu);
    } else if (std::strcmp(key, "amqp_headers") == 0) {
      const char* k;
      if (it.getRaw(k, headers) != 0) {
        throw new BsonException("MpaLibClient: Getting BSON value from BSON failed.");
      }
      m->amqpHeaders = headers;
    } else if (std::strcmp(key, "amqp_routing_key") == 0) {
      getString(m->amqpRoutingKey);
    } else if (std::strcmp(key, "content_type") == 0) {
      getString(m->amqpContentType);
    } else if (std::strcmp(key, "payload_len") == 0) {
      m->payloadLen = getLong();
    } else if (std::strcmp(key, "amqp_payload") == 0) {
      const char* k;
      const uint8_t* data = nullptr;
      if (it.getBinary(k, data, binaryLen) != 0) {
        throw new BsonException("MpaLibClient: Getting Binary value from BSON failed.");
      }
      m->payload = data;
    } else if (std::strcmp(key, "amqp_correlationId") == 0 ||
               std::strcmp(key, "amqp_replyTo") == 0) {
      // Read from amqp_headers by the application.
      const char* ignored;
      getString(ignored);
    } else {
      const char* k;
      switch (type) {
        case BsonIterator::STRING: {
          const char* value = "";
          it.getString(k, value);
          MPALIB_LOG(zel::kLogWarn)
              .format("%sUnsupported string key:%s and value:%s in BSON, ignoring",
                      logPrefix_, key, value);
          break;
        }
        case BsonIterator::LONG: {
          int64_t value = 0;
          it.getLong(k, value);
          MPALIB_LOG(zel::kLogWarn)
              .format("%sUnsupported long Key %s and value %ld in BSON, ignoring.\n",
                      logPrefix_, key, static_cast<long>(value));
          break;
        }
        case BsonIterator::OBJECT:
          MPALIB_LOG(zel::kLogError)
              .addTag(tag::MPA108)
              .format("%sUnsupported Key %s of type BSON, ignoring.\n", logPrefix_, key);
          break;
        case BsonIterator::BINARY: {
          const uint8_t* data = nullptr;
          size_t size = 0;
          it.getBinary(k, data, size);
          MPALIB_LOG(zel::kLogError)
              .addTag(tag::MPA108)
              .format("%sUnexpected Key = %s of Raw type and len %zu.\n", logPrefix_,
                      key, size);
          break;
        }
        default:
          MPALIB_LOG(zel::kLogWarn)
              .format("%sNonsupported type %d", logPrefix_, static_cast<int>(type));
          break;
      }
    }
  }
  if (it.isCorrupt()) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA131)
        .format("%sDropped a frame of %zu bytes from MPA for client %s: its elements run "
                "past its end",
                logPrefix_, len, appType_.c_str());
    return false;
  }
  // payload_len is delivered as the MPA sent it (0 when absent), except that
  // the application, which reads payloadLen bytes at payload, is never sent
  // to bytes that are not there.
  const size_t available = m->payload != nullptr ? binaryLen : 0;
  if (m->payloadLen > 0 && static_cast<uint64_t>(m->payloadLen) > available) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA131)
        .format("%sDropped a frame from MPA for client %s: payload_len %ld exceeds the %zu "
                "payload bytes",
                logPrefix_, appType_.c_str(), static_cast<long>(m->payloadLen), available);
    return false;
  }
  return true;
}

int MpaLibClient::Close(bool notify) {
  const int cookie = GetCookieId();
  std::unique_lock<std::recursive_mutex> lock(mutex_);
  sessionId_ = kNoSession;
  if (!socket_) {
    MPALIB_LOG(zel::kLogInfo)
        .format("%sSocket of client (%s) is not open or is already closed.\n",
                logPrefix_, appType_.c_str());
    return 0;
  }
  int result = 0;
  try {
    socket_->Close();
  } catch (const SocketException& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA101)
        .format("%sSocket Close Exception for client(%s): %s.\n", logPrefix_,
                appType_.c_str(), e.what());
    result = kMpaFailure;
  }
  // The closed socket stays (descriptor -1): later calls fail on it as
  // socket errors, and GetCookieId() answers -1.
  lock.unlock();

  if (!notify) {
    MPALIB_LOG(zel::kLogInfo)
        .format("%sClient triggered close, not sending RMQ_CLIENT_CLOSE msg", logPrefix_);
    return result;
  }
  if (callback_ == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(tag::MPA130)
        .format("%sInvalid callback for client(%s) ", logPrefix_, appType_.c_str());
    return kMpaNoCallback;
  }
  MPALIB_LOG(zel::kLogInfo)
      .format("%sSending RMQ_CLIENT_CLOSE msg for client(%s) with cookie(%d)", logPrefix_,
              appType_.c_str(), cookie);
  // Nothing arrived on the wire: the close travels to the application as if it
  // were a message, in a block the application frees like any other.
  char* appType = strdup(appType_.c_str());
  if (appType == nullptr) return kMpaOutOfMemory;
  rmqClientMessage message;
  std::memset(&message, 0, sizeof message);
  message.messageType = RMQ_CLIENT_CLOSE;
  message.appType = appType;
  message.appId = "zel";
  message.cookieId = cookie;
  message.rawBuffer = reinterpret_cast<uint8_t*>(appType);
  callback_(&message);
  return result;
}

}  // namespace ZelMpa
