// FileCopyManager: writes the files of an MT_FILE_COPY request and answers
// with one status.
//
// Threads: CopyFiles runs on the thread that delivers the request and holds
// the manager's mutex from before the first write to after the answer has been
// sent, so two copies never overlap and their answers leave in order. It calls
// no other manager while holding the mutex.
#ifndef DORN_CORE_FILE_COPY_MANAGER_H_
#define DORN_CORE_FILE_COPY_MANAGER_H_

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

class FileCopyManager {
 public:
  // Builds the process-wide instance (replacing any earlier one) and returns
  // it. Called once by the entry during start-up.
  static boost::shared_ptr<FileCopyManager> CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<FileCopyManager> GetInstance();

  FileCopyManager(const FileCopyManager&) = delete;
  FileCopyManager& operator=(const FileCopyManager&) = delete;

  // Writes the `fileCopy` operand of each object of `request`, in order,
  // through HostOperations::CreateFile. The first failure stops the loop:
  // files written before it stay, later ones are not written. Answers
  // MT_OPERATION_STATUS with one status: FILE_COPY_SUCCESS (also for a request
  // with no objects), or FILE_COPY_FAILED with the failing object's
  // identifier and the reason as its message.
  // `replyTo` and `correlationId` (either may be null) are passed to
  // CommunicationHandler::SendMsg unchanged. A failed send is logged there
  // and not reported here.
  void CopyFiles(const orvane::zel::dorn::DornMessage& request, const char* replyTo,
                 const char* correlationId);

 private:
  FileCopyManager() = default;

  boost::mutex mutex_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_FILE_COPY_MANAGER_H_
