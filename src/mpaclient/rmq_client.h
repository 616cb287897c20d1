// zel::RmqClient: the RmqClientInterface over the MPA library's entry points
// (mpalib/net_api.h). It holds no state; each operation is one call of the
// entry point named beside it.
//
//   zel::RefPtr<zel::RmqClientInterface> client = zel::MakeRefCounted<zel::RmqClient>();
//   int cookie = client->Register("zel", "DORN_FABRIC_APPLICATION", 1, &OnMessage);
//
// Threads: see rmq_client_interface.h.
#ifndef ZEL_MPACLIENT_RMQ_CLIENT_H_
#define ZEL_MPACLIENT_RMQ_CLIENT_H_

#include "mpaclient/rmq_client_interface.h"

namespace zel {

class RmqClient : public RmqClientInterface {
 public:
  RmqClient() = default;
  ~RmqClient() override = default;

  // RmqClientInterface
  int EventLoop(void* arg) override;                        // NETEventLoop
  int Register(const char* appId, const char* appType, int connectionType,
               rmqClientCallback callback) override;        // NETRegister, no headers or endpoint
  int CloseClient(int cookieId) override;                   // NETClose
  int SendMessage(const rmqClientMessage* message) override;  // NETSend, no id output
  int RegisterWithEndpoint(const char* appId, const char* appType, int connectionType,
                           const bson* headers, rmqClientCallback callback,
                           const rmqClientEndpoint* endpoint) override;  // NETRegister
  int StopEventLoop() override;                             // NETStop
};

}  // namespace zel

#endif  // ZEL_MPACLIENT_RMQ_CLIENT_H_
