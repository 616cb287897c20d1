// SoftwareManager: the list of packages the management plane wants on this
// host (the tracking list), the computation of which of them are unmet, and
// the package and service requests (MT_INIT, MT_SOFTWARE_STATUS,
// MT_STOP_SERVICES, MT_RESTART_SERVICES, MT_FIND_MISSING_PACKAGES_FROM_LIST).
//
// Threads: the delivering thread (requests) and the monitor thread
// (GetUnmet) meet here. The mutex guards the tracking list and, because
// every path to it runs through this class, the software list text held by
// HostOperations. GetUnmet, StopServices, RestartServices and
// FindMissingPackagesFromList hold it for their whole run, the last three
// including the send of their answer; AppInit and SoftwareStatus take it only
// inside Track, ClearTracked and GetUnmet, and send with it released. No other
// manager is called while it is held.
#ifndef DORN_CORE_SOFTWARE_MANAGER_H_
#define DORN_CORE_SOFTWARE_MANAGER_H_

#include <memory>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

namespace orvane {
namespace zel {
namespace dorn {
class DornMessage;
class Software;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace ZelDorn {

class SoftwareManager {
 public:
  // Unmet packages, each a copy of its tracked entry with `state` and
  // `version` set to what was found. Owned by the caller.
  using SoftwareList = std::vector<std::unique_ptr<orvane::zel::dorn::Software>>;

  // Builds the process-wide instance with an empty tracking list (replacing
  // any earlier one) and returns it. Called once by the entry at start-up.
  static boost::shared_ptr<SoftwareManager> CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<SoftwareManager> GetInstance();

  ~SoftwareManager();
  SoftwareManager(const SoftwareManager&) = delete;
  SoftwareManager& operator=(const SoftwareManager&) = delete;

  // Appends a copy of `software` (`name` and expected `version`) to the
  // tracking list.
  void Track(const orvane::zel::dorn::Software& software);
  // Empties the tracking list.
  void ClearTracked();

  // The tracked entries that are not met, in tracking order. An entry is met
  // when its expected version occurs anywhere in the installed version text
  // ("1.2" is met by "1.2.3-4" and by "11.2"; an empty expected version is
  // met even by an absent package). An unmet entry reports state
  // INVALID_VERSION with the installed version, or ABSENT with an empty
  // version. Refreshes the host's software list (one command) unless the
  // tracking list is empty, in which case no command runs.
  SoftwareList GetUnmet();

  // The request operations. `replyTo` and `correlationId` (either may be
  // null) are passed to CommunicationHandler::SendMsg unchanged; a failed
  // send is logged there and not reported here.

  // MT_INIT: replaces the tracking list with the `software` operands of the
  // request's objects (an object without one tracks an empty name). Answers
  // with a bare MT_INIT (same operation id and correlation flag) unless the
  // operation id is empty, in which case nothing is sent. The caller sets
  // the monitor's force-publish flag afterwards.
  void AppInit(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
               const char* correlationId);
  // MT_SOFTWARE_STATUS: answers MT_OPERATION_STATUS with one object per unmet
  // package, carrying only its `software`, and no status; sent also when
  // nothing is unmet.
  void SoftwareStatus(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                      const char* correlationId);
  // MT_STOP_SERVICES / MT_RESTART_SERVICES: runs "/etc/init.d/<name> stop"
  // (or "restart") for each object in order, the first failure ending the
  // loop. For both actions the service name is read from the object's
  // `restartServices` operand; `stopServices` is not consulted. Answers with
  // one status: COMMAND_SUCCESS when every script exited with 0, otherwise
  // COMMAND_FAILED with the failing object's identifier. A request with no
  // objects is answered COMMAND_FAILED with an empty identifier.
  void StopServices(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                    const char* correlationId);
  void RestartServices(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                       const char* correlationId);
  // MT_FIND_MISSING_PACKAGES_FROM_LIST: answers MT_OPERATION_STATUS with one
  // object, carrying a copy of the request's `findMissingPackagesFromList`
  // operand, per package not found in the software list as the last check or
  // status request left it (the list is not refreshed here, so before any
  // check every package reads as missing).
  void FindMissingPackagesFromList(const orvane::zel::dorn::DornMessage& request,
                                   const char* replyTo, const char* correlationId);

 private:
  SoftwareManager();

  void StopOrRestartServices_(const orvane::zel::dorn::DornMessage& request,
                              const char* replyTo, const char* correlationId,
                              const char* action);

  boost::mutex mutex_;
  // Guarded by mutex_.
  std::vector<std::unique_ptr<orvane::zel::dorn::Software>> tracked_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_SOFTWARE_MANAGER_H_
