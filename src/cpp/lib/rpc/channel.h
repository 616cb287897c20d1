// Channel: one multiplexed stream of an RPC connection, bound to one service,
// carrying many calls; and CloseReason, why a connection or a channel ended.
//
//   auto channel = factory->CreateClientChannel(url, "orvane.zel.Echo", connection,
//                                               ChannelPriority::NORMAL);
//   channel->OpenOnClient([](const error_code& ec, const ChannelPtr& c) { ... });
//   RpcCallPtr call = channel->CreateCall(method);
//   call->Start(context, consumer);
//
// ChannelImpl (channel_impl.h) is the implementation. Every operation of a
// channel becomes an item of its op queue, which the channel scheduler runs on
// a dispatcher thread, one item at a time per channel.
//
// Threads: every operation may be called from any thread. Callbacks run on
// the scheduler's thread with no lock of the channel held.
#ifndef ZEL_RPC_CHANNEL_H_
#define ZEL_RPC_CHANNEL_H_

#include <functional>
#include <memory>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/system/error_code.hpp>

#include "cpp/lib/rpc/rpc_call.h"
#include "cpp/lib/rpc/rpc_frame.h"
#include "cpp/lib/rpc/rpc_metrics.h"
#include "cpp/lib/rpc/rpc_status.h"

namespace zel {
namespace rpc {

class Connection;
class ZelRpcMessage;

enum class CloseReason {
  UNKNOWN_REASON = 0,
  NETWORK_ERROR = 1,
  SETTINGS_TIMEOUT = 2,
  PROTOCOL_ERROR = 3,
  CLOSED_BY_REMOTE = 4,
  CLOSED_BY_USER = 5,
  SHUTDOWN = 6,
  KEEPALIVE_EXPIRED = 7,
  KEEPALIVE_ERROR = 8,
  ACK_STREAM_TIMEOUT = 9,
};

// "unknown reason", "network error", "settings timeout", "protocol error",
// "closed by remote", "closed by user", "shutdown", "keepalive expired",
// "keepalive error", "ack_stream timeout", or "<CloseReason::INVALID>".
const char* ToString(CloseReason reason);

class Channel {
 public:
  using ActiveCallback =
      std::function<void(const boost::system::error_code&, const boost::shared_ptr<Channel>&)>;
  using DownListener = std::function<void(CloseReason)>;

  virtual ~Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;

  // Server side: accepts the stream the peer opened.
  virtual void OpenOnServer() = 0;
  // Client side: opens the stream; `active` gets success when the peer
  // accepts, or an error (107, not connected) when the channel closes first.
  virtual void OpenOnClient(ActiveCallback active) = 0;
  // Sends one message on the stream, on the caller's thread.
  virtual RpcStatus Send(ZelRpcMessage& message) = 0;
  // A frame of this stream, from the connection's read path.
  virtual void Receive(const ZelRpcMessage& message) = 0;
  // Closes, telling the peer.
  virtual void Close(CloseReason reason) = 0;
  // Called once with the reason when the channel closes; at once on a
  // closed one. Replaces an earlier listener.
  virtual void SetChannelDownListener(DownListener listener) = 0;
  // A client call of `method` on this channel.
  virtual RpcCallPtr CreateCall(const RpcMethod& method) = 0;
  virtual const StreamId& GetStreamId() const = 0;
  // None once the channel is closed.
  virtual boost::shared_ptr<Connection> GetConnection() const = 0;
  virtual std::string ToString() const = 0;
  virtual const CounterSet& GetMetrics() const = 0;

 protected:
  Channel() = default;
};

using ChannelPtr = boost::shared_ptr<Channel>;

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CHANNEL_H_
