// The calls that the MPA road makes into the transport-node proxy client, in
// a build that has no proxy client.
//
// The proxy client watches the local transport-node proxy and, once the
// proxy names the application proxy hubs, moves every MpaClient over to the
// RPC road for good. Neither it nor the RPC road exists in this build yet.
// These hooks stand at the points where the MPA road calls the proxy client
// (event-loop start and stop, the agent's start, MpaClient::Start and
// Unregister) and do not imitate it: they start no thread, open no
// connection, keep no client and never report a proxy, so no client is ever
// told to leave the MPA road. Each call logs, under "tnproxy-client", what it
// did not do.
//
// Threads: every function may be called from any thread.
#ifndef ZEL_MPACLIENT_TNPROXY_NO_ROAD_H_
#define ZEL_MPACLIENT_TNPROXY_NO_ROAD_H_

#include <string>

namespace zel {
namespace tnproxy_no_road {

// Where the proxy client would subscribe for the proxy's hub list.
inline constexpr char kApplProxyInfoEndpoint[] =
    "unix:///var/run/orvane/zel-proxy/aphinfoservice.sock";

// Stands for preparing the proxy client for `endpoint`.
void InitProxyClient(const std::string& endpoint);
// Stands for starting the proxy client's subscription and worker.
void StartProxyClient();
// Stands for stopping the proxy client.
void StopProxyClient();
// Stands for adding and removing the client of `appType` to the proxy
// client's map.
void AddClient(const std::string& appType);
void RemoveClient(const std::string& appType);

}  // namespace tnproxy_no_road
}  // namespace zel

#endif  // ZEL_MPACLIENT_TNPROXY_NO_ROAD_H_
