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
  UdpReceiver() : fd_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
      port_ = ntohs(addr.sin_port);
    }
  }
  ~UdpReceiver() { close(fd_); }
  UdpReceiver(const UdpReceiver&) = delete;
  UdpReceiver& operator=(const UdpReceiver&) = delete;

  int port() const { return port_; }

  // One datagram, or false when none arrives within `timeoutMs`.
  bool Receive(std::string* out, int timeoutMs = 5000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) != 1) return false;
    out->assign(65536, '\0');
    const ssize_t n = recv(fd_, &(*out)[0], out->size(), 0);
    out->resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return n >= 0;
  }

 private:
  int fd_;
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
    std::vector<std::pair<int, std::string>> out;
    std::lock_guard<std::mutex> lock(Mutex());
    out.swap(Lines());
    return out;
  }
};

}  // namespace log_test
}  // namespace zel

#endif  // ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_
