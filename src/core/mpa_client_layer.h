// MpaClientLayer: the agent's client layer on the real management client
// (zel::MpaClient over the MPA library, mpaclient/).
//
//   auto layer = boost::make_shared<ZelDorn::MpaClientLayer>(provider->GetMetricRegistry());
//   layer->StartEventLoop("DORN");   // needs the "framework" work group
//   CommunicationHandler::CreateInstance(monitor, provider.get(), layer);
//   ...
//   layer->StopEventLoop();
//
// The clients' counters "rmq/connection/establish", "rmq/msg/rx" and
// "rmq/msg/tx" go under the namespace key of the registry given here, so the
// provider's registry reports them. The proxy client is the no-road stand-in
// of mpaclient/tnproxy_no_road.h until the RPC road is built: the MPA road
// stays in force.
//
// Threads: as MpClientLayer (mp_client_layer.h).
#ifndef DORN_CORE_MPA_CLIENT_LAYER_H_
#define DORN_CORE_MPA_CLIENT_LAYER_H_

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>

#include "core/mp_client_layer.h"
#include "cpp/lib/metrics/metric_key.h"

namespace zel {
class MpaClient;
namespace metrics {
class MetricRegistry;
}  // namespace metrics
}  // namespace zel

namespace ZelDorn {

// One registered zel::MpaClient as the agent sees it.
class MpaClientHandle : public MpClient {
 public:
  explicit MpaClientHandle(boost::shared_ptr<zel::MpaClient> client);
  MpaClientHandle(const MpaClientHandle&) = delete;
  MpaClientHandle& operator=(const MpaClientHandle&) = delete;

  // MpClient
  void Start() override;  // zel::MpaClient::Start
  void Stop() override;   // zel::MpaClient::Close
  int32_t GetCookieId() override;
  int SendMsg(rmqClientMessage* message) override;

  const boost::shared_ptr<zel::MpaClient>& client() const { return client_; }

 private:
  const boost::shared_ptr<zel::MpaClient> client_;
};

class MpaClientLayer : public MpClientLayer {
 public:
  // The registry must be the provider's, so that the counters are reported;
  // only its namespace key is kept.
  explicit MpaClientLayer(zel::metrics::MetricRegistry& registry);
  MpaClientLayer(const MpaClientLayer&) = delete;
  MpaClientLayer& operator=(const MpaClientLayer&) = delete;

  // MpClientLayer
  void StartEventLoop(const std::string& clientName) override;
  void StopEventLoop() override;
  void Register(const boost::shared_ptr<zel::AsioDispatcher>& dispatcher,
                MessageCallback callback, const std::string& appType,
                const std::string& appId, int connectionType, uint16_t port,
                uint64_t ackRetryMicros, uint64_t connectRetryMicros) override;
  boost::shared_ptr<MpClient> Lookup(const std::string& appType) override;
  void Unregister(const std::string& appType) override;
  void StartProxyClient() override;

 private:
  const zel::metrics::MetricKeyPtr metricRoot_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_MPA_CLIENT_LAYER_H_
