// Test helpers for the MPA library: a fake MPA on 127.0.0.1 (port 0) that
// speaks the framed protocol, BSON bytes written and read by hand (so the
// wire layout is checked independently of the library's codec), and an inbox
// that records what the library hands to the application's callback.
#ifndef ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_
#define ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <mutex>
#include <string>
#include <vector>

#include "mpalib/bson_codec.h"
#include "mpalib/rmq_client_message.h"

namespace mpa_test {

using Bytes = std::vector<uint8_t>;

inline void PutLe32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
inline void PutLe64(Bytes& out, uint64_t v) {
  for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
inline uint32_t GetLe32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t GetLe64(const uint8_t* p) {
  return uint64_t(GetLe32(p)) | uint64_t(GetLe32(p + 4)) << 32;
}

// Writes a BSON document element by element.
class Doc {
 public:
  Doc() { PutLe32(bytes_, 0); }
  Doc& Int64(const char* key, int64_t v) {
    Head(18, key);
    PutLe64(bytes_, static_cast<uint64_t>(v));
    return *this;
  }
  Doc& Int32(const char* key, int32_t v) {
    Head(16, key);
    PutLe32(bytes_, static_cast<uint32_t>(v));
    return *this;
  }
  Doc& Bool(const char* key, bool v) {
    Head(8, key);
    bytes_.push_back(v ? 1 : 0);
    return *this;
  }
  Doc& Double(const char* key, double v) {
    Head(1, key);
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    PutLe64(bytes_, bits);
    return *this;
  }
  Doc& String(const char* key, const std::string& v) {
    Head(2, key);
    PutLe32(bytes_, static_cast<uint32_t>(v.size() + 1));
    bytes_.insert(bytes_.end(), v.begin(), v.end());
    bytes_.push_back(0);
    return *this;
  }
  Doc& Binary(const char* key, const Bytes& v) {
    Head(5, key);
    PutLe32(bytes_, static_cast<uint32_t>(v.size()));
    bytes_.push_back(0);  // subtype 0
    bytes_.insert(bytes_.end(), v.begin(), v.end());
    return *this;
  }
  Doc& Object(const char* key, const Bytes& finishedDoc) {
    Head(3, key);
    bytes_.insert(bytes_.end(), finishedDoc.begin(), finishedDoc.end());
    return *this;
  }
  // Any type byte with raw value bytes.
  Doc& Raw(uint8_t type, const char* key, const Bytes& value) {
    Head(type, key);
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
  }
  Bytes Finish() const {
    Bytes out = bytes_;
    out.push_back(0);
    uint32_t n = static_cast<uint32_t>(out.size());
    for (int i = 0; i < 4; ++i) out[i] = static_cast<uint8_t>(n >> (8 * i));
    return out;
  }

 private:
  void Head(uint8_t type, const char* key) {
    bytes_.push_back(type);
    bytes_.insert(bytes_.end(), key, key + std::strlen(key));
    bytes_.push_back(0);
  }
  Bytes bytes_;
};

// A frame: four bytes of big-endian length, then the document.
inline Bytes Frame(const Bytes& doc) {
  Bytes out;
  uint32_t n = static_cast<uint32_t>(doc.size());
  out.push_back(static_cast<uint8_t>(n >> 24));
  out.push_back(static_cast<uint8_t>(n >> 16));
  out.push_back(static_cast<uint8_t>(n >> 8));
  out.push_back(static_cast<uint8_t>(n));
  out.insert(out.end(), doc.begin(), doc.end());
  return out;
}

// One element read back from a document written by the library.
struct Element {
  int type = 0;
  std::string key;
  int64_t i64 = 0;          // int64, int32, bool
  std::string text;         // string
  Bytes bytes;              // binary payload, or an embedded document whole
  int subtype = -1;         // binary
};

// Parses the elements of a document of the types the protocol uses. Returns
// false on any layout error (wrong length, missing NUL, unknown type).
inline bool ParseDoc(const uint8_t* p, size_t avail, std::vector<Element>* out) {
  if (avail < 5) return false;
  const uint32_t len = GetLe32(p);
  if (len < 5 || len > avail || p[len - 1] != 0) return false;
  size_t pos = 4;
  while (pos < len - 1) {
    Element e;
    e.type = p[pos++];
    const void* nul = std::memchr(p + pos, 0, len - 1 - pos);
    if (nul == nullptr) return false;
    e.key.assign(reinterpret_cast<const char*>(p + pos));
    pos = static_cast<const uint8_t*>(nul) - p + 1;
    auto need = [&](size_t n) { return pos + n <= len - 1; };
    switch (e.type) {
      case 18:
        if (!need(8)) return false;
        e.i64 = static_cast<int64_t>(GetLe64(p + pos));
        pos += 8;
        break;
      case 16:
        if (!need(4)) return false;
        e.i64 = static_cast<int32_t>(GetLe32(p + pos));
        pos += 4;
        break;
      case 8:
        if (!need(1)) return false;
        e.i64 = p[pos];
        pos += 1;
        break;
      case 2: {
        if (!need(4)) return false;
        uint32_t n = GetLe32(p + pos);
        if (n < 1 || !need(4 + n) || p[pos + 4 + n - 1] != 0) return false;
        e.text.assign(reinterpret_cast<const char*>(p + pos + 4), n - 1);
        pos += 4 + n;
        break;
      }
      case 5: {
        if (!need(5)) return false;
        uint32_t n = GetLe32(p + pos);
        if (!need(5 + n)) return false;
        e.subtype = p[pos + 4];
        e.bytes.assign(p + pos + 5, p + pos + 5 + n);
        pos += 5 + n;
        break;
      }
      case 3: {
        if (!need(5)) return false;
        uint32_t n = GetLe32(p + pos);
        if (!need(n)) return false;
        e.bytes.assign(p + pos, p + pos + n);
        pos += n;
        break;
      }
      default:
        return false;
    }
    out->push_back(std::move(e));
  }
  return pos == len - 1;
}

inline bool ParseDoc(const Bytes& doc, std::vector<Element>* out) {
  return ParseDoc(doc.data(), doc.size(), out);
}

// Waits until `fd` is readable, at most `timeoutMs`.
inline bool WaitReadable(int fd, int timeoutMs = 5000) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, timeoutMs) == 1;
}

inline bool WriteAll(int fd, const uint8_t* data, size_t len) {
  while (len > 0) {
    ssize_t n = ::send(fd, data, len, MSG_NOSIGNAL);
    if (n <= 0) return false;
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}
inline bool WriteAll(int fd, const Bytes& b) { return WriteAll(fd, b.data(), b.size()); }

// Reads exactly `len` bytes, waiting at most `timeoutMs` for each piece.
inline bool ReadExactly(int fd, uint8_t* out, size_t len, int timeoutMs = 5000) {
  while (len > 0) {
    if (!WaitReadable(fd, timeoutMs)) return false;
    ssize_t n = ::recv(fd, out, len, 0);
    if (n <= 0) return false;
    out += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

// True once the peer has closed `fd` (a read sees the end of the stream).
inline bool WaitForEof(int fd, int timeoutMs = 5000) {
  uint8_t scratch[4096];
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!WaitReadable(fd, 100)) continue;
    ssize_t n = ::recv(fd, scratch, sizeof scratch, 0);
    if (n == 0) return true;
    if (n < 0) return errno == ECONNRESET;
  }
  return false;
}

// The MPA end of the protocol: a listener on 127.0.0.1 and its accepted
// connections.
class FakeMpa {
 public:
  FakeMpa() {
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (listenFd_ >= 0 &&
        bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        listen(listenFd_, 64) == 0) {
      socklen_t len = sizeof addr;
      getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
      port_ = ntohs(addr.sin_port);
    }
  }
  ~FakeMpa() {
    for (int fd : peers_) ::close(fd);
    if (listenFd_ >= 0) ::close(listenFd_);
  }
  FakeMpa(const FakeMpa&) = delete;
  FakeMpa& operator=(const FakeMpa&) = delete;

  uint16_t port() const { return port_; }
  std::string portText() const { return std::to_string(port_); }

  // Accepts one connection; -1 when none comes in time.
  int Accept(int timeoutMs = 5000) {
    if (!WaitReadable(listenFd_, timeoutMs)) return -1;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) peers_.push_back(fd);
    return fd;
  }

  // Reads one frame and returns its document; checks that the big-endian
  // prefix and the document's own little-endian length agree.
  static bool ReadFrame(int fd, Bytes* doc, int timeoutMs = 5000) {
    uint8_t prefix[4];
    if (!ReadExactly(fd, prefix, 4, timeoutMs)) return false;
    uint32_t n = uint32_t(prefix[0]) << 24 | uint32_t(prefix[1]) << 16 |
                 uint32_t(prefix[2]) << 8 | uint32_t(prefix[3]);
    doc->assign(n, 0);
    if (!ReadExactly(fd, doc->data(), n, timeoutMs)) return false;
    return n >= 5 && GetLe32(doc->data()) == n;
  }

  // Closes one accepted connection.
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
  int listenFd_ = -1;
  uint16_t port_ = 0;
  std::vector<int> peers_;
};

// What the application's callback received, copied out of the record.
struct Received {
  int32_t type = 0;
  std::string appType, appId, routingKey, contentType;
  bool hasAppType = false, hasAppId = false, hasRoutingKey = false, hasContentType = false;
  int32_t cookie = 0;
  int32_t major = 0, minor = 0;
  int64_t payloadLen = 0;
  bool hasPayload = false;
  Bytes payload;
  bool hasHeaders = false;
  bool headersWellFormed = false;
  Bytes headers;              // the embedded document's bytes
  bool rawBufferIsAppType = false;
};

// Records every callback; the callback frees rawBuffer as an application
// must, so the address sanitizer sees any ownership mistake.
class Inbox {
 public:
  static void Callback(rmqClientMessage* m) {
    Received r;
    r.type = m->messageType;
    if (m->appType) { r.hasAppType = true; r.appType = m->appType; }
    if (m->appId) { r.hasAppId = true; r.appId = m->appId; }
    if (m->amqpRoutingKey) { r.hasRoutingKey = true; r.routingKey = m->amqpRoutingKey; }
    if (m->amqpContentType) { r.hasContentType = true; r.contentType = m->amqpContentType; }
    r.cookie = m->cookieId;
    r.major = m->mpMajorVersion;
    r.minor = m->mpMinorVersion;
    r.payloadLen = m->payloadLen;
    if (m->payload) {
      r.hasPayload = true;
      r.payload.assign(m->payload, m->payload + m->payloadLen);
    }
    if (m->amqpHeaders) {
      r.hasHeaders = true;
      const bson* h = m->amqpHeaders;
      r.headersWellFormed = h->finished != 0 && h->data != nullptr;
      if (r.headersWellFormed) {
        const uint8_t* d = reinterpret_cast<const uint8_t*>(h->data);
        r.headers.assign(d, d + GetLe32(d));
      }
    }
    r.rawBufferIsAppType =
        m->rawBuffer != nullptr && reinterpret_cast<const char*>(m->rawBuffer) == m->appType;
    std::free(m->rawBuffer);
    {
      std::lock_guard<std::mutex> lock(Mutex());
      Queue().push_back(std::move(r));
    }
    Cond().notify_all();
  }

  // Takes the oldest record, waiting at most `timeoutMs`.
  static bool Take(Received* out, int timeoutMs = 5000) {
    std::unique_lock<std::mutex> lock(Mutex());
    if (!Cond().wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [] { return !Queue().empty(); })) {
      return false;
    }
    *out = std::move(Queue().front());
    Queue().pop_front();
    return true;
  }
  static size_t Size() {
    std::lock_guard<std::mutex> lock(Mutex());
    return Queue().size();
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Queue().clear();
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
  static std::deque<Received>& Queue() {
    static std::deque<Received> q;
    return q;
  }
};

// Log records of the library, kept in memory instead of the machine's log.
class LogLines {
 public:
  static void Sink(int, const char* line) {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().emplace_back(line);
  }
  static void ToStderr(int, const char* line) { std::fprintf(stderr, "%s\n", line); }
  // True when some record holds every one of `parts`.
  static bool Contains(std::initializer_list<const char*> parts) {
    std::lock_guard<std::mutex> lock(Mutex());
    for (const std::string& line : Lines()) {
      bool all = true;
      for (const char* part : parts) all = all && line.find(part) != std::string::npos;
      if (all) return true;
    }
    return false;
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().clear();
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::string>& Lines() {
    static std::vector<std::string> lines;
    return lines;
  }
};

}  // namespace mpa_test

#endif  // ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_
