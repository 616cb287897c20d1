// Makers of the four kinds of stream sockets and acceptors. Each kind is
// compiled in a file of its own (tcp_socket.cpp, local_socket.cpp,
// ssl_tcp_socket.cpp, ssl_local_socket.cpp), so that the event loop's socket
// and TLS templates stay out of every other file and the four compile in
// parallel.
#ifndef ZEL_NET_IMPL_SOCKET_FACTORY_H_
#define ZEL_NET_IMPL_SOCKET_FACTORY_H_

#include <cstdint>
#include <optional>
#include <string_view>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/net/net_metrics.h"
#include "cpp/lib/net/security_context.h"
#include "cpp/lib/net/socket_options.h"
#include "cpp/lib/net/stream_socket.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {
namespace net {

class Endpoint;

namespace detail {

enum class SocketKind { TCP, SSL_TCP, LOCAL, SSL_LOCAL };

// The kind of a scheme: "tcp", "ssl" or "ssl-tcp", "unix", "ssl-unix".
std::optional<SocketKind> KindOf(std::string_view scheme);
inline bool IsTls(SocketKind k) { return k == SocketKind::SSL_TCP || k == SocketKind::SSL_LOCAL; }
inline bool IsLocal(SocketKind k) { return k == SocketKind::LOCAL || k == SocketKind::SSL_LOCAL; }

struct SocketParams {
  uint32_t id = 0;
  StreamSide side = StreamSide::CLIENT;
  boost::shared_ptr<boost::asio::io_context> io;
  SocketMetrics metrics;
  // TLS kinds only.
  SecurityContextPtr context;
};

// A socket in state INIT. Throws std::invalid_argument for a TLS kind without
// a context.
StreamSocketPtr MakeSocket(SocketKind kind, SocketParams params);

// An acceptor in state INIT (a local one has removed a stale socket file).
StreamAcceptorPtr MakeAcceptor(SocketKind kind, uint32_t id, const Endpoint& endpoint,
                               const AcceptorOptions& options,
                               const boost::shared_ptr<boost::asio::io_context>& io,
                               AcceptorMetrics metrics);

// One instantiation per kind, each in the kind's own file.
template <SocketKind K>
StreamSocketPtr MakeSocketOf(SocketParams params);
template <SocketKind K>
StreamAcceptorPtr MakeAcceptorOf(uint32_t id, const Endpoint& endpoint,
                                 const AcceptorOptions& options,
                                 const boost::shared_ptr<boost::asio::io_context>& io,
                                 AcceptorMetrics metrics);

}  // namespace detail
}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_IMPL_SOCKET_FACTORY_H_
