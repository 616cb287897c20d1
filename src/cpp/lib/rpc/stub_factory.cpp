#include "cpp/lib/rpc/stub_factory.h"

#include <utility>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/channel_impl.h"
#include "cpp/lib/rpc/error_tags.h"
#include "cpp/lib/rpc/rpc_error.h"
#include "cpp/lib/rpc/rpc_transport.h"
#include "cpp/lib/rpc/zel_rpc_provider.h"
#include "cpp/lib/timer/timer_factory.h"

namespace zel {
namespace rpc {

using boost::system::error_code;

ChannelCreator::ChannelCreator(std::shared_ptr<Transport> transport,
                               std::shared_ptr<ChannelFactoryInterface> channels, std::string url,
                               std::string service, ChannelPriority priority,
                               ConnectionOptions options)
    : transport_(std::move(transport)),
      channels_(std::move(channels)),
      url_(std::move(url)),
      service_(std::move(service)),
      priority_(priority),
      options_(std::move(options)) {}

void ChannelCreator::Create(Done done) {
  std::shared_ptr<ChannelFactoryInterface> channels = channels_;
  const std::string url = url_;
  const std::string service = service_;
  const ChannelPriority priority = priority_;
  transport_->GetConnection(
      url_, options_,
      [channels, url, service, priority, done](const error_code& ec,
                                               const boost::shared_ptr<RpcConnection>& c) {
        if (ec || !c) {
          return done(ec ? ec : error_code(ENOTCONN, boost::system::system_category()), nullptr);
        }
        boost::shared_ptr<ChannelImpl> channel =
            channels->CreateClientChannel(url, service, c, priority);
        channel->OpenOnClient(done);
      });
}

// ---------------------------------------------------------------------------

StubCreatorBase::StubCreatorBase(std::shared_ptr<ChannelCreator> channels,
                                 std::shared_ptr<TimerFactory> timers, const std::string& service,
                                 const std::string& url, ChannelPriority priority,
                                 int64_t timeoutMs, RetryPolicy policy)
    : channels_(std::move(channels)),
      timers_(std::move(timers)),
      name_("RpcStubCreator[" + service + ", " + url + ", " + rpc::ToString(priority) + "]"),
      timeoutMs_(timeoutMs),
      policy_(std::move(policy)) {}

StubCreatorBase::~StubCreatorBase() {
  try {
    TimerPtr timeout, retry;
    {
      MutexLock lock(mutex_);
      timeout = std::move(timeout_);
      retry = std::move(retry_);
    }
    if (timeout) timeout->Cancel();
    if (retry) retry->Cancel();
  } catch (const std::exception& e) {
    ZEL_RPC_LOG(kLogError).addTag(kTagRpc9999).format("Exception in %s: %s", name_.c_str(), e.what());
  }
}

uint64_t StubCreatorBase::attempts() const {
  MutexLock lock(mutex_);
  return attempts_;
}

void StubCreatorBase::Start_(Completion completion) {
  const char* name = name_.c_str();
  ZEL_RPC_LOG(kLogVerbose).format("%s Initiating stub creation", name);
  std::weak_ptr<StubCreatorBase> weak = weak_from_this();
  {
    MutexLock lock(mutex_);
    if (completion_ || attempts_ > 0) {
      // One creation per creator: a second caller hears at once.
      lock.Unlock();
      ZEL_RPC_LOG(kLogWarn).format("%s Stub creation already initiated", name);
      completion(error_code(EALREADY, boost::system::generic_category()), nullptr);
      return;
    }
    completion_ = std::move(completion);
    if (timeoutMs_ < 1) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Stub creation timeout is infinite", name);
    } else {
      ZEL_RPC_LOG(kLogVerbose).format("%s Scheduling stub creation timeout of %li ms", name,
                                      static_cast<long>(timeoutMs_));
      const std::string self = name_;
      timeout_ = timers_->CreateTimer(std::chrono::milliseconds(timeoutMs_), [weak, self] {
        if (auto creator = weak.lock()) {
          creator->OnTimeout_();
        } else {
          ZEL_RPC_LOG(kLogVerbose).format("%s Ignoring timeout callback - already destroyed",
                                          self.c_str());
        }
      });
    }
  }
  Request_();
}

void StubCreatorBase::Request_() {
  {
    MutexLock lock(mutex_);
    if (!completion_) return;
    ++attempts_;
  }
  ZEL_RPC_LOG(kLogVerbose).format("%s Requesting new channel", name_.c_str());
  // A request that never answers (a name nobody announces) must not keep a
  // creator that its owner has let go of.
  std::weak_ptr<StubCreatorBase> weak = weak_from_this();
  channels_->Create([weak](const error_code& ec, const ChannelPtr& channel) {
    if (auto self = weak.lock()) {
      self->OnChannel_(ec, channel);
    } else if (channel && !ec) {
      channel->Close(CloseReason::CLOSED_BY_USER);
    }
  });
}

StubCreatorBase::Completion StubCreatorBase::Finish_() {
  Completion completion = std::move(completion_);
  completion_ = nullptr;
  if (timeout_) timeout_->Cancel();
  if (retry_) retry_->Cancel();
  timeout_.reset();
  retry_.reset();
  return completion;
}

void StubCreatorBase::OnChannel_(const error_code& ec, const ChannelPtr& channel) {
  const char* name = name_.c_str();
  Completion completion;
  error_code failure;
  {
    MutexLock lock(mutex_);
    if (!completion_) {
      // Timed out meanwhile: the late channel is not wanted.
      lock.Unlock();
      if (channel && !ec) channel->Close(CloseReason::CLOSED_BY_USER);
      return;
    }
    if (!ec && channel) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Successfully created stub", name);
      completion = Finish_();
    } else {
      const int64_t delay = policy_.NextDelay();
      if (delay >= 0) {
        ZEL_RPC_LOG(kLogVerbose).format("%s Scheduling channel request in %li ms", name,
                                        static_cast<long>(delay));
        std::weak_ptr<StubCreatorBase> weak = weak_from_this();
        retry_ = timers_->CreateTimer(std::chrono::milliseconds(delay), [weak] {
          if (auto creator = weak.lock()) creator->Request_();
        });
        return;
      }
      ZEL_RPC_LOG(kLogWarn).format("%s Maximum number of attempts reached", name);
      failure = ec ? ec : error_code(ENOTCONN, boost::system::system_category());
      completion = Finish_();
    }
  }
  completion(failure, failure ? nullptr : channel);
}

void StubCreatorBase::OnTimeout_() {
  const char* name = name_.c_str();
  Completion completion;
  {
    MutexLock lock(mutex_);
    if (!completion_) return;
    ZEL_RPC_LOG(kLogWarn).format("%s Timeout reached (%li ms)", name, static_cast<long>(timeoutMs_));
    ZEL_RPC_LOG(kLogWarn).format("%s Failed to create stub in time", name);
    completion = Finish_();
  }
  completion(error::make_error_code(error::timed_out), nullptr);
}

// ---------------------------------------------------------------------------

StubFactory::StubFactory(std::shared_ptr<ZelRpcProvider> provider)
    : provider_(std::move(provider)) {}

std::shared_ptr<ChannelCreator> StubFactory::MakeChannelCreator(const std::string& url,
                                                                const std::string& service,
                                                                ChannelPriority priority,
                                                                const ConnectionOptions& options) {
  return std::make_shared<ChannelCreator>(provider_->GetTransport(),
                                          provider_->GetChannelFactory(), url, service, priority,
                                          options);
}

std::shared_ptr<TimerFactory> StubFactory::timers() const { return provider_->GetTimers(); }

}  // namespace rpc
}  // namespace zel
