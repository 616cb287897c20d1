// The local stream socket and acceptor, compiled here alone.
#include "cpp/lib/net/impl/stream_socket_impl.h"

namespace zel {
namespace net {
namespace detail {

StreamSocketPtr MakeLocalSocket(SocketParams params) {
  return std::make_shared<StreamSocketImpl<local_protocol>>(std::move(params));
}

StreamAcceptorPtr MakeLocalAcceptor(uint32_t id, const Endpoint& endpoint,
                                   const AcceptorOptions& options,
                                   const boost::shared_ptr<boost::asio::io_context>& io,
                                   AcceptorMetrics metrics) {
  return std::make_shared<StreamAcceptorImpl<local_protocol>>(id, endpoint, options, io,
                                                        std::move(metrics));
}

}  // namespace detail
}  // namespace net
}  // namespace zel
