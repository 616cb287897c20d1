#include "mpaclient/tnproxy_no_road.h"

#include "cpp/lib/common/logger.h"

namespace zel {
namespace tnproxy_no_road {

void InitProxyClient(const std::string& endpoint) {
  TNPROXY_CLIENT_LOG(kLogInfo)
      .format("No TnProxy client in this build: not watching (%s); the MPA road stays in force",
              endpoint.c_str());
}

void StartProxyClient() {
  TNPROXY_CLIENT_LOG(kLogInfo).format("No TnProxy client in this build: nothing to start");
}

void StopProxyClient() {
  TNPROXY_CLIENT_LOG(kLogInfo).format("No TnProxy client in this build: nothing to stop");
}

void AddClient(const std::string& appType) {
  TNPROXY_CLIENT_LOG(kLogVerbose)
      .format("[%s] No TnProxy client in this build: client not added", appType.c_str());
}

void RemoveClient(const std::string& appType) {
  TNPROXY_CLIENT_LOG(kLogVerbose)
      .format("[%s] No TnProxy client in this build: client not removed", appType.c_str());
}

}  // namespace tnproxy_no_road
}  // namespace zel
