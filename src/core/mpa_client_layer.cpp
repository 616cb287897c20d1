#include "core/mpa_client_layer.h"

#include <utility>

#include <boost/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "mpaclient/mpa_client.h"
#include "mpaclient/rmq_client_event_loop.h"
#include "mpaclient/tnproxy_no_road.h"

namespace ZelDorn {

MpaClientHandle::MpaClientHandle(boost::shared_ptr<zel::MpaClient> client)
    : client_(std::move(client)) {}

void MpaClientHandle::Start() { client_->Start(); }

void MpaClientHandle::Stop() { client_->Close(); }

int32_t MpaClientHandle::GetCookieId() { return client_->GetCookieId(); }

int MpaClientHandle::SendMsg(rmqClientMessage* message) { return client_->SendMsg(message); }

MpaClientLayer::MpaClientLayer(zel::metrics::MetricRegistry& registry)
    : metricRoot_(registry.root()) {}

void MpaClientLayer::StartEventLoop(const std::string& clientName) {
  zel::StartMpaClientEventLoop(clientName);
}

void MpaClientLayer::StopEventLoop() { zel::StopMpaClientEventLoop(); }

void MpaClientLayer::Register(const boost::shared_ptr<zel::AsioDispatcher>& dispatcher,
                              MessageCallback callback, const std::string& appType,
                              const std::string& appId, int connectionType, uint16_t port,
                              uint64_t ackRetryMicros, uint64_t connectRetryMicros) {
  zel::MpaClient::Register(dispatcher, std::move(callback), appType, appId, connectionType, port,
                           ackRetryMicros, connectRetryMicros, metricRoot_);
}

boost::shared_ptr<MpClient> MpaClientLayer::Lookup(const std::string& appType) {
  boost::shared_ptr<zel::MpaClient> client = zel::MpaClient::GetMpaClient(appType);
  if (!client) return {};
  return boost::make_shared<MpaClientHandle>(std::move(client));
}

void MpaClientLayer::Unregister(const std::string& appType) {
  zel::MpaClient::Unregister(appType);
}

void MpaClientLayer::StartProxyClient() { zel::tnproxy_no_road::StartProxyClient(); }

}  // namespace ZelDorn
