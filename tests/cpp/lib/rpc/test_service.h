// The test service: what each request asks for (test_service.proto) is what
// it does, so every call shape and failure has one implementation.
//
//   auto service = std::make_shared<TestServiceImpl>(timers);
//   registry->RegisterService(service);
#ifndef ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_
#define ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "cpp/lib/timer/timer_factory.h"
#include "test_service.zelrpc.pb.h"

namespace zel {
namespace rpc {
namespace testing {

using ::orvane::zel::test::TestReply;
using ::orvane::zel::test::TestRequest;
using ::orvane::zel::test::TestService;

class TestServiceImpl : public TestService::Service {
 public:
  // `timers` serve the requests' delays; without them a delay is ignored.
  explicit TestServiceImpl(std::shared_ptr<TimerFactory> timers = nullptr)
      : timers_(std::move(timers)) {}

  void Echo(const ServerContext& context, const TestRequest& request,
            const StreamWriterPtr<TestReply>& writer) override;
  CallObserverPtr<TestRequest> Collect(const ServerContext& context,
                                       const StreamWriterPtr<TestReply>& writer) override;
  void Stream(const ServerContext& context, const TestRequest& request,
              const StreamWriterPtr<TestReply>& writer) override;
  CallObserverPtr<TestRequest> Chat(const ServerContext& context,
                                    const StreamWriterPtr<TestReply>& writer) override;

  // Calls that reached a service function.
  int calls() const { return calls_.load(); }
  // The headers of the last call.
  std::string last_header(const std::string& key);
  // The final status of the last Chat call on the server's side.
  RpcStatus chat_final_status();

 private:
  // Runs `fn` now, or after the request's delay.
  void After(const TestRequest& request, std::function<void()> fn);

  const std::shared_ptr<TimerFactory> timers_;
  std::atomic<int> calls_{0};
  std::mutex mutex_;
  std::unordered_map<std::string, std::string> headers_;
  std::vector<TimerPtr> pending_;
  RpcStatus chatFinalStatus_;
};

}  // namespace testing
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_
