// libFuzzer target for the RPC frame reader. The input is what a peer writes
// on a connection: frames of a 24-byte header and the sections it announces,
// back to back. Each frame takes the steps a connection takes with it: the
// body is sized from the header and filled, an oversized payload is refused
// with what can still be read of the sections, the stream control and frame
// sections are parsed, and their contents are read the way the connection,
// the channel and the call read them (settings, keepalive, call control,
// statuses, headers).
//
// Every parsed frame is written out again and parsed back: the copy must
// carry the same sections and payload. Its stream control is then replaced
// in place by a smaller one, as a forwarder does, and the rest of the frame
// must not move. Any read outside a buffer is a finding (ASan), and so is a
// disagreement.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cpp/lib/common/logger_testing.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_frame.h"
#include "cpp/lib/rpc/rpc_status.h"
#include "cpp/lib/rpc/zel_rpc_message.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace {

using zel::rpc::RpcFrame;
using zel::rpc::RpcFramePtr;
using zel::rpc::ZelRpcMessage;

void Check(bool ok) {
  if (!ok) std::abort();
}

std::string Bytes(const RpcFrame::View& v) {
  return std::string(reinterpret_cast<const char*>(v.data), v.size);
}

// Reads the parts of a message the connection and the channel look at.
void ReadContents(const ZelRpcMessage& m) {
  const auto& frame = m.frame;
  if (frame.has_settings()) {
    std::size_t sink = 0;
    for (const auto& id : frame.settings().endpoint_id()) sink += id.size();
    for (const auto& s : frame.settings().service()) sink += s.size();
    Check(sink < (1u << 20));
  }
  if (frame.has_header()) {
    zel::rpc::ServerContext context;
    (void)zel::rpc::UnpackContext(frame.header(), &context);
  }
  if (frame.has_rpc_msg() && frame.rpc_msg().has_status()) {
    const zel::rpc::RpcStatus status = zel::rpc::FromWire(frame.rpc_msg().status());
    Check(!status.ToString().empty());
  }
  if (m.stream_control.has_close_status()) {
    (void)zel::rpc::FromWire(m.stream_control.close_status()).ToString();
  }
  Check(!m.HeaderText().empty());
}

// Writes `in` out again and checks the copy against it.
void RoundTrip(const ZelRpcMessage& in) {
  ZelRpcMessage out;
  out.stream_control = in.stream_control;
  out.frame = in.frame;
  out.SetStreamId(in.stream_id);
  const RpcFrame::View payload = in.payload_view();
  if (payload.size > 0) out.payload = zel::MakeRefCounted<zel::SharedBuffer>(payload.data, payload.size);
  RpcFramePtr written = ZelRpcMessage::Serialize(out);
  // Refusal is the answer when a section no longer fits its header field.
  if (!written) return;
  Check(written->header().payload_size == payload.size);
  ZelRpcMessage back;
  Check(ZelRpcMessage::Parse(written, &back));
  Check(std::memcmp(&back.stream_id, &in.stream_id, sizeof in.stream_id) == 0);
  Check(back.frame.SerializeAsString() == in.frame.SerializeAsString());
  Check(Bytes(back.payload_view()) == Bytes(payload));
  // A stream control section over its limit sheds the close reason, and
  // only that.
  auto expected = in.stream_control;
  if (back.stream_control.has_deprecated_close_reason() !=
      expected.has_deprecated_close_reason()) {
    expected.clear_deprecated_close_reason();
  }
  Check(back.stream_control.SerializeAsString() == expected.SerializeAsString());

  // A forwarder rewrites the stream control in place with fewer bytes.
  auto smaller = back.stream_control;
  smaller.clear_destination();
  smaller.clear_source();
  const std::string before = Bytes(written->frame()) + Bytes(written->payload());
  Check(written->ReplaceStreamControl(smaller.SerializeAsString()));
  Check(Bytes(written->frame()) + Bytes(written->payload()) == before);
  ZelRpcMessage replaced;
  Check(ZelRpcMessage::Parse(written, &replaced));
  Check(replaced.stream_control.SerializeAsString() == smaller.SerializeAsString());
}

struct QuietLog {
  QuietLog() {
    zel::log_testing::SetSyslogSinkForTest([](int, const char*) {});
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static QuietLog quiet;
  std::size_t at = 0;
  for (int frames = 0; frames < 32 && size - at >= zel::rpc::kHeaderSize; ++frames) {
    RpcFramePtr frame = RpcFrame::ForRead();
    std::memcpy(frame->data(), data + at, zel::rpc::kHeaderSize);
    at += zel::rpc::kHeaderSize;
    const zel::rpc::RpcFrameHeader h = frame->header();
    const uint64_t sections = uint64_t{h.stream_control_size} + h.frame_size;
    const bool tooBig = h.payload_size > zel::rpc::kMaxPayloadSize;
    const uint64_t want = sections + (tooBig ? 0 : h.payload_size);
    // A body longer than the input would leave the read waiting: stop there.
    if (want > size - at) break;
    frame->AllocateBody();
    Check(frame->too_big() == tooBig);
    const RpcFrame::View body = frame->body();
    Check(body.size == want);
    std::memcpy(body.data, data + at, body.size);
    at += body.size;
    Check(frame->payload().size == (tooBig ? 0 : h.payload_size));

    if (frame->too_big()) {
      // The connection logs what it can read of the sections and closes.
      ZelRpcMessage partial;
      (void)ZelRpcMessage::ParseStreamControl(frame, &partial.stream_control);
      const RpcFrame::View section = frame->frame();
      (void)partial.frame.ParseFromArray(section.data, static_cast<int>(section.size));
      (void)partial.frame.ShortDebugString();
      break;
    }
    ZelRpcMessage message;
    if (!ZelRpcMessage::Parse(frame, &message)) break;  // the connection closes
    Check(Bytes(message.payload_view()) == Bytes(frame->payload()));
    ReadContents(message);
    RoundTrip(message);
  }
  return 0;
}
