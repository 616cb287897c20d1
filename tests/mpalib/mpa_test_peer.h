// Test helpers for the MPA library and the management client: BSON bytes
// written and read by hand (so the wire layout is checked independently of
// the library's codec), a fake MPA on 127.0.0.1 (port 0) that speaks the
// framed protocol, and an inbox that records what a callback receives.
#ifndef ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_
#define ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "mpalib/bson_codec.h"
#include "mpalib/rmq_client_message.h"
#include "support/wait.h"

namespace mpa_test {

using Bytes = std::vector<uint8_t>;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

inline Bytes Le(uint64_t v, int size) {
  Bytes out;
  for (int i = 0; i < size; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  return out;
}
inline uint64_t GetLe(const uint8_t* p, int size) {
  uint64_t v = 0;
  for (int i = size - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}
inline Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Writes a BSON document element by element.
class Doc {
 public:
  Doc& Int64(const char* key, int64_t v) { return Raw(18, key, Le(static_cast<uint64_t>(v), 8)); }
  Doc& String(const char* key, const std::string& v) {
    return Raw(2, key, Cat(Le(v.size() + 1, 4), Bytes(v.c_str(), v.c_str() + v.size() + 1)));
  }
  Doc& Binary(const char* key, const Bytes& v) {
    return Raw(5, key, Cat(Cat(Le(v.size(), 4), {0}), v));  // subtype 0
  }
  Doc& Object(const char* key, const Bytes& finishedDoc) { return Raw(3, key, finishedDoc); }
  // Any type byte with raw value bytes.
  Doc& Raw(uint8_t type, const char* key, const Bytes& value) {
    bytes_.push_back(type);
    bytes_.insert(bytes_.end(), key, key + std::strlen(key) + 1);
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
  }
  Bytes Finish() const { return Cat(Cat(Le(bytes_.size() + 5, 4), bytes_), {0}); }

 private:
  Bytes bytes_;
};

// A frame: four bytes of big-endian length, then the document.
inline Bytes Frame(const Bytes& doc) {
  const uint32_t n = static_cast<uint32_t>(doc.size());
  return Cat({uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}, doc);
}
// A frame of a document with only a msg_type.
inline Bytes TypeFrame(int64_t type) { return Frame(Doc().Int64("msg_type", type).Finish()); }

inline std::string Hex(const Bytes& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : bytes) out += {kDigits[b >> 4], kDigits[b & 15]};
  return out;
}

// One element of a document the library wrote, its value as text: a number,
// true or false, the string itself, or bin<subtype>:<hex> and doc:<hex>.
struct Element {
  std::string key, value;
  int type = 0;
};

// The elements of `doc`, of the types the library writes; empty when the
// bytes are not such a document.
inline std::vector<Element> ParseDoc(const Bytes& doc) {
  const uint8_t* p = doc.data();
  std::vector<Element> out;
  if (doc.size() < 5 || GetLe(p, 4) != doc.size() || doc.back() != 0) return {};
  for (size_t pos = 4, end = doc.size() - 1; pos < end;) {
    const int type = p[pos++];
    const void* nul = std::memchr(p + pos, 0, end - pos);
    if (nul == nullptr) return {};
    Element e{reinterpret_cast<const char*>(p + pos), "", type};
    pos = static_cast<const uint8_t*>(nul) - p + 1;
    const size_t fixed = type == 18 ? 8 : type == 16 ? 4 : type == 8 ? 1 : 0;
    if (!(fixed || type == 2 || type == 3 || type == 5) || pos + (fixed ? fixed : 5) > end) return {};
    const size_t size = fixed ? fixed : (type == 2 ? 4 : type == 5 ? 5 : 0) + GetLe(p + pos, 4);
    if (pos + size > end || (type == 2 && (size < 5 || p[pos + size - 1] != 0))) return {};
    const uint64_t n = GetLe(p + pos, int(fixed));
    if (type == 18 || type == 16) e.value = std::to_string(type == 16 ? int32_t(n) : int64_t(n));
    if (type == 8) e.value = n ? "true" : "false";
    if (type == 2) e.value.assign(reinterpret_cast<const char*>(p + pos + 4), size - 5);
    if (type == 5) e.value = "bin" + std::to_string(p[pos + 4]) + ":" + Hex(Bytes(&p[pos + 5], p + pos + size));
    if (type == 3) e.value = "doc:" + Hex(Bytes(&p[pos], p + pos + size));
    pos += size;
    out.push_back(std::move(e));
  }
  return out;
}

// The elements in document order as key=value, strings quoted.
inline std::string Render(const std::vector<Element>& elements) {
  std::string out;
  for (const Element& e : elements) {
    out += (out.empty() ? "" : " ") + e.key + "=" + (e.type == 2 ? '"' + e.value + '"' : e.value);
  }
  return out;
}

inline bool WaitReadable(int fd, int timeoutMs = 10000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeoutMs) == 1;
}

inline bool WriteAll(int fd, const Bytes& b) {
  for (size_t done = 0; done < b.size();) {
    const ssize_t n = ::send(fd, b.data() + done, b.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

inline bool ReadExactly(int fd, uint8_t* out, size_t len) {
  for (ssize_t n = 0; len > 0; out += n, len -= static_cast<size_t>(n)) {
    if (!WaitReadable(fd) || (n = ::recv(fd, out, len, 0)) <= 0) return false;
  }
  return true;
}

// True once the peer has closed `fd`; what it sent before is skipped.
inline bool WaitForEof(int fd) {
  uint8_t scratch[4096];
  while (WaitReadable(fd)) {
    const ssize_t n = ::recv(fd, scratch, sizeof scratch, 0);
    if (n <= 0) return n == 0 || errno == ECONNRESET;
  }
  return false;
}

// The MPA end of the protocol: a socket on 127.0.0.1, bound at once and
// listening from Listen() (until then connects are refused), and the
// connections it accepted.
class FakeMpa {
 public:
  explicit FakeMpa(bool listen = true) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
      port_ = ntohs(addr.sin_port);
    }
    if (listen) Listen();
  }
  ~FakeMpa() {
    for (int fd : peers_) ::close(fd);
    ::close(fd_);
  }
  FakeMpa(const FakeMpa&) = delete;
  FakeMpa& operator=(const FakeMpa&) = delete;

  bool Listen() { return ::listen(fd_, 64) == 0; }
  uint16_t port() const { return port_; }
  std::string portText() const { return std::to_string(port_); }

  // Accepts one connection; -1 when none comes in time.
  int Accept(int timeoutMs = 10000) {
    const int fd = WaitReadable(fd_, timeoutMs) ? ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    if (fd >= 0) peers_.push_back(fd);
    return fd;
  }
  // Accepts a connection and reads its registration of `appType`; -1 when
  // none comes or it is something else.
  int AcceptRegistration(const std::string& appType) {
    const int fd = Accept();
    const std::string reg = fd >= 0 ? Render(ReadDoc(fd)) : "";
    return reg.rfind("msg_type=1 app_type=\"" + appType + "\"", 0) == 0 ? fd : -1;
  }
  void ClosePeer(int fd) {
    peers_.erase(std::remove(peers_.begin(), peers_.end(), fd), peers_.end());
    ::close(fd);
  }

  // The elements of the next frame on `fd`, whose big-endian prefix must
  // agree with the document's own length; empty when it is not one.
  static std::vector<Element> ReadDoc(int fd) {
    uint8_t prefix[4];
    if (!ReadExactly(fd, prefix, 4)) return {};
    Bytes doc(GetLe(Bytes{prefix[3], prefix[2], prefix[1], prefix[0]}.data(), 4));
    return ReadExactly(fd, doc.data(), doc.size()) ? ParseDoc(doc) : std::vector<Element>();
  }

 private:
  int fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  uint16_t port_ = 0;
  std::vector<int> peers_;
};

// A zeroed outbound record of type 3 (data); `payload` must outlive it.
inline rmqClientMessage DataRecord(int cookie, const char* contentType, const char* routingKey,
                                   const char* payload = nullptr) {
  rmqClientMessage m;
  std::memset(&m, 0, sizeof m);
  m.messageType = RMQ_CLIENT_DATA_MESSAGE;
  m.cookieId = cookie;
  m.amqpContentType = contentType;
  m.amqpRoutingKey = routingKey;
  m.payload = reinterpret_cast<const uint8_t*>(payload);
  m.payloadLen = payload ? static_cast<int64_t>(std::strlen(payload)) : 0;
  return m;
}

// What a callback received, copied out of the record.
struct Received {
  int32_t type = -1, cookie = -1;
  int64_t payloadLen = 0;
  Bytes payload;     // payloadLen bytes, when there was a payload
  std::string line;  // every field; null pointers are left out
};

// Records every record handed to Callback (which frees rawBuffer, as an
// application of the library must, so that the sanitizers see ownership
// mistakes) or to Record (which leaves that to the caller).
class Inbox {
 public:
  static void Record(rmqClientMessage* m) {
    Received r{m->messageType, m->cookieId, m->payloadLen, {}, ""};
    r.line = "type=" + std::to_string(r.type) + " cookie=" + std::to_string(r.cookie);
    const std::pair<const char*, const char*> texts[] = {
        {"app", m->appType}, {"id", m->appId}, {"rk", m->amqpRoutingKey}, {"ct", m->amqpContentType}};
    for (const auto& [name, v] : texts) r.line += v ? std::string(" ") + name + "=" + v : "";
    if (m->mpMajorVersion || m->mpMinorVersion) {
      r.line += " v=" + std::to_string(m->mpMajorVersion) + "." + std::to_string(m->mpMinorVersion);
    }
    r.line += " len=" + std::to_string(r.payloadLen);
    if (m->payload) {
      r.payload.assign(m->payload, m->payload + std::max<int64_t>(r.payloadLen, 0));
      r.line += " payload=" + Hex(r.payload);
    }
    if (const bson* h = m->amqpHeaders) {
      const auto* d = reinterpret_cast<const uint8_t*>(h->data);
      r.line += " headers=" + (h->finished && d ? Hex(Bytes(d, d + GetLe(d, 4))) : "?");
    }
    if (m->rawBuffer && reinterpret_cast<const char*>(m->rawBuffer) == m->appType) r.line += " raw=app";
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(r));
  }
  static void Callback(rmqClientMessage* m) {
    Record(m);
    std::free(m->rawBuffer);
  }

  // Takes the oldest record, waiting for one at most `timeout`; one of type
  // -1 when none came.
  static Received Take(std::chrono::milliseconds timeout = zel::testing::kDeadline) {
    if (!zel::testing::WaitUntil([] { return Size() > 0; }, timeout)) return Received();
    std::lock_guard<std::mutex> lock(mutex_);
    Received r = std::move(queue_.front());
    queue_.pop_front();
    return r;
  }
  static size_t Size() {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.clear();
  }

 private:
  static inline std::mutex mutex_;
  static inline std::deque<Received> queue_;  // guarded by mutex_
};

// Takes the next record and checks its type and cookie.
inline void ExpectReceived(int32_t type, int cookie) {
  const Received r = Inbox::Take();
  EXPECT_EQ(type, r.type);
  EXPECT_EQ(cookie, r.cookie);
}

}  // namespace mpa_test

#endif  // ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_
