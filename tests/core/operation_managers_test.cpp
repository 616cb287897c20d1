// FileCopyManager, RpcManager, UserManager and the answer frame shared by
// every manager. The HostManager's operations and user creation with a user
// object run host commands that must not reach this machine; they are tested
// against the real agent in tests/e2e/agent_operations_e2e_test.cpp.
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/file_copy_manager.h"
#include "core/manager_test_support.h"
#include "core/rpc_manager.h"
#include "core/software_manager.h"
#include "core/user_manager.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using orvane::zel::dorn::DornMessage;
using orvane::zel::dorn::OperationStatus;
using testing::ManagerTestEnv;
using testing::Request;
using zel::testing::TempDir;

class OperationManagersTest : public ::testing::Test {
 protected:
  OperationManagersTest() {
    FileCopyManager::CreateInstance();
    RpcManager::CreateInstance();
    UserManager::CreateInstance();
    SoftwareManager::CreateInstance();
  }

  void AddFile(DornMessage& request, const std::string& id, const std::string& file,
               const std::string& data, bool makeExecutable = false) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(id);
    object->mutable_filecopy()->set_file(file);
    object->mutable_filecopy()->set_data(data);
    object->mutable_filecopy()->set_make_executable(makeExecutable);
  }

  void AddCommand(DornMessage& request, const std::string& id, const std::string& command) {
    auto* object = request.add_dorn_fabric_object();
    object->set_fabric_object_identifier(id);
    object->mutable_runcommand()->set_command(command);
  }

  std::string Path(const std::string& name) const { return env_.dir().path() + "/" + name; }

  ManagerTestEnv env_;
};

// ---- The answer frame -----------------------------------------------------

// Every operation that runs no dangerous command on an empty request: the
// answer copies the operation id and the correlation flag, and the reply-to
// and correlation id pointers reach the send unchanged.
TEST_F(OperationManagersTest, EveryAnswerCopiesTheFrameAndPassesThePointersThrough) {
  using Operation = std::function<void(const DornMessage&, const char*, const char*)>;
  struct Case {
    const char* name;
    orvane::zel::dorn::MessageType requestType;
    orvane::zel::dorn::MessageType answerType;
    Operation call;
  };
  auto software = SoftwareManager::GetInstance();
  const std::vector<Case> cases = {
      {"CopyFiles", orvane::zel::dorn::MT_FILE_COPY, orvane::zel::dorn::MT_OPERATION_STATUS,
       [](auto& r, auto q, auto c) { FileCopyManager::GetInstance()->CopyFiles(r, q, c); }},
      {"PerformRpc", orvane::zel::dorn::MT_RUN_COMMAND, orvane::zel::dorn::MT_OPERATION_STATUS,
       [](auto& r, auto q, auto c) { RpcManager::GetInstance()->PerformRpc(r, q, c); }},
      {"CreateUser", orvane::zel::dorn::MT_CREATE_USER, orvane::zel::dorn::MT_OPERATION_STATUS,
       [](auto& r, auto q, auto c) { UserManager::GetInstance()->CreateUser(r, q, c); }},
      {"AppInit", orvane::zel::dorn::MT_INIT, orvane::zel::dorn::MT_INIT,
       [software](auto& r, auto q, auto c) { software->AppInit(r, q, c); }},
      {"SoftwareStatus", orvane::zel::dorn::MT_SOFTWARE_STATUS,
       orvane::zel::dorn::MT_OPERATION_STATUS,
       [software](auto& r, auto q, auto c) { software->SoftwareStatus(r, q, c); }},
      {"StopServices", orvane::zel::dorn::MT_STOP_SERVICES, orvane::zel::dorn::MT_OPERATION_STATUS,
       [software](auto& r, auto q, auto c) { software->StopServices(r, q, c); }},
      {"RestartServices", orvane::zel::dorn::MT_RESTART_SERVICES,
       orvane::zel::dorn::MT_OPERATION_STATUS,
       [software](auto& r, auto q, auto c) { software->RestartServices(r, q, c); }},
      {"FindMissingPackagesFromList", orvane::zel::dorn::MT_FIND_MISSING_PACKAGES_FROM_LIST,
       orvane::zel::dorn::MT_OPERATION_STATUS,
       [software](auto& r, auto q, auto c) { software->FindMissingPackagesFromList(r, q, c); }},
  };

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    env_.ClearSent();
    DornMessage request = Request(c.requestType, std::string("op-") + c.name);
    request.set_return_same_correlationid(true);
    c.call(request, "reply-queue", "corr-7");

    auto sent = env_.Sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].kind, CommunicationHandler::kReplyKind);
    EXPECT_EQ(sent[0].routingKey, "reply-queue");
    EXPECT_EQ(sent[0].Header("amqp_correlationId"), "corr-7");
    ASSERT_TRUE(sent[0].parsed);
    EXPECT_EQ(sent[0].message.message_type(), c.answerType);
    EXPECT_EQ(sent[0].message.operation_id(), request.operation_id());
    EXPECT_TRUE(sent[0].message.return_same_correlationid());

    // Without the flag and without pointers: the flag stays false and the
    // answer leaves as the agent's own message.
    env_.ClearSent();
    request.clear_return_same_correlationid();
    c.call(request, nullptr, nullptr);
    sent = env_.Sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].kind, CommunicationHandler::kMessageKind);
    EXPECT_TRUE(sent[0].message.has_return_same_correlationid());
    EXPECT_FALSE(sent[0].message.return_same_correlationid());
  }
}

// ---- FileCopyManager ------------------------------------------------------

TEST_F(OperationManagersTest, CopyStopsAtTheFirstFailureAndKeepsEarlierFiles) {
  // The second file's parent is a regular file, so it cannot be opened.
  DornMessage request = Request(orvane::zel::dorn::MT_FILE_COPY, "copy-1");
  AddFile(request, "f1", Path("first.txt"), "one");
  AddFile(request, "f2", Path("first.txt/second.txt"), "two");
  AddFile(request, "f3", Path("third.txt"), "three");
  FileCopyManager::GetInstance()->CopyFiles(request, nullptr, nullptr);

  EXPECT_EQ(TempDir::ReadFile(Path("first.txt")), "one");
  struct stat st;
  EXPECT_NE(stat(Path("third.txt").c_str(), &st), 0) << "a file after the failure was written";

  const DornMessage answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.operation_status_size(), 1);
  const OperationStatus& status = answer.operation_status(0);
  EXPECT_EQ(status.status(), orvane::zel::dorn::FILE_COPY_FAILED);
  EXPECT_EQ(status.fabric_object_identifier(), "f2");
  EXPECT_EQ(status.message(), "Not a directory");
  EXPECT_EQ(answer.dorn_fabric_object_size(), 0);

  EXPECT_EQ(env_.log().Count("Copy file f2 failed (Not a directory)."), 1u);
}

TEST_F(OperationManagersTest, CopySuccessCarriesNoOtherFieldAndSetsOwnerOnlyModeOnRequest) {
  DornMessage request = Request(orvane::zel::dorn::MT_FILE_COPY, "copy-2");
  AddFile(request, "script", Path("sub/dir/run.sh"), "#!/bin/sh\n", true);
  AddFile(request, "plain", Path("plain.txt"), "");
  FileCopyManager::GetInstance()->CopyFiles(request, nullptr, nullptr);

  struct stat st;
  ASSERT_EQ(stat(Path("sub/dir/run.sh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  ASSERT_EQ(stat(Path("plain.txt").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_mode & 0100, 0u) << "a file not marked executable got execute permission";

  const DornMessage answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.operation_status_size(), 1);
  const OperationStatus& status = answer.operation_status(0);
  EXPECT_EQ(status.status(), orvane::zel::dorn::FILE_COPY_SUCCESS);
  EXPECT_FALSE(status.has_fabric_object_identifier());
  EXPECT_FALSE(status.has_message());

  // No objects: success as well.
  env_.ClearSent();
  FileCopyManager::GetInstance()->CopyFiles(Request(orvane::zel::dorn::MT_FILE_COPY, "copy-3"),
                                            nullptr, nullptr);
  EXPECT_EQ(env_.OnlyAnswer().operation_status(0).status(), orvane::zel::dorn::FILE_COPY_SUCCESS);
}

// ---- RpcManager -----------------------------------------------------------

TEST_F(OperationManagersTest, CommandsStopAfterTheFirstFailureWhichIsTheLastStatus) {
  DornMessage request = Request(orvane::zel::dorn::MT_RUN_COMMAND, "rpc-1");
  AddCommand(request, "c1", "echo one");
  AddCommand(request, "c2", "echo two; exit 3");
  AddCommand(request, "c3", "touch '" + Path("ran-third") + "'");
  RpcManager::GetInstance()->PerformRpc(request, nullptr, nullptr);

  struct stat st;
  EXPECT_NE(stat(Path("ran-third").c_str(), &st), 0) << "a command after the failure ran";
  const DornMessage answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.operation_status_size(), 2);
  EXPECT_EQ(answer.operation_status(0).status(), orvane::zel::dorn::COMMAND_SUCCESS);
  EXPECT_EQ(answer.operation_status(0).fabric_object_identifier(), "c1");
  EXPECT_EQ(answer.operation_status(0).message(), "one\n");
  EXPECT_EQ(answer.operation_status(1).status(), orvane::zel::dorn::COMMAND_FAILED);
  EXPECT_EQ(answer.operation_status(1).fabric_object_identifier(), "c2");
  EXPECT_EQ(answer.operation_status(1).message(), "two\n");
}

TEST_F(OperationManagersTest, SilentCommandGivesAPresentEmptyMessageAndNoObjectsNoStatus) {
  DornMessage request = Request(orvane::zel::dorn::MT_RUN_COMMAND, "rpc-2");
  AddCommand(request, "quiet", "true");
  RpcManager::GetInstance()->PerformRpc(request, nullptr, nullptr);

  const DornMessage answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.operation_status_size(), 1);
  EXPECT_EQ(answer.operation_status(0).status(), orvane::zel::dorn::COMMAND_SUCCESS);
  EXPECT_TRUE(answer.operation_status(0).has_message());
  EXPECT_EQ(answer.operation_status(0).message(), "");

  // No objects: an answer with no status.
  env_.ClearSent();
  RpcManager::GetInstance()->PerformRpc(Request(orvane::zel::dorn::MT_RUN_COMMAND, "rpc-3"),
                                        nullptr, nullptr);
  EXPECT_EQ(env_.OnlyAnswer().operation_status_size(), 0);
}

// ---- UserManager ----------------------------------------------------------

TEST_F(OperationManagersTest, CreateUserWithoutObjectFailsWithoutRunningAnything) {
  UserManager::GetInstance()->CreateUser(Request(orvane::zel::dorn::MT_CREATE_USER, "user-1"),
                                         nullptr, nullptr);
  const DornMessage answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.operation_status_size(), 1);
  const OperationStatus& status = answer.operation_status(0);
  EXPECT_EQ(status.status(), orvane::zel::dorn::USER_CREATE_DELETE_FAILED);
  EXPECT_FALSE(status.has_fabric_object_identifier());
  EXPECT_FALSE(status.has_message());

  EXPECT_EQ(env_.log().Count("CreateUser request has no user object. operation Id: user-1"), 1u);
  EXPECT_EQ(env_.log().Count("Running command"), 0u);
}

}  // namespace
}  // namespace ZelDorn
