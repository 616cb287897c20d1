#include "cpp/lib/rpc/rpc_resolvers.h"

#include <atomic>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/rpc/connection.h"
#include "cpp/lib/rpc/rpc_error.h"

namespace zel {
namespace rpc {
namespace {

// Each kind numbers its own tables.
std::atomic<uint32_t> g_nextEndpointResolver{0};
std::atomic<uint32_t> g_nextServiceResolver{0};

std::string NextName(const char* kind, std::atomic<uint32_t>& next) {
  return std::string(kind) + "[" + std::to_string(next.fetch_add(1)) + "]";
}

}  // namespace

bool operator==(const RpcRoute& a, const RpcRoute& b) {
  return a.connection == b.connection && a.endpoint == b.endpoint;
}

std::string ResolverText(const RpcRoute& route) {
  return route.connection ? route.connection->ToString() : route.endpoint;
}

RpcResolver::RpcResolver(std::string name, boost::shared_ptr<Dispatcher> dispatcher)
    : RpcResolverBase(std::move(name), Query(), "zel-rpc", &g_rpcLogCeiling),
      dispatcher_(std::move(dispatcher)) {}

void RpcResolver::Deliver(const Handler& handler, const boost::system::error_code& status,
                          const RpcRoute& value) {
  dispatcher_->Post([handler, status, value] { handler(status, value); });
}

RpcEndpointResolver::RpcEndpointResolver(boost::shared_ptr<Dispatcher> dispatcher)
    : RpcResolver(NextName("RpcEndpointResolver", g_nextEndpointResolver), std::move(dispatcher)) {}

RpcServiceResolver::RpcServiceResolver(boost::shared_ptr<Dispatcher> dispatcher)
    : RpcResolver(NextName("RpcServiceResolver", g_nextServiceResolver), std::move(dispatcher)) {}

boost::system::error_code RpcResolver::ShutDownError() const {
  return error::make_error_code(error::shut_down);
}

}  // namespace rpc
}  // namespace zel
