// Checked setters of an OpenSSL TLS context's settings. A refused setting
// logs "SSL_CTX: Failed to ..." with "errorCode:CRYPTO20" and throws
// zel::crypto::exception("<category>: <code>-<message>"): a context that
// does not get its settings must not be used.
//
// Threads: a context is set up by one thread before it is shared.
#ifndef ZEL_NET_CRYPTO_SSL_CTX_SETTINGS_H_
#define ZEL_NET_CRYPTO_SSL_CTX_SETTINGS_H_

typedef struct ssl_ctx_st SSL_CTX;

namespace zel {
namespace crypto {

void SetCipherList(SSL_CTX* ctx, const char* ciphers);
void SetMode(SSL_CTX* ctx, long mode);
void SetEcdhAuto(SSL_CTX* ctx, bool enable);

}  // namespace crypto
}  // namespace zel

#endif  // ZEL_NET_CRYPTO_SSL_CTX_SETTINGS_H_
