#include "core/host_manager.h"

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

boost::shared_ptr<HostManager> g_instance;

// The trailing newline is part of the command text the shell receives.
constexpr const char* kRebootCommand = "reboot\n";
constexpr const char* kCertificateCommand = "cat /etc/orvane/zel/host-cert.pem";
constexpr const char* kRsaKeyCommand = "cat /etc/ssh/ssh_host_rsa_key.pub";

}  // namespace

boost::shared_ptr<HostManager> HostManager::CreateInstance() {
  g_instance.reset(new HostManager());
  return g_instance;
}

boost::shared_ptr<HostManager> HostManager::GetInstance() { return g_instance; }

void HostManager::RebootHost(const DornMessage& request, const char* replyTo,
                             const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Processing hostOperations.RebootHost request having operation Id: %s",
              request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);

  std::string output;
  const int ret = HostOperations::GetInstance()->Execute(kRebootCommand, output);

  DornMessage answer = MakeAnswer(request);
  auto* status = answer.add_operation_status();
  status->set_status(ret == 0 ? orvane::zel::dorn::COMMAND_SUCCESS
                              : orvane::zel::dorn::COMMAND_FAILED);
  status->set_message(output);

  DORN_LOG(zel::kLogInfo)
      .format("Sending hostOperations.RebootHost response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

void HostManager::GetCertificate(const DornMessage& request, const char* replyTo,
                                 const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Processing hostOperations.GetCertificate request having operation Id: %s",
              request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);
  DornMessage answer = ReadHostFile_(request, kCertificateCommand);
  DORN_LOG(zel::kLogInfo)
      .format("Sending hostOperations.GetCertificate response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

void HostManager::GetRsaKey(const DornMessage& request, const char* replyTo,
                            const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Processing hostOperations.GetRsaKey request having operation Id: %s",
              request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);
  DornMessage answer = ReadHostFile_(request, kRsaKeyCommand);
  DORN_LOG(zel::kLogInfo)
      .format("Sending hostOperations.GetRsaKey response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

DornMessage HostManager::ReadHostFile_(const DornMessage& request, const char* command) {
  DORN_LOG(zel::kLogInfo).format("Invoking %s", command);
  std::string output;
  const int ret = HostOperations::GetInstance()->Execute(command, output);
  DORN_LOG(zel::kLogVerbose).format("ret is %d  result=%s", ret, output.c_str());

  DornMessage answer = MakeAnswer(request);
  auto* status = answer.add_operation_status();
  status->set_status(ret == 0 ? orvane::zel::dorn::GET_CERTIFICATE_SUCCESS
                              : orvane::zel::dorn::GET_CERTIFICATE_FAILED);
  status->set_message(output);
  return answer;
}

}  // namespace ZelDorn
