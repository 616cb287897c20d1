#include "cpp/lib/rpc/rpc_status.h"

#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace zel {
namespace rpc {

const char* StatusCodeName(int32_t code) {
  static const char* const kWire[] = {
      "SUCCESS",           "UNKNOWN",       "INVALID_ARGUMENT", "NOT_FOUND",
      "ALREADY_EXISTS",    "PERMISSION_DENIED", "UNAUTHENTICATED", "RESOURCE_EXHAUSTED",
      "FAILED_PRECONDITION", "ABORTED",     "OUT_OF_RANGE",     "UNIMPLEMENTED",
      "INTERNAL",          "UNAVAILABLE",   "DATA_LOSS",        "APPLICATION_ERROR"};
  if (code >= 0 && code <= 15) return kWire[code];
  switch (code) {
    case NOT_SET:
      return "<NOT_SET>";
    case CANCELED:
      return "CANCELED";
    case TIMEOUT:
      return "TIMEOUT";
    case COMMUNICATION_ERROR:
      return "COMMUNICATION_ERROR";
    case SEND_BUFFER_FULL:
      return "SEND_BUFFER_FULL";
    default:
      return "<INVALID>";
  }
}

std::string RpcStatus::ToString() const {
  std::string out = StatusCodeName(code_);
  if (!text_.empty()) out += ": " + text_;
  return out;
}

bool ToWire(const RpcStatus& status, ::orvane::zel::rpc::RpcStatusMsg* out) {
  if (status.code() < 0 || status.code() > 15) return false;
  out->set_code(static_cast<::orvane::zel::rpc::RpcStatusMsg::StatusCode>(status.code()));
  if (!status.text().empty()) out->set_error_msg(status.text());
  return true;
}

RpcStatus FromWire(const ::orvane::zel::rpc::RpcStatusMsg& msg) {
  const int code = msg.code();
  // The peer's text stays behind on purpose.
  return RpcStatus(code >= 0 && code <= 15 ? code : UNKNOWN);
}

}  // namespace rpc
}  // namespace zel
