#include "cpp/lib/net/crypto/ssl_ctx_settings.h"

#include <string>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/crypto/error_tags.h"
#include "cpp/lib/net/crypto/openssl_error.h"

namespace zel {
namespace crypto {
namespace {

// Throws the error that the caller has just logged.
[[noreturn]] void Throw(const boost::system::error_code& ec) {
  throw exception(std::string(ec.category().name()) + ": " + std::to_string(ec.value()) + "-" +
                  ec.message());
}

}  // namespace

void SetCipherList(SSL_CTX* ctx, const char* ciphers) {
  ERR_clear_error();
  if (SSL_CTX_set_cipher_list(ctx, ciphers) == 1) return;
  const auto ec = openssl::error::LastError();
  ZEL_CRYPTO_LOG(kLogError)
      .addTag(kTagCrypto20)
      .format("SSL_CTX: Failed to set cipher list to '%s': x%x-%s", ciphers,
              static_cast<unsigned>(ec.value()), ec.message().c_str());
  Throw(ec);
}

void SetMode(SSL_CTX* ctx, long mode) {
  ERR_clear_error();
  // SSL_CTX_set_mode returns the mode afterwards: every asked bit must be on.
  if ((SSL_CTX_set_mode(ctx, mode) & mode) == mode) return;
  const auto ec = openssl::error::LastError();
  ZEL_CRYPTO_LOG(kLogError)
      .addTag(kTagCrypto20)
      .format("SSL_CTX: Failed to set mode to x%lx: x%x-%s", mode,
              static_cast<unsigned>(ec.value()), ec.message().c_str());
  Throw(ec);
}

void SetEcdhAuto(SSL_CTX* ctx, bool enable) {
  ERR_clear_error();
  // Since OpenSSL 1.1 the curve is always chosen automatically and this call
  // only reports the flag back; it is kept so that a refusal still surfaces.
  if (SSL_CTX_set_ecdh_auto(ctx, enable ? 1 : 0) == (enable ? 1 : 0)) return;
  const auto ec = openssl::error::LastError();
  ZEL_CRYPTO_LOG(kLogError)
      .addTag(kTagCrypto20)
      .format("SSL_CTX: Failed to %s auto ecdh: x%x-%s", enable ? "enable" : "disable",
              static_cast<unsigned>(ec.value()), ec.message().c_str());
  Throw(ec);
}

}  // namespace crypto
}  // namespace zel
