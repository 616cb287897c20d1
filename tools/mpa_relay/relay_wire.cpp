#include "mpa_relay/relay_wire.h"

#include <cstdio>
#include <cstring>

#include <bson/bson.h>

namespace mpa_relay {
namespace {

// Owns one heap document of libbson. (bson_t carries an alignment attribute
// that std::unique_ptr's template argument would drop.)
class BsonPtr {
 public:
  BsonPtr() : b_(bson_new()) {}
  BsonPtr(const BsonPtr&) = delete;
  BsonPtr& operator=(const BsonPtr&) = delete;
  ~BsonPtr() { bson_destroy(b_); }
  bson_t* get() const { return b_; }

 private:
  bson_t* b_;
};

std::string Bytes(const bson_t* b) {
  return std::string(reinterpret_cast<const char*>(bson_get_data(b)), b->len);
}

void AppendString(bson_t* b, const char* key, const std::string& value) {
  bson_append_utf8(b, key, -1, value.data(), static_cast<int>(value.size()));
}

void AppendHeaders(bson_t* b, const std::vector<std::pair<std::string, std::string>>& headers) {
  if (headers.empty()) return;
  bson_t child;
  bson_append_document_begin(b, "amqp_headers", -1, &child);
  for (const auto& [key, value] : headers) AppendString(&child, key.c_str(), value);
  bson_append_document_end(b, &child);
}

void AppendPayload(bson_t* b, const std::string& payload) {
  bson_append_binary(b, "amqp_payload", -1, BSON_SUBTYPE_BINARY,
                     reinterpret_cast<const uint8_t*>(payload.data()),
                     static_cast<uint32_t>(payload.size()));
  bson_append_int64(b, "payload_len", -1, static_cast<int64_t>(payload.size()));
}

bool DecodeInto(const bson_t* b, std::vector<Element>* out, std::string* error) {
  bson_iter_t it;
  if (!bson_iter_init(&it, b)) {
    *error = "document cannot be walked";
    return false;
  }
  while (bson_iter_next(&it)) {
    Element e;
    e.key = bson_iter_key(&it);
    e.type = bson_iter_type(&it);
    switch (e.type) {
      case kBsonString: {
        uint32_t len = 0;
        const char* s = bson_iter_utf8(&it, &len);
        e.bytes.assign(s, len);
        break;
      }
      case kBsonInt64:
        e.integer = bson_iter_int64(&it);
        break;
      case kBsonInt32:
        e.integer = bson_iter_int32(&it);
        break;
      case kBsonBool:
        e.boolean = bson_iter_bool(&it);
        break;
      case kBsonDouble:
        e.number = bson_iter_double(&it);
        break;
      case kBsonBinary: {
        bson_subtype_t subtype;
        uint32_t len = 0;
        const uint8_t* data = nullptr;
        bson_iter_binary(&it, &subtype, &len, &data);
        e.subtype = subtype;
        e.bytes.assign(reinterpret_cast<const char*>(data), len);
        break;
      }
      case kBsonDocument: {
        uint32_t len = 0;
        const uint8_t* data = nullptr;
        bson_iter_document(&it, &len, &data);
        bson_t child;
        if (!bson_init_static(&child, data, len) || !DecodeInto(&child, &e.children, error)) {
          if (error->empty()) *error = "embedded document \"" + e.key + "\" is damaged";
          return false;
        }
        break;
      }
      default:
        break;
    }
    out->push_back(std::move(e));
  }
  if (it.err_off != 0) {
    *error = "damaged element at offset " + std::to_string(it.err_off);
    return false;
  }
  return true;
}

bool IsDecimal(const std::string& text) {
  if (text.empty() || text.size() > 20) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return text.size() == 1 || text[0] != '0';
}

std::string Join(const std::vector<std::string>& parts) {
  std::string out;
  for (const auto& p : parts) {
    if (!out.empty()) out += ", ";
    out += p;
  }
  return out;
}

// One expected element: key, type, and an optional check of its value that
// returns a problem text or "".
struct Expect {
  const char* key;
  int type;
  std::string (*check)(const Element&);
};

std::vector<std::string> CheckLayout(const Document& doc, const std::vector<Expect>& expected) {
  std::vector<std::string> problems;
  std::vector<std::string> got_keys;
  std::vector<std::string> want_keys;
  for (const auto& e : doc.elements) got_keys.push_back(e.key);
  for (const auto& x : expected) want_keys.push_back(x.key);
  if (got_keys != want_keys) {
    problems.push_back("keys are [" + Join(got_keys) + "], expected [" + Join(want_keys) + "]");
  }
  for (const auto& x : expected) {
    const Element* e = doc.Find(x.key);
    if (e == nullptr) continue;  // reported with the key list
    if (e->type != x.type) {
      problems.push_back(std::string(x.key) + " is " + BsonTypeName(e->type) + ", expected " +
                         BsonTypeName(x.type));
      continue;
    }
    if (x.check != nullptr) {
      std::string p = x.check(*e);
      if (!p.empty()) problems.push_back(std::string(x.key) + " " + p);
    }
  }
  return problems;
}

std::string CheckMessageId(const Element& e) {
  return IsDecimal(e.bytes) ? "" : "is \"" + e.bytes + "\", not a decimal counter";
}

std::string CheckHeaders(const Element& e) {
  for (const auto& c : e.children) {
    if (c.type != kBsonString) return "holds " + c.key + " of type " + BsonTypeName(c.type);
  }
  return "";
}

}  // namespace

std::string BsonTypeName(int type) {
  switch (type) {
    case kBsonDouble: return "double";
    case kBsonString: return "string";
    case kBsonDocument: return "document";
    case 0x04: return "array";
    case kBsonBinary: return "binary";
    case kBsonBool: return "bool";
    case 0x0A: return "null";
    case kBsonInt32: return "int32";
    case kBsonInt64: return "int64";
    default: {
      char buf[16];
      std::snprintf(buf, sizeof buf, "type 0x%02x", type & 0xff);
      return buf;
    }
  }
}

const Element* Document::Find(const std::string& key) const {
  for (const auto& e : elements) {
    if (e.key == key) return &e;
  }
  return nullptr;
}

std::optional<std::string> Document::String(const std::string& key) const {
  const Element* e = Find(key);
  if (e == nullptr || e->type != kBsonString) return std::nullopt;
  return e->bytes;
}

std::optional<int64_t> Document::Int64(const std::string& key) const {
  const Element* e = Find(key);
  if (e == nullptr || e->type != kBsonInt64) return std::nullopt;
  return e->integer;
}

bool DecodeDocument(const uint8_t* data, size_t size, Document* out, std::string* error) {
  out->elements.clear();
  error->clear();
  if (size < 5) {
    *error = "document of " + std::to_string(size) + " bytes is shorter than 5";
    return false;
  }
  const uint32_t own = uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 |
                       uint32_t(data[3]) << 24;
  if (own != size) {
    *error = "document says " + std::to_string(own) + " bytes, frame has " + std::to_string(size);
    return false;
  }
  bson_t b;
  if (!bson_init_static(&b, data, size)) {
    *error = "not a BSON document (length or terminator)";
    return false;
  }
  size_t offset = 0;
  if (!bson_validate(&b, BSON_VALIDATE_NONE, &offset)) {
    *error = "invalid BSON at offset " + std::to_string(offset);
    return false;
  }
  return DecodeInto(&b, &out->elements, error);
}

std::string Frame(const std::string& document) {
  const uint32_t n = static_cast<uint32_t>(document.size());
  std::string out;
  out.reserve(document.size() + 4);
  out.push_back(static_cast<char>(n >> 24));
  out.push_back(static_cast<char>(n >> 16));
  out.push_back(static_cast<char>(n >> 8));
  out.push_back(static_cast<char>(n));
  out += document;
  return out;
}

std::vector<std::string> FrameReader::Feed(const uint8_t* data, size_t size) {
  std::vector<std::string> done;
  if (!error_.empty()) return done;
  buffer_.append(reinterpret_cast<const char*>(data), size);
  size_t pos = 0;
  while (buffer_.size() - pos >= 4) {
    const auto* p = reinterpret_cast<const uint8_t*>(buffer_.data() + pos);
    const size_t n = size_t(p[0]) << 24 | size_t(p[1]) << 16 | size_t(p[2]) << 8 | size_t(p[3]);
    if (n > max_document_) {
      error_ = "frame length " + std::to_string(n) + " exceeds the limit of " +
               std::to_string(max_document_);
      break;
    }
    if (buffer_.size() - pos - 4 < n) break;
    done.emplace_back(buffer_, pos + 4, n);
    pos += 4 + n;
  }
  buffer_.erase(0, pos);
  return done;
}

std::vector<std::string> CheckRegistrationLayout(const Document& doc) {
  std::vector<Expect> expected = {
      {"msg_type", kBsonInt64,
       [](const Element& e) -> std::string {
         return e.integer == kRegistration || e.integer == kRegistrationOther
                    ? ""
                    : "is " + std::to_string(e.integer) + ", not a registration";
       }},
      {"app_type", kBsonString, nullptr},
      {"app_id", kBsonString,
       [](const Element& e) -> std::string {
         return e.bytes == "zel" ? "" : "is \"" + e.bytes + "\", expected \"zel\"";
       }},
  };
  if (doc.Find("amqp_headers") != nullptr) {
    expected.push_back({"amqp_headers", kBsonDocument, &CheckHeaders});
  }
  expected.push_back({"amqp-message-id", kBsonString, &CheckMessageId});
  expected.push_back({"session-id", kBsonString, [](const Element& e) -> std::string {
                        return e.bytes == "no-session"
                                   ? ""
                                   : "is \"" + e.bytes + "\", expected \"no-session\"";
                      }});
  return CheckLayout(doc, expected);
}

std::vector<std::string> CheckDataLayout(const Document& doc) {
  std::vector<Expect> expected = {
      {"msg_type", kBsonInt64, nullptr},
      {"app_type", kBsonString, nullptr},
      {"app_id", kBsonBool,
       [](const Element& e) -> std::string { return e.boolean ? "" : "is false"; }},
  };
  if (doc.Find("amqp_headers") != nullptr) {
    expected.push_back({"amqp_headers", kBsonDocument, &CheckHeaders});
  }
  expected.push_back({"content_type", kBsonString, nullptr});
  expected.push_back({"amqp_routing_key", kBsonString, nullptr});
  const Element* payload = doc.Find("amqp_payload");
  if (payload != nullptr || doc.Find("payload_len") != nullptr) {
    expected.push_back({"amqp_payload", kBsonBinary, [](const Element& e) -> std::string {
                          if (e.subtype != 0) return "has subtype " + std::to_string(e.subtype);
                          if (e.bytes.empty()) return "is empty (it must then be left out)";
                          return "";
                        }});
    expected.push_back({"payload_len", kBsonInt64, nullptr});
  }
  expected.push_back({"amqp-message-id", kBsonString, &CheckMessageId});
  expected.push_back({"session-id", kBsonString, [](const Element& e) -> std::string {
                        return IsCanonicalUuid(e.bytes)
                                   ? ""
                                   : "is \"" + e.bytes + "\", not a lower-case UUID";
                      }});
  std::vector<std::string> problems = CheckLayout(doc, expected);
  const Element* len = doc.Find("payload_len");
  if (payload != nullptr && len != nullptr && payload->type == kBsonBinary &&
      len->type == kBsonInt64 && len->integer != static_cast<int64_t>(payload->bytes.size())) {
    problems.push_back("payload_len is " + std::to_string(len->integer) + " for a payload of " +
                       std::to_string(payload->bytes.size()) + " bytes");
  }
  return problems;
}

std::string EncodeAck(const std::string& app_type,
                      std::optional<std::pair<uint32_t, uint32_t>> mp_version) {
  BsonPtr b;
  bson_append_int64(b.get(), "msg_type", -1, kRegistrationAck);
  AppendString(b.get(), "app_type", app_type);
  AppendString(b.get(), "app_id", "zel");
  if (mp_version) {
    const uint64_t v = uint64_t(mp_version->first) << 32 | mp_version->second;
    bson_append_int64(b.get(), "mp-version", -1, static_cast<int64_t>(v));
  }
  return Bytes(b.get());
}

std::string EncodeClose(const std::string& app_type) {
  BsonPtr b;
  bson_append_int64(b.get(), "msg_type", -1, kClose);
  AppendString(b.get(), "app_type", app_type);
  AppendString(b.get(), "app_id", "zel");
  return Bytes(b.get());
}

std::string EncodeData(const DataMessage& m) {
  BsonPtr b;
  bson_append_int64(b.get(), "msg_type", -1, m.msg_type);
  AppendString(b.get(), "app_type", m.app_type);
  AppendString(b.get(), "app_id", m.app_id);
  AppendHeaders(b.get(), m.headers);
  AppendString(b.get(), "amqp_routing_key", m.routing_key);
  AppendString(b.get(), "content_type", m.content_type);
  if (!m.payload.empty()) AppendPayload(b.get(), m.payload);
  return Bytes(b.get());
}

const std::vector<std::string>& MalformedKinds() {
  static const std::vector<std::string> kinds = {
      "garbage",      "bad-length", "wrong-types", "not-dorn",    "unknown-type",
      "unknown-keys", "empty-doc",  "zero-length", "half-frame",
  };
  return kinds;
}

bool MalformedKindIsAnswered(const std::string& kind) {
  // The agent reads a frame by its own length, not by the document's length
  // field, so a wrong length field is answered like unknown keys.
  return kind == "unknown-keys" || kind == "bad-length";
}

std::optional<std::string> MalformedFrame(const std::string& kind, const std::string& app_type,
                                          const std::string& valid_payload) {
  DataMessage data;
  data.app_type = app_type;
  data.headers = {{"amqp_correlationId", "malformed-" + kind}};
  data.payload = valid_payload;

  if (kind == "garbage") {
    // Its first four bytes claim a length of about 1.7 GB.
    return Frame("\x66\x6f\x6f\x62this is not a BSON document\x01\x02\x03");
  }
  if (kind == "bad-length") {
    std::string doc = EncodeData(data);
    const uint32_t lie = static_cast<uint32_t>(doc.size() + 64);
    for (int i = 0; i < 4; ++i) doc[i] = static_cast<char>(lie >> (8 * i));
    return Frame(doc);
  }
  if (kind == "wrong-types") {
    BsonPtr b;
    AppendString(b.get(), "msg_type", "8");
    bson_append_int64(b.get(), "app_type", -1, 42);
    bson_append_int32(b.get(), "app_id", -1, 1);
    AppendString(b.get(), "amqp_headers", "amqp_correlationId=wrong-types");
    bson_append_double(b.get(), "mp-version", -1, 1.5);
    bson_append_bool(b.get(), "amqp_routing_key", -1, true);
    bson_append_int32(b.get(), "content_type", -1, 7);
    AppendString(b.get(), "amqp_payload", valid_payload);
    bson_append_double(b.get(), "payload_len", -1, static_cast<double>(valid_payload.size()));
    return Frame(Bytes(b.get()));
  }
  if (kind == "not-dorn") {
    // Field 3 (a nested message) announced with 127 bytes that never come.
    data.payload = std::string("\x1a\x7f\x08\x01", 4);
    return Frame(EncodeData(data));
  }
  if (kind == "unknown-type") {
    data.msg_type = 4;
    return Frame(EncodeData(data));
  }
  if (kind == "unknown-keys") {
    BsonPtr b;
    bson_append_int64(b.get(), "msg_type", -1, kMpaData);
    AppendString(b.get(), "app_type", app_type);
    AppendString(b.get(), "app_id", "zel");
    AppendString(b.get(), "relay-note", "extra string");
    bson_append_int64(b.get(), "relay-count", -1, 7);
    bson_t child;
    bson_append_document_begin(b.get(), "relay-doc", -1, &child);
    AppendString(&child, "inner", "value");
    bson_append_document_end(b.get(), &child);
    bson_append_binary(b.get(), "relay-raw", -1, BSON_SUBTYPE_BINARY,
                       reinterpret_cast<const uint8_t*>("\x01\x02\x03"), 3);
    bson_append_double(b.get(), "relay-double", -1, 2.5);
    bson_append_bool(b.get(), "relay-bool", -1, false);
    AppendString(b.get(), "amqp_correlationId", "top-level-dropped");
    AppendString(b.get(), "amqp_replyTo", "top-level-dropped");
    AppendHeaders(b.get(), data.headers);
    AppendString(b.get(), "amqp_routing_key", "");
    AppendString(b.get(), "content_type", "application/protobuf");
    AppendPayload(b.get(), valid_payload);
    return Frame(Bytes(b.get()));
  }
  if (kind == "empty-doc") {
    BsonPtr b;
    return Frame(Bytes(b.get()));
  }
  if (kind == "zero-length") {
    return std::string(4, '\0');
  }
  if (kind == "half-frame") {
    std::string frame = Frame(EncodeData(data));
    return frame.substr(0, frame.size() / 2);
  }
  return std::nullopt;
}

bool IsCanonicalUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
      return false;
    }
  }
  return true;
}

std::string JsonEscape(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        // Bytes from 0x80 pass as they are: texts on this wire are UTF-8.
        if (c < 0x20 || c == 0x7f) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out;
}

}  // namespace mpa_relay
