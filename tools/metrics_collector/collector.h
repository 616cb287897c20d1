// The metrics collector stand-in: serves MetricsCollector on an RPC endpoint
// and prints every report it receives, readably or as one JSON object per
// line. The library is what tests drive in-process; zel-metrics-collector
// (collector_main.cpp) is the command line around it.
//
//   zel::tools::MetricsCollector collector(std::cout, /*json=*/true);
//   collector.Listen("unix:///tmp/mc.sock");   // an error_code on failure
//   collector.WaitForReports(3, std::chrono::seconds(10));
//
// Threads: reports arrive on the provider's dispatcher thread; the
// accessors may be called from any thread.
#ifndef ZEL_TOOLS_METRICS_COLLECTOR_COLLECTOR_H_
#define ZEL_TOOLS_METRICS_COLLECTOR_COLLECTOR_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <boost/system/error_code.hpp>

namespace orvane {
namespace zel {
namespace metrics {
class MetricsReportMsg;
}  // namespace metrics
}  // namespace zel
}  // namespace orvane

namespace zel {
namespace rpc {
class AsioZelRpcProvider;
}  // namespace rpc

namespace tools {

class MetricsCollector {
 public:
  // Prints to `out` (readable text, or JSON lines with `json`).
  MetricsCollector(std::ostream& out, bool json);
  ~MetricsCollector();

  boost::system::error_code Listen(const std::string& endpoint);
  // From now on, each call ends with status `code` as soon as it opens (0:
  // calls stay open, the default), so that a publisher's restarts can be seen.
  void EndCallsWith(int code);

  // Reports received so far (copies), and a bounded wait for more.
  std::vector<orvane::zel::metrics::MetricsReportMsg> Reports() const;
  bool WaitForReports(std::size_t count, std::chrono::milliseconds timeout) const;
  bool WaitForCalls(std::size_t count, std::chrono::milliseconds timeout) const;
  std::size_t Calls() const;

  // One report as text: a header with its tags, then "  <path> = <text>" per value.
  static std::string Text(const orvane::zel::metrics::MetricsReportMsg& report);
  // One report as a JSON object on one line: {"tags":{...},"values":{"<path>":
  // {"timestamp":ms,"units":"..","text":"..","value_last":..,...}}}.
  static std::string Json(const orvane::zel::metrics::MetricsReportMsg& report);

  class Service;

 private:
  void Received(const orvane::zel::metrics::MetricsReportMsg& report);

  std::ostream& out_;
  const bool json_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<orvane::zel::metrics::MetricsReportMsg> reports_;  // guarded by mutex_
  std::size_t calls_ = 0;                                         // guarded by mutex_
  int endCallsWith_ = 0;                                          // guarded by mutex_
  std::shared_ptr<rpc::AsioZelRpcProvider> provider_;
};

}  // namespace tools
}  // namespace zel

#endif  // ZEL_TOOLS_METRICS_COLLECTOR_COLLECTOR_H_
