#include "cpp/lib/common/buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zel {

namespace {

std::unique_ptr<uint8_t[]> Allocate(size_t size) {
  return size == 0 ? nullptr : std::unique_ptr<uint8_t[]>(new uint8_t[size]());
}

}  // namespace

SharedBuffer::SharedBuffer(size_t size) : bytes_(Allocate(size)) { SetView(bytes_.get(), size); }

SharedBuffer::SharedBuffer(const void* bytes, size_t size) : bytes_(Allocate(size)) {
  if (size != 0) memcpy(bytes_.get(), bytes, size);
  SetView(bytes_.get(), size);
}

SharedBuffer::SharedBuffer(std::unique_ptr<uint8_t[]> bytes, size_t size)
    : bytes_(std::move(bytes)) {
  SetView(bytes_.get(), bytes_ ? size : 0);
}

SharedBuffer::~SharedBuffer() = default;

void SharedBuffer::Resize(size_t size) {
  if (size == this->size()) return;
  std::unique_ptr<uint8_t[]> bytes = Allocate(size);
  const size_t keep = std::min(size, this->size());
  if (keep != 0) memcpy(bytes.get(), bytes_.get(), keep);
  bytes_ = std::move(bytes);
  SetView(bytes_.get(), size);
}

}  // namespace zel
