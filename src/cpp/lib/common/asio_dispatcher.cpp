#include "cpp/lib/common/asio_dispatcher.h"

#include <atomic>
#include <cstdio>
#include <list>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/common/logger.h"

namespace zel {

namespace {

std::atomic<uint32_t> g_nextDispatcherId{1};

const char* BoolText(bool value) { return value ? "true" : "false"; }

std::string ThisThreadIdText() {
  std::ostringstream out;
  out << boost::this_thread::get_id();
  return out.str();
}

}  // namespace

struct AsioDispatcher::Impl {
  using WorkGuard = boost::asio::executor_work_guard<boost::asio::io_context::executor_type>;

  Impl(boost::shared_ptr<boost::asio::io_context> ioContext, bool ownsIoContext)
      : id(g_nextDispatcherId.fetch_add(1)), io(std::move(ioContext)), ownsIo(ownsIoContext) {}

  const uint32_t id;
  const boost::shared_ptr<boost::asio::io_context> io;
  const bool ownsIo;

  // Keeps io_context::run from returning while the queue is empty.
  std::mutex workMutex;
  std::optional<WorkGuard> work;  // guarded by workMutex

  // The threads of Run. Run appends; only a joiner (holding joinMutex) removes
  // the threads it has joined, so a joiner may keep pointers into the list
  // while threadsMutex is released.
  mutable std::mutex threadsMutex;
  std::list<boost::thread> threads;  // guarded by threadsMutex
  std::mutex joinMutex;
};

AsioDispatcher::AsioDispatcher()
    : impl_(std::make_unique<Impl>(boost::make_shared<boost::asio::io_context>(), true)) {}

AsioDispatcher::AsioDispatcher(boost::shared_ptr<boost::asio::io_context> ioContext)
    : impl_(std::make_unique<Impl>(std::move(ioContext), false)) {
  if (!impl_->io) throw std::invalid_argument("AsioDispatcher: null io_context");
}

AsioDispatcher::~AsioDispatcher() {
  const uint32_t id = impl_->id;
  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: is being destroyed", id);
  try {
    Stop(impl_->ownsIo);
    JoinThreads_();
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: all threads joined", id);
  } catch (...) {
    ZEL_LOG_CAUGHT_EXCEPTION(ZEL_CORE_LOG, kTagCmnLib9999, "~AsioDispatcher");
  }
  // Whatever is still joinable is the thread running this destructor (or one
  // that failed to join): it holds its own reference to the io_context and
  // ends by itself once the loop has stopped.
  std::lock_guard<std::mutex> lock(impl_->threadsMutex);
  for (boost::thread& thread : impl_->threads) {
    if (thread.joinable()) thread.detach();
  }
}

void AsioDispatcher::Post(Function fn) { boost::asio::post(*impl_->io, std::move(fn)); }

void AsioDispatcher::Dispatch(Function fn) { boost::asio::dispatch(*impl_->io, std::move(fn)); }

void AsioDispatcher::Run() { Run(1, true); }

void AsioDispatcher::Run(std::size_t numThreads, bool blocking) {
  const uint32_t id = impl_->id;
  // The io_context must outlive a blocking run even if this object goes first.
  const boost::shared_ptr<boost::asio::io_context> io = impl_->io;

  ZEL_CORE_LOG(kLogVerbose).format("AsioDispatcher[%u]: run(num_threads: %zu, blocking: %s)", id,
                                   numThreads, BoolText(blocking));
  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: reset io_service", id);
  io->restart();
  {
    std::lock_guard<std::mutex> lock(impl_->workMutex);
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: create io_service work", id);
    impl_->work.reset();
    impl_->work.emplace(io->get_executor());
  }

  if (numThreads == 1 && blocking) {
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: block until io_service::run returns", id);
    io->run();
    return;
  }

  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: create %zu thread(s)", id, numThreads);
  {
    std::lock_guard<std::mutex> lock(impl_->threadsMutex);
    for (std::size_t i = 0; i < numThreads; ++i) {
      // Each thread holds the io_context, so a thread that outlives this
      // object (see the destructor) still runs on a live one.
      impl_->threads.emplace_back([io] { io->run(); });
    }
  }
  if (blocking) {
    ZEL_CORE_LOG(kLogDebug).format(
        "AsioDispatcher[%u]: block until io_service::run returns on all threads", id);
    JoinThreads_();
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: all threads joined", id);
  }
}

void AsioDispatcher::Stop(bool force) {
  const uint32_t id = impl_->id;
  ZEL_CORE_LOG(kLogVerbose).format("AsioDispatcher[%u]: stop(force: %s)", id, BoolText(force));
  {
    std::lock_guard<std::mutex> lock(impl_->workMutex);
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: releasing io_service work", id);
    impl_->work.reset();
  }
  if (force) {
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: stopping io_service", id);
    impl_->io->stop();
    ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: interrupting all threads", id);
    std::lock_guard<std::mutex> lock(impl_->threadsMutex);
    for (boost::thread& thread : impl_->threads) thread.interrupt();
  }
  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: stopped", id);
}

void AsioDispatcher::StopAndWait(bool force) {
  const uint32_t id = impl_->id;
  Stop(force);
  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: waiting for all async work to complete", id);
  if (IsOwnThread_()) {
    char text[256];
    snprintf(text, sizeof(text),
             "AsioDispatcher[%u]::StopAndWait: - joining thread group from one of its thread (%s) "
             "will cause deadlock!",
             id, ThisThreadIdText().c_str());
    throw std::runtime_error(text);
  }
  JoinThreads_();
  ZEL_CORE_LOG(kLogDebug).format("AsioDispatcher[%u]: all async work done", id);
}

uint32_t AsioDispatcher::id() const { return impl_->id; }

bool AsioDispatcher::OwnsIoContext() const { return impl_->ownsIo; }

std::size_t AsioDispatcher::NumThreads() const {
  std::lock_guard<std::mutex> lock(impl_->threadsMutex);
  return impl_->threads.size();
}

boost::asio::io_context& AsioDispatcher::GetIoContext() const { return *impl_->io; }

const boost::shared_ptr<boost::asio::io_context>& AsioDispatcher::GetIoContextHandle() const {
  return impl_->io;
}

bool AsioDispatcher::IsOwnThread_() const {
  const boost::thread::id self = boost::this_thread::get_id();
  std::lock_guard<std::mutex> lock(impl_->threadsMutex);
  for (const boost::thread& thread : impl_->threads) {
    if (thread.get_id() == self) return true;
  }
  return false;
}

void AsioDispatcher::JoinThreads_() {
  std::lock_guard<std::mutex> joinLock(impl_->joinMutex);
  const boost::thread::id self = boost::this_thread::get_id();
  std::vector<boost::thread*> toJoin;
  {
    std::lock_guard<std::mutex> lock(impl_->threadsMutex);
    for (boost::thread& thread : impl_->threads) {
      if (thread.joinable() && thread.get_id() != self) toJoin.push_back(&thread);
    }
  }
  // Joined without threadsMutex, so that Stop can still interrupt them.
  for (boost::thread* thread : toJoin) thread->join();
  std::lock_guard<std::mutex> lock(impl_->threadsMutex);
  impl_->threads.remove_if([](const boost::thread& thread) { return !thread.joinable(); });
}

}  // namespace zel
