// Error tags of the "MXLIB" family (metrics); see cpp/lib/common/error_tags.h.
#ifndef ZEL_METRICS_ERROR_TAGS_H_
#define ZEL_METRICS_ERROR_TAGS_H_

namespace zel {
namespace metrics {

// A registry that could not be made.
inline constexpr char kTagMxLib100[] = "errorCode:MXLIB100";
// A metric handle used against its kind (a counter of another value type).
inline constexpr char kTagMxLib200[] = "errorCode:MXLIB200";
inline constexpr char kTagMxLib9999[] = "errorCode:MXLIB9999";

}  // namespace metrics
}  // namespace zel

#endif  // ZEL_METRICS_ERROR_TAGS_H_
