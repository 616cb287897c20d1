// Helpers shared by the logger tests: a UDP receiver on 127.0.0.1 and a
// capture of what the logger would send to syslog(3).
#ifndef ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_
#define ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zel {
namespace log_test {

// A datagram socket bound to 127.0.0.1 on a port the kernel picks.
class UdpReceiver {
 public:
  UdpReceiver() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (fd_ >= 0 &&
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      socklen_t len = sizeof addr;
      getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
      port_ = ntohs(addr.sin_port);
    }
  }
  ~UdpReceiver() {
    if (fd_ >= 0) close(fd_);
  }
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  int port() const { return port_; }
  int fd() const { return fd_; }

  // One datagram, or false when none arrives within `timeoutMs`.
  bool Receive(std::string* out, int timeoutMs = 5000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    std::string buf(65536, '\0');
    ssize_t n = recv(fd_, &buf[0], buf.size(), 0);
    if (n < 0) return false;
    buf.resize(static_cast<std::size_t>(n));
    *out = std::move(buf);
    return true;
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// What the logger handed to syslog(3), in order.
struct SyslogCapture {
  static std::mutex& Mutex() {
    static std::mutex m;
    return m;
  }
  static std::vector<std::pair<int, std::string>>& Lines() {
    static std::vector<std::pair<int, std::string>> lines;
    return lines;
  }
  static void Sink(int priority, const char* line) {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().emplace_back(priority, line);
  }
  static std::vector<std::pair<int, std::string>> Take() {
    std::lock_guard<std::mutex> lock(Mutex());
    std::vector<std::pair<int, std::string>> out;
    out.swap(Lines());
    return out;
  }
};

}  // namespace log_test
}  // namespace zel

#endif  // ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_
