// RpcFrame: one frame of the RPC wire format in one buffer, with its parsed
// header and views of its sections.
//
//   offset  size  field
//        0     1  flags                 written 0, never tested on receipt
//        1     1  stream_control_size   0 to 255
//        2     2  frame_size            0 to 65535
//        4     4  payload_size          0 to 67108864
//        8    16  stream_id             all zero: the connection itself
//       24     .  stream control (StreamControlMsg), frame (FrameMsg), payload
//
// Integers are little-endian: the header is copied to and from memory as it
// stands. Frames follow one another with no gap.
//
// Building: ZelRpcMessage::Serialize makes a frame of the whole size at once
// (one allocation, object and bytes together). Reading, in two stages:
//
//   RefPtr<RpcFrame> f = RpcFrame::ForRead();   // 24 bytes
//   read(f->data(), kHeaderSize);
//   f->AllocateBody();                          // sizes from the header
//   read(f->body().data, f->body().size);
//
// A payload_size above the maximum sets too_big(): the body is then sized
// without the payload, so that the two messages can still be read and logged.
//
// Threads: a frame is filled by one thread and then only read; its reference
// count is the only thread-safe part.
#ifndef ZEL_RPC_RPC_FRAME_H_
#define ZEL_RPC_RPC_FRAME_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "cpp/lib/common/buffer.h"
#include "cpp/lib/common/ref_counted.h"

namespace zel {
namespace rpc {

constexpr std::size_t kHeaderSize = 24;
constexpr std::size_t kMaxStreamControlSize = 255;
constexpr std::size_t kMaxFrameSize = 65535;
constexpr std::size_t kMaxPayloadSize = 67108864;

using StreamId = std::array<uint8_t, 16>;

// Hash of a stream id for tables keyed by it; ids are random, so folding
// the two halves is enough.
struct StreamIdHash {
  std::size_t operator()(const StreamId& id) const {
    uint64_t a, b;
    std::memcpy(&a, id.data(), 8);
    std::memcpy(&b, id.data() + 8, 8);
    return static_cast<std::size_t>(a ^ (b * 0x9E3779B97F4A7C15ull));
  }
};

// The usual 8-4-4-4-12 lower-case text of a stream id.
std::string StreamIdText(const StreamId& id);
bool IsZero(const StreamId& id);

struct RpcFrameHeader {
  uint8_t flags;
  uint8_t stream_control_size;
  uint16_t frame_size;
  uint32_t payload_size;
  uint8_t stream_id[16];
};
static_assert(sizeof(RpcFrameHeader) == kHeaderSize, "the header is 24 bytes with no padding");

// "RpcFrame:Header {flags: 00, stream_control_size: 12, frame_size: 34,
// payload_size: 56, stream_id: 01234567-89ab-cdef-0123-456789abcdef}".
std::string ToString(const RpcFrameHeader& header);

class RpcFrame : public Buffer, public RefCounted<RpcFrame, IRefCountable> {
 public:
  struct View {
    uint8_t* data = nullptr;
    std::size_t size = 0;
  };

  // A frame of exactly `header`'s sizes, header written, sections not yet
  // filled; nothing when a size is over its maximum.
  static RefPtr<RpcFrame> ForWrite(const RpcFrameHeader& header);
  // 24 bytes to read a header into.
  static RefPtr<RpcFrame> ForRead();

  RpcFrame(const RpcFrame&) = delete;
  RpcFrame& operator=(const RpcFrame&) = delete;

  // The header as the buffer holds it.
  const RpcFrameHeader& header() const {
    return *reinterpret_cast<const RpcFrameHeader*>(data());
  }
  StreamId stream_id() const;

  // Sizes the buffer from the header read into it and makes the views; the
  // header bytes stay. Logs "RpcFrame: Payload is too big in message with %s"
  // and sets too_big() for a payload over the maximum.
  void AllocateBody();
  bool too_big() const { return tooBig_; }

  View header_view() { return {data(), kHeaderSize}; }
  View body() { return {data() + kHeaderSize, size() - kHeaderSize}; }
  View stream_control() { return {data() + kHeaderSize, header().stream_control_size}; }
  View frame() { return {stream_control().data + stream_control().size, header().frame_size}; }
  // Empty on a frame whose payload was too big.
  View payload() {
    return {frame().data + frame().size, tooBig_ ? 0 : static_cast<std::size_t>(header().payload_size)};
  }

  // Puts `bytes` in the place of the stream control section: the frame and
  // payload move down behind it and the buffer shrinks. False, changing
  // nothing, when `bytes` is longer than the section.
  [[nodiscard]] bool ReplaceStreamControl(const std::string& bytes);

  // Buffer
  int Pin() override { return 0; }
  int Unpin() override { return 0; }

  // Frames made by ForWrite carry their bytes behind the object.
  static void operator delete(void* p) { ::operator delete(p); }

 private:
  RpcFrame(uint8_t* data, std::size_t size) : Buffer(data, size) {}
  ~RpcFrame() override = default;

  std::unique_ptr<uint8_t[]> heap_;
  uint8_t inlineHeader_[kHeaderSize] = {};
  bool tooBig_ = false;
};

using RpcFramePtr = RefPtr<RpcFrame>;

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_FRAME_H_
