// Builds the printed form of a metric value: parts joined by ", ", numbers
// in a fixed, short notation.
#ifndef ZEL_METRICS_IMPL_TEXT_H_
#define ZEL_METRICS_IMPL_TEXT_H_

#include <cstdint>
#include <string>

namespace zel {
namespace metrics {
namespace impl {

class ValueText {
 public:
  // Starts a new part: ", " unless it is the first, then `label`.
  void Part(const char* label) {
    if (!text_.empty()) text_ += ", ";
    text_ += label;
  }
  // Appends `literal` as it stands; for labels that carry their own comma.
  void Literal(const char* literal) { text_ += literal; }
  void Unsigned(uint64_t v);
  // Up to three decimals, trailing zeros dropped: 2.5, 0.333, 7.
  void Double(double v);

  std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

}  // namespace impl
}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_IMPL_TEXT_H_
