#include "support/log_capture.h"

#include <condition_variable>
#include <mutex>

#include "cpp/lib/common/logger_testing.h"

namespace zel {
namespace testing {
namespace {

// The sink is a plain function pointer, so the records live in statics.
struct Store {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::pair<int, std::string>> records;
};

Store& TheStore() {
  static Store* store = new Store;  // never destroyed: late records from other threads stay safe
  return *store;
}

void Sink(int priority, const char* line) {
  Store& s = TheStore();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.records.emplace_back(priority, line);
  }
  s.changed.notify_all();
}

std::size_t CountLocked(const Store& s, const std::string& needle) {
  std::size_t n = 0;
  for (const auto& r : s.records) n += r.second.find(needle) != std::string::npos;
  return n;
}

}  // namespace

LogCapture::LogCapture(bool setUpLogger) {
  log_testing::SetSyslogSinkForTest(&Sink);
  if (setUpLogger) log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");
  Clear();
}

LogCapture::LogCapture(const char* logLevel) {
  log_testing::SetSyslogSinkForTest(&Sink);
  log_testing::SetUpLoggerForTest(logLevel, "DEVLOG", "/nonexistent/zel_issue");
  Clear();
}

LogCapture::~LogCapture() { log_testing::SetSyslogSinkForTest(nullptr); }

std::vector<std::pair<int, std::string>> LogCapture::Records() const {
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  return TheStore().records;
}

std::vector<std::string> LogCapture::Lines() const {
  std::vector<std::string> lines;
  for (auto& r : Records()) lines.push_back(std::move(r.second));
  return lines;
}

std::vector<std::pair<int, std::string>> LogCapture::Take() {
  std::vector<std::pair<int, std::string>> out;
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  out.swap(TheStore().records);
  return out;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  TheStore().records.clear();
}

std::size_t LogCapture::Count(const std::string& needle) const {
  std::lock_guard<std::mutex> lock(TheStore().mutex);
  return CountLocked(TheStore(), needle);
}

std::string LogCapture::Find(const std::string& needle) const {
  for (const std::string& line : Lines()) {
    if (line.find(needle) != std::string::npos) return line;
  }
  return std::string();
}

bool LogCapture::InOrder(const std::vector<std::string>& needles) const {
  std::size_t next = 0;
  for (const std::string& line : Lines()) {
    if (next < needles.size() && line.find(needles[next]) != std::string::npos) ++next;
  }
  return next == needles.size();
}

bool LogCapture::WaitFor(const std::string& needle, std::size_t count,
                         std::chrono::milliseconds timeout) const {
  Store& s = TheStore();
  std::unique_lock<std::mutex> lock(s.mutex);
  return s.changed.wait_for(lock, timeout, [&] { return CountLocked(s, needle) >= count; });
}

}  // namespace testing
}  // namespace zel
