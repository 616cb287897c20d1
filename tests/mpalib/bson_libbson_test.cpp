// Cross-check against an independent BSON implementation: the same appends
// give the same bytes, and each side reads what the other wrote.
#include <bson/bson.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "mpalib/bson_codec.h"
#include "mpalib/bson_object.h"

namespace {

const uint8_t kPayload[] = {0x08, 0x01, 0x12, 0x00, 0xFF, 0x7F, 0x80, 0x22, 0x10, 0x03};

std::string Ours(const ZelMpa::BSON& doc) {
  return std::string(reinterpret_cast<const char*>(doc.dataPtr()), static_cast<size_t>(doc.size()));
}

std::string Theirs(const bson_t* doc) {
  return std::string(reinterpret_cast<const char*>(bson_get_data(doc)), doc->len);
}

TEST(BsonLibbsonTest, DataMessageHasTheSameBytes) {
  ZelMpa::BSON headers;
  headers.appendString("amqp_correlationId", "6f1c2a94-0d1e-4b7a-9c55-2f8e0a1b3c4d");
  headers.appendString("amqp_replyTo", "dorn.reply");
  ASSERT_EQ(headers.finish(), 0);
  ZelMpa::BSON ours;
  ours.appendLong("msg_type", 3);
  ours.appendString("app_type", "zel-dorn");
  ours.appendBool("app_id", true);
  ours.appendObject("amqp_headers", headers);
  ours.appendString("content_type", "application/octet-stream");
  ours.appendString("amqp_routing_key", "dorn.status");
  ours.appendBinary("amqp_payload", kPayload, sizeof kPayload);
  ours.appendLong("payload_len", sizeof kPayload);
  ours.appendInt("i32", -1);
  ours.appendDouble("dbl", 0.1);
  ASSERT_EQ(ours.finish(), 0);

  bson_t theirHeaders;
  bson_init(&theirHeaders);
  BSON_APPEND_UTF8(&theirHeaders, "amqp_correlationId", "6f1c2a94-0d1e-4b7a-9c55-2f8e0a1b3c4d");
  BSON_APPEND_UTF8(&theirHeaders, "amqp_replyTo", "dorn.reply");
  bson_t theirs;
  bson_init(&theirs);
  BSON_APPEND_INT64(&theirs, "msg_type", 3);
  BSON_APPEND_UTF8(&theirs, "app_type", "zel-dorn");
  BSON_APPEND_BOOL(&theirs, "app_id", true);
  BSON_APPEND_DOCUMENT(&theirs, "amqp_headers", &theirHeaders);
  BSON_APPEND_UTF8(&theirs, "content_type", "application/octet-stream");
  BSON_APPEND_UTF8(&theirs, "amqp_routing_key", "dorn.status");
  BSON_APPEND_BINARY(&theirs, "amqp_payload", BSON_SUBTYPE_BINARY, kPayload, sizeof kPayload);
  BSON_APPEND_INT64(&theirs, "payload_len", sizeof kPayload);
  BSON_APPEND_INT32(&theirs, "i32", -1);
  BSON_APPEND_DOUBLE(&theirs, "dbl", 0.1);

  EXPECT_EQ(Ours(ours), Theirs(&theirs));

  // Their reader accepts ours and finds the nested header.
  bson_t view;
  ASSERT_TRUE(bson_init_static(&view, ours.dataPtr(), static_cast<size_t>(ours.size())));
  size_t offset = 0;
  EXPECT_TRUE(bson_validate(&view, BSON_VALIDATE_UTF8, &offset)) << offset;
  bson_iter_t iter;
  ASSERT_TRUE(bson_iter_init(&iter, &view));
  ASSERT_TRUE(bson_iter_find_descendant(&iter, "amqp_headers.amqp_replyTo", &iter));
  EXPECT_STREQ(bson_iter_utf8(&iter, nullptr), "dorn.reply");
  bson_destroy(&theirs);
  bson_destroy(&theirHeaders);
}

TEST(BsonLibbsonTest, LegacyBinarySubtypeMatchesAndReadsBack) {
  bson_t theirs;
  bson_init(&theirs);
  BSON_APPEND_BINARY(&theirs, "old", BSON_SUBTYPE_BINARY_DEPRECATED, kPayload, 4);

  bson b;
  bson_init(&b);
  bson_append_binary(&b, "old", BSON_BIN_LEGACY, reinterpret_cast<const char*>(kPayload), 4);
  bson_finish(&b);
  EXPECT_EQ(std::string(b.data, static_cast<size_t>(bson_size(&b))), Theirs(&theirs));
  bson_destroy(&b);

  ZelMpa::BsonIterator it(bson_get_data(&theirs), theirs.len);
  ASSERT_EQ(it.next(), ZelMpa::BsonIterator::BINARY);
  const char* key = nullptr;
  const uint8_t* data = nullptr;
  size_t len = 0;
  ASSERT_EQ(it.getBinary(key, data, len), 0);
  EXPECT_EQ(len, 4u);
  EXPECT_EQ(std::memcmp(data, kPayload, 4), 0);
  bson_destroy(&theirs);
}

TEST(BsonLibbsonTest, OurWalkerReadsTheirDocument) {
  bson_t theirs;
  bson_init(&theirs);
  BSON_APPEND_INT64(&theirs, "mp-version", (int64_t{2} << 32) | 7);
  BSON_APPEND_NULL(&theirs, "nothing");
  BSON_APPEND_UTF8(&theirs, "app_id", "zel");
  bson_t child;
  BSON_APPEND_DOCUMENT_BEGIN(&theirs, "amqp_headers", &child);
  BSON_APPEND_INT32(&child, "n", 5);
  bson_append_document_end(&theirs, &child);

  ZelMpa::BsonIterator it(bson_get_data(&theirs), theirs.len);
  const char* key = nullptr;
  ASSERT_EQ(it.next(), ZelMpa::BsonIterator::LONG);
  int64_t version = 0;
  ASSERT_EQ(it.getLong(key, version), 0);
  EXPECT_EQ(version >> 32, 2);
  EXPECT_EQ(version & 0xFFFFFFFF, 7);
  EXPECT_EQ(it.next(), ZelMpa::BsonIterator::UNSUPPORTED);
  ASSERT_EQ(it.next(), ZelMpa::BsonIterator::STRING);
  const char* appId = nullptr;
  ASSERT_EQ(it.getString(key, appId), 0);
  EXPECT_STREQ(appId, "zel");
  ASSERT_EQ(it.next(), ZelMpa::BsonIterator::OBJECT);
  bson headers;
  ASSERT_EQ(it.getRaw(key, &headers), 0);
  ZelMpa::BsonIterator inner(reinterpret_cast<const uint8_t*>(headers.data));
  ASSERT_EQ(inner.next(), ZelMpa::BsonIterator::INT);
  EXPECT_EQ(it.next(), ZelMpa::BsonIterator::END);
  EXPECT_FALSE(it.isCorrupt());
  bson_destroy(&theirs);
}

}  // namespace
