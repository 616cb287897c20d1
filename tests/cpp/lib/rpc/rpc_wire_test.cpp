// The RPC wire format: frames built here against frames that an independent
// peer (Python's pure protobuf runtime, header packed by hand) builds for the
// same messages, read both ways; the limits and the close-reason arithmetic at
// their edges; statuses and priorities.
#include "cpp/lib/rpc/zel_rpc_message.h"

#include <cstring>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "cpp/lib/rpc/rpc_status.h"
#include "support/child_process.h"
#include "support/log_capture.h"

namespace zel {
namespace rpc {
namespace {

using ::orvane::zel::rpc::RpcStatusMsg;

const StreamId kStream = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

std::string Bytes(const RpcFramePtr& f) {
  return std::string(reinterpret_cast<const char*>(f->data()), f->size());
}

std::string Hex(const std::string& bytes) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += kHex[c >> 4];
    out += kHex[c & 15];
  }
  return out;
}

std::string Unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

// A frame read from `bytes` the way a connection reads it: header, then body.
RpcFramePtr ReadFrame(const std::string& bytes) {
  RpcFramePtr f = RpcFrame::ForRead();
  std::memcpy(f->data(), bytes.data(), kHeaderSize);
  f->AllocateBody();
  const RpcFrame::View body = f->body();
  std::memcpy(body.data, bytes.data() + kHeaderSize, std::min(body.size, bytes.size() - kHeaderSize));
  return f;
}

// The messages the peer builds, built here.
std::map<std::string, ZelRpcMessage> Samples() {
  std::map<std::string, ZelRpcMessage> m;
  {
    ZelRpcMessage& s = m["open"];
    s.SetStreamId(kStream);
    s.stream_control.set_service("orvane.zel.Echo");
    s.stream_control.set_open_stream(true);
    s.SetPriority(kStreamPriorityNormal);
  }
  {
    ZelRpcMessage& s = m["call"];
    s.SetStreamId(kStream);
    s.SetCallId(7);
    s.SetMethod("orvane.zel.Echo.Say");
    s.SetPayload(MakeRefCounted<SharedBuffer>("hello", 5));
    auto* h = s.frame.mutable_header()->add_header();
    h->set_key("a");
    h->set_value("b");
    s.frame.mutable_header()->set_client_id("c");
  }
  {
    ZelRpcMessage& s = m["status"];
    s.SetStreamId(kStream);
    s.SetCallId(7);
    EXPECT_TRUE(ToWire(RpcStatus(INTERNAL, "boom"), s.frame.mutable_rpc_msg()->mutable_status()));
  }
  {
    ZelRpcMessage& s = m["settings"];
    auto* settings = s.frame.mutable_settings();
    settings->set_version(::orvane::zel::rpc::RPC_V1);
    settings->add_endpoint_id("ep1");
    settings->add_service("s1");
    settings->add_service("s2");
  }
  {
    ZelRpcMessage& s = m["keepalive"];
    s.frame.mutable_keep_alive_request()->set_request_id(1);
    s.frame.mutable_keep_alive_request()->set_timestamp(99);
  }
  {
    ZelRpcMessage& s = m["close"];
    s.SetStreamId(kStream);
    s.stream_control.set_close_stream(true);
    s.stream_control.set_deprecated_close_reason("No Service x");
  }
  return m;
}

TEST(RpcWireTest, FramesMatchAnIndependentPeerBothWays) {
  zel::testing::ChildProcess peer(
      {ZEL_SYSTEM_PYTHON, "-I", ZEL_FRAME_PEER, "--gen", ZEL_PY_GEN_DIR});
  const std::optional<int> code = peer.WaitExit();
  ASSERT_TRUE(code.has_value());
  if (*code == 3) GTEST_SKIP() << "python3-protobuf is missing: " << peer.Output();
  ASSERT_EQ(*code, 0) << peer.Output();

  std::map<std::string, ZelRpcMessage> samples = Samples();
  std::istringstream lines(peer.Output());
  std::string name, hex;
  int seen = 0;
  while (lines >> name >> hex) {
    SCOPED_TRACE(name);
    ASSERT_EQ(samples.count(name), 1u);
    ++seen;
    const ZelRpcMessage& ours = samples[name];
    RpcFramePtr built = ZelRpcMessage::Serialize(ours);
    ASSERT_TRUE(built);
    EXPECT_EQ(Hex(Bytes(built)), hex);

    // Their bytes, read and parsed here, give the same messages back.
    const std::string bytes = Unhex(hex);
    RpcFramePtr read = ReadFrame(bytes);
    ZelRpcMessage parsed;
    ASSERT_TRUE(ZelRpcMessage::Parse(read, &parsed));
    EXPECT_EQ(parsed.stream_control.SerializeAsString(), ours.stream_control.SerializeAsString());
    EXPECT_EQ(parsed.frame.SerializeAsString(), ours.frame.SerializeAsString());
    EXPECT_EQ(parsed.stream_id, ours.stream_id);
    const RpcFrame::View payload = parsed.payload_view();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(payload.data), payload.size),
              ours.payload ? "hello" : "");
    // The received payload is a view into the frame: nothing was copied.
    if (payload.size > 0) {
      EXPECT_EQ(payload.data, read->data() + bytes.size() - payload.size);
    }
  }
  EXPECT_EQ(seen, static_cast<int>(samples.size()));
}

TEST(RpcWireTest, HeaderLayout) {
  ZelRpcMessage m = Samples()["call"];
  RpcFramePtr f = ZelRpcMessage::Serialize(m);
  ASSERT_TRUE(f);
  const uint8_t* b = f->data();
  const std::size_t control = m.stream_control.ByteSizeLong();
  const std::size_t frame = m.frame.ByteSizeLong();
  EXPECT_EQ(b[0], 0);
  EXPECT_EQ(b[1], control);
  EXPECT_EQ(b[2] | b[3] << 8, static_cast<int>(frame));
  EXPECT_EQ(b[4] | b[5] << 8 | b[6] << 16 | b[7] << 24, 5);
  EXPECT_EQ(std::memcmp(b + 8, kStream.data(), 16), 0);
  EXPECT_EQ(f->size(), kHeaderSize + control + frame + 5);
  EXPECT_EQ(ToString(f->header()),
            "RpcFrame:Header {flags: 00, stream_control_size: 0, frame_size: " +
                std::to_string(frame) +
                ", payload_size: 5, stream_id: 00010203-0405-0607-0809-0a0b0c0d0e0f}");

  // A flags byte that is not 0 changes nothing on receipt; empty sections
  // are empty messages.
  std::string bytes(kHeaderSize, '\0');
  bytes[0] = static_cast<char>(0x5a);
  RpcFramePtr empty = ReadFrame(bytes);
  ZelRpcMessage parsed;
  ASSERT_TRUE(ZelRpcMessage::Parse(empty, &parsed));
  EXPECT_EQ(parsed.frame.ByteSizeLong(), 0u);
  EXPECT_TRUE(IsZero(parsed.stream_id));

  // Damaged sections fail with their tag.
  zel::testing::LogCapture log;
  std::string bad = Bytes(f);
  bad[kHeaderSize + control] = static_cast<char>(0xff);  // the frame section's first tag
  EXPECT_FALSE(ZelRpcMessage::Parse(ReadFrame(bad), &parsed));
  EXPECT_NE(log.Find("ZelRpcMessage: Failed to parse FrameMsg").find("errorCode=\"RPC400\""),
            std::string::npos);
}

// A stream control section made of a service name of `service` bytes and a
// close reason of `reason` bytes.
ZelRpcMessage Control(std::size_t service, std::size_t reason) {
  ZelRpcMessage m;
  m.stream_control.set_service(std::string(service, 's'));
  if (reason > 0) m.stream_control.set_deprecated_close_reason(std::string(reason, 'r'));
  return m;
}

// The service length that makes the rest of the section `size` bytes.
std::size_t ServiceFor(std::size_t size) {
  for (std::size_t n = 0;; ++n) {
    if (Control(n, 0).stream_control.ByteSizeLong() == size) return n;
  }
}

TEST(RpcWireTest, CloseReasonShedding) {
  struct Row {
    std::size_t rest;    // bytes of the other fields
    std::size_t reason;  // bytes of the close reason
    int sent;            // the stream control size sent, or -1 for none
    const char* line;
  };
  const Row rows[] = {
      {30, 300, -1, "Close reason truncated from 300 to 223 bytes"},
      {100, 200, -1, "Close reason truncated from 200 to 153 bytes"},
      {200, 60, 255, "Close reason truncated from 60 to 53 bytes"},
      {254, 5, 254, "Close reason removed"},
      // A reason exactly as long as the room is removed too: with its
      // two-byte length it would not have fitted.
      {125, 128, 125, "Close reason removed"},
      {200, 10, 212, nullptr},  // fits: nothing shed
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.rest) + " + " + std::to_string(r.reason));
    zel::testing::LogCapture log;
    ZelRpcMessage m = Control(ServiceFor(r.rest), r.reason);
    RpcFramePtr f = ZelRpcMessage::Serialize(m);
    EXPECT_EQ(f ? static_cast<int>(f->header().stream_control_size) : -1, r.sent);
    if (r.line) {
      EXPECT_EQ(log.Count(r.line), 1u);
    }
    if (r.sent < 0) {
      EXPECT_EQ(log.Count("Stream control size is over maximum (256/255)"), 1u);
    }
  }
}

TEST(RpcWireTest, SectionLimits) {
  zel::testing::LogCapture log;
  // Stream control without a reason: 255 goes, 256 does not.
  EXPECT_TRUE(ZelRpcMessage::Serialize(Control(ServiceFor(255), 0)));
  EXPECT_FALSE(ZelRpcMessage::Serialize(Control(ServiceFor(256), 0)));
  // Frame: 65535 goes, 65536 does not.
  auto frameOf = [](std::size_t size) {
    for (std::size_t n = size - 8;; ++n) {
      ZelRpcMessage m;
      m.frame.mutable_header()->set_client_id(std::string(n, 'c'));
      if (m.frame.ByteSizeLong() >= size) return m;
    }
  };
  ZelRpcMessage big = frameOf(65535);
  ASSERT_EQ(big.frame.ByteSizeLong(), 65535u);
  EXPECT_TRUE(ZelRpcMessage::Serialize(big));
  EXPECT_FALSE(ZelRpcMessage::Serialize(frameOf(65536)));
  EXPECT_EQ(log.Count("ZelRpcMessage: Frame size is over maximum (65536/65535)"), 1u);
  // Payload: 64 MiB goes, one byte more does not.
  ZelRpcMessage m;
  m.SetPayload(MakeRefCounted<SharedBuffer>(kMaxPayloadSize));
  RpcFramePtr f = ZelRpcMessage::Serialize(m);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->header().payload_size, kMaxPayloadSize);
  f.reset();
  m.SetPayload(MakeRefCounted<SharedBuffer>(kMaxPayloadSize + 1));
  EXPECT_FALSE(ZelRpcMessage::Serialize(m));
  EXPECT_EQ(log.Count("ZelRpcMessage: Payload size is over maximum (67108865/67108864)"), 1u);

  // Read side: a payload over the maximum is left out and flagged.
  RpcFrameHeader h{};
  h.frame_size = 2;
  h.payload_size = kMaxPayloadSize + 1;
  RpcFramePtr read = RpcFrame::ForRead();
  std::memcpy(read->data(), &h, kHeaderSize);
  read->AllocateBody();
  EXPECT_TRUE(read->too_big());
  EXPECT_EQ(read->body().size, 2u);
  EXPECT_EQ(read->payload().size, 0u);
  EXPECT_EQ(log.Count("RpcFrame: Payload is too big in message with"), 1u);
}

TEST(RpcWireTest, StreamControlReplacedInPlace) {
  ZelRpcMessage m = Samples()["call"];
  m.stream_control.set_destination("far-away");
  m.stream_control.set_service("orvane.zel.Echo");
  RpcFramePtr f = ZelRpcMessage::Serialize(m);
  ::orvane::zel::rpc::StreamControlMsg shorter = m.stream_control;
  shorter.clear_destination();
  ASSERT_TRUE(f->ReplaceStreamControl(shorter.SerializeAsString()));
  ZelRpcMessage parsed;
  ASSERT_TRUE(ZelRpcMessage::Parse(f, &parsed));
  EXPECT_FALSE(parsed.stream_control.has_destination());
  EXPECT_EQ(parsed.frame.SerializeAsString(), m.frame.SerializeAsString());
  const RpcFrame::View payload = parsed.payload_view();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(payload.data), payload.size), "hello");
  // Longer text does not fit.
  shorter.set_destination("much-farther-away-than-before");
  EXPECT_FALSE(f->ReplaceStreamControl(shorter.SerializeAsString()));
}

TEST(RpcWireTest, StatusesAndPriorities) {
  // Names, the printed form, and the deliberate asymmetry on the wire.
  EXPECT_EQ(RpcStatus().ToString(), "<NOT_SET>");
  EXPECT_EQ(RpcStatus(CANCELED).ToString(), "CANCELED");
  EXPECT_EQ(RpcStatus(INTERNAL, "x").ToString(), "INTERNAL: x");
  EXPECT_EQ(RpcStatus(77).ToString(), "<INVALID>");
  RpcStatusMsg wire;
  EXPECT_TRUE(ToWire(RpcStatus(APPLICATION_ERROR, "why"), &wire));
  EXPECT_EQ(wire.error_msg(), "why");
  EXPECT_EQ(FromWire(wire), RpcStatus(APPLICATION_ERROR));  // the text stays behind
  for (int32_t code : {-1, 51, 52, 53, 54, 16}) {
    EXPECT_FALSE(ToWire(RpcStatus(code), &wire)) << code;
  }
  RpcStatusMsg absent;
  EXPECT_EQ(FromWire(absent).code(), UNKNOWN);

  struct Row {
    std::optional<uint32_t> field;
    uint32_t normalised;
    ChannelPriority channel;
  };
  const Row rows[] = {
      {std::nullopt, 64, ChannelPriority::NORMAL}, {0, 32, ChannelPriority::LOW},
      {32, 32, ChannelPriority::LOW},              {63, 32, ChannelPriority::LOW},
      {64, 64, ChannelPriority::NORMAL},           {65, 96, ChannelPriority::HIGH},
      {126, 96, ChannelPriority::HIGH},            {127, 127, ChannelPriority::HIGH},
      {200, 96, ChannelPriority::HIGH},
  };
  for (const Row& r : rows) {
    ::orvane::zel::rpc::StreamControlMsg control;
    if (r.field) control.set_priority(*r.field);
    const uint32_t p = NormalizeStreamPriority(control);
    EXPECT_EQ(p, r.normalised) << r.field.value_or(0);
    EXPECT_EQ(ChannelPriorityOf(p), r.channel) << r.field.value_or(0);
  }
  EXPECT_EQ(ToStreamPriority(static_cast<ChannelPriority>(9)), 64u);
  EXPECT_STREQ(StreamPriorityName(127), "sputnik");
  EXPECT_STREQ(StreamPriorityName(1), "<StreamPriority::INVALID>");
  EXPECT_STREQ(ToString(static_cast<ChannelPriority>(5)), "<ChannelPriority::INVALID>");
}

}  // namespace
}  // namespace rpc
}  // namespace zel
