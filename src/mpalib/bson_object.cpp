#include "mpalib/bson_object.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "mpalib/bson_codec.h"

namespace ZelMpa {

namespace {

constexpr const char* kNullDataText = "BSON::BSON(uint8_t *data) NULL data arg";
constexpr const char* kMalformedText =
    "BSON::BSON(uint8_t *data) data arg is not properly formed bson.";
constexpr const char* kIteratorNullText =
    "ctor BsonIterator::BsonIterator(const uint8_t *data)  NULL data arg.";

// The record and its shared owner in one allocation. Destroying it frees
// the document's bytes, then the record goes with the block.
struct OwnedBson {
  OwnedBson() {
    record.data = nullptr;
    record.dataSize = 0;
  }
  ~OwnedBson() { bson_destroy(&record); }
  OwnedBson(const OwnedBson&) = delete;
  OwnedBson& operator=(const OwnedBson&) = delete;
  bson record;
};

// Points `b` and `owner` at a new record; the caller fills it.
void NewRecord(bson*& b, std::shared_ptr<bson>& owner) {
  auto block = std::make_shared<OwnedBson>();
  b = &block->record;
  owner = std::shared_ptr<bson>(std::move(block), b);
}

inline bool EmptyName(const char* name) { return name == nullptr || name[0] == '\0'; }

int32_t ReadLe32(const uint8_t* p) {
  return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                              static_cast<uint32_t>(p[2]) << 16 |
                              static_cast<uint32_t>(p[3]) << 24);
}

// Fills the empty record `b` with a copy of the document at `data` (length
// `len`, already checked): finished, owning its bytes.
void CopyDocument(bson* b, const uint8_t* data, int32_t len) {
  std::memset(b, 0, sizeof *b);
  b->data = static_cast<char*>(std::malloc(static_cast<size_t>(len)));
  if (b->data == nullptr) throw std::bad_alloc();
  std::memcpy(b->data, data, static_cast<size_t>(len));
  b->cur = b->data + len;
  b->dataSize = len;
  b->finished = 1;
}

bool WellFormedHead(const uint8_t* data, int32_t len) { return len >= 5 && data[len - 1] == 0; }

// The walk state lives on the heap with its shared owner.
void NewIterator(bson_iterator*& it, std::shared_ptr<bson_iterator>& owner) {
  owner = std::make_shared<bson_iterator>();
  it = owner.get();
}

// Iterator kinds by element type byte 0..18.
constexpr BsonIterator::Type kKinds[BSON_ELEM_MAX + 1] = {
    BsonIterator::END,          // 0 end
    BsonIterator::DOUBLE,       // 1 double
    BsonIterator::STRING,       // 2 string
    BsonIterator::OBJECT,       // 3 document
    BsonIterator::UNSUPPORTED,  // 4 array
    BsonIterator::BINARY,       // 5 binary
    BsonIterator::UNSUPPORTED,  // 6 undefined
    BsonIterator::UNSUPPORTED,  // 7 object id
    BsonIterator::BOOL,         // 8 boolean
    BsonIterator::UNSUPPORTED,  // 9 date
    BsonIterator::UNSUPPORTED,  // 10 null
    BsonIterator::UNSUPPORTED,  // 11 regular expression
    BsonIterator::UNSUPPORTED,  // 12 db pointer
    BsonIterator::UNSUPPORTED,  // 13 code
    BsonIterator::UNSUPPORTED,  // 14 symbol
    BsonIterator::UNSUPPORTED,  // 15 code with scope
    BsonIterator::INT,          // 16 int32
    BsonIterator::UNSUPPORTED,  // 17 timestamp
    BsonIterator::LONG,         // 18 int64
};

inline BsonIterator::Type KindOf(bson_type t) {
  const auto i = static_cast<unsigned>(t);
  return i <= static_cast<unsigned>(BSON_ELEM_MAX) ? kKinds[i] : BsonIterator::UNSUPPORTED;
}

}  // namespace

// ---- BSON -----------------------------------------------------------------

BSON::BSON() {
  NewRecord(b_, owner_);
  bson_init(b_);
  if (b_->data == nullptr) throw std::bad_alloc();
}

BSON::BSON(const uint8_t* data) {
  if (data == nullptr) throw std::invalid_argument(kNullDataText);
  const int32_t len = ReadLe32(data);
  if (!WellFormedHead(data, len)) throw std::invalid_argument(kMalformedText);
  NewRecord(b_, owner_);
  CopyDocument(b_, data, len);
}

BSON::BSON(const uint8_t* data, size_t avail) {
  if (data == nullptr) throw std::invalid_argument(kNullDataText);
  if (avail < 5) throw std::invalid_argument(kMalformedText);
  const int32_t len = ReadLe32(data);
  if (len < 0 || static_cast<size_t>(len) > avail || !WellFormedHead(data, len)) {
    throw std::invalid_argument(kMalformedText);
  }
  NewRecord(b_, owner_);
  CopyDocument(b_, data, len);
}

BSON::~BSON() = default;

int BSON::appendInt(const char* name, int32_t value) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  return bson_append_int(b_, name, value);
}

int BSON::appendLong(const char* name, int64_t value) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  return bson_append_long(b_, name, value);
}

int BSON::appendDouble(const char* name, double value) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  return bson_append_double(b_, name, value);
}

int BSON::appendBool(const char* name, bool value) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  return bson_append_bool(b_, name, value ? 1 : 0);
}

int BSON::appendString(const char* name, const char* value) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  if (value == nullptr) return BSON_RC_NULL_ARG;
  return bson_append_string(b_, name, value);
}

int BSON::appendBinary(const char* name, const uint8_t* data, int32_t len) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  if (data == nullptr) return BSON_RC_NULL_ARG;
  return bson_append_binary(b_, name, BSON_BIN_GENERIC, reinterpret_cast<const char*>(data), len);
}

int BSON::appendObject(const char* name, const BSON& obj) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  if (obj.b_ == nullptr || !obj.b_->finished) return BSON_RC_NOT_FINISHED;
  return bson_append_bson(b_, name, obj.b_);
}

int BSON::appendRaw(const char* name, const bson* raw) {
  if (EmptyName(name)) return BSON_RC_EMPTY_KEY;
  if (raw == nullptr) return BSON_RC_NULL_ARG;
  if (!raw->finished) return BSON_RC_NOT_FINISHED;
  return bson_append_bson(b_, name, raw);
}

int BSON::finish() { return bson_finish(b_); }

bool BSON::isFinished() const { return b_ != nullptr && b_->finished != 0; }

int BSON::size() const { return b_ != nullptr ? bson_size(b_) : 0; }

const uint8_t* BSON::dataPtr() const {
  return b_ != nullptr ? reinterpret_cast<const uint8_t*>(b_->data) : nullptr;
}

int BSON::errorFlags() const { return b_ != nullptr ? b_->err : 0; }

// ---- BsonIterator ---------------------------------------------------------

BsonIterator::BsonIterator(const uint8_t* data) {
  if (data == nullptr) throw std::invalid_argument(kIteratorNullText);
  NewIterator(it_, owner_);
  bson_iterator_from_buffer(it_, reinterpret_cast<const char*>(data));
}

BsonIterator::BsonIterator(const uint8_t* data, size_t avail) {
  if (data == nullptr) throw std::invalid_argument(kIteratorNullText);
  NewIterator(it_, owner_);
  bson_iterator_from_buffer_n(it_, reinterpret_cast<const char*>(data), avail);
}

BsonIterator BsonIterator::OverFrame(const uint8_t* data, size_t len) {
  if (data == nullptr) throw std::invalid_argument(kIteratorNullText);
  BsonIterator it;
  NewIterator(it.it_, it.owner_);
  bson_iterator_from_frame(it.it_, reinterpret_cast<const char*>(data), len);
  return it;
}

BsonIterator::BsonIterator(const BSON& doc) {
  if (doc.dataPtr() == nullptr) throw std::invalid_argument(kIteratorNullText);
  NewIterator(it_, owner_);
  bson_iterator_init(it_, doc.raw());
}

BsonIterator::Type BsonIterator::next() { return KindOf(bson_iterator_next(it_)); }

BsonIterator::Type BsonIterator::type() const { return KindOf(bson_iterator_type(it_)); }

const char* BsonIterator::key() const { return bson_iterator_key(it_); }

bool BsonIterator::isCorrupt() const { return bson_iterator_corrupt(it_) != 0; }

int BsonIterator::getInt(const char*& key, int32_t& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_INT) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  value = bson_iterator_int(it_);
  return 0;
}

int BsonIterator::getLong(const char*& key, int64_t& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_LONG) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  value = bson_iterator_long(it_);
  return 0;
}

int BsonIterator::getDouble(const char*& key, double& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_DOUBLE) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  value = bson_iterator_double(it_);
  return 0;
}

int BsonIterator::getBool(const char*& key, bool& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_BOOL) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  value = bson_iterator_bool(it_) != 0;
  return 0;
}

int BsonIterator::getString(const char*& key, const char*& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_STRING) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  value = bson_iterator_string(it_);
  return 0;
}

int BsonIterator::getBinary(const char*& key, const uint8_t*& data, size_t& len) const {
  if (bson_iterator_type(it_) != BSON_ELEM_BINARY) return BSON_RC_WRONG_TYPE;
  key = bson_iterator_key(it_);
  data = reinterpret_cast<const uint8_t*>(bson_iterator_bin_data(it_));
  len = static_cast<size_t>(bson_iterator_bin_len(it_));
  return 0;
}

int BsonIterator::getRaw(const char*& key, bson* value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_OBJECT) return BSON_RC_WRONG_TYPE;
  if (value == nullptr) return BSON_RC_NULL_ARG;
  key = bson_iterator_key(it_);
  bson_iterator_subobject(it_, value);
  return 0;
}

int BsonIterator::getObject(const char*& key, BSON& value) const {
  if (bson_iterator_type(it_) != BSON_ELEM_OBJECT) return BSON_RC_WRONG_TYPE;
  // The sub-document was bounds-checked when the walk reached it.
  value = BSON(reinterpret_cast<const uint8_t*>(bson_iterator_value(it_)));
  key = bson_iterator_key(it_);
  return 0;
}

// ---- BsonException --------------------------------------------------------

BsonException::BsonException(const char* text) : MpaException(text != nullptr ? text : "") {}

}  // namespace ZelMpa
