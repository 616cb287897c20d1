// The TLS side of the network transport, as interfaces: a security context
// (an OpenSSL context with the peer validation rules) and the security
// manager that hands contexts out by name. NetSecurityContext and
// NetSecurityManager (net_security_*.h) are the implementations.
//
// A peer is trusted in three ways: its chain leads to a certificate added to
// the context's trust store; it is a self-signed certificate whose SHA-256
// digest was added to the context's digest set; or its chain has a
// certificate that is not yet or no longer valid and the validation policy
// lets that through. No host name is compared.
//
// Threads: a context is immutable once built and shared by reference count;
// the manager's operations may be called from any thread.
#ifndef ZEL_NET_SECURITY_CONTEXT_H_
#define ZEL_NET_SECURITY_CONTEXT_H_

#include <string>

#include "cpp/lib/common/ref_counted.h"

namespace boost {
namespace asio {
namespace ssl {
class context;
}  // namespace ssl
}  // namespace asio
}  // namespace boost

namespace zel {
namespace net {

// What the peer validation does with a certificate outside its validity
// dates.
struct CertificateValidationPolicy {
  enum class Policy : int {
    reject = 0,
    allow = 1,
    // Lets it through with the override logged at debug level only.
    allow_without_warning = 2,
  };

  Policy Cert_NotYetValid = Policy::reject;
  Policy Cert_HasExpired = Policy::reject;
};

// "reject", "allow", "allow (w/o warning)".
const char* ToString(CertificateValidationPolicy::Policy policy);
// "CertificateValidationPolicy{Cert_NotYetValid: reject, Cert_HasExpired: reject}".
std::string ToString(const CertificateValidationPolicy& policy);

class SecurityContext : public IRefCountable {
 public:
  // The event loop's TLS context, to make TLS streams from.
  virtual boost::asio::ssl::context& native_context() = 0;
  virtual const CertificateValidationPolicy& policy() const = 0;
};

using SecurityContextPtr = RefPtr<SecurityContext>;

class SecurityManager {
 public:
  virtual ~SecurityManager() = default;

  SecurityManager(const SecurityManager&) = delete;
  SecurityManager& operator=(const SecurityManager&) = delete;

  // An unknown name gives an empty reference.
  virtual SecurityContextPtr GetDefaultClientContext() const = 0;
  virtual SecurityContextPtr GetClientContext(const std::string& name) const = 0;
  virtual SecurityContextPtr GetDefaultServerContext() const = 0;
  virtual SecurityContextPtr GetServerContext(const std::string& name) const = 0;

 protected:
  SecurityManager() = default;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_SECURITY_CONTEXT_H_
