// Per-thread counts of what a benchmark wants to prove absent or count: calls
// of operator new and of pthread_mutex_lock. A program that links probes.cpp
// has both replaced (new is malloc underneath, the lock is glibc's own), so
// the counts cover every allocation and lock of the calling thread.
//
//   const uint64_t before = zel::bench::ThreadAllocations();
//   Work();
//   const uint64_t allocations = zel::bench::ThreadAllocations() - before;
#ifndef ZEL_BENCH_PROBES_H_
#define ZEL_BENCH_PROBES_H_

#include <cstdint>

namespace zel {
namespace bench {

uint64_t ThreadAllocations();
uint64_t ThreadMutexLocks();

}  // namespace bench
}  // namespace zel

#endif  // ZEL_BENCH_PROBES_H_
