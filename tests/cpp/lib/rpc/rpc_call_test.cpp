// The call state machine, table-driven: a call is brought into a state by a
// few events, then one more event runs; each row names the state that
// follows, the tag logged, and what the peer was told. The host is a fake
// channel that queues the call's ops and keeps what the call sends.
#include "cpp/lib/rpc/rpc_call.h"

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/rpc/zel_rpc_message.h"
#include "support/log_capture.h"

namespace zel {
namespace rpc {
namespace {

class FakeHost : public CallHost {
 public:
  RpcStatus SendForCall(ZelRpcMessage& message) override {
    if (failNext > 0) {
      --failNext;
      return failWith;
    }
    sent.push_back(message);
    return RpcStatus::Success();
  }
  void ReleaseCall(uint64_t id) override { released.push_back(id); }
  void PostForCall(std::function<void()> op) override { ops.push_back(std::move(op)); }
  void Run() {
    while (!ops.empty()) {
      auto op = std::move(ops.front());
      ops.pop_front();
      op();
    }
  }

  std::deque<std::function<void()>> ops;
  std::vector<ZelRpcMessage> sent;
  std::vector<uint64_t> released;
  // The next `failNext` sends fail with `failWith`.
  int failNext = 0;
  RpcStatus failWith;
};

class Recorder : public MessageConsumer {
 public:
  RpcStatus Prepare(ServerContext* c) override {
    events.push_back("Prepare");
    headers = c->headers;
    return prepare;
  }
  RpcStatus Next(const RpcFrame::View& p) override {
    events.push_back("Next:" + std::string(reinterpret_cast<const char*>(p.data), p.size));
    return next;
  }
  RpcStatus RemoteStatus(const RpcStatus& s) override {
    events.push_back("RemoteStatus:" + s.ToString());
    return RpcStatus::Success();
  }
  RpcStatus CallStatus(const RpcStatus& s) override {
    events.push_back("CallStatus:" + s.ToString());
    return RpcStatus::Success();
  }
  std::vector<std::string> events;
  std::unordered_map<std::string, std::string> headers;
  RpcStatus prepare = RpcStatus::Success();
  RpcStatus next = RpcStatus::Success();
};

enum Event {
  START, ACCEPT, ACCEPT_BAD_HEADER, SEND, COMPLETE_OK, COMPLETE_ERR, DONE_OK, DONE_ERR, CANCEL,
  RECV_PAYLOAD, RECV_STATUS_OK, RECV_STATUS_ERR, RECV_PAYLOAD_AND_ERR, RECV_CANCEL, RECV_EMPTY,
  CHANNEL_DOWN
};

ZelRpcMessage Incoming(uint64_t id, const char* payload, std::optional<RpcStatus> status) {
  ZelRpcMessage m;
  m.SetCallId(id);
  if (payload) m.SetPayload(MakeRefCounted<SharedBuffer>(payload, std::strlen(payload)));
  if (status) {
    EXPECT_TRUE(ToWire(*status, m.frame.mutable_rpc_msg()->mutable_status()));
  }
  return m;
}

struct CallRig {
  CallRig(CallSide side, int type) {
    host = boost::make_shared<FakeHost>();
    call = MakeCall(side, type, 7, RpcMethod{"orvane.zel.T.M", "orvane.zel.T", RMT_SIMPLE}, host,
                    nullptr);
    consumer = std::make_shared<Recorder>();
  }

  void Apply(Event e) {
    auto payload = [] { return MakeRefCounted<SharedBuffer>("out", 3); };
    switch (e) {
      case START: call->Start(ClientContext(), consumer); break;
      case ACCEPT:
      case ACCEPT_BAD_HEADER: {
        ZelRpcMessage m = Incoming(7, nullptr, std::nullopt);
        auto* h = m.frame.mutable_header()->add_header();
        h->set_key("k");
        if (e == ACCEPT) h->set_value("v");
        call->Accept(m, ServerContext(), consumer);
        break;
      }
      case SEND: call->SendPayload(payload()); break;
      case COMPLETE_OK: call->CompletePayload(payload(), RpcStatus::Success()); break;
      case COMPLETE_ERR: call->CompletePayload(payload(), RpcStatus(APPLICATION_ERROR)); break;
      case DONE_OK: call->Done(RpcStatus::Success()); break;
      case DONE_ERR: call->Done(RpcStatus(NOT_FOUND)); break;
      case CANCEL: call->Cancel(); break;
      case RECV_PAYLOAD: call->Receive(Incoming(7, "in", std::nullopt)); break;
      case RECV_STATUS_OK: call->Receive(Incoming(7, nullptr, RpcStatus::Success())); break;
      case RECV_STATUS_ERR: call->Receive(Incoming(7, nullptr, RpcStatus(ABORTED))); break;
      case RECV_PAYLOAD_AND_ERR: call->Receive(Incoming(7, "in", RpcStatus(ABORTED))); break;
      case RECV_CANCEL: {
        ZelRpcMessage m = Incoming(7, nullptr, std::nullopt);
        m.SetCancelCall();
        call->Receive(m);
        break;
      }
      case RECV_EMPTY: call->Receive(Incoming(7, nullptr, std::nullopt)); break;
      case CHANNEL_DOWN: call->HandleChannelDown(); break;
    }
    host->Run();
  }

  // The last status the call sent, or -2 when it sent none.
  int LastSentStatus() const {
    for (auto it = host->sent.rbegin(); it != host->sent.rend(); ++it) {
      if (it->frame.rpc_msg().has_status()) return it->frame.rpc_msg().status().code();
    }
    return -2;
  }

  boost::shared_ptr<FakeHost> host;
  RpcCallPtr call;
  std::shared_ptr<Recorder> consumer;
};

struct Row {
  const char* name;
  CallSide side;
  int type;
  std::vector<Event> setup;
  Event event;
  const char* state;
  const char* tag;      // in the event's lines, or "" for none
  int told = -3;        // the last status sent to the peer; -3: not checked
};

constexpr CallSide C = CallSide::CLIENT;
constexpr CallSide S = CallSide::SERVER;

TEST(RpcCallTest, StateTable) {
  const std::vector<Row> rows = {
      // NOT_STARTED
      {"start", C, 8, {}, START, "ACTIVE", ""},
      {"accept", S, 1, {}, ACCEPT, "ACTIVE", ""},
      {"accept, bad header", S, 1, {}, ACCEPT_BAD_HEADER, "ERROR", "RPC150", INTERNAL},
      {"send before start", C, 8, {}, SEND, "ERROR", "RPC100"},
      {"cancel before start", C, 8, {}, CANCEL, "ERROR", "RPC100"},
      {"receive before start", C, 8, {}, RECV_PAYLOAD, "ERROR", "RPC100"},
      {"channel down before start", C, 8, {}, CHANNEL_DOWN, "ERROR", "RPC102", -2},
      // ACTIVE
      {"start twice", C, 8, {START}, START, "ERROR", "RPC100"},
      {"send streaming", C, 8, {START}, SEND, "ACTIVE", ""},
      {"send unary client", C, 1, {START}, SEND, "LOCAL_DONE", ""},
      {"done", C, 8, {START}, DONE_OK, "LOCAL_DONE", "", SUCCESS},
      {"complete with error", C, 8, {START}, COMPLETE_ERR, "ERROR", "RPC103", APPLICATION_ERROR},
      {"cancel", C, 8, {START}, CANCEL, "CANCELLED", ""},
      {"payload", C, 8, {START}, RECV_PAYLOAD, "ACTIVE", ""},
      {"remote ok", C, 8, {START}, RECV_STATUS_OK, "REMOTE_DONE", ""},
      {"remote error", C, 8, {START}, RECV_STATUS_ERR, "ERROR", "RPC103", -2},
      {"remote cancel", C, 8, {START}, RECV_CANCEL, "CANCELLED", ""},
      {"no payload, no status", C, 8, {START}, RECV_EMPTY, "ERROR", "RPC100", INTERNAL},
      {"channel down", C, 8, {START}, CHANNEL_DOWN, "ERROR", "RPC102", -2},
      // LOCAL_DONE
      {"send after done", C, 8, {START, DONE_OK}, SEND, "ERROR", "RPC100"},
      {"done twice", C, 8, {START, DONE_OK}, DONE_OK, "ERROR", "RPC100"},
      {"second send, unary client", C, 1, {START, SEND}, SEND, "ERROR", "RPC100", INTERNAL},
      {"remote ok after done", C, 8, {START, DONE_OK}, RECV_STATUS_OK, "DONE", ""},
      {"cancel after local done", C, 8, {START, DONE_OK}, CANCEL, "CANCELLED", ""},
      // REMOTE_DONE
      {"cancel after remote done", C, 8, {START, RECV_STATUS_OK}, CANCEL, "REMOTE_DONE", ""},
      {"done after remote", C, 8, {START, RECV_STATUS_OK}, DONE_OK, "DONE", ""},
      {"payload after remote done", C, 8, {START, RECV_STATUS_OK}, RECV_PAYLOAD, "ERROR", "RPC100"},
      // DONE
      {"cancel done", C, 8, {START, DONE_OK, RECV_STATUS_OK}, CANCEL, "DONE", "RPC104"},
      {"send done", C, 8, {START, DONE_OK, RECV_STATUS_OK}, SEND, "DONE", "RPC104"},
      {"complete done", C, 8, {START, DONE_OK, RECV_STATUS_OK}, COMPLETE_OK, "DONE", "RPC104"},
      {"done done", C, 8, {START, DONE_OK, RECV_STATUS_OK}, DONE_OK, "DONE", "RPC104"},
      // CANCELLED
      {"cancel cancelled", C, 8, {START, CANCEL}, CANCEL, "CANCELLED", "RPC104"},
      {"send cancelled", C, 8, {START, CANCEL}, SEND, "CANCELLED", "RPC104"},
      {"done cancelled", C, 8, {START, CANCEL}, DONE_ERR, "CANCELLED", "RPC104"},
      // ERROR
      {"send in error", C, 8, {START, CHANNEL_DOWN}, SEND, "ERROR", "RPC104"},
      {"cancel in error", C, 8, {START, CHANNEL_DOWN}, CANCEL, "ERROR", "RPC104"},
      {"payload in error", C, 8, {START, CHANNEL_DOWN}, RECV_PAYLOAD, "ERROR", ""},
      {"status in error", C, 8, {START, CHANNEL_DOWN}, RECV_STATUS_OK, "ERROR", ""},
      {"start in error", C, 8, {CHANNEL_DOWN}, START, "ERROR", "RPC103"},
      // Server, single-message client
      {"server payload", S, 1, {ACCEPT}, RECV_PAYLOAD, "REMOTE_DONE", ""},
      {"server answers", S, 1, {ACCEPT, RECV_PAYLOAD}, COMPLETE_OK, "DONE", "", SUCCESS},
      {"server send without status", S, 1, {ACCEPT, RECV_PAYLOAD}, SEND, "ERROR", "RPC100", INTERNAL},
      {"server done ok, no message", S, 1, {ACCEPT, RECV_PAYLOAD}, DONE_OK, "ERROR", "RPC100", INTERNAL},
      {"server done with error", S, 1, {ACCEPT, RECV_PAYLOAD}, DONE_ERR, "ERROR", "RPC103", NOT_FOUND},
      {"server second payload", S, 1, {ACCEPT, RECV_PAYLOAD}, RECV_PAYLOAD, "ERROR", "RPC100", INTERNAL},
      {"server streams", S, 2, {ACCEPT, RECV_PAYLOAD}, SEND, "REMOTE_DONE", ""},
      {"server to streaming client", S, 4, {ACCEPT}, RECV_PAYLOAD, "ACTIVE", ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    CallRig rig(r.side, r.type);
    for (Event e : r.setup) rig.Apply(e);
    zel::testing::LogCapture log;
    rig.Apply(r.event);
    EXPECT_STREQ(rig.call->StateName(), r.state);
    if (*r.tag) {
      EXPECT_NE(log.Find(std::string("errorCode=\"") + r.tag + "\""), "") << r.tag;
    } else {
      EXPECT_EQ(log.Count("errorCode="), 0u) << log.Find("errorCode=");
    }
    if (r.told != -3) {
      EXPECT_EQ(rig.LastSentStatus(), r.told);
    }
  }
}

TEST(RpcCallTest, UnaryRoundTripAndWhatTheConsumersSee) {
  CallRig client(C, 1);
  CallRig server(S, 1);
  client.Apply(START);
  client.Apply(SEND);
  // The first frame names the method; a server built from it answers.
  ASSERT_EQ(client.host->sent.size(), 1u);
  EXPECT_EQ(client.host->sent[0].frame.rpc_msg().method(), "orvane.zel.T.M");
  server.call->Accept(client.host->sent[0], ServerContext(), server.consumer);
  server.call->Receive(client.host->sent[0]);
  server.Apply(COMPLETE_OK);
  ASSERT_EQ(server.host->sent.size(), 1u);
  client.call->Receive(server.host->sent[0]);
  EXPECT_STREQ(client.call->StateName(), "DONE");
  EXPECT_STREQ(server.call->StateName(), "DONE");
  EXPECT_EQ(client.call->GetStatus(), RpcStatus::Success());
  EXPECT_EQ(client.consumer->events,
            (std::vector<std::string>{"Prepare", "Next:out", "RemoteStatus:SUCCESS",
                                      "CallStatus:SUCCESS"}));
  EXPECT_EQ(server.consumer->events,
            (std::vector<std::string>{"Prepare", "Next:out", "CallStatus:SUCCESS"}));
  EXPECT_EQ(client.host->released, std::vector<uint64_t>{7});
  EXPECT_EQ(server.host->released, std::vector<uint64_t>{7});
}

// Whoever starts a call hears how it ended exactly once: a second Start
// fails the call without taking the first observer's place, and a call whose
// channel went down before it started tells the observer it is started with.
TEST(RpcCallTest, TheObserverOfTheFirstStartHearsTheEnd) {
  CallRig twice(C, 8);
  twice.Apply(START);
  auto second = std::make_shared<Recorder>();
  twice.call->Start(ClientContext(), second);
  twice.host->Run();
  EXPECT_STREQ(twice.call->StateName(), "ERROR");
  EXPECT_EQ(twice.consumer->events, (std::vector<std::string>{"Prepare", "CallStatus:INTERNAL"}));
  EXPECT_TRUE(second->events.empty());

  CallRig late(C, 8);
  late.Apply(CHANNEL_DOWN);
  late.Apply(START);
  EXPECT_EQ(late.consumer->events, std::vector<std::string>{"CallStatus:COMMUNICATION_ERROR"});
}

TEST(RpcCallTest, EdgesOfReporting) {
  {
    // A cancel after the remote reported: nothing is sent, nothing changes.
    CallRig rig(C, 8);
    rig.Apply(START);
    rig.Apply(RECV_STATUS_OK);
    const std::size_t before = rig.host->sent.size();
    rig.Apply(CANCEL);
    EXPECT_EQ(rig.host->sent.size(), before);
  }
  {
    // A client's cancel tells the server; a server's does not.
    CallRig client(C, 8), server(S, 8);
    client.Apply(START);
    client.Apply(CANCEL);
    ASSERT_FALSE(client.host->sent.empty());
    EXPECT_TRUE(client.host->sent.back().frame.rpc_msg().cancel_call());
    server.Apply(ACCEPT);
    server.Apply(CANCEL);
    EXPECT_TRUE(server.host->sent.empty());
    EXPECT_EQ(server.consumer->events.back(), "CallStatus:CANCELED");
  }
  {
    // A message that arrives while a cancel is pending is dropped.
    CallRig rig(C, 8);
    rig.Apply(START);
    rig.call->Cancel();  // posted, not yet run
    rig.call->Receive(Incoming(7, "late", std::nullopt));
    EXPECT_STREQ(rig.call->StateName(), "ACTIVE");
    rig.host->Run();
    EXPECT_STREQ(rig.call->StateName(), "CANCELLED");
  }
  {
    // A failure status with a payload: only the status is delivered.
    CallRig rig(C, 8);
    rig.Apply(START);
    rig.Apply(RECV_PAYLOAD_AND_ERR);
    for (const std::string& e : rig.consumer->events) EXPECT_NE(e.rfind("Next", 0), 0u) << e;
    EXPECT_EQ(rig.call->GetStatus().code(), ABORTED);
  }
  {
    // A consumer that refuses a message fails the call; the peer hears why.
    CallRig rig(C, 8);
    rig.consumer->next = RpcStatus(DATA_LOSS);
    rig.Apply(START);
    rig.Apply(RECV_PAYLOAD);
    EXPECT_STREQ(rig.call->StateName(), "ERROR");
    EXPECT_EQ(rig.LastSentStatus(), DATA_LOSS);
  }
  {
    // An in-memory code (a send failing with 51) is reported as UNKNOWN;
    // 53 (channel down) is not reported at all (the state table shows it).
    CallRig rig(C, 8);
    rig.Apply(START);
    rig.host->failNext = 1;
    rig.host->failWith = RpcStatus(CANCELED);
    rig.Apply(SEND);
    EXPECT_STREQ(rig.call->StateName(), "ERROR");
    EXPECT_EQ(rig.LastSentStatus(), UNKNOWN);
  }
  {
    // Headers reach the server's consumer.
    CallRig rig(S, 1);
    rig.Apply(ACCEPT);
    EXPECT_EQ(rig.consumer->headers.at("k"), "v");
  }
}

}  // namespace
}  // namespace rpc
}  // namespace zel
