// Publisher and Reporter: where a report cycle of the MetricRegistry sends its
// values (see metric_registry.h for the walk).
//
// A cycle asks each publisher for a Reporter, and walks the key tree: at each
// key it calls report(path, key, values) on the reporters of that level, with
// `values` empty when the key holds no value (a serializer whose fields are
// all unset); for each child key that is not an instance it asks
// subkey(name) for the reporters of the level below; when a level is walked
// it calls done() on its reporters. Instance keys are reported at their
// parent's level with the parent's path.
//
// Threads: a reporter is used by one cycle on one thread; Start and
// GetReporter are called under the registry's lock.
#ifndef ZEL_METRICS_PUBLISHER_H_
#define ZEL_METRICS_PUBLISHER_H_

#include <memory>
#include <string>

namespace zel {
namespace metrics {

class BasicSerializer;
class MetricKey;

class Reporter {
 public:
  virtual ~Reporter() = default;
  // The reporter of the subtree below the child `name`.
  virtual std::unique_ptr<Reporter> subkey(const std::string& name) = 0;
  // `path` is the key's path from the registry's tree root, "" at the root.
  virtual void report(const std::string& path, const MetricKey& key, const BasicSerializer& values) = 0;
  virtual void done() = 0;
};

class Publisher {
 public:
  virtual ~Publisher() = default;
  // "log", "text", "noop", "rpc": shown by "Metrics: configured to report to %s".
  virtual std::string name() const = 0;
  // Called once when the publisher joins a registry, before its first cycle.
  virtual void Start() = 0;
  virtual std::unique_ptr<Reporter> GetReporter() = 0;
};

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_PUBLISHER_H_
