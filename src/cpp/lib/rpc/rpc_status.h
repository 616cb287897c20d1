// RpcStatus: the outcome of a call or of one of its operations, a signed
// 32-bit code and a text.
//
//   RpcStatus ok = RpcStatus::Success();
//   RpcStatus gone(StatusCode::COMMUNICATION_ERROR);
//   gone.ToString() == "COMMUNICATION_ERROR"
//   RpcStatus(StatusCode::INTERNAL, "bad frame").ToString() == "INTERNAL: bad frame"
//
// Codes 0 to 15 are the wire codes of RpcStatusMsg.StatusCode; the others
// live in memory only: -1 not set, 51 CANCELED, 52 TIMEOUT, 53
// COMMUNICATION_ERROR, 54 SEND_BUFFER_FULL. On the wire a status carries its
// text, but a received status drops it: a caller never sees the peer's text.
//
// Threads: a plain value.
#ifndef ZEL_RPC_RPC_STATUS_H_
#define ZEL_RPC_RPC_STATUS_H_

#include <cstdint>
#include <string>
#include <utility>

namespace orvane {
namespace zel {
namespace rpc {
class RpcStatusMsg;
}  // namespace rpc
}  // namespace zel
}  // namespace orvane

namespace zel {
namespace rpc {

enum StatusCode : int32_t {
  NOT_SET = -1,
  SUCCESS = 0,
  UNKNOWN = 1,
  INVALID_ARGUMENT = 2,
  NOT_FOUND = 3,
  ALREADY_EXISTS = 4,
  PERMISSION_DENIED = 5,
  UNAUTHENTICATED = 6,
  RESOURCE_EXHAUSTED = 7,
  FAILED_PRECONDITION = 8,
  ABORTED = 9,
  OUT_OF_RANGE = 10,
  UNIMPLEMENTED = 11,
  INTERNAL = 12,
  UNAVAILABLE = 13,
  DATA_LOSS = 14,
  APPLICATION_ERROR = 15,
  CANCELED = 51,
  TIMEOUT = 52,
  COMMUNICATION_ERROR = 53,
  SEND_BUFFER_FULL = 54,
};

// "SUCCESS", ..., "<NOT_SET>" for -1, "<INVALID>" for a code of no name.
const char* StatusCodeName(int32_t code);

class RpcStatus {
 public:
  RpcStatus() = default;
  RpcStatus(int32_t code, std::string text = std::string())  // NOLINT: codes convert
      : code_(code), text_(std::move(text)) {}

  static RpcStatus Success() { return RpcStatus(SUCCESS); }

  int32_t code() const { return code_; }
  const std::string& text() const { return text_; }
  bool IsSet() const { return code_ != NOT_SET; }
  bool ok() const { return code_ == SUCCESS; }

  // The code's name, then ": " and the text when there is one.
  std::string ToString() const;

 private:
  int32_t code_ = NOT_SET;
  std::string text_;
};

inline bool operator==(const RpcStatus& a, const RpcStatus& b) {
  return a.code() == b.code() && a.text() == b.text();
}
inline bool operator!=(const RpcStatus& a, const RpcStatus& b) { return !(a == b); }

// To the wire: codes 0 to 15, with the text when there is one. An in-memory
// code can't travel: false, and `out` is left alone.
[[nodiscard]] bool ToWire(const RpcStatus& status, ::orvane::zel::rpc::RpcStatusMsg* out);
// From the wire: a code of 0 to 15 is kept, any other becomes UNKNOWN; the
// text is dropped.
RpcStatus FromWire(const ::orvane::zel::rpc::RpcStatusMsg& msg);

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_STATUS_H_
