#include "mpalib/net_api.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "cpp/lib/common/logger.h"
#include "mpalib/mpa_lib.h"
#include "mpalib/mpa_lib_result.h"
#include "util/MpaException.h"
#include "util/mpa_error_tags.h"

namespace {

// The process's one library; NETEventLoop makes it, NETStop deletes it.
std::mutex g_libMutex;
std::shared_ptr<ZelMpa::MpaLib> g_lib;  // guarded by g_libMutex

// Set once the first event loop runs; never cleared.
std::mutex g_readyMutex;
std::condition_variable g_readyCond;
bool g_ready = false;  // guarded by g_readyMutex

constexpr auto kReadyWait = std::chrono::seconds(1);

void SignalReady() {
  {
    std::lock_guard<std::mutex> lock(g_readyMutex);
    g_ready = true;
  }
  g_readyCond.notify_all();
}

std::shared_ptr<ZelMpa::MpaLib> CurrentLib() {
  std::lock_guard<std::mutex> lock(g_libMutex);
  return g_lib;
}

void LogNoEventLoop() {
  MPALIB_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA128)
      .format("RMQCLIENTLIB: No running NETEventLoop\n");
}

}  // namespace

int NETEventLoop(void* /*arg*/) {
  std::shared_ptr<ZelMpa::MpaLib> lib;
  {
    std::lock_guard<std::mutex> lock(g_libMutex);
    if (g_lib) {
      MPALIB_LOG(zel::kLogError)
          .addTag(ZelMpa::tag::MPA128)
          .format("RMQCLIENTLIB: Existing NETEventLoop already running\n");
      return 0;
    }
    g_lib = std::make_shared<ZelMpa::MpaLib>(true, &SignalReady);
    lib = g_lib;
  }
  try {
    lib->Start();
  } catch (const ZelMpa::MpaException& e) {
    MPALIB_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA101)
        .format("RMQCLIENTLIB: NETEventLoop failed to start: %s", e.what());
  }
  MPALIB_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA128)
      .format("RMQCLIENTLIB: NETEventLoop unexpected break\n");
  return 0;
}

int NETRegister(const char* /*id*/, const char* name, int type, const bson* headers,
                rmqClientCallback callback, const rmqClientEndpoint* endpoint) {
  if (name == nullptr || callback == nullptr) {
    MPALIB_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA2)
        .format("Registration Init, Invalid Arguments\n");
    return ZelMpa::kMpaInvalidArgument;
  }
  {
    std::unique_lock<std::mutex> lock(g_readyMutex);
    g_readyCond.wait_for(lock, kReadyWait, [] { return g_ready; });
  }
  std::shared_ptr<ZelMpa::MpaLib> lib = CurrentLib();
  if (!lib) {
    LogNoEventLoop();
    return ZelMpa::kMpaNoEventLoop;
  }
  return lib->Init(name, type, headers, callback, endpoint);
}

int NETClose(int cookie) {
  std::shared_ptr<ZelMpa::MpaLib> lib = CurrentLib();
  if (!lib) {
    LogNoEventLoop();
    return ZelMpa::kMpaNoEventLoop;
  }
  return lib->CloseClient(cookie, false);
}

int NETSend(const rmqClientMessage* message, char* messageIdOut) {
  std::shared_ptr<ZelMpa::MpaLib> lib = CurrentLib();
  if (!lib) {
    LogNoEventLoop();
    return ZelMpa::kMpaNoEventLoop;
  }
  return lib->Send(message, messageIdOut);
}

int NETSendToHost(const rmqClientMessage* /*message*/) {
  MPALIB_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA2)
      .format("RMQCLIENTLIB: SendToHost not supported; no-op\n");
  return ZelMpa::kMpaUnsupported;
}

int NETStop() {
  std::shared_ptr<ZelMpa::MpaLib> lib = CurrentLib();
  if (!lib) {
    MPALIB_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA128)
        .format("RMQCLIENTLIB: No NETEventLoop running");
    return ZelMpa::kMpaNoEventLoop;
  }
  lib->Stop(false);
  {
    std::lock_guard<std::mutex> lock(g_libMutex);
    if (g_lib == lib) g_lib.reset();
  }
  // The library is deleted here, or by the event-loop thread if it still
  // holds it.
  lib.reset();
  MPALIB_LOG(zel::kLogInfo).format("RMQCLIENTLIB: NETEventLoop stopped");
  return 0;
}
