// ZelNetProvider: where the network transport gets its event-loop objects,
// the dispatcher that runs connection steps and the io_context that runs
// socket completions. AsioZelNetProvider hands out those of an
// AsioDispatcher.
//
//   auto dispatcher = boost::make_shared<zel::AsioDispatcher>();
//   zel::net::AsioZelNetProvider provider(dispatcher);
//   dispatcher->Run(2, false);
//
// Threads: the accessors may be called from any thread.
#ifndef ZEL_NET_ZEL_NET_PROVIDER_H_
#define ZEL_NET_ZEL_NET_PROVIDER_H_

#include <boost/smart_ptr/shared_ptr.hpp>

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {

class AsioDispatcher;
class Dispatcher;

namespace net {

class ZelNetProvider {
 public:
  virtual ~ZelNetProvider() = default;
  ZelNetProvider(const ZelNetProvider&) = delete;
  ZelNetProvider& operator=(const ZelNetProvider&) = delete;

  virtual boost::shared_ptr<Dispatcher> GetDispatcher() const = 0;
  virtual boost::shared_ptr<boost::asio::io_context> GetIoContext() const = 0;

 protected:
  ZelNetProvider() = default;
};

class AsioZelNetProvider : public ZelNetProvider {
 public:
  explicit AsioZelNetProvider(boost::shared_ptr<AsioDispatcher> dispatcher);
  ~AsioZelNetProvider() override;

  // ZelNetProvider
  boost::shared_ptr<Dispatcher> GetDispatcher() const override;
  boost::shared_ptr<boost::asio::io_context> GetIoContext() const override;

 private:
  const boost::shared_ptr<AsioDispatcher> dispatcher_;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_ZEL_NET_PROVIDER_H_
