#include "cpp/lib/net/crypto/openssl_error.h"

#include <openssl/err.h>

namespace zel {
namespace crypto {
namespace openssl {
namespace error {
namespace detail {

const char* zel_net_openssl_category::name() const noexcept { return "zel.net.openssl"; }

std::string zel_net_openssl_category::message(int value) const {
  const unsigned long err = static_cast<unsigned long>(static_cast<unsigned int>(value));
  const char* library = ERR_lib_error_string(err);
  const char* reason = ERR_reason_error_string(err);
  // OpenSSL 3 keeps no function names; the middle part stays empty.
  std::string text = library != nullptr ? library : "";
  text += "::";
  text += reason != nullptr ? reason : "";
  return text;
}

}  // namespace detail

const boost::system::error_category& get_openssl_category() {
  static const detail::zel_net_openssl_category category;
  return category;
}

boost::system::error_code make_error_code(unsigned long err) {
  return boost::system::error_code(static_cast<int>(err), get_openssl_category());
}

boost::system::error_code LastError() {
  unsigned long err = ERR_get_error();
  ERR_clear_error();
  // A failure that left nothing on the queue must still read as a failure:
  // code 0 would be "no error".
  if (err == 0) err = ERR_PACK(ERR_LIB_NONE, 0, ERR_R_INTERNAL_ERROR);
  return make_error_code(err);
}

}  // namespace error
}  // namespace openssl
}  // namespace crypto
}  // namespace zel
