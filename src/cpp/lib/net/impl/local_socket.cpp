// The local stream socket and acceptor, compiled here alone.
#include "cpp/lib/net/impl/stream_socket_impl.h"

namespace zel {
namespace net {
namespace detail {

ZEL_NET_INSTANTIATE_SOCKET_KIND(LOCAL);

}  // namespace detail
}  // namespace net
}  // namespace zel
