// zel::RmqClientInterface: the application's handle on the MPA library, the
// seam between the management client (mpa_client.h) and the library's entry
// points (mpalib/net_api.h). RmqClient (rmq_client.h) is the implementation
// that forwards to those entry points; tests put their own in its place.
//
// Results are those of the entry points: Register returns the cookie id of
// the new connection (0 or above) or a negative code, and the other
// operations return 0 or a negative code.
//
// Threads: as the entry points. Every operation may be called from any
// thread, including from inside the message callback, except StopEventLoop,
// which must not run on the event-loop thread.
#ifndef ZEL_MPACLIENT_RMQ_CLIENT_INTERFACE_H_
#define ZEL_MPACLIENT_RMQ_CLIENT_INTERFACE_H_

#include "cpp/lib/common/ref_counted.h"
#include "mpalib/rmq_client_message.h"

struct bson;

namespace zel {

class RmqClientInterface : public RefCounted<RmqClientInterface, IRefCountable> {
 public:
  ~RmqClientInterface() override = default;

  RmqClientInterface(const RmqClientInterface&) = delete;
  RmqClientInterface& operator=(const RmqClientInterface&) = delete;

  // Runs the library's event loop on the calling thread; returns when it ends.
  virtual int EventLoop(void* arg) = 0;
  // Connects `appType` to the MPA at 127.0.0.1:9002 and registers it with
  // connection type `connectionType`. `callback` receives every record of
  // the connection on the event-loop thread.
  virtual int Register(const char* appId, const char* appType, int connectionType,
                       rmqClientCallback callback) = 0;
  // Closes the connection of `cookieId`; no RMQ_CLIENT_CLOSE record follows.
  virtual int CloseClient(int cookieId) = 0;
  // Sends `message` on the connection `message->cookieId`; the caller keeps
  // ownership of the record and all it points to.
  virtual int SendMessage(const rmqClientMessage* message) = 0;
  // As Register, with a finished header document (or null) and an endpoint
  // (null: 127.0.0.1:9002).
  virtual int RegisterWithEndpoint(const char* appId, const char* appType, int connectionType,
                                   const bson* headers, rmqClientCallback callback,
                                   const rmqClientEndpoint* endpoint) = 0;
  // Stops the event loop and closes every connection of the process.
  virtual int StopEventLoop() = 0;

 protected:
  RmqClientInterface() = default;
};

}  // namespace zel

#endif  // ZEL_MPACLIENT_RMQ_CLIENT_INTERFACE_H_
