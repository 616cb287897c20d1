// Test-only access to the logger's process-wide settings. Production code
// never includes this header: the settings are fixed by static
// initialisation from ZEL_LOG_LEVEL, ZEL_SYSLOG_METHOD and /etc/zel_issue.
//
// Threads: call these only while no other thread logs.
#ifndef ZEL_COMMON_LOGGER_TESTING_H_
#define ZEL_COMMON_LOGGER_TESTING_H_

#include <cstdio>
#include <ctime>
#include <string>

namespace zel {
namespace log_testing {

// Resets the settings to their initial values (level 4, component "zel-kvm",
// no socket, syslog mode, no echo) and runs the set-up again. A null
// `logLevel` or `syslogMethod` stands for an unset variable; `nodeTypeFile`
// replaces /etc/zel_issue. A socket left by an earlier set-up is closed.
void SetUpLoggerForTest(const char* logLevel, const char* syslogMethod,
                        const char* nodeTypeFile);

struct LoggerState {
  int level;
  std::string component;
  int syslogFd;
  bool udpMode;
};
LoggerState GetLoggerStateForTest();

// Receives what would go to syslog(3): the set-up complaints, the write error
// line and the records of syslog mode. Null sends them to syslog(3) again.
using SyslogSink = void (*)(int priority, const char* line);
void SetSyslogSinkForTest(SyslogSink sink);

// Echoes every emitted record to `out`; null turns the echo off.
void SetConsoleEchoForTest(std::FILE* out);

// The record timestamp for the given instant and broken-down time (whose
// tm_gmtoff gives the zone), as the emit path writes it.
std::string FormatTimestampForTest(const std::timespec& now,
                                   const std::tm& broken);

}  // namespace log_testing
}  // namespace zel

#endif  // ZEL_COMMON_LOGGER_TESTING_H_
