// Collects the process's log records instead of sending them to syslog, for
// tests that check which lines (and which errorCode tags) a call writes.
//
// Threads: records may arrive from any thread; every accessor takes the
// capture's lock and returns copies. At most one LogCapture lives at a time.
#ifndef ZEL_TESTS_SUPPORT_LOG_CAPTURE_H_
#define ZEL_TESTS_SUPPORT_LOG_CAPTURE_H_

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "support/wait.h"

namespace zel {
namespace testing {

class LogCapture {
 public:
  // Installs the capture as the logger's syslog sink. With `setUpLogger` the
  // logger is also set up afresh in syslog mode at INFO, with no node type
  // file, so records reach the sink whatever the environment says.
  explicit LogCapture(bool setUpLogger = true);
  // The same, with the logger set up at `logLevel` ("VERBOSE", "DEBUG", ...).
  explicit LogCapture(const char* logLevel);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() const;
  // Records with the syslog priority each was handed with.
  std::vector<std::pair<int, std::string>> Records() const;
  // Returns the records and forgets them.
  std::vector<std::pair<int, std::string>> Take();
  void Clear();

  // The number of records that contain `needle`.
  std::size_t Count(const std::string& needle) const;
  // The first record that contains `needle`, or "".
  std::string Find(const std::string& needle) const;
  // True when records containing each needle appear in this order.
  bool InOrder(const std::vector<std::string>& needles) const;
  // Waits until at least `count` records contain `needle`.
  bool WaitFor(const std::string& needle, std::size_t count = 1,
               std::chrono::milliseconds timeout = kDeadline) const;
};

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_LOG_CAPTURE_H_
