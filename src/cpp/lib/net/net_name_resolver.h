// NetNameResolver: the HostNameResolver on the event loop's asynchronous
// name lookup (getaddrinfo: /etc/hosts, then DNS, as the system is set up).
// Only IPv4 addresses are kept: IPv6 ones are logged and dropped, and a name
// with none left fails with "no data" (netdb error 4).
//
// Lookups are not cached: simultaneous requests for one name share one
// lookup, and the next request after its answer looks the name up again.
//
//   auto resolver = std::make_shared<NetNameResolver>(provider.GetIoContext());
//   resolver->Resolve("mp.example", handler);
//
// Threads: every operation may be called from any thread; lookup answers
// arrive on event-loop threads.
#ifndef ZEL_NET_NET_NAME_RESOLVER_H_
#define ZEL_NET_NET_NAME_RESOLVER_H_

#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/net/host_name_resolver.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {
namespace net {

class NetNameResolver : public HostNameResolver {
 public:
  explicit NetNameResolver(boost::shared_ptr<boost::asio::io_context> io);
  ~NetNameResolver() override;

  // HostNameResolver
  void Resolve(const std::string& host, ResolveHandler handler) override;
  void Cancel(const std::string& host) override;
  void Remove(const std::string& host) override;
  void CancelAll() override;
  void RemoveAll() override;
  void Shutdown() override;

  class impl;

 private:
  std::shared_ptr<impl> impl_;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_NAME_RESOLVER_H_
