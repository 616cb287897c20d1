#include "cpp/lib/net/net_namespace_guard.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/error_tags.h"
#include "cpp/lib/net/socket_options.h"

namespace zel {
namespace net {
namespace {

std::string Format(const char* format, int fd, const std::string& text) {
  char buffer[512];
  std::snprintf(buffer, sizeof buffer, format, fd, text.c_str());
  return buffer;
}

}  // namespace

NetNamespaceGuard::NetNamespaceGuard(const SocketOptions& options) {
  if (options.ns.empty()) return;
  const std::string self = "/proc/" + std::to_string(getpid()) + "/ns/net";
  const int original = open(self.c_str(), O_RDONLY | O_CLOEXEC);
  if (original < 0) {
    const int error = errno;
    throw errno_exception(error, "Couldn't open ns file '" + self + "'");
  }

  const std::string path = "/var/run/netns/" + options.ns;
  const int target = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (target < 0) {
    const int error = errno;
    close(original);
    throw errno_exception(error, "Couldn't open ns file '" + path + "'");
  }
  if (setns(target, CLONE_NEWNET) != 0) {
    const int error = errno;
    close(target);
    close(original);
    throw errno_exception(error,
                          Format("Couldn't set network namespace %d '%s'", target, options.ns));
  }
  close(target);
  original_ = original;
  try {
    ZEL_NET_LOG(kLogInfo).format("Set network namespace %d -> %d '%s'", original, target,
                                  options.ns.c_str());
  } catch (...) {
    // No destructor runs for a constructor that throws: go back here.
    setns(original_, CLONE_NEWNET);
    close(original_);
    throw;
  }
}

NetNamespaceGuard::~NetNamespaceGuard() {
  if (original_ < 0) return;
  if (setns(original_, CLONE_NEWNET) == 0) {
    ZEL_NET_LOG(kLogInfo).format("Set original network namespace %d", original_);
  } else {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet20)
        .format("Couldn't set original network namespace %d", original_);
  }
  close(original_);
}

}  // namespace net
}  // namespace zel
