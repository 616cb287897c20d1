// The RPC name tables: answers posted to the dispatcher (never inline), the
// RPC error category, routes printed by connection or endpoint, the default
// route, and shutdown. The generic table itself is tested with zel::net.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include <boost/smart_ptr/make_shared.hpp>

#include "cpp/lib/common/asio_dispatcher.h"
#include "cpp/lib/rpc/rpc_error.h"
#include "cpp/lib/rpc/rpc_resolvers.h"
#include "support/log_capture.h"
#include "support/wait.h"

namespace zel {
namespace rpc {
namespace {

using boost::system::error_code;
using zel::testing::kDeadline;

struct Answer {
  error_code ec;
  std::string route;
  std::thread::id thread;
};

class RpcResolversTest : public ::testing::Test {
 protected:
  RpcResolversTest() {
    g_rpcLogCeiling = kLogDebug;
    dispatcher_->Run(1, false);
  }
  ~RpcResolversTest() override {
    dispatcher_->StopAndWait(false);
    g_rpcLogCeiling = kLogInfo;
  }

  // Resolves `key`; the answer once it has come, or none by the deadline.
  std::future<Answer> Ask(RpcResolver& resolver, const std::string& key) {
    auto promise = std::make_shared<std::promise<Answer>>();
    resolver.Resolve(key, [promise](const error_code& ec, const RpcRoute& route) {
      promise->set_value({ec, ResolverText(route), std::this_thread::get_id()});
    });
    return promise->get_future();
  }
  static bool Ready(std::future<Answer>& f) {
    return f.wait_for(kDeadline) == std::future_status::ready;
  }

  zel::testing::LogCapture log_{"TRIVIA"};
  boost::shared_ptr<AsioDispatcher> dispatcher_ = boost::make_shared<AsioDispatcher>();
};

TEST_F(RpcResolversTest, ErrorCategory) {
  const struct {
    int value;
    const char* text;
  } rows[] = {{0, "Success"}, {1, "Unknown"}, {2, "Timed out"}, {3, "Shut down"},
              {4, "zel.rpc error"}};
  for (const auto& r : rows) {
    EXPECT_EQ(error_code(r.value, error::get_zel_rpc_category()).message(), r.text);
  }
  EXPECT_STREQ(error::get_zel_rpc_category().name(), "zel.rpc");
}

TEST_F(RpcResolversTest, AWaitingRequestIsAnsweredOnTheDispatcherWhenTheMappingArrives) {
  RpcServiceResolver services(dispatcher_);
  EXPECT_EQ(services.name().rfind("RpcServiceResolver[", 0), 0u) << services.name();
  std::future<Answer> waiting = Ask(services, "orvane.zel.Echo");
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

  services.AddMapping("orvane.zel.Echo", RpcRoute{"tcp://10.0.0.1:4096", nullptr});
  ASSERT_TRUE(Ready(waiting));
  const Answer a = waiting.get();
  EXPECT_FALSE(a.ec);
  EXPECT_EQ(a.route, "tcp://10.0.0.1:4096");
  EXPECT_NE(a.thread, std::this_thread::get_id()) << "answers are posted, never inline";

  // A stored answer is handed out at once, still through the dispatcher.
  std::future<Answer> again = Ask(services, "orvane.zel.Echo");
  ASSERT_TRUE(Ready(again));
  EXPECT_NE(again.get().thread, std::this_thread::get_id());
  EXPECT_EQ(log_.Count("Request for 'orvane.zel.Echo' is already resolved to "
                       "'tcp://10.0.0.1:4096' - delivering"),
            1);
}

TEST_F(RpcResolversTest, TheDefaultRouteAnswersUnmappedNamesUntilReset) {
  RpcEndpointResolver endpoints(dispatcher_);
  endpoints.SetDefault(RpcRoute{"unix:///run/gw.sock", nullptr});
  std::future<Answer> viaDefault = Ask(endpoints, "node-7");
  ASSERT_TRUE(Ready(viaDefault));
  EXPECT_EQ(viaDefault.get().route, "unix:///run/gw.sock");
  ASSERT_TRUE(endpoints.Get("node-7"));
  EXPECT_EQ(endpoints.Get("node-7")->endpoint, "unix:///run/gw.sock");

  endpoints.ResetDefault();
  EXPECT_FALSE(endpoints.Get("node-7"));
  std::future<Answer> waits = Ask(endpoints, "node-7");
  EXPECT_EQ(waits.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  endpoints.Cancel("node-7");
  ASSERT_TRUE(Ready(waits));
  EXPECT_EQ(waits.get().ec.value(), ECANCELED);
  // A mapping does not revive a cancelled entry.
  endpoints.AddMapping("node-7", RpcRoute{"tcp://10.0.0.7:4096", nullptr});
  EXPECT_FALSE(endpoints.Get("node-7"));
}

TEST_F(RpcResolversTest, AfterShutdownEveryRequestFailsWithTheRpcShutDown) {
  RpcEndpointResolver endpoints(dispatcher_);
  std::future<Answer> waiting = Ask(endpoints, "node-1");
  endpoints.Shutdown();
  std::future<Answer> late = Ask(endpoints, "node-2");
  for (std::future<Answer>* f : {&waiting, &late}) {
    ASSERT_TRUE(Ready(*f));
    const error_code ec = f->get().ec;
    EXPECT_EQ(ec, error::make_error_code(error::shut_down));
    EXPECT_EQ(ec.category().name(), std::string("zel.rpc"));
  }
}

}  // namespace
}  // namespace rpc
}  // namespace zel
