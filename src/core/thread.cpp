#include "core/thread.h"

#include <errno.h>

#include <stdexcept>

#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "cpp/lib/common/logger.h"

namespace ZelDorn {

namespace {

constexpr const char* kJoinItself = "boost thread: trying joining itself";

bool IsCurrentThread(const boost::thread& thread) {
  return thread.get_id() == boost::this_thread::get_id();
}

}  // namespace

Thread::Thread(const std::string& name) : name_(name) {}

Thread::~Thread() noexcept(false) {
  if (!thread_) return;
  if (IsCurrentThread(*thread_)) {
    // The thread cannot wait for its own end. Let it run out on its own
    // instead of leaving a joinable handle behind.
    thread_->detach();
    thread_.reset();
    throw boost::thread_resource_error(EDEADLK, kJoinItself);
  }
  if (thread_->joinable()) thread_->join();
  thread_->detach();
  thread_.reset();
}

void Thread::Start() {
  if (thread_) throw std::logic_error("Thread " + name_ + " already started");
  thread_.reset(new boost::thread([this] { Body_(); }));
}

void Thread::Join() {
  if (!thread_ || !thread_->joinable()) return;
  if (IsCurrentThread(*thread_)) throw boost::thread_resource_error(EDEADLK, kJoinItself);
  thread_->join();
}

void Thread::Interrupt() {
  if (thread_) thread_->interrupt();
}

void Thread::Body_() {
  try {
    run();
  } catch (const boost::thread_interrupted&) {
    DORN_LOG(zel::kLogInfo).format("Thread got interrupted.");
  }
}

}  // namespace ZelDorn
