// NetSecurityManager: the security contexts of one transport, by side and by
// name. It starts with a default client and a default server context built
// without certificate, trust store or digests, so that no TLS peer passes
// until a caller adds a context that trusts it.
//
//   auto manager = std::make_shared<zel::net::NetSecurityManager>();
//   manager->AddServerContext("mgmt", builder.Build());
//   SocketOptions o; o.security_context_id = "mgmt";   // "ssl://..." uses it
//
// Replacing a context does not touch sockets made with the old one: each
// socket holds its context.
//
// Threads: every operation may be called from any thread; one lock covers the
// defaults and the maps.
#ifndef ZEL_NET_NET_SECURITY_MANAGER_H_
#define ZEL_NET_NET_SECURITY_MANAGER_H_

#include <cstdint>
#include <map>
#include <string>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/security_context.h"

namespace zel {
namespace net {

class NetSecurityManager : public SecurityManager {
 public:
  // Throws zel::crypto::exception when a default context can't be built.
  NetSecurityManager();
  ~NetSecurityManager() override;

  // SecurityManager
  SecurityContextPtr GetDefaultClientContext() const override;
  SecurityContextPtr GetClientContext(const std::string& name) const override;
  SecurityContextPtr GetDefaultServerContext() const override;
  SecurityContextPtr GetServerContext(const std::string& name) const override;

  void SetDefaultClientContext(SecurityContextPtr context);
  void SetDefaultServerContext(SecurityContextPtr context);
  // A context under `name`, replacing one of that name.
  void AddClientContext(const std::string& name, SecurityContextPtr context);
  void AddServerContext(const std::string& name, SecurityContextPtr context);

  // "NetSecurityManager[<id>]".
  const std::string& name() const { return name_; }

 private:
  const std::string name_;
  mutable Mutex mutex_;
  SecurityContextPtr defaultClient_ GUARDED_BY(mutex_);
  SecurityContextPtr defaultServer_ GUARDED_BY(mutex_);
  std::map<std::string, SecurityContextPtr> client_ GUARDED_BY(mutex_);
  std::map<std::string, SecurityContextPtr> server_ GUARDED_BY(mutex_);
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_SECURITY_MANAGER_H_
