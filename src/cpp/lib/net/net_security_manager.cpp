#include "cpp/lib/net/net_security_manager.h"

#include <atomic>
#include <utility>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/net/net_security_context.h"

namespace zel {
namespace net {
namespace {

std::string NextName() {
  static std::atomic<uint32_t> next{0};
  return "NetSecurityManager[" + std::to_string(next.fetch_add(1)) + "]";
}

SecurityContextPtr Find(const std::map<std::string, SecurityContextPtr>& map,
                        const std::string& name) {
  auto it = map.find(name);
  return it == map.end() ? nullptr : it->second;
}

}  // namespace

NetSecurityManager::NetSecurityManager() : name_(NextName()) {
  ZEL_NET_LOG(kLogInfo).format("%s is being created", name_.c_str());
  SecurityContextPtr client = NetSecurityContext::Builder().Build();
  SecurityContextPtr server = NetSecurityContext::Builder().Build();
  {
    MutexLock lock(mutex_);
    defaultClient_ = std::move(client);
    defaultServer_ = std::move(server);
  }
  ZEL_NET_LOG(kLogInfo).format("%s is created", name_.c_str());
}

NetSecurityManager::~NetSecurityManager() = default;

SecurityContextPtr NetSecurityManager::GetDefaultClientContext() const {
  MutexLock lock(mutex_);
  return defaultClient_;
}

SecurityContextPtr NetSecurityManager::GetClientContext(const std::string& name) const {
  MutexLock lock(mutex_);
  return Find(client_, name);
}

SecurityContextPtr NetSecurityManager::GetDefaultServerContext() const {
  MutexLock lock(mutex_);
  return defaultServer_;
}

SecurityContextPtr NetSecurityManager::GetServerContext(const std::string& name) const {
  MutexLock lock(mutex_);
  return Find(server_, name);
}

void NetSecurityManager::SetDefaultClientContext(SecurityContextPtr context) {
  MutexLock lock(mutex_);
  defaultClient_ = std::move(context);
}

void NetSecurityManager::SetDefaultServerContext(SecurityContextPtr context) {
  MutexLock lock(mutex_);
  defaultServer_ = std::move(context);
}

void NetSecurityManager::AddClientContext(const std::string& name, SecurityContextPtr context) {
  MutexLock lock(mutex_);
  client_[name] = std::move(context);
}

void NetSecurityManager::AddServerContext(const std::string& name, SecurityContextPtr context) {
  MutexLock lock(mutex_);
  server_[name] = std::move(context);
}

}  // namespace net
}  // namespace zel
