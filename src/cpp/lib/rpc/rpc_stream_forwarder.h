// RpcStreamForwarder: relays one stream that is not for this node between a
// source connection (where the stream was opened) and a destination
// connection (where its service or endpoint lives), both ways, frame by
// frame, without decoding. Frames that come before the destination is bound
// wait in order and go out first once it is.
//
//   auto f = RpcStreamForwarder::Create(streamId, priority, source, manager, metricsRoot);
//   source->AddStreamForwarder(streamId, f);
//   f->Forward(firstFrame, source);      // queued: no destination yet
//   f->Bind(destination);                // sends the queue, then relays
//
// "RpcStreamForwarder[<stream id>]". Metrics under "rpc/forwarder":
// "bind/success", "bind/failure", "release", "rx/frames", "tx/frames",
// "drop/frames", and the amounts "rx/bytes", "tx/bytes"; under
// "rpc/forwarder/queue" the frames that waited for a destination ("frames")
// and their time in the queue ("latency").
//
// Threads: Forward runs on the read threads of both connections, Bind on the
// transport's dispatcher; one lock orders them. It is not held while frames
// are sent: until the queue has gone out, new frames join its end.
#ifndef ZEL_RPC_RPC_STREAM_FORWARDER_H_
#define ZEL_RPC_RPC_STREAM_FORWARDER_H_

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <boost/smart_ptr/weak_ptr.hpp>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/metrics/metric_key.h"
#include "cpp/lib/rpc/rpc_connection.h"

namespace zel {
namespace rpc {

// Told when a forwarder is released, so that whoever set it up can let go.
class ForwarderOwner {
 public:
  virtual ~ForwarderOwner() = default;
  virtual void ReleaseForwarder(const StreamForwarder& forwarder) = 0;
};

class RpcStreamForwarder : public StreamForwarder,
                           public std::enable_shared_from_this<RpcStreamForwarder> {
 public:
  static std::shared_ptr<RpcStreamForwarder> Create(const StreamId& id, uint32_t priority,
                                                    const boost::shared_ptr<RpcConnection>& source,
                                                    std::weak_ptr<ForwarderOwner> owner,
                                                    const metrics::MetricKeyPtr& metricsRoot,
                                                    const std::string& service);

  // Relays to `destination` from now on, after the queued frames.
  void Bind(const boost::shared_ptr<RpcConnection>& destination);

  // StreamForwarder
  void Release(std::optional<CloseReason> reason) override;
  bool Forward(const RpcFramePtr& frame, const boost::shared_ptr<RpcConnection>& from) override;
  uint32_t GetPriority() const override { return priority_; }
  const StreamId& GetStreamId() const override { return id_; }

  bool active() const;
  std::size_t queued() const;
  const std::string& name() const { return name_; }

  RpcStreamForwarder(const StreamId& id, uint32_t priority,
                     const boost::shared_ptr<RpcConnection>& source,
                     std::weak_ptr<ForwarderOwner> owner, const metrics::MetricKeyPtr& metricsRoot,
                     const std::string& service);

 private:
  const StreamId id_;
  const uint32_t priority_;
  const std::string name_;
  const std::weak_ptr<ForwarderOwner> owner_;
  CounterSet metrics_;
  CounterSet queueMetrics_;

  mutable Mutex mutex_;
  boost::weak_ptr<RpcConnection> source_ GUARDED_BY(mutex_);
  boost::weak_ptr<RpcConnection> destination_ GUARDED_BY(mutex_);
  bool bound_ GUARDED_BY(mutex_) = false;
  bool active_ GUARDED_BY(mutex_) = true;
  struct Queued {
    RpcFramePtr frame;
    std::chrono::steady_clock::time_point since;
  };
  std::deque<Queued> queued_ GUARDED_BY(mutex_);
};

// Rewrites the stream control section of `frame` in place to `control`
// (which must not be longer); false, logged (RPC60) by the caller otherwise.
[[nodiscard]] bool PatchStreamControl(const RpcFramePtr& frame,
                                      const ::orvane::zel::rpc::StreamControlMsg& control);

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_RPC_STREAM_FORWARDER_H_
