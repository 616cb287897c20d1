// Object layer: round trips, result codes, constructors, sharing and the
// exception type.
#include "mpalib/bson_object.h"

#include <cstring>
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

TEST(BsonObjectTest, EveryAppendRoundTripsThroughTheIterator) {
  const uint8_t payload[] = {0, 1, 2, 0xFF};
  BSON headers = Finished(7);
  bson rawHeaders;
  bson_init(&rawHeaders);
  bson_append_string(&rawHeaders, "amqp_replyTo", "q");
  bson_finish(&rawHeaders);

  BSON doc;
  ASSERT_EQ(doc.appendInt("int", -12), 0);
  ASSERT_EQ(doc.appendLong("long", -(int64_t{1} << 50)), 0);
  ASSERT_EQ(doc.appendDouble("double", 6.02e23), 0);
  ASSERT_EQ(doc.appendBool("bool", true), 0);
  ASSERT_EQ(doc.appendString("string", "h\xC3\xA9llo"), 0);
  ASSERT_EQ(doc.appendBinary("binary", payload, 4), 0);
  ASSERT_EQ(doc.appendBinary("empty", payload, 0), 0);
  ASSERT_EQ(doc.appendObject("object", headers), 0);
  ASSERT_EQ(doc.appendRaw("raw", &rawHeaders), 0);
  bson_destroy(&rawHeaders);
  EXPECT_FALSE(doc.isFinished());
  ASSERT_EQ(doc.finish(), 0);
  ASSERT_TRUE(doc.isFinished());

  BsonIterator it(doc);
  const char* key = nullptr;
  ASSERT_EQ(it.next(), BsonIterator::INT);
  int32_t i = 0;
  ASSERT_EQ(it.getInt(key, i), 0);
  EXPECT_STREQ(key, "int");
  EXPECT_EQ(i, -12);
  ASSERT_EQ(it.next(), BsonIterator::LONG);
  int64_t l = 0;
  ASSERT_EQ(it.getLong(key, l), 0);
  EXPECT_EQ(l, -(int64_t{1} << 50));
  ASSERT_EQ(it.next(), BsonIterator::DOUBLE);
  double d = 0;
  ASSERT_EQ(it.getDouble(key, d), 0);
  EXPECT_EQ(d, 6.02e23);
  ASSERT_EQ(it.next(), BsonIterator::BOOL);
  bool b = false;
  ASSERT_EQ(it.getBool(key, b), 0);
  EXPECT_TRUE(b);
  ASSERT_EQ(it.next(), BsonIterator::STRING);
  const char* s = nullptr;
  ASSERT_EQ(it.getString(key, s), 0);
  EXPECT_STREQ(s, "h\xC3\xA9llo");
  EXPECT_GT(s, reinterpret_cast<const char*>(doc.dataPtr()));  // points into the document
  EXPECT_LT(s, reinterpret_cast<const char*>(doc.dataPtr() + doc.size()));
  ASSERT_EQ(it.next(), BsonIterator::BINARY);
  const uint8_t* bin = nullptr;
  size_t len = 0;
  ASSERT_EQ(it.getBinary(key, bin, len), 0);
  EXPECT_STREQ(key, "binary");
  EXPECT_EQ(std::vector<uint8_t>(bin, bin + len), std::vector<uint8_t>(payload, payload + 4));
  ASSERT_EQ(it.next(), BsonIterator::BINARY);
  ASSERT_EQ(it.getBinary(key, bin, len), 0);
  EXPECT_EQ(len, 0u);
  ASSERT_EQ(it.next(), BsonIterator::OBJECT);
  BSON copy;
  ASSERT_EQ(it.getObject(key, copy), 0);
  EXPECT_STREQ(key, "object");
  EXPECT_EQ(AsString(copy.dataPtr(), copy.size()), AsString(headers.dataPtr(), headers.size()));
  EXPECT_NE(copy.dataPtr(), headers.dataPtr());
  ASSERT_EQ(it.next(), BsonIterator::OBJECT);
  bson inPlace;
  ASSERT_EQ(it.getRaw(key, &inPlace), 0);
  EXPECT_STREQ(key, "raw");
  EXPECT_GT(inPlace.data, reinterpret_cast<const char*>(doc.dataPtr()));
  BsonIterator inner(reinterpret_cast<const uint8_t*>(inPlace.data));
  ASSERT_EQ(inner.next(), BsonIterator::STRING);
  EXPECT_STREQ(inner.key(), "amqp_replyTo");
  EXPECT_EQ(it.next(), BsonIterator::END);
  EXPECT_EQ(it.type(), BsonIterator::END);
  EXPECT_FALSE(it.isCorrupt());
}

TEST(BsonObjectTest, EmptyNameIsRefusedByEveryAppendBeforeAnythingElse) {
  BSON done = Finished(1);
  BSON open;
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
  EXPECT_EQ(open.size(), 4);
}

TEST(BsonObjectTest, NullValuesAndUnfinishedDocumentsAreRefusedWithoutWriting) {
  BSON doc;
  BSON unfinished;
  unfinished.appendInt("a", 1);
  bson rawOpen;
  bson_init(&rawOpen);
  EXPECT_EQ(doc.appendString("s", nullptr), BSON_RC_NULL_ARG);
  EXPECT_EQ(doc.appendBinary("b", nullptr, 0), BSON_RC_NULL_ARG);
  EXPECT_EQ(doc.appendRaw("r", nullptr), BSON_RC_NULL_ARG);
  EXPECT_EQ(doc.appendObject("o", unfinished), BSON_RC_NOT_FINISHED);
  EXPECT_EQ(doc.appendRaw("r", &rawOpen), BSON_RC_NOT_FINISHED);
  bson_destroy(&rawOpen);
  EXPECT_EQ(doc.size(), 4);
  EXPECT_EQ(doc.errorFlags(), 0);
}

TEST(BsonObjectTest, FinishedDocumentFailsAppendsWithFlagAndFinishesAgain) {
  BSON doc = Finished(3);
  EXPECT_EQ(doc.appendInt("late", 1), -1);
  EXPECT_EQ(doc.appendString("late", "\xFF"), -1);  // refused as finished, not as bad text
  EXPECT_EQ(doc.errorFlags(), BSON_ERR_FINISHED);
  EXPECT_EQ(doc.finish(), 0);
  EXPECT_EQ(AsString(doc.dataPtr(), doc.size()), Doc(Elem(16, "x", Le32(3))));
}

TEST(BsonObjectTest, BadUtf8NameFailsAndBlocksFinishButDotDoesNot) {
  BSON bad;
  EXPECT_EQ(bad.appendInt("\xFFname", 1), -1);
  EXPECT_EQ(bad.size(), 4);
  EXPECT_EQ(bad.finish(), -1);
  EXPECT_FALSE(bad.isFinished());
  BSON dotted;
  EXPECT_EQ(dotted.appendInt("a.b", 1), 0);
  EXPECT_EQ(dotted.appendInt("$x", 2), 0);
  EXPECT_EQ(dotted.finish(), 0);
  EXPECT_EQ(dotted.errorFlags(), BSON_ERR_NAME_HAS_DOT | BSON_ERR_NAME_HAS_DOLLAR);
  EXPECT_EQ(AsString(dotted.dataPtr(), dotted.size()),
            Doc(Elem(16, "a.b", Le32(1)) + Elem(16, "$x", Le32(2))));
}

TEST(BsonObjectTest, GetterOfAnotherTypeReturnsCodeAndLeavesOutputsAlone) {
  BSON doc;
  doc.appendString("s", "v");
  doc.appendInt("i", 1);
  doc.finish();
  BsonIterator it(doc);
  ASSERT_EQ(it.next(), BsonIterator::STRING);
  const char* key = "untouched";
  int32_t i = 99;
  int64_t l = 98;
  double d = 97;
  bool b = true;
  const uint8_t* bin = nullptr;
  size_t len = 96;
  BSON obj = Finished(5);
  const uint8_t* objData = obj.dataPtr();
  bson raw{};
  EXPECT_EQ(it.getInt(key, i), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getLong(key, l), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getDouble(key, d), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getBool(key, b), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getBinary(key, bin, len), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getObject(key, obj), BSON_RC_WRONG_TYPE);
  EXPECT_EQ(it.getRaw(key, &raw), BSON_RC_WRONG_TYPE);
  EXPECT_STREQ(key, "untouched");
  EXPECT_EQ(i, 99);
  EXPECT_EQ(l, 98);
  EXPECT_EQ(d, 97);
  EXPECT_TRUE(b);
  EXPECT_EQ(len, 96u);
  EXPECT_EQ(obj.dataPtr(), objData);
  EXPECT_EQ(raw.data, nullptr);
  ASSERT_EQ(it.next(), BsonIterator::INT);
  const char* s = "untouched";
  EXPECT_EQ(it.getString(key, s), BSON_RC_WRONG_TYPE);  // int32 is not read as a string
  EXPECT_STREQ(s, "untouched");
}

TEST(BsonObjectTest, UnlistedElementTypesAreUnsupportedAndSkipped) {
  const std::string doc =
      Doc(Elem(4, "arr", Doc("")) + Elem(10, "null", "") + Elem(9, "date", Le64(1)) +
          Elem(14, "sym", Str("s")) + Elem(16, "after", Le32(4)));
  const std::vector<uint8_t> bytes = Bytes(doc);
  BsonIterator it(bytes.data(), bytes.size());
  for (int n = 0; n < 4; ++n) EXPECT_EQ(it.next(), BsonIterator::UNSUPPORTED);
  ASSERT_EQ(it.next(), BsonIterator::INT);
  EXPECT_STREQ(it.key(), "after");
}

TEST(BsonObjectTest, CopyingConstructorTakesOwnCopyAndRefusesMalformedBytes) {
  const std::vector<uint8_t> bytes = Bytes(Doc(Elem(16, "x", Le32(1))));
  BSON copy(bytes.data());
  EXPECT_TRUE(copy.isFinished());
  EXPECT_NE(copy.dataPtr(), bytes.data());
  EXPECT_EQ(AsString(copy.dataPtr(), copy.size()), AsString(bytes.data(), 12));
  EXPECT_EQ(copy.appendInt("y", 2), -1);

  try {
    BSON bad(static_cast<const uint8_t*>(nullptr));
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "BSON::BSON(uint8_t *data) NULL data arg");
  }
  const std::string malformed[] = {Le32(0) + '\0', Le32(-3) + '\0', Le32(4) + '\0',
                                   Le32(5) + std::string(1, 'x')};
  for (const std::string& m : malformed) {
    try {
      BSON bad(Bytes(m).data());
      FAIL() << testing::PrintToString(m);
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "BSON::BSON(uint8_t *data) data arg is not properly formed bson.");
    }
  }
  // The bounded form also refuses a document longer than the bytes given.
  EXPECT_THROW(BSON(bytes.data(), bytes.size() - 1), std::invalid_argument);
  EXPECT_THROW(BSON(bytes.data(), 3), std::invalid_argument);
  EXPECT_EQ(BSON(bytes.data(), bytes.size()).size(), 12);
}

TEST(BsonObjectTest, IteratorRefusesNullAndMarksShortBytesCorrupt) {
  try {
    BsonIterator it(static_cast<const uint8_t*>(nullptr));
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "ctor BsonIterator::BsonIterator(const uint8_t *data)  NULL data arg.");
  }
  EXPECT_THROW(BsonIterator(nullptr, 10), std::invalid_argument);
  const std::vector<uint8_t> bytes = Bytes(Doc(Elem(16, "x", Le32(1))));
  BsonIterator shortIt(bytes.data(), bytes.size() - 1);
  EXPECT_EQ(shortIt.next(), BsonIterator::END);
  EXPECT_TRUE(shortIt.isCorrupt());
  BSON open;
  open.appendInt("a", 1);
  BsonIterator openIt(open);
  EXPECT_EQ(openIt.next(), BsonIterator::END);
  EXPECT_TRUE(openIt.isCorrupt());
}

TEST(BsonObjectTest, CopiesShareOneDocument) {
  BSON a;
  BSON b = a;
  ASSERT_EQ(b.appendInt("n", 1), 0);
  ASSERT_EQ(a.finish(), 0);
  EXPECT_TRUE(b.isFinished());
  EXPECT_EQ(a.dataPtr(), b.dataPtr());
  EXPECT_EQ(a.raw(), b.raw());
  BsonIterator first(a);
  BsonIterator second = first;
  ASSERT_EQ(first.next(), BsonIterator::INT);
  EXPECT_EQ(second.next(), BsonIterator::END);  // the walk is shared too
}

TEST(BsonObjectTest, ExceptionIsAnMpaExceptionWithItsFixedText) {
  try {
    throw new BsonException("BSON exception while appending apptype.");
  } catch (MpaException* e) {
    EXPECT_STREQ(e->what(), "BSON exception while appending apptype.");
    EXPECT_NE(dynamic_cast<BsonException*>(e), nullptr);
    delete e;
  }
}

}  // namespace
}  // namespace ZelMpa
