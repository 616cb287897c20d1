#include "cpp/lib/rpc/method.h"

#include <atomic>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/call_api.h"
#include "cpp/lib/rpc/error_tags.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace zel {
namespace rpc {
namespace {

std::string Join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& s : items) out += (out.empty() ? "" : ",") + s;
  return out;
}

// Header names that fill a member of the context instead of the map. None
// does today: every received header lands in the map.
const std::unordered_map<std::string, std::string BaseContext::*>& KnownHeaders() {
  static const std::unordered_map<std::string, std::string BaseContext::*> known;
  return known;
}

}  // namespace

const char* ToString(RpcMethodType type) {
  switch (type) {
    case RMT_SIMPLE:
      return "RMT_SIMPLE";
    case RMT_CLIENT_STREAMING:
      return "RMT_CLIENT_STREAMING";
    case RMT_SERVER_STREAMING:
      return "RMT_SERVER_STREAMING";
    case RMT_BIDI_STREAMING:
      return "RMT_BIDI_STREAMING";
  }
  return "<RpcMethodType::INVALID>";
}

std::string RpcMethod::ToString() const {
  return "RpcMethod[" + name + ", " + rpc::ToString(type) + "]";
}

std::string ServerContext::ToString() const {
  return "id: " + std::to_string(connection_id) + ", pr: " + priority +
         ", remote endpoint ids:[" + Join(remote_endpoint_ids) + "], remote services:[" +
         Join(remote_services) + "], net: " + net_peer;
}

void PackContext(const ClientContext& context, ::orvane::zel::rpc::HeadersMsg* out) {
  for (const auto& [key, value] : context.headers) {
    ::orvane::zel::rpc::HeaderMsg* h = out->add_header();
    h->set_key(key);
    h->set_value(value);
  }
  if (!context.client_id.empty()) out->set_client_id(context.client_id);
  ZEL_RPC_LOG(kLogVerbose).format("Context: Successfully packed");
}

bool UnpackContext(const ::orvane::zel::rpc::HeadersMsg& in, BaseContext* out) {
  for (const ::orvane::zel::rpc::HeaderMsg& h : in.header()) {
    if (!h.has_key() || !h.has_value()) {
      ZEL_RPC_LOG(kLogError)
          .addTag(kTagRpc150)
          .format("Context: Unpacking failure - header '%s' is incomplete", h.key().c_str());
      return false;
    }
    auto known = KnownHeaders().find(h.key());
    if (known != KnownHeaders().end()) {
      std::string& member = out->*(known->second);
      if (member.empty()) member = h.value();
      continue;
    }
    // A repeated key keeps its first value.
    out->headers.emplace(h.key(), h.value());
  }
  if (in.has_client_id()) out->client_id = in.client_id();
  ZEL_RPC_LOG(kLogVerbose).format("Context: Successfully unpacked");
  return true;
}

RpcServiceRegistry::RpcServiceRegistry()
    : name_([] {
        static std::atomic<uint32_t> next{0};
        return "RpcServiceRegistry[" + std::to_string(next.fetch_add(1)) + "]";
      }()) {}

void RpcServiceRegistry::RegisterService(const std::string& service,
                                         const std::vector<RpcServiceMethod>& methods) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Registering local service %s", name_.c_str(),
                                  service.c_str());
  // Methods replaced here (and a service they hold) go after the unlock.
  std::vector<std::shared_ptr<const RpcServiceMethod>> replaced;
  MutexLock lock(mutex_);
  std::vector<std::string>& names = services_[service];
  for (const std::string& old : names) {
    auto it = methods_.find(old);
    if (it == methods_.end()) continue;
    replaced.push_back(std::move(it->second));
    methods_.erase(it);
  }
  names.clear();
  for (const RpcServiceMethod& m : methods) {
    names.push_back(m.method.name);
    methods_[m.method.name] = std::make_shared<const RpcServiceMethod>(m);
  }
}

void RpcServiceRegistry::RegisterService(const std::shared_ptr<ServiceBase>& service) {
  RegisterService(service->name(), service->BindMethods(service));
}

void RpcServiceRegistry::UnregisterService(const std::string& service) {
  ZEL_RPC_LOG(kLogVerbose).format("%s Unregistering local service %s", name_.c_str(),
                                  service.c_str());
  std::vector<std::shared_ptr<const RpcServiceMethod>> removed;
  MutexLock lock(mutex_);
  auto it = services_.find(service);
  if (it == services_.end()) return;
  for (const std::string& m : it->second) {
    auto found = methods_.find(m);
    if (found == methods_.end()) continue;
    removed.push_back(std::move(found->second));
    methods_.erase(found);
  }
  services_.erase(it);
}

std::shared_ptr<const RpcServiceMethod> RpcServiceRegistry::GetMethod(const std::string& name) {
  ZEL_RPC_LOG(kLogVerbose).format("%s GetMethod(%s)", name_.c_str(), name.c_str());
  MutexLock lock(mutex_);
  auto it = methods_.find(name);
  return it == methods_.end() ? nullptr : it->second;
}

bool RpcServiceRegistry::HasService(const std::string& name) {
  ZEL_RPC_LOG(kLogVerbose).format("%s GetService(%s)", name_.c_str(), name.c_str());
  MutexLock lock(mutex_);
  return services_.count(name) != 0;
}

std::vector<std::string> RpcServiceRegistry::ServiceNames() {
  MutexLock lock(mutex_);
  std::vector<std::string> names;
  for (const auto& entry : services_) names.push_back(entry.first);
  return names;
}

}  // namespace rpc
}  // namespace zel
