#include "cpp/lib/rpc/rpc_frame.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "cpp/lib/common/logger.h"

namespace zel {
namespace rpc {

std::string StreamIdText(const StreamId& id) {
  char text[37];
  const uint8_t* b = id.data();
  std::snprintf(text, sizeof text,
                "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return text;
}

bool IsZero(const StreamId& id) {
  for (uint8_t b : id) {
    if (b != 0) return false;
  }
  return true;
}

std::string ToString(const RpcFrameHeader& h) {
  StreamId id;
  std::memcpy(id.data(), h.stream_id, id.size());
  char text[200];
  std::snprintf(text, sizeof text,
                "RpcFrame:Header {flags: %02X, stream_control_size: %u, frame_size: %u, "
                "payload_size: %u, stream_id: %s}",
                h.flags, h.stream_control_size, h.frame_size, h.payload_size,
                StreamIdText(id).c_str());
  return text;
}

RefPtr<RpcFrame> RpcFrame::ForWrite(const RpcFrameHeader& header) {
  if (header.payload_size > kMaxPayloadSize) return nullptr;
  const std::size_t size = kHeaderSize + header.stream_control_size + header.frame_size +
                           header.payload_size;
  // One allocation for the object and its bytes.
  void* memory = ::operator new(sizeof(RpcFrame) + size);
  uint8_t* bytes = static_cast<uint8_t*>(memory) + sizeof(RpcFrame);
  RefPtr<RpcFrame> frame(new (memory) RpcFrame(bytes, size));
  std::memcpy(bytes, &header, kHeaderSize);
  return frame;
}

RefPtr<RpcFrame> RpcFrame::ForRead() {
  void* memory = ::operator new(sizeof(RpcFrame));
  RpcFrame* frame = new (memory) RpcFrame(nullptr, 0);
  frame->SetView(frame->inlineHeader_, kHeaderSize);
  return RefPtr<RpcFrame>(frame);
}

StreamId RpcFrame::stream_id() const {
  StreamId id;
  std::memcpy(id.data(), header().stream_id, id.size());
  return id;
}

void RpcFrame::AllocateBody() {
  const RpcFrameHeader h = header();
  tooBig_ = h.payload_size > kMaxPayloadSize;
  if (tooBig_) {
    ZEL_RPC_LOG(kLogWarn).format("RpcFrame: Payload is too big in message with %s",
                                 ToString(h).c_str());
  }
  const std::size_t size = kHeaderSize + h.stream_control_size + h.frame_size +
                           (tooBig_ ? 0 : h.payload_size);
  heap_.reset(new uint8_t[size]);
  std::memcpy(heap_.get(), &h, kHeaderSize);
  SetView(heap_.get(), size);
}

bool RpcFrame::ReplaceStreamControl(const std::string& bytes) {
  RpcFrameHeader h = header();
  if (bytes.size() > h.stream_control_size) return false;
  uint8_t* section = data() + kHeaderSize;
  const std::size_t rest = size() - kHeaderSize - h.stream_control_size;
  std::memcpy(section, bytes.data(), bytes.size());
  std::memmove(section + bytes.size(), section + h.stream_control_size, rest);
  h.stream_control_size = static_cast<uint8_t>(bytes.size());
  std::memcpy(data(), &h, kHeaderSize);
  SetView(data(), kHeaderSize + bytes.size() + rest);
  return true;
}

}  // namespace rpc
}  // namespace zel
