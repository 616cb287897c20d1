// One log record per Logger object: built on the stack, filled through chained
// setters, emitted by its destructor through syslog(3) or as one RFC 5424 UDP
// datagram.
//
// Always log through the macros below: they test the level before a record is
// constructed, so a dropped statement is one compare and branch, allocates
// nothing and evaluates none of its arguments.
//
//   DORN_LOG(zel::kLogError).addTag("errorCode:MPA30008")
//       .format("Error occurred while loading properties file %s", path);
//   ZEL_RPC_LOG(zel::kLogInfo).format("channel %s opened", name);
//
// Threads: the process-wide settings are written once during static
// initialisation (before main) and read without a lock afterwards. A record
// belongs to the thread that built it; emitting takes no lock, because a
// syslog() call and a datagram write() are each atomic per line.
#ifndef ZEL_COMMON_LOGGER_H_
#define ZEL_COMMON_LOGGER_H_

#include <cstddef>
#include <string>

namespace zel {

// Record levels. A record of level N is emitted when the process level is >= N.
constexpr int kLogCrit = 1;
constexpr int kLogError = 2;
constexpr int kLogWarn = 3;
constexpr int kLogInfo = 4;
constexpr int kLogVerbose = 5;
constexpr int kLogDebug = 6;

// The process log level, 4 (INFO) unless ZEL_LOG_LEVEL says otherwise.
extern int g_logLevel;

// Ceilings of the libraries that have one; a library record of level N needs
// ceiling >= N as well as g_logLevel >= N. Nothing in the program raises them,
// so VERBOSE and DEBUG lines of these libraries stay off.
extern int g_rpcLogCeiling;
extern int g_netLogCeiling;
extern int g_coreLogCeiling;
extern int g_cryptoLogCeiling;

class Logger {
 public:
  explicit Logger(int level);
  // Emits the record; see logger.cpp for the exact line layout.
  virtual ~Logger();

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  Logger& setSubcomp(const char* tag);
  // Stores the pointer only: `tag` must be a string literal or otherwise
  // outlive the record.
  Logger& setS2comp(const char* tag);
  // A null or empty text leaves the field as it is.
  Logger& setMsgId(const char* text);
  Logger& setEntId(const char* text);
  Logger& addTag(const char* text);
  Logger& addTag(const std::string& text) { return addTag(text.c_str()); }
  // Appends printf-formatted text. Text of 2 MiB or more is dropped whole.
  Logger& format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

 private:
  // Bytes kept in the record itself up to a capacity that covers ordinary
  // statements, so that building one does not allocate; longer contents move
  // to the heap.
  class Buffer {
   public:
    Buffer(char* storage, std::size_t capacity)
        : data_(storage), capacity_(capacity) {}
    ~Buffer();
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    const char* data() const { return data_; }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    // Room after the contents, including the place of a terminating NUL.
    char* end() { return data_ + size_; }
    std::size_t spare() const { return capacity_ - size_; }
    // Makes spare() at least n + 1; false when memory runs out.
    bool Reserve(std::size_t n);
    // Takes n bytes written at end() into the contents.
    void Commit(std::size_t n) { size_ += n; }
    void Append(const char* s, std::size_t n);

   private:
    char* data_;
    std::size_t size_ = 0;
    std::size_t capacity_;
    bool onHeap_ = false;
  };

  static constexpr std::size_t kInlineText = 512;
  static constexpr std::size_t kInlineTags = 128;

  int level_;
  std::string msgId_;
  std::string entId_;
  // Tags one after another, each ended by a NUL.
  Buffer tags_{tagStorage_, kInlineTags};
  Buffer text_{textStorage_, kInlineText};
  std::string subcomp_;
  const char* s2comp_ = nullptr;
  char tagStorage_[kInlineTags];
  char textStorage_[kInlineText];
};

namespace log_internal {
// Turns the logging expression into void so that it fits the ternary of the
// macros. operator& binds more loosely than the member calls of the chain.
struct Voidify {
  void operator&(Logger&) const {}
};
}  // namespace log_internal

}  // namespace zel

#define ZEL_LOG_IF(cond, lvl) \
  !(cond) ? (void)0 : ::zel::log_internal::Voidify() & ::zel::Logger(lvl)

// Plain record with no component tag.
#define ZEL_LOG(lvl) ZEL_LOG_IF(::zel::g_logLevel >= (lvl), (lvl))

// Agent and client code: a sub-component tag.
#define ZEL_SUBCOMP_LOG(tag, lvl) ZEL_LOG(lvl).setSubcomp(tag)
#define DORN_LOG(lvl) ZEL_SUBCOMP_LOG("zeldorn", lvl)
#define MPA_CLIENT_LOG(lvl) ZEL_SUBCOMP_LOG("mpa-client", lvl)
#define TNPROXY_CLIENT_LOG(lvl) ZEL_SUBCOMP_LOG("tnproxy-client", lvl)
#define MPALIB_LOG(lvl) ZEL_SUBCOMP_LOG("mpalib", lvl)

// Library code: a second-level component tag, and for four libraries a ceiling.
#define ZEL_LIB_LOG(ceiling, tag, lvl)                                        \
  ZEL_LOG_IF((ceiling) >= (lvl) && ::zel::g_logLevel >= (lvl), (lvl)) \
      .setS2comp(tag)
#define ZEL_RPC_LOG(lvl) ZEL_LIB_LOG(::zel::g_rpcLogCeiling, "zel-rpc", lvl)
#define ZEL_NET_LOG(lvl) ZEL_LIB_LOG(::zel::g_netLogCeiling, "zel-net", lvl)
#define ZEL_CORE_LOG(lvl) ZEL_LIB_LOG(::zel::g_coreLogCeiling, "zel-core", lvl)
#define ZEL_CRYPTO_LOG(lvl) \
  ZEL_LIB_LOG(::zel::g_cryptoLogCeiling, "zel-crypto", lvl)
#define ZEL_METRICS_LOG(lvl) ZEL_LOG(lvl).setS2comp("zel-metrics")

#endif  // ZEL_COMMON_LOGGER_H_
