// The error category of the RPC framework, "zel.rpc".
//
//   handler(zel::rpc::error::make_error_code(zel::rpc::error::shut_down), ...);
//   ec.message() == "Shut down"
#ifndef ZEL_RPC_RPC_ERROR_H_
#define ZEL_RPC_RPC_ERROR_H_

#include <boost/system/error_code.hpp>

namespace zel {
namespace rpc {
namespace error {

enum zel_rpc_errors {
  success = 0,
  unknown = 1,
  timed_out = 2,
  // The transport, or the object asked for, has been shut down.
  shut_down = 3,
};

// "Success", "Unknown", "Timed out", "Shut down"; any other value
// "zel.rpc error".
const boost::system::error_category& get_zel_rpc_category();
boost::system::error_code make_error_code(zel_rpc_errors e);

}  // namespace error
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_ERROR_H_
