#include "cpp/lib/rpc/zel_rpc_message.h"

#include <cstring>
#include <utility>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/error_tags.h"

namespace zel {
namespace rpc {
namespace {

using ::orvane::zel::rpc::StreamControlMsg;

RpcFrameHeader HeaderOf(const ZelRpcMessage& m, std::size_t control, std::size_t frame,
                        std::size_t payload) {
  RpcFrameHeader h{};
  h.flags = 0;
  h.stream_control_size = static_cast<uint8_t>(control);
  h.frame_size = static_cast<uint16_t>(frame);
  h.payload_size = static_cast<uint32_t>(payload);
  std::memcpy(h.stream_id, m.stream_id.data(), sizeof h.stream_id);
  return h;
}

// Shortens or removes the close reason of `copy` so that the section may
// fit; see the header for the arithmetic, which is kept as it stands.
void ShedCloseReason(StreamControlMsg* copy) {
  std::string reason = copy->deprecated_close_reason();
  copy->clear_deprecated_close_reason();
  const uint64_t base = copy->ByteSizeLong();
  const uint64_t room = uint64_t{253} - base;  // wraps when base is over 253
  if (room < reason.size()) {
    ZEL_RPC_LOG(kLogWarn).format("ZelRpcMessage: Close reason truncated from %zu to %zu bytes",
                                 reason.size(), static_cast<std::size_t>(room));
    reason.resize(static_cast<std::size_t>(room));
    copy->set_deprecated_close_reason(reason);
  } else {
    ZEL_RPC_LOG(kLogWarn).format("ZelRpcMessage: Close reason removed");
  }
}

}  // namespace

const char* StreamPriorityName(uint32_t priority) {
  switch (priority) {
    case kStreamPriorityLow:
      return "low";
    case kStreamPriorityNormal:
      return "normal";
    case kStreamPriorityHigh:
      return "high";
    case kStreamPrioritySputnik:
      return "sputnik";
    default:
      return "<StreamPriority::INVALID>";
  }
}

const char* ToString(ChannelPriority priority) {
  switch (priority) {
    case ChannelPriority::LOW:
      return "low";
    case ChannelPriority::NORMAL:
      return "normal";
    case ChannelPriority::HIGH:
      return "high";
  }
  return "<ChannelPriority::INVALID>";
}

uint32_t ToStreamPriority(ChannelPriority priority) {
  switch (priority) {
    case ChannelPriority::LOW:
      return kStreamPriorityLow;
    case ChannelPriority::HIGH:
      return kStreamPriorityHigh;
    default:
      return kStreamPriorityNormal;
  }
}

uint32_t NormalizeStreamPriority(const StreamControlMsg& control) {
  if (!control.has_priority()) return kStreamPriorityNormal;
  const uint32_t p = control.priority();
  if (p == kStreamPrioritySputnik) return p;
  if (p > kStreamPriorityNormal) return kStreamPriorityHigh;
  if (p == kStreamPriorityNormal) return p;
  return kStreamPriorityLow;
}

ChannelPriority ChannelPriorityOf(uint32_t streamPriority) {
  if (streamPriority == kStreamPriorityHigh || streamPriority == kStreamPrioritySputnik) {
    return ChannelPriority::HIGH;
  }
  return streamPriority == kStreamPriorityLow ? ChannelPriority::LOW : ChannelPriority::NORMAL;
}

RpcFramePtr ZelRpcMessage::Serialize(const ZelRpcMessage& m) {
  const StreamControlMsg* control = &m.stream_control;
  StreamControlMsg copy;
  std::size_t controlSize = control->ByteSizeLong();
  if (controlSize > kMaxStreamControlSize && control->has_deprecated_close_reason()) {
    copy = *control;
    ShedCloseReason(&copy);
    control = &copy;
    controlSize = copy.ByteSizeLong();
  }
  const std::size_t frameSize = m.frame.ByteSizeLong();
  const std::size_t payloadSize = m.payload ? m.payload->size() : 0;
  const RpcFrameHeader h = HeaderOf(m, controlSize, frameSize, payloadSize);
  // The header's text is made only for a line that is written: the frame
  // itself is the one allocation of a send.
  if (controlSize > kMaxStreamControlSize) {
    ZEL_RPC_LOG(kLogWarn).format("ZelRpcMessage: Stream control size is over maximum (%zu/%zu) for %s",
                                 controlSize, kMaxStreamControlSize, ToString(h).c_str());
    return nullptr;
  }
  if (frameSize > kMaxFrameSize) {
    ZEL_RPC_LOG(kLogWarn).format("ZelRpcMessage: Frame size is over maximum (%zu/%zu) for %s",
                                 frameSize, kMaxFrameSize, ToString(h).c_str());
    return nullptr;
  }
  if (payloadSize > kMaxPayloadSize) {
    ZEL_RPC_LOG(kLogWarn).format("ZelRpcMessage: Payload size is over maximum (%zu/%zu) for %s",
                                 payloadSize, kMaxPayloadSize, ToString(h).c_str());
    return nullptr;
  }
  const std::size_t total = kHeaderSize + controlSize + frameSize + payloadSize;
  ZEL_RPC_LOG(kLogDebug).format("RpcFrame: Allocating %zu bytes for message with %s", total,
                                ToString(h).c_str());
  RpcFramePtr frame = RpcFrame::ForWrite(h);
  control->SerializeWithCachedSizesToArray(frame->stream_control().data);
  m.frame.SerializeWithCachedSizesToArray(frame->frame().data);
  if (payloadSize > 0) std::memcpy(frame->payload().data, m.payload->data(), payloadSize);
  ZEL_RPC_LOG(kLogDebug).format("ZelRpcMessage: Serializing %s", ToString(h).c_str());
  return frame;
}

bool ZelRpcMessage::ParseStreamControl(const RpcFramePtr& frame, StreamControlMsg* out) {
  const RpcFrame::View control = frame->stream_control();
  if (!out->ParseFromArray(control.data, static_cast<int>(control.size))) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc400)
        .format("ZelRpcMessage: Failed to parse StreamControlMsg");
    return false;
  }
  return true;
}

bool ZelRpcMessage::Parse(const RpcFramePtr& frame, ZelRpcMessage* out) {
  if (!ParseStreamControl(frame, &out->stream_control)) return false;
  const RpcFrame::View section = frame->frame();
  if (!out->frame.ParseFromArray(section.data, static_cast<int>(section.size))) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc400).format("ZelRpcMessage: Failed to parse FrameMsg");
    return false;
  }
  out->received = frame;
  out->stream_id = frame->stream_id();
  return true;
}

std::size_t ZelRpcMessage::PayloadSize() const {
  if (payload) return payload->size();
  if (received) return received->header().payload_size;
  return 0;
}

RpcFrame::View ZelRpcMessage::payload_view() const {
  if (payload) return {payload->data(), payload->size()};
  if (received) return received->payload();
  return {};
}

void ZelRpcMessage::SetPayload(SharedBufferPtr bytes) {
  payload = std::move(bytes);
  frame.mutable_rpc_msg()->set_has_payload(true);
}

void ZelRpcMessage::ClearPayload() {
  payload.reset();
  frame.mutable_rpc_msg()->clear_has_payload();
}

std::string ZelRpcMessage::HeaderText() const {
  if (received) return ToString(received->header());
  return ToString(HeaderOf(*this, stream_control.ByteSizeLong(), frame.ByteSizeLong(),
                           PayloadSize()));
}

}  // namespace rpc
}  // namespace zel
