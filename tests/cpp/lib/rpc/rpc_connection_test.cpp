// RPC connections and channels over real local sockets: negotiation, calls of
// both shapes end to end, the answers to unknown methods, calls and streams,
// a peer that misbehaves (settings twice, a control frame of nothing, no
// settings at all, silence under keepalive), a read or write that fails at
// each step, the read gate's boundaries, the weighted transmit queues,
// closing; and the channel scheduler's weights.
#include "cpp/lib/rpc/rpc_connection.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <future>

#include <boost/asio/error.hpp>
#include <gtest/gtest.h>

#include "rpc_test_rig.h"
#include "support/log_capture.h"

namespace zel {
namespace rpc {
namespace testing {
namespace {

using State = RpcConnection::State;

bool WaitState(const boost::shared_ptr<RpcConnection>& c, State s) {
  return zel::testing::WaitUntil([&] { return c->state() == s; });
}

// A raw peer: frames written by hand onto a plain connection, and frames read
// back from it, with no RPC machinery in between.
class RawPeer {
 public:
  explicit RawPeer(RpcRig& rig) {
    c_ = rig.net->NewConnection(net::Endpoint("unix://" + rig.path), {}).value();
    auto done = std::make_shared<std::promise<error_code>>();
    c_->Connect([done](const error_code& ec) { done->set_value(ec); });
    ok_ = done->get_future().get() == error_code();
  }
  bool ok() const { return ok_; }
  void Send(const ZelRpcMessage& m) { SendFrame(ZelRpcMessage::Serialize(m)); }
  void SendFrame(const RpcFramePtr& f) {
    auto done = std::make_shared<std::promise<void>>();
    c_->Write(net::IoBuffer(f->data(), f->size(), f), [done](const error_code&, size_t) { done->set_value(); });
    done->get_future().wait();
  }
  // The next frame the RPC side sends, parsed; none on failure.
  std::optional<ZelRpcMessage> Receive() {
    RpcFramePtr f = RpcFrame::ForRead();
    if (!ReadExactly(f->data(), kHeaderSize, f)) return std::nullopt;
    f->AllocateBody();
    if (f->body().size > 0 && !ReadExactly(f->body().data, f->body().size, f)) return std::nullopt;
    ZelRpcMessage m;
    if (!ZelRpcMessage::Parse(f, &m)) return std::nullopt;
    return m;
  }

 private:
  bool ReadExactly(uint8_t* data, size_t n, const RpcFramePtr& keep) {
    auto done = std::make_shared<std::promise<error_code>>();
    c_->Read(net::IoBuffer(data, n, keep), n, net::kReadFill,
             [done](const error_code& ec, size_t) { done->set_value(ec); });
    auto f = done->get_future();
    return f.wait_for(kDeadline) == std::future_status::ready && !f.get();
  }

  net::ConnectionPtr c_;
  bool ok_ = false;
};

ZelRpcMessage Settings() {
  ZelRpcMessage m;
  m.frame.mutable_settings()->set_version(1);
  m.frame.mutable_settings()->add_endpoint_id("raw-peer");
  return m;
}

class RpcConnectionTest : public ::testing::Test {
 protected:
  RpcLogCapture log_;
  RpcRig rig_;
};

TEST_F(RpcConnectionTest, NegotiatesAndCarriesCalls) {
  auto accepted = rig_.Listen();
  auto client = rig_.Connect();
  ASSERT_TRUE(client);
  auto server = accepted->Next();
  ASSERT_TRUE(server && WaitState(server, State::CONNECTED));
  EXPECT_EQ(client->state(), State::CONNECTED);
  // Each side learned the other's endpoint ids and services.
  EXPECT_EQ(client->remote_services(), std::vector<std::string>{"orvane.zel.Test"});
  EXPECT_EQ(server->remote_endpoint_ids(), rig_.transport->LocalEndpointIds());

  error_code opened;
  auto channel = rig_.OpenChannel(client, "orvane.zel.Test", ChannelPriority::HIGH, &opened);
  ASSERT_FALSE(opened) << opened.message();
  auto unary = rig_.Call(channel, kEcho, "hello");
  EXPECT_EQ(unary->WaitStatus(), RpcStatus::Success());
  EXPECT_EQ(unary->messages(), std::vector<std::string>{"hello"});
  auto failing = rig_.Call(channel, kEcho, "fail");
  EXPECT_EQ(failing->WaitStatus().code(), APPLICATION_ERROR);
  auto chat = rig_.Call(channel, kChat, "one");
  EXPECT_EQ(chat->WaitStatus(), RpcStatus::Success());
  EXPECT_EQ(chat->messages(), std::vector<std::string>{"one"});
  EXPECT_EQ(unary->statuses(), 1);
  // Frames of one stream arrive in the order sent, whichever dispatcher
  // thread reads them.
  {
    auto collector = std::make_shared<Collector>();
    RpcCallPtr call = channel->CreateCall(kChat);
    call->Start(ClientContext(), collector);
    std::vector<std::string> sent;
    for (int i = 0; i < 1000; ++i) {
      sent.push_back(std::to_string(i));
      call->SendPayload(MakeRefCounted<SharedBuffer>(sent.back().data(), sent.back().size()));
    }
    call->Done(RpcStatus::Success());
    EXPECT_EQ(collector->WaitStatus(), RpcStatus::Success());
    EXPECT_EQ(collector->messages(), sent);
  }

  // Unknown method: answered UNIMPLEMENTED, the channel stays open.
  auto unknown = rig_.Call(channel, RpcMethod{"orvane.zel.Test.Nope", "orvane.zel.Test", RMT_SIMPLE}, "x");
  EXPECT_EQ(unknown->WaitStatus().code(), UNIMPLEMENTED);
  EXPECT_TRUE(log_.WaitFor("Can't find RPC method orvane.zel.Test.Nope"));
  EXPECT_EQ(rig_.Call(channel, kEcho, "again")->WaitStatus(), RpcStatus::Success());

  // A frame for a call that is not open is answered INTERNAL; an answer to
  // such a frame (a failure status) is dropped without a reply.
  ZelRpcMessage stray;
  stray.SetCallId(99);
  stray.SetPayload(MakeRefCounted<SharedBuffer>("?", 1));
  EXPECT_TRUE(channel->Send(stray).ok());
  EXPECT_TRUE(log_.WaitFor("Received message for non existing call 0x0063"));
  EXPECT_TRUE(log_.WaitFor("Ignoring received message for non existing call 0x0063 with status INTERNAL"));

  // A second frame that opens an existing call id is refused; the call goes
  // on. "quiet" gets no answer, which this channel would refuse and so end
  // the call before the second frame arrives.
  ZelRpcMessage first;
  first.SetCallId(500);
  first.SetMethod(kChat.name);
  first.SetPayload(MakeRefCounted<SharedBuffer>("quiet", 5));
  EXPECT_TRUE(channel->Send(first).ok());
  EXPECT_TRUE(channel->Send(first).ok());
  EXPECT_TRUE(log_.WaitFor("Can't start new call (0x01f4 for orvane.zel.Test.Chat) - already exists"));

  // Closing twice: one close, one handler call.
  int closes = 0;
  EXPECT_TRUE(client->SetOnClose([&](CloseReason) { ++closes; }));
  EXPECT_FALSE(client->SetOnClose([](CloseReason) {}));
  client->Close(CloseReason::CLOSED_BY_USER);
  client->Close(CloseReason::CLOSED_BY_USER);
  EXPECT_EQ(closes, 1);
  // The peer sees the end of the stream as a network error.
  EXPECT_TRUE(WaitState(server, State::CLOSED));
  EXPECT_TRUE(log_.WaitFor("Closing (network error)"));
  EXPECT_EQ(rig_.Call(channel, kEcho, "late")->WaitStatus().code(), COMMUNICATION_ERROR);
}

// The last channel out arms the connection's deferred close; a channel
// closed before it ever opened was never counted and changes nothing.
TEST_F(RpcConnectionTest, LastChannelOutArmsTheDeferredClose) {
  auto accepted = rig_.Listen();
  auto client = rig_.Connect();
  ASSERT_TRUE(client);
  auto unopened = rig_.channels->CreateClientChannel("unix://" + rig_.path, "orvane.zel.Test", client,
                                                     ChannelPriority::NORMAL);
  unopened->Close(CloseReason::CLOSED_BY_USER);
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return unopened->closed(); }));
  auto first = rig_.OpenChannel(client, "orvane.zel.Test");
  auto second = rig_.OpenChannel(client, "orvane.zel.Test");
  first->Close(CloseReason::CLOSED_BY_USER);
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return first->closed(); }));
  EXPECT_FALSE(client->deferred_close_armed());
  second->Close(CloseReason::CLOSED_BY_USER);
  EXPECT_TRUE(zel::testing::WaitUntil([&] { return client->deferred_close_armed(); }));
  EXPECT_EQ(client->state(), State::CONNECTED);
}

TEST_F(RpcConnectionTest, AStreamThePeerNeverAcknowledgesTimesOut) {
  // The peer takes the stream for relaying and never answers it.
  rig_.transport->forwarding = true;
  rig_.transport->swallow = true;
  auto timers = std::make_shared<ManualTimers>();
  ChannelFactory channels(rig_.scheduler, rig_.registry, timers, nullptr);
  auto accepted = rig_.Listen();
  auto client = rig_.Connect();
  ASSERT_TRUE(client);
  auto channel = channels.CreateClientChannel("unix://" + rig_.path, "orvane.zel.Elsewhere", client,
                                              ChannelPriority::NORMAL);
  std::promise<error_code> opened;
  channel->OpenOnClient([&](const error_code& ec, const ChannelPtr&) { opened.set_value(ec); });
  // The peer has taken the stream, and the time limit is running.
  ASSERT_TRUE(zel::testing::WaitUntil([&] {
    std::lock_guard<std::mutex> lock(rig_.transport->mutex);
    return rig_.transport->forwardTargets.size() == 1;
  }));
  ASSERT_TRUE(zel::testing::WaitUntil([&] {
    return timers->Armed(ChannelImpl::kActivationTimeout) == 1;
  }));
  timers->Fire(ChannelImpl::kActivationTimeout);
  auto f = opened.get_future();
  ASSERT_EQ(f.wait_for(kDeadline), std::future_status::ready);
  EXPECT_TRUE(f.get());
  EXPECT_EQ(log_.Count("Activation timeout expired"), 1);
}

TEST_F(RpcConnectionTest, StreamsThePeerDidNotOpen) {
  auto accepted = rig_.Listen();
  RawPeer peer(rig_);
  ASSERT_TRUE(peer.ok());
  auto server = accepted->Next();
  ASSERT_TRUE(server);
  peer.Send(Settings());
  ASSERT_TRUE(WaitState(server, State::CONNECTED));
  ASSERT_TRUE(peer.Receive().has_value());  // the server's settings
  const StreamId stream = NewStreamId();

  struct Row {
    const char* name;
    std::function<void(ZelRpcMessage&)> fill;
    std::string closeReason;  // of the reply, or "-" for no reply
  };
  const Row rows[] = {
      {"ack of an unknown stream", [](ZelRpcMessage& m) { m.stream_control.set_ack_stream(true); }, ""},
      {"no open_stream", [](ZelRpcMessage& m) { m.stream_control.set_service("orvane.zel.Test"); }, ""},
      {"unknown service",
       [](ZelRpcMessage& m) {
         m.stream_control.set_open_stream(true);
         m.stream_control.set_service("orvane.zel.Other");
       },
       "No Service orvane.zel.Other"},
      {"empty destination",
       [](ZelRpcMessage& m) {
         m.stream_control.set_open_stream(true);
         m.stream_control.set_service("orvane.zel.Test");
         m.stream_control.set_destination("");
       },
       ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    ZelRpcMessage m;
    m.SetStreamId(stream);
    r.fill(m);
    peer.Send(m);
    std::optional<ZelRpcMessage> reply = peer.Receive();
    ASSERT_TRUE(reply.has_value());
    EXPECT_TRUE(reply->stream_control.close_stream());
    EXPECT_EQ(reply->stream_control.deprecated_close_reason(), r.closeReason);
    EXPECT_EQ(reply->stream_id, stream);
  }
  // With forwarding on, a foreign destination is forwarded (and here refused).
  rig_.transport->forwarding = true;
  ZelRpcMessage far;
  far.SetStreamId(stream);
  far.stream_control.set_open_stream(true);
  far.stream_control.set_service("orvane.zel.Other");
  far.stream_control.set_destination("elsewhere");
  peer.Send(far);
  std::optional<ZelRpcMessage> reply = peer.Receive();
  ASSERT_TRUE(reply.has_value());
  EXPECT_EQ(reply->stream_control.deprecated_close_reason(), "Failed to setup forwarding for orvane.zel.Other");
  EXPECT_EQ(rig_.transport->forwardTargets, std::vector<std::string>{"zel://elsewhere"});
  EXPECT_EQ(server->state(), State::CONNECTED);
}

TEST_F(RpcConnectionTest, MisbehavingPeers) {
  ConnectionOptions options;
  options.negotiation_timeout = 1;
  auto accepted = rig_.Listen(options);
  {
    // Settings twice: logged and ignored.
    RawPeer peer(rig_);
    auto server = accepted->Next();
    peer.Send(Settings());
    peer.Send(Settings());
    EXPECT_TRUE(log_.WaitFor("Remote endpoint ids already set"));
    EXPECT_EQ(server->state(), State::CONNECTED);
    // A frame of stream 0 with neither settings nor keepalive: protocol error.
    peer.Send(ZelRpcMessage());
    EXPECT_TRUE(WaitState(server, State::CLOSED));
    EXPECT_TRUE(log_.WaitFor("Closing (protocol error)"));
  }
  {
    // No settings in time: settings timeout, though our own went out.
    RawPeer peer(rig_);
    auto server = accepted->Next();
    EXPECT_TRUE(WaitState(server, State::CLOSED));
    EXPECT_TRUE(log_.WaitFor("Closing (settings timeout)"));
  }
  {
    // A keepalive request without an id: keepalive error.
    RawPeer peer(rig_);
    auto server = accepted->Next();
    peer.Send(Settings());
    ZelRpcMessage request;
    request.frame.mutable_keep_alive_request()->set_timestamp(5);
    peer.Send(request);
    EXPECT_TRUE(WaitState(server, State::CLOSED));
    EXPECT_TRUE(log_.WaitFor("Keepalive - discarding keep alive request with no id"));
    EXPECT_TRUE(log_.WaitFor("Closing (keepalive error)"));
  }
  {
    // A frame section that does not parse: protocol error.
    RawPeer peer(rig_);
    auto server = accepted->Next();
    peer.Send(Settings());
    ZelRpcMessage m = Settings();
    RpcFramePtr f = ZelRpcMessage::Serialize(m);
    f->frame().data[0] = 0xff;
    peer.SendFrame(f);
    EXPECT_TRUE(WaitState(server, State::CLOSED));
    EXPECT_NE(log_.Find("Failed to decode ZelRpcMessage").find("errorCode=\"RPC5\""), std::string::npos);
  }
}

TEST_F(RpcConnectionTest, KeepaliveClosesASilentPeerOnly) {
  ConnectionOptions options;
  options.keepalive_timeout = 1;
  auto accepted = rig_.Listen(options);
  // Two connections that both keep alive stay up over several intervals.
  auto client = rig_.Connect(options);
  ASSERT_TRUE(client);
  auto server = accepted->Next();
  // A raw peer that sends its settings and then nothing at all.
  RawPeer silent(rig_);
  auto quiet = accepted->Next();
  silent.Send(Settings());
  ASSERT_TRUE(WaitState(quiet, State::CONNECTED));
  ASSERT_TRUE(silent.Receive().has_value());  // settings
  std::optional<ZelRpcMessage> request = silent.Receive();
  ASSERT_TRUE(request.has_value());
  EXPECT_EQ(request->frame.keep_alive_request().request_id(), 1u);
  EXPECT_TRUE(WaitState(quiet, State::CLOSED));
  EXPECT_TRUE(log_.WaitFor("Closing (keepalive expired)"));
  EXPECT_NE(log_.Find("Keepalive failed - haven't received response in time").find("errorCode=\"RPC31\""),
            std::string::npos);
  EXPECT_EQ(client->state(), State::CONNECTED);
  EXPECT_EQ(server->state(), State::CONNECTED);
  EXPECT_NE(client->keepalive_state(), RpcConnection::KeepaliveState::INACTIVE);
}

// A net connection that fails its Nth read or write as a peer's reset would:
// the operation's handler gets "connection reset" from the dispatcher and
// the real connection is closed.
class FaultyConnection : public net::Connection {
 public:
  FaultyConnection(net::ConnectionPtr inner, boost::shared_ptr<Dispatcher> dispatcher,
                   bool failRead, int n)
      : inner_(std::move(inner)), dispatcher_(std::move(dispatcher)), failRead_(failRead), n_(n) {}

  net::StreamSocketPtr socket() const override { return inner_->socket(); }
  net::Endpoint local_endpoint() const override { return inner_->local_endpoint(); }
  net::Endpoint remote_endpoint() const override { return inner_->remote_endpoint(); }
  net::X509CertificatePtr peer_certificate() const override { return inner_->peer_certificate(); }
  net::ConnectionInfo info() const override { return inner_->info(); }
  void Connect(net::StatusHandler handler) override { inner_->Connect(std::move(handler)); }
  void Accept() override { inner_->Accept(); }
  void Close(net::CloseReason reason) override { inner_->Close(reason); }
  void Write(net::IoBuffer buffer, net::IoHandler handler) override {
    if (!failRead_ && ++ops_ == n_) return Fail(std::move(handler));
    inner_->Write(std::move(buffer), std::move(handler));
  }
  void Read(net::IoBuffer buffer, std::size_t size, int mode, net::IoHandler handler) override {
    if (failRead_ && ++ops_ == n_) return Fail(std::move(handler));
    inner_->Read(std::move(buffer), size, mode, std::move(handler));
  }
  uint32_t id() const override { return inner_->id(); }
  void set_priority(net::ConnectionPriority priority) override { inner_->set_priority(priority); }

 private:
  void Fail(net::IoHandler handler) {
    inner_->Close(net::CloseReason::BY_USER);
    dispatcher_->Post([handler = std::move(handler)] {
      handler(boost::asio::error::connection_reset, 0);
    });
  }

  const net::ConnectionPtr inner_;
  const boost::shared_ptr<Dispatcher> dispatcher_;
  const bool failRead_;
  const int n_;
  std::atomic<int> ops_{0};
};

// Client reads: settings header and body, then the channel ack's header and
// body, then the answer's. Client writes: settings, channel open, the call.
// Whichever fails, the connection closes once and what was under way fails
// rather than hangs. The connect handler runs only for a connection that got
// as far as "Connected"; one closed while negotiating reports through its
// close handler.
TEST_F(RpcConnectionTest, AFailedReadOrWriteClosesOnce) {
  struct Row {
    bool read;
    int n;
    bool connects;  // the fault comes after negotiation
  };
  const Row rows[] = {{true, 1, false}, {true, 2, false}, {true, 3, true},  {true, 5, true},
                      {false, 1, false}, {false, 2, true}, {false, 3, true}};
  auto accepted = rig_.Listen();
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.read ? "read " : "write ") + std::to_string(r.n));
    net::ConnectionPtr inner = rig_.net->NewConnection(net::Endpoint("unix://" + rig_.path), {}).value();
    auto client = rig_.Make(std::make_shared<FaultyConnection>(inner, rig_.dispatcher, r.read, r.n), 0, {});
    // Counted where a late handler of an earlier row can't reach.
    auto closes = std::make_shared<std::atomic<int>>(0);
    auto connects = std::make_shared<std::atomic<int>>(0);
    ASSERT_TRUE(client->SetOnClose([closes](CloseReason) { ++*closes; }));
    client->AsyncConnect([connects](const error_code& ec) {
      EXPECT_FALSE(ec);
      ++*connects;
    });
    auto server = accepted->Next();
    ASSERT_TRUE(server);
    if (r.connects) {
      ASSERT_TRUE(zel::testing::WaitUntil([&] { return connects->load() == 1; }));
      error_code opened;
      auto channel = rig_.OpenChannel(client, "orvane.zel.Test", ChannelPriority::NORMAL, &opened);
      if (!opened) {
        EXPECT_EQ(rig_.Call(channel, kEcho, "x")->WaitStatus().code(), COMMUNICATION_ERROR);
      }
    }
    // The handler runs after the state has changed: wait for it.
    EXPECT_TRUE(zel::testing::WaitUntil([&] { return closes->load() == 1; }));
    EXPECT_EQ(client->state(), State::CLOSED);
    EXPECT_TRUE(WaitState(server, State::CLOSED));
    EXPECT_EQ(connects->load(), r.connects ? 1 : 0);
    client->Close(CloseReason::CLOSED_BY_USER);
    EXPECT_EQ(closes->load(), 1);
  }
}

TEST_F(RpcConnectionTest, ReadingStopsAt2000AndResumesAt1000) {
  auto accepted = rig_.Listen();
  auto client = rig_.Connect();
  auto server = accepted->Next();
  ASSERT_TRUE(client && server && WaitState(server, State::CONNECTED));
  auto channel = rig_.OpenChannel(client, "orvane.zel.Test");
  // Frames waiting in channel queues are counted by hand here. A read is
  // always outstanding, so the frame that crosses the mark is still read and
  // the gate closes the read after it. The frame that opened the stream may
  // still wait in the channel's queue.
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return server->rx_queued() == 0; }));
  for (int i = 0; i < 1998; ++i) server->OnFrameQueued();
  EXPECT_EQ(rig_.Call(channel, kEcho, "a")->WaitStatus(), RpcStatus::Success());  // peaks at 1999
  EXPECT_FALSE(server->reading_suspended());
  server->OnFrameQueued();
  server->OnFrameQueued();  // 2000
  EXPECT_EQ(rig_.Call(channel, kEcho, "b")->WaitStatus(), RpcStatus::Success());
  EXPECT_TRUE(log_.WaitFor("read suspended"));
  EXPECT_TRUE(server->reading_suspended());
  auto stalled = rig_.Call(channel, kEcho, "c");
  for (int i = 0; i < 999; ++i) server->OnFrameTaken();  // 1001 left
  EXPECT_TRUE(server->reading_suspended());
  server->OnFrameTaken();  // 1000: reading goes on
  EXPECT_TRUE(log_.WaitFor("read resumed"));
  EXPECT_EQ(stalled->WaitStatus(), RpcStatus::Success());
}

TEST(WeightedQueueSetTest, EighteenFramesACycleInterleaved) {
  WeightedQueueSet queues;
  const uint32_t priorities[] = {32, 64, 96, 127};
  for (uint32_t p : priorities) {
    for (int i = 0; i < 20; ++i) {
      RpcFrameHeader h{};
      h.payload_size = p;  // the priority, to read back
      ASSERT_TRUE(queues.Push(p, RpcFrame::ForWrite(h)));
    }
  }
  EXPECT_FALSE(queues.Push(100, RpcFrame::ForWrite(RpcFrameHeader{})));
  std::vector<uint32_t> order;
  RpcFramePtr f;
  for (int i = 0; i < 18; ++i) {
    ASSERT_TRUE(queues.Pop(&f));
    order.push_back(f->header().payload_size);
  }
  EXPECT_EQ(order, (std::vector<uint32_t>{127, 96, 64, 32, 127, 96, 64, 127, 96, 127, 96, 127, 96,
                                          127, 127, 127, 127, 127}));
  // The next cycle starts again with 127.
  ASSERT_TRUE(queues.Pop(&f));
  EXPECT_EQ(f->header().payload_size, 127u);
  // Once drained, nothing more.
  while (queues.Pop(&f)) {
  }
  EXPECT_EQ(queues.size(), 0u);
}

// A scheduler whose runs the test starts by hand.
class ManualScheduler : public ChannelScheduler {
 public:
  int runsPosted = 0;

 protected:
  void ScheduleRun() override { ++runsPosted; }
};

TEST(ChannelSchedulerTest, WeightsAndBatches) {
  auto scheduler = std::make_shared<ManualScheduler>();
  auto dispatcher = boost::make_shared<AsioDispatcher>();
  auto timers = std::make_shared<AsioTimerFactory>(dispatcher->GetIoContextHandle());
  ChannelFactory factory(scheduler, nullptr, timers, nullptr);
  std::vector<char> ran;
  auto channelOf = [&](ChannelPriority p, char tag) {
    auto c = factory.CreateClientChannel("tcp://x:1", "s", nullptr, p);
    for (int i = 0; i < 100; ++i) c->AppendOp([&ran, tag] { ran.push_back(tag); });
    return c;
  };
  auto high = channelOf(ChannelPriority::HIGH, 'H');
  auto normal = channelOf(ChannelPriority::NORMAL, 'N');
  auto low = channelOf(ChannelPriority::LOW, 'L');
  EXPECT_EQ(scheduler->runsPosted, 1);
  scheduler->Run();  // five turns
  EXPECT_EQ(std::string(ran.begin(), ran.end()),
            std::string(10, 'H') + std::string(5, 'N') + "L" + std::string(10, 'H') + std::string(5, 'N'));
  EXPECT_EQ(scheduler->runsPosted, 2);  // work is left: the next run is posted
  ran.clear();
  scheduler->Run();
  // The cycle goes on: low has had its turn, high has 3 of its 5 left.
  EXPECT_EQ(std::string(ran.begin(), ran.end()).substr(0, 30), std::string(30, 'H'));
  // A channel that is gone while queued is skipped.
  low.reset();
  ran.clear();
  for (int i = 0; i < 20; ++i) scheduler->Run();
  EXPECT_EQ(std::count(ran.begin(), ran.end(), 'L'), 0);
  EXPECT_GT(std::count(ran.begin(), ran.end(), 'N'), 0);
  EXPECT_EQ(BatchSize(static_cast<ChannelPriority>(7)), 0u);
}

}  // namespace
}  // namespace testing
}  // namespace rpc
}  // namespace zel
