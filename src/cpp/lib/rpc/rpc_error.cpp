#include "cpp/lib/rpc/rpc_error.h"

#include <string>

namespace zel {
namespace rpc {
namespace error {
namespace {

class ZelRpcCategory : public boost::system::error_category {
 public:
  const char* name() const noexcept override { return "zel.rpc"; }
  std::string message(int value) const override {
    switch (value) {
      case success:
        return "Success";
      case unknown:
        return "Unknown";
      case timed_out:
        return "Timed out";
      case shut_down:
        return "Shut down";
      default:
        return "zel.rpc error";
    }
  }
};

}  // namespace

const boost::system::error_category& get_zel_rpc_category() {
  static const ZelRpcCategory category;
  return category;
}

boost::system::error_code make_error_code(zel_rpc_errors e) {
  return boost::system::error_code(static_cast<int>(e), get_zel_rpc_category());
}

}  // namespace error
}  // namespace rpc
}  // namespace zel
