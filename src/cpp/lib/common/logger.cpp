#include "cpp/lib/common/logger.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <boost/lexical_cast/try_lexical_convert.hpp>

#include "cpp/lib/common/logger_testing.h"

namespace zel {

int g_logLevel = kLogInfo;
int g_rpcLogCeiling = kLogInfo;
int g_netLogCeiling = kLogInfo;
int g_coreLogCeiling = kLogInfo;
int g_cryptoLogCeiling = kLogInfo;

namespace {

// Process-wide output settings. All are constant-initialised, so a record
// emitted by another file's static constructor before the set-up below has
// run still finds consistent values (syslog mode, component "zel-kvm").
constexpr const char* kDefaultComponent = "zel-kvm";
const char* g_component = kDefaultComponent;
int g_syslogFd = -1;
unsigned char g_udpMode = 0;
unsigned char g_consoleEcho = 0;
std::FILE* g_echoFile = nullptr;  // null: standard output
log_testing::SyslogSink g_syslogSink = nullptr;

constexpr const char* kSyslogServer = "127.0.0.1";
constexpr int kDefaultSyslogPort = 514;
constexpr const char* kNodeTypeFile = "/etc/zel_issue";

// Priorities of the set-up messages, which go to syslog(3) directly.
constexpr int kPriErr = 3;
constexpr int kPriInfo = 6;

// Facility local6 (22 << 3) plus the severity of each level.
constexpr int kLevelPriority[] = {0, 178, 179, 180, 182, 183, 183};
constexpr const char* kLevelEnvName[] = {"",     "PANIC",   "ERROR", "WARNING",
                                         "INFO", "VERBOSE", "TRIVIA"};
constexpr const char* kLevelName[] = {"",     "CRIT",    "ERROR", "WARN",
                                      "INFO", "VERBOSE", "DEBUG"};
constexpr std::size_t kLevelEnvCopy = 10;

constexpr std::size_t kLastFormatBuffer = 2097152;

void SysLog(int priority, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

void SysLog(int priority, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  if (g_syslogSink == nullptr) {
    vsyslog(priority, fmt, ap);
  } else {
    char line[1024];
    std::vsnprintf(line, sizeof line, fmt, ap);
    g_syslogSink(priority, line);
  }
  va_end(ap);
}

// Writes the decimal digits of `value` to `out` and returns their count.
std::size_t FormatDecimal(long value, char* out) {
  char digits[24];
  std::size_t n = 0;
  unsigned long v = value < 0 ? 0UL - static_cast<unsigned long>(value)
                              : static_cast<unsigned long>(value);
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  std::size_t len = 0;
  if (value < 0) out[len++] = '-';
  while (n > 0) out[len++] = digits[--n];
  return len;
}

void PutTwoDigits(char* out, int v) {
  out[0] = static_cast<char>('0' + v / 10 % 10);
  out[1] = static_cast<char>('0' + v % 10);
}

// "YYYY-MM-DDTHH:MM:SS.mmm" then "Z" for a zero offset or "+hh:mm". The
// fields are those strftime writes for "%Y-%m-%dT%H:%M:%S.###%z", with the
// three '#' replaced by the milliseconds. Returns the length; `out` needs 32
// bytes.
std::size_t FormatTimestamp(const timespec& now, const tm& t, char* out) {
  int year = t.tm_year + 1900;
  out[0] = static_cast<char>('0' + year / 1000 % 10);
  out[1] = static_cast<char>('0' + year / 100 % 10);
  PutTwoDigits(out + 2, year % 100);
  out[4] = '-';
  PutTwoDigits(out + 5, t.tm_mon + 1);
  out[7] = '-';
  PutTwoDigits(out + 8, t.tm_mday);
  out[10] = 'T';
  PutTwoDigits(out + 11, t.tm_hour);
  out[13] = ':';
  PutTwoDigits(out + 14, t.tm_min);
  out[16] = ':';
  PutTwoDigits(out + 17, t.tm_sec);
  out[19] = '.';
  out[20] = static_cast<char>('0' + now.tv_nsec / 100000000 % 10);
  out[21] = static_cast<char>('0' + now.tv_nsec / 10000000 % 10);
  out[22] = static_cast<char>('0' + now.tv_nsec / 1000000 % 10);
  long offsetMinutes = t.tm_gmtoff / 60;
  if (offsetMinutes == 0) {
    out[23] = 'Z';
    return 24;
  }
  out[23] = offsetMinutes < 0 ? '-' : '+';
  if (offsetMinutes < 0) offsetMinutes = -offsetMinutes;
  PutTwoDigits(out + 24, static_cast<int>(offsetMinutes / 60));
  out[26] = ':';
  PutTwoDigits(out + 27, static_cast<int>(offsetMinutes % 60));
  return 29;
}

// The header and structured data of one record. Short ones stay in the stack
// array; one that outgrows it moves to the heap.
class LineBuffer {
 public:
  LineBuffer() = default;
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;

  void Append(const char* s, std::size_t n) {
    if (heap_.empty() && size_ + n <= sizeof stack_) {
      std::memcpy(stack_ + size_, s, n);
      size_ += n;
      return;
    }
    if (heap_.empty()) {
      heap_.reserve(size_ + n + 1024);
      heap_.assign(stack_, size_);
    }
    heap_.append(s, n);
    size_ = heap_.size();
  }
  void Append(const char* s) { Append(s, std::strlen(s)); }
  void Append(const std::string& s) { Append(s.data(), s.size()); }

  std::size_t size() const { return size_; }
  const char* data() const { return heap_.empty() ? stack_ : heap_.data(); }
  // NUL-terminated contents.
  const char* c_str() {
    if (heap_.empty()) {
      if (size_ < sizeof stack_) {
        stack_[size_] = '\0';
        return stack_;
      }
      heap_.assign(stack_, size_);
    }
    return heap_.c_str();
  }

 private:
  char stack_[1024];
  std::size_t size_ = 0;
  std::string heap_;
};

bool IsTrimSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' ||
         c == '\r';
}

void SetComponent(const char* begin, std::size_t len) {
  char* copy = static_cast<char*>(std::malloc(len + 1));
  if (copy == nullptr) return;
  std::memcpy(copy, begin, len);
  copy[len] = '\0';
  // Only the last copy is kept; it lives until the process ends.
  if (g_component != kDefaultComponent) {
    std::free(const_cast<char*>(g_component));
  }
  g_component = copy;
}

void SetUpLevel(const char* env) {
  if (env == nullptr) return;
  char name[kLevelEnvCopy + 1];
  std::strncpy(name, env, kLevelEnvCopy);
  name[kLevelEnvCopy] = '\0';
  int level = 0;
  for (int i = kLogCrit; i <= kLogDebug; ++i) {
    if (std::strcmp(name, kLevelEnvName[i]) == 0) level = i;
  }
  if (level == 0) {
    SysLog(kPriErr, "Invalid log level %s, ignore", name);
    level = kLogInfo;
    std::strcpy(name, "INFO");
  }
  g_logLevel = level;
  SysLog(kPriInfo, "Set log level to %s", name);
}

// Lines "node-type: <name>" name the component; the last one wins. Lines that
// begin with '#' and lines that do not split into exactly two fields on ':'
// are skipped. Lines are read in pieces of at most 255 characters.
void ReadNodeType(const char* path) {
  std::FILE* f = std::fopen(path, "r");
  if (f == nullptr) return;
  char line[256];
  while (std::fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == '#') continue;
    char* colon = std::strchr(line, ':');
    if (colon == nullptr || std::strchr(colon + 1, ':') != nullptr) continue;
    *colon = '\0';
    if (std::strcmp(line, "node-type") != 0) continue;
    const char* begin = colon + 1;
    const char* end = begin + std::strlen(begin);
    while (begin < end && IsTrimSpace(*begin)) ++begin;
    while (end > begin && IsTrimSpace(end[-1])) --end;
    SetComponent(begin, static_cast<std::size_t>(end - begin));
  }
  std::fclose(f);
}

// A signed 32-bit decimal number with an optional sign, as a lexical cast
// reads it. Any number that converts is the port as it stands: the socket
// address keeps its low 16 bits, and the set-up line prints it whole.
bool ParsePort(const char* text, int* port) {
  std::int32_t value = 0;
  if (!boost::conversion::try_lexical_convert(std::string(text), value)) {
    return false;
  }
  *port = value;
  return true;
}

void SetUpOutput(const char* env) {
  int port = kDefaultSyslogPort;
  if (env != nullptr) {
    if (std::strcmp(env, "DEVLOG") == 0) {
      SysLog(kPriInfo, "Use default syslog");
      return;
    }
    if (!ParsePort(env, &port)) {
      SysLog(kPriErr,
             "Invalid UDP port provided in ZEL_SYSLOG_METHOD environment "
             "variable: %s. Using default syslog UDP port",
             env);
      port = kDefaultSyslogPort;
    }
  }
  // Close-on-exec: the commands the agent runs must not inherit the socket.
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    SysLog(kPriErr, "Failed to create UDP socket for syslog server");
    SysLog(kPriInfo, "Use default syslog");
    return;
  }
  sockaddr_in addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, kSyslogServer, &addr.sin_addr) != 1) {
    SysLog(kPriErr, "Invalid syslog server address %s", kSyslogServer);
    close(fd);
    SysLog(kPriInfo, "Use default syslog");
    return;
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
    SysLog(kPriErr, "Failed to connect UDP socket to syslog server");
    close(fd);
    SysLog(kPriInfo, "Use default syslog");
    return;
  }
  SysLog(kPriInfo, "Emit syslog via UDP %s:%d, FD: %d", kSyslogServer, port,
         fd);
  g_syslogFd = fd;
  g_udpMode = 1;
}

void SetUpLogger(const char* logLevel, const char* syslogMethod,
                 const char* nodeTypeFile) {
  SetUpLevel(logLevel);
  ReadNodeType(nodeTypeFile);
  SetUpOutput(syslogMethod);
}

// Runs before the static constructors of the rest of the program, so that
// their records already see the configured level and output.
__attribute__((constructor(101))) void SetUpLoggerBeforeMain() {
  SetUpLogger(std::getenv("ZEL_LOG_LEVEL"), std::getenv("ZEL_SYSLOG_METHOD"),
              kNodeTypeFile);
}

void AppendQuoted(LineBuffer& line, const char* key, std::size_t keyLen,
                  const char* value, std::size_t valueLen) {
  line.Append(" ", 1);
  line.Append(key, keyLen);
  line.Append("=\"", 2);
  line.Append(value, valueLen);
  line.Append("\"", 1);
}

// A tag "key:value" prints key="value"; a tag without a key prints under the
// key "tag"; an empty tag prints nothing.
void AppendTag(LineBuffer& line, const char* tag, std::size_t len) {
  const char* colon =
      static_cast<const char*>(std::memchr(tag, ':', len));
  const char* key = tag;
  std::size_t keyLen = 0;
  const char* value = tag;
  std::size_t valueLen = len;
  if (colon != nullptr) {
    keyLen = static_cast<std::size_t>(colon - tag);
    value = colon + 1;
    valueLen = len - keyLen - 1;
  }
  if (keyLen == 0) {
    if (valueLen == 0) return;
    key = "tag";
    keyLen = 3;
  }
  AppendQuoted(line, key, keyLen, value, valueLen);
}

}  // namespace

Logger::Buffer::~Buffer() {
  if (onHeap_) std::free(data_);
}

bool Logger::Buffer::Reserve(std::size_t n) {
  if (n < capacity_ - size_) return true;
  std::size_t want = size_ + n + 1;
  if (want < 2 * capacity_) want = 2 * capacity_;
  char* grown = nullptr;
  if (onHeap_) {
    grown = static_cast<char*>(std::realloc(data_, want));
  } else {
    grown = static_cast<char*>(std::malloc(want));
    if (grown != nullptr) std::memcpy(grown, data_, size_);
  }
  if (grown == nullptr) return false;
  data_ = grown;
  capacity_ = want;
  onHeap_ = true;
  return true;
}

void Logger::Buffer::Append(const char* s, std::size_t n) {
  if (!Reserve(n)) return;
  std::memcpy(data_ + size_, s, n);
  size_ += n;
}

Logger::Logger(int level) : level_(level) {}

Logger& Logger::setSubcomp(const char* tag) {
  subcomp_.assign(tag == nullptr ? "" : tag);
  return *this;
}

Logger& Logger::setS2comp(const char* tag) {
  s2comp_ = tag;
  return *this;
}

Logger& Logger::setMsgId(const char* text) {
  if (text != nullptr && *text != '\0') msgId_.assign(text);
  return *this;
}

Logger& Logger::setEntId(const char* text) {
  if (text != nullptr && *text != '\0') entId_.assign(text);
  return *this;
}

Logger& Logger::addTag(const char* text) {
  // Stored with its NUL, which separates it from the next tag.
  if (text != nullptr && *text != '\0') tags_.Append(text, std::strlen(text) + 1);
  return *this;
}

Logger& Logger::format(const char* fmt, ...) {
  if (fmt == nullptr || *fmt == '\0') return *this;
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  // The text is formatted straight into the free room of the record. Text
  // that does not fit there goes again into room made for it, as long as it
  // is shorter than the largest format buffer (2048 doubled up to 2097152);
  // longer text is dropped without a note.
  int n = std::vsnprintf(text_.end(), text_.spare(), fmt, ap);
  va_end(ap);
  if (n >= 0) {
    const std::size_t len = static_cast<std::size_t>(n);
    if (len < text_.spare()) {
      text_.Commit(len);
    } else if (len < kLastFormatBuffer && text_.Reserve(len)) {
      std::vsnprintf(text_.end(), len + 1, fmt, again);
      text_.Commit(len);
    }
  }
  va_end(again);
  return *this;
}

// The line of a record, in UDP mode (syslog mode has no header):
//   <PRI>1 TIMESTAMP HOST ZEL PID MSGID [zel@4711 comp="C" subcomp="S"
//   s2comp="L" entId="E" tid="T" level="NAME" key="value" ...] TEXT
// where the subcomp, s2comp and entId pieces and the tags appear only when
// set, MSGID is "-" when unset, and the datagram has no line end.
Logger::~Logger() {
  if (level_ < kLogCrit || level_ > kLogDebug) {
    SysLog(kPriErr, "Invalid log level %d", level_);
    return;
  }
  // Records above the process level are dropped. Building the line has no
  // effect outside this record, so the test is made before it.
  if (level_ > g_logLevel) return;
  try {
    const bool udp = g_udpMode != 0;
    const bool echo = g_consoleEcho != 0;

    char timestamp[32];
    std::size_t timestampLen = 0;
    if (udp || echo) {
      timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      tm broken;
      gmtime_r(&now.tv_sec, &broken);
      timestampLen = FormatTimestamp(now, broken, timestamp);
    }

    LineBuffer line;
    const int priority = kLevelPriority[level_];
    if (udp) {
      char number[24];
      line.Append("<", 1);
      line.Append(number, FormatDecimal(priority, number));
      line.Append(">1 ", 3);
      line.Append(timestamp, timestampLen);
      line.Append(" ", 1);
      char host[256];
      if (gethostname(host, sizeof host) != 0 || host[0] == '\0') {
        std::strcpy(host, "-");
      }
      host[sizeof host - 1] = '\0';
      line.Append(host);
      line.Append(" ZEL ", 5);
      line.Append(number, FormatDecimal(getpid(), number));
      line.Append(" ", 1);
      if (msgId_.empty()) {
        line.Append("-", 1);
      } else {
        line.Append(msgId_);
      }
      line.Append(" ", 1);
    }

    const std::size_t sdBegin = line.size();
    line.Append("[zel@4711 comp=\"");
    line.Append(g_component);
    // The quote that closes the component belongs to the subcomp piece, so
    // a record without subcomp leaves the comp value open. Collectors of
    // these logs expect that line, so it stays.
    if (!subcomp_.empty()) {
      line.Append("\" subcomp=\"");
      line.Append(subcomp_);
      line.Append("\"", 1);
    }
    if (s2comp_ != nullptr) {
      line.Append(" s2comp=\"");
      line.Append(s2comp_);
      line.Append("\"", 1);
    }
    if (!entId_.empty()) {
      line.Append(" entId=\"");
      line.Append(entId_);
      line.Append("\"", 1);
    }
    char tid[24];
    line.Append(" tid=\"");
    line.Append(tid, FormatDecimal(syscall(SYS_gettid), tid));
    line.Append("\" level=\"");
    line.Append(kLevelName[level_]);
    line.Append("\"", 1);
    for (const char* tag = tags_.data(); tag < tags_.data() + tags_.size();) {
      const std::size_t len = std::strlen(tag);
      AppendTag(line, tag, len);
      tag += len + 1;
    }
    line.Append("]", 1);
    const std::size_t sdEnd = line.size();
    line.Append(" ", 1);
    // The text stays where it is: it leaves as the second part of the same
    // datagram or syslog line.
    *text_.end() = '\0';

    if (udp) {
      iovec parts[2];
      parts[0].iov_base = const_cast<char*>(line.data());
      parts[0].iov_len = line.size();
      parts[1].iov_base = const_cast<char*>(text_.data());
      parts[1].iov_len = text_.size();
      ssize_t rc = writev(g_syslogFd, parts, 2);
      if (rc < 0) {
        int err = errno;
        SysLog(kPriErr,
               "Failed to emit message to syslog via UDP, rc: %d, FD: %d, "
               "errno: %d",
               static_cast<int>(rc), g_syslogFd, err);
      }
    } else if (g_syslogSink != nullptr) {
      std::string whole(line.data(), line.size());
      whole.append(text_.data());
      g_syslogSink(priority, whole.c_str());
    } else {
      syslog(priority, "%s%s", line.c_str(), text_.data());
    }

    if (echo) {
      std::FILE* out = g_echoFile != nullptr ? g_echoFile : stdout;
      std::fwrite(timestamp, 1, timestampLen, out);
      std::fputc(' ', out);
      std::fwrite(line.data() + sdBegin, 1, sdEnd - sdBegin, out);
      std::fputc(' ', out);
      std::fwrite(text_.data(), 1, text_.size(), out);
      std::fputc('\n', out);
      std::fflush(out);
    }
  } catch (...) {
    // Out of memory while building the line: the record is lost, as a lost
    // datagram would be. Logging never reports to its caller.
  }
}

namespace log_testing {

void SetUpLoggerForTest(const char* logLevel, const char* syslogMethod,
                        const char* nodeTypeFile) {
  if (g_syslogFd >= 0) close(g_syslogFd);
  g_syslogFd = -1;
  g_udpMode = 0;
  g_logLevel = kLogInfo;
  if (g_component != kDefaultComponent) {
    std::free(const_cast<char*>(g_component));
  }
  g_component = kDefaultComponent;
  SetUpLogger(logLevel, syslogMethod, nodeTypeFile);
}

LoggerState GetLoggerStateForTest() {
  return LoggerState{g_logLevel, g_component, g_syslogFd, g_udpMode != 0};
}

void SetSyslogSinkForTest(SyslogSink sink) { g_syslogSink = sink; }

void SetConsoleEchoForTest(std::FILE* out) {
  g_echoFile = out;
  g_consoleEcho = out != nullptr ? 1 : 0;
}

std::string FormatTimestampForTest(const std::timespec& now,
                                   const std::tm& broken) {
  char out[32];
  return std::string(out, FormatTimestamp(now, broken, out));
}

}  // namespace log_testing
}  // namespace zel
