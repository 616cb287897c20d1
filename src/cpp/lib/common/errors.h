// Error vocabulary shared by all libraries: an exception that carries errno,
// the text of an errno value, and the logging of exceptions caught where
// nothing may throw.
//
// Error tags. Every error line carries one tag "errorCode:<family><number>";
// the families are MPA (agent and management client), CMNLIB (common
// runtime), RPC, NET, MXLIB (metrics) and CRYPTO, each with its own header
// of tags (cpp/lib/common/error_tags.h lists them). A number ending in 9999
// marks an exception caught in a destructor or another place that may not
// throw. Such a place logs with ZEL_LOG_CAUGHT_EXCEPTION:
//
//   RpcConnection::~RpcConnection() {
//     try {
//       Shutdown_();
//     } catch (...) {
//       ZEL_LOG_CAUGHT_EXCEPTION(ZEL_RPC_LOG, rpc::kTagRpc9999, "RpcConnection::~RpcConnection");
//     }
//   }
//
// which writes an ERROR line "Exception in %s: %s" with the place and what()
// of a std::exception, or "Exception in %s" for an exception of another type.
#ifndef ZEL_COMMON_ERRORS_H_
#define ZEL_COMMON_ERRORS_H_

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>

#include "cpp/lib/common/error_tags.h"
#include "cpp/lib/common/logger.h"

namespace zel {

// The strerror() text of `error`, safe to call from several threads at once.
// An unknown number gives "Unknown error <n>".
std::string ErrnoText(int error);

// A failed system call: `error` is the errno value, what() reads
// "<description>: <strerror text>", e.g. "open: No such file or directory".
class errno_exception : public std::runtime_error {
 public:
  errno_exception(int32_t error, const std::string& description);
  ~errno_exception() override;

  int32_t error() const noexcept { return error_; }

 private:
  int32_t error_;
};

}  // namespace zel

// Logs the exception being handled. Use it only inside a catch block. It
// never throws: a failure while logging is swallowed, so it is safe in
// destructors and noexcept functions. LOG_MACRO is one of the logger macros
// (ZEL_RPC_LOG, ZEL_CORE_LOG, DORN_LOG, ...), TAG the full "errorCode:..."
// text, WHERE a C string naming the function.
#define ZEL_LOG_CAUGHT_EXCEPTION(LOG_MACRO, TAG, WHERE)                              \
  do {                                                                               \
    try {                                                                            \
      try {                                                                          \
        throw;                                                                       \
      } catch (const std::exception& zelCaught_) {                                   \
        LOG_MACRO(::zel::kLogError)                                                  \
            .addTag(TAG)                                                             \
            .format("Exception in %s: %s", static_cast<const char*>(WHERE),          \
                    zelCaught_.what());                                              \
      } catch (...) {                                                                \
        LOG_MACRO(::zel::kLogError)                                                  \
            .addTag(TAG)                                                             \
            .format("Exception in %s", static_cast<const char*>(WHERE));             \
      }                                                                              \
    } catch (...) {                                                                  \
    }                                                                                \
  } while (0)

#endif  // ZEL_COMMON_ERRORS_H_
