// From a URL to a ready stub within a time limit. A ChannelCreator asks the
// transport for a connection and opens a channel to a service on it; a
// StubCreator retries that by a retry policy until the channel is active or
// the time limit passes, and then hands over the generated stub.
//
//   StubFactory factory(provider);
//   auto creator = factory.MakeCreator<Echo::Stub>("service://orvane.zel.Echo",
//       ChannelPriority::NORMAL, 5000, RetryPolicy(100, 1000, 2.0));
//   creator->Create([](const error_code& ec, std::shared_ptr<Echo::Stub> stub) { ... });
//
// The owner keeps the creator until its completion has run: a creator let go
// of earlier stops.
//
// URLs: "zel://<endpoint id>", "service://<service name>", or an endpoint.
// A time limit below 1 ms never expires. The completion runs once, with the
// stub or with the failure (the last connection error, or "Timed out" of
// zel.rpc), on a dispatcher thread.
//
// Threads: a creator may be started from any thread; the time limit and the
// channel may race, and the first to finish wins.
#ifndef ZEL_RPC_STUB_FACTORY_H_
#define ZEL_RPC_STUB_FACTORY_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <boost/system/error_code.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/common/retry_policy.h"
#include "cpp/lib/rpc/channel.h"
#include "cpp/lib/rpc/rpc_connection.h"
#include "cpp/lib/timer/timer.h"

namespace zel {

class TimerFactory;

namespace rpc {

class ChannelFactoryInterface;
class Transport;
class ZelRpcProvider;

// Opens channels to one service at one URL.
class ChannelCreator {
 public:
  using Done = std::function<void(const boost::system::error_code&, const ChannelPtr&)>;

  ChannelCreator(std::shared_ptr<Transport> transport,
                 std::shared_ptr<ChannelFactoryInterface> channels, std::string url,
                 std::string service, ChannelPriority priority, ConnectionOptions options = {});
  // A connection, then a channel with a new stream id, opened on it; `done`
  // gets it once the peer has accepted the stream.
  void Create(Done done);

 private:
  const std::shared_ptr<Transport> transport_;
  const std::shared_ptr<ChannelFactoryInterface> channels_;
  const std::string url_;
  const std::string service_;
  const ChannelPriority priority_;
  const ConnectionOptions options_;
};

// The untyped part of a stub creator: retries, time limit, completion.
class StubCreatorBase : public std::enable_shared_from_this<StubCreatorBase> {
 public:
  using Completion = std::function<void(const boost::system::error_code&, const ChannelPtr&)>;

  StubCreatorBase(std::shared_ptr<ChannelCreator> channels, std::shared_ptr<TimerFactory> timers,
                  const std::string& service, const std::string& url, ChannelPriority priority,
                  int64_t timeoutMs, RetryPolicy policy);
  virtual ~StubCreatorBase();

  // "RpcStubCreator[<service>, <url>, <priority>]".
  const std::string& name() const { return name_; }
  uint64_t attempts() const;

 protected:
  void Start_(Completion completion);

 private:
  void Request_();
  void OnChannel_(const boost::system::error_code& ec, const ChannelPtr& channel);
  void OnTimeout_();
  // Takes the completion; empty when another path finished first.
  Completion Finish_() REQUIRES(mutex_);

  const std::shared_ptr<ChannelCreator> channels_;
  const std::shared_ptr<TimerFactory> timers_;
  const std::string name_;
  const int64_t timeoutMs_;

  mutable Mutex mutex_;
  RetryPolicy policy_ GUARDED_BY(mutex_);
  Completion completion_ GUARDED_BY(mutex_);
  TimerPtr timeout_ GUARDED_BY(mutex_);
  TimerPtr retry_ GUARDED_BY(mutex_);
  uint64_t attempts_ GUARDED_BY(mutex_) = 0;
};

template <class Stub>
class StubCreator : public StubCreatorBase {
 public:
  using StubCompletion =
      std::function<void(const boost::system::error_code&, std::shared_ptr<Stub>)>;
  using StubCreatorBase::StubCreatorBase;

  void Create(StubCompletion completion) {
    Start_([completion](const boost::system::error_code& ec, const ChannelPtr& channel) {
      completion(ec, ec ? nullptr : std::make_shared<Stub>(channel));
    });
  }
};

// Makes stub creators on a provider's transport, channels and timers.
class StubFactory {
 public:
  explicit StubFactory(std::shared_ptr<ZelRpcProvider> provider);

  template <class Stub>
  std::shared_ptr<StubCreator<Stub>> MakeCreator(const std::string& url, ChannelPriority priority,
                                                 int64_t timeoutMs, RetryPolicy policy,
                                                 ConnectionOptions options = {}) {
    const std::string service = Stub::ServiceName();
    return std::make_shared<StubCreator<Stub>>(MakeChannelCreator(url, service, priority, options),
                                               timers(), service, url, priority, timeoutMs,
                                               policy);
  }

  std::shared_ptr<ChannelCreator> MakeChannelCreator(const std::string& url,
                                                     const std::string& service,
                                                     ChannelPriority priority,
                                                     const ConnectionOptions& options);
  std::shared_ptr<TimerFactory> timers() const;

 private:
  const std::shared_ptr<ZelRpcProvider> provider_;
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_STUB_FACTORY_H_
