// Error tags of the "CRYPTO" family (random bytes and TLS context settings);
// see cpp/lib/common/error_tags.h for the families.
#ifndef ZEL_NET_CRYPTO_ERROR_TAGS_H_
#define ZEL_NET_CRYPTO_ERROR_TAGS_H_

namespace zel {
namespace crypto {

// RAND_bytes failed.
inline constexpr char kTagCrypto10[] = "errorCode:CRYPTO10";
// A TLS context setting (cipher list, mode, ECDH curve choice) was refused.
inline constexpr char kTagCrypto20[] = "errorCode:CRYPTO20";

}  // namespace crypto
}  // namespace zel

#endif  // ZEL_NET_CRYPTO_ERROR_TAGS_H_
