// Lock annotations that clang's -Wthread-safety checks at compile time; with
// other compilers they expand to nothing. Use them with zel::Mutex
// (mutex.h):
//
//   class Registry {
//     void Add(Entry e) EXCLUDES(mutex_);
//     void Prune_() REQUIRES(mutex_);   // caller holds mutex_
//     zel::Mutex mutex_;
//     std::vector<Entry> entries_ GUARDED_BY(mutex_);
//   };
//
// scripts/check_thread_safety.sh runs the check over the libraries that use
// them; CI runs that script.
#ifndef ZEL_COMMON_THREAD_ANNOTATIONS_H_
#define ZEL_COMMON_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define ZEL_THREAD_ANNOTATION_(x) __attribute__((x))
#else
#define ZEL_THREAD_ANNOTATION_(x)
#endif

#define CAPABILITY(x) ZEL_THREAD_ANNOTATION_(capability(x))
#define SCOPED_CAPABILITY ZEL_THREAD_ANNOTATION_(scoped_lockable)
#define GUARDED_BY(x) ZEL_THREAD_ANNOTATION_(guarded_by(x))
#define PT_GUARDED_BY(x) ZEL_THREAD_ANNOTATION_(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) ZEL_THREAD_ANNOTATION_(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ZEL_THREAD_ANNOTATION_(acquired_after(__VA_ARGS__))
#define REQUIRES(...) ZEL_THREAD_ANNOTATION_(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZEL_THREAD_ANNOTATION_(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZEL_THREAD_ANNOTATION_(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZEL_THREAD_ANNOTATION_(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) ZEL_THREAD_ANNOTATION_(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) ZEL_THREAD_ANNOTATION_(assert_capability(x))
#define RETURN_CAPABILITY(x) ZEL_THREAD_ANNOTATION_(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS ZEL_THREAD_ANNOTATION_(no_thread_safety_analysis)

#endif  // ZEL_COMMON_THREAD_ANNOTATIONS_H_
