// The management-plane client as the agent sees it.
//
// The agent talks to the management plane through one registered client per
// application type, an event loop that reads the local relay's sockets, and a
// proxy client for the RPC road. This header is the whole of what the agent's
// entry and CommunicationHandler call of that layer, so that the agent can be
// driven in tests by an in-memory client and in production by the real one
// (MpaClientLayer, mpa_client_layer.h).
//
// Threads: the layer delivers messages on its own event-loop thread, through
// the callback given to Register. SendMsg and GetCookieId may be called from
// any thread, including from inside that callback.
#ifndef DORN_CORE_MP_CLIENT_LAYER_H_
#define DORN_CORE_MP_CLIENT_LAYER_H_

#include <cstdint>
#include <string>

#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

struct rmqClientMessage;

namespace zel {
class AsioDispatcher;
}

namespace ZelDorn {

// One registered client of the management plane.
class MpClient {
 public:
  virtual ~MpClient() = default;

  // Starts the client: connects to the local relay (and from there reconnects
  // by itself) and subscribes to the proxy.
  virtual void Start() = 0;
  // Closes the connection; no reconnect follows.
  virtual void Stop() = 0;
  // The client's cookie as it stands: the current connection's, -1 before any
  // registration, or the negative code of a failed one.
  virtual int32_t GetCookieId() = 0;
  // Sends `message` on whichever road is in force. The layer copies what it
  // needs before returning. Returns 0 on success, negative on failure.
  virtual int SendMsg(rmqClientMessage* message) = 0;
};

class MpClientLayer {
 public:
  // Called on the layer's thread for every delivered message. The callee may
  // not keep the record or its pointers past the call.
  using MessageCallback = boost::function<void(rmqClientMessage*)>;

  virtual ~MpClientLayer() = default;

  // Starts the event loop that reads the relay's sockets (on the process-wide
  // "framework" work group) and prepares the proxy client.
  virtual void StartEventLoop(const std::string& clientName) = 0;
  // Stops the proxy client and the event loop and releases them.
  virtual void StopEventLoop() = 0;

  // Makes the client of `appType`. `dispatcher` runs its reconnect timers.
  // Intervals are in microseconds.
  virtual void Register(const boost::shared_ptr<zel::AsioDispatcher>& dispatcher,
                        MessageCallback callback, const std::string& appType,
                        const std::string& appId, int connectionType, uint16_t port,
                        uint64_t ackRetryMicros, uint64_t connectRetryMicros) = 0;
  // The client of `appType`, or an empty pointer when none is registered.
  virtual boost::shared_ptr<MpClient> Lookup(const std::string& appType) = 0;
  virtual void Unregister(const std::string& appType) = 0;

  // Starts the proxy client's subscription.
  virtual void StartProxyClient() = 0;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_MP_CLIENT_LAYER_H_
