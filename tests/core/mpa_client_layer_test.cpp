#include "core/mpa_client_layer.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "mpaclient/mpa_client.h"
#include "support/log_capture.h"

namespace {

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

// The layer registers the real client with the agent's arguments, hangs its
// counters under the registry it was given, and hands out handles on it.
TEST(MpaClientLayerTest, RegisterLookupAndUnregisterGoThroughTheProcessWideClient) {
  zel::testing::LogCapture log;
  zel::metrics::MetricRegistry registry;
  ZelDorn::MpaClientLayer layer{registry};
  EXPECT_FALSE(layer.Lookup(kApp));
  layer.Register(boost::make_shared<zel::AsioDispatcher>(), [](rmqClientMessage*) {}, kApp, kApp,
                 1, 9002, 30000000, 5000000);

  boost::shared_ptr<ZelDorn::MpClient> handle = layer.Lookup(kApp);
  ASSERT_TRUE(handle);
  EXPECT_EQ(static_cast<ZelDorn::MpaClientHandle&>(*handle).client(),
            zel::MpaClient::GetMpaClient(kApp));
  EXPECT_EQ(handle->GetCookieId(), -1);
  for (const char* path : {"rmq/connection/establish", "rmq/msg/rx", "rmq/msg/tx"}) {
    EXPECT_TRUE(registry.root()->subkey(path)->find_subkey(std::string("app=") + kApp)) << path;
  }

  layer.Unregister(kApp);
  EXPECT_FALSE(layer.Lookup(kApp));
  EXPECT_FALSE(zel::MpaClient::GetMpaClient(kApp));
}

// A failed registration leaves its negative code as the client's cookie; the
// handle hands it on as it is, not folded into -1.
TEST(MpaClientLayerTest, FailedRegistrationCodeReachesTheAgentUnchanged) {
  zel::testing::LogCapture log;
  // A loopback port that is bound but not listening refuses the connection.
  const int closed = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(closed, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ASSERT_EQ(bind(closed, reinterpret_cast<sockaddr*>(&addr), len), 0);
  ASSERT_EQ(getsockname(closed, reinterpret_cast<sockaddr*>(&addr), &len), 0);

  zel::metrics::MetricRegistry registry;
  ZelDorn::MpaClientLayer layer{registry};
  layer.Register(boost::make_shared<zel::AsioDispatcher>(), [](rmqClientMessage*) {}, kApp, kApp,
                 1, ntohs(addr.sin_port), 30000000, 5000000);
  boost::shared_ptr<zel::MpaClient> client = zel::MpaClient::GetMpaClient(kApp);
  ASSERT_TRUE(client);
  client->ConnectMpaStateTrans();

  const int32_t code = client->GetCookieId();
  EXPECT_LT(code, -1);
  EXPECT_EQ(layer.Lookup(kApp)->GetCookieId(), code);
  layer.Unregister(kApp);
  close(closed);
}

}  // namespace
