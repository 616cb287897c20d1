// The typed face of a call, as application code and generated stubs and
// services see it: observers that receive protobuf messages, handles and
// writers over a running call, and the templates generated code is made of.
//
//   class Printer : public CallObserver<EchoReply> {
//     void Next(const EchoReply& r) override { ... }
//     void CallStatus(const RpcStatus& s) override { ... }
//   };
//   Echo::Stub stub(channel);
//   auto handle = stub.Say(ClientContext(), request, std::make_shared<Printer>());
//
// Every observer and service callback runs behind a guard: an exception
// thrown there is logged (errorCode:RPC101, or RPC106 when a streaming
// method gives no observer) and fails the call with APPLICATION_ERROR; a
// payload that does not parse fails it with DATA_LOSS (errorCode:RPC400).
//
// Threads: observers and service functions run on their channel's scheduler
// thread, one at a time per channel, and must not block. Handles and writers
// may be used from any thread; a write serialises on the caller's thread.
#ifndef ZEL_RPC_CALL_API_H_
#define ZEL_RPC_CALL_API_H_

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/rpc/channel.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/method.h"
#include "cpp/lib/rpc/rpc_call.h"
#include "cpp/lib/rpc/rpc_status.h"

namespace zel {
namespace rpc {

// What the application implements to receive a stream of T. The default
// bodies do nothing.
template <class T>
class CallObserver {
 public:
  virtual ~CallObserver() = default;
  virtual void Next(const T& /*message*/) {}
  // The peer's final status.
  virtual void RemoteStatus(const RpcStatus& /*status*/) {}
  // The call's outcome: the last callback.
  virtual void CallStatus(const RpcStatus& /*status*/) {}
};

template <class T>
using CallObserverPtr = std::shared_ptr<CallObserver<T>>;

namespace detail {

// The guard around application code: runs `fn`, and turns an exception into
// APPLICATION_ERROR after logging "<what> <name>", with ": <text>" for a
// std::exception, under `tag`.
RpcStatus Guarded(const char* what, const std::string& name, const char* tag,
                  const std::function<void()>& fn);
// Logs the payload that did not parse; DATA_LOSS.
RpcStatus ParseFailure(std::size_t bytes, const std::string& name);
// Logs a streaming method that gave no observer; APPLICATION_ERROR.
RpcStatus NoObserver(const std::string& name);

template <class T>
bool Parse(const RpcFrame::View& payload, T* out) {
  return out->ParseFromArray(payload.data, static_cast<int>(payload.size));
}

}  // namespace detail

// A MessageConsumer over a typed observer: parses each payload into a T and
// calls the observer behind the guard. CallStatus lets go of the observer
// first, so that it may go away in its own callback; nothing follows.
template <class T>
class CallObserverInvoker : public MessageConsumer {
 public:
  CallObserverInvoker(CallObserverPtr<T> observer, std::string name)
      : observer_(std::move(observer)), name_(std::move(name)) {}

  RpcStatus Prepare(ServerContext*) override { return RpcStatus::Success(); }
  RpcStatus Next(const RpcFrame::View& payload) override {
    T message;
    if (!detail::Parse(payload, &message)) return detail::ParseFailure(payload.size, name_);
    CallObserverPtr<T> observer = Observer_();
    if (!observer) return RpcStatus::Success();
    return detail::Guarded("Exception occurred in Observer::Next for", name_, kTagRpc101,
                           [&] { observer->Next(message); });
  }
  RpcStatus RemoteStatus(const RpcStatus& status) override {
    CallObserverPtr<T> observer = Observer_();
    if (!observer) return RpcStatus::Success();
    return detail::Guarded("Exception occurred in Observer::RemoteStatus for", name_, kTagRpc101,
                           [&] { observer->RemoteStatus(status); });
  }
  RpcStatus CallStatus(const RpcStatus& status) override {
    CallObserverPtr<T> observer;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      observer.swap(observer_);
    }
    if (!observer) return RpcStatus::Success();
    return detail::Guarded("Exception occurred in Observer::CallStatus for", name_, kTagRpc101,
                           [&] { observer->CallStatus(status); });
  }

 private:
  CallObserverPtr<T> Observer_() {
    std::lock_guard<std::mutex> lock(mutex_);
    return observer_;
  }

  std::mutex mutex_;
  CallObserverPtr<T> observer_;
  const std::string name_;
};

namespace detail {

// The final status of a client call, for those who wait for it.
class DoneState {
 public:
  void Set(const RpcStatus& status) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
    done_.notify_all();
  }
  RpcStatus Wait(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait_for(lock, timeout, [&] { return status_.IsSet(); });
    return status_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  RpcStatus status_;
};

}  // namespace detail

// A reference to a running client call whose answers are T.
template <class T>
class CallHandle {
 public:
  virtual ~CallHandle() = default;
  virtual RpcStatus Cancel() = 0;
  // The final status; not set while the call runs.
  virtual RpcStatus Status() const = 0;
  // Blocks until the call has ended, at most `timeout`: the final status, or
  // not set. Not from an observer or service function.
  virtual RpcStatus Wait(std::chrono::milliseconds timeout) = 0;
};

template <class T>
using CallHandlePtr = std::shared_ptr<CallHandle<T>>;

template <class T>
class CallHandleImpl : public CallHandle<T> {
 public:
  CallHandleImpl(RefPtr<Call> call, std::shared_ptr<detail::DoneState> done)
      : call_(std::move(call)), done_(std::move(done)) {}
  RpcStatus Cancel() override { return call_->Cancel(); }
  RpcStatus Status() const override { return call_->GetStatus(); }
  RpcStatus Wait(std::chrono::milliseconds timeout) override { return done_->Wait(timeout); }

 private:
  const RefPtr<Call> call_;
  const std::shared_ptr<detail::DoneState> done_;
};

// The sending side of a call whose messages are T.
template <class T>
class StreamWriter {
 public:
  virtual ~StreamWriter() = default;
  virtual RpcStatus Write(const T& message) = 0;
  // A last message and the local status.
  virtual RpcStatus Complete(const T& message, const RpcStatus& status) = 0;
  virtual RpcStatus Done(const RpcStatus& status) = 0;
  virtual RpcStatus Cancel() = 0;
  virtual RpcStatus Status() const = 0;
  // A client's writer: blocks until the call has ended, at most `timeout`
  // (the final status, or not set). A server's answers Status() at once.
  virtual RpcStatus Wait(std::chrono::milliseconds timeout) = 0;
};

template <class T>
using StreamWriterPtr = std::shared_ptr<StreamWriter<T>>;

template <class T>
class StreamWriterImpl : public StreamWriter<T> {
 public:
  explicit StreamWriterImpl(RefPtr<Call> call, std::shared_ptr<detail::DoneState> done = nullptr)
      : call_(std::move(call)), done_(std::move(done)) {}
  RpcStatus Write(const T& message) override { return call_->Send(message); }
  RpcStatus Complete(const T& message, const RpcStatus& status) override {
    return call_->Complete(&message, status);
  }
  RpcStatus Done(const RpcStatus& status) override { return call_->Done(status); }
  RpcStatus Cancel() override { return call_->Cancel(); }
  RpcStatus Status() const override { return call_->GetStatus(); }
  RpcStatus Wait(std::chrono::milliseconds timeout) override {
    return done_ ? done_->Wait(timeout) : call_->GetStatus();
  }

 private:
  const RefPtr<Call> call_;
  const std::shared_ptr<detail::DoneState> done_;
};

namespace client {
namespace detail {

// The client's invoker: owns the observer of the answers.
template <class T>
class StreamConsumer : public CallObserverInvoker<T> {
 public:
  StreamConsumer(CallObserverPtr<T> observer, const RpcMethod& method)
      : CallObserverInvoker<T>(std::move(observer), method.name) {}
};

}  // namespace detail
}  // namespace client

// The base of generated stubs: the channel the calls go on.
class StubBase {
 public:
  explicit StubBase(ChannelPtr channel) : channel_(std::move(channel)) {}
  virtual ~StubBase() = default;
  StubBase(const StubBase&) = delete;
  StubBase& operator=(const StubBase&) = delete;

  const ChannelPtr& channel() const { return channel_; }

 protected:
  // A call with one request: RMT_SIMPLE and RMT_SERVER_STREAMING.
  template <class Req, class Resp>
  CallHandlePtr<Resp> StartUnary_(const RpcMethod& method, const ClientContext& context,
                                  const Req& request, CallObserverPtr<Resp> observer) {
    RpcCallPtr call = NewCall_(method);
    auto done = WatchDone_(call);
    call->Start(context, std::make_shared<client::detail::StreamConsumer<Resp>>(
                             std::move(observer), method));
    call->Send(request);
    return std::make_shared<CallHandleImpl<Resp>>(RefPtr<Call>(call), std::move(done));
  }
  // A call whose client streams: RMT_CLIENT_STREAMING and RMT_BIDI_STREAMING.
  template <class Req, class Resp>
  StreamWriterPtr<Req> StartStream_(const RpcMethod& method, const ClientContext& context,
                                    CallObserverPtr<Resp> observer) {
    RpcCallPtr call = NewCall_(method);
    auto done = WatchDone_(call);
    call->Start(context, std::make_shared<client::detail::StreamConsumer<Resp>>(
                             std::move(observer), method));
    return std::make_shared<StreamWriterImpl<Req>>(RefPtr<Call>(call), std::move(done));
  }

 private:
  // Installed before the call starts, when nothing else touches it.
  static std::shared_ptr<detail::DoneState> WatchDone_(const RpcCallPtr& call) {
    auto done = std::make_shared<detail::DoneState>();
    call->SetDoneCallback([done](const RpcStatus& status) { done->Set(status); });
    return done;
  }
  RpcCallPtr NewCall_(const RpcMethod& method) {
    std::lock_guard<std::mutex> lock(mutex_);
    return channel_->CreateCall(method);
  }

  const ChannelPtr channel_;
  std::mutex mutex_;
};

// The base of generated services: the service's name and its methods. A
// registry takes a service by shared pointer and binds each method to it, so
// that a call holds its service while it runs.
class ServiceBase {
 public:
  // Makes the consumer of a new call of one method of `service`.
  using Make = std::function<std::shared_ptr<MessageConsumer>(
      const RefPtr<Call>& call, const std::shared_ptr<ServiceBase>& service)>;

  explicit ServiceBase(std::string name) : name_(std::move(name)) {}
  virtual ~ServiceBase() = default;
  ServiceBase(const ServiceBase&) = delete;
  ServiceBase& operator=(const ServiceBase&) = delete;

  const std::string& name() const { return name_; }
  // The methods, each bound to `self`, which must be this service.
  std::vector<RpcServiceMethod> BindMethods(const std::shared_ptr<ServiceBase>& self) const;

 protected:
  // Adds a method whose client sends one request; `impl` answers through the
  // writer.
  template <class Svc, class Req, class Resp>
  void AddMethod_(const RpcMethod& method,
                  void (Svc::*impl)(const ServerContext&, const Req&, const StreamWriterPtr<Resp>&));
  // Adds a method whose client streams; `impl` gives the observer of the
  // requests.
  template <class Svc, class Req, class Resp>
  void AddMethod_(const RpcMethod& method,
                  CallObserverPtr<Req> (Svc::*impl)(const ServerContext&,
                                                    const StreamWriterPtr<Resp>&));

 private:
  struct Entry {
    RpcMethod method;
    Make make;
  };
  const std::string name_;
  std::vector<Entry> methods_;
};

namespace server {
namespace detail {

// The server's consumer of one call. With false (one request) it parses the
// request in Next and calls the service there; with true (the client
// streams) it calls the service in Prepare, and the observer it gets takes
// the requests.
template <bool ClientStreams>
class RpcServiceMethodConsumer;

template <>
class RpcServiceMethodConsumer<false> : public MessageConsumer {
 public:
  // Parses and answers one request with the context the call was accepted
  // with; a parse failure gives DATA_LOSS.
  using Serve = std::function<RpcStatus(const ServerContext&, const RpcFrame::View&)>;

  explicit RpcServiceMethodConsumer(Serve serve) : serve_(std::move(serve)) {}
  RpcStatus Prepare(ServerContext* context) override {
    context_ = *context;
    return RpcStatus::Success();
  }
  RpcStatus Next(const RpcFrame::View& payload) override { return serve_(context_, payload); }
  RpcStatus RemoteStatus(const RpcStatus&) override { return RpcStatus::Success(); }
  RpcStatus CallStatus(const RpcStatus&) override {
    serve_ = nullptr;
    return RpcStatus::Success();
  }

 private:
  Serve serve_;
  ServerContext context_;
};

template <>
class RpcServiceMethodConsumer<true> : public MessageConsumer {
 public:
  // Calls the service, which gives the consumer of the requests (none when
  // it failed, with the status set).
  using Open = std::function<std::shared_ptr<MessageConsumer>(const ServerContext&, RpcStatus*)>;

  explicit RpcServiceMethodConsumer(Open open) : open_(std::move(open)) {}
  RpcStatus Prepare(ServerContext* context) override {
    RpcStatus status = RpcStatus::Success();
    requests_ = open_(*context, &status);
    open_ = nullptr;
    return status;
  }
  RpcStatus Next(const RpcFrame::View& payload) override {
    return requests_ ? requests_->Next(payload) : RpcStatus::Success();
  }
  RpcStatus RemoteStatus(const RpcStatus& status) override {
    return requests_ ? requests_->RemoteStatus(status) : RpcStatus::Success();
  }
  RpcStatus CallStatus(const RpcStatus& status) override {
    std::shared_ptr<MessageConsumer> requests = std::move(requests_);
    return requests ? requests->CallStatus(status) : RpcStatus::Success();
  }

 private:
  Open open_;
  std::shared_ptr<MessageConsumer> requests_;
};

// Makes the consumer of each new call of one method of a service it holds.
class BoundMethodHandler : public MethodHandler {
 public:
  BoundMethodHandler(ServiceBase::Make make, std::shared_ptr<ServiceBase> service)
      : make_(std::move(make)), service_(std::move(service)) {}
  std::shared_ptr<MessageConsumer> MakeConsumer(const RpcMethod&,
                                                const RefPtr<Call>& call) override {
    return make_(call, service_);
  }

 private:
  const ServiceBase::Make make_;
  const std::shared_ptr<ServiceBase> service_;
};

}  // namespace detail
}  // namespace server

template <class Svc, class Req, class Resp>
void ServiceBase::AddMethod_(const RpcMethod& method,
                             void (Svc::*impl)(const ServerContext&, const Req&,
                                               const StreamWriterPtr<Resp>&)) {
  const std::string name = method.name;
  auto make = [impl, name](const RefPtr<Call>& call,
                           const std::shared_ptr<ServiceBase>& keep) -> std::shared_ptr<MessageConsumer> {
    Svc* self = static_cast<Svc*>(keep.get());
    auto writer = std::make_shared<StreamWriterImpl<Resp>>(call);
    return std::make_shared<server::detail::RpcServiceMethodConsumer<false>>(
        [keep, self, impl, name, writer](const ServerContext& context,
                                         const RpcFrame::View& payload) {
          Req request;
          if (!rpc::detail::Parse(payload, &request)) {
            return rpc::detail::ParseFailure(payload.size, name);
          }
          return rpc::detail::Guarded("Exception occurred in service implementation for", name, kTagRpc101,
                                      [&] { (self->*impl)(context, request, writer); });
        });
  };
  methods_.push_back({method, std::move(make)});
}

template <class Svc, class Req, class Resp>
void ServiceBase::AddMethod_(const RpcMethod& method,
                             CallObserverPtr<Req> (Svc::*impl)(const ServerContext&,
                                                               const StreamWriterPtr<Resp>&)) {
  const std::string name = method.name;
  auto make = [impl, name](const RefPtr<Call>& call,
                           const std::shared_ptr<ServiceBase>& keep) -> std::shared_ptr<MessageConsumer> {
    Svc* self = static_cast<Svc*>(keep.get());
    auto writer = std::make_shared<StreamWriterImpl<Resp>>(call);
    return std::make_shared<server::detail::RpcServiceMethodConsumer<true>>(
        [keep, self, impl, name, writer](const ServerContext& context,
                                         RpcStatus* status) -> std::shared_ptr<MessageConsumer> {
          CallObserverPtr<Req> observer;
          *status = rpc::detail::Guarded("Exception occurred in service method implementation of", name,
                                         kTagRpc106,
                                         [&] { observer = (self->*impl)(context, writer); });
          if (!status->ok()) return nullptr;
          if (!observer) {
            *status = rpc::detail::NoObserver(name);
            return nullptr;
          }
          return std::make_shared<CallObserverInvoker<Req>>(std::move(observer), name);
        });
  };
  methods_.push_back({method, std::move(make)});
}

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_CALL_API_H_
