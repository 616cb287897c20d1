// X509Certificate: one OpenSSL certificate, shared by reference count, with
// its SHA-256 digest and its text forms.
//
//   zel::net::X509CertificatePtr cert = zel::net::X509Certificate::LoadPem("/etc/x/cert.pem");
//   if (!cert) ...;                            // the reason is logged
//   zel::net::Sha256Digest digest;
//   if (!cert->Sha256(&digest)) trusted.insert(digest);
//
// Factories log their failure (tags NET1132 for the BIO layer, NET1109 for
// PEM parsing) and return an empty reference; the digest and the two text
// forms return a status (NET1111 logged on failure). Nothing throws.
//
// PeerAuthentication is what a TLS connection knows of its peer: the peer's
// certificate, if it sent one, and the certificate's digest.
//
// Threads: a certificate is immutable once made and may be read from any
// thread; OpenSSL's error queue is per thread.
#ifndef ZEL_NET_X509_CERTIFICATE_H_
#define ZEL_NET_X509_CERTIFICATE_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <boost/system/error_code.hpp>

#include "cpp/lib/common/ref_counted.h"

typedef struct x509_st X509;

namespace zel {
namespace net {

using Sha256Digest = std::array<uint8_t, 32>;

// 64 lower-case hexadecimal characters, no separators.
std::string ToHex(const Sha256Digest& digest);

class X509Certificate : public RefCounted<X509Certificate> {
 public:
  // Takes over the caller's reference to `x509`; null gives an empty result.
  static RefPtr<X509Certificate> Adopt(X509* x509);
  // Shares `x509` (its count is raised).
  static RefPtr<X509Certificate> Share(X509* x509);
  // The first certificate of a PEM file.
  static RefPtr<X509Certificate> LoadPem(const std::string& path);
  // The first certificate of PEM text.
  static RefPtr<X509Certificate> FromPem(const std::string& pem);

  X509Certificate(const X509Certificate&) = delete;
  X509Certificate& operator=(const X509Certificate&) = delete;

  // X509_cmp: the same certificate, not only the same object.
  bool operator==(const X509Certificate& other) const;
  X509* get() const { return x509_; }

  [[nodiscard]] boost::system::error_code Sha256(Sha256Digest* out) const;
  // X509_print_ex output.
  [[nodiscard]] boost::system::error_code Text(std::string* out) const;
  [[nodiscard]] boost::system::error_code Pem(std::string* out) const;

 private:
  explicit X509Certificate(X509* x509) : x509_(x509) {}
  ~X509Certificate() override;

  X509* const x509_;
};

using X509CertificatePtr = RefPtr<X509Certificate>;

struct PeerAuthentication {
  X509CertificatePtr certificate;
  std::optional<Sha256Digest> digest;
};

// Equal certificates (or both none) and equal digests (or both none).
bool operator==(const PeerAuthentication& a, const PeerAuthentication& b);
// "{certificate: none}" or "{certificate sha256 '<hex>'}".
std::string ToString(const PeerAuthentication& peer);

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_X509_CERTIFICATE_H_
