#include "cpp/lib/metrics/serializer.h"

namespace zel {
namespace metrics {

std::string BasicSerializer::instance() const {
  for (const auto& tag : tags_) {
    if (tag.first == kInstanceTag) return tag.second;
  }
  return std::string();
}

}  // namespace metrics
}  // namespace zel
