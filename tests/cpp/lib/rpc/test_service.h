// The test service: what each request asks for (test_service.proto) is what
// it does, so every call shape and failure has one implementation.
//
//   auto service = std::make_shared<TestServiceImpl>(timers);
//   registry->RegisterService(service);
#ifndef ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_
#define ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_

#include <atomic>
#include <condition_variable>
#include <stdexcept>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "cpp/lib/timer/timer_factory.h"
#include "support/wait.h"
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

  // Lets go of a Collect observer holding on a "hold" request, now and for
  // any that comes later.
  void ReleaseHold();
  // Calls that reached a service function.
  int calls() const { return calls_.load(); }
  // The headers of the last call.
  std::string last_header(const std::string& key);
  // The final statuses of the Chat calls on the server's side, in order.
  std::vector<RpcStatus> chat_finals();

 private:
  // Runs `fn` now, or after the request's delay.
  void After(const TestRequest& request, std::function<void()> fn);

  const std::shared_ptr<TimerFactory> timers_;
  std::atomic<int> calls_{0};
  std::mutex mutex_;
  std::unordered_map<std::string, std::string> headers_;
  std::vector<TimerPtr> pending_;
  std::vector<RpcStatus> chatFinals_;
  std::condition_variable released_;
  bool holdReleased_ = false;
};

// What a typed client call received; optionally throws from one callback.
class Replies : public CallObserver<TestReply> {
 public:
  enum Throw { kNone, kInNext, kInCallStatus };
  explicit Replies(Throw when = kNone) : throw_(when) {}

  void Next(const TestReply& reply) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      texts_.push_back(reply.text());
    }
    if (throw_ == kInNext) throw std::runtime_error("observer failed");
  }
  void CallStatus(const RpcStatus& status) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      status_ = status;
      ++finals_;
      changed_.notify_all();
    }
    if (throw_ == kInCallStatus) throw 42;
  }
  RpcStatus Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, zel::testing::kDeadline, [&] { return finals_ > 0; });
    return status_;
  }
  std::vector<std::string> texts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return texts_;
  }
  int finals() {
    std::lock_guard<std::mutex> lock(mutex_);
    return finals_;
  }

 private:
  const Throw throw_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> texts_;
  RpcStatus status_;
  int finals_ = 0;
};

inline TestRequest Req(const std::string& text, uint32_t answers = 1) {
  TestRequest r;
  r.set_text(text);
  r.set_answers(answers);
  return r;
}
inline TestRequest Failing(int32_t code) {
  TestRequest r;
  r.set_fail_with(code);
  return r;
}
inline TestRequest Throwing() {
  TestRequest r;
  r.set_throw_error(true);
  return r;
}

}  // namespace testing
}  // namespace rpc
}  // namespace zel

#endif  // ZEL_TESTS_CPP_LIB_RPC_TEST_SERVICE_H_
