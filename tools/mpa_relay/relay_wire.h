// Wire layer of mpa-relay, the stand-in for the local management-plane agent
// (MPA): frames, BSON documents read and written with libbson, the layout
// checks of what a client sends, and the damaged frames used in tests.
//
// The protocol is a stream of frames in both directions: four bytes of
// big-endian length N, then one BSON document of N bytes (whose own length
// field is little-endian and also N). The relay writes every document with
// libbson and reads every document into a plain tree (Document), so it checks
// the client's layout independently of the client's own codec.
//
// Everything here is plain functions and values; no threads, no sockets.
#ifndef ZEL_TOOLS_MPA_RELAY_RELAY_WIRE_H_
#define ZEL_TOOLS_MPA_RELAY_RELAY_WIRE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace mpa_relay {

// Message types of the local protocol (msg_type).
constexpr int64_t kRegistration = 1;
constexpr int64_t kRegistrationAck = 2;
constexpr int64_t kClientData = 3;
constexpr int64_t kClose = 5;
constexpr int64_t kRegistrationOther = 6;
constexpr int64_t kMpaData = 8;
constexpr int64_t kAnswerPlain = 10;  // answer without a reply-to
constexpr int64_t kAnswerReply = 11;  // answer to a reply-to, routed there

// BSON element types the protocol uses (and a few it must not).
constexpr int kBsonDouble = 0x01;
constexpr int kBsonString = 0x02;
constexpr int kBsonDocument = 0x03;
constexpr int kBsonBinary = 0x05;
constexpr int kBsonBool = 0x08;
constexpr int kBsonInt32 = 0x10;
constexpr int kBsonInt64 = 0x12;

// "string", "int64", ... or "type 0x07" for the rest.
std::string BsonTypeName(int type);

// One element of a decoded document. Only the member of its type is set.
struct Element {
  std::string key;
  int type = 0;
  int64_t integer = 0;      // int32, int64
  bool boolean = false;     // bool
  double number = 0;        // double
  std::string bytes;        // string (without the NUL), binary payload
  int subtype = -1;         // binary
  std::vector<Element> children;  // embedded document
};

struct Document {
  std::vector<Element> elements;

  // First element with this exact key, or null.
  const Element* Find(const std::string& key) const;
  // The value of a string element `key`, or nullopt when absent or not a string.
  std::optional<std::string> String(const std::string& key) const;
  std::optional<int64_t> Int64(const std::string& key) const;
};

// Decodes one finished BSON document of `size` bytes. On failure returns
// false with the reason in `error` (length fields, terminators, UTF-8 of keys).
bool DecodeDocument(const uint8_t* data, size_t size, Document* out, std::string* error);

// Four-byte big-endian length, then the document.
std::string Frame(const std::string& document);

// Splits a byte stream into frames. Feed() takes bytes as they arrive, in
// pieces of any size, and returns the documents completed by them.
class FrameReader {
 public:
  explicit FrameReader(size_t max_document = 16u << 20) : max_document_(max_document) {}
  // Appends `size` bytes. Returns the finished documents (without their
  // prefix). A length above the limit sets error() and stops reading.
  std::vector<std::string> Feed(const uint8_t* data, size_t size);
  // Bytes of an unfinished frame held back.
  size_t pending() const { return buffer_.size(); }
  const std::string& error() const { return error_; }

 private:
  size_t max_document_;
  std::string buffer_;
  std::string error_;
};

// Problems with the layout of a client's document, one text each; empty when
// the document is as the protocol wants it. The element order and types are
// part of the format.
std::vector<std::string> CheckRegistrationLayout(const Document& doc);
std::vector<std::string> CheckDataLayout(const Document& doc);

// What the relay sends.

// Registration acknowledgement (type 2) for a client of `app_type`; with
// `mp_version` the element "mp-version" = major << 32 | minor.
std::string EncodeAck(const std::string& app_type,
                      std::optional<std::pair<uint32_t, uint32_t>> mp_version);

// RMQ_CLIENT_CLOSE (type 5) for a client of `app_type`.
std::string EncodeClose(const std::string& app_type);

// A data message to the client.
struct DataMessage {
  int64_t msg_type = kMpaData;
  std::string app_type;
  std::string app_id = "zel";
  // Header elements (all strings); empty: no amqp_headers element.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string content_type = "application/protobuf";
  std::string routing_key;
  std::string payload;
};
std::string EncodeData(const DataMessage& message);

// Damaged or unusual frames for tests, each a whole frame (prefix included),
// for a client of `app_type`. `valid_payload` is a serialised request that
// the kinds carrying a payload use.
//   garbage       a frame whose document is not BSON
//   bad-length    the prefix and the document's own length disagree
//   wrong-types   every known key with an element type it must not have
//   not-dorn      a well-formed data message whose payload is no DornMessage
//   unknown-type  a data message with msg_type 4
//   unknown-keys  a data message with extra keys of every type; still answered
//   empty-doc     the smallest document: no elements at all
//   zero-length   a prefix of 0 and no document
//   half-frame    only the first half of a data message (the caller closes)
// Returns nullopt for an unknown kind.
std::optional<std::string> MalformedFrame(const std::string& kind, const std::string& app_type,
                                          const std::string& valid_payload);
// The kinds above, in that order.
const std::vector<std::string>& MalformedKinds();
// Whether the agent is expected to answer the request inside this kind.
bool MalformedKindIsAnswered(const std::string& kind);

// Text helpers shared by the printers.
bool IsCanonicalUuid(const std::string& text);
std::string JsonEscape(const std::string& text);

}  // namespace mpa_relay

#endif  // ZEL_TOOLS_MPA_RELAY_RELAY_WIRE_H_
