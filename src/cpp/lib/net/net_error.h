// The error category of the network transport, "zel.net", and its exception
// type.
//
//   handler(zel::net::error::make_error_code(zel::net::error::shut_down));
//   ec.message() == "Shut down"
//
// Most statuses the transport hands out are system error codes (ECANCELED for
// a cancelled operation, ENOTCONN, EHOSTUNREACH, ...); this category adds the
// transport's own outcomes.
#ifndef ZEL_NET_NET_ERROR_H_
#define ZEL_NET_NET_ERROR_H_

#include <stdexcept>
#include <string>

#include <boost/system/error_code.hpp>

namespace zel {
namespace net {

// A set-up fault of the network transport (a missing security context).
class exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace error {

enum zel_net_errors {
  success = 0,
  unknown = 1,
  timed_out = 2,
  // The transport, or the object asked for, has been shut down.
  shut_down = 3,
};

namespace detail {

class zel_net_category : public boost::system::error_category {
 public:
  const char* name() const noexcept override;
  std::string message(int value) const override;
};

}  // namespace detail

const boost::system::error_category& get_zel_net_category();
boost::system::error_code make_error_code(zel_net_errors e);

}  // namespace error
}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_ERROR_H_
