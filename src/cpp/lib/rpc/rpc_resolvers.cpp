#include "cpp/lib/rpc/rpc_resolvers.h"

#include <atomic>

#include "cpp/lib/common/dispatcher.h"
#include "cpp/lib/rpc/connection.h"
#include "cpp/lib/rpc/rpc_error.h"

namespace zel {
namespace rpc {
namespace {

std::string NextName(const char* kind) {
  static std::atomic<uint32_t> next{0};
  return std::string(kind) + "[" + std::to_string(next.fetch_add(1)) + "]";
}

}  // namespace

bool operator==(const RpcRoute& a, const RpcRoute& b) {
  return a.connection == b.connection && a.endpoint == b.endpoint;
}

std::string ResolverText(const RpcRoute& route) {
  return route.connection ? route.connection->ToString() : route.endpoint;
}

RpcResolver::RpcResolver(const char* kind, boost::shared_ptr<Dispatcher> dispatcher)
    : RpcResolverBase(NextName(kind), Query(), "zel-rpc", &g_rpcLogCeiling),
      dispatcher_(std::move(dispatcher)) {}

void RpcResolver::Deliver(const Handler& handler, const boost::system::error_code& status,
                          const RpcRoute& value) {
  dispatcher_->Post([handler, status, value] { handler(status, value); });
}

boost::system::error_code RpcResolver::ShutDownError() const {
  return error::make_error_code(error::shut_down);
}

}  // namespace rpc
}  // namespace zel
