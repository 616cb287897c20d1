// Object layer: round trips, result codes, constructors and sharing.
#include "mpalib/bson_object.h"

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bson_test_util.h"
#include "mpalib/bson_codec.h"

namespace ZelMpa {
namespace {

using namespace bson_test;

BSON Finished(int32_t x) {
  BSON doc;
  doc.appendInt("x", x);
  doc.finish();
  return doc;
}

std::string Wire(const BSON& doc) { return std::string(reinterpret_cast<const char*>(doc.dataPtr()), doc.size()); }

// Steps `it` and reads the new element with `get`, which must succeed for
// an element named `key` of kind `type`.
template <class T>
T Next(BsonIterator& it, BsonIterator::Type type, const char* key,
       int (BsonIterator::*get)(const char*&, T&) const) {
  T value{};
  const char* name = nullptr;
  EXPECT_EQ(it.next(), type);
  EXPECT_EQ((it.*get)(name, value), 0);
  EXPECT_STREQ(name, key);
  return value;
}

TEST(BsonObjectTest, EveryAppendRoundTripsThroughItsGetterAndOnlyThatOne) {
  const uint8_t payload[] = {0, 1, 2, 0xFF};
  BSON headers = Finished(7);
  bson raw;
  bson_init(&raw);
  bson_append_string(&raw, "amqp_replyTo", "q");
  bson_finish(&raw);
  BSON doc;
  ASSERT_EQ(doc.appendInt("int", -12), 0);
  ASSERT_EQ(doc.appendLong("long", -(int64_t{1} << 50)), 0);
  ASSERT_EQ(doc.appendDouble("double", 6.02e23), 0);
  ASSERT_EQ(doc.appendBool("bool", true), 0);
  ASSERT_EQ(doc.appendString("string", "h\xC3\xA9llo"), 0);
  ASSERT_EQ(doc.appendBinary("binary", payload, 4), 0);
  ASSERT_EQ(doc.appendBinary("empty", payload, 0), 0);
  ASSERT_EQ(doc.appendObject("object", headers), 0);
  ASSERT_EQ(doc.appendRaw("raw", &raw), 0);
  bson_destroy(&raw);
  EXPECT_FALSE(doc.isFinished());
  ASSERT_EQ(doc.finish(), 0);
  ASSERT_TRUE(doc.isFinished());

  BsonIterator it(doc);
  EXPECT_EQ(Next(it, BsonIterator::INT, "int", &BsonIterator::getInt), -12);
  // A getter of another type returns a code and leaves its outputs alone.
  const char* name = "untouched";
  const char* text = "untouched";
  EXPECT_EQ(it.getString(name, text), BSON_RC_WRONG_TYPE);  // int32 is not read as a string
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(Next(it, BsonIterator::LONG, "long", &BsonIterator::getLong), -(int64_t{1} << 50));
  EXPECT_EQ(Next(it, BsonIterator::DOUBLE, "double", &BsonIterator::getDouble), 6.02e23);
  EXPECT_TRUE(Next(it, BsonIterator::BOOL, "bool", &BsonIterator::getBool));
  // Texts and binaries point into the document.
  const char* s = Next(it, BsonIterator::STRING, "string", &BsonIterator::getString);
  EXPECT_STREQ(s, "h\xC3\xA9llo");
  EXPECT_TRUE(s > reinterpret_cast<const char*>(doc.dataPtr()) &&
              s < reinterpret_cast<const char*>(doc.dataPtr() + doc.size()));
  int32_t i = 99;
  int64_t l = 0;
  double d = 0;
  bool b = false;
  const uint8_t* bin = nullptr;
  size_t binLen = 0;
  BSON obj;
  bson wrapped{};
  for (int rc : {it.getInt(name, i), it.getLong(name, l), it.getDouble(name, d), it.getBool(name, b),
                 it.getBinary(name, bin, binLen), it.getObject(name, obj), it.getRaw(name, &wrapped)}) {
    EXPECT_EQ(rc, BSON_RC_WRONG_TYPE);
  }
  EXPECT_STREQ(name, "untouched");
  EXPECT_EQ(i, 99);
  for (size_t want : {4u, 0u}) {
    ASSERT_EQ(it.next(), BsonIterator::BINARY);
    ASSERT_EQ(it.getBinary(name, bin, binLen), 0);
    EXPECT_EQ(std::vector<uint8_t>(bin, bin + binLen), std::vector<uint8_t>(payload, payload + want));
  }
  // getObject copies, getRaw wraps in place.
  const BSON copy = Next(it, BsonIterator::OBJECT, "object", &BsonIterator::getObject);
  EXPECT_EQ(Wire(copy), Wire(headers));
  EXPECT_NE(copy.dataPtr(), headers.dataPtr());
  const char* key = nullptr;
  bson inPlace;
  ASSERT_EQ(it.next(), BsonIterator::OBJECT);
  ASSERT_EQ(it.getRaw(key, &inPlace), 0);
  EXPECT_STREQ(key, "raw");
  EXPECT_GT(inPlace.data, reinterpret_cast<const char*>(doc.dataPtr()));
  EXPECT_EQ(it.next(), BsonIterator::END);
  EXPECT_EQ(it.type(), BsonIterator::END);
  EXPECT_FALSE(it.isCorrupt());
}

TEST(BsonObjectTest, RefusedAppendsWriteNothing) {
  BSON done = Finished(1);
  BSON open;
  // An empty or null name is refused before anything else.
  for (BSON* doc : {&done, &open}) {
    EXPECT_EQ(doc->appendInt("", 1), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendLong("", 1), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendDouble("", 1), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendBool(nullptr, true), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendString("", nullptr), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendBinary("", nullptr, 1), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendObject("", open), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->appendRaw("", nullptr), BSON_RC_EMPTY_KEY);
    EXPECT_EQ(doc->errorFlags(), 0);
  }
  BSON unfinished;
  unfinished.appendInt("a", 1);
  bson rawOpen;
  bson_init(&rawOpen);
  EXPECT_EQ(open.appendString("s", nullptr), BSON_RC_NULL_ARG);
  EXPECT_EQ(open.appendBinary("b", nullptr, 0), BSON_RC_NULL_ARG);
  EXPECT_EQ(open.appendRaw("r", nullptr), BSON_RC_NULL_ARG);
  EXPECT_EQ(open.appendObject("o", unfinished), BSON_RC_NOT_FINISHED);
  EXPECT_EQ(open.appendRaw("r", &rawOpen), BSON_RC_NOT_FINISHED);
  bson_destroy(&rawOpen);
  EXPECT_EQ(open.size(), 4);
  EXPECT_EQ(open.errorFlags(), 0);

  // A finished document fails appends with a flag, and finishes again.
  EXPECT_EQ(done.appendString("late", "\xFF"), -1);  // refused as finished, not as bad text
  EXPECT_EQ(done.errorFlags(), BSON_ERR_FINISHED);
  EXPECT_EQ(done.finish(), 0);
  EXPECT_EQ(Wire(done), Doc(Elem(16, "x", Le32(1))));

  // A name that is not UTF-8 fails (the codec test has the name rules).
  EXPECT_EQ(open.appendInt("\xFFname", 1), -1);
  EXPECT_EQ(open.size(), 4);
}

TEST(BsonObjectTest, UnlistedElementTypesAreUnsupportedAndSkipped) {
  const std::vector<uint8_t> bytes =
      Bytes(Doc(Elem(4, "arr", Doc("")) + Elem(10, "null", "") + Elem(9, "date", Le64(1)) +
                Elem(14, "sym", Str("s")) + Elem(16, "after", Le32(4))));
  BsonIterator it(bytes.data(), bytes.size());
  for (int n = 0; n < 4; ++n) EXPECT_EQ(it.next(), BsonIterator::UNSUPPORTED);
  ASSERT_EQ(it.next(), BsonIterator::INT);
  EXPECT_STREQ(it.key(), "after");
}

TEST(BsonObjectTest, ConstructorsCopyWellFormedBytesAndRefuseTheRest) {
  const std::string wire = Doc(Elem(16, "x", Le32(1)));
  const std::vector<uint8_t> bytes = Bytes(wire);
  BSON copy(bytes.data());
  EXPECT_TRUE(copy.isFinished());
  EXPECT_NE(copy.dataPtr(), bytes.data());
  EXPECT_EQ(Wire(copy), wire);
  EXPECT_EQ(copy.appendInt("y", 2), -1);
  EXPECT_EQ(BSON(bytes.data(), bytes.size()).size(), 12);

  EXPECT_THROW(BSON(static_cast<const uint8_t*>(nullptr)), std::invalid_argument);
  for (const std::string& m : {Le32(0) + '\0', Le32(-3) + '\0', Le32(4) + '\0', Le32(5) + 'x'}) {
    EXPECT_THROW(BSON(Bytes(m).data()), std::invalid_argument) << testing::PrintToString(m);
  }
  EXPECT_THROW(BsonIterator(static_cast<const uint8_t*>(nullptr)), std::invalid_argument);
  EXPECT_THROW(BsonIterator(nullptr, 10), std::invalid_argument);
  EXPECT_THROW(BsonIterator::OverFrame(nullptr, 10), std::invalid_argument);

  // The bounded forms also refuse a document longer than the bytes given,
  // and take the empty document at exactly its 5 bytes.
  EXPECT_THROW(BSON(bytes.data(), bytes.size() - 1), std::invalid_argument);
  const std::vector<uint8_t> empty = Bytes(Doc(""));
  EXPECT_EQ(BSON(empty.data(), 5).size(), 5);
  EXPECT_THROW(BSON(empty.data(), 4), std::invalid_argument);
  for (size_t avail : {size_t{5}, bytes.size() - 1}) {
    BsonIterator it(avail == 5 ? empty.data() : bytes.data(), avail);
    EXPECT_EQ(it.next(), BsonIterator::END);
    EXPECT_EQ(it.isCorrupt(), avail != 5) << avail;
  }
  // An unfinished document reads as corrupt.
  BSON open;
  open.appendInt("a", 1);
  BsonIterator openIt(open);
  EXPECT_EQ(openIt.next(), BsonIterator::END);
  EXPECT_TRUE(openIt.isCorrupt());
}

TEST(BsonObjectTest, CopiesShareOneDocumentAndOneWalk) {
  BSON a;
  BSON b = a;
  ASSERT_EQ(b.appendInt("n", 1), 0);
  ASSERT_EQ(a.finish(), 0);
  EXPECT_TRUE(b.isFinished());
  EXPECT_EQ(a.raw(), b.raw());
  BsonIterator first(a);
  BsonIterator second = first;
  ASSERT_EQ(first.next(), BsonIterator::INT);
  EXPECT_EQ(second.next(), BsonIterator::END);
}

}  // namespace
}  // namespace ZelMpa
