// The message record that crosses the seam between the MPA library and the
// application, on both roads to the management plane, with the callback and
// endpoint types of the library's entry points (net_api.h).
//
// Ownership.
// - Inbound (library to callback): the record lives on the library's stack
//   for the duration of the callback. `rawBuffer` is one heap block that holds
//   every text, the headers and the payload the record points to; the
//   callback owns it and releases it with free(). Nothing else is freed.
//   `amqpHeaders`, when set, is a finished read-only `bson` record that wraps
//   the embedded document in place; it lives inside `rawBuffer` too and must
//   not be passed to bson_destroy.
// - Outbound (application to NETSend): the caller owns everything; the
//   library copies what it needs before returning. `amqpHeaders` must then be
//   a finished `bson` record without error flags.
#ifndef ZEL_MPALIB_RMQ_CLIENT_MESSAGE_H_
#define ZEL_MPALIB_RMQ_CLIENT_MESSAGE_H_

#include <cstdint>

struct bson;

// Values of rmqClientMessage::messageType.
constexpr int32_t RMQ_CLIENT_REGISTRATION = 1;      // to the MPA, connection types 1, 2
constexpr int32_t RMQ_CLIENT_REGISTRATION_ACK = 2;  // from the MPA
constexpr int32_t RMQ_CLIENT_DATA_MESSAGE = 3;      // data, both ways
constexpr int32_t RMQ_CLIENT_CLOSE = 5;             // made by the library on a close
constexpr int32_t RMQ_CLIENT_REGISTRATION_OTHER = 6;  // registration of other connection types
constexpr int32_t RMQ_CLIENT_MPA_DATA_MESSAGE = 8;  // data, from the MPA

// Plain data; zero it before use.
struct rmqClientMessage {
  int32_t messageType;
  const char* appType;
  const char* appId;
  int32_t cookieId;         // cookie of the connection (its socket descriptor)
  int32_t mpMajorVersion;   // high half of "mp-version"
  int32_t mpMinorVersion;   // low half of "mp-version"
  bson* amqpHeaders;        // headers document, or null
  const char* amqpRoutingKey;
  const char* amqpContentType;
  int64_t payloadLen;
  const uint8_t* payload;
  uint8_t* rawBuffer;       // inbound: the block that holds all of the above
};

// The application's handler. Runs on the library's event-loop thread, which
// it holds up for every other client while it runs.
typedef void (*rmqClientCallback)(rmqClientMessage* message);

// Where NETRegister connects. A null `address` means "127.0.0.1"; the ports
// 0, 1 and 65535 are refused.
struct rmqClientEndpoint {
  uint16_t port;
  const char* address;
};

#endif  // ZEL_MPALIB_RMQ_CLIENT_MESSAGE_H_
