// NetSecurityContext: a TLS 1.2 context of the event loop with the peer
// validation of the network transport, made by its Builder.
//
//   NetSecurityContext::Builder b;               // TLS 1.2, ciphers, options
//   b.UseCertificate(X509Certificate::LoadPem(certFile));
//   b.UsePrivateKeyFile(keyFile);
//   b.AddDigest(peerDigest);                     // trust a self-signed peer
//   b.AddCertificate(caCert);                    // trust a chain to this CA
//   b.SetPolicy(policy);
//   zel::RefPtr<NetSecurityContext> ctx = b.Build();
//
// Every context asks the peer for a certificate and fails the handshake when
// none comes (both sides). The validation callback (see security_context.h
// for the three ways a peer is trusted) logs its decisions; a rejection is
// tagged "errorCode:NET1111" with the certificate printed.
//
// The Builder constructor throws zel::crypto::exception when OpenSSL refuses
// one of the fixed settings. The Builder's other operations return a status
// and log their failure (NET1111 for the trust store, NET1120 for the own
// certificate and key).
//
// Threads: a Builder belongs to one thread. A built context is immutable and
// shared by reference count; the validation callback runs on event-loop
// threads and only reads it.
#ifndef ZEL_NET_NET_SECURITY_CONTEXT_H_
#define ZEL_NET_NET_SECURITY_CONTEXT_H_

#include <memory>
#include <string>
#include <unordered_set>

#include <boost/system/error_code.hpp>

#include "cpp/lib/net/security_context.h"
#include "cpp/lib/net/x509_certificate.h"

typedef struct x509_store_ctx_st X509_STORE_CTX;

namespace zel {
namespace net {

struct Sha256DigestHash {
  size_t operator()(const Sha256Digest& d) const;
};
using DigestSet = std::unordered_set<Sha256Digest, Sha256DigestHash>;

class NetSecurityContext : public RefCounted<NetSecurityContext, SecurityContext> {
 public:
  class Builder;

  NetSecurityContext(const NetSecurityContext&) = delete;
  NetSecurityContext& operator=(const NetSecurityContext&) = delete;

  // SecurityContext
  boost::asio::ssl::context& native_context() override { return *context_; }
  const CertificateValidationPolicy& policy() const override { return policy_; }

  const DigestSet& digests() const { return digests_; }

  // The peer validation installed on every built context; public so that
  // tests can drive it with a store context of their own.
  static int VerifyCallback(int preverifyOk, X509_STORE_CTX* store);

 private:
  NetSecurityContext(std::unique_ptr<boost::asio::ssl::context> context,
                     CertificateValidationPolicy policy, DigestSet digests);
  ~NetSecurityContext() override;

  // Decides on one validation error of the current certificate.
  int Verify_(int preverifyOk, X509_STORE_CTX* store) const;

  const std::unique_ptr<boost::asio::ssl::context> context_;
  const CertificateValidationPolicy policy_;
  const DigestSet digests_;
};

class NetSecurityContext::Builder {
 public:
  // A TLS 1.2 context with the fixed cipher list and options; throws
  // zel::crypto::exception when OpenSSL refuses one of them.
  Builder();
  ~Builder();
  Builder(const Builder&) = delete;
  Builder& operator=(const Builder&) = delete;

  // Trust chains that lead to `certificate`.
  [[nodiscard]] boost::system::error_code AddCertificate(const X509CertificatePtr& certificate);
  // Trust a self-signed peer certificate with this SHA-256 digest.
  void AddDigest(const Sha256Digest& digest);
  // This side's own certificate and private key.
  [[nodiscard]] boost::system::error_code UseCertificate(const X509CertificatePtr& certificate);
  [[nodiscard]] boost::system::error_code UsePrivateKeyFile(const std::string& pemPath);
  void SetPolicy(const CertificateValidationPolicy& policy);
  const CertificateValidationPolicy& policy() const { return policy_; }

  // The context; the builder is empty afterwards and must not be used again.
  RefPtr<NetSecurityContext> Build();

 private:
  std::unique_ptr<boost::asio::ssl::context> context_;
  CertificateValidationPolicy policy_;
  DigestSet digests_;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_SECURITY_CONTEXT_H_
