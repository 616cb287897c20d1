// Error tags of the "CMNLIB" family (the common runtime: logger, dispatcher,
// timers, work group, provider). Every error line carries one tag
// "errorCode:<family><number>", and the text of each tag lives in its
// family's header only:
//
//   CMNLIB          cpp/lib/common/error_tags.h
//   MXLIB           cpp/lib/metrics/error_tags.h
//   RPC             cpp/lib/rpc/error_tags.h
//   NET             cpp/lib/net/error_tags.h
//   MPA, MPAERR_    util/mpa_error_tags.h
//
// A number ending in 9999 marks an exception caught where nothing may throw.
#ifndef ZEL_COMMON_ERROR_TAGS_H_
#define ZEL_COMMON_ERROR_TAGS_H_

namespace zel {

// A file store that cannot remove a file or get back within its limits.
inline constexpr char kTagCmnLib50[] = "errorCode:CMNLIB50";
// The provider was asked to run while it runs.
inline constexpr char kTagCmnLib100[] = "errorCode:CMNLIB100";
// Timers: a failed schedule, a failed cancel, a handler in a wrong state.
inline constexpr char kTagCmnLib700[] = "errorCode:CMNLIB700";
inline constexpr char kTagCmnLib701[] = "errorCode:CMNLIB701";
inline constexpr char kTagCmnLib702[] = "errorCode:CMNLIB702";
// NOT_REACHED (not_reached.h).
inline constexpr char kTagNotReached[] = "errorCode:CMNLIB900";
inline constexpr char kTagCmnLib9999[] = "errorCode:CMNLIB9999";

}  // namespace zel

#endif  // ZEL_COMMON_ERROR_TAGS_H_
