#include "cpp/lib/common/errors.h"

#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/not_reached.h"

namespace zel {

namespace {

// strerror_r comes in two flavours; overloads pick the right one at compile
// time. The GNU one may return a static string instead of filling `buf`.
[[maybe_unused]] const char* StrerrorResult(int rc, const char* buf, int error, char* spare,
                                            size_t spareSize) {
  if (rc == 0) return buf;
  snprintf(spare, spareSize, "Unknown error %d", error);
  return spare;
}
[[maybe_unused]] const char* StrerrorResult(const char* text, const char* /*buf*/, int /*error*/,
                                            char* /*spare*/, size_t /*spareSize*/) {
  return text;
}

}  // namespace

std::string ErrnoText(int error) {
  char buf[256];
  char spare[64];
  buf[0] = '\0';
  return StrerrorResult(strerror_r(error, buf, sizeof(buf)), buf, error, spare, sizeof(spare));
}

errno_exception::errno_exception(int32_t error, const std::string& description)
    : std::runtime_error(description + ": " + ErrnoText(error)), error_(error) {}

errno_exception::~errno_exception() = default;

namespace internal {

void NotReached(const char* file, int line) noexcept {
  try {
    ZEL_CORE_LOG(kLogCrit).addTag(kTagNotReached).format("NOT_REACHED reached at %s:%d", file, line);
  } catch (...) {
    // Logging may fail to allocate; the process ends either way.
  }
  // One write(2), no stdio buffering, so the line survives the abort.
  char text[1024];
  const int n = snprintf(text, sizeof(text), "NOT_REACHED reached at %s:%d\n", file, line);
  if (n > 0) {
    const size_t len = static_cast<size_t>(n) < sizeof(text) ? static_cast<size_t>(n) : sizeof(text) - 1;
    [[maybe_unused]] ssize_t ignored = write(STDERR_FILENO, text, len);
  }
  abort();
}

}  // namespace internal

}  // namespace zel
