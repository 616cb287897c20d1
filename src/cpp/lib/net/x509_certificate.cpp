#include "cpp/lib/net/x509_certificate.h"

#include <memory>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/crypto/openssl_error.h"
#include "cpp/lib/net/error_tags.h"

namespace zel {
namespace net {
namespace {

using crypto::openssl::error::LastError;

struct BioFree {
  void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

// Logs `what` with the OpenSSL error that the failed call left and returns it.
boost::system::error_code Fail(const char* tag, const char* what) {
  const boost::system::error_code ec = LastError();
  ZEL_NET_LOG(kLogError)
      .addTag(tag)
      .format("X509Certificate: %s: x%x-%s", what, static_cast<unsigned>(ec.value()),
              ec.message().c_str());
  return ec;
}

RefPtr<X509Certificate> ReadFrom(BIO* bio) {
  X509* x509 = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
  if (x509 == nullptr) {
    Fail(kTagNet1109, "PEM - failed to read X509");
    return nullptr;
  }
  return X509Certificate::Adopt(x509);
}

// Everything written to a memory BIO, as text.
boost::system::error_code Drain(BIO* bio, std::string* out) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  if (size < 0 || (size > 0 && data == nullptr)) return Fail(kTagNet1132, "BIO - failed to gets");
  out->assign(data, static_cast<size_t>(size));
  return {};
}

}  // namespace

std::string ToHex(const Sha256Digest& digest) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * digest.size());
  for (uint8_t b : digest) {
    out += kHex[b >> 4];
    out += kHex[b & 0xf];
  }
  return out;
}

RefPtr<X509Certificate> X509Certificate::Adopt(X509* x509) {
  if (x509 == nullptr) return nullptr;
  return RefPtr<X509Certificate>(new X509Certificate(x509));
}

RefPtr<X509Certificate> X509Certificate::Share(X509* x509) {
  if (x509 == nullptr) return nullptr;
  X509_up_ref(x509);
  return Adopt(x509);
}

RefPtr<X509Certificate> X509Certificate::LoadPem(const std::string& path) {
  ERR_clear_error();
  BioPtr bio(BIO_new(BIO_s_file()));
  if (!bio) {
    Fail(kTagNet1132, "BIO - failed to create new file object");
    return nullptr;
  }
  ERR_clear_error();
  if (BIO_read_filename(bio.get(), path.c_str()) <= 0) {
    Fail(kTagNet1132, "BIO - failed to read from file");
    return nullptr;
  }
  ERR_clear_error();
  return ReadFrom(bio.get());
}

RefPtr<X509Certificate> X509Certificate::FromPem(const std::string& pem) {
  ERR_clear_error();
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (!bio) {
    Fail(kTagNet1132, "BIO - failed to create new memory object");
    return nullptr;
  }
  ERR_clear_error();
  return ReadFrom(bio.get());
}

X509Certificate::~X509Certificate() { X509_free(x509_); }

bool X509Certificate::operator==(const X509Certificate& other) const {
  return x509_ == other.x509_ || X509_cmp(x509_, other.x509_) == 0;
}

boost::system::error_code X509Certificate::Sha256(Sha256Digest* out) const {
  ERR_clear_error();
  unsigned int size = 0;
  if (X509_digest(x509_, EVP_sha256(), out->data(), &size) != 1 || size != out->size()) {
    return Fail(kTagNet1111, "Failed to calculate SHA256 digest");
  }
  return {};
}

boost::system::error_code X509Certificate::Text(std::string* out) const {
  ERR_clear_error();
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) return Fail(kTagNet1132, "BIO - failed to create new memory object");
  ERR_clear_error();
  if (X509_print_ex(bio.get(), x509_, XN_FLAG_COMPAT, X509_FLAG_COMPAT) != 1) {
    return Fail(kTagNet1111, "X509 - failed to print");
  }
  return Drain(bio.get(), out);
}

boost::system::error_code X509Certificate::Pem(std::string* out) const {
  ERR_clear_error();
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) return Fail(kTagNet1132, "BIO - failed to create new memory object");
  ERR_clear_error();
  if (PEM_write_bio_X509(bio.get(), x509_) != 1) {
    return Fail(kTagNet1111, "X509 - failed to write in PEM form");
  }
  return Drain(bio.get(), out);
}

bool operator==(const PeerAuthentication& a, const PeerAuthentication& b) {
  const bool sameCert = a.certificate == b.certificate ||
                        (a.certificate && b.certificate && *a.certificate == *b.certificate);
  return sameCert && a.digest == b.digest;
}

std::string ToString(const PeerAuthentication& peer) {
  if (!peer.certificate) return "{certificate: none}";
  return "{certificate sha256 '" + (peer.digest ? ToHex(*peer.digest) : std::string()) + "'}";
}

}  // namespace net
}  // namespace zel
