#include "core/file_copy_manager.h"

#include <string>

#include <boost/thread/lock_guard.hpp>

#include "core/communication_handler.h"
#include "core/host_operations.h"
#include "core/manager_answer.h"
#include "cpp/lib/common/logger.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {

using orvane::zel::dorn::DornMessage;

namespace {
boost::shared_ptr<FileCopyManager> g_instance;
}  // namespace

boost::shared_ptr<FileCopyManager> FileCopyManager::CreateInstance() {
  g_instance.reset(new FileCopyManager());
  return g_instance;
}

boost::shared_ptr<FileCopyManager> FileCopyManager::GetInstance() { return g_instance; }

void FileCopyManager::CopyFiles(const DornMessage& request, const char* replyTo,
                                const char* correlationId) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  DORN_LOG(zel::kLogInfo)
      .format("Processing CopyFiles request having operation Id: %s",
              request.operation_id().c_str());
  DORN_LOG(zel::kLogVerbose).format("Copy %d file(s).", request.dorn_fabric_object_size());

  boost::shared_ptr<HostOperations> host = HostOperations::GetInstance();
  bool failed = false;
  std::string failedId;
  std::string reason;
  for (const auto& object : request.dorn_fabric_object()) {
    const auto& copy = object.filecopy();
    DORN_LOG(zel::kLogVerbose).format("Copy file %s.", copy.file().c_str());
    reason = host->CreateFile(copy.file(), copy.data(), copy.make_executable());
    if (!reason.empty()) {
      // Files written so far stay; the rest of the request is not written.
      failed = true;
      failedId = object.fabric_object_identifier();
      break;
    }
  }

  DORN_LOG(zel::kLogVerbose).format("Generate response for file copy request.");
  DornMessage answer = MakeAnswer(request);
  auto* status = answer.add_operation_status();
  if (failed) {
    status->set_status(orvane::zel::dorn::FILE_COPY_FAILED);
    status->set_fabric_object_identifier(failedId);
    status->set_message(reason);
    DORN_LOG(zel::kLogWarn).format("Copy file %s failed (%s).", failedId.c_str(), reason.c_str());
  } else {
    status->set_status(orvane::zel::dorn::FILE_COPY_SUCCESS);
  }

  DORN_LOG(zel::kLogInfo)
      .format("Sending CopyFiles response having operation Id: %s", request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

}  // namespace ZelDorn
