// Byte buffers that travel between threads: a frame read from a socket, a
// serialised message waiting in a send queue.
//
//   zel::RefPtr<zel::SharedBuffer> buf = zel::MakeRefCounted<zel::SharedBuffer>(n);
//   memcpy(buf->data(), bytes, n);
//   queue.Push(buf);   // from here on, readers only
//
// Threads: nothing here locks. A SharedBuffer is filled by one thread and may
// then be read by several at once; it must not be written after it has been
// handed on. Its reference count (ref_counted.h) is the only thread-safe part.
#ifndef ZEL_COMMON_BUFFER_H_
#define ZEL_COMMON_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "cpp/lib/common/ref_counted.h"

namespace zel {

// A view of `size()` bytes at `data()`. Who owns the bytes is the subclass's
// business.
class Buffer {
 public:
  virtual ~Buffer() = default;

  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

  // Extension points for a buffer whose bytes are not resident all the time
  // (a pool slot, a mapped file): Pin() before the bytes are read or written,
  // Unpin() after. Each returns 0 on success or an errno value. A buffer that
  // owns plain memory, like SharedBuffer, returns 0 from both.
  virtual int Pin() = 0;
  virtual int Unpin() = 0;

 protected:
  Buffer() = default;
  Buffer(uint8_t* data, size_t size) : data_(data), size_(size) {}

  void SetView(uint8_t* data, size_t size) {
    data_ = data;
    size_ = size;
  }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// A reference-counted buffer that owns its bytes (allocated with new[] and
// freed by the destructor; an empty buffer holds a null pointer).
class SharedBuffer : public Buffer, public RefCounted<SharedBuffer, IRefCountable> {
 public:
  // An empty buffer: data() is null, size() is 0.
  SharedBuffer() = default;
  // `size` bytes, zero-filled.
  explicit SharedBuffer(size_t size);
  // A copy of `size` bytes at `bytes` (which may be null only when `size` is 0).
  SharedBuffer(const void* bytes, size_t size);
  // Takes ownership of `bytes`, which must come from new uint8_t[] and hold
  // at least `size` bytes.
  SharedBuffer(std::unique_ptr<uint8_t[]> bytes, size_t size);
  ~SharedBuffer() override;

  // Changes the size. The first min(old, new) bytes keep their values, new
  // bytes are zero; the data pointer may change. Only while no other thread
  // has the buffer.
  void Resize(size_t size);

  // Buffer
  int Pin() override { return 0; }
  int Unpin() override { return 0; }

 private:
  std::unique_ptr<uint8_t[]> bytes_;
};

using SharedBufferPtr = RefPtr<SharedBuffer>;

}  // namespace zel

#endif  // ZEL_COMMON_BUFFER_H_
