// Pieces of the low-level BSON layer that tests reach directly: the growth
// rule on its own, and replaceable allocators to drive the fatal
// out-of-memory paths. Not for product code.
#ifndef ZEL_MPALIB_INTERNAL_BSON_INTERNAL_H_
#define ZEL_MPALIB_INTERNAL_BSON_INTERNAL_H_

#include <cstddef>
#include <cstdint>

// New buffer size for a document of `dataSize` bytes that needs `needed` more:
// 1.5 x (dataSize + needed), capped at 2147483647. Returns BSON_ERROR (size
// overflow) when dataSize + needed reaches 2147483647 or more and growing
// would pass the cap.
int bson_grow_size(int dataSize, int64_t needed, int* newSize);

// Replaces the allocators of the layer; null restores malloc and realloc.
// Tests only: set them before any document is built and reset them after.
typedef void* (*bson_malloc_fn)(size_t size);
typedef void* (*bson_realloc_fn)(void* ptr, size_t size);
void bson_set_allocators_ForTest(bson_malloc_fn mallocFn, bson_realloc_fn reallocFn);

#endif  // ZEL_MPALIB_INTERNAL_BSON_INTERNAL_H_
