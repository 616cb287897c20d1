// NOT_REACHED(): marks a state that the surrounding logic rules out.
//
//   switch (state_) {
//     case kIdle: ...; break;
//     case kArmed: ...; break;
//     default: NOT_REACHED();
//   }
//
// The state is checked in every build, not only in debug builds: the macro
// logs at CRIT, tagged "errorCode:CMNLIB900", "NOT_REACHED reached at
// <file>:<line>", writes the same text to standard error (so a supervisor's
// capture of the dying process shows it), and calls abort(). A broken
// invariant ends the process rather than letting it run on in a state nobody
// designed for. Safe to use from any thread and in noexcept code.
#ifndef ZEL_COMMON_NOT_REACHED_H_
#define ZEL_COMMON_NOT_REACHED_H_

namespace zel {
namespace internal {

[[noreturn]] void NotReached(const char* file, int line) noexcept;

}  // namespace internal
}  // namespace zel

#define NOT_REACHED() ::zel::internal::NotReached(__FILE__, __LINE__)

#endif  // ZEL_COMMON_NOT_REACHED_H_
