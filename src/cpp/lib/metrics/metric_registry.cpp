#include "cpp/lib/metrics/metric_registry.h"

namespace zel {
namespace metrics {

MetricRegistry::MetricRegistry(const std::string& rootNamespace)
    : rootNamespace_(rootNamespace),
      root_(impl::RootKey::MakeRoot()),
      namespace_(root_->subkey(rootNamespace)) {}

MetricRegistry::~MetricRegistry() = default;

}  // namespace metrics
}  // namespace zel
