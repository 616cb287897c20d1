// The typed call API and the generated glue, end to end over a local socket:
// every call shape of the test service, the guards around observers and
// services, unparsable payloads, headers, and the generated defaults.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "rpc_test_rig.h"
#include "test_service.h"

namespace zel {
namespace rpc {
namespace testing {
namespace {

class CallApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    rig_.registry->RegisterService(service_);
    accepted_ = rig_.Listen();
    connection_ = rig_.Connect();
    ASSERT_TRUE(connection_);
    channel_ = rig_.OpenChannel(connection_, TestService::kServiceName);
    stub_ = std::make_unique<TestService::Stub>(channel_);
  }

  // Runs `requests` through `method` of the stub; the final status and the
  // answers' texts.
  std::pair<RpcStatus, std::vector<std::string>> Run(const RpcMethod& method,
                                                     const std::vector<TestRequest>& requests) {
    auto replies = std::make_shared<Replies>();
    const ClientContext context;
    if (method.type == RMT_SIMPLE || method.type == RMT_SERVER_STREAMING) {
      CallHandlePtr<TestReply> handle =
          method.name == TestService::kEchoMethod.name ? stub_->Echo(context, requests[0], replies)
          : method.name == TestService::kStreamMethod.name
              ? stub_->Stream(context, requests[0], replies)
              : stub_->Missing(context, requests[0], replies);
      const RpcStatus status = handle->Wait(kDeadline);
      EXPECT_EQ(handle->Status(), status);
      EXPECT_EQ(replies->Wait(), status);
      return {status, replies->texts()};
    }
    StreamWriterPtr<TestRequest> writer = method.name == TestService::kCollectMethod.name
                                              ? stub_->Collect(context, replies)
                                              : stub_->Chat(context, replies);
    for (const TestRequest& r : requests) writer->Write(r);
    writer->Done(RpcStatus::Success());
    const RpcStatus status = writer->Wait(kDeadline);
    EXPECT_EQ(replies->Wait(), status);
    return {status, replies->texts()};
  }

  RpcLogCapture log_;
  RpcRig rig_;
  std::shared_ptr<TestServiceImpl> service_ = std::make_shared<TestServiceImpl>(rig_.timers);
  std::shared_ptr<Accepted> accepted_;
  boost::shared_ptr<RpcConnection> connection_;
  boost::shared_ptr<ChannelImpl> channel_;
  std::unique_ptr<TestService::Stub> stub_;
};

TEST_F(CallApiTest, EveryShapeAndOutcomeOfTheTestService) {
  using Texts = std::vector<std::string>;
  const struct {
    const char* name;
    const RpcMethod& method;
    std::vector<TestRequest> requests;
    int32_t status;
    Texts texts;
  } cases[] = {
      {"unary", TestService::kEchoMethod, {Req("hi")}, SUCCESS, {"hi"}},
      {"unary failing", TestService::kEchoMethod, {Failing(ABORTED)}, ABORTED, {}},
      {"unary throwing", TestService::kEchoMethod, {Throwing()}, APPLICATION_ERROR, {}},
      {"client stream", TestService::kCollectMethod, {Req("a"), Req("b"), Req("c")}, SUCCESS,
       {"a,b,c"}},
      {"client stream throwing", TestService::kCollectMethod, {Req("a"), Throwing()},
       APPLICATION_ERROR, {}},
      {"server stream", TestService::kStreamMethod, {Req("s", 3)}, SUCCESS, {"s", "s", "s"}},
      {"server stream of none", TestService::kStreamMethod, {Req("s", 0)}, SUCCESS, {}},
      {"server stream throwing", TestService::kStreamMethod, {Throwing()}, APPLICATION_ERROR,
       {}},
      {"bidi", TestService::kChatMethod, {Req("x", 2), Req("y", 1)}, SUCCESS, {"x", "x", "y"}},
      {"bidi failing", TestService::kChatMethod, {Req("x"), Failing(NOT_FOUND)}, NOT_FOUND,
       {"x"}},
      {"generated default", TestService::kMissingMethod, {Req("m")}, UNIMPLEMENTED, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto [status, texts] = Run(c.method, c.requests);
    EXPECT_EQ(status.code(), c.status) << status.ToString();
    EXPECT_EQ(texts, c.texts);
  }
  EXPECT_EQ(log_.Count("Exception occurred in service implementation for "
                       "orvane.zel.test.TestService.Echo: asked to throw"),
            1);
  EXPECT_EQ(log_.Count("Exception occurred in Observer::Next for "
                       "orvane.zel.test.TestService.Collect: asked to throw"),
            1);
}

TEST_F(CallApiTest, MethodsCarryTheirShapeFromTheSchemaOptions) {
  EXPECT_EQ(TestService::kEchoMethod.ToString(),
            "RpcMethod[orvane.zel.test.TestService.Echo, RMT_SIMPLE]");
  EXPECT_EQ(TestService::kCollectMethod.type, RMT_CLIENT_STREAMING);
  EXPECT_EQ(TestService::kStreamMethod.type, RMT_SERVER_STREAMING);
  EXPECT_EQ(TestService::kChatMethod.type, RMT_BIDI_STREAMING);
  EXPECT_EQ(TestService::kChatMethod.service, "orvane.zel.test.TestService");
}

TEST_F(CallApiTest, HeadersReachTheService) {
  auto replies = std::make_shared<Replies>();
  ClientContext context;
  context.headers["tenant"] = "blue";
  stub_->Echo(context, Req("h"), replies);
  EXPECT_TRUE(replies->Wait().ok());
  EXPECT_EQ(service_->last_header("tenant"), "blue");
}

TEST_F(CallApiTest, AnObserverThatThrowsFailsTheCallOnceAndAnEndingOneIsOnlyLogged) {
  auto failing = std::make_shared<Replies>(Replies::kInNext);
  stub_->Stream(ClientContext(), Req("t", 5), failing);
  EXPECT_EQ(failing->Wait().code(), APPLICATION_ERROR);
  EXPECT_EQ(failing->texts().size(), 1u) << "nothing reaches an observer after it threw";

  // A server that cancels tells no one: its own call ends, cancelled.
  {
    auto quiet = std::make_shared<Replies>();
    TestRequest cancel = Req("z");
    cancel.set_cancel(true);
    auto writer = stub_->Chat(ClientContext(), quiet);
    writer->Write(Req("first"));
    writer->Write(cancel);
    ASSERT_TRUE(zel::testing::WaitUntil([&] { return service_->chat_finals().size() == 1; }));
    EXPECT_EQ(service_->chat_finals()[0].code(), CANCELED);
    // The answer to "first" went out before the cancel, and nothing after.
    ASSERT_TRUE(zel::testing::WaitUntil([&] { return quiet->texts().size() == 1; }));
    writer->Cancel();
    EXPECT_EQ(writer->Wait(kDeadline).code(), CANCELED);
  }

  // The peer hears the code.
  auto chatting = std::make_shared<Replies>(Replies::kInNext);
  auto writer = stub_->Chat(ClientContext(), chatting);
  writer->Write(Req("c"));
  EXPECT_EQ(writer->Wait(kDeadline).code(), APPLICATION_ERROR);
  ASSERT_TRUE(zel::testing::WaitUntil([&] { return service_->chat_finals().size() == 2; }));
  EXPECT_EQ(service_->chat_finals()[1].code(), APPLICATION_ERROR);

  auto ending = std::make_shared<Replies>(Replies::kInCallStatus);
  stub_->Echo(ClientContext(), Req("e"), ending);
  EXPECT_TRUE(ending->Wait().ok());
  ASSERT_TRUE(zel::testing::WaitUntil([&] {
    return log_.Count("Exception occurred in Observer::CallStatus for "
                      "orvane.zel.test.TestService.Echo") == 1;
  }));
  EXPECT_EQ(ending->finals(), 1);
  EXPECT_EQ(log_.Count("Exception occurred in Observer::"), 3);
}

TEST_F(CallApiTest, AnUnparsablePayloadFailsWithDataLoss) {
  // Field 1 as a length-delimited string that runs past the end.
  const std::string garbage = "\x0a\x7f" "abc";
  auto collector = rig_.Call(channel_, TestService::kEchoMethod, garbage);
  EXPECT_EQ(collector->WaitStatus().code(), DATA_LOSS);
  EXPECT_EQ(log_.Count("Failed to parse payload (5 bytes) for orvane.zel.test.TestService.Echo"),
            1);
  EXPECT_EQ(service_->calls(), 0);
}

// A streaming method that gives no observer, or throws instead.
class NoObserverService : public TestServiceImpl {
 public:
  bool throws = false;
  CallObserverPtr<TestRequest> Collect(const ServerContext&,
                                       const StreamWriterPtr<TestReply>&) override {
    if (throws) throw std::logic_error("no collector");
    return nullptr;
  }
};

TEST_F(CallApiTest, AStreamingMethodWithoutObserverFailsTheCall) {
  auto service = std::make_shared<NoObserverService>();
  rig_.registry->RegisterService(service);
  for (bool throws : {false, true}) {
    SCOPED_TRACE(throws ? "throws" : "no observer");
    service->throws = throws;
    const auto [status, texts] = Run(TestService::kCollectMethod, {Req("a")});
    EXPECT_EQ(status.code(), APPLICATION_ERROR);
  }
  EXPECT_EQ(log_.Count("Service method implementation returned no observer for "
                       "orvane.zel.test.TestService.Collect"),
            1);
  EXPECT_EQ(log_.Count("Exception occurred in service method implementation of "
                       "orvane.zel.test.TestService.Collect: no collector"),
            1);
  EXPECT_EQ(log_.Count("errorCode=\"RPC106\""), 2);
}

}  // namespace
}  // namespace testing
}  // namespace rpc
}  // namespace zel
