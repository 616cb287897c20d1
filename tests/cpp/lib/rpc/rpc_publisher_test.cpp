// The RPC metrics publisher against the collector stand-in over a Unix
// socket: reports in order with their tags, the newest five kept while the
// collector is away, and the publisher the RPC provider makes from its
// configuration.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cpp/lib/metrics/counters.h"
#include "cpp/lib/metrics/metric.h"
#include "cpp/lib/metrics/metric_registry.h"
#include "cpp/lib/rpc/asio_zel_provider.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/rpc_publisher.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "metrics_collector/collector.h"
#include "orvane/zel/metrics/zel_metrics.pb.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait.h"

namespace zel {
namespace rpc {
namespace {

using ::orvane::zel::metrics::MetricKeyMsg;
using ::orvane::zel::metrics::MetricsReportMsg;
using ::testing::ElementsAre;
using ::testing::Pair;
using zel::testing::kDeadline;

// The value of "/zel/<name>" in a report, -1 when absent.
double ValueOf(const MetricsReportMsg& report, const std::string& name) {
  for (const MetricKeyMsg& zel : report.root().subkey()) {
    if (zel.name() != "zel") continue;
    for (const MetricKeyMsg& k : zel.subkey()) {
      if (k.name() == name && k.has_value()) return k.value().value_last();
    }
  }
  return -1;
}

std::vector<std::pair<std::string, std::string>> Tags(const MetricsReportMsg& report) {
  std::vector<std::pair<std::string, std::string>> tags;
  for (const auto& t : report.tag()) tags.emplace_back(t.key(), t.value());
  return tags;
}

class RpcPublisherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    endpoint_ = "unix://" + dir_.path() + "/mc.sock";
    client_->Run(1, false);
  }

  // A collector on the test's socket; a stale socket file goes first.
  std::unique_ptr<tools::MetricsCollector> StartCollector() {
    unlink((dir_.path() + "/mc.sock").c_str());
    auto collector = std::make_unique<tools::MetricsCollector>(out_, false);
    EXPECT_FALSE(collector->Listen(endpoint_));
    return collector;
  }

  std::shared_ptr<RpcPublisher> MakePublisher(std::size_t queue = 5) {
    RpcPublisherOptions o;
    o.endpoint = endpoint_;
    o.max_report_queue_size = queue;
    o.tags = {{"source", ""}, {"app", "test"}};
    o.retry = RetryPolicy(20, 200, 2.0);
    return std::make_shared<RpcPublisher>(o, client_->GetTransport(), client_->GetChannelFactory(),
                                          client_->GetTimers(), [](std::string*) { return false; });
  }

  // Sets /zel/n to `n` and reports it.
  void Report(double n) {
    counter_->set(static_cast<uint64_t>(n));
    registry_.Collect();
    registry_.Publish();
  }

  // Before the providers: the dispatchers log until they are gone.
  testing::LogCapture log_;
  testing::TempDir dir_;
  std::string endpoint_;
  std::ostringstream out_;
  std::shared_ptr<AsioZelRpcProvider> client_ = AsioZelRpcProvider::Create(boost::property_tree::ptree());
  metrics::MetricRegistry registry_;
  metrics::Metric<metrics::UnitCounter> counter_{registry_.root()->subkey("n")};
};

TEST_F(RpcPublisherTest, ReportsArriveInOrderOnOneStreamWithTheirTags) {
  auto collector = StartCollector();
  registry_.AddPublisher(MakePublisher());
  for (int n = 1; n <= 3; ++n) Report(n);
  ASSERT_TRUE(collector->WaitForReports(3, kDeadline));
  const std::vector<MetricsReportMsg> reports = collector->Reports();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ValueOf(reports[i], "n"), i + 1);
  EXPECT_EQ(collector->Calls(), 1u);
  // The host name could not be had: the source is "unknown".
  EXPECT_THAT(Tags(reports[0]), ElementsAre(Pair("source", "unknown"), Pair("app", "test")));
  EXPECT_EQ(log_.Count("Metrics: RpcPublisher - failed to get host name: "), 3u);
  // Keys without a value stay, empty: the root and "/zel".
  EXPECT_EQ(reports[0].root().name(), "/");
  EXPECT_FALSE(reports[0].root().has_value());
  EXPECT_THAT(out_.str(), ::testing::HasSubstr("report source=unknown app=test\n"));
}

TEST_F(RpcPublisherTest, WhileTheCollectorIsAwayTheNewestReportsWaitAndGoFirstOnItsReturn) {
  auto publisher = MakePublisher(5);
  auto collector = StartCollector();
  registry_.AddPublisher(publisher);
  Report(1);
  ASSERT_TRUE(collector->WaitForReports(1, kDeadline));
  collector.reset();
  ASSERT_TRUE(log_.WaitFor("Metrics: RpcPublisher - not restarting call for status COMMUNICATION_ERROR"));

  for (int n = 10; n <= 16; ++n) Report(n);  // seven reports, room for five
  EXPECT_EQ(publisher->dropped(), 2u);
  EXPECT_EQ(log_.Count("Metrics: RpcPublisher - dropped the oldest report"), 2u);

  collector = StartCollector();
  ASSERT_TRUE(collector->WaitForReports(5, kDeadline));
  Report(17);  // after the queued ones on the same stream: nothing else came between
  ASSERT_TRUE(collector->WaitForReports(6, kDeadline));
  std::vector<double> values;
  for (const auto& r : collector->Reports()) values.push_back(ValueOf(r, "n"));
  EXPECT_THAT(values, ElementsAre(12, 13, 14, 15, 16, 17));
  EXPECT_GE(log_.Count("Metrics: RpcPublisher - retrying to get stub in "), 1u);
}

TEST_F(RpcPublisherTest, ACallTheCollectorEndsIsOpenedAgainOnTheSameStub) {
  auto collector = StartCollector();
  collector->EndCallsWith(StatusCode::UNAVAILABLE);
  registry_.AddPublisher(MakePublisher());
  // A call reaches the collector with its first report. Each one ends at
  // once; the publisher opens the next at once after the first end, after
  // the retry delay after the next ones.
  // A report written while the end is on its way is lost with its call: a
  // new report goes until the collector has seen three calls.
  EXPECT_TRUE(testing::WaitUntil([&] {
    Report(1);
    return collector->WaitForCalls(3, std::chrono::milliseconds(50));
  }));
  EXPECT_TRUE(log_.WaitFor("Metrics: RpcPublisher - restarting call for status UNAVAILABLE", 2));
  EXPECT_EQ(log_.Count("Metrics: RpcPublisher - not restarting call"), 0u);
  EXPECT_EQ(log_.Count("Metrics: RpcPublisher - got stub"), 1u);
  // Once the collector keeps its calls, the reports get through.
  collector->EndCallsWith(0);
  EXPECT_TRUE(testing::WaitUntil([&] {
    Report(4);
    collector->WaitForReports(1, std::chrono::milliseconds(50));
    const auto reports = collector->Reports();
    return !reports.empty() && ValueOf(reports.back(), "n") == 4;
  }));
}

TEST_F(RpcPublisherTest, TheRpcProviderMakesAPublisherPerRpcNodeOfItsConfiguration) {
  auto collector = StartCollector();
  std::istringstream xml("<metrics><publishers><rpc><endpoint>" + endpoint_ +
                         "</endpoint><tags><tag key=\"zone\" value=\"blue\"/><tag><key>source</key><value/></tag>"
                         "<tag><key>lonely</key></tag></tags></rpc></publishers></metrics>");
  boost::property_tree::ptree config;
  boost::property_tree::read_xml(xml, config, boost::property_tree::xml_parser::trim_whitespace);
  auto provider = AsioZelRpcProvider::Create(config);
  provider->Run(1, false);
  provider->base()->GetMetricRegistry().Report();  // the registry's own cycle, now
  ASSERT_TRUE(collector->WaitForReports(1, kDeadline));
  char host[1024] = {};
  gethostname(host, sizeof host - 1);
  EXPECT_THAT(Tags(collector->Reports()[0]),
              ElementsAre(Pair("zone", "blue"), Pair("source", host), Pair("app", "rpc_publisher_test")));
  EXPECT_EQ(log_.Count("Metrics: RpcPublisher: Options - skipping tag 'lonely' - no key/value"), 1u);
  EXPECT_EQ(log_.Count("Metrics: configured to report to rpc"), 1u);
  // The registry's own figures are among the values.
  EXPECT_THAT(tools::MetricsCollector::Json(collector->Reports()[0]),
              ::testing::HasSubstr("\"/zel/metrics/collect/keys\":{"));
  // The provider's end makes a last report, and it arrives.
  provider.reset();
  EXPECT_TRUE(collector->WaitForReports(2, kDeadline));
}

TEST_F(RpcPublisherTest, ACollectorThatAcceptsAndNeverAnswersCostsOnlyTheBoundedQueue) {
  // A listening socket whose connections the kernel accepts and nobody reads.
  const std::string path = dir_.path() + "/mc.sock";
  const int silent = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ASSERT_EQ(listen(silent, 8), 0);
  RpcPublisherOptions o;
  o.endpoint = endpoint_;
  o.retry = RetryPolicy(20, 200, 2.0);
  o.stub_timeout_ms = 100;
  auto publisher = std::make_shared<RpcPublisher>(o, client_->GetTransport(), client_->GetChannelFactory(),
                                                  client_->GetTimers());
  registry_.AddPublisher(publisher);
  for (int n = 1; n <= 8; ++n) Report(n);
  EXPECT_EQ(publisher->dropped(), 3u);
  // It keeps trying, and nothing else happens.
  EXPECT_TRUE(log_.WaitFor("Metrics: RpcPublisher - couldn't get stub", 2));
  EXPECT_GE(log_.Count("Metrics: RpcPublisher - retrying to get stub in "), 1u);
  close(silent);
}

TEST(RpcPublisherOptionsTest, DefaultsAndTheirPrintedForm) {
  testing::LogCapture log;
  const RpcPublisherOptions o = RpcPublisherOptions::FromTree(boost::property_tree::ptree(), "agent");
  EXPECT_EQ(o.ToString(),
            "{ endpoint:'unix:///var/run/orvane/zel/metrics-collector.sock', max_report_queue_size:5, tags:2 }");
  EXPECT_EQ(log.Count("Metrics: RpcPublisher: adding tag app='agent'"), 1u);
  boost::property_tree::ptree bad;
  bad.put("max_report_queue_size", "-3");
  EXPECT_EQ(RpcPublisherOptions::FromTree(bad, "agent").max_report_queue_size, 5u);
  EXPECT_EQ(log.Count("invalid max_report_queue_size '-3'"), 1u);
  bad.put("max_report_queue_size", "0");  // would drop every report
  EXPECT_EQ(RpcPublisherOptions::FromTree(bad, "agent").max_report_queue_size, 5u);
}

}  // namespace
}  // namespace rpc
}  // namespace zel
