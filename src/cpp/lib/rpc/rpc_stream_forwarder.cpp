#include "cpp/lib/rpc/rpc_stream_forwarder.h"

#include <cstring>
#include <utility>
#include <vector>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/rpc/error_tags.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace zel {
namespace rpc {
namespace {

enum ForwarderEvent { kBindSuccess, kBindFailure, kRelease, kRxFrames, kTxFrames, kDropFrames };
enum ForwarderAmount { kRxBytes, kTxBytes };

}  // namespace

bool PatchStreamControl(const RpcFramePtr& frame,
                        const ::orvane::zel::rpc::StreamControlMsg& control) {
  std::string bytes;
  if (!control.SerializeToString(&bytes)) return false;
  return frame->ReplaceStreamControl(bytes);
}

std::shared_ptr<RpcStreamForwarder> RpcStreamForwarder::Create(
    const StreamId& id, uint32_t priority, const boost::shared_ptr<RpcConnection>& source,
    std::weak_ptr<ForwarderOwner> owner, const metrics::MetricKeyPtr& metricsRoot,
    const std::string& service) {
  return std::make_shared<RpcStreamForwarder>(id, priority, source, std::move(owner), metricsRoot,
                                              service);
}

RpcStreamForwarder::RpcStreamForwarder(const StreamId& id, uint32_t priority,
                                       const boost::shared_ptr<RpcConnection>& source,
                                       std::weak_ptr<ForwarderOwner> owner,
                                       const metrics::MetricKeyPtr& metricsRoot,
                                       const std::string& service)
    : id_(id),
      priority_(priority),
      name_("RpcStreamForwarder[" + StreamIdText(id) + "]"),
      owner_(std::move(owner)),
      metrics_(metricsRoot ? metricsRoot->subkey("rpc/forwarder") : nullptr,
               "service=" + service + ",priority=" + StreamPriorityName(priority),
               {"bind/success", "bind/failure", "release", "rx/frames", "tx/frames", "drop/frames"},
               {"rx/bytes", "tx/bytes"}),
      queueMetrics_(metricsRoot ? metricsRoot->subkey("rpc/forwarder/queue") : nullptr,
                    "service=" + service + ",priority=" + StreamPriorityName(priority),
                    {"frames"}, {}, {"latency"}),
      source_(source) {}

bool RpcStreamForwarder::active() const {
  MutexLock lock(mutex_);
  return active_;
}

std::size_t RpcStreamForwarder::queued() const {
  MutexLock lock(mutex_);
  return queued_.size();
}

bool RpcStreamForwarder::Forward(const RpcFramePtr& frame,
                                 const boost::shared_ptr<RpcConnection>& from) {
  boost::shared_ptr<RpcConnection> target;
  {
    MutexLock lock(mutex_);
    if (!active_) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Is inactive - dropping frame", name_.c_str());
      metrics_.Mark(kDropFrames);
      return false;
    }
    if (!bound_) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Queuing frame", name_.c_str());
      queued_.push_back({frame, std::chrono::steady_clock::now()});
      queueMetrics_.Mark(0);
      return true;
    }
    ZEL_RPC_LOG(kLogDebug).format("%s Sending frame", name_.c_str());
    target = from == source_.lock() ? destination_.lock() : source_.lock();
  }
  metrics_.Mark(kRxFrames);
  metrics_.Add(kRxBytes, frame->size());
  if (!target) return false;
  metrics_.Mark(kTxFrames);
  metrics_.Add(kTxBytes, frame->size());
  return target->Send(frame, priority_).ok();
}

void RpcStreamForwarder::Bind(const boost::shared_ptr<RpcConnection>& destination) {
  const std::string to = destination->ToString();
  ZEL_RPC_LOG(kLogVerbose).format("%s Binding to %s", name_.c_str(), to.c_str());
  if (!active()) {
    ZEL_RPC_LOG(kLogVerbose).format("%s Is inactive - won't bind to destination %s", name_.c_str(),
                                    to.c_str());
    metrics_.Mark(kBindFailure);
    return;
  }
  if (!destination->AddStreamForwarder(id_, shared_from_this())) {
    ZEL_RPC_LOG(kLogError)
        .addTag(kTagRpc60)
        .format("%s Failed to bind to %s", name_.c_str(), to.c_str());
    metrics_.Mark(kBindFailure);
    // Nothing can take the stream's frames: it ends here.
    Release(CloseReason::NETWORK_ERROR);
    return;
  }
  {
    MutexLock lock(mutex_);
    if (!active_) {
      // Released while binding: the destination lets go of it too.
      lock.Unlock();
      metrics_.Mark(kBindFailure);
      destination->ReleaseStreamForwarder(id_, std::nullopt);
      return;
    }
    destination_ = destination;
  }
  metrics_.Mark(kBindSuccess);
  // The queue goes out in order, without the lock; frames that come
  // meanwhile join its end, until it is empty and frames pass straight on.
  for (;;) {
    std::deque<Queued> batch;
    {
      MutexLock lock(mutex_);
      if (queued_.empty() || !active_) {
        bound_ = active_;
        return;
      }
      batch.swap(queued_);
    }
    const auto now = std::chrono::steady_clock::now();
    for (const Queued& q : batch) {
      ZEL_RPC_LOG(kLogDebug).format("%s Sending queued frame", name_.c_str());
      queueMetrics_.Record(
          0, std::chrono::duration_cast<std::chrono::microseconds>(now - q.since).count());
      metrics_.Mark(kTxFrames);
      metrics_.Add(kTxBytes, q.frame->size());
      destination->Send(q.frame, priority_);
    }
  }
}

void RpcStreamForwarder::Release(std::optional<CloseReason> reason) {
  boost::shared_ptr<RpcConnection> source;
  boost::shared_ptr<RpcConnection> destination;
  std::size_t dropped = 0;
  {
    MutexLock lock(mutex_);
    // A connection releasing this forwarder in turn finds it gone.
    if (!active_) return;
    active_ = false;
    source = source_.lock();
    destination = destination_.lock();
    source_.reset();
    destination_.reset();
    dropped = queued_.size();
    queued_.clear();
  }
  try {
    ZEL_RPC_LOG(kLogVerbose).format("%s Releasing (%s)", name_.c_str(),
                                    reason ? rpc::ToString(*reason) : "NONE");
    if (source) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Releasing source %s", name_.c_str(),
                                      source->ToString().c_str());
      source->ReleaseStreamForwarder(id_, reason);
    }
    if (destination) {
      ZEL_RPC_LOG(kLogVerbose).format("%s Releasing destination %s", name_.c_str(),
                                      destination->ToString().c_str());
      destination->ReleaseStreamForwarder(id_, reason);
    }
    metrics_.Mark(kRelease);
    for (std::size_t i = 0; i < dropped; ++i) metrics_.Mark(kDropFrames);
    if (auto owner = owner_.lock()) owner->ReleaseForwarder(*this);
  } catch (const std::exception& e) {
    ZEL_RPC_LOG(kLogError).format("Exception caught %s", e.what());
  }
}

}  // namespace rpc
}  // namespace zel
