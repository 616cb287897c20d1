#include "mpaclient/rmq_client.h"

#include "mpalib/net_api.h"

namespace zel {

int RmqClient::EventLoop(void* arg) { return NETEventLoop(arg); }

int RmqClient::Register(const char* appId, const char* appType, int connectionType,
                        rmqClientCallback callback) {
  return NETRegister(appId, appType, connectionType, nullptr, callback, nullptr);
}

int RmqClient::CloseClient(int cookieId) { return NETClose(cookieId); }

int RmqClient::SendMessage(const rmqClientMessage* message) { return NETSend(message, nullptr); }

int RmqClient::RegisterWithEndpoint(const char* appId, const char* appType, int connectionType,
                                    const bson* headers, rmqClientCallback callback,
                                    const rmqClientEndpoint* endpoint) {
  return NETRegister(appId, appType, connectionType, headers, callback, endpoint);
}

int RmqClient::StopEventLoop() { return NETStop(); }

}  // namespace zel
