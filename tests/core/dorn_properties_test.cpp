#include "core/dorn_properties.h"

#include <string>

#include <boost/property_tree/ini_parser.hpp>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ZelDorn {
namespace {

constexpr char kLoadFileTag[] = "errorCode=\"MPA30008\"";
constexpr char kPropertyTag[] = "errorCode=\"MPA30009\"";

class DornPropertiesTest : public ::testing::Test {
 protected:
  // Loads `content` as the configuration file; fails the test on error.
  boost::shared_ptr<DornProperties> Load(const std::string& content) {
    const std::string path = dir_.WriteFile("dornConfig.ini", content);
    auto properties = DornProperties::CreateInstance(path);
    log_.Clear();
    return properties;
  }

  zel::testing::TempDir dir_;
  zel::testing::LogCapture log_;
};

TEST_F(DornPropertiesTest, ReadsAllThreeProperties) {
  auto p = Load(
      "[CommunicationHandler]\n"
      "ackTimeout=42\n"
      "[Monitoring]\n"
      "updateCheckFrequency=7\n"
      "monitoringStartDelay=99\n");
  EXPECT_EQ(DornProperties::GetInstance(), p);
  EXPECT_EQ(p->path(), dir_.path() + "/dornConfig.ini");
  EXPECT_EQ(p->GetAckTimeout(), 42);
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 7);
  EXPECT_EQ(p->GetMonitoringStartDelay(), 99);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(DornPropertiesTest, RangeBoundsAreZeroAndThirtySixHundred) {
  auto p = Load(
      "[CommunicationHandler]\nackTimeout=3600\n"
      "[Monitoring]\nupdateCheckFrequency=0\nmonitoringStartDelay=3601\n");
  EXPECT_EQ(p->GetAckTimeout(), 3600);
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 0);
  EXPECT_EQ(p->GetMonitoringStartDelay(), 180);
  // Out of range, negative included, falls back silently.
  p = Load("[Monitoring]\nupdateCheckFrequency=-5\n");
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 60);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(DornPropertiesTest, NonNumberGivesDefaultAndLogs) {
  auto p = Load(
      "[CommunicationHandler]\nackTimeout=12abc\n"
      "[Monitoring]\nupdateCheckFrequency=abc\nmonitoringStartDelay=99999999999\n");
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 60);
  EXPECT_EQ(p->GetAckTimeout(), 300);
  EXPECT_EQ(p->GetMonitoringStartDelay(), 180);
  const auto lines = log_.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("level=\"ERROR\" errorCode=\"MPA30009\""), std::string::npos)
      << lines[0];
  EXPECT_NE(lines[0].find("] Error occurred while loading property "
                          "Monitoring.updateCheckFrequency, setting it to default value 60"),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find("CommunicationHandler.ackTimeout, setting it to default value 300"),
            std::string::npos);
  EXPECT_NE(lines[2].find("Monitoring.monitoringStartDelay, setting it to default value 180"),
            std::string::npos);
}

TEST_F(DornPropertiesTest, MissingSectionOrKeyLogsAtEachCall) {
  auto p = Load("[CommunicationHandler]\nackTimeout=5\n");
  EXPECT_EQ(p->GetAckTimeout(), 5);
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 60);
  EXPECT_EQ(p->GetUpdateCheckFrequency(), 60);
  EXPECT_EQ(p->GetMonitoringStartDelay(), 180);
  EXPECT_EQ(log_.Count(kPropertyTag), 3u);
  EXPECT_EQ(log_.Count("Monitoring.updateCheckFrequency"), 2u);

  p = Load("");
  EXPECT_EQ(p->GetAckTimeout(), 300);
  EXPECT_EQ(log_.Count(kPropertyTag), 1u);
}

TEST_F(DornPropertiesTest, MissingFileLogsClearsInstanceAndRethrows) {
  Load("[Monitoring]\nupdateCheckFrequency=10\n");
  ASSERT_NE(DornProperties::GetInstance(), nullptr);
  const std::string missing = dir_.path() + "/absent.ini";
  EXPECT_THROW(DornProperties::CreateInstance(missing),
               boost::property_tree::ini_parser_error);
  EXPECT_EQ(DornProperties::GetInstance(), nullptr);
  EXPECT_EQ(log_.Count(kLoadFileTag), 1u);
  EXPECT_EQ(log_.Count("] Error occurred while loading properties file " + missing), 1u);
}

}  // namespace
}  // namespace ZelDorn
