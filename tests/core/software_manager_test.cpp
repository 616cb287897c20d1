// SoftwareManager: the unmet computation over a stand-in software list, the
// tracking list through MT_INIT, and the answers of the status, missing
// package and service requests. Service requests that run /etc/init.d
// scripts are tested in the e2e sandbox; here only the one that runs none.
#include "core/software_manager.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/manager_test_support.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using orvane::zel::dorn::DornMessage;
using orvane::zel::dorn::Software;
using testing::ManagerTestEnv;
using testing::Request;

Software MakeSoftware(const std::string& name, const std::string& version) {
  Software software;
  software.set_name(name);
  software.set_version(version);
  return software;
}

// "name state version" of each entry, for compact comparisons.
std::vector<std::string> Describe(const SoftwareManager::SoftwareList& list) {
  std::vector<std::string> out;
  for (const auto& s : list) {
    out.push_back(s->name() + " " + orvane::zel::dorn::SoftwareState_Name(s->state()) + " " +
                  s->version());
  }
  return out;
}

class SoftwareManagerTest : public ::testing::Test {
 protected:
  SoftwareManagerTest() : manager_(SoftwareManager::CreateInstance()) {}

  void AddPackage(DornMessage& request, const std::string& name) {
    request.add_dorn_fabric_object()->mutable_findmissingpackagesfromlist()->set_name(name);
  }

  ManagerTestEnv env_;
  boost::shared_ptr<SoftwareManager> manager_;
};

TEST_F(SoftwareManagerTest, ExpectedVersionIsMetWhereverItOccursInTheInstalledOne) {
  env_.SetSoftwareList(
      "alpha 1.2.3-4\n"
      "beta 11.2\n"
      "gamma 1.9\n"
      "epsilon 3.0\n");
  manager_->Track(MakeSoftware("alpha", "1.2"));    // inside "1.2.3-4": met
  manager_->Track(MakeSoftware("beta", "1.2"));     // inside "11.2": met
  manager_->Track(MakeSoftware("gamma", "2.0"));    // other version
  manager_->Track(MakeSoftware("delta", "1.0"));    // not installed
  manager_->Track(MakeSoftware("zeta", ""));        // no version asked: met even absent
  manager_->Track(MakeSoftware("epsilon", "3.0"));  // exact

  const SoftwareManager::SoftwareList unmet = manager_->GetUnmet();
  EXPECT_EQ(Describe(unmet),
            (std::vector<std::string>{"gamma INVALID_VERSION 1.9", "delta ABSENT "}));

  // The tracked entries keep what was expected: a second pass with the
  // package now at the asked version finds it met.
  env_.SetSoftwareList("alpha 1.2.3-4\nbeta 11.2\ngamma 2.0\ndelta 1.0\nepsilon 3.0\n");
  EXPECT_TRUE(manager_->GetUnmet().empty());
}

TEST_F(SoftwareManagerTest, SoftwareListRunsOncePerComputationAndNeverForAnEmptyTrackingList) {
  env_.SetSoftwareList("alpha 1.0\n");
  EXPECT_TRUE(manager_->GetUnmet().empty());
  EXPECT_EQ(env_.SoftwareListRuns(), 0u);

  manager_->Track(MakeSoftware("alpha", "1.0"));
  manager_->Track(MakeSoftware("beta", "1.0"));
  manager_->GetUnmet();
  EXPECT_EQ(env_.SoftwareListRuns(), 1u);

  manager_->ClearTracked();
  EXPECT_TRUE(manager_->GetUnmet().empty());
  EXPECT_EQ(env_.SoftwareListRuns(), 1u);
}

TEST_F(SoftwareManagerTest, AppInitReplacesTheTrackingListAndAnswersOnlyWithAnOperationId) {
  env_.SetSoftwareList("");
  manager_->Track(MakeSoftware("old", "1.0"));

  DornMessage init = Request(orvane::zel::dorn::MT_INIT, "init-1");
  *init.add_dorn_fabric_object()->mutable_software() = MakeSoftware("new", "2.0");
  manager_->AppInit(init, nullptr, nullptr);

  const DornMessage answer = env_.OnlyAnswer();
  EXPECT_EQ(answer.message_type(), orvane::zel::dorn::MT_INIT);
  EXPECT_EQ(answer.operation_id(), "init-1");
  EXPECT_EQ(answer.dorn_fabric_object_size(), 0);
  EXPECT_EQ(answer.operation_status_size(), 0);
  EXPECT_EQ(Describe(manager_->GetUnmet()), std::vector<std::string>{"new ABSENT "});

  // No operation id: no answer. No objects: an empty tracking list.
  env_.ClearSent();
  manager_->AppInit(Request(orvane::zel::dorn::MT_INIT, ""), nullptr, nullptr);
  EXPECT_TRUE(env_.Sent().empty());
  EXPECT_TRUE(manager_->GetUnmet().empty());
}

TEST_F(SoftwareManagerTest, StatusAnswerCarriesOneSoftwareObjectPerUnmetPackage) {
  env_.SetSoftwareList("gamma 1.9\n");
  manager_->Track(MakeSoftware("gamma", "2.0"));
  manager_->Track(MakeSoftware("delta", "1.0"));
  manager_->SoftwareStatus(Request(orvane::zel::dorn::MT_SOFTWARE_STATUS, "status-1"), nullptr,
                           nullptr);

  const DornMessage answer = env_.OnlyAnswer();
  EXPECT_EQ(answer.message_type(), orvane::zel::dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(answer.operation_status_size(), 0);
  ASSERT_EQ(answer.dorn_fabric_object_size(), 2);
  // Only `software` is set on each object.
  EXPECT_EQ(answer.dorn_fabric_object(0).ShortDebugString(),
            "software { name: \"gamma\" version: \"1.9\" state: INVALID_VERSION }");
  EXPECT_EQ(answer.dorn_fabric_object(1).ShortDebugString(),
            "software { name: \"delta\" version: \"\" state: ABSENT }");

  // Nothing unmet: the answer is still sent, with no object.
  env_.ClearSent();
  manager_->ClearTracked();
  manager_->SoftwareStatus(Request(orvane::zel::dorn::MT_SOFTWARE_STATUS, "status-2"), nullptr,
                           nullptr);
  EXPECT_EQ(env_.OnlyAnswer().dorn_fabric_object_size(), 0);
}

TEST_F(SoftwareManagerTest, MissingPackagesAreLookedUpInTheListAsTheLastComputationLeftIt) {
  env_.SetSoftwareList("alpha 1.0\n");
  DornMessage request = Request(orvane::zel::dorn::MT_FIND_MISSING_PACKAGES_FROM_LIST, "find-1");
  AddPackage(request, "alpha");
  AddPackage(request, "beta");

  // Nothing has read the list yet: every package reads as missing.
  manager_->FindMissingPackagesFromList(request, nullptr, nullptr);
  DornMessage answer = env_.OnlyAnswer();
  EXPECT_EQ(answer.message_type(), orvane::zel::dorn::MT_OPERATION_STATUS);
  EXPECT_EQ(answer.operation_status_size(), 0);
  ASSERT_EQ(answer.dorn_fabric_object_size(), 2);
  EXPECT_EQ(env_.SoftwareListRuns(), 0u) << "the request refreshed the software list";

  // A computation reads the list; then only the absent package is reported,
  // as a copy of the request's operand and nothing else.
  manager_->Track(MakeSoftware("alpha", "1.0"));
  manager_->GetUnmet();
  env_.ClearSent();
  manager_->FindMissingPackagesFromList(request, nullptr, nullptr);
  answer = env_.OnlyAnswer();
  ASSERT_EQ(answer.dorn_fabric_object_size(), 1);
  EXPECT_EQ(answer.dorn_fabric_object(0).SerializeAsString(),
            request.dorn_fabric_object(1).SerializeAsString());
  EXPECT_EQ(env_.SoftwareListRuns(), 1u);
}

TEST_F(SoftwareManagerTest, ServiceRequestWithoutObjectsFailsWithAnEmptyIdentifier) {
  for (const char* action : {"stop", "restart"}) {
    SCOPED_TRACE(action);
    env_.ClearSent();
    env_.log().Clear();
    if (std::string(action) == "stop") {
      manager_->StopServices(Request(orvane::zel::dorn::MT_STOP_SERVICES, "s"), nullptr, nullptr);
    } else {
      manager_->RestartServices(Request(orvane::zel::dorn::MT_RESTART_SERVICES, "s"), nullptr,
                                nullptr);
    }

    const DornMessage answer = env_.OnlyAnswer();
    ASSERT_EQ(answer.operation_status_size(), 1);
    EXPECT_EQ(answer.operation_status(0).status(), orvane::zel::dorn::COMMAND_FAILED);
    EXPECT_TRUE(answer.operation_status(0).has_fabric_object_identifier());
    EXPECT_EQ(answer.operation_status(0).fabric_object_identifier(), "");
    EXPECT_FALSE(answer.operation_status(0).has_message());
    EXPECT_EQ(env_.log().Count("Running command"), 0u);
    EXPECT_EQ(env_.log().Count(std::string("Inside StopOrRestartServices sending response for ") +
                               action + " services request"),
              1u);
  }
}

}  // namespace
}  // namespace ZelDorn
