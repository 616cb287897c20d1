#include "cpp/lib/net/net_security_context.h"

#include <cstring>
#include <mutex>
#include <utility>

#include <boost/asio/ssl/context.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/crypto/openssl_error.h"
#include "cpp/lib/net/crypto/ssl_ctx_settings.h"
#include "cpp/lib/net/error_tags.h"

namespace zel {
namespace net {
namespace {

using crypto::openssl::error::LastError;
using Policy = CertificateValidationPolicy::Policy;

constexpr char kCipherList[] =
    "!aNULL:kECDH+AESGCM:ECDH+AESGCM:RSA+AESGCM:kECDH+AES:ECDH+AES:RSA+AES";

// All set at once after the cipher list. On OpenSSL 3 several of these are
// no-ops kept for their meaning (SINGLE_DH_USE, SINGLE_ECDH_USE); TLS 1.3 is
// refused as well, since the protocol is pinned to TLS 1.2.
constexpr uint64_t kOptions = SSL_OP_NO_SSLv2 | SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 |
                              SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_3 |
                              SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_SINGLE_DH_USE |
                              SSL_OP_SINGLE_ECDH_USE | SSL_OP_NO_COMPRESSION |
                              SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION | SSL_OP_NO_TICKET;

// OpenSSL 3 initialises itself and locks internally; one explicit
// initialisation keeps the error strings loaded for the log lines.
void InitOpenSsl() {
  static std::once_flag once;
  std::call_once(once, [] {
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  });
}

// The slot of an SSL_CTX that points back at its NetSecurityContext.
int ContextIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

boost::system::error_code LogFailure(const char* tag, const char* what) {
  const boost::system::error_code ec = LastError();
  ZEL_NET_LOG(kLogError)
      .addTag(tag)
      .format("%s: x%x-%s", what, static_cast<unsigned>(ec.value()), ec.message().c_str());
  return ec;
}

std::string CertificateText(X509* cert) {
  std::string text;
  if (cert != nullptr && !X509Certificate::Share(cert)->Text(&text)) return text;
  return std::string();
}

int Reject(int error, X509* cert) {
  const char* reason = X509_verify_cert_error_string(error);
  if (cert != nullptr) {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet1111)
        .format("Certificate validation failed: %i-%s\n%s", error, reason,
                CertificateText(cert).c_str());
  } else {
    ZEL_NET_LOG(kLogError)
        .addTag(kTagNet1111)
        .format("Certificate validation failed: %i-%s", error, reason);
  }
  return 0;
}

}  // namespace

const char* ToString(Policy policy) {
  switch (policy) {
    case Policy::reject:
      return "reject";
    case Policy::allow:
      return "allow";
    case Policy::allow_without_warning:
      return "allow (w/o warning)";
  }
  return "<CertificateValidationPolicy::Policy::INVALID>";
}

std::string ToString(const CertificateValidationPolicy& policy) {
  return std::string("CertificateValidationPolicy{Cert_NotYetValid: ") +
         ToString(policy.Cert_NotYetValid) + ", Cert_HasExpired: " +
         ToString(policy.Cert_HasExpired) + "}";
}

size_t Sha256DigestHash::operator()(const Sha256Digest& d) const {
  // The digest is uniformly distributed already: any 8 bytes will do.
  size_t h;
  std::memcpy(&h, d.data(), sizeof h);
  return h;
}

NetSecurityContext::NetSecurityContext(std::unique_ptr<boost::asio::ssl::context> context,
                                       CertificateValidationPolicy policy, DigestSet digests)
    : context_(std::move(context)), policy_(policy), digests_(std::move(digests)) {
  SSL_CTX* ctx = context_->native_handle();
  SSL_CTX_set_ex_data(ctx, ContextIndex(), this);
  SSL_CTX_set_verify(ctx, SSL_CTX_get_verify_mode(ctx), &NetSecurityContext::VerifyCallback);
}

NetSecurityContext::~NetSecurityContext() {
  // A straggling SSL of this context finds no validation rules and fails.
  SSL_CTX_set_ex_data(context_->native_handle(), ContextIndex(), nullptr);
}

int NetSecurityContext::VerifyCallback(int preverifyOk, X509_STORE_CTX* store) {
  auto* ssl = static_cast<SSL*>(
      X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
  SSL_CTX* ctx = ssl != nullptr ? SSL_get_SSL_CTX(ssl) : nullptr;
  const auto* self =
      ctx != nullptr ? static_cast<NetSecurityContext*>(SSL_CTX_get_ex_data(ctx, ContextIndex()))
                     : nullptr;
  if (self == nullptr) return preverifyOk;
  return self->Verify_(preverifyOk, store);
}

int NetSecurityContext::Verify_(int preverifyOk, X509_STORE_CTX* store) const {
  const int error = X509_STORE_CTX_get_error(store);
  if (error == X509_V_OK) {
    ZEL_NET_LOG(kLogDebug).format("Certificate validation passed: %s", preverifyOk ? "yes" : "no");
    return preverifyOk;
  }
  X509* cert = X509_STORE_CTX_get_current_cert(store);

  if (error == X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT) {
    if (cert == nullptr) return Reject(error, cert);
    Sha256Digest digest{};
    const boost::system::error_code ec = X509Certificate::Share(cert)->Sha256(&digest);
    if (ec) {
      ZEL_NET_LOG(kLogError)
          .addTag(kTagNet1111)
          .format("Certificate validation: couldn't calculate SHA256 digest: %i-%s\n%s",
                  ec.value(), ec.message().c_str(), CertificateText(cert).c_str());
      return Reject(error, cert);
    }
    if (digests_.count(digest) != 0) {
      ZEL_NET_LOG(kLogInfo).format(
          "Certificate validation: found SHA256 digest '%s' in local trust store",
          ToHex(digest).c_str());
      ZEL_NET_LOG(kLogInfo).format("Certificate validation passed local check");
      return 1;
    }
    ZEL_NET_LOG(kLogWarn).format(
        "Certificate validation: couldn't find SHA256 digest '%s' in local trust store",
        ToHex(digest).c_str());
    return Reject(error, cert);
  }

  const Policy* policy = nullptr;
  if (error == X509_V_ERR_CERT_NOT_YET_VALID) policy = &policy_.Cert_NotYetValid;
  if (error == X509_V_ERR_CERT_HAS_EXPIRED) policy = &policy_.Cert_HasExpired;
  if (policy == nullptr || *policy == Policy::reject) return Reject(error, cert);
  if (static_cast<int>(*policy) > 2) return preverifyOk;

  const int level = *policy == Policy::allow ? kLogWarn : kLogDebug;
  const char* reason = X509_verify_cert_error_string(error);
  if (cert != nullptr) {
    ZEL_NET_LOG(level).format("Certificate validation failed, overriding with policy '%s': %i-%s\n%s",
                              ToString(*policy), error, reason, CertificateText(cert).c_str());
  } else {
    ZEL_NET_LOG(level).format("Certificate validation failed, overriding with policy '%s': %i-%s",
                              ToString(*policy), error, reason);
  }
  return 1;
}

NetSecurityContext::Builder::Builder() {
  digests_.max_load_factor(1.0);
  digests_.rehash(16);
  InitOpenSsl();
  ERR_clear_error();
  SSL_CTX* ctx = SSL_CTX_new(TLS_method());
  if (ctx == nullptr) {
    const auto ec = LastError();
    throw crypto::exception(std::string(ec.category().name()) + ": " +
                            std::to_string(ec.value()) + "-" + ec.message());
  }
  // The asio context owns the SSL_CTX from here on.
  context_ = std::make_unique<boost::asio::ssl::context>(ctx);
  // TLS_method with both bounds at 1.2 is what the retired TLSv1_2_method was.
  if (SSL_CTX_set_min_proto_version(ctx, TLS1_2_VERSION) != 1 ||
      SSL_CTX_set_max_proto_version(ctx, TLS1_2_VERSION) != 1) {
    const auto ec = LastError();
    throw crypto::exception(std::string(ec.category().name()) + ": " +
                            std::to_string(ec.value()) + "-" + ec.message());
  }
  SSL_CTX_set_options(ctx, SSL_OP_NO_COMPRESSION);
  crypto::SetCipherList(ctx, kCipherList);
  SSL_CTX_set_options(ctx, kOptions);
  crypto::SetMode(ctx, SSL_MODE_RELEASE_BUFFERS);
  crypto::SetEcdhAuto(ctx, true);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                     SSL_CTX_get_verify_callback(ctx));
}

NetSecurityContext::Builder::~Builder() = default;

boost::system::error_code NetSecurityContext::Builder::AddCertificate(
    const X509CertificatePtr& certificate) {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder::X509TrustStore: adding certificate");
  ERR_clear_error();
  X509_STORE* store = SSL_CTX_get_cert_store(context_->native_handle());
  if (!certificate || X509_STORE_add_cert(store, certificate->get()) != 1) {
    return LogFailure(kTagNet1111,
                      "NetSecurityContext::Builder::X509TrustStore: X509 - failed to add certificate");
  }
  return {};
}

void NetSecurityContext::Builder::AddDigest(const Sha256Digest& digest) {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder: adding digest '%s'",
                               ToHex(digest).c_str());
  digests_.insert(digest);
}

boost::system::error_code NetSecurityContext::Builder::UseCertificate(
    const X509CertificatePtr& certificate) {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder: adding certificate");
  ERR_clear_error();
  if (!certificate || SSL_CTX_use_certificate(context_->native_handle(), certificate->get()) != 1) {
    return LogFailure(kTagNet1120,
                      "NetSecurityContext::Builder: SSL - failed to use certificate");
  }
  return {};
}

boost::system::error_code NetSecurityContext::Builder::UsePrivateKeyFile(const std::string& pemPath) {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder: adding private key");
  ERR_clear_error();
  EVP_PKEY* key = nullptr;
  if (BIO* bio = BIO_new_file(pemPath.c_str(), "r")) {
    key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
  }
  const bool used = key != nullptr && SSL_CTX_use_PrivateKey(context_->native_handle(), key) == 1;
  EVP_PKEY_free(key);
  if (!used) {
    return LogFailure(kTagNet1120,
                      "NetSecurityContext::Builder: SSL - failed to use private key");
  }
  return {};
}

void NetSecurityContext::Builder::SetPolicy(const CertificateValidationPolicy& policy) {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder: setting policy %s",
                               ToString(policy).c_str());
  policy_ = policy;
}

RefPtr<NetSecurityContext> NetSecurityContext::Builder::Build() {
  ZEL_NET_LOG(kLogInfo).format("NetSecurityContext::Builder: building context with %zu digest(s)",
                               digests_.size());
  return RefPtr<NetSecurityContext>(
      new NetSecurityContext(std::move(context_), policy_, std::move(digests_)));
}

}  // namespace net
}  // namespace zel
