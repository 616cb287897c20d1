// The two name tables of an RPC transport, on the generic Resolver of
// cpp/lib/net/resolver.h with stored answers (no ageing):
//   RpcEndpointResolver  endpoint id  -> route ("zel://<id>")
//   RpcServiceResolver   service name -> route ("service://<name>")
// A route is a connection that reaches the name, or an endpoint to connect
// to. What peers announce in their settings fills the tables; a gateway
// connection becomes the default answer for every name without a mapping.
//
//   RpcServiceResolver services(dispatcher);
//   services.Resolve("orvane.zel.Echo", [](const error_code& ec, const RpcRoute& r) {...});
//   services.AddMapping("orvane.zel.Echo", RpcRoute{"", connection});  // answers
//
// Threads: any thread; answers are posted to the dispatcher, never run
// inline. After Shutdown every request fails with "Shut down" (zel.rpc).
#ifndef ZEL_RPC_RPC_RESOLVERS_H_
#define ZEL_RPC_RPC_RESOLVERS_H_

#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/net/resolver.h"

namespace zel {

class Dispatcher;

namespace rpc {

class Connection;

struct RpcRoute {
  // An endpoint URI to connect to, when there is no connection.
  std::string endpoint;
  boost::shared_ptr<Connection> connection;
};

bool operator==(const RpcRoute& a, const RpcRoute& b);
inline bool operator!=(const RpcRoute& a, const RpcRoute& b) { return !(a == b); }
// The connection's printed form, or the endpoint.
std::string ResolverText(const RpcRoute& route);

using RpcResolverBase =
    Resolver<std::string, RpcRoute, std::equal_to<std::string>,
             ResolverPolicy<policy::threading::Locked, policy::caching::STORE>>;

// A resolver whose answers go through the dispatcher.
class RpcResolver : public RpcResolverBase {
 public:
  RpcResolver(std::string name, boost::shared_ptr<Dispatcher> dispatcher);

 protected:
  void Deliver(const Handler& handler, const boost::system::error_code& status,
               const RpcRoute& value) override;
  boost::system::error_code ShutDownError() const override;

 private:
  const boost::shared_ptr<Dispatcher> dispatcher_;
};

// "RpcEndpointResolver[<n>]".
class RpcEndpointResolver : public RpcResolver {
 public:
  explicit RpcEndpointResolver(boost::shared_ptr<Dispatcher> dispatcher);
};

// "RpcServiceResolver[<n>]".
class RpcServiceResolver : public RpcResolver {
 public:
  explicit RpcServiceResolver(boost::shared_ptr<Dispatcher> dispatcher);
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_RESOLVERS_H_
