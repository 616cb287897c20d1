// Object layer of the BSON codec: `BSON` (a document being built or a copy of
// one received), `BsonIterator` (a walk over a finished document) and
// `BsonException`.
//
//   ZelMpa::BSON doc;
//   doc.appendLong("msg_type", 3);
//   doc.appendString("app_type", "dorn");
//   if (doc.finish() != 0) ...;          // doc.dataPtr(), doc.size()
//
//   ZelMpa::BsonIterator it(doc);       // or BsonIterator(bytes, length)
//   while (it.next() != ZelMpa::BsonIterator::END) {
//     const char* key; int64_t v;
//     if (it.type() == ZelMpa::BsonIterator::LONG && it.getLong(key, v) == 0) ...
//   }
//   if (it.isCorrupt()) ...;             // the bytes were not a whole document
//
// Ownership: copying a BSON shares its document; the last copy frees it.
// Copies of an iterator share its position. An iterator does not own the bytes it walks: the document (or buffer) must
// outlive it and everything it handed out (keys, strings, binaries, getRaw).
// Threads: one object per thread at a time; copies that share a document may
// be read together but not appended to.
#ifndef ZEL_MPALIB_BSON_OBJECT_H_
#define ZEL_MPALIB_BSON_OBJECT_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "util/MpaException.h"

struct bson;
struct bson_iterator;

namespace ZelMpa {

// Results of the object layer besides 0 (success) and -1 (the low-level layer
// refused the append; see the document's error flags).
constexpr int BSON_RC_NULL_ARG = -2;        // a null value pointer
constexpr int BSON_RC_EMPTY_KEY = -1130;    // empty (or null) element name
constexpr int BSON_RC_WRONG_TYPE = -1131;   // getter does not match the element
constexpr int BSON_RC_NOT_FINISHED = -1132; // embedding an unfinished document

class BSON {
 public:
  // A fresh, empty document. Throws std::bad_alloc when it cannot be made.
  BSON();
  // A copy of the finished document at `data`, trusted to be as long as its
  // length field says. Throws std::invalid_argument for a null pointer or
  // bytes that are not a document.
  explicit BSON(const uint8_t* data);
  // The same, but the document must also fit the `avail` bytes at `data`.
  BSON(const uint8_t* data, size_t avail);
  virtual ~BSON();

  BSON(const BSON&) = default;
  BSON& operator=(const BSON&) = default;

  // Appends return 0, -1 on a refusal of the low-level layer, -1130 for an
  // empty name (checked first), and the codes listed at each.
  virtual int appendInt(const char* name, int32_t value);
  virtual int appendLong(const char* name, int64_t value);
  virtual int appendDouble(const char* name, double value);
  virtual int appendBool(const char* name, bool value);
  // -2 for a null value.
  virtual int appendString(const char* name, const char* value);
  // Binary of subtype 0. -2 for a null pointer.
  virtual int appendBinary(const char* name, const uint8_t* data, int32_t len);
  // Embeds a copy of `obj`. -1132 when `obj` is not finished.
  virtual int appendObject(const char* name, const BSON& obj);
  // Embeds a copy of `raw`. -2 for null, -1132 when not finished.
  virtual int appendRaw(const char* name, const bson* raw);
  // Closes the document: 0, or -1 when a name or string was not UTF-8. A
  // second call returns 0.
  virtual int finish();
  virtual bool isFinished() const;
  // Length in bytes (bytes so far while building); 0 without a document.
  virtual int size() const;
  // The document's bytes; null without a document.
  virtual const uint8_t* dataPtr() const;

  // The low-level record, for code that carries it (the message record's
  // headers). Stays owned by this object and its copies.
  bson* raw() const { return b_; }
  // Error flags of the record (BSON_ERR_* of bson_codec.h).
  int errorFlags() const;

 private:
  bson* b_ = nullptr;
  std::shared_ptr<bson> owner_;
};

class BsonIterator {
 public:
  // Element kinds as this iterator reports them.
  enum Type {
    END = 0,          // end of document (also after a corrupt element)
    UNSUPPORTED = 1,  // any element type not listed here
    INT = 2,          // int32
    LONG = 3,         // int64
    DOUBLE = 4,
    BOOL = 5,
    BINARY = 6,
    STRING = 7,
    OBJECT = 8,       // embedded document
  };

  // Walks the document at `data`, bounded by its own length field. Throws
  // std::invalid_argument for a null pointer.
  explicit BsonIterator(const uint8_t* data);
  // Walks at most `avail` bytes at `data`; a document longer than that is
  // corrupt. Throws std::invalid_argument for a null pointer.
  BsonIterator(const uint8_t* data, size_t avail);
  // Walks a finished document; an unfinished one reads as corrupt. Throws
  // std::invalid_argument when `doc` has no data.
  explicit BsonIterator(const BSON& doc);
  // Walks `len` bytes received as one protocol document: the elements up to
  // the first terminator, whatever the length field says (see
  // bson_iterator_from_frame). Throws std::invalid_argument for a null
  // pointer.
  static BsonIterator OverFrame(const uint8_t* data, size_t len);

  // Copies share one walk: stepping one steps them all.
  BsonIterator(const BsonIterator&) = default;
  BsonIterator& operator=(const BsonIterator&) = default;

  // Steps to the next element and returns its kind; END at the end.
  Type next();
  Type type() const;
  // Name of the current element, pointing into the document; "" at the end.
  const char* key() const;
  // True when the walk stopped at bytes that are not a well-formed document;
  // the elements seen before stay valid.
  bool isCorrupt() const;

  // Getters: 0 with the current element's key and value, or -1131 when the
  // element is not of the kind asked for; then the outputs are untouched.
  // Texts and bytes point into the document.
  int getInt(const char*& key, int32_t& value) const;
  int getLong(const char*& key, int64_t& value) const;
  int getDouble(const char*& key, double& value) const;
  int getBool(const char*& key, bool& value) const;
  int getString(const char*& key, const char*& value) const;
  // A binary of the legacy subtype 2 reports its payload without the inner
  // length field.
  int getBinary(const char*& key, const uint8_t*& data, size_t& len) const;
  // Wraps the embedded document in place in `value` (finished, not owned:
  // never bson_destroy it). Null `value` is refused with -2.
  int getRaw(const char*& key, bson* value) const;
  // Builds a BSON copy of the embedded document.
  int getObject(const char*& key, BSON& value) const;

 private:
  BsonIterator() = default;

  bson_iterator* it_ = nullptr;
  std::shared_ptr<bson_iterator> owner_;
};

// A failure while building or reading a protocol document. Thrown by the
// client as a pointer to a heap object: `throw new BsonException("...")`;
// the catcher deletes it.
// what() returns the text given here.
class BsonException : public MpaException {
 public:
  explicit BsonException(const char* text);
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_BSON_OBJECT_H_
