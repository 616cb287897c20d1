// TLS for RPC tests: a security manager whose default client and server
// contexts use one self-signed certificate and trust the peer's by digest.
#ifndef ZEL_TESTS_CPP_LIB_RPC_RPC_TLS_H_
#define ZEL_TESTS_CPP_LIB_RPC_RPC_TLS_H_

#include <memory>
#include <string>

#include "cpp/lib/net/net_security_context.h"
#include "cpp/lib/net/net_security_manager.h"
#include "cpp/lib/net/x509_certificate.h"

namespace zel {
namespace rpc {
namespace testing {

// None when a file does not load.
inline std::shared_ptr<net::NetSecurityManager> PinnedTls(const std::string& cert,
                                                          const std::string& key,
                                                          const std::string& peerCert) {
  net::X509CertificatePtr peer = net::X509Certificate::LoadPem(peerCert);
  net::Sha256Digest digest{};
  if (!peer || peer->Sha256(&digest)) return nullptr;
  net::NetSecurityContext::Builder b;
  if (b.UseCertificate(net::X509Certificate::LoadPem(cert)) || b.UsePrivateKeyFile(key)) {
    return nullptr;
  }
  b.AddDigest(digest);
  auto context = b.Build();
  if (!context) return nullptr;
  auto manager = std::make_shared<net::NetSecurityManager>();
  manager->SetDefaultClientContext(context);
  manager->SetDefaultServerContext(context);
  return manager;
}

}  // namespace testing
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_RPC_RPC_TLS_H_
