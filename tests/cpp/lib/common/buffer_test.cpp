#include "cpp/lib/common/buffer.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(SharedBufferTest, EmptyBufferHoldsNullPointer) {
  SharedBufferPtr empty = MakeRefCounted<SharedBuffer>();
  EXPECT_EQ(empty->data(), nullptr);
  EXPECT_EQ(empty->size(), 0u);
  EXPECT_TRUE(empty->empty());
  SharedBufferPtr zero = MakeRefCounted<SharedBuffer>(size_t{0});
  EXPECT_EQ(zero->data(), nullptr);
}

TEST(SharedBufferTest, SizedBufferIsZeroFilled) {
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>(size_t{64});
  ASSERT_NE(buf->data(), nullptr);
  EXPECT_EQ(buf->size(), 64u);
  for (size_t i = 0; i < buf->size(); ++i) EXPECT_EQ(buf->data()[i], 0) << i;
}

TEST(SharedBufferTest, CopiesBytesAndAdoptsOwnedMemory) {
  const std::string text = "frame bytes";
  SharedBufferPtr copy = MakeRefCounted<SharedBuffer>(text.data(), text.size());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(copy->data()), copy->size()), text);
  EXPECT_NE(static_cast<const void*>(copy->data()), static_cast<const void*>(text.data()));

  std::unique_ptr<uint8_t[]> owned(new uint8_t[3]{1, 2, 3});
  const uint8_t* address = owned.get();
  SharedBufferPtr adopted = MakeRefCounted<SharedBuffer>(std::move(owned), size_t{3});
  EXPECT_EQ(adopted->data(), address);
  EXPECT_EQ(adopted->size(), 3u);
  EXPECT_EQ(adopted->data()[2], 3);
}

TEST(SharedBufferTest, ResizeKeepsPrefixAndZeroesGrowth) {
  const char header[] = {'h', 'd', 'r'};
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>(header, sizeof(header));
  buf->Resize(6);
  ASSERT_EQ(buf->size(), 6u);
  EXPECT_EQ(std::memcmp(buf->data(), "hdr\0\0\0", 6), 0);
  buf->Resize(2);
  ASSERT_EQ(buf->size(), 2u);
  EXPECT_EQ(std::memcmp(buf->data(), "hd", 2), 0);
  buf->Resize(0);
  EXPECT_EQ(buf->data(), nullptr);
  EXPECT_EQ(buf->size(), 0u);
}

TEST(SharedBufferTest, HooksHaveNoBehaviour) {
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>(size_t{4});
  Buffer& base = *buf;
  EXPECT_EQ(base.Pin(), 0);
  EXPECT_EQ(base.Unpin(), 0);
}

}  // namespace
}  // namespace zel
