// DornProperties: the agent's configuration file and its three numeric
// properties.
//
// The file is in ini syntax ("[section]" and "key=value" lines); a property
// is named "<section>.<key>". It is read once, by CreateInstance at start-up;
// the getters read the tree that was loaded then, never the file.
//
// Threads: CreateInstance runs on the entry thread before any other thread
// starts. After that the object is read-only, and GetInstance and the getters
// may be called from any thread.
#ifndef DORN_CORE_DORN_PROPERTIES_H_
#define DORN_CORE_DORN_PROPERTIES_H_

#include <cstdint>
#include <string>

#include <boost/property_tree/ptree.hpp>
#include <boost/shared_ptr.hpp>

namespace ZelDorn {

class DornProperties {
 public:
  static constexpr const char* kDefaultPath = "/etc/orvane/zel-dorn/dornConfig.ini";

  // Builds the process-wide instance and loads `path` into it. If the file
  // cannot be read or parsed, logs "errorCode:MPA30008", leaves no instance
  // (GetInstance() returns null) and rethrows the parser's exception
  // (boost::property_tree::ini_parser_error).
  static boost::shared_ptr<DornProperties> CreateInstance(const std::string& path = kDefaultPath);
  // The instance, or null before CreateInstance succeeded.
  static boost::shared_ptr<DornProperties> GetInstance();

  DornProperties(const DornProperties&) = delete;
  DornProperties& operator=(const DornProperties&) = delete;

  // Each getter returns the property's value when it is a number from 0 to
  // 3600. A missing property or one that is no number logs
  // "errorCode:MPA30009" and gives the default; a number out of range
  // (negative ones too) gives the default without a log line.

  // "CommunicationHandler.ackTimeout", seconds, default 300.
  int32_t GetAckTimeout() const;
  // "Monitoring.updateCheckFrequency", seconds, default 60.
  int32_t GetUpdateCheckFrequency() const;
  // "Monitoring.monitoringStartDelay", seconds, default 180.
  int32_t GetMonitoringStartDelay() const;

  const std::string& path() const { return path_; }

 private:
  explicit DornProperties(const std::string& path);

  int32_t GetProperty_(const char* name, int32_t defaultValue) const;

  std::string path_;
  boost::property_tree::ptree tree_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_DORN_PROPERTIES_H_
