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
bool g_answer = true;

void Record(const char* operation, const DornMessage& request, const char* replyTo,
            const char* correlationId) {
  ManagerCall call;
  call.operation = operation;
  call.operationId = request.operation_id();
  call.replyTo = replyTo;
  call.correlationId = correlationId;
  if (replyTo != nullptr) call.replyToText = replyTo;
  if (correlationId != nullptr) call.correlationIdText = correlationId;
  bool answer;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.push_back(std::move(call));
    answer = g_answer;
  }
  if (!answer) return;
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
  g_answer = true;
}

void SetManagersAnswer(bool answer) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_answer = answer;
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

boost::shared_ptr<FileCopyManager> FileCopyManager::CreateInstance() {
  testing::g_fileCopy.reset(new FileCopyManager());
  return testing::g_fileCopy;
}
boost::shared_ptr<FileCopyManager> FileCopyManager::GetInstance() { return testing::g_fileCopy; }
void FileCopyManager::CopyFiles(const DornMessage& request, const char* replyTo,
                                const char* correlationId) {
  Record("FileCopyManager::CopyFiles", request, replyTo, correlationId);
}

boost::shared_ptr<RpcManager> RpcManager::CreateInstance() {
  testing::g_rpc.reset(new RpcManager());
  return testing::g_rpc;
}
boost::shared_ptr<RpcManager> RpcManager::GetInstance() { return testing::g_rpc; }
void RpcManager::PerformRpc(const DornMessage& request, const char* replyTo,
                            const char* correlationId) {
  Record("RpcManager::PerformRpc", request, replyTo, correlationId);
}

boost::shared_ptr<UserManager> UserManager::CreateInstance() {
  testing::g_user.reset(new UserManager());
  return testing::g_user;
}
boost::shared_ptr<UserManager> UserManager::GetInstance() { return testing::g_user; }
void UserManager::CreateUser(const DornMessage& request, const char* replyTo,
                             const char* correlationId) {
  Record("UserManager::CreateUser", request, replyTo, correlationId);
}

boost::shared_ptr<HostManager> HostManager::CreateInstance() {
  testing::g_host.reset(new HostManager());
  return testing::g_host;
}
boost::shared_ptr<HostManager> HostManager::GetInstance() { return testing::g_host; }
void HostManager::RebootHost(const DornMessage& request, const char* replyTo,
                             const char* correlationId) {
  Record("HostManager::RebootHost", request, replyTo, correlationId);
}
void HostManager::GetCertificate(const DornMessage& request, const char* replyTo,
                                 const char* correlationId) {
  Record("HostManager::GetCertificate", request, replyTo, correlationId);
}
void HostManager::GetRsaKey(const DornMessage& request, const char* replyTo,
                            const char* correlationId) {
  Record("HostManager::GetRsaKey", request, replyTo, correlationId);
}

SoftwareManager::SoftwareManager() = default;
SoftwareManager::~SoftwareManager() = default;
boost::shared_ptr<SoftwareManager> SoftwareManager::CreateInstance() {
  testing::g_software.reset(new SoftwareManager());
  return testing::g_software;
}
boost::shared_ptr<SoftwareManager> SoftwareManager::GetInstance() { return testing::g_software; }
void SoftwareManager::AppInit(const DornMessage& request, const char* replyTo,
                              const char* correlationId) {
  Record("SoftwareManager::AppInit", request, replyTo, correlationId);
}
void SoftwareManager::SoftwareStatus(const DornMessage& request, const char* replyTo,
                                     const char* correlationId) {
  Record("SoftwareManager::SoftwareStatus", request, replyTo, correlationId);
}
void SoftwareManager::StopServices(const DornMessage& request, const char* replyTo,
                                   const char* correlationId) {
  Record("SoftwareManager::StopServices", request, replyTo, correlationId);
}
void SoftwareManager::RestartServices(const DornMessage& request, const char* replyTo,
                                      const char* correlationId) {
  Record("SoftwareManager::RestartServices", request, replyTo, correlationId);
}
void SoftwareManager::FindMissingPackagesFromList(const DornMessage& request,
                                                  const char* replyTo,
                                                  const char* correlationId) {
  Record("SoftwareManager::FindMissingPackagesFromList", request, replyTo, correlationId);
}

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
