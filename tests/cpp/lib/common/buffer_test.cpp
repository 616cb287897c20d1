#include "cpp/lib/common/buffer.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace zel {
namespace {

TEST(SharedBufferTest, EmptyBuffersHoldNullAndSizedOnesAreZeroFilled) {
  EXPECT_EQ(MakeRefCounted<SharedBuffer>()->data(), nullptr);
  EXPECT_EQ(MakeRefCounted<SharedBuffer>(size_t{0})->data(), nullptr);
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
  EXPECT_EQ(adopted->data(), address);  // ASan sees a wrong delete of it
  EXPECT_EQ(adopted->size(), 3u);
}

TEST(SharedBufferTest, ResizeKeepsPrefixAndZeroesGrowth) {
  SharedBufferPtr buf = MakeRefCounted<SharedBuffer>("hdr", size_t{3});
  buf->Resize(6);
  ASSERT_EQ(buf->size(), 6u);
  EXPECT_EQ(std::memcmp(buf->data(), "hdr\0\0\0", 6), 0);
  buf->Resize(2);
  ASSERT_EQ(buf->size(), 2u);
  EXPECT_EQ(std::memcmp(buf->data(), "hd", 2), 0);
  buf->Resize(0);
  EXPECT_EQ(buf->data(), nullptr);
  EXPECT_TRUE(buf->empty());
}

}  // namespace
}  // namespace zel
