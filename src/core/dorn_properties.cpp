#include "core/dorn_properties.h"

#include <locale>

#include <boost/property_tree/ini_parser.hpp>

#include "cpp/lib/common/logger.h"
#include "util/mpa_error_tags.h"

namespace ZelDorn {

namespace {

// Highest accepted value of every property, in seconds.
constexpr uint32_t kMaxPropertyValue = 3600;

boost::shared_ptr<DornProperties> g_instance;

}  // namespace

DornProperties::DornProperties(const std::string& path) : path_(path) {}

boost::shared_ptr<DornProperties> DornProperties::CreateInstance(const std::string& path) {
  g_instance.reset(new DornProperties(path));
  try {
    boost::property_tree::ini_parser::read_ini(path, g_instance->tree_, std::locale());
  } catch (...) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA30008)
        .format("Error occurred while loading properties file %s", path.c_str());
    g_instance.reset();
    throw;
  }
  return g_instance;
}

boost::shared_ptr<DornProperties> DornProperties::GetInstance() { return g_instance; }

int32_t DornProperties::GetAckTimeout() const {
  return GetProperty_("CommunicationHandler.ackTimeout", 300);
}

int32_t DornProperties::GetUpdateCheckFrequency() const {
  return GetProperty_("Monitoring.updateCheckFrequency", 60);
}

int32_t DornProperties::GetMonitoringStartDelay() const {
  return GetProperty_("Monitoring.monitoringStartDelay", 180);
}

int32_t DornProperties::GetProperty_(const char* name, int32_t defaultValue) const {
  const boost::optional<int32_t> value = tree_.get_optional<int32_t>(name);
  if (!value) {
    // get_optional gives none both for a missing path and for text that is
    // not a whole number.
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA30009)
        .format("Error occurred while loading property %s, setting it to default value %d", name,
                defaultValue);
    return defaultValue;
  }
  // Negative numbers wrap to large unsigned ones and so fall out of range too.
  if (static_cast<uint32_t>(*value) > kMaxPropertyValue) {
    return defaultValue;
  }
  return *value;
}

}  // namespace ZelDorn
