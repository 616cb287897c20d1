// Thread: the base of the agent's own long-running threads (the software
// monitor, the management-plane join monitor).
//
// A subclass implements run(); Start() launches one boost::thread that calls
// it. An interruption (boost::thread_interrupted) that leaves run() ends the
// thread quietly with the INFO line "Thread got interrupted."; any other
// exception leaves the thread body and ends the process.
//
// Nothing here ever interrupts the thread. The destructor joins it, so a
// thread whose run() loops for ever holds its owner's destructor for ever;
// the agent relies on that to keep the monitor alive until the process is
// signalled.
//
// Threads: Start(), Join() and the destructor are called by the owner, one
// thread at a time; Interrupt() may be called from any thread once Start()
// has returned.
#ifndef DORN_CORE_THREAD_H_
#define DORN_CORE_THREAD_H_

#include <memory>
#include <string>

namespace boost {
class thread;
}  // namespace boost

namespace ZelDorn {

class Thread {
 public:
  explicit Thread(const std::string& name);

  // Joins the thread if it was started, then releases it. Never interrupts.
  //
  // Called on the thread itself (its run() dropped the last owner), the join
  // would wait for ever: the thread is detached instead and
  // boost::thread_resource_error (error number 35, EDEADLK, "boost thread:
  // trying joining itself") is thrown. The destructor is noexcept(false) so
  // that a plain `delete` can see that error; through a shared pointer the
  // throw ends the process, like any other exception on an agent thread.
  //
  // The destructor is virtual so that deleting through a Thread pointer is
  // safe. Note the order of destruction: this join runs after the subclass's
  // members are gone, so a subclass whose run() uses its own members must
  // call Join() first in its own destructor.
  virtual ~Thread() noexcept(false);

  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The thread body, run once on the new thread.
  virtual void run() = 0;

  // Launches the thread. Throws boost::thread_resource_error when the thread
  // cannot be created and std::logic_error when it was already started.
  void Start();

  // Waits for run() to return, if the thread was started and has not been
  // joined yet. Never interrupts. Throws boost::thread_resource_error
  // ("boost thread: trying joining itself") when called on the thread itself.
  void Join();

  // Asks the thread to stop at its next interruption point. The agent itself
  // never does this; tests and tools may.
  void Interrupt();

  bool started() const { return static_cast<bool>(thread_); }
  const std::string& name() const { return name_; }

 private:
  // Runs run() and turns an interruption into a quiet end.
  void Body_();

  const std::string name_;
  std::unique_ptr<boost::thread> thread_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_THREAD_H_
