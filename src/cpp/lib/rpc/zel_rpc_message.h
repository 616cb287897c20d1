// ZelRpcMessage: a frame in decoded form, the unit that channels and
// connections pass around, and the stream priorities it carries.
//
//   ZelRpcMessage m;
//   m.SetStreamId(id);
//   m.SetCallId(7);
//   m.SetPayload(requestBytes);             // also sets rpc_msg.has_payload
//   RpcFramePtr frame = ZelRpcMessage::Serialize(m);   // none when over a limit
//
//   ZelRpcMessage in;
//   if (ZelRpcMessage::Parse(received, &in)) { ... in.payload_view() ... }
//
// A received message keeps its frame alive and reads its payload from it,
// with no copy. A message to send holds its payload in a SharedBuffer, which
// Serialize copies into the one contiguous frame.
//
// Stream control sections over 255 bytes shed their close reason first: the
// reason is cut to what fits with a one-byte length, or removed when even
// that can't fit; a reason cut to 128 bytes or more then needs a two-byte
// length, makes 256 bytes, and the message is not sent. That arithmetic is
// the system's and is kept.
//
// Threads: a message belongs to one thread at a time.
#ifndef ZEL_RPC_ZEL_RPC_MESSAGE_H_
#define ZEL_RPC_ZEL_RPC_MESSAGE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "cpp/lib/common/buffer.h"
#include "cpp/lib/rpc/rpc_frame.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace zel {
namespace rpc {

// Stream priorities on the wire. 127 is the connection's own control traffic.
constexpr uint32_t kStreamPriorityLow = 32;
constexpr uint32_t kStreamPriorityNormal = 64;
constexpr uint32_t kStreamPriorityHigh = 96;
constexpr uint32_t kStreamPrioritySputnik = 127;

enum class ChannelPriority { LOW = 0, NORMAL = 1, HIGH = 2 };

// "low", "normal", "high", "sputnik", or "<StreamPriority::INVALID>".
const char* StreamPriorityName(uint32_t priority);
// "low", "normal", "high", or "<ChannelPriority::INVALID>".
const char* ToString(ChannelPriority priority);
// 32, 64, 96; 64 for a priority out of range.
uint32_t ToStreamPriority(ChannelPriority priority);
// A received priority field: 127 stays, above 64 is 96, 64 stays, below is
// 32; no field counts as 64.
uint32_t NormalizeStreamPriority(const ::orvane::zel::rpc::StreamControlMsg& control);
// The channel priority for a stream a peer opens: 96 and 127 high, 32 low,
// the rest normal.
ChannelPriority ChannelPriorityOf(uint32_t streamPriority);

class ZelRpcMessage {
 public:
  ::orvane::zel::rpc::StreamControlMsg stream_control;
  ::orvane::zel::rpc::FrameMsg frame;
  // The received frame, or none.
  RpcFramePtr received;
  StreamId stream_id{};
  // The payload to send, or none.
  SharedBufferPtr payload;

  // The frame for `message`, or none (logged) when a section is over its
  // maximum.
  static RpcFramePtr Serialize(const ZelRpcMessage& message);
  // Fills `out` from `frame`; false (logged with errorCode:RPC400) when a
  // section doesn't parse.
  [[nodiscard]] static bool Parse(const RpcFramePtr& frame, ZelRpcMessage* out);
  // Parses only the stream control section of `frame`.
  [[nodiscard]] static bool ParseStreamControl(const RpcFramePtr& frame,
                                               ::orvane::zel::rpc::StreamControlMsg* out);

  // The outgoing buffer's size, else the received frame's payload size.
  std::size_t PayloadSize() const;
  // The received payload, or the outgoing one.
  RpcFrame::View payload_view() const;

  void SetStreamId(const StreamId& id) { stream_id = id; }
  void SetPriority(uint32_t priority) { stream_control.set_priority(priority); }
  void SetCallId(uint64_t id) { frame.mutable_rpc_msg()->set_call_id(id); }
  void SetMethod(const std::string& name) { frame.mutable_rpc_msg()->set_method(name); }
  void SetCancelCall() { frame.mutable_rpc_msg()->set_cancel_call(true); }
  void SetPayload(SharedBufferPtr bytes);
  void ClearPayload();

  // The header this message makes, for log lines: "RpcFrame:Header {...}".
  std::string HeaderText() const;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ZEL_RPC_MESSAGE_H_
