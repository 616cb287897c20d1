// Low-level layer of the BSON codec: two plain records, `bson` (a document
// being built, or finished bytes being read) and `bson_iterator` (a cursor over
// the elements of a finished document), and the functions that work on them.
//
// Wire format: a little-endian int32 total length, the elements, and a closing
// NUL byte. An element is a type byte, a NUL-terminated name and a value whose
// size follows from the type.
//
// Failure model. Appends and `bson_finish` return BSON_OK or BSON_ERROR and
// record the reason in `bson::err` (the BSON_ERR_* flags). Allocation failure
// and an element type byte above 18 are fatal: the error hook (if any) is
// called first, then "error: <text>" goes to standard error and the process
// exits with -5. A document read from a peer can therefore end the process
// when it carries an unknown type; that is the intended behaviour of this
// layer. Every other malformation of an inbound document (lengths that run
// past the end, missing terminators, truncation) is caught by the iterator,
// which then reports the end of the document and marks itself corrupt; it
// never reads outside the bytes the document's length field (or the caller's
// byte count) allows.
//
// Threads: a record belongs to one thread at a time. The error hook is
// process-wide and meant to be set once, before any thread uses the codec.
#ifndef ZEL_MPALIB_BSON_CODEC_H_
#define ZEL_MPALIB_BSON_CODEC_H_

#include <cstddef>
#include <cstdint>

// Result of appends and finish.
constexpr int BSON_OK = 0;
constexpr int BSON_ERROR = -1;

// Flags of bson::err.
enum {
  BSON_ERR_SIZE_OVERFLOW = 1,   // the document would pass 2147483647 bytes
  BSON_ERR_NOT_UTF8 = 2,        // a name or string value is not valid UTF-8
  BSON_ERR_NAME_HAS_DOT = 4,    // a name holds a '.'
  BSON_ERR_NAME_HAS_DOLLAR = 8, // a name starts with '$' ($ref, $id, $db excepted)
  BSON_ERR_FINISHED = 16,       // append to a finished document
};

// Element type bytes, 0 to 18. Types above 18 are unknown to this codec.
enum bson_type {
  BSON_ELEM_EOO = 0,
  BSON_ELEM_DOUBLE = 1,
  BSON_ELEM_STRING = 2,
  BSON_ELEM_OBJECT = 3,
  BSON_ELEM_ARRAY = 4,
  BSON_ELEM_BINARY = 5,
  BSON_ELEM_UNDEFINED = 6,
  BSON_ELEM_OID = 7,
  BSON_ELEM_BOOL = 8,
  BSON_ELEM_DATE = 9,
  BSON_ELEM_NULL = 10,
  BSON_ELEM_REGEX = 11,
  BSON_ELEM_DBPOINTER = 12,
  BSON_ELEM_CODE = 13,
  BSON_ELEM_SYMBOL = 14,
  BSON_ELEM_CODE_W_SCOPE = 15,
  BSON_ELEM_INT = 16,
  BSON_ELEM_TIMESTAMP = 17,
  BSON_ELEM_LONG = 18,
};
constexpr int BSON_ELEM_MAX = 18;

// Binary subtypes. The legacy subtype 2 repeats the length inside the value.
enum {
  BSON_BIN_GENERIC = 0,
  BSON_BIN_LEGACY = 2,
};

constexpr int BSON_INITIAL_SIZE = 128;
constexpr int BSON_MAX_STACK = 32;

// One document. A fresh document owns `data` (dataSize > 0); a document that
// wraps foreign bytes (bson_init_wrap) is finished, has dataSize 0 and owns
// nothing, so bson_destroy leaves its bytes alone.
struct bson {
  char* data;              // the document; first four bytes hold the length once finished
  char* cur;               // write cursor
  int dataSize;            // bytes allocated at data; 0 when the bytes are foreign
  int finished;            // non-zero: closed, no more appends
  int stack[BSON_MAX_STACK];  // offsets of open sub-documents
  int stackPos;            // number of open sub-documents
  int err;                 // BSON_ERR_* flags
  const char* errstr;      // text of the last error, or null
};

// A cursor over the elements of one finished document. `cursor` points at the
// current element (data + 4 at the start); `first` is non-zero before the
// first step. `end` points at the document's closing NUL byte and bounds every
// read; `value` points at the current element's value. An element is checked
// against `end` when the cursor reaches it, so readers trust the current
// element. A corrupt document leaves `cursor` null: the iterator then stays at
// the end. `frame` is non-zero for a walk over a protocol frame (see
// bson_iterator_from_frame).
struct bson_iterator {
  const char* cursor;
  int first;
  const char* end;
  const char* value;
  int frame;
};

// Called first on a fatal error (with its text) and on an invalid element
// name (with "BSON error."). When it returns from a fatal error the process
// still exits. Null by default; returns the previous hook.
typedef void (*bson_err_handler)(const char* errmsg);
bson_err_handler bson_set_err_handler(bson_err_handler handler);

// ---- Building -------------------------------------------------------------

// Starts a fresh document of BSON_INITIAL_SIZE bytes.
void bson_init(bson* b);
// Makes `b` a finished, read-only view of the document at `data`, which must
// outlive `b`. Nothing is copied and nothing is owned.
void bson_init_wrap(bson* b, const char* data);
// Frees the bytes when they are owned and clears the record. Safe on a
// wrapped or already destroyed record.
void bson_destroy(bson* b);

// Closes the document: trailing NUL, length stored, `finished` set. Refused
// (BSON_ERROR) when a name or string was not UTF-8; a second call is BSON_OK.
int bson_finish(bson* b);

// Length of a finished document, or the bytes written so far.
int bson_size(const bson* b);
const char* bson_data(const bson* b);

int bson_append_int(bson* b, const char* name, int32_t value);
int bson_append_long(bson* b, const char* name, int64_t value);
int bson_append_double(bson* b, const char* name, double value);
int bson_append_bool(bson* b, const char* name, int value);
// `value` is NUL-terminated; bson_append_string_n takes `len` bytes of it.
int bson_append_string(bson* b, const char* name, const char* value);
int bson_append_string_n(bson* b, const char* name, const char* value, int len);
// A negative length is refused. Subtype BSON_BIN_LEGACY writes the length a
// second time in front of the bytes.
int bson_append_binary(bson* b, const char* name, int subtype, const char* data, int len);
// Embeds the finished document `sub`.
int bson_append_bson(bson* b, const char* name, const bson* sub);

// UTF-8 test used for names and string values; `len` bytes of `text`.
bool bson_valid_utf8(const char* text, int len);

// ---- Reading --------------------------------------------------------------

// Iterates a finished document; an unfinished one reads as corrupt.
void bson_iterator_init(bson_iterator* it, const bson* b);
// Iterates the bytes at `data`, bounded by their own length field.
void bson_iterator_from_buffer(bson_iterator* it, const char* data);
// Same, but the document must also fit the `avail` bytes at `data`.
void bson_iterator_from_buffer_n(bson_iterator* it, const char* data, size_t avail);
// Walks `len` bytes read as one document of the MPA protocol, the way its
// reader always has: the elements from data + 4 up to the first terminator,
// whatever the length field says and whatever follows the terminator. An
// element that does not fit in the `len` bytes (or fewer than 5 bytes) makes
// the walk corrupt, so nothing outside them is read.
void bson_iterator_from_frame(bson_iterator* it, const char* data, size_t len);

// Steps to the next element and returns its type; BSON_ELEM_EOO at the end
// and on a corrupt document.
bson_type bson_iterator_next(bson_iterator* it);
// Type of the current element; BSON_ELEM_EOO at the end.
inline bson_type bson_iterator_type(const bson_iterator* it);
// Non-zero when the walk met bytes that are not a well-formed document.
inline int bson_iterator_corrupt(const bson_iterator* it) { return it->cursor == nullptr; }
// Name of the current element; "" at the end.
inline const char* bson_iterator_key(const bson_iterator* it);
// First byte of the current element's value; null at the end.
inline const char* bson_iterator_value(const bson_iterator* it);

// Readers that convert across types. Numbers: int32, int64 and double are
// converted (int64 to int32 keeps the low 32 bits; a double saturates and NaN
// gives 0); every other type gives 0. Booleans: end and null are false;
// double, int32 and int64 are true unless 0; a boolean is its byte; every
// other type is true.
int32_t bson_iterator_int(const bson_iterator* it);
int64_t bson_iterator_long(const bson_iterator* it);
double bson_iterator_double(const bson_iterator* it);
int bson_iterator_bool(const bson_iterator* it);
// Text of a string or symbol, "" for every other type. Points into the document.
const char* bson_iterator_string(const bson_iterator* it);
// Length of a string or symbol value without its NUL, 0 otherwise.
int bson_iterator_string_len(const bson_iterator* it);
// Binary value: length (less the inner length of the legacy subtype), subtype
// and bytes. 0 / 0 / null for other types.
int bson_iterator_bin_len(const bson_iterator* it);
int bson_iterator_bin_type(const bson_iterator* it);
const char* bson_iterator_bin_data(const bson_iterator* it);
// Wraps an embedded document (or array) in place in `sub` (see
// bson_init_wrap). Returns BSON_ERROR for other types and leaves `sub` alone.
int bson_iterator_subobject(const bson_iterator* it, bson* sub);

// ---- Inline accessors -------------------------------------------------------

inline bool bson_iterator_at_element_(const bson_iterator* it) {
  return it->cursor != nullptr && it->cursor != it->end;
}

inline bson_type bson_iterator_type(const bson_iterator* it) {
  if (!bson_iterator_at_element_(it)) return BSON_ELEM_EOO;
  return static_cast<bson_type>(static_cast<unsigned char>(*it->cursor));
}

inline const char* bson_iterator_key(const bson_iterator* it) {
  return bson_iterator_at_element_(it) ? it->cursor + 1 : "";
}

inline const char* bson_iterator_value(const bson_iterator* it) {
  return bson_iterator_at_element_(it) ? it->value : nullptr;
}

#endif  // ZEL_MPALIB_BSON_CODEC_H_
