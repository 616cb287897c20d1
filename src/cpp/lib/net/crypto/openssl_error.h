// OpenSSL's packed error codes as boost::system error codes of the category
// "zel.net.openssl", whose message is "<library>:<function>:<reason>" as
// OpenSSL names them (OpenSSL 3 keeps no function names: that part is empty).
//
//   ERR_clear_error();
//   if (SSL_CTX_use_certificate(ctx, x509) != 1) {
//     boost::system::error_code ec = zel::crypto::openssl::error::LastError();
//     ... .format("... failed to use certificate: x%x-%s", ec.value(), ec.message().c_str());
//   }
//
// Threads: OpenSSL's error queue is per thread, so LastError reads the
// caller's own queue; the category itself is stateless.
#ifndef ZEL_NET_CRYPTO_OPENSSL_ERROR_H_
#define ZEL_NET_CRYPTO_OPENSSL_ERROR_H_

#include <stdexcept>
#include <string>

#include <boost/system/error_code.hpp>

namespace zel {
namespace crypto {

// The exception type of zel::crypto: a set-up fault of the TLS layer.
class exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace openssl {
namespace error {
namespace detail {

class zel_net_openssl_category : public boost::system::error_category {
 public:
  const char* name() const noexcept override;
  std::string message(int value) const override;
};

}  // namespace detail

const boost::system::error_category& get_openssl_category();

// An error code for OpenSSL's packed code `err` (ERR_get_error()).
boost::system::error_code make_error_code(unsigned long err);

// The oldest error on this thread's OpenSSL error queue as an error code
// (the queue is then emptied). A failure that left no entry reads as
// OpenSSL's "internal error", so that the result is never success.
boost::system::error_code LastError();

}  // namespace error
}  // namespace openssl
}  // namespace crypto
}  // namespace zel

#endif  // ZEL_NET_CRYPTO_OPENSSL_ERROR_H_
