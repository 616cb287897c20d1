// zel::AsioDispatcher: the Dispatcher on a boost::asio::io_context.
//
// Run(n, false) starts n threads that serve the io_context and returns;
// Run(n, true) serves until the loop ends, on the calling thread itself when n
// is 1 (the agent's entry thread becomes the dispatcher this way) and on n new
// threads, all joined before it returns, otherwise.
//
// Code that needs the io_context itself (timers, sockets) takes it from
// GetIoContext() or, to share its lifetime, GetIoContextHandle(). This header
// only forward-declares the io_context; include <boost/asio/io_context.hpp>
// where its members are used.
//
// Threads: Post, Dispatch, Stop and the accessors may be called from any
// thread, including from a handler. StopAndWait joins the dispatcher's threads
// and throws when called from one of them. Run may be called again once the
// threads of the previous run have ended (StopAndWait).
#ifndef ZEL_COMMON_ASIO_DISPATCHER_H_
#define ZEL_COMMON_ASIO_DISPATCHER_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "cpp/lib/common/dispatcher.h"

namespace boost {
namespace asio {
class io_context;
}  // namespace asio
}  // namespace boost

namespace zel {

class AsioDispatcher : public Dispatcher {
 public:
  // Creates and owns its io_context. The destructor stops it with force.
  AsioDispatcher();
  // Serves an io_context that others may also run or post to. The destructor
  // stops it without force: it releases this dispatcher's work and waits for
  // its own threads, which end once the io_context has no work left.
  explicit AsioDispatcher(boost::shared_ptr<boost::asio::io_context> ioContext);

  // Stops (with force when it owns the io_context) and joins its threads.
  // Never throws. When the last reference goes on one of the dispatcher's own
  // threads, that thread is left to end by itself instead of being joined.
  ~AsioDispatcher() override;

  // Dispatcher
  void Post(Function fn) override;
  void Dispatch(Function fn) override;
  // Run(1, true).
  void Run() override;
  // Releases the work that keeps the loop alive, so that the threads end once
  // the queued handlers and pending operations have completed. With `force`
  // the io_context is stopped as well: the threads end after the handler they
  // are running, handlers still queued are not run, and every thread is
  // interrupted so that a handler blocked at a boost::thread interruption
  // point is woken. Does not wait.
  void Stop(bool force) override;

  // Resets the io_context, takes new work on it and serves it: see the top of
  // this file. Run(0, false) starts nothing, so nothing is run until a later
  // Run. Throws boost::thread_resource_error when a thread can't be created;
  // an exception from a handler leaves io_context::run as asio defines.
  void Run(std::size_t numThreads, bool blocking);
  // Stop(force), then joins every thread of the dispatcher. Throws
  // std::runtime_error, after stopping, when called from one of those threads
  // since that would wait for itself.
  void StopAndWait(bool force);

  uint32_t id() const;
  bool OwnsIoContext() const;
  // Threads started by Run and not yet joined.
  std::size_t NumThreads() const;
  // True on one of the threads started by Run.
  bool IsOwnThread() const { return IsOwnThread_(); }

  boost::asio::io_context& GetIoContext() const;
  const boost::shared_ptr<boost::asio::io_context>& GetIoContextHandle() const;

 private:
  struct Impl;

  bool IsOwnThread_() const;
  void JoinThreads_();

  std::unique_ptr<Impl> impl_;
};

}  // namespace zel

#endif  // ZEL_COMMON_ASIO_DISPATCHER_H_
