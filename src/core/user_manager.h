// UserManager: creates the local account of an MT_CREATE_USER request.
//
// Threads: CreateUser runs on the thread that delivers the request and holds
// the manager's mutex from before the user command to after the answer has
// been sent. The host's user scripts use fixed scratch file names, which is
// safe only because of this mutex. It calls no other manager while holding it.
#ifndef DORN_CORE_USER_MANAGER_H_
#define DORN_CORE_USER_MANAGER_H_

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

class UserManager {
 public:
  // Builds the process-wide instance (replacing any earlier one) and returns
  // it. Called once by the entry during start-up.
  static boost::shared_ptr<UserManager> CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<UserManager> GetInstance();

  UserManager(const UserManager&) = delete;
  UserManager& operator=(const UserManager&) = delete;

  // Creates the account named by the `createOrDeleteUser` operand of the
  // first object of `request` (later objects are not read) through
  // HostOperations::CreateUser, which replaces an account of the same name.
  // Answers MT_OPERATION_STATUS with one status and no other field:
  // USER_CREATE_DELETE_SUCCESS when the user command exited with 0,
  // USER_CREATE_DELETE_FAILED otherwise.
  // A request with no object at all runs no command: it is answered with
  // USER_CREATE_DELETE_FAILED and logged at WARN ("CreateUser request has no
  // user object. operation Id: %s").
  // `replyTo` and `correlationId` (either may be null) are passed to
  // CommunicationHandler::SendMsg unchanged.
  void CreateUser(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                  const char* correlationId);

 private:
  UserManager() = default;

  boost::mutex mutex_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_USER_MANAGER_H_
