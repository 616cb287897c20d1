#include "cpp/lib/net/crypto/random_device.h"

#include <climits>

#include <openssl/err.h>
#include <openssl/rand.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/crypto/error_tags.h"
#include "cpp/lib/net/crypto/openssl_error.h"

namespace zel {
namespace crypto {

boost::system::error_code fips_random_device::Fill(void* buffer, std::size_t size) const {
  ERR_clear_error();
  if (size <= INT_MAX && RAND_bytes(static_cast<unsigned char*>(buffer), static_cast<int>(size)) == 1) {
    return {};
  }
  const boost::system::error_code ec = openssl::error::LastError();
  ZEL_CRYPTO_LOG(kLogError)
      .addTag(kTagCrypto10)
      .format("fips_random_device: RAND_bytes failed while generating %zu bytes: x%x-%s", size,
              static_cast<unsigned>(ec.value()), ec.message().c_str());
  return ec;
}

}  // namespace crypto
}  // namespace zel
