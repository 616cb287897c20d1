// MetricRegistry: the owner of a metric key tree and of its namespace key,
// under which components hang their metrics.
//
//   zel::metrics::MetricRegistry registry;            // namespace "/zel"
//   MetricKeyPtr key = registry.root()->subkey("work_group/queue/length");
//
// The registry holds a reference on the namespace key and thereby on the
// tree root. Metrics hold references on their keys, so they stay valid after
// the registry is gone; the tree goes with the last reference.
//
// Threads: root() and tree_root() may be called from any thread.
#ifndef ZEL_METRICS_METRIC_REGISTRY_H_
#define ZEL_METRICS_METRIC_REGISTRY_H_

#include <string>

#include "cpp/lib/metrics/metric_key.h"

namespace zel {
namespace metrics {

class MetricRegistry {
 public:
  static constexpr const char* kDefaultRootNamespace = "/zel";

  // `rootNamespace` is a "/"-separated path below the tree root.
  explicit MetricRegistry(const std::string& rootNamespace = kDefaultRootNamespace);
  ~MetricRegistry();

  MetricRegistry(const MetricRegistry&) = delete;
  MetricRegistry& operator=(const MetricRegistry&) = delete;

  // The namespace key, parent of every component's metrics.
  const MetricKeyPtr& root() const { return namespace_; }
  // The root of the whole tree, named "/".
  const MetricKeyPtr& tree_root() const { return root_; }
  const std::string& root_namespace() const { return rootNamespace_; }

 private:
  const std::string rootNamespace_;
  const MetricKeyPtr root_;
  const MetricKeyPtr namespace_;
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_METRIC_REGISTRY_H_
