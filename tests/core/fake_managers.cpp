#include "core/fake_managers.h"

#include <mutex>
#include <utility>

#include "core/communication_handler.h"
#include "core/file_copy_manager.h"
#include "core/host_manager.h"
#include "core/monitor.h"
#include "core/rpc_manager.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {

using orvane::zel::dorn::DornMessage;

namespace testing {
namespace {

std::mutex g_mutex;
std::vector<ManagerCall> g_calls;
int g_forcePublishes = 0;

void Record(const char* operation, const DornMessage& request, const char* replyTo,
            const char* correlationId) {
  ManagerCall call;
  call.operation = operation;
  call.operationId = request.operation_id();
  call.replyTo = replyTo;
  call.correlationId = correlationId;
  if (replyTo != nullptr) call.replyToText = replyTo;
  if (correlationId != nullptr) call.correlationIdText = correlationId;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(std::move(call));
  }
  DornMessage reply;
  reply.set_message_type(orvane::zel::dorn::MT_OPERATION_STATUS);
  reply.set_operation_id(request.operation_id());
  reply.set_return_same_correlationid(request.return_same_correlationid());
  reply.add_operation_status()->set_message(operation);
  CommunicationHandler::GetInstance()->SendMsg(reply, replyTo, correlationId);
}

boost::shared_ptr<FileCopyManager> g_fileCopy;
boost::shared_ptr<RpcManager> g_rpc;
boost::shared_ptr<UserManager> g_user;
boost::shared_ptr<HostManager> g_host;
boost::shared_ptr<SoftwareManager> g_software;

}  // namespace

std::vector<ManagerCall> ManagerCalls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_calls;
}

int ForcePublishCalls() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_forcePublishes;
}

void ResetManagers() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_calls.clear();
  g_forcePublishes = 0;
}


void CreateManagers() {
  FileCopyManager::CreateInstance();
  RpcManager::CreateInstance();
  UserManager::CreateInstance();
  HostManager::CreateInstance();
  SoftwareManager::CreateInstance();
}

void DestroyManagers() {
  g_fileCopy.reset();
  g_rpc.reset();
  g_user.reset();
  g_host.reset();
  g_software.reset();
}

}  // namespace testing

using testing::Record;

// Singleton plumbing and one recording operation per manager method.
#define DORN_FAKE_INSTANCE(Type, slot)                                          \
  boost::shared_ptr<Type> Type::CreateInstance() {                             \
    testing::slot.reset(new Type());                                           \
    return testing::slot;                                                      \
  }                                                                            \
  boost::shared_ptr<Type> Type::GetInstance() { return testing::slot; }
#define DORN_FAKE_OPERATION(Type, Method)                                      \
  void Type::Method(const DornMessage& request, const char* replyTo,           \
                    const char* correlationId) {                               \
    Record(#Type "::" #Method, request, replyTo, correlationId);               \
  }

DORN_FAKE_INSTANCE(FileCopyManager, g_fileCopy)
DORN_FAKE_OPERATION(FileCopyManager, CopyFiles)
DORN_FAKE_INSTANCE(RpcManager, g_rpc)
DORN_FAKE_OPERATION(RpcManager, PerformRpc)
DORN_FAKE_INSTANCE(UserManager, g_user)
DORN_FAKE_OPERATION(UserManager, CreateUser)
DORN_FAKE_INSTANCE(HostManager, g_host)
DORN_FAKE_OPERATION(HostManager, RebootHost)
DORN_FAKE_OPERATION(HostManager, GetCertificate)
DORN_FAKE_OPERATION(HostManager, GetRsaKey)

SoftwareManager::SoftwareManager() = default;
SoftwareManager::~SoftwareManager() = default;
DORN_FAKE_INSTANCE(SoftwareManager, g_software)
DORN_FAKE_OPERATION(SoftwareManager, AppInit)
DORN_FAKE_OPERATION(SoftwareManager, SoftwareStatus)
DORN_FAKE_OPERATION(SoftwareManager, StopServices)
DORN_FAKE_OPERATION(SoftwareManager, RestartServices)
DORN_FAKE_OPERATION(SoftwareManager, FindMissingPackagesFromList)

// The Monitor's thread is never started here; only the force-publish request
// of MT_INIT is observed.
Monitor::Monitor(const std::string& name, const std::string& statusFilePath,
                 boost::shared_ptr<const DornProperties> properties)
    : Thread(name), statusFilePath_(statusFilePath), properties_(std::move(properties)) {}
Monitor::~Monitor() = default;
void Monitor::run() {}
void Monitor::ForcePublish() {
  std::lock_guard<std::mutex> lock(testing::g_mutex);
  ++testing::g_forcePublishes;
}

}  // namespace ZelDorn
