// rpc::Connection: one RPC connection, a frame pipe over a stream connection
// of zel::net, as its channels see it. RpcConnection (rpc_connection.h) is
// the implementation.
//
// The base keeps the connection id and the count of channels that use the
// connection: when the last channel lets go, the connection closes itself
// after a while (ScheduleDeferredClose), unless a new channel comes.
//
// Threads: every operation may be called from any thread.
#ifndef ZEL_RPC_CONNECTION_H_
#define ZEL_RPC_CONNECTION_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/net/connection.h"
#include "cpp/lib/rpc/channel.h"
#include "cpp/lib/rpc/rpc_status.h"

namespace zel {
namespace rpc {

class ChannelImpl;
class ZelRpcMessage;

// Who this connection is and who the peer is, for a server call's context.
struct ConnectionLocalInfo {
  uint32_t id = 0;
  std::string local_endpoint;
  std::string remote_endpoint;
  std::vector<std::string> remote_endpoint_ids;
  std::vector<std::string> remote_services;
  std::string net_peer;
};

class Connection {
 public:
  using CloseHandler = std::function<void(CloseReason)>;

  explicit Connection(uint32_t id) : id_(id) {}
  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Queues `message` at the wire `priority` (127, 96, 64 or 32). Success
  // means queued only.
  virtual RpcStatus Send(ZelRpcMessage& message, uint32_t priority) = 0;
  virtual void RegisterChannel(const boost::shared_ptr<ChannelImpl>& channel) = 0;
  virtual void UnregisterChannel(const ChannelImpl& channel) = 0;
  // A frame was handed to a channel's queue, or taken from it: reading stops
  // while too many wait (back-pressure).
  virtual void OnFrameQueued() = 0;
  virtual void OnFrameTaken() = 0;
  virtual ConnectionLocalInfo GetLocalInfo() const = 0;
  virtual net::ConnectionPtr GetNetConnection() const = 0;
  virtual std::string GetInfo() const = 0;
  virtual void Close(CloseReason reason) = 0;
  // Stores the one close handler; false when one is set already or the
  // connection is closed. An empty handler resets it.
  virtual bool SetOnClose(CloseHandler handler) = 0;
  // Closes the connection in 300 seconds if no channel uses it by then.
  virtual void ScheduleDeferredClose() = 0;
  virtual std::string ToString() const = 0;

  uint32_t id() const { return id_; }

 protected:
  // Channels in use; the last one out schedules the deferred close.
  void ChannelTaken() { channels_.fetch_add(1); }
  void ChannelReleased() {
    if (channels_.fetch_sub(1) == 1) ScheduleDeferredClose();
  }
  int ChannelsInUse() const { return channels_.load(); }

 private:
  const uint32_t id_;
  std::atomic<int> channels_{0};
};

using ConnectionPtr = boost::shared_ptr<Connection>;

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CONNECTION_H_
