#include "cpp/lib/net/net_name_resolver.h"

#include <atomic>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/mutex.h"
#include "cpp/lib/net/resolver.h"

namespace zel {
namespace net {
namespace {

std::string NextName() {
  static std::atomic<uint32_t> next{0};
  return "NetNameResolver[" + std::to_string(next.fetch_add(1)) + "]";
}

// The numeric text of an address, with the scope of a scoped IPv6 address
// (the interface name on a link-local one, else the number).
std::string AddressText(const boost::asio::ip::address& address) {
  if (address.is_v6()) return address.to_v6().to_string();
  return address.to_string();
}

}  // namespace

class NetNameResolver::impl : public std::enable_shared_from_this<impl> {
 public:
  explicit impl(boost::shared_ptr<boost::asio::io_context> io)
      : name_(NextName()),
        io_(std::move(io)),
        resolver_(*io_),
        table_(name_, [this](const std::string& host) { Query_(host); }) {}

  Resolver<std::string, AddressList>& table() { return table_; }

  void Shutdown() {
    table_.Shutdown();
    MutexLock lock(mutex_);
    resolver_.cancel();
  }

 private:
  using Results = boost::asio::ip::tcp::resolver::results_type;

  void Query_(const std::string& host) {
    ZEL_NET_LOG(kLogDebug).format("%s Querying '%s'", name_.c_str(), host.c_str());
    std::weak_ptr<impl> weak = weak_from_this();
    const std::string name = name_;
    MutexLock lock(mutex_);
    // As a query of the host with an empty service asks: only for the
    // address families this host has addresses of (loopback not counted).
    resolver_.async_resolve(host, "", boost::asio::ip::tcp::resolver::address_configured,
                            [weak, name, host](const boost::system::error_code& ec, Results results) {
                              if (auto self = weak.lock()) {
                                self->OnResolved_(host, ec, results);
                              } else {
                                ZEL_NET_LOG(kLogDebug).format(
                                    "%s Ignoring resolve handler for '%s' - already destroyed",
                                    name.c_str(), host.c_str());
                              }
                            });
  }

  void OnResolved_(const std::string& host, const boost::system::error_code& ec,
                   const Results& results) {
    if (ec == boost::asio::error::operation_aborted) return;
    if (ec) return table_.Fail(host, ec);
    AddressList addresses;
    for (const auto& entry : results) {
      const boost::asio::ip::address address = entry.endpoint().address();
      if (address.is_v4()) {
        addresses.push_back(address.to_string());
      } else {
        ZEL_NET_LOG(kLogDebug).format("%s Ignoring ipv6 address '%s' of '%s'", name_.c_str(),
                                      AddressText(address).c_str(), host.c_str());
      }
    }
    if (addresses.empty()) return table_.Fail(host, boost::asio::error::no_data);
    table_.AddMapping(host, addresses);
  }

  const std::string name_;
  const boost::shared_ptr<boost::asio::io_context> io_;
  // The event loop's resolver object is not safe for concurrent calls.
  Mutex mutex_;
  boost::asio::ip::tcp::resolver resolver_ GUARDED_BY(mutex_);
  Resolver<std::string, AddressList> table_;
};

NetNameResolver::NetNameResolver(boost::shared_ptr<boost::asio::io_context> io)
    : impl_(std::make_shared<impl>(std::move(io))) {}

NetNameResolver::~NetNameResolver() { impl_->Shutdown(); }

void NetNameResolver::Resolve(const std::string& host, ResolveHandler handler) {
  impl_->table().Resolve(host, std::move(handler));
}

void NetNameResolver::Cancel(const std::string& host) { impl_->table().Cancel(host); }

void NetNameResolver::Remove(const std::string& host) { impl_->table().RemoveRequests(host); }

void NetNameResolver::CancelAll() { impl_->table().CancelAll(); }

void NetNameResolver::RemoveAll() { impl_->table().RemoveAll(); }

void NetNameResolver::Shutdown() { impl_->Shutdown(); }

}  // namespace net
}  // namespace zel
