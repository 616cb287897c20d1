#include "mpalib/bson_codec.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cpp/lib/common/logger.h"
#include "mpalib/internal/bson_internal.h"

namespace {

bson_err_handler g_errHandler = nullptr;
bson_malloc_fn g_malloc = &std::malloc;
bson_realloc_fn g_realloc = &std::realloc;

// Exit status of every fatal error of the layer.
constexpr int kFatalExitCode = -5;

// The first hook call, then standard error and the log, then exit. The hook
// may not return (a test hook throws); if it does, the process still ends.
[[noreturn]] void Fatal(const char* msg) {
  if (g_errHandler != nullptr) g_errHandler(msg);
  std::fprintf(stderr, "error: %s\n", msg);
  MPALIB_LOG(zel::kLogCrit).format("error: %s", msg);
  std::exit(kFatalExitCode);
}

[[noreturn]] void FatalUnknownType(unsigned type) {
  char msg[32];
  std::snprintf(msg, sizeof msg, "unknown type: %u", type);
  Fatal(msg);
}

// ---- Little-endian fields -------------------------------------------------

inline void PutLe32(char* p, int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  u = __builtin_bswap32(u);
#endif
  std::memcpy(p, &u, 4);
}

inline void PutLe64(char* p, int64_t v) {
  uint64_t u = static_cast<uint64_t>(v);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  u = __builtin_bswap64(u);
#endif
  std::memcpy(p, &u, 8);
}

inline int32_t GetLe32(const char* p) {
  uint32_t u;
  std::memcpy(&u, p, 4);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  u = __builtin_bswap32(u);
#endif
  return static_cast<int32_t>(u);
}

inline int64_t GetLe64(const char* p) {
  uint64_t u;
  std::memcpy(&u, p, 8);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  u = __builtin_bswap64(u);
#endif
  return static_cast<int64_t>(u);
}

inline double GetDouble(const char* p) {
  const int64_t bits = GetLe64(p);
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}

// Conversions from double that saturate instead of being undefined for NaN
// and out-of-range values.
int32_t DoubleToInt32(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 2147483647.0) return INT32_MAX;
  if (d <= -2147483648.0) return INT32_MIN;
  return static_cast<int32_t>(d);
}

int64_t DoubleToInt64(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9223372036854775807.0) return INT64_MAX;
  if (d <= -9223372036854775808.0) return INT64_MIN;
  return static_cast<int64_t>(d);
}

// ---- UTF-8 ----------------------------------------------------------------

// Number of trailing bytes that follow a lead byte; -1 for bytes that cannot
// lead a sequence (continuation bytes, the overlong leads 0xC0 and 0xC1, and
// everything from 0xF5).
struct TrailTable {
  signed char n[256];
  constexpr TrailTable() : n() {
    for (int c = 0; c < 256; ++c) {
      if (c < 0x80) {
        n[c] = 0;
      } else if (c < 0xC2) {
        n[c] = -1;
      } else if (c < 0xE0) {
        n[c] = 1;
      } else if (c < 0xF0) {
        n[c] = 2;
      } else if (c < 0xF5) {
        n[c] = 3;
      } else {
        n[c] = -1;
      }
    }
  }
};
constexpr TrailTable kTrail;

// Checks one multi-byte sequence starting at s[0]; `left` bytes remain
// including the lead. Returns the sequence length or 0 when invalid.
inline size_t CheckSequence(const unsigned char* s, size_t left) {
  const int trail = kTrail.n[s[0]];
  if (trail <= 0) return 0;
  if (static_cast<size_t>(trail) >= left) return 0;
  // The second byte carries the overlong and range limits of 3- and 4-byte forms.
  unsigned lo = 0x80, hi = 0xBF;
  switch (s[0]) {
    case 0xE0: lo = 0xA0; break;
    case 0xF0: lo = 0x90; break;
    case 0xF4: hi = 0x8F; break;
    default: break;
  }
  if (s[1] < lo || s[1] > hi) return 0;
  for (int i = 2; i <= trail; ++i) {
    if (s[i] < 0x80 || s[i] > 0xBF) return 0;
  }
  return static_cast<size_t>(trail) + 1;
}

constexpr uint64_t kHighBits = 0x8080808080808080ULL;
constexpr uint64_t kLowBits = 0x0101010101010101ULL;

inline uint64_t Load64(const unsigned char* p) {
  uint64_t w;
  std::memcpy(&w, p, 8);
  return w;
}

// Non-zero when one of the eight bytes of `w` is '.' (all bytes below 0x80).
inline uint64_t HasDot(uint64_t w) {
  const uint64_t x = w ^ (kLowBits * '.');
  return (x - kLowBits) & ~x & kHighBits;
}

inline uint64_t Load32(const unsigned char* p) {
  uint32_t w;
  std::memcpy(&w, p, 4);
  return w;
}

// The common case: all of the text is ASCII. Reads it in (possibly
// overlapping) words and reports whether it holds a '.'. False when any byte
// is 0x80 or above.
inline bool ScanAscii(const unsigned char* s, size_t len, bool* dot) {
  uint64_t all = 0;
  uint64_t dots = 0;
  if (len >= 8) {
    size_t i = 0;
    for (; i + 8 <= len; i += 8) {
      const uint64_t w = Load64(s + i);
      all |= w;
      dots |= HasDot(w);
    }
    if (i < len) {
      const uint64_t w = Load64(s + len - 8);
      all |= w;
      dots |= HasDot(w);
    }
  } else if (len >= 4) {
    const uint64_t w = Load32(s) | Load32(s + len - 4) << 32;
    all = w;
    dots = HasDot(w);
  } else {
    uint64_t w = 0;
    for (size_t i = 0; i < len; ++i) w |= static_cast<uint64_t>(s[i]) << (8 * i);
    all = w;
    dots = HasDot(w);
  }
  if (all & kHighBits) return false;
  *dot = dots != 0;
  return true;
}

// Scans `len` bytes for invalid UTF-8 and, when `dot` is given, for a '.'.
bool ScanText(const unsigned char* s, size_t len, bool* dot) {
  bool asciiDot = false;
  if (ScanAscii(s, len, &asciiDot)) {
    if (dot != nullptr) *dot = asciiDot;
    return true;
  }
  bool dots = false;
  size_t i = 0;
  while (i < len) {
    if (s[i] < 0x80) {
      dots |= s[i] == '.';
      ++i;
      continue;
    }
    const size_t n = CheckSequence(s + i, len - i);
    if (n == 0) return false;
    i += n;
  }
  if (dot != nullptr) *dot = dots;
  return true;
}

// ---- Building -------------------------------------------------------------

void SetError(bson* b, int flag, const char* text) {
  b->err |= flag;
  b->errstr = text;
}

int EnsureSpace(bson* b, int64_t needed) {
  const int64_t pos = b->cur - b->data;
  if (pos + needed <= b->dataSize) return BSON_OK;
  int newSize = 0;
  if (bson_grow_size(b->dataSize, needed, &newSize) != BSON_OK) {
    SetError(b, BSON_ERR_SIZE_OVERFLOW, "document too large");
    return BSON_ERROR;
  }
  char* grown = static_cast<char*>(g_realloc(b->data, static_cast<size_t>(newSize)));
  if (grown == nullptr) Fatal("realloc() failed");
  b->data = grown;
  b->cur = grown + pos;
  b->dataSize = newSize;
  return BSON_OK;
}

// Sets the flags a name earns; BSON_ERROR only for invalid UTF-8.
int CheckName(bson* b, const char* name, size_t len) {
  bool dot = false;
  if (!ScanText(reinterpret_cast<const unsigned char*>(name), len, &dot)) {
    SetError(b, BSON_ERR_NOT_UTF8, "name is not valid UTF-8");
    return BSON_ERROR;
  }
  if (dot) SetError(b, BSON_ERR_NAME_HAS_DOT, "name contains '.'");
  if (name[0] == '$' && std::strcmp(name, "$ref") != 0 && std::strcmp(name, "$id") != 0 &&
      std::strcmp(name, "$db") != 0) {
    SetError(b, BSON_ERR_NAME_HAS_DOLLAR, "name starts with '$'");
  }
  return BSON_OK;
}

// Checks and writes the type byte and name of an element whose value takes
// `valueBytes`; on success the caller writes exactly that many bytes.
int AppendHead(bson* b, const char* name, int type, int64_t valueBytes) {
  if (b->finished) {
    SetError(b, BSON_ERR_FINISHED, "append to a finished document");
    return BSON_ERROR;
  }
  const size_t nameLen = std::strlen(name);
  if (EnsureSpace(b, valueBytes + static_cast<int64_t>(nameLen) + 2) != BSON_OK) {
    return BSON_ERROR;
  }
  if (CheckName(b, name, nameLen) != BSON_OK) {
    if (g_errHandler != nullptr) g_errHandler("BSON error.");
    return BSON_ERROR;
  }
  *b->cur++ = static_cast<char>(type);
  std::memcpy(b->cur, name, nameLen + 1);
  b->cur += nameLen + 1;
  return BSON_OK;
}

// ---- Reading --------------------------------------------------------------

void SetCorrupt(bson_iterator* it) {
  it->cursor = nullptr;
  it->end = nullptr;
  it->value = nullptr;
}

// Size of a value of `type` at `v`, where `avail` bytes remain before the
// document's closing NUL; -1 when the value is malformed or does not fit.
int64_t ValueSize(unsigned type, const char* v, int64_t avail) {
  int64_t size = 0;
  switch (type) {
    case BSON_ELEM_UNDEFINED:
    case BSON_ELEM_NULL:
      size = 0;
      break;
    case BSON_ELEM_BOOL:
      size = 1;
      break;
    case BSON_ELEM_INT:
      size = 4;
      break;
    case BSON_ELEM_DOUBLE:
    case BSON_ELEM_DATE:
    case BSON_ELEM_TIMESTAMP:
    case BSON_ELEM_LONG:
      size = 8;
      break;
    case BSON_ELEM_OID:
      size = 12;
      break;
    case BSON_ELEM_STRING:
    case BSON_ELEM_CODE:
    case BSON_ELEM_SYMBOL:
    case BSON_ELEM_DBPOINTER: {
      if (avail < 4) return -1;
      const int32_t len = GetLe32(v);
      if (len < 1 || len > avail - 4 || v[4 + len - 1] != '\0') return -1;
      size = 4 + static_cast<int64_t>(len);
      if (type == BSON_ELEM_DBPOINTER) size += 12;
      break;
    }
    case BSON_ELEM_OBJECT:
    case BSON_ELEM_ARRAY: {
      if (avail < 5) return -1;
      const int32_t len = GetLe32(v);
      if (len < 5 || len > avail || v[len - 1] != '\0') return -1;
      size = len;
      break;
    }
    case BSON_ELEM_CODE_W_SCOPE: {
      // total length, string (length, at least its NUL), scope document
      if (avail < 4) return -1;
      const int32_t len = GetLe32(v);
      if (len < 14) return -1;
      size = len;
      break;
    }
    case BSON_ELEM_BINARY: {
      if (avail < 5) return -1;
      const int32_t len = GetLe32(v);
      if (len < 0 || len > avail - 5) return -1;
      if (static_cast<unsigned char>(v[4]) == BSON_BIN_LEGACY && len < 4) return -1;
      size = 5 + static_cast<int64_t>(len);
      break;
    }
    case BSON_ELEM_REGEX: {
      const void* pat = std::memchr(v, 0, static_cast<size_t>(avail));
      if (pat == nullptr) return -1;
      const char* opts = static_cast<const char*>(pat) + 1;
      const void* optEnd = std::memchr(opts, 0, static_cast<size_t>(v + avail - opts));
      if (optEnd == nullptr) return -1;
      size = static_cast<const char*>(optEnd) + 1 - v;
      break;
    }
    default:
      return -1;
  }
  return size > avail ? -1 : size;
}

// First NUL byte in [q, end), or null. Names are short, so the word loop
// beats a library call.
inline const char* FindNul(const char* q, const char* end) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  while (end - q >= 8) {
    uint64_t w;
    std::memcpy(&w, q, 8);
    // The lowest flagged byte is exactly the first zero byte.
    const uint64_t z = (w - kLowBits) & ~w & kHighBits;
    if (z != 0) return q + (__builtin_ctzll(z) >> 3);
    q += 8;
  }
  for (; q < end; ++q) {
    if (*q == '\0') return q;
  }
  return nullptr;
#else
  return static_cast<const char*>(std::memchr(q, 0, static_cast<size_t>(end - q)));
#endif
}

// Moves the cursor onto the element at `p` after checking that it lies whole
// before the closing NUL at it->end; `p == end` is the end of the document.
// In a frame the last byte is not known to be a NUL, so it is read like any
// other element head. A malformed element makes the iterator corrupt; an
// unknown type is fatal.
void Land(bson_iterator* it, const char* p) {
  const char* end = it->end;
  if (p == end && !it->frame) {
    it->cursor = p;
    it->value = p;
    return;
  }
  const unsigned type = static_cast<unsigned char>(*p);
  if (type == BSON_ELEM_EOO) {
    // A terminator before the last byte leaves bytes the length field claims
    // but no element explains; a frame ends at its first terminator.
    if (!it->frame) return SetCorrupt(it);
    it->end = p;
    it->cursor = p;
    it->value = p;
    return;
  }
  if (type > BSON_ELEM_MAX) FatalUnknownType(type);
  const char* nul = FindNul(p + 1, end);
  if (nul == nullptr) return SetCorrupt(it);
  const char* v = nul + 1;
  if (ValueSize(type, v, end - v) < 0) return SetCorrupt(it);
  it->cursor = p;
  it->value = v;
}

// Size of the current element's value, which was checked when the cursor
// reached it. Sizes fixed by the type come from a table.
inline int64_t StepSize(unsigned type, const char* v, const char* end) {
  static constexpr signed char kFixed[BSON_ELEM_MAX + 1] = {
      0, 8, -1, -1, -1, -1, 0, 12, 1, 8, 0, -1, -1, -1, -1, -1, 4, 8, 8};
  const int fixed = kFixed[type];
  if (fixed >= 0) return fixed;
  switch (type) {
    case BSON_ELEM_STRING:
    case BSON_ELEM_CODE:
    case BSON_ELEM_SYMBOL: return 4 + static_cast<int64_t>(GetLe32(v));
    case BSON_ELEM_OBJECT:
    case BSON_ELEM_ARRAY:
    case BSON_ELEM_CODE_W_SCOPE: return GetLe32(v);
    case BSON_ELEM_BINARY: return 5 + static_cast<int64_t>(GetLe32(v));
    default: return ValueSize(type, v, end - v);  // db pointer, regex
  }
}

inline bool AtElement(const bson_iterator* it) { return bson_iterator_at_element_(it); }

}  // namespace

// ---- Internal -------------------------------------------------------------

int bson_grow_size(int dataSize, int64_t needed, int* newSize) {
  const int64_t total = static_cast<int64_t>(dataSize) + needed;
  const int64_t grown = total + total / 2;  // 1.5 x, cut to an integer
  if (grown <= INT32_MAX) {
    *newSize = static_cast<int>(grown);
    return BSON_OK;
  }
  // Growing by half would overflow: take the largest size a document can
  // have, unless even that is not more than what is needed.
  if (total >= INT32_MAX) return BSON_ERROR;
  *newSize = INT32_MAX;
  return BSON_OK;
}

void bson_set_allocators_ForTest(bson_malloc_fn mallocFn, bson_realloc_fn reallocFn) {
  g_malloc = mallocFn != nullptr ? mallocFn : &std::malloc;
  g_realloc = reallocFn != nullptr ? reallocFn : &std::realloc;
}

// ---- Public ---------------------------------------------------------------

bson_err_handler bson_set_err_handler(bson_err_handler handler) {
  bson_err_handler old = g_errHandler;
  g_errHandler = handler;
  return old;
}

bool bson_valid_utf8(const char* text, int len) {
  if (len <= 0) return len == 0;
  return ScanText(reinterpret_cast<const unsigned char*>(text), static_cast<size_t>(len), nullptr);
}

// The stack of open sub-documents is meaningful only up to stackPos, so it
// is left as it is.
void bson_init(bson* b) {
  b->data = static_cast<char*>(g_malloc(BSON_INITIAL_SIZE));
  if (b->data == nullptr) Fatal("malloc() failed");
  b->cur = b->data + 4;
  b->dataSize = BSON_INITIAL_SIZE;
  b->finished = 0;
  b->stackPos = 0;
  b->err = 0;
  b->errstr = nullptr;
}

void bson_init_wrap(bson* b, const char* data) {
  b->data = const_cast<char*>(data);
  b->cur = b->data + GetLe32(data);
  b->dataSize = 0;
  b->finished = 1;
  b->stackPos = 0;
  b->err = 0;
  b->errstr = nullptr;
}

void bson_destroy(bson* b) {
  if (b->dataSize > 0) std::free(b->data);
  b->data = nullptr;
  b->cur = nullptr;
  b->dataSize = 0;
  b->finished = 0;
  b->stackPos = 0;
  b->err = 0;
  b->errstr = nullptr;
}

int bson_finish(bson* b) {
  if (b->finished) return BSON_OK;
  if (b->err & BSON_ERR_NOT_UTF8) return BSON_ERROR;
  if (EnsureSpace(b, 1) != BSON_OK) return BSON_ERROR;
  *b->cur++ = '\0';
  PutLe32(b->data, static_cast<int32_t>(b->cur - b->data));
  b->finished = 1;
  return BSON_OK;
}

int bson_size(const bson* b) {
  if (b->data == nullptr) return 0;
  if (b->finished) return GetLe32(b->data);
  return static_cast<int>(b->cur - b->data);
}

const char* bson_data(const bson* b) { return b->data; }

int bson_append_int(bson* b, const char* name, int32_t value) {
  if (AppendHead(b, name, BSON_ELEM_INT, 4) != BSON_OK) return BSON_ERROR;
  PutLe32(b->cur, value);
  b->cur += 4;
  return BSON_OK;
}

int bson_append_long(bson* b, const char* name, int64_t value) {
  if (AppendHead(b, name, BSON_ELEM_LONG, 8) != BSON_OK) return BSON_ERROR;
  PutLe64(b->cur, value);
  b->cur += 8;
  return BSON_OK;
}

int bson_append_double(bson* b, const char* name, double value) {
  if (AppendHead(b, name, BSON_ELEM_DOUBLE, 8) != BSON_OK) return BSON_ERROR;
  int64_t bits;
  std::memcpy(&bits, &value, 8);
  PutLe64(b->cur, bits);
  b->cur += 8;
  return BSON_OK;
}

int bson_append_bool(bson* b, const char* name, int value) {
  if (AppendHead(b, name, BSON_ELEM_BOOL, 1) != BSON_OK) return BSON_ERROR;
  *b->cur++ = value != 0 ? 1 : 0;
  return BSON_OK;
}

int bson_append_string(bson* b, const char* name, const char* value) {
  const size_t len = std::strlen(value);
  if (len >= INT32_MAX) {
    SetError(b, BSON_ERR_SIZE_OVERFLOW, "string too large");
    return BSON_ERROR;
  }
  return bson_append_string_n(b, name, value, static_cast<int>(len));
}

int bson_append_string_n(bson* b, const char* name, const char* value, int len) {
  if (len < 0 || len >= INT32_MAX) {
    SetError(b, BSON_ERR_SIZE_OVERFLOW, "bad string length");
    return BSON_ERROR;
  }
  // The value is checked before anything is written, so a refused string
  // leaves no trace in the document.
  if (!b->finished && !bson_valid_utf8(value, len)) {
    SetError(b, BSON_ERR_NOT_UTF8, "string is not valid UTF-8");
    return BSON_ERROR;
  }
  if (AppendHead(b, name, BSON_ELEM_STRING, 4 + static_cast<int64_t>(len) + 1) != BSON_OK) {
    return BSON_ERROR;
  }
  PutLe32(b->cur, len + 1);
  std::memcpy(b->cur + 4, value, static_cast<size_t>(len));
  b->cur[4 + len] = '\0';
  b->cur += 4 + len + 1;
  return BSON_OK;
}

int bson_append_binary(bson* b, const char* name, int subtype, const char* data, int len) {
  const bool legacy = subtype == BSON_BIN_LEGACY;
  if (len < 0 || (legacy && len > INT32_MAX - 4)) {
    SetError(b, BSON_ERR_SIZE_OVERFLOW, "bad binary length");
    return BSON_ERROR;
  }
  if (data == nullptr && len > 0) return BSON_ERROR;
  const int64_t valueBytes = 5 + static_cast<int64_t>(len) + (legacy ? 4 : 0);
  if (AppendHead(b, name, BSON_ELEM_BINARY, valueBytes) != BSON_OK) return BSON_ERROR;
  PutLe32(b->cur, legacy ? len + 4 : len);
  b->cur[4] = static_cast<char>(subtype);
  b->cur += 5;
  if (legacy) {
    PutLe32(b->cur, len);
    b->cur += 4;
  }
  if (len > 0) std::memcpy(b->cur, data, static_cast<size_t>(len));
  b->cur += len;
  return BSON_OK;
}

int bson_append_bson(bson* b, const char* name, const bson* sub) {
  if (sub == nullptr || !sub->finished) return BSON_ERROR;
  const int len = bson_size(sub);
  if (AppendHead(b, name, BSON_ELEM_OBJECT, len) != BSON_OK) return BSON_ERROR;
  std::memcpy(b->cur, sub->data, static_cast<size_t>(len));
  b->cur += len;
  return BSON_OK;
}

// ---- Iterator -------------------------------------------------------------

namespace {

void StartWalk(bson_iterator* it, const char* data, int64_t len) {
  it->first = 1;
  it->frame = 0;
  if (len < 5 || data[len - 1] != '\0') {
    SetCorrupt(it);
    return;
  }
  it->end = data + len - 1;
  Land(it, data + 4);
}

}  // namespace

void bson_iterator_init(bson_iterator* it, const bson* b) {
  if (b == nullptr || b->data == nullptr || !b->finished) {
    it->first = 1;
    it->frame = 0;
    SetCorrupt(it);
    return;
  }
  bson_iterator_from_buffer(it, b->data);
}

void bson_iterator_from_buffer(bson_iterator* it, const char* data) {
  StartWalk(it, data, GetLe32(data));
}

void bson_iterator_from_buffer_n(bson_iterator* it, const char* data, size_t avail) {
  if (avail < 5) {
    it->first = 1;
    it->frame = 0;
    SetCorrupt(it);
    return;
  }
  const int64_t len = GetLe32(data);
  if (len > static_cast<int64_t>(avail)) {
    it->first = 1;
    it->frame = 0;
    SetCorrupt(it);
    return;
  }
  StartWalk(it, data, len);
}

void bson_iterator_from_frame(bson_iterator* it, const char* data, size_t len) {
  it->first = 1;
  it->frame = 1;
  if (len < 5) {
    SetCorrupt(it);
    return;
  }
  // The last byte bounds the walk like a document's closing NUL, except that
  // Land() ends the frame at the first terminator it meets.
  it->end = data + len - 1;
  Land(it, data + 4);
}

bson_type bson_iterator_next(bson_iterator* it) {
  if (it->first) {
    it->first = 0;
    return bson_iterator_type(it);
  }
  if (!AtElement(it)) return BSON_ELEM_EOO;
  Land(it, it->value + StepSize(static_cast<unsigned char>(*it->cursor), it->value, it->end));
  return bson_iterator_type(it);
}

int32_t bson_iterator_int(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_INT: return GetLe32(bson_iterator_value(it));
    case BSON_ELEM_LONG: return static_cast<int32_t>(GetLe64(bson_iterator_value(it)));
    case BSON_ELEM_DOUBLE: return DoubleToInt32(GetDouble(bson_iterator_value(it)));
    default: return 0;
  }
}

int64_t bson_iterator_long(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_INT: return GetLe32(bson_iterator_value(it));
    case BSON_ELEM_LONG: return GetLe64(bson_iterator_value(it));
    case BSON_ELEM_DOUBLE: return DoubleToInt64(GetDouble(bson_iterator_value(it)));
    default: return 0;
  }
}

double bson_iterator_double(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_INT: return GetLe32(bson_iterator_value(it));
    case BSON_ELEM_LONG: return static_cast<double>(GetLe64(bson_iterator_value(it)));
    case BSON_ELEM_DOUBLE: return GetDouble(bson_iterator_value(it));
    default: return 0;
  }
}

int bson_iterator_bool(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_EOO:
    case BSON_ELEM_NULL: return 0;
    case BSON_ELEM_BOOL: return bson_iterator_value(it)[0] != 0;
    case BSON_ELEM_DOUBLE: return GetDouble(bson_iterator_value(it)) != 0;
    case BSON_ELEM_INT: return GetLe32(bson_iterator_value(it)) != 0;
    case BSON_ELEM_LONG: return GetLe64(bson_iterator_value(it)) != 0;
    default: return 1;
  }
}

const char* bson_iterator_string(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_STRING:
    case BSON_ELEM_SYMBOL: return bson_iterator_value(it) + 4;
    default: return "";
  }
}

int bson_iterator_string_len(const bson_iterator* it) {
  switch (bson_iterator_type(it)) {
    case BSON_ELEM_STRING:
    case BSON_ELEM_SYMBOL: return GetLe32(bson_iterator_value(it)) - 1;
    default: return 0;
  }
}

int bson_iterator_bin_len(const bson_iterator* it) {
  if (bson_iterator_type(it) != BSON_ELEM_BINARY) return 0;
  const char* v = bson_iterator_value(it);
  const int32_t len = GetLe32(v);
  return static_cast<unsigned char>(v[4]) == BSON_BIN_LEGACY ? len - 4 : len;
}

int bson_iterator_bin_type(const bson_iterator* it) {
  if (bson_iterator_type(it) != BSON_ELEM_BINARY) return 0;
  return static_cast<unsigned char>(bson_iterator_value(it)[4]);
}

const char* bson_iterator_bin_data(const bson_iterator* it) {
  if (bson_iterator_type(it) != BSON_ELEM_BINARY) return nullptr;
  const char* v = bson_iterator_value(it);
  return static_cast<unsigned char>(v[4]) == BSON_BIN_LEGACY ? v + 9 : v + 5;
}

int bson_iterator_subobject(const bson_iterator* it, bson* sub) {
  const bson_type t = bson_iterator_type(it);
  if (t != BSON_ELEM_OBJECT && t != BSON_ELEM_ARRAY) return BSON_ERROR;
  bson_init_wrap(sub, bson_iterator_value(it));
  return BSON_OK;
}
