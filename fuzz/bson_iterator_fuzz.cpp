// libFuzzer target for the document walker: arbitrary bytes are walked with
// both layers, every reader is applied to every element, sub-documents are
// walked in place and as copies. Any read outside the input is a finding
// (ASan); so is a disagreement between the two layers.
//
// An element type above 18 is a fatal error of the codec by design; the
// error hook turns it into an exception here so that the run goes on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"

namespace {

struct UnknownType {};

[[noreturn]] void ThrowOnFatal(const char*) { throw UnknownType(); }

// Reads every value the low-level readers offer; returns the element count.
int WalkLowLevel(bson_iterator* it, int depth) {
  int count = 0;
  uint64_t sink = 0;
  while (bson_iterator_next(it) != BSON_ELEM_EOO) {
    ++count;
    sink += std::strlen(bson_iterator_key(it));
    sink += static_cast<uint64_t>(bson_iterator_int(it)) + static_cast<uint64_t>(bson_iterator_long(it));
    sink += bson_iterator_double(it) != 0;
    sink += static_cast<uint64_t>(bson_iterator_bool(it));
    const char* s = bson_iterator_string(it);
    if (std::strlen(s) > static_cast<size_t>(bson_iterator_string_len(it))) std::abort();
    const int binLen = bson_iterator_bin_len(it);
    if (binLen < 0) std::abort();
    if (binLen > 0) sink += static_cast<unsigned char>(bson_iterator_bin_data(it)[binLen - 1]);
    bson sub;
    if (depth < 8 && bson_iterator_subobject(it, &sub) == BSON_OK) {
      bson_iterator inner;
      bson_iterator_init(&inner, &sub);
      WalkLowLevel(&inner, depth + 1);
    }
  }
  // Keeps the reads from being optimised away.
  asm volatile("" : : "r"(sink));
  return count;
}

// Walks with the object layer; returns the element count.
int WalkObjects(ZelMpa::BsonIterator& it, int depth) {
  int count = 0;
  const char* key;
  for (auto t = it.next(); t != ZelMpa::BsonIterator::END; t = it.next()) {
    ++count;
    switch (t) {
      case ZelMpa::BsonIterator::STRING: {
        const char* v;
        if (it.getString(key, v) != 0) std::abort();
        break;
      }
      case ZelMpa::BsonIterator::BINARY: {
        const uint8_t* p;
        size_t len;
        if (it.getBinary(key, p, len) != 0) std::abort();
        if (len > 0) (void)*static_cast<const volatile uint8_t*>(p + len - 1);
        break;
      }
      case ZelMpa::BsonIterator::OBJECT:
        if (depth < 8) {
          ZelMpa::BSON copy;
          if (it.getObject(key, copy) != 0) std::abort();
          ZelMpa::BsonIterator inner(copy);
          WalkObjects(inner, depth + 1);
        }
        break;
      default: {
        int64_t v;
        (void)it.getLong(key, v);
        break;
      }
    }
  }
  return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool init = [] {
    bson_set_err_handler(&ThrowOnFatal);
    return true;
  }();
  (void)init;
  try {
    bson_iterator low;
    bson_iterator_from_buffer_n(&low, reinterpret_cast<const char*>(data), size);
    const int lowCount = WalkLowLevel(&low, 0);
    const bool lowCorrupt = bson_iterator_corrupt(&low) != 0;

    ZelMpa::BsonIterator it(data, size);
    const int objCount = WalkObjects(it, 0);
    if (objCount != lowCount || it.isCorrupt() != lowCorrupt) std::abort();

    // A copy of a document that walked cleanly walks the same way.
    try {
      ZelMpa::BSON copy(data, size);
      ZelMpa::BsonIterator again(copy);
      const int copyCount = WalkObjects(again, 0);
      if (!lowCorrupt && (copyCount != lowCount || again.isCorrupt())) std::abort();
    } catch (const std::invalid_argument&) {
      if (!lowCorrupt) std::abort();  // the walker accepted what the copy refused
    }
  } catch (const UnknownType&) {
  }
  return 0;
}
