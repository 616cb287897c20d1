#include "core/rpc_manager.h"

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
boost::shared_ptr<RpcManager> g_instance;
}  // namespace

boost::shared_ptr<RpcManager> RpcManager::CreateInstance() {
  g_instance.reset(new RpcManager());
  return g_instance;
}

boost::shared_ptr<RpcManager> RpcManager::GetInstance() { return g_instance; }

void RpcManager::PerformRpc(const DornMessage& request, const char* replyTo,
                            const char* correlationId) {
  boost::lock_guard<boost::mutex> lock(mutex_);
  DORN_LOG(zel::kLogInfo)
      .format("Processing PerformRpc request having operation Id: %s",
              request.operation_id().c_str());
  DORN_LOG(zel::kLogVerbose).format("Run %d command(s).", request.dorn_fabric_object_size());

  boost::shared_ptr<HostOperations> host = HostOperations::GetInstance();
  DornMessage answer = MakeAnswer(request);
  for (const auto& object : request.dorn_fabric_object()) {
    const std::string& command = object.runcommand().command();
    DORN_LOG(zel::kLogVerbose).format("Run command %s.", command.c_str());
    std::string output;
    const int code = host->Execute(command, output);
    auto* status = answer.add_operation_status();
    status->set_status(code == 0 ? orvane::zel::dorn::COMMAND_SUCCESS
                                 : orvane::zel::dorn::COMMAND_FAILED);
    status->set_fabric_object_identifier(object.fabric_object_identifier());
    // Set even when empty, so the answer always carries a message.
    status->set_message(output);
    if (code != 0) break;
  }

  DORN_LOG(zel::kLogVerbose).format("Send response for rpc request.");
  DORN_LOG(zel::kLogInfo)
      .format("Sending PerformRpc response having operation Id: %s",
              request.operation_id().c_str());
  CommunicationHandler::GetInstance()->SendMsg(answer, replyTo, correlationId);
}

}  // namespace ZelDorn
