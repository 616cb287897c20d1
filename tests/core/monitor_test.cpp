// Monitor: the status file, change detection, forced publishes, the lines of
// each publish, and the thread body's first write and rhythm. Checks are
// driven directly (CheckOnce) while the thread is not started; the thread
// tests wait on the status file with a deadline and end the thread by
// interrupting its sleep.
#include "core/monitor.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "core/dorn_properties.h"
#include "core/manager_test_support.h"
#include "core/software_manager.h"
#include "support/wait.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {
namespace {

using orvane::zel::dorn::Software;
using testing::ManagerTestEnv;
using zel::testing::TempDir;

Software MakeSoftware(const std::string& name, const std::string& version) {
  Software software;
  software.set_name(name);
  software.set_version(version);
  return software;
}

class MonitorTest : public ::testing::Test {
 protected:
  MonitorTest() : software_(SoftwareManager::CreateInstance()) {
    statusPath_ = env_.dir().path() + "/software_status";
  }

  // A monitor whose properties come from an ini file with these values.
  std::unique_ptr<Monitor> MakeMonitor(int startDelay, int checkPeriod) {
    const std::string ini = env_.dir().WriteFile(
        "dornConfig.ini", "[Monitoring]\nmonitoringStartDelay=" + std::to_string(startDelay) +
                              "\nupdateCheckFrequency=" + std::to_string(checkPeriod) + "\n");
    return std::make_unique<Monitor>(Monitor::kThreadName, statusPath_,
                                     DornProperties::CreateInstance(ini));
  }

  // The status file's value, or nullopt when it does not hold 4 bytes.
  std::optional<uint32_t> Status() const {
    const std::string bytes = TempDir::ReadFile(statusPath_);
    if (bytes.size() != sizeof(uint32_t)) return std::nullopt;
    uint32_t value;
    std::memcpy(&value, bytes.data(), sizeof(value));
    return value;
  }

  bool WaitForStatus(uint32_t expected) const {
    return zel::testing::WaitUntil([&] { return Status() == expected; });
  }

  // Records that contain both texts.
  size_t LinesWith(const std::string& a, const std::string& b) {
    size_t n = 0;
    for (const std::string& line : env_.log().Lines()) {
      n += line.find(a) != std::string::npos && line.find(b) != std::string::npos;
    }
    return n;
  }

  // Two unmet packages: "gamma" at a wrong version, "delta" absent.
  void TrackTwoUnmet() {
    env_.SetSoftwareList("gamma 1.9\n");
    software_->Track(MakeSoftware("gamma", "2.0"));
    software_->Track(MakeSoftware("delta", "1.0"));
  }

  ManagerTestEnv env_;
  boost::shared_ptr<SoftwareManager> software_;
  std::string statusPath_;
};

// ---- One check ------------------------------------------------------------

TEST_F(MonitorTest, FirstCheckPublishesEvenWhenNothingIsMissingThenOnlyOnChange) {
  auto monitor = MakeMonitor(180, 60);
  EXPECT_TRUE(monitor->CheckOnce());
  EXPECT_EQ(Status(), 0u);
  EXPECT_EQ(env_.log().Count("Publishing status update"), 1u);
  EXPECT_EQ(env_.HostIdRuns(), 0u) << "the host id is only needed for unmet packages";

  EXPECT_FALSE(monitor->CheckOnce());  // two empty lists, no force
  EXPECT_EQ(env_.log().Count("Publishing status update"), 1u);

  TrackTwoUnmet();
  EXPECT_TRUE(monitor->CheckOnce());  // size changed
  EXPECT_EQ(Status(), 2u);
  EXPECT_FALSE(monitor->CheckOnce());  // same list again
  EXPECT_EQ(env_.log().Count("Publishing status update"), 2u);
  EXPECT_EQ(env_.log().Count("Change detected in the list of missing software"), 0u);

  // The tracking list emptied (as by an MT_INIT without software): 0 again.
  software_->ClearTracked();
  EXPECT_TRUE(monitor->CheckOnce());
  EXPECT_EQ(Status(), 0u);
}

// Each unmet package is logged with the host id, asked for anew per line: a
// host that is not registered yet runs the id script again for each line, a
// registered one runs it once (the id is kept).
TEST_F(MonitorTest, PublishLogsEachUnmetPackageWithTheHostIdAndWritesTheCount) {
  const struct {
    std::string idOutput;
    std::string hostInLines;
    size_t idRuns;
    size_t notRegisteredLines;
  } cases[] = {
      {"", "", 2, 2},
      {std::string(ManagerTestEnv::kHostId) + "\n", ManagerTestEnv::kHostId, 1, 0},
  };
  TrackTwoUnmet();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.idOutput);
    env_.SetHostIdOutput(c.idOutput);
    env_.log().Clear();
    const size_t idRunsBefore = env_.HostIdRuns();
    auto monitor = MakeMonitor(180, 60);
    ASSERT_TRUE(monitor->CheckOnce());

    EXPECT_EQ(LinesWith("level=\"ERROR\" errorCode=\"MPA30007\"]",
                        "Host " + c.hostInLines + " has invalid version 1.9 of software gamma"),
              1u);
    EXPECT_EQ(LinesWith("level=\"ERROR\" errorCode=\"MPA30006\"]",
                        "Software delta not present on host " + c.hostInLines),
              1u);
    EXPECT_EQ(env_.HostIdRuns() - idRunsBefore, c.idRuns);
    EXPECT_EQ(env_.log().Count("errorCode=\"MPA30002\""), c.notRegisteredLines);
    EXPECT_EQ(Status(), 2u);  // four bytes in the host's byte order

    // A check that does not publish logs nothing of the packages.
    env_.log().Clear();
    EXPECT_FALSE(monitor->CheckOnce());
    EXPECT_EQ(env_.log().Count("errorCode=\"MPA3000"), 0u);
  }
}

TEST_F(MonitorTest, ForcePublishRepublishesAnUnchangedList) {
  TrackTwoUnmet();
  auto monitor = MakeMonitor(180, 60);
  ASSERT_TRUE(monitor->CheckOnce());
  ASSERT_FALSE(monitor->CheckOnce());

  monitor->ForcePublish();
  EXPECT_TRUE(monitor->CheckOnce());
  EXPECT_EQ(env_.log().Count("Software delta not present on host"), 2u);
  // The flag is cleared by the publish.
  EXPECT_FALSE(monitor->CheckOnce());
}

TEST_F(MonitorTest, StateChangeWithTheSameCountIsAChange) {
  env_.SetSoftwareList("");
  software_->Track(MakeSoftware("delta", "1.0"));
  auto monitor = MakeMonitor(180, 60);
  ASSERT_TRUE(monitor->CheckOnce());

  // delta goes from ABSENT to INVALID_VERSION: still one unmet package.
  env_.SetSoftwareList("delta 0.9\n");
  EXPECT_TRUE(monitor->CheckOnce());
  EXPECT_EQ(env_.log().Count("Change detected in the list of missing software"), 1u);
  EXPECT_EQ(env_.log().Count("has invalid version 0.9 of software delta"), 1u);
  EXPECT_EQ(Status(), 1u);
}

// ---- The thread -----------------------------------------------------------

TEST_F(MonitorTest, ThreadWritesZeroFirstAndChecksNothingBeforeTheStartDelay) {
  TrackTwoUnmet();
  auto monitor = MakeMonitor(3600, 0);
  monitor->Start();
  ASSERT_TRUE(WaitForStatus(0)) << "the status file was not written";
  monitor->Interrupt();
  monitor->Join();

  EXPECT_EQ(Status(), 0u);
  EXPECT_EQ(env_.SoftwareListRuns(), 0u);
  EXPECT_EQ(env_.log().Count("Software monitor thread interrupted."), 1u);
}

TEST_F(MonitorTest, ThreadChecksAfterTheStartDelayAndPublishesTheCount) {
  TrackTwoUnmet();
  auto monitor = MakeMonitor(0, 3600);
  monitor->Start();
  ASSERT_TRUE(WaitForStatus(2)) << "the first check did not publish";
  monitor->Interrupt();
  monitor->Join();

  EXPECT_EQ(env_.SoftwareListRuns(), 1u) << "a second check ran before the period";
  EXPECT_EQ(env_.log().Count("Check status of software installed on this host and report to MP."),
            1u);
  EXPECT_EQ(env_.log().Count("Software monitor thread interrupted."), 1u);
}

}  // namespace
}  // namespace ZelDorn
