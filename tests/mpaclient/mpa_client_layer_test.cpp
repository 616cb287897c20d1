#include "core/mpa_client_layer.h"

#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "mpa_client_test_support.h"
#include "mpaclient/mpa_client.h"

namespace {

using mpa_client_test::LogWatch;

constexpr const char* kApp = "DORN_FABRIC_APPLICATION";

class MpaClientLayerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zel::log_testing::SetSyslogSinkForTest(&LogWatch::Sink);
    zel::log_testing::SetUpLoggerForTest("TRIVIA", "DEVLOG", "/nonexistent/zel_issue");
    LogWatch::Clear();
  }
  void TearDown() override {
    layer_.Unregister(kApp);
    zel::log_testing::SetSyslogSinkForTest(nullptr);
  }

  zel::metrics::MetricRegistry registry_;
  ZelDorn::MpaClientLayer layer_{registry_};
  boost::shared_ptr<zel::AsioDispatcher> dispatcher_ = boost::make_shared<zel::AsioDispatcher>();
};

// The layer registers the real client with the agent's arguments, hangs its
// counters under the registry it was given, and hands out handles on it.
TEST_F(MpaClientLayerTest, RegisterLookupAndUnregisterGoThroughTheProcessWideClient) {
  EXPECT_FALSE(layer_.Lookup(kApp));
  layer_.Register(dispatcher_, [](rmqClientMessage*) {}, kApp, kApp, 1, 9002, 30000000, 5000000);

  boost::shared_ptr<ZelDorn::MpClient> handle = layer_.Lookup(kApp);
  ASSERT_TRUE(handle);
  EXPECT_EQ(static_cast<ZelDorn::MpaClientHandle&>(*handle).client(),
            zel::MpaClient::GetMpaClient(kApp));
  EXPECT_EQ(handle->GetCookieId(), -1);
  for (const char* path : {"rmq/connection/establish", "rmq/msg/rx", "rmq/msg/tx"}) {
    EXPECT_EQ(mpa_client_test::CounterLevel(registry_, path, kApp), 0) << path;
  }

  layer_.Unregister(kApp);
  EXPECT_FALSE(layer_.Lookup(kApp));
  EXPECT_FALSE(zel::MpaClient::GetMpaClient(kApp));
}

}  // namespace
