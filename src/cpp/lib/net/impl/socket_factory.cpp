#include "cpp/lib/net/impl/socket_factory.h"

#include <stdexcept>
#include <utility>

namespace zel {
namespace net {
namespace detail {

std::optional<SocketKind> KindOf(std::string_view scheme) {
  if (scheme == "tcp") return SocketKind::TCP;
  if (scheme == "ssl" || scheme == "ssl-tcp") return SocketKind::SSL_TCP;
  if (scheme == "unix") return SocketKind::LOCAL;
  if (scheme == "ssl-unix") return SocketKind::SSL_LOCAL;
  return std::nullopt;
}

StreamSocketPtr MakeSocket(SocketKind kind, SocketParams params) {
  if (IsTls(kind) && !params.context) throw std::invalid_argument("TLS socket without context");
  switch (kind) {
    case SocketKind::TCP:
      return MakeSocketOf<SocketKind::TCP>(std::move(params));
    case SocketKind::SSL_TCP:
      return MakeSocketOf<SocketKind::SSL_TCP>(std::move(params));
    case SocketKind::LOCAL:
      return MakeSocketOf<SocketKind::LOCAL>(std::move(params));
    case SocketKind::SSL_LOCAL:
      return MakeSocketOf<SocketKind::SSL_LOCAL>(std::move(params));
  }
  throw std::invalid_argument("unknown socket kind");
}

StreamAcceptorPtr MakeAcceptor(SocketKind kind, uint32_t id, const Endpoint& endpoint,
                               const AcceptorOptions& options,
                               const boost::shared_ptr<boost::asio::io_context>& io,
                               AcceptorMetrics metrics) {
  switch (kind) {
    case SocketKind::TCP:
      return MakeAcceptorOf<SocketKind::TCP>(id, endpoint, options, io, std::move(metrics));
    case SocketKind::SSL_TCP:
      return MakeAcceptorOf<SocketKind::SSL_TCP>(id, endpoint, options, io, std::move(metrics));
    case SocketKind::LOCAL:
      return MakeAcceptorOf<SocketKind::LOCAL>(id, endpoint, options, io, std::move(metrics));
    case SocketKind::SSL_LOCAL:
      return MakeAcceptorOf<SocketKind::SSL_LOCAL>(id, endpoint, options, io, std::move(metrics));
  }
  throw std::invalid_argument("unknown socket kind");
}

}  // namespace detail
}  // namespace net
}  // namespace zel
