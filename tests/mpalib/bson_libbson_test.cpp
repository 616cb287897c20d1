// Cross-check against an independent BSON implementation: the same appends
// give the same bytes. With the bytes the same, each side reads what the
// other wrote as well as it reads its own, which its own tests check.
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
  bson_destroy(&theirs);
  bson_destroy(&theirHeaders);
}

// Their legacy binary (subtype 2, with the inner length) is ours too, and
// our reader hands out the data inside.
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

}  // namespace
