// Helpers of the logger tests: a UDP receiver on 127.0.0.1, standing in for
// the syslog server of UDP mode, and the record timestamp of now.
#ifndef ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_
#define ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <ctime>
#include <string>

#include "cpp/lib/common/logger_testing.h"

namespace zel {
namespace log_test {

// Now, as a record's timestamp in UTC: the text orders like the time.
inline std::string UtcNow() {
  std::timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm t{};
  gmtime_r(&now.tv_sec, &t);
  return log_testing::FormatTimestampForTest(now, t);
}

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

}  // namespace log_test
}  // namespace zel

#endif  // ZEL_TESTS_COMMON_LOGGER_TEST_UTIL_H_
