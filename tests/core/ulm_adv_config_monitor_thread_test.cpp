#include "core/ulm_adv_config_monitor_thread.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/exceptions.hpp>
#include <gtest/gtest.h>

#include "core/fake_host.h"
#include "core/host_operations.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ZelDorn {
namespace {

using testing::FakeHost;
using zel::testing::TempDir;

const std::vector<std::string> kGetCalls = {
    "ulmcfg-advcfg -q -g /UserVars/ZEL_IP",
    "ulmcfg-advcfg -q -g /UserVars/ZEL_Thumbprint",
    "ulmcfg-advcfg -q -g /UserVars/ZEL_Token",
    "ulmcfg-advcfg -q -g /UserVars/ZEL_NodeUUID",
};
const std::vector<std::string> kResetCalls = {
    "ulmcfg-advcfg -q -d /UserVars/ZEL_IP",
    "ulmcfg-advcfg -q -d /UserVars/ZEL_Thumbprint",
    "ulmcfg-advcfg -q -d /UserVars/ZEL_Token",
    "ulmcfg-advcfg -q -d /UserVars/ZEL_NodeUUID",
};
// The join command as the shell hands it to zelcli: one argument after -c.
const std::string kJoinCall =
    "zelcli -c join management-plane 10.0.0.5 thumbprint AB:CD:EF  token tok-123  node-uuid "
    "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60 ";

class UlmAdvConfigMonitorThreadTest : public ::testing::Test {
 protected:
  UlmAdvConfigMonitorThreadTest() { host_.reset(new HostOperations()); }

  // Defines the four options with their default "null", as the thread's
  // first act would, and gives them `values` (the rest stay "null").
  void SetOptions(const std::vector<std::string>& values) const {
    const char* names[] = {"ZEL_IP", "ZEL_Thumbprint", "ZEL_Token", "ZEL_NodeUUID"};
    std::filesystem::create_directories(fake_.state() + "/advcfg");
    for (size_t i = 0; i < 4; ++i) {
      fake_.WriteState(std::string("advcfg/") + names[i] + ".default", "null\n");
      fake_.WriteState(std::string("advcfg/") + names[i],
                       (i < values.size() ? values[i] : "null") + "\n");
    }
  }
  std::string Option(const std::string& name) const {
    return TempDir::ReadFile(fake_.state() + "/advcfg/" + name);
  }

  zel::testing::LogCapture log_;
  FakeHost fake_{"ulm"};
  boost::shared_ptr<HostOperations> host_;
};

TEST_F(UlmAdvConfigMonitorThreadTest, AnUnsetOptionStopsTheReadingAndDoesNotJoin) {
  SetOptions({});
  UlmAdvConfigMonitorThread monitor(UlmAdvConfigMonitorThread::kThreadName, host_);
  EXPECT_FALSE(monitor.CheckOnce());
  EXPECT_EQ(fake_.Calls(), std::vector<std::string>{kGetCalls[0]});
  EXPECT_EQ(log_.Count("] ZEL_IP is not yet initialized. Skip checking other configs. Wait again"),
            1u);

  SetOptions({"10.0.0.5", "AB:CD:EF", "tok-123", "null"});
  EXPECT_FALSE(monitor.CheckOnce());
  EXPECT_EQ(fake_.Calls("ulmcfg-advcfg -q -g").size(), 5u);
  EXPECT_EQ(fake_.Calls("zelcli").size(), 0u);
  EXPECT_EQ(log_.Count("] ZEL_IP has value 10.0.0.5 "), 1u);
  EXPECT_EQ(log_.Count("] ZEL_NodeUUID is not yet initialized."), 1u);
  EXPECT_EQ(Option("ZEL_IP"), "10.0.0.5\n");  // left as it was
}

TEST_F(UlmAdvConfigMonitorThreadTest, AllSetJoinsAndResets) {
  SetOptions({"  10.0.0.5\t", "AB:CD:EF", " tok-123 ", "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60"});
  UlmAdvConfigMonitorThread monitor(UlmAdvConfigMonitorThread::kThreadName, host_);
  EXPECT_TRUE(monitor.CheckOnce());

  std::vector<std::string> expected = kGetCalls;
  expected.push_back(kJoinCall);
  expected.insert(expected.end(), kResetCalls.begin(), kResetCalls.end());
  EXPECT_EQ(fake_.Calls(), expected);

  const std::string join =
      "zelcli -c \"join management-plane 10.0.0.5 thumbprint AB:CD:EF  token tok-123  "
      "node-uuid 4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60 \"";
  EXPECT_EQ(log_.Count("] Command to join management plane is " + join), 1u);
  EXPECT_EQ(log_.Count("] Join MP command executed successfully."), 1u);
  EXPECT_EQ(log_.Count("] Now reset all adv config values"), 1u);
  for (const char* name : {"ZEL_IP", "ZEL_Thumbprint", "ZEL_Token", "ZEL_NodeUUID"}) {
    EXPECT_EQ(Option(name), "null\n") << name;
  }
}

TEST_F(UlmAdvConfigMonitorThreadTest, FailedJoinResetsAsWell) {
  SetOptions({"10.0.0.5", "AB:CD:EF", "tok-123", "4c6f0a57-2b9e-4d1a-9c3e-7f5d2e8a1b60"});
  fake_.WriteState("zelcli.rc", "5\n");
  UlmAdvConfigMonitorThread monitor(UlmAdvConfigMonitorThread::kThreadName, host_);
  EXPECT_TRUE(monitor.CheckOnce());
  EXPECT_EQ(log_.Count("] joinMP command was called. return value is 5"), 1u);
  EXPECT_EQ(log_.Count("] Join MP command failed"), 1u);
  EXPECT_EQ(log_.Count("executed successfully"), 0u);
  EXPECT_EQ(fake_.Calls("ulmcfg-advcfg -q -d"), kResetCalls);
  EXPECT_EQ(Option("ZEL_Token"), "null\n");

  // Nothing is retried: the next round finds the options unset.
  log_.Clear();
  EXPECT_FALSE(monitor.CheckOnce());
  EXPECT_EQ(fake_.Calls("zelcli").size(), 1u);
}

TEST_F(UlmAdvConfigMonitorThreadTest, RunDefinesTheOptionsThenChecksAfterEachWait) {
  // The wait marks itself in the call record and ends the thread on its
  // third call, the way an interruption would.
  int waits = 0;
  const std::string calls = fake_.state() + "/calls.log";
  auto wait = [&] {
    std::ofstream(calls, std::ios::app) << "wait\n";
    if (++waits == 3) throw boost::thread_interrupted();
  };
  {
    UlmAdvConfigMonitorThread monitor(UlmAdvConfigMonitorThread::kThreadName, host_, wait);
    monitor.Start();
    monitor.Join();
  }
  EXPECT_EQ(waits, 3);

  std::vector<std::string> record = fake_.Calls();
  ASSERT_EQ(record.size(), 9u);
  EXPECT_EQ(record[0],
            "ulmcfg-advcfg --add-option ZEL_IP --add-desc IP of MP --add-default null --add-type "
            "string");
  EXPECT_EQ(fake_.Calls("ulmcfg-advcfg --add-option").size(), 4u);
  record.erase(record.begin(), record.begin() + 4);
  EXPECT_EQ(record, (std::vector<std::string>{"wait", kGetCalls[0], "wait", kGetCalls[0], "wait"}));
  // The double blank behind --add-desc is in the command the shell gets.
  EXPECT_EQ(log_.Count("] Running command ulmcfg-advcfg --add-option ZEL_IP --add-desc  \"IP "
                       "of MP\" --add-default null --add-type string."),
            1u);
  EXPECT_EQ(log_.Count("] Started UlmAdvConfigMonitorThread."), 1u);
  EXPECT_EQ(log_.Count("] Thread got interrupted."), 1u);
  EXPECT_EQ(Option("ZEL_IP"), "null\n");
}

}  // namespace
}  // namespace ZelDorn
