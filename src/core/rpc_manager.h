// RpcManager: runs the shell commands of an MT_RUN_COMMAND request and answers
// with one status per command run.
//
// Threads: PerformRpc runs on the thread that delivers the request and holds
// the manager's mutex from before the first command to after the answer has
// been sent; a long command therefore holds up every later request on that
// thread. It calls no other manager while holding the mutex.
#ifndef DORN_CORE_RPC_MANAGER_H_
#define DORN_CORE_RPC_MANAGER_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace orvane {
namespace zel {
namespace dorn {
class DornMessage;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace ZelDorn {

class RpcManager {
 public:
  // Builds the process-wide instance (replacing any earlier one) and returns
  // it. Called once by the entry during start-up.
  static boost::shared_ptr<RpcManager> CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<RpcManager> GetInstance();

  RpcManager(const RpcManager&) = delete;
  RpcManager& operator=(const RpcManager&) = delete;

  // Runs the `runCommand` operand of each object of `request`, in order,
  // through HostOperations::Execute, and adds one status per command run:
  // COMMAND_SUCCESS (exit code 0) or COMMAND_FAILED, each with the object's
  // identifier and the command's standard output as message (present even
  // when empty). The first failing command ends the loop, so its status is
  // the last of the answer. A request with no objects is answered with no
  // status at all.
  // `replyTo` and `correlationId` (either may be null) are passed to
  // CommunicationHandler::SendMsg unchanged.
  void PerformRpc(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                  const char* correlationId);

 private:
  RpcManager() = default;

  boost::mutex mutex_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_RPC_MANAGER_H_
