// Test helper: collects the agent's log records instead of sending them to
// syslog, for tests that check which lines a call writes.
#ifndef DORN_TESTS_CORE_LOG_CAPTURE_H_
#define DORN_TESTS_CORE_LOG_CAPTURE_H_

#include <mutex>
#include <string>
#include <vector>

#include "cpp/lib/common/logger_testing.h"

namespace ZelDorn {
namespace testing {

// While one LogCapture lives, every record (syslog line form) is kept.
class LogCapture {
 public:
  LogCapture() {
    zel::log_testing::SetSyslogSinkForTest(&LogCapture::Sink);
    zel::log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");
    Clear();
  }
  ~LogCapture() { zel::log_testing::SetSyslogSinkForTest(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> Lines() const {
    std::lock_guard<std::mutex> lock(Mutex());
    return Storage();
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(Mutex());
    Storage().clear();
  }
  // The number of records that contain `needle`.
  size_t Count(const std::string& needle) const {
    size_t n = 0;
    for (const std::string& line : Lines()) n += line.find(needle) != std::string::npos;
    return n;
  }

 private:
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<std::string>& Storage() {
    static std::vector<std::string> lines;
    return lines;
  }
  static void Sink(int /*priority*/, const char* line) {
    std::lock_guard<std::mutex> lock(Mutex());
    Storage().emplace_back(line);
  }
};

}  // namespace testing
}  // namespace ZelDorn

#endif  // DORN_TESTS_CORE_LOG_CAPTURE_H_
