// Link-time stand-ins for the operation managers and the Monitor, for tests
// of CommunicationHandler's dispatch: each operation runs no host command; it
// records its call and answers with one status naming the operation, through
// CommunicationHandler::SendMsg with the pointers it got. The record is
// guarded by a mutex; tests read it after the call.
#ifndef DORN_TESTS_CORE_FAKE_MANAGERS_H_
#define DORN_TESTS_CORE_FAKE_MANAGERS_H_

#include <optional>
#include <string>
#include <vector>

namespace ZelDorn {
namespace testing {

struct ManagerCall {
  std::string operation;  // "SoftwareManager::AppInit", "HostManager::RebootHost" ...
  std::string operationId;
  // The pointers as the manager received them, and their texts.
  const char* replyTo = nullptr;
  const char* correlationId = nullptr;
  std::optional<std::string> replyToText;
  std::optional<std::string> correlationIdText;
};

// Calls in order since the last Reset.
std::vector<ManagerCall> ManagerCalls();
// Number of Monitor::ForcePublish calls since the last Reset.
int ForcePublishCalls();
// Clears the record.
void ResetManagers();
// Creates every manager instance.
void CreateManagers();
// Drops every manager instance.
void DestroyManagers();

}  // namespace testing
}  // namespace ZelDorn

#endif  // DORN_TESTS_CORE_FAKE_MANAGERS_H_
