// fips_random_device: random bytes from OpenSSL's generator (RAND_bytes).
//
//   zel::crypto::fips_random_device random;
//   uint8_t key[32];
//   if (auto ec = random.Fill(key, sizeof key)) { ... }   // logged already
//
// A failure is logged with "errorCode:CRYPTO10" and returned; nothing throws.
// Threads: OpenSSL's generator may be called from any thread at once.
#ifndef ZEL_NET_CRYPTO_RANDOM_DEVICE_H_
#define ZEL_NET_CRYPTO_RANDOM_DEVICE_H_

#include <cstddef>

#include <boost/system/error_code.hpp>

namespace zel {
namespace crypto {

class fips_random_device {
 public:
  [[nodiscard]] boost::system::error_code Fill(void* buffer, std::size_t size) const;
};

}  // namespace crypto
}  // namespace zel

#endif  // ZEL_NET_CRYPTO_RANDOM_DEVICE_H_
