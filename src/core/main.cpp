// dorn-host-agent: the process entry. It takes no arguments, brings the
// agent's parts up in a fixed order, serves on this thread as the provider's
// dispatcher until a stop signal, and shuts the parts down.
//
// Signals. Before the provider runs, SIGINT and SIGABRT set the stop flag,
// SIGUSR1 is caught and does nothing, and SIGPIPE, SIGHUP, SIGTSTP, SIGCONT
// and SIGUSR2 are ignored. While the provider runs it owns SIGINT and
// SIGTERM: the first of them stops the dispatcher and puts both back to their
// default action. The stop flag is then still clear, so the entry waits and
// the next SIGINT or SIGTERM ends the process by that default action. A
// SIGABRT, before or after, sets the flag and leads to the orderly shutdown
// once the dispatcher has stopped.
//
// Exit. After the orderly shutdown main returns 0, and process exit then
// releases the communication handler, whose Monitor reference is the last:
// the Thread destructor joins the monitor thread, which is never interrupted,
// so the process stays until a signal ends it. That release is an exit
// handler registered once every singleton exists, so it runs before any of
// their destructors: the monitor goes on checking against live objects while
// the exit waits. Exceptions during start-up are not caught here; they end
// the process.
#include <sys/select.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include <boost/make_shared.hpp>
#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>

#include "core/communication_handler.h"
#include "core/dorn_properties.h"
#include "core/file_copy_manager.h"
#include "core/host_info.h"
#include "core/host_manager.h"
#include "core/host_operations.h"
#include "core/monitor.h"
#include "core/mpa_client_layer.h"
#include "core/rpc_manager.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "cpp/lib/common/logger.h"
#include "cpp/lib/common/workgroup/work_group.h"
#include "cpp/lib/rpc/asio_zel_provider.h"

namespace {

// The client name of the event loop of the local relay's library.
constexpr const char* kEventLoopClientName = "DORN";

// Set to 1 by the stop handler; read by the wait in main.
volatile std::sig_atomic_t g_stop = 0;

void StopHandler(int signo) {
  if (signo == SIGINT || signo == SIGABRT || signo == SIGTERM) g_stop = 1;
}

void IgnoreHandler(int /*signo*/) {}

void InstallSignalDispositions() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGTSTP, SIG_IGN);
  std::signal(SIGCONT, SIG_IGN);
  std::signal(SIGUSR2, SIG_IGN);
  std::signal(SIGINT, StopHandler);
  std::signal(SIGABRT, StopHandler);
  // SIGTERM is deliberately left alone: the provider takes it while it runs.
  std::signal(SIGUSR1, IgnoreHandler);
}

}  // namespace

int main() {
  using namespace ZelDorn;

  DORN_LOG(zel::kLogInfo).format("Starting Dorn Host Agent.");

  DORN_LOG(zel::kLogInfo).format("Loading Dorn Host Agent properties.");
  DornProperties::CreateInstance(DornProperties::kDefaultPath);

  InstallSignalDispositions();
  DORN_LOG(zel::kLogInfo).format("Signal handlers set.");

  DORN_LOG(zel::kLogInfo).format("Loading host information.");
  HostInfo::CreateInstance();

  DORN_LOG(zel::kLogInfo).format("Creating Host specific handler");
  HostOperations::CreateInstance();

  DORN_LOG(zel::kLogInfo).format("Creating Software manager");
  SoftwareManager::CreateInstance();

  DORN_LOG(zel::kLogInfo).format("Creating Monitor Thread.");
  boost::shared_ptr<Monitor> monitor(new Monitor(Monitor::kThreadName));

  DORN_LOG(zel::kLogInfo).format("Creating FileCopy manager");
  FileCopyManager::CreateInstance();

  DORN_LOG(zel::kLogInfo).format("Creating Rpc manager");
  RpcManager::CreateInstance();

  boost::shared_ptr<zel::rpc::AsioZelProvider> provider = zel::rpc::AsioZelProvider::Create(
      boost::property_tree::ptree(), zel::rpc::ProviderStartupOptions{/*stop_on_signals=*/true});

  zel::StartFrameworkWorkGroup(provider->GetMetricRegistry(), zel::kFrameworkWorkGroupThreads);

  DORN_LOG(zel::kLogInfo).format("Creating Communication Handler.");
  boost::shared_ptr<MpClientLayer> clientLayer = boost::make_shared<MpaClientLayer>(provider->GetMetricRegistry());
  clientLayer->StartEventLoop(kEventLoopClientName);
  CommunicationHandler::CreateInstance(monitor, provider.get(), clientLayer);

  DORN_LOG(zel::kLogInfo).format("Creating User Manager.");
  UserManager::CreateInstance();

  DORN_LOG(zel::kLogInfo).format("Creating Host Manager.");
  HostManager::CreateInstance();

  // A status file of an earlier run must not outlive it; the monitor writes
  // it anew. A missing file is fine.
  ::unlink(Monitor::kStatusFilePath);

  DORN_LOG(zel::kLogInfo).format("Starting Monitor Thread.");
  monitor->Start();

  // Exit handlers run before the destructors of statics built earlier than
  // their registration, so the join below comes first at exit.
  std::atexit([] { CommunicationHandler::ReleaseInstance(); });

  // Serves on this thread until the provider stops.
  CommunicationHandler::GetInstance()->Start();

  while (g_stop == 0) {
    DORN_LOG(zel::kLogVerbose).format("Select wait until receive a signal.");
    // No descriptors and no time-out: only a signal ends the wait.
    ::select(0, nullptr, nullptr, nullptr, nullptr);
  }

  DORN_LOG(zel::kLogInfo).format("Shutting down Dorn Host Agent - Start");
  CommunicationHandler::GetInstance()->Stop();
  // Logs "Stopping MPA client event loop thread...", stops the proxy client
  // and the library's event loop, and releases them.
  clientLayer->StopEventLoop();
  DORN_LOG(zel::kLogInfo).format("Shutting down Dorn Host Agent - Complete");

  clientLayer.reset();
  provider.reset();
  monitor.reset();
  return 0;
}
