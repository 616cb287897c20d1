// ZelRpcServer: listens on a set of endpoints for the services of a
// provider's registry. Start listens on each; Stop only logs that it is not
// implemented, and the listeners stay until the provider goes.
//
//   ZelRpcServer server(provider, {{"unix:///run/zel/rpc.sock", ConnectionOptions()}});
//   server.Start();
//
// Threads: Start and Stop may be called from any thread.
#ifndef ZEL_RPC_ZEL_RPC_SERVER_H_
#define ZEL_RPC_ZEL_RPC_SERVER_H_

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/rpc/rpc_connection.h"

namespace zel {
namespace rpc {

class ZelRpcProvider;

class Server {
 public:
  virtual ~Server() = default;
  virtual void Start() = 0;
  virtual void Stop() = 0;
};

class ZelRpcServer : public Server {
 public:
  using Endpoints = std::vector<std::pair<std::string, ConnectionOptions>>;

  ZelRpcServer(std::shared_ptr<ZelRpcProvider> provider, Endpoints endpoints);
  ~ZelRpcServer() override;

  // Listens on every endpoint; a second Start logs errorCode:RPC500 and does
  // nothing. An endpoint that cannot be listened on is logged and skipped.
  void Start() override;
  // Logs errorCode:RPC501: stopping is not implemented.
  void Stop() override;

 private:
  const std::shared_ptr<ZelRpcProvider> provider_;
  const Endpoints endpoints_;
  Mutex mutex_;
  bool started_ GUARDED_BY(mutex_) = false;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ZEL_RPC_SERVER_H_
