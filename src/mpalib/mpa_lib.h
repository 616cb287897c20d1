// ZelMpa::MpaLib: the facade over the clients of one process, their registry
// and the listener loop. One process holds one, made by NETEventLoop (see
// net_api.h), which is the only way the application reaches it.
//
// The library is started once Start() has made the registry and the
// listener, and healthy while, moreover, the listener runs.
//
// Threads. Start() runs on the thread that is to become the listener (BC
// mode) or on any thread. Init, Send, CloseClient and Stop may be called from
// any thread, including from inside a callback on the listener thread, except
// Stop, which must not run on the listener thread. Lock order: library, then
// registry, then client; the library's lock is never held across a
// connection, a send, a close or a wait for the listener.
#ifndef ZEL_MPALIB_MPA_LIB_H_
#define ZEL_MPALIB_MPA_LIB_H_

#include <functional>
#include <memory>
#include <mutex>

#include "mpalib/rmq_client_message.h"

struct bson;

namespace ZelMpa {

class MpaLibClient;
class MpaLibListener;
class MpaLibRegistry;

class MpaLib {
 public:
  // In `bcMode` Start() runs the listener loop on the calling thread.
  // `onReady` is called once the listener runs.
  explicit MpaLib(bool bcMode, std::function<void()> onReady = nullptr);
  // Stops with notify false.
  virtual ~MpaLib();

  MpaLib(const MpaLib&) = delete;
  MpaLib& operator=(const MpaLib&) = delete;

  // A new, unconnected client.
  virtual std::shared_ptr<MpaLibClient> CreateClient(const char* name, int type,
                                                     rmqClientCallback callback);

  // Makes the registry and the listener and starts the loop; in BC mode it
  // returns when the loop ends. A second call is a no-op. Throws what the
  // listener's Start throws.
  void Start();
  // Stops the listener and, on success, drops listener and registry, closing
  // every client with `notify`. Returns false when the listener did not stop.
  bool Stop(bool notify);

  // Connects and registers a client of application type `name` with
  // connection `type` (only 1 is accepted) to the MPA at `endpoint` (null:
  // 127.0.0.1:9002). `headers`, when given, is a finished document sent with
  // the registration. Returns the cookie id (>= 0) or a negative code.
  int Init(const char* name, int type, const bson* headers,
           rmqClientCallback callback, const rmqClientEndpoint* endpoint);
  // Sends `message` on the client of `message->cookieId`. A client whose send
  // fails is closed and its application receives RMQ_CLIENT_CLOSE. Returns 0
  // or a negative code; `messageIdOut`, when given, receives kMpaMessageIdSize
  // bytes of message id.
  int Send(const rmqClientMessage* message, char* messageIdOut);
  // Removes and closes the client of `cookie`. Returns 0 or a negative code.
  int CloseClient(int cookie, bool notify);

  bool IsStarted();
  bool IsHealthy();

 private:
  std::shared_ptr<MpaLibListener> listener_;  // guarded by mutex_
  std::shared_ptr<MpaLibRegistry> registry_;  // guarded by mutex_
  std::recursive_mutex mutex_;
  const char* const logPrefix_ = "MPALIB: ";
  const bool bcMode_;
  const std::function<void()> onReady_;
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_H_
