// HostNameResolver: turns host names into IPv4 address texts for the stream
// connections. NetNameResolver (net_name_resolver.h) is the implementation.
//
//   resolver->Resolve("mp.example", [](const boost::system::error_code& ec,
//                                      const std::vector<std::string>& addresses) {
//     // addresses: {"10.0.0.5", "10.0.0.6"}, in the order the system gave
//   });
//
// The handler gets ECANCELED after Cancel, "Shut down" (zel.net) once the
// resolver is shut down, or the lookup's error. It may run on the calling
// thread (an answer known at once) or on an event-loop thread, never with a
// lock of the resolver held: a caller that holds a lock of its own while it
// asks must not take that lock again in the handler.
//
// Threads: every operation may be called from any thread.
#ifndef ZEL_NET_HOST_NAME_RESOLVER_H_
#define ZEL_NET_HOST_NAME_RESOLVER_H_

#include <functional>
#include <string>
#include <vector>

#include <boost/system/error_code.hpp>

namespace zel {
namespace net {

using AddressList = std::vector<std::string>;
using ResolveHandler =
    std::function<void(const boost::system::error_code& status, const AddressList& addresses)>;

class HostNameResolver {
 public:
  virtual ~HostNameResolver() = default;
  HostNameResolver(const HostNameResolver&) = delete;
  HostNameResolver& operator=(const HostNameResolver&) = delete;

  virtual void Resolve(const std::string& host, ResolveHandler handler) = 0;
  // The waiting requests of `host` get ECANCELED; a late answer is dropped.
  virtual void Cancel(const std::string& host) = 0;
  // The waiting requests of `host` are dropped without an answer.
  virtual void Remove(const std::string& host) = 0;
  virtual void CancelAll() = 0;
  virtual void RemoveAll() = 0;
  // From here on every request fails at once with "Shut down".
  virtual void Shutdown() = 0;

 protected:
  HostNameResolver() = default;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_HOST_NAME_RESOLVER_H_
