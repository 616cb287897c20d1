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

#include <algorithm>
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
#include <optional>
#include <string>
#include <vector>

#include "cpp/lib/common/logger_test_util.h"
#include "mpalib/bson_codec.h"
#include "mpalib/rmq_client_message.h"

namespace mpa_test {

using Bytes = std::vector<uint8_t>;

inline void PutLe(Bytes& out, uint64_t v, int size) {
  for (int i = 0; i < size; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
inline uint64_t GetLe(const uint8_t* p, int size) {
  uint64_t v = 0;
  for (int i = size - 1; i >= 0; --i) v = v << 8 | p[i];
  return v;
}

// Writes a BSON document element by element.
class Doc {
 public:
  Doc() { PutLe(bytes_, 0, 4); }
  Doc& Int64(const char* key, int64_t v) { return Put(18, key, Le(static_cast<uint64_t>(v), 8)); }
  Doc& Int32(const char* key, int32_t v) { return Put(16, key, Le(static_cast<uint32_t>(v), 4)); }
  Doc& Bool(const char* key, bool v) { return Put(8, key, Bytes{v ? uint8_t{1} : uint8_t{0}}); }
  Doc& Double(const char* key, double v) {
    uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    return Put(1, key, Le(bits, 8));
  }
  Doc& String(const char* key, const std::string& v) {
    Bytes value = Le(v.size() + 1, 4);
    value.insert(value.end(), v.begin(), v.end());
    value.push_back(0);
    return Put(2, key, value);
  }
  Doc& Binary(const char* key, const Bytes& v) {
    Bytes value = Le(v.size(), 4);
    value.push_back(0);  // subtype 0
    value.insert(value.end(), v.begin(), v.end());
    return Put(5, key, value);
  }
  Doc& Object(const char* key, const Bytes& finishedDoc) { return Put(3, key, finishedDoc); }
  // Any type byte with raw value bytes.
  Doc& Raw(uint8_t type, const char* key, const Bytes& value) { return Put(type, key, value); }
  Bytes Finish() const {
    Bytes out = bytes_;
    out.push_back(0);
    Bytes size = Le(out.size(), 4);
    std::copy(size.begin(), size.end(), out.begin());
    return out;
  }

 private:
  static Bytes Le(uint64_t v, int size) {
    Bytes out;
    PutLe(out, v, size);
    return out;
  }
  Doc& Put(uint8_t type, const char* key, const Bytes& value) {
    bytes_.push_back(type);
    bytes_.insert(bytes_.end(), key, key + std::strlen(key) + 1);
    bytes_.insert(bytes_.end(), value.begin(), value.end());
    return *this;
  }
  Bytes bytes_;
};

// A frame: four bytes of big-endian length, then the document.
inline Bytes Frame(const Bytes& doc) {
  const uint32_t n = static_cast<uint32_t>(doc.size());
  Bytes out = {static_cast<uint8_t>(n >> 24), static_cast<uint8_t>(n >> 16),
               static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  out.insert(out.end(), doc.begin(), doc.end());
  return out;
}

// One element read back from a document written by the library.
struct Element {
  int type = 0;
  std::string key;
  int64_t i64 = 0;   // int64, int32, bool
  std::string text;  // string
  Bytes bytes;       // binary payload, or an embedded document whole
  int subtype = -1;  // binary
};

// Parses the elements of a document of the types the protocol uses. Returns
// false on any layout error (wrong length, missing NUL, unknown type).
inline bool ParseDoc(const uint8_t* p, size_t avail, std::vector<Element>* out) {
  if (avail < 5) return false;
  const size_t len = GetLe(p, 4);
  if (len < 5 || len > avail || p[len - 1] != 0) return false;
  const size_t end = len - 1;
  size_t pos = 4;
  while (pos < end) {
    Element e;
    e.type = p[pos++];
    const void* nul = std::memchr(p + pos, 0, end - pos);
    if (nul == nullptr) return false;
    e.key.assign(reinterpret_cast<const char*>(p + pos));
    pos = static_cast<const uint8_t*>(nul) - p + 1;
    // Value size by type; strings, binaries and documents carry a length.
    const size_t fixed = e.type == 18 ? 8 : e.type == 16 ? 4 : e.type == 8 ? 1 : 0;
    const size_t head = e.type == 2 ? 4 : e.type == 5 ? 5 : 0;
    if (fixed == 0 && head == 0 && e.type != 3) return false;
    if (pos + std::max({fixed, head, size_t{e.type == 3 ? 5u : 0u}}) > end) return false;
    size_t size = fixed;
    if (fixed == 0) size = head + static_cast<uint32_t>(GetLe(p + pos, 4));
    if (pos + size > end) return false;
    if (fixed > 0) {
      const uint64_t raw = GetLe(p + pos, static_cast<int>(fixed));
      e.i64 = fixed == 4 ? static_cast<int32_t>(raw) : static_cast<int64_t>(raw);
    } else if (e.type == 2) {
      if (size < 5 || p[pos + size - 1] != 0) return false;
      e.text.assign(reinterpret_cast<const char*>(p + pos + 4), size - 5);
    } else if (e.type == 5) {
      e.subtype = p[pos + 4];
      e.bytes.assign(p + pos + 5, p + pos + size);
    } else {
      e.bytes.assign(p + pos, p + pos + size);
    }
    pos += size;
    out->push_back(std::move(e));
  }
  return true;
}

inline bool ParseDoc(const Bytes& doc, std::vector<Element>* out) {
  return ParseDoc(doc.data(), doc.size(), out);
}

// Waits until `fd` is readable, at most `timeoutMs`.
inline bool WaitReadable(int fd, int timeoutMs = 5000) {
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

// Reads exactly `len` bytes, waiting at most `timeoutMs` for each piece.
inline bool ReadExactly(int fd, uint8_t* out, size_t len, int timeoutMs = 5000) {
  while (len > 0) {
    if (!WaitReadable(fd, timeoutMs)) return false;
    const ssize_t n = ::recv(fd, out, len, 0);
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
    const ssize_t n = ::recv(fd, scratch, sizeof scratch, 0);
    if (n <= 0) return n == 0 || errno == ECONNRESET;
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
    socklen_t len = sizeof addr;
    if (listenFd_ >= 0 && bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        listen(listenFd_, 64) == 0 &&
        getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
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
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) peers_.push_back(fd);
    return fd;
  }

  // Reads one frame and returns its document; checks that the big-endian
  // prefix and the document's own little-endian length agree.
  static bool ReadFrame(int fd, Bytes* doc, int timeoutMs = 5000) {
    uint8_t prefix[4];
    if (!ReadExactly(fd, prefix, 4, timeoutMs)) return false;
    const uint32_t n = uint32_t(prefix[0]) << 24 | uint32_t(prefix[1]) << 16 |
                       uint32_t(prefix[2]) << 8 | uint32_t(prefix[3]);
    doc->assign(n, 0);
    return ReadExactly(fd, doc->data(), n, timeoutMs) && n >= 5 && GetLe(doc->data(), 4) == n;
  }

  // Closes one accepted connection.
  void ClosePeer(int fd) {
    peers_.erase(std::remove(peers_.begin(), peers_.end(), fd), peers_.end());
    ::close(fd);
  }

 private:
  int listenFd_ = -1;
  uint16_t port_ = 0;
  std::vector<int> peers_;
};

// What the application's callback received, copied out of the record; unset
// optionals were null pointers.
struct Received {
  int32_t type = 0, cookie = 0, major = 0, minor = 0;
  int64_t payloadLen = 0;
  std::optional<std::string> appType, appId, routingKey, contentType;
  std::optional<Bytes> payload;
  std::optional<Bytes> headers;  // the embedded document; empty when not a finished one
  bool rawBufferIsAppType = false;
};

// Records every callback; the callback frees rawBuffer as an application
// must, so the address sanitizer sees any ownership mistake.
class Inbox {
 public:
  static void Callback(rmqClientMessage* m) {
    auto text = [](const char* s) { return s ? std::optional<std::string>(s) : std::nullopt; };
    Received r;
    r.type = m->messageType;
    r.cookie = m->cookieId;
    r.major = m->mpMajorVersion;
    r.minor = m->mpMinorVersion;
    r.payloadLen = m->payloadLen;
    r.appType = text(m->appType);
    r.appId = text(m->appId);
    r.routingKey = text(m->amqpRoutingKey);
    r.contentType = text(m->amqpContentType);
    if (m->payload) r.payload = Bytes(m->payload, m->payload + m->payloadLen);
    if (const bson* h = m->amqpHeaders) {
      const auto* d = reinterpret_cast<const uint8_t*>(h->data);
      r.headers = h->finished && d ? Bytes(d, d + GetLe(d, 4)) : Bytes();
    }
    r.rawBufferIsAppType =
        m->rawBuffer != nullptr && reinterpret_cast<const char*>(m->rawBuffer) == m->appType;
    std::free(m->rawBuffer);
    State& s = Get();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.queue.push_back(std::move(r));
    s.cond.notify_all();
  }

  // Takes the oldest record, waiting at most `timeoutMs`.
  static bool Take(Received* out, int timeoutMs = 5000) {
    State& s = Get();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (!s.cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                         [&] { return !s.queue.empty(); })) {
      return false;
    }
    *out = std::move(s.queue.front());
    s.queue.pop_front();
    return true;
  }
  static size_t Size() {
    std::lock_guard<std::mutex> lock(Get().mutex);
    return Get().queue.size();
  }
  static void Clear() {
    std::lock_guard<std::mutex> lock(Get().mutex);
    Get().queue.clear();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable cond;
    std::deque<Received> queue;
  };
  static State& Get() {
    static State state;
    return state;
  }
};

// Log records of the library, kept in memory instead of the machine's log.
struct LogLines : zel::log_test::SyslogCapture {
  static void ToStderr(int, const char* line) { std::fprintf(stderr, "%s\n", line); }
  // True when some record holds every one of `parts`.
  static bool Contains(std::initializer_list<const char*> parts) {
    std::lock_guard<std::mutex> lock(Mutex());
    return std::any_of(Lines().begin(), Lines().end(), [&](const auto& line) {
      return std::all_of(parts.begin(), parts.end(), [&](const char* part) {
        return line.second.find(part) != std::string::npos;
      });
    });
  }
  static void Clear() { Take(); }
};

}  // namespace mpa_test

#endif  // ZEL_TESTS_MPALIB_MPA_TEST_PEER_H_
