// The thread of the MPA library: its event loop runs as one work item of the
// process-wide "framework" work group and holds that group thread until the
// loop is stopped. The loop reads every MPA connection of the process and
// runs the message callbacks.
//
//   zel::StartFrameworkWorkGroup(registry);
//   zel::StartMpaClientEventLoop("DORN");   // returns at once
//   ...                                     // register and serve clients
//   zel::StopMpaClientEventLoop();          // takes up to 5 seconds
//
// Threads: start and stop may be called from any thread but the event-loop
// thread itself, and not at the same time as each other.
#ifndef ZEL_MPACLIENT_RMQ_CLIENT_EVENT_LOOP_H_
#define ZEL_MPACLIENT_RMQ_CLIENT_EVENT_LOOP_H_

#include <string>

#include "cpp/lib/common/ref_counted.h"

namespace zel {

// The work of the event-loop item: one call of the library's event loop,
// which returns only when the loop stops.
class RmqClientEventLoopThread : public RefCounted<RmqClientEventLoopThread, IRefCountable> {
 public:
  RmqClientEventLoopThread() = default;
  RmqClientEventLoopThread(const RmqClientEventLoopThread&) = delete;
  RmqClientEventLoopThread& operator=(const RmqClientEventLoopThread&) = delete;

  void Run();
};

// Logs "Starting MPA client event loop thread...", keeps a process-wide
// RmqClientEventLoopThread and queues it on the "framework" work group, then
// prepares the proxy client. `clientName` names the event loop's user in the
// log. Throws std::logic_error, after logging, when there is no framework
// work group, when its queue refuses the item, or when a loop was started and
// not stopped.
void StartMpaClientEventLoop(const std::string& clientName);

// Logs "Stopping MPA client event loop thread...", stops the proxy client,
// stops the library's event loop (which closes every MPA connection without
// RMQ_CLIENT_CLOSE records and frees the group thread) and drops the
// process-wide reference. Safe to call when nothing was started: the library
// then logs that no loop runs.
void StopMpaClientEventLoop();

}  // namespace zel

#endif  // ZEL_MPACLIENT_RMQ_CLIENT_EVENT_LOOP_H_
