#include "cpp/lib/net/net_error.h"

namespace zel {
namespace net {
namespace error {
namespace detail {

const char* zel_net_category::name() const noexcept { return "zel.net"; }

std::string zel_net_category::message(int value) const {
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
      return "zel.net error";
  }
}

}  // namespace detail

const boost::system::error_category& get_zel_net_category() {
  static const detail::zel_net_category category;
  return category;
}

boost::system::error_code make_error_code(zel_net_errors e) {
  return boost::system::error_code(static_cast<int>(e), get_zel_net_category());
}

}  // namespace error
}  // namespace net
}  // namespace zel
