#include "test_service.h"

#include <stdexcept>
#include <string>
#include <thread>

namespace zel {
namespace rpc {
namespace testing {
namespace {

TestReply Reply(const std::string& text, uint32_t index, uint32_t pad) {
  TestReply reply;
  reply.set_text(text);
  reply.set_index(index);
  if (pad > 0) reply.set_pad(std::string(pad, 'p'));
  return reply;
}

// Answers one request as it asks; false once the call has ended.
bool Answer(const TestRequest& request, const StreamWriterPtr<TestReply>& writer, bool last) {
  if (request.throw_error()) throw std::runtime_error("asked to throw");
  if (request.cancel()) return writer->Cancel(), false;
  if (request.has_fail_with()) return writer->Done(RpcStatus(request.fail_with())), false;
  const uint32_t answers = request.has_answers() ? request.answers() : 1;
  for (uint32_t i = 0; i < answers; ++i) {
    TestReply reply = Reply(request.text(), i, request.pad());
    if (last && i + 1 == answers) return writer->Complete(reply, RpcStatus::Success()), false;
    writer->Write(reply);
  }
  if (last && answers == 0) writer->Done(RpcStatus::Success());
  return !last;
}

}  // namespace

void TestServiceImpl::After(const TestRequest& request, std::function<void()> fn) {
  if (!request.delay_ms() || !timers_) return fn();
  TimerPtr timer = timers_->CreateTimer(std::chrono::milliseconds(request.delay_ms()),
                                        [fn = std::move(fn)] { fn(); });
  std::lock_guard<std::mutex> lock(mutex_);
  pending_.push_back(timer);
}

std::string TestServiceImpl::last_header(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = headers_.find(key);
  return it == headers_.end() ? "" : it->second;
}

void TestServiceImpl::ReleaseHold() {
  std::lock_guard<std::mutex> lock(mutex_);
  holdReleased_ = true;
  released_.notify_all();
}

std::vector<RpcStatus> TestServiceImpl::chat_finals() {
  std::lock_guard<std::mutex> lock(mutex_);
  return chatFinals_;
}

void TestServiceImpl::Echo(const ServerContext& context, const TestRequest& request,
                           const StreamWriterPtr<TestReply>& writer) {
  ++calls_;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    headers_ = context.headers;
  }
  if (request.throw_error()) throw std::runtime_error("asked to throw");
  After(request, [request, writer] {
    TestRequest one = request;
    one.set_answers(1);
    Answer(one, writer, true);
  });
}

CallObserverPtr<TestRequest> TestServiceImpl::Collect(const ServerContext&,
                                                      const StreamWriterPtr<TestReply>& writer) {
  ++calls_;
  // Joins the texts; the answer goes when the client is done.
  struct Collector : CallObserver<TestRequest> {
    TestServiceImpl* service;
    StreamWriterPtr<TestReply> writer;
    std::string joined;
    void Next(const TestRequest& r) override {
      // A slow consumer on purpose: it holds the channel's thread.
      if (r.pause_us()) std::this_thread::sleep_for(std::chrono::microseconds(r.pause_us()));
      if (r.hold()) {
        std::unique_lock<std::mutex> lock(service->mutex_);
        service->released_.wait_for(lock, std::chrono::seconds(20),
                                     [&] { return service->holdReleased_; });
      }
      if (r.throw_error()) throw std::runtime_error("asked to throw");
      if (r.has_fail_with()) writer->Done(RpcStatus(r.fail_with()));
      if (r.cancel()) writer->Cancel();
      joined += (joined.empty() ? "" : ",") + r.text();
    }
    void RemoteStatus(const RpcStatus&) override {
      writer->Complete(Reply(joined, 0, 0), RpcStatus::Success());
    }
  };
  auto collector = std::make_shared<Collector>();
  collector->service = this;
  collector->writer = writer;
  return collector;
}

void TestServiceImpl::Stream(const ServerContext&, const TestRequest& request,
                             const StreamWriterPtr<TestReply>& writer) {
  ++calls_;
  if (request.throw_error()) throw std::runtime_error("asked to throw");
  After(request, [request, writer] { Answer(request, writer, true); });
}

CallObserverPtr<TestRequest> TestServiceImpl::Chat(const ServerContext&,
                                                   const StreamWriterPtr<TestReply>& writer) {
  ++calls_;
  struct Chatter : CallObserver<TestRequest> {
    TestServiceImpl* service;
    StreamWriterPtr<TestReply> writer;
    void Next(const TestRequest& r) override { Answer(r, writer, false); }
    void RemoteStatus(const RpcStatus&) override { writer->Done(RpcStatus::Success()); }
    void CallStatus(const RpcStatus& status) override {
      std::lock_guard<std::mutex> lock(service->mutex_);
      service->chatFinals_.push_back(status);
    }
  };
  auto chatter = std::make_shared<Chatter>();
  chatter->service = this;
  chatter->writer = writer;
  return chatter;
}

}  // namespace testing
}  // namespace rpc
}  // namespace zel
