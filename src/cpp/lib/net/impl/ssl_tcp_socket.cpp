// The ssl tcp stream socket and acceptor, compiled here alone.
#include "cpp/lib/net/impl/stream_socket_impl.h"

namespace zel {
namespace net {
namespace detail {

StreamSocketPtr MakeSslTcpSocket(SocketParams params) {
  return std::make_shared<StreamSocketImpl<ssl_protocol<tcp_protocol>>>(std::move(params));
}

StreamAcceptorPtr MakeSslTcpAcceptor(uint32_t id, const Endpoint& endpoint,
                                    const AcceptorOptions& options,
                                    const boost::shared_ptr<boost::asio::io_context>& io,
                                    AcceptorMetrics metrics) {
  return std::make_shared<StreamAcceptorImpl<ssl_protocol<tcp_protocol>>>(id, endpoint, options, io,
                                                        std::move(metrics));
}

}  // namespace detail
}  // namespace net
}  // namespace zel
