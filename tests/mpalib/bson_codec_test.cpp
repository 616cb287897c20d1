// Low-level layer: wire bytes, growth, name and UTF-8 checks, readers, the
// bounded walk over damaged input, and the fatal paths.
#include "mpalib/bson_codec.h"

#include <climits>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bson_test_util.h"
#include "cpp/lib/common/logger_testing.h"
#include "mpalib/bson_object.h"
#include "mpalib/internal/bson_internal.h"
#include "support/log_capture.h"

namespace {

using namespace bson_test;

class BsonCodecTest : public ::testing::Test {
 protected:
  void SetUp() override { bson_init(&b_); }
  void TearDown() override {
    bson_destroy(&b_);
    bson_set_err_handler(nullptr);
  }
  std::string Written() const { return std::string(b_.data, static_cast<size_t>(bson_size(&b_))); }

  zel::testing::LogCapture log_;  // keeps the records out of the host's syslog
  bson b_;
};

// The bytes of every element type the protocol uses are compared with an
// independent implementation in bson_libbson_test; here what it does not
// show: the empty document, a wide int64 and the normalised booleans.
TEST_F(BsonCodecTest, AppendsWriteTheWireFormatByteByByte) {
  bson empty;
  bson_init(&empty);
  ASSERT_EQ(bson_finish(&empty), BSON_OK);
  EXPECT_EQ(std::string(empty.data, static_cast<size_t>(bson_size(&empty))),
            std::string("\x05\x00\x00\x00\x00", 5));
  bson_destroy(&empty);

  ASSERT_EQ(bson_append_long(&b_, "l", 0x0102030405060708LL), BSON_OK);
  ASSERT_EQ(bson_append_bool(&b_, "t", 7), BSON_OK);
  ASSERT_EQ(bson_append_bool(&b_, "f", 0), BSON_OK);
  ASSERT_EQ(bson_finish(&b_), BSON_OK);
  EXPECT_EQ(Written(), std::string("\x18\x00\x00\x00"                        // total 24
                                   "\x12l\x00\x08\x07\x06\x05\x04\x03\x02\x01"  // int64
                                   "\x08t\x00\x01\x08" "f\x00\x00\x00",          // bools
                                   24));
}

TEST_F(BsonCodecTest, GrowthKeepsContentAndStopsAtTheLargestSize) {
  // An append that would pass the largest size sets the flag, writes nothing.
  const char byte = 0;  // never read: the room check fails first
  EXPECT_EQ(bson_append_binary(&b_, "b", BSON_BIN_GENERIC, &byte, INT32_MAX - 8), BSON_ERROR);
  EXPECT_EQ(b_.err, BSON_ERR_SIZE_OVERFLOW);
  EXPECT_EQ(bson_size(&b_), 4);

  const std::string big(200, 'v');
  std::string elems;
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(bson_append_string(&b_, "k", big.c_str()), BSON_OK);
    elems += Elem(2, "k", Str(big));
  }
  ASSERT_EQ(bson_finish(&b_), BSON_OK);
  EXPECT_EQ(Written(), Doc(elems));

  int size = 0;
  ASSERT_EQ(bson_grow_size(128, 10, &size), BSON_OK);
  EXPECT_EQ(size, 207);  // 1.5 x 138
  ASSERT_EQ(bson_grow_size(1431655765, 0, &size), BSON_OK);
  EXPECT_EQ(size, INT32_MAX);  // 2147483647.5 cut
  ASSERT_EQ(bson_grow_size(2000000000, 100, &size), BSON_OK);
  EXPECT_EQ(size, INT32_MAX);  // overflow is capped
  size = -7;
  EXPECT_EQ(bson_grow_size(INT32_MAX - 100, 100, &size), BSON_ERROR);
  EXPECT_EQ(bson_grow_size(INT32_MAX - 100, 101, &size), BSON_ERROR);
  EXPECT_EQ(size, -7);
}

std::vector<std::string> g_hookCalls;
void RecordHook(const char* msg) { g_hookCalls.push_back(msg); }

TEST_F(BsonCodecTest, NameChecksSetFlagsAndOnlyBadUtf8Refuses) {
  g_hookCalls.clear();
  bson_set_err_handler(&RecordHook);
  EXPECT_EQ(bson_append_int(&b_, "a.b", 1), BSON_OK);
  EXPECT_EQ(b_.err, BSON_ERR_NAME_HAS_DOT);
  for (const char* allowed : {"$ref", "$id", "$db"}) EXPECT_EQ(bson_append_int(&b_, allowed, 1), BSON_OK);
  EXPECT_EQ(b_.err, BSON_ERR_NAME_HAS_DOT);  // no dollar flag for these
  EXPECT_EQ(bson_append_int(&b_, "$set", 1), BSON_OK);
  EXPECT_EQ(b_.err, BSON_ERR_NAME_HAS_DOT | BSON_ERR_NAME_HAS_DOLLAR);
  EXPECT_TRUE(g_hookCalls.empty());

  const int before = bson_size(&b_);
  EXPECT_EQ(bson_append_int(&b_, "bad\xC3", 1), BSON_ERROR);
  EXPECT_EQ(bson_size(&b_), before);
  EXPECT_TRUE(b_.err & BSON_ERR_NOT_UTF8);
  EXPECT_EQ(g_hookCalls, std::vector<std::string>{"BSON error."});
  EXPECT_EQ(bson_append_string(&b_, "s", "\xE2\x82"), BSON_ERROR);  // a bad value the same
  EXPECT_EQ(bson_size(&b_), before);
  EXPECT_EQ(bson_finish(&b_), BSON_ERROR);  // only flag 2 stops finish
  EXPECT_EQ(b_.finished, 0);
}

TEST(BsonUtf8Test, AcceptsWellFormedAndRejectsMalformedSequences) {
  const char* valid[] = {"", "plain", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC",
                         "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "a\xC3\xA9z"};
  for (const char* s : valid) {
    EXPECT_TRUE(bson_valid_utf8(s, static_cast<int>(strlen(s)))) << s;
  }
  // Continuation bytes as lead, overlong forms, above U+10FFFF, leads too
  // high, bad continuations, and sequences longer than the text.
  const char* invalid[] = {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xE0\x9F\xBF",
                           "\xF0\x80\x80\x80", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80",
                           "\xF5\x80\x80\x80", "\xFF", "\xC3\x28", "\xE2\x82\x28", "\xE2\x82",
                           "\xF0\x90\x80", "ok\xC3"};
  for (const char* s : invalid) {
    EXPECT_FALSE(bson_valid_utf8(s, static_cast<int>(strlen(s)))) << testing::PrintToString(s);
  }
}

// Every published element type, each with a value the readers must handle.
std::string AllTypesDoc() {
  return Doc(Elem(1, "dbl", LeDouble(-2.75)) + Elem(2, "str", Str("text")) +
             Elem(3, "obj", Doc(Elem(16, "in", Le32(9)))) + Elem(4, "arr", Doc(Elem(2, "0", Str("x")))) +
             Elem(5, "bin", Le32(2) + std::string("\x80\xAA\xBB", 3)) + Elem(6, "undef", "") +
             Elem(7, "oid", std::string(12, 'o')) + Elem(8, "bool", std::string(1, '\1')) +
             Elem(9, "date", Le64(1700000000000)) + Elem(10, "null", "") +
             Elem(11, "re", std::string("^a\0i\0", 5)) + Elem(12, "dbp", Str("ns") + std::string(12, 'p')) +
             Elem(13, "code", Str("f()")) + Elem(14, "sym", Str("symbol")) +
             Elem(15, "cws", Le32(4 + 8 + 5) + Str("g()") + Doc("")) + Elem(16, "i32", Le32(-7)) +
             Elem(17, "ts", Le64(42)) + Elem(18, "i64", Le64(int64_t{1} << 40)));
}

TEST(BsonIteratorTest, SubobjectIsWrappedInPlaceAndNotOwned) {
  const std::string doc = AllTypesDoc();
  bson_iterator it;
  bson sub;
  bson_iterator_from_buffer(&it, doc.data());
  ASSERT_EQ(bson_iterator_next(&it), BSON_ELEM_DOUBLE);
  EXPECT_EQ(bson_iterator_subobject(&it, &sub), BSON_ERROR);
  ASSERT_EQ(bson_iterator_next(&it), BSON_ELEM_STRING);
  ASSERT_EQ(bson_iterator_next(&it), BSON_ELEM_OBJECT);
  ASSERT_EQ(bson_iterator_subobject(&it, &sub), BSON_OK);
  EXPECT_EQ(sub.data, bson_iterator_value(&it));
  EXPECT_EQ(std::string(sub.data, static_cast<size_t>(bson_size(&sub))), Doc(Elem(16, "in", Le32(9))));
  EXPECT_EQ(bson_append_int(&sub, "no", 1), BSON_ERROR);  // finished
  bson_destroy(&sub);  // leaves the parent's bytes alone (ASan would see a bad free)
}

// ---- Damaged input --------------------------------------------------------

// Walks a document the way a consumer does: every element, every reader, and
// every sub-document. Returns whether the walk ended on corrupt bytes.
bool WalkEverything(bson_iterator* it, int depth = 0) {
  while (bson_iterator_next(it) != BSON_ELEM_EOO) {
    volatile size_t sink = strlen(bson_iterator_key(it));
    sink += static_cast<size_t>(bson_iterator_int(it)) + static_cast<size_t>(bson_iterator_long(it));
    sink += static_cast<size_t>(bson_iterator_double(it) != 0) + bson_iterator_bool(it);
    sink += strlen(bson_iterator_string(it));
    const int binLen = bson_iterator_bin_len(it);
    if (binLen > 0) sink += static_cast<unsigned char>(bson_iterator_bin_data(it)[binLen - 1]);
    bson sub;
    if (depth < 4 && bson_iterator_subobject(it, &sub) == BSON_OK) {
      bson_iterator inner;
      bson_iterator_init(&inner, &sub);
      WalkEverything(&inner, depth + 1);
    }
    (void)sink;
  }
  return bson_iterator_corrupt(it) != 0;
}

struct UnknownType {};
[[noreturn]] void ThrowOnFatal(const char*) { throw UnknownType(); }

// How a walk is bounded: by the length field alone, by the length field and
// the bytes there are, or as a protocol frame (the bytes there are, up to
// the first terminator).
enum Walk { kOwnLength, kBounded, kFrame };

// Walks an exact-size heap copy so that ASan sees any read past the end.
// Returns 1 when the walk ended on corrupt bytes, 0 when it ended well, -1
// when it reached the fatal unknown-type path.
int WalkCopy(const std::string& bytes, Walk walk) {
  std::unique_ptr<char[]> copy(new char[bytes.size()]);
  memcpy(copy.get(), bytes.data(), bytes.size());
  try {
    bson_iterator it;
    if (walk == kOwnLength) bson_iterator_from_buffer(&it, copy.get());
    if (walk == kBounded) bson_iterator_from_buffer_n(&it, copy.get(), bytes.size());
    if (walk == kFrame) bson_iterator_from_frame(&it, copy.get(), bytes.size());
    return WalkEverything(&it) ? 1 : 0;
  } catch (const UnknownType&) {
    return -1;
  }
}

class BsonDamageTest : public ::testing::Test {
 protected:
  void SetUp() override { bson_set_err_handler(&ThrowOnFatal); }
  void TearDown() override { bson_set_err_handler(nullptr); }
};

TEST_F(BsonDamageTest, EveryTruncationIsCorruptAndStaysInBounds) {
  const std::string doc = AllTypesDoc();
  for (Walk walk : {kOwnLength, kBounded, kFrame}) {
    ASSERT_EQ(WalkCopy(doc, walk), 0);  // every published type, walked whole
  }
  for (size_t len = 0; len < doc.size(); ++len) {
    const std::string cut = doc.substr(0, len);
    EXPECT_EQ(WalkCopy(cut, kFrame), 1) << "frame cut at " << len;
    if (len >= 4) {
      EXPECT_EQ(WalkCopy(cut, kBounded), 1) << "cut at " << len;
      // The same prefix with its length field rewritten to match.
      std::string relabelled = cut;
      relabelled.replace(0, 4, Le32(static_cast<int32_t>(len)));
      EXPECT_EQ(WalkCopy(relabelled, kOwnLength), 1) << "relabelled at " << len;
    } else {
      EXPECT_EQ(WalkCopy(cut + std::string(4 - len, '\0'), kBounded), 1);
    }
  }
}

TEST_F(BsonDamageTest, EveryByteFlipIsWalkedWithoutReadingOutside) {
  const std::string doc = AllTypesDoc();
  const unsigned char masks[] = {0x01, 0x02, 0x10, 0x40, 0x80, 0xFF};
  int corrupt = 0, fatal = 0;
  for (size_t pos = 0; pos < doc.size(); ++pos) {
    for (unsigned char mask : masks) {
      std::string bad = doc;
      bad[pos] = static_cast<char>(bad[pos] ^ mask);
      const int bounded = WalkCopy(bad, kBounded);
      // Bounded or not, the same bytes give the same verdict when the length
      // field is intact; a damaged length field is caught by the bounded walk.
      if (pos >= 4) {
        EXPECT_EQ(WalkCopy(bad, kOwnLength), bounded) << pos;
      }
      // A frame walk ignores the length field and stays inside the bytes
      // too; it meets no unknown type the bounded walk did not, except in
      // the last byte, which it reads as an element head.
      const int frame = WalkCopy(bad, kFrame);
      if (pos + 1 < doc.size() && bounded != -1) {
        EXPECT_NE(frame, -1) << pos;
      }
      corrupt += bounded == 1;
      fatal += bounded == -1;
    }
  }
  EXPECT_GT(corrupt, 0);
  EXPECT_GT(fatal, 0);  // flipped type bytes above 18 take the fatal path
}

// Every lying length is corrupt to a bounded walk. A frame walk reads no
// length field of its own and ends at the first terminator, so it reads some
// of these as whole; it never reads outside the bytes either.
TEST_F(BsonDamageTest, LengthFieldsThatLieAreCorrupt) {
  const std::string nul(1, '\0');
  const std::string intDoc = Doc(Elem(16, "i", Le32(1)));
  const struct {
    std::string bytes;
    int frame;  // the frame walk's verdict
  } cases[] = {
      {Doc(Elem(2, "s", Le32(50) + "ab" + nul)), 1},          // string past the end
      {Doc(Elem(2, "s", Le32(0) + nul)), 1},                  // string without room for NUL
      {Doc(Elem(2, "s", Le32(3) + "abc")), 1},                // string not NUL-terminated
      {Doc(Elem(2, "s", Le32(-5) + "ab" + nul)), 1},          // negative
      {Doc(Elem(5, "b", Le32(-1) + nul)), 1},                 // negative binary
      {Doc(Elem(5, "b", Le32(2) + "\x02" + "ab")), 1},         // legacy without inner length
      {Doc(Elem(3, "o", Le32(100) + nul)), 1},                // sub-document past the end
      {Doc(Elem(3, "o", Le32(4) + nul)), 1},                  // sub-document too short
      {Doc(Elem(16, "i", "ab")), 1},                          // value cut
      {Doc(Elem(11, "re", "abc")), 1},                        // pattern without options
      {Le32(7) + std::string("\x0Ak\x00", 3), 1},             // no closing NUL
      {intDoc.substr(0, 11) + "\x01", 1},                     // an element head in the last byte
      {Le32(4), 1},                                           // fewer than 5 bytes
      {std::string(intDoc).replace(0, 4, Le32(3)), 0},        // length below 5
      {std::string(intDoc).replace(0, 4, Le32(100)), 0},      // length above the bytes
      {Doc(Elem(16, "i", Le32(1)) + nul + "junk"), 0},        // bytes after an early end
  };
  for (const auto& c : cases) {
    EXPECT_EQ(WalkCopy(c.bytes, kBounded), 1) << testing::PrintToString(c.bytes);
    EXPECT_EQ(WalkCopy(c.bytes, kFrame), c.frame) << testing::PrintToString(c.bytes);
  }
  // The frame walk hands out the elements it passed: here the one int32.
  const std::string frame = Doc(Elem(16, "i", Le32(1)) + nul + "junk");
  bson_iterator it;
  bson_iterator_from_frame(&it, frame.data(), frame.size());
  ASSERT_EQ(bson_iterator_next(&it), BSON_ELEM_INT);
  EXPECT_EQ(bson_iterator_int(&it), 1);
  EXPECT_EQ(bson_iterator_next(&it), BSON_ELEM_EOO);
  EXPECT_FALSE(bson_iterator_corrupt(&it));
  // The empty document is whole to every walk at exactly its 5 bytes, and a
  // frame of its first 4 is corrupt: the fifth is not read.
  const std::string empty = Doc("");
  for (Walk walk : {kOwnLength, kBounded, kFrame}) EXPECT_EQ(WalkCopy(empty, walk), 0);
  bson_iterator_from_frame(&it, empty.data(), 4);
  EXPECT_TRUE(bson_iterator_corrupt(&it));
}

// ---- Fatal paths ----------------------------------------------------------

void* FailingMalloc(size_t) { return nullptr; }
void* FailingRealloc(void*, size_t) { return nullptr; }

void HookToStderr(const char* msg) { fprintf(stderr, "hook saw <%s>\n", msg); }

// The child echoes its log records to standard error next to the line the
// codec writes there itself, so both can be matched.
class BsonFatalDeathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    zel::log_testing::SetConsoleEchoForTest(stderr);
  }
  void TearDown() override { zel::log_testing::SetConsoleEchoForTest(nullptr); }

  zel::testing::LogCapture log_;
};

// Allocation failures and unknown element types end the process with -5,
// after a line on standard error and a CRIT record.
TEST_F(BsonFatalDeathTest, FatalPathsExitWithMinusFive) {
  EXPECT_EXIT({
    bson_set_allocators_ForTest(&FailingMalloc, nullptr);
    bson b;
    bson_init(&b);
  }, testing::ExitedWithCode(256 - 5),
     "error: malloc\\(\\) failed\n(.|\n)*mpalib.*error: malloc\\(\\) failed");
  EXPECT_EXIT({
    bson_set_allocators_ForTest(nullptr, &FailingRealloc);
    ZelMpa::BSON doc;
    doc.appendString("big", std::string(200, 'x').c_str());
  }, testing::ExitedWithCode(256 - 5), "error: realloc\\(\\) failed\n");
  const std::string doc = Doc(Elem(16, "ok", Le32(1)) + Elem(19, "dec", std::string(16, '\0')));
  EXPECT_EXIT({
    bson_set_err_handler(&HookToStderr);
    bson_iterator it;
    bson_iterator_from_buffer(&it, doc.data());
    bson_iterator_next(&it);
    bson_iterator_next(&it);
  }, testing::ExitedWithCode(256 - 5),
     "hook saw <unknown type: 19>\nerror: unknown type: 19\n(.|\n)*mpalib.*error: unknown type: 19");
}

}  // namespace
