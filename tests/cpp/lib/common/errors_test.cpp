#include "cpp/lib/common/errors.h"

#include <errno.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_test_util.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/not_reached.h"

namespace zel {
namespace {

using log_test::SyslogCapture;

TEST(ErrnoTest, ExceptionAndTextCarryStrerror) {
  const errno_exception e(ENOENT, "open");
  EXPECT_STREQ(e.what(), "open: No such file or directory");
  EXPECT_EQ(e.error(), ENOENT);
  EXPECT_EQ(ErrnoText(EPIPE), "Broken pipe");
  EXPECT_EQ(ErrnoText(99999), "Unknown error 99999");
}

// What a destructor that must not throw does with a failure.
template <class Thrown>
void SwallowInDestructorStyle(const Thrown& thrown) noexcept {
  try {
    throw thrown;
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_RPC_LOG, kTagRpc9999, "Holder::~Holder");
  }
}

// Log records go to a capture instead of syslog for the test's duration.
class CapturedLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_testing::SetSyslogSinkForTest(&SyslogCapture::Sink);
    log_testing::SetUpLoggerForTest(nullptr, "DEVLOG", "/nonexistent/zel_issue");
    SyslogCapture::Take();
  }
  void TearDown() override { log_testing::SetSyslogSinkForTest(nullptr); }
};

using CaughtExceptionTest = CapturedLogTest;
using NotReachedDeathTest = CapturedLogTest;

TEST_F(CaughtExceptionTest, LoggedWithWhatWhenThereIsOne) {
  SwallowInDestructorStyle(std::logic_error("bad state"));
  SwallowInDestructorStyle(42);
  const auto lines = SyslogCapture::Take();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].second.find(
                "level=\"ERROR\" errorCode=\"RPC9999\"] Exception in Holder::~Holder: bad state"),
            std::string::npos)
      << lines[0].second;
  const std::string suffix = "errorCode=\"RPC9999\"] Exception in Holder::~Holder";
  ASSERT_GE(lines[1].second.size(), suffix.size());
  EXPECT_EQ(lines[1].second.substr(lines[1].second.size() - suffix.size()), suffix);
}

TEST_F(NotReachedDeathTest, LogsCritAndWritesFileAndLineToStderrBeforeAborting) {
  const int line = __LINE__ + 1;
  auto unreachable = [] { NOT_REACHED(); };
  // Written to standard error directly, whatever the log settings.
  EXPECT_DEATH(unreachable(),
               "NOT_REACHED reached at .*errors_test\\.cpp:" + std::to_string(line));
  // The log record, echoed to standard error in the child.
  auto logged = [] {
    log_testing::SetConsoleEchoForTest(stderr);
    NOT_REACHED();
  };
  EXPECT_DEATH(logged(), "level=\"CRIT\" errorCode=\"CMNLIB900\"\\] NOT_REACHED reached at ");
}

}  // namespace
}  // namespace zel
