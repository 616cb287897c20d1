#include "cpp/lib/common/errors.h"

#include <errno.h>

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/common/not_reached.h"
#include "support/log_capture.h"

namespace zel {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

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
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, "Holder::~Holder");
  }
}

TEST(CaughtExceptionTest, LoggedWithWhatWhenThereIsOne) {
  zel::testing::LogCapture log;
  SwallowInDestructorStyle(std::logic_error("bad state"));
  SwallowInDestructorStyle(42);
  EXPECT_THAT(log.Lines(),
              ElementsAre(HasSubstr("level=\"ERROR\" errorCode=\"CMNLIB9999\"] Exception in "
                                    "Holder::~Holder: bad state"),
                          EndsWith("errorCode=\"CMNLIB9999\"] Exception in Holder::~Holder")));
}

TEST(NotReachedDeathTest, LogsCritAndWritesFileAndLineToStderrBeforeAborting) {
  zel::testing::LogCapture log;
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
