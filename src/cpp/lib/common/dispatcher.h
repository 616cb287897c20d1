// zel::Dispatcher: the event loop of the libraries, a set of threads that run
// posted work and the completions of asynchronous operations.
//
// AsioDispatcher (asio_dispatcher.h) is the implementation; code that only
// needs to hand work to a loop should depend on this interface.
//
// Threads: Post and Dispatch may be called from any thread, including from a
// function that already runs on the dispatcher. Handlers run on the
// dispatcher's threads, on any of them when there are several, and never with
// a lock of the caller held.
#ifndef ZEL_COMMON_DISPATCHER_H_
#define ZEL_COMMON_DISPATCHER_H_

#include <boost/function.hpp>

namespace zel {

class Dispatcher {
 public:
  using Function = boost::function<void()>;

  virtual ~Dispatcher() = default;

  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  // Queues `fn` to run later on a dispatcher thread; never runs it inline.
  virtual void Post(Function fn) = 0;
  // Runs `fn` at once when the caller is a dispatcher thread, and queues it
  // like Post otherwise.
  virtual void Dispatch(Function fn) = 0;
  // Serves the loop on the calling thread until it is stopped.
  virtual void Run() = 0;
  // Ends the loop; see AsioDispatcher::Stop for what `force` drops. Does not
  // wait for the threads.
  virtual void Stop(bool force) = 0;

 protected:
  Dispatcher() = default;
};

}  // namespace zel

#endif  // ZEL_COMMON_DISPATCHER_H_
