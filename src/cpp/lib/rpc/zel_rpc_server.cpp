#include "cpp/lib/rpc/zel_rpc_server.h"

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"

namespace zel {
namespace rpc {

ZelRpcServer::ZelRpcServer(std::shared_ptr<ZelRpcProvider> provider, Endpoints endpoints)
    : provider_(std::move(provider)), endpoints_(std::move(endpoints)) {
  ZEL_RPC_LOG(kLogVerbose).format("ZelRpcServer: is being created");
}

ZelRpcServer::~ZelRpcServer() { ZEL_RPC_LOG(kLogVerbose).format("ZelRpcServer: is being destroyed"); }

void ZelRpcServer::Start() {
  MutexLock lock(mutex_);
  if (started_) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc500).format("ZelRpcServer: already started");
    return;
  }
  started_ = true;
  ZEL_RPC_LOG(kLogInfo).format("ZelRpcServer: starting");
  for (const auto& [endpoint, options] : endpoints_) {
    const boost::system::error_code ec =
        provider_->GetTransport()->Listen(endpoint, options, nullptr);
    if (ec) {
      ZEL_RPC_LOG(kLogError).format("ZelRpcServer: can't listen on %s: %s", endpoint.c_str(),
                                    ec.message().c_str());
    }
  }
  ZEL_RPC_LOG(kLogInfo).format("ZelRpcServer: started accepting connections");
}

void ZelRpcServer::Stop() {
  ZEL_RPC_LOG(kLogError).addTag(kTagRpc501).format("ZelRpcServer: stop is not implemented!");
}

}  // namespace rpc
}  // namespace zel
