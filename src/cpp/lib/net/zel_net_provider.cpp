#include "cpp/lib/net/zel_net_provider.h"

#include <stdexcept>
#include <utility>

#include "cpp/lib/common/asio_dispatcher.h"

namespace zel {
namespace net {

AsioZelNetProvider::AsioZelNetProvider(boost::shared_ptr<AsioDispatcher> dispatcher)
    : dispatcher_(std::move(dispatcher)) {
  if (!dispatcher_) throw std::invalid_argument("AsioZelNetProvider: no dispatcher");
}

AsioZelNetProvider::~AsioZelNetProvider() = default;

boost::shared_ptr<Dispatcher> AsioZelNetProvider::GetDispatcher() const { return dispatcher_; }

boost::shared_ptr<boost::asio::io_context> AsioZelNetProvider::GetIoContext() const {
  return dispatcher_->GetIoContextHandle();
}

}  // namespace net
}  // namespace zel
