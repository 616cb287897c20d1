#include "cpp/lib/common/errors.h"

#include <errno.h>

#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/not_reached.h"

namespace zel {
namespace {

std::mutex g_linesMutex;
std::vector<std::string> g_lines;

void CaptureLine(int /*priority*/, const char* line) {
  std::lock_guard<std::mutex> lock(g_linesMutex);
  g_lines.emplace_back(line);
}

// Sends log records to g_lines instead of syslog for the test's duration.
class ErrorsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_testing::SetSyslogSinkForTest(&CaptureLine);
    log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");
    g_lines.clear();
  }
  void TearDown() override { log_testing::SetSyslogSinkForTest(nullptr); }

  static std::vector<std::string> Lines() {
    std::lock_guard<std::mutex> lock(g_linesMutex);
    return g_lines;
  }
};

TEST_F(ErrorsTest, ErrnoExceptionFormatsDescriptionAndStrerror) {
  const errno_exception e(ENOENT, "open");
  EXPECT_STREQ(e.what(), "open: No such file or directory");
  EXPECT_EQ(e.error(), 2);
  // Caught as the standard base, the text survives.
  try {
    throw errno_exception(EACCES, "mkdir /x");
  } catch (const std::runtime_error& caught) {
    EXPECT_STREQ(caught.what(), "mkdir /x: Permission denied");
  }
}

TEST_F(ErrorsTest, ErrnoTextCoversUnknownNumbers) {
  EXPECT_EQ(ErrnoText(EPIPE), "Broken pipe");
  EXPECT_EQ(ErrnoText(99999), "Unknown error 99999");
}

// What a destructor that must not throw does with a failure.
void SwallowInDestructorStyle(const std::function<void()>& body) noexcept {
  try {
    body();
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_RPC_LOG, kTagRpc9999, "Holder::~Holder");
  }
}

TEST_F(ErrorsTest, CaughtStdExceptionIsLoggedWithWhat) {
  SwallowInDestructorStyle([] { throw std::logic_error("bad state"); });
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("level=\"ERROR\" errorCode=\"RPC9999\"]"), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("] Exception in Holder::~Holder: bad state"), std::string::npos)
      << lines[0];
}

TEST_F(ErrorsTest, CaughtForeignExceptionIsLoggedWithoutWhat) {
  SwallowInDestructorStyle([] { throw 42; });
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 1u);
  const std::string suffix = "] Exception in Holder::~Holder";
  ASSERT_GE(lines[0].size(), suffix.size());
  EXPECT_EQ(lines[0].substr(lines[0].size() - suffix.size()), suffix) << lines[0];
}

using NotReachedDeathTest = ErrorsTest;

TEST_F(NotReachedDeathTest, AbortsNamingFileAndLine) {
  const int line = __LINE__ + 1;
  auto unreachable = [] { NOT_REACHED(); };
  const std::string pattern =
      "NOT_REACHED reached at .*errors_test\\.cpp:" + std::to_string(line);
  EXPECT_DEATH(unreachable(), pattern);
}

TEST_F(NotReachedDeathTest, LogsCritWithItsTagBeforeAborting) {
  // The child sends its records to standard error, where the death test
  // matches them.
  auto unreachable = [] {
    log_testing::SetConsoleEchoForTest(stderr);
    NOT_REACHED();
  };
  EXPECT_DEATH(unreachable(), "level=\"CRIT\" errorCode=\"CMNLIB900\"\\] NOT_REACHED reached at ");
}

}  // namespace
}  // namespace zel
