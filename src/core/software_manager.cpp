#include "core/software_manager.h"

#include <string>

#include <boost/thread/lock_guard.hpp>

#include "core/communication_handler.h"
#include "core/host_operations.h"
#include "core/manager_answer.h"
#include "cpp/lib/common/logger.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {

using orvane::zel::dorn::DornMessage;
using orvane::zel::dorn::Software;

namespace {
boost::shared_ptr<SoftwareManager> g_instance;
}  // namespace

boost::shared_ptr<SoftwareManager> SoftwareManager::CreateInstance() {
  g_instance.reset(new SoftwareManager());
  return g_instance;
}

boost::shared_ptr<SoftwareManager> SoftwareManager::GetInstance() { return g_instance; }

SoftwareManager::SoftwareManager() = default;
SoftwareManager::~SoftwareManager() = default;

void SoftwareManager::Track(const Software& software) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  tracked_.push_back(std::make_unique<Software>(software));
}

void SoftwareManager::ClearTracked() {
  boost::lock_guard<boost::mutex> lock(mutex_);
  tracked_.clear();
}

SoftwareManager::SoftwareList SoftwareManager::GetUnmet() {
  SoftwareList unmet;
  boost::lock_guard<boost::mutex> lock(mutex_);
  // The list command is the expensive part: run it only when there is
  // something to compare.
  if (tracked_.empty()) return unmet;

  boost::shared_ptr<HostOperations> host = HostOperations::GetInstance();
  host->GetSoftwareList();
  for (const auto& entry : tracked_) {
    const std::string installed = host->GetSoftwareVersion(entry->name());
    // A plain substring test: "1.2" is met by "1.2.3-4", and an empty
    // expected version by anything, an absent package included.
    if (installed.find(entry->version()) != std::string::npos) continue;

    auto missing = std::make_unique<Software>(*entry);
    if (!installed.empty()) {
      missing->set_state(orvane::zel::dorn::INVALID_VERSION);
      missing->set_version(installed);
    } else {
      missing->set_state(orvane::zel::dorn::ABSENT);
      missing->set_version("");
    }
    unmet.push_back(std::move(missing));
  }
  return unmet;
}

void SoftwareManager::AppInit(const DornMessage& request, const char* replyTo,
                              const char* correlationId) {
  DORN_LOG(zel::kLogVerbose).format("Clearing software tracking list.");
  ClearTracked();
  DORN_LOG(zel::kLogVerbose)
      .format("Loading %d new softwares for tracking.", request.dorn_fabric_object_size());
  for (const auto& object : request.dorn_fabric_object()) {
    const Software& software = object.software();
    DORN_LOG(zel::kLogVerbose)
        .format("Tracking software %s (version: %s).", software.name().c_str(),
                software.version().c_str());
    Track(software);
  }

  // An init without an operation id expects no answer.
  if (request.operation_id().empty()) return;

  DornMessage answer = MakeAnswer(request, orvane::zel::dorn::MT_INIT);
  DORN_LOG(zel::kLogInfo)
      .format("Sending AppInit response having operation Id: %s", request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

void SoftwareManager::SoftwareStatus(const DornMessage& request, const char* replyTo,
                                     const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Processing software status request having operation Id: %s",
              request.operation_id().c_str());
  const SoftwareList unmet = GetUnmet();
  DornMessage answer = MakeAnswer(request);
  for (const auto& software : unmet) {
    *answer.add_dorn_fabric_object()->mutable_software() = *software;
  }
  DORN_LOG(zel::kLogInfo)
      .format("Sending software status response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

void SoftwareManager::StopServices(const DornMessage& request, const char* replyTo,
                                   const char* correlationId) {
  StopOrRestartServices_(request, replyTo, correlationId, "stop");
}

void SoftwareManager::RestartServices(const DornMessage& request, const char* replyTo,
                                      const char* correlationId) {
  StopOrRestartServices_(request, replyTo, correlationId, "restart");
}

void SoftwareManager::StopOrRestartServices_(const DornMessage& request, const char* replyTo,
                                             const char* correlationId, const char* action) {
  DORN_LOG(zel::kLogInfo)
      .format("Processing StopOrRestartServices request having operation Id: %s",
              request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);
  DORN_LOG(zel::kLogVerbose).format("Stop %d service(s).", request.dorn_fabric_object_size());

  boost::shared_ptr<HostOperations> host = HostOperations::GetInstance();
  // Stays -1, a failure, when the request names no service.
  int result = -1;
  std::string failedId;
  std::string failure;
  for (const auto& object : request.dorn_fabric_object()) {
    // Both actions take the name from `restartServices`; the management
    // plane sends stop requests that way.
    const std::string& name = object.restartservices().name();
    DORN_LOG(zel::kLogVerbose).format("restartServices.name() %s", name.c_str());
    std::string output;
    result = host->Execute("/etc/init.d/" + name + " " + action, output);
    DORN_LOG(zel::kLogVerbose).format("Stop service ret is %d.", result);
    if (result != 0) {
      failedId = object.fabric_object_identifier();
      failure = std::string(action) + " service " + name + " failed";
      break;
    }
  }

  DornMessage answer = MakeAnswer(request);
  auto* status = answer.add_operation_status();
  if (result != 0) {
    DORN_LOG(zel::kLogInfo)
        .format("Setting response as command as failed for operation Id: %s",
                request.operation_id().c_str());
    status->set_status(orvane::zel::dorn::COMMAND_FAILED);
    status->set_fabric_object_identifier(failedId);
    DORN_LOG(zel::kLogWarn).format("%s", failure.c_str());
  } else {
    DORN_LOG(zel::kLogInfo)
        .format("Setting response as command succeeded for operation Id: %s",
                request.operation_id().c_str());
    status->set_status(orvane::zel::dorn::COMMAND_SUCCESS);
  }

  DORN_LOG(zel::kLogInfo)
      .format("Inside StopOrRestartServices sending response for %s services request", action);
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

void SoftwareManager::FindMissingPackagesFromList(const DornMessage& request,
                                                  const char* replyTo,
                                                  const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Inside FindMissingPackagesFromList. operation Id: %s",
              request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);

  DornMessage answer = MakeAnswer(request);
  DORN_LOG(zel::kLogVerbose).format("Number of softwares %d", request.dorn_fabric_object_size());
  boost::shared_ptr<HostOperations> host = HostOperations::GetInstance();
  for (const auto& object : request.dorn_fabric_object()) {
    const auto& package = object.findmissingpackagesfromlist();
    DORN_LOG(zel::kLogVerbose)
        .format("FindMissingPackagesFromList.name() %s", package.name().c_str());
    // Looked up in the list as the last check left it; not refreshed here.
    if (host->GetSoftwareVersion(package.name()).empty()) {
      *answer.add_dorn_fabric_object()->mutable_findmissingpackagesfromlist() = package;
    }
  }

  DORN_LOG(zel::kLogInfo)
      .format("Sending FindMissingPackagesFromList response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

}  // namespace ZelDorn
