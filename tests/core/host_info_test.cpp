#include "core/host_info.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/fake_host.h"
#include "support/log_capture.h"

namespace ZelDorn {
namespace {

using testing::FakeHost;

class HostInfoTest : public ::testing::Test {
 protected:
  HostInfoTest() {
    HostInfo::SetHostTypeForTest(nullptr);
  }
  ~HostInfoTest() override { HostInfo::SetHostTypeForTest(nullptr); }

  static std::string IdScript(const std::string& variant) {
    return FakeHost::FakesDir() + "/id/get_mpa_node_uuid-" + variant;
  }

  zel::testing::LogCapture log_{"VERBOSE"};
};

struct Detection {
  const char* fakes;
  const char* type;
  const char* line;
};

class HostTypeDetectionTest : public HostInfoTest,
                              public ::testing::WithParamInterface<Detection> {};

TEST_P(HostTypeDetectionTest, RecognisesTheHost) {
  FakeHost host(GetParam().fakes);
  EXPECT_EQ(HostInfo::InitVersionInfo(), 0);
  // The very literal, not merely equal text: callers compare pointers.
  EXPECT_EQ(HostInfo::GetHostType(), GetParam().type);
  EXPECT_EQ(log_.Count(GetParam().line), 1u) << ::testing::PrintToString(log_.Lines());
  EXPECT_EQ(log_.Count("level=\"ERROR\""), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, HostTypeDetectionTest,
    ::testing::Values(
        Detection{"ubuntu", kHostTypeUbuntu, "] [InitVersionInfo] running on Ubuntu KVM...\n"},
        Detection{"rhel", kHostTypeRhel, "] [InitVersionInfo] running on RedHat KVM...\n"},
        Detection{"centos", kHostTypeCentos, "] [InitVersionInfo] running on CentOS KVM...\n"},
        Detection{"sles", kHostTypeSles, "] [InitVersionInfo] running on SUSE KVM...\n"},
        Detection{"ulm", kHostTypeUlm, "] [InitVersionInfo] running on ULM...\n"}),
    [](const ::testing::TestParamInfo<Detection>& info) { return std::string(info.param.fakes); });

TEST_F(HostInfoTest, UlmHostKeepsItsVersionAndAsksNoDistribution) {
  FakeHost host("ulm");
  ASSERT_EQ(HostInfo::InitVersionInfo(), 0);
  EXPECT_EQ(HostInfo::GetHostVersion(), "7.0.3");
  EXPECT_EQ(log_.Count("] [InitVersionInfo] ulm version:[7.0.3]\n"), 1u);
  EXPECT_EQ(host.Calls(), std::vector<std::string>{"uname -s -r"});
}

TEST_F(HostInfoTest, UnknownLinuxLeavesTheTypeNullAndStillSucceeds) {
  FakeHost host("ubuntu");
  for (const char* lsb : {"echo Debian", "exit 1"}) {
    SCOPED_TRACE(lsb);
    log_.Clear();
    host.AddTool("lsb_release", lsb);
    EXPECT_EQ(HostInfo::InitVersionInfo(), 0);
    EXPECT_EQ(HostInfo::GetHostType(), nullptr);
    EXPECT_EQ(log_.Count("] [InitVersionInfo] running on unknown KVM...\n"), 1u);
    EXPECT_EQ(log_.Count("level=\"ERROR\""), 0u);
  }
}

TEST_F(HostInfoTest, UnameOutputMustBeTwoLinuxWordsUnderFiftyCharacters) {
  FakeHost host("ubuntu");
  // With its newline, 49 characters pass and 50 do not.
  const std::string release48(48 - 6, 'r');
  host.AddTool("uname", "echo 'Linux " + release48 + "'");
  EXPECT_EQ(HostInfo::InitVersionInfo(), 0);
  EXPECT_EQ(HostInfo::GetHostType(), kHostTypeUbuntu);

  HostInfo::SetHostTypeForTest(nullptr);
  const std::string release49(49 - 6, 'r');
  for (const std::string& output : {"Linux " + release49, std::string("Linux")}) {
    SCOPED_TRACE(output);
    log_.Clear();
    host.AddTool("uname", "echo '" + output + "'");
    EXPECT_EQ(HostInfo::InitVersionInfo(), -1);
    EXPECT_EQ(HostInfo::GetHostType(), nullptr);
    EXPECT_EQ(log_.Count("level=\"ERROR\" errorCode=\"MPA30011\"] [InitVersionInfo] "
                         "unrecognized uname output:[" + output + "\n]\n"),
              1u);
  }

  // Another kernel is rejected.
  host.AddTool("uname", "echo 'Darwin 22.1.0'");
  EXPECT_EQ(HostInfo::InitVersionInfo(), -1);
  EXPECT_EQ(log_.Count("] [InitVersionInfo] unrecognized host type:[Darwin]\n"), 1u);
}

TEST_F(HostInfoTest, RegisteredHostIdIsReadOnce) {
  FakeHost host("ubuntu");
  HostInfo::CreateInstance(IdScript("valid"));
  auto info = HostInfo::GetInstance();
  EXPECT_EQ(info->GetHostId(), "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60");
  EXPECT_EQ(info->GetHostId(), "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60");
  EXPECT_EQ(info->RefreshHostId(), 1);
  EXPECT_EQ(host.Calls("get_mpa_node_uuid").size(), 1u);
  EXPECT_EQ(log_.Count("Command Reply for ZEL CLI HOST ID command = "
                       "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60\n."),
            1u);
  EXPECT_EQ(log_.Count("] Host is registered with ID = 4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60."),
            1u);

  // Upper case with white space around is trimmed and accepted.
  HostInfo::CreateInstance(IdScript("upper"));
  EXPECT_EQ(HostInfo::GetInstance()->RefreshHostId(), 1);
  EXPECT_EQ(HostInfo::GetInstance()->GetHostId(), "4C6F0A57-2B9E-4D1A-9C3E-7F5D2E8A1B60");
}

TEST_F(HostInfoTest, InvalidIdIsReportedOnceAndThenStands) {
  FakeHost host("ubuntu");
  HostInfo::CreateInstance(IdScript("invalid"));
  auto info = HostInfo::GetInstance();
  EXPECT_EQ(info->RefreshHostId(), 0);
  EXPECT_EQ(info->GetHostId(), "abc");
  EXPECT_EQ(info->RefreshHostId(), 1);
  EXPECT_EQ(info->GetHostId(), "abc");
  EXPECT_EQ(host.Calls("get_mpa_node_uuid").size(), 1u);
  EXPECT_EQ(log_.Count("errorCode=\"MPA30001\""), 1u);
  EXPECT_EQ(log_.Count("] Invalid Host ID found. ZEL-CLI provided abc is not valid UUID."), 1u);
}

TEST_F(HostInfoTest, UnreadableIdIsAskedForAgainAtEachUse) {
  for (const char* variant : {"unregistered", "failing", "missing"}) {
    SCOPED_TRACE(variant);
    log_.Clear();
    FakeHost host("ubuntu");
    HostInfo::CreateInstance(IdScript(variant));
    auto info = HostInfo::GetInstance();
    EXPECT_EQ(info->GetHostId(), "");
    EXPECT_EQ(info->RefreshHostId(), 0);
    EXPECT_EQ(info->GetHostId(), "");
    EXPECT_EQ(log_.Count("errorCode=\"MPA30002\""), 3u);
    EXPECT_EQ(log_.Count("] Failed to get the ID for host, waiting for host registration to "
                         "complete."),
              3u);
    if (std::string(variant) != "missing") {
      EXPECT_EQ(host.Calls("get_mpa_node_uuid").size(), 3u);
    }
  }
}

TEST_F(HostInfoTest, UuidShapeIsCheckedExactly) {
  // Each of these misses the shape by one character.
  const char* bad[] = {"4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b6", "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b600",
                       "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1g60", "4c6f0a5-72b9e-4d1a-9c3e-7f5d2e8a1b60"};
  FakeHost host("ubuntu");
  host.AddTool("get_mpa_node_uuid", "cat \"$ZEL_FAKE_HOST_DIR/id\"");
  for (const char* id : bad) {
    SCOPED_TRACE(id);
    host.WriteState("id", std::string(id) + "\n");
    HostInfo::CreateInstance("get_mpa_node_uuid");
    EXPECT_EQ(HostInfo::GetInstance()->RefreshHostId(), 0);
  }
  host.WriteState("id", "01234567-89ab-cdef-ABCD-EF0123456789\n");
  HostInfo::CreateInstance("get_mpa_node_uuid");
  EXPECT_EQ(HostInfo::GetInstance()->RefreshHostId(), 1);
}

}  // namespace
}  // namespace ZelDorn
