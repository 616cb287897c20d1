// RpcPublisher: sends each metrics report as one MetricsReportMsg on a client
// stream to the collector service "orvane.zel.metrics.MetricsCollector".
//
//   // From the "rpc" node under "metrics.publishers" (the RPC provider does this):
//   auto publisher = std::make_shared<RpcPublisher>(
//       RpcPublisherOptions::FromTree(node, "dorn-host-agent"), transport, channels, timers);
//   registry.AddPublisher(publisher);   // Start: asks for a stub at the endpoint
//
// While there is no stub or no open call the reports wait in a queue of
// max_report_queue_size; the oldest go first, each counted and logged, as is
// a report that the open call refuses (its send buffer is full). A stub
// that cannot be had is asked for again after the retry policy's delay; a
// call that ends with COMMUNICATION_ERROR drops the stub and does the same;
// a call that ends otherwise is opened again at once, and after the retry
// delay when it ends again before a report got through.
//
// Threads: the reporters run on the registry's cycle; stub and call
// callbacks on the dispatcher. One lock over the stub, the call and the
// queue, inner to the registry's; callbacks hold the publisher weakly.
#ifndef ZEL_RPC_RPC_PUBLISHER_H_
#define ZEL_RPC_RPC_PUBLISHER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/property_tree/ptree_fwd.hpp>

#include "cpp/lib/common/retry_policy.h"
#include "cpp/lib/metrics/publisher.h"

namespace zel {

class TimerFactory;

namespace rpc {

class ChannelFactoryInterface;
class Transport;

struct RpcPublisherOptions {
  static constexpr const char* kDefaultEndpoint = "unix:///var/run/orvane/zel/metrics-collector.sock";
  static constexpr std::size_t kDefaultMaxReportQueueSize = 5;

  std::string endpoint = kDefaultEndpoint;
  std::size_t max_report_queue_size = kDefaultMaxReportQueueSize;
  // Added to each report. "source" with an empty value stands for the host
  // name.
  std::vector<std::pair<std::string, std::string>> tags = {{"source", ""}};
  // Between attempts to get a stub.
  RetryPolicy retry = RetryPolicy(5000, 900000, 2.0);
  // How long one attempt to get a stub may take.
  int64_t stub_timeout_ms = 10000;

  // "{ endpoint:'%s', max_report_queue_size:%zu, tags:%u }".
  std::string ToString() const;
  // Reads "endpoint", "max_report_queue_size" (above 0) and "tags" (children
  // "tag", each with a key and a value as child nodes or XML attributes), and
  // adds the tag "app" = `appName`.
  static RpcPublisherOptions FromTree(const boost::property_tree::ptree& node, const std::string& appName);
};

class RpcPublisher : public metrics::Publisher {
 public:
  // `hostname` stands in for gethostname(): it returns false on failure.
  using HostName = std::function<bool(std::string*)>;

  RpcPublisher(RpcPublisherOptions options, std::shared_ptr<Transport> transport,
               std::shared_ptr<ChannelFactoryInterface> channels, std::shared_ptr<TimerFactory> timers,
               HostName hostname = nullptr);
  // Ends an open call as done, after what has been written.
  ~RpcPublisher() override;

  // metrics::Publisher
  std::string name() const override { return "rpc"; }
  void Start() override;
  std::unique_ptr<metrics::Reporter> GetReporter() override;

  // Reports dropped from a full queue so far.
  uint64_t dropped() const;
  const RpcPublisherOptions& options() const;

  struct Impl;

 private:
  const std::shared_ptr<Impl> impl_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_PUBLISHER_H_
