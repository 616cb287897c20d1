#include "cpp/lib/rpc/call_api.h"

#include "cpp/lib/common/logger.h"

namespace zel {
namespace rpc {
namespace detail {

RpcStatus Guarded(const char* what, const std::string& name, const char* tag,
                  const std::function<void()>& fn) {
  try {
    fn();
    return RpcStatus::Success();
  } catch (const std::exception& e) {
    ZEL_RPC_LOG(kLogError).addTag(tag).format("%s %s: %s", what, name.c_str(), e.what());
  } catch (...) {
    ZEL_RPC_LOG(kLogError).addTag(tag).format("%s %s", what, name.c_str());
  }
  return RpcStatus(APPLICATION_ERROR);
}

RpcStatus ParseFailure(std::size_t bytes, const std::string& name) {
  ZEL_RPC_LOG(kLogError)
      .addTag(kTagRpc400)
      .format("Failed to parse payload (%zu bytes) for %s", bytes, name.c_str());
  return RpcStatus(DATA_LOSS);
}

RpcStatus NoObserver(const std::string& name) {
  ZEL_RPC_LOG(kLogError)
      .addTag(kTagRpc106)
      .format("Service method implementation returned no observer for %s", name.c_str());
  return RpcStatus(APPLICATION_ERROR);
}

}  // namespace detail

std::vector<RpcServiceMethod> ServiceBase::BindMethods(
    const std::shared_ptr<ServiceBase>& self) const {
  std::vector<RpcServiceMethod> bound;
  for (const Entry& e : methods_) {
    bound.push_back({e.method, std::make_shared<server::detail::BoundMethodHandler>(e.make, self)});
  }
  return bound;
}

}  // namespace rpc
}  // namespace zel
