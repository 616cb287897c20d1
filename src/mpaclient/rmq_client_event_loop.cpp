#include "mpaclient/rmq_client_event_loop.h"

#include <mutex>
#include <stdexcept>

#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/workgroup/work_group.h"
#include "mpaclient/rmq_client.h"
#include "mpaclient/tnproxy_no_road.h"
#include "util/mpa_error_tags.h"

namespace zel {

namespace {

std::mutex g_loopMutex;
RefPtr<RmqClientEventLoopThread> g_loop;  // guarded by g_loopMutex

[[noreturn]] void FailStart(const char* what) {
  MPA_CLIENT_LOG(kLogError)
      .addTag(ZelMpa::tag::MPAERR_MPA_EVENT_LOOP_START)
      .format("Unable to start MPA client event loop thread: %s", what);
  throw std::logic_error(std::string("MPA client event loop: ") + what);
}

}  // namespace

void RmqClientEventLoopThread::Run() {
  RefPtr<RmqClientInterface> client = MakeRefCounted<RmqClient>();
  client->EventLoop(nullptr);
}

void StartMpaClientEventLoop(const std::string& clientName) {
  MPA_CLIENT_LOG(kLogInfo).format("Starting MPA client event loop thread...");
  {
    std::lock_guard<std::mutex> lock(g_loopMutex);
    if (g_loop) FailStart("already started");
    RefPtr<WorkGroup> group = GetFrameworkWorkGroup();
    if (!group) FailStart("no framework work group");
    RefPtr<RmqClientEventLoopThread> loop = MakeRefCounted<RmqClientEventLoopThread>();
    if (!group->Push(MakeWorkItem(loop, &RmqClientEventLoopThread::Run))) {
      FailStart("framework work group queue is full");
    }
    g_loop = loop;
  }
  MPA_CLIENT_LOG(kLogVerbose).format("MPA client event loop queued for %s", clientName.c_str());
  tnproxy_no_road::InitProxyClient(tnproxy_no_road::kApplProxyInfoEndpoint);
}

void StopMpaClientEventLoop() {
  MPA_CLIENT_LOG(kLogInfo).format("Stopping MPA client event loop thread...");
  tnproxy_no_road::StopProxyClient();
  MakeRefCounted<RmqClient>()->StopEventLoop();
  std::lock_guard<std::mutex> lock(g_loopMutex);
  g_loop.reset();
}

}  // namespace zel
