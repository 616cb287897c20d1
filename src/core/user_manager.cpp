#include "core/user_manager.h"

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
boost::shared_ptr<UserManager> g_instance;
}  // namespace

boost::shared_ptr<UserManager> UserManager::CreateInstance() {
  g_instance.reset(new UserManager());
  return g_instance;
}

boost::shared_ptr<UserManager> UserManager::GetInstance() { return g_instance; }

void UserManager::CreateUser(const DornMessage& request, const char* replyTo,
                             const char* correlationId) {
  DORN_LOG(zel::kLogInfo)
      .format("Inside CreateUser. operation Id: %s", request.operation_id().c_str());
  boost::lock_guard<boost::mutex> lock(mutex_);

  DornMessage answer = MakeAnswer(request);
  auto* status = answer.add_operation_status();
  if (request.dorn_fabric_object_size() == 0) {
    // Nothing names the account: run no command and report the failure.
    status->set_status(orvane::zel::dorn::USER_CREATE_DELETE_FAILED);
    DORN_LOG(zel::kLogWarn)
        .format("CreateUser request has no user object. operation Id: %s",
                request.operation_id().c_str());
  } else {
    const auto& user = request.dorn_fabric_object(0).createordeleteuser();
    DORN_LOG(zel::kLogVerbose)
        .format("Creating user with username %s and password %s", user.username().c_str(),
                user.password().c_str());
    const int ret = HostOperations::GetInstance()->CreateUser(user.username(), user.password());
    DORN_LOG(zel::kLogVerbose)
        .format("ret by HostOperations::GetInstance()->CreateUser is %d", ret);
    if (ret != 0) {
      status->set_status(orvane::zel::dorn::USER_CREATE_DELETE_FAILED);
      DORN_LOG(zel::kLogWarn).format("Failed to create user %s", user.username().c_str());
    } else {
      DORN_LOG(zel::kLogInfo).format("Setting request status as success");
      status->set_status(orvane::zel::dorn::USER_CREATE_DELETE_SUCCESS);
    }
  }

  DORN_LOG(zel::kLogInfo)
      .format("Inside CreateUser Sending response. operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

}  // namespace ZelDorn
