// Monitor: the thread that checks, at a steady rhythm, which tracked packages
// are unmet (SoftwareManager::GetUnmet) and, when the result has changed or a
// publish was forced, logs each unmet package and writes their number into the
// status file that other processes of the host read.
//
// The status file holds exactly 4 bytes: the count as an unsigned 32-bit
// number in the host's byte order. The monitor writes 0 as its first act, so
// the file's presence says the monitor is alive.
//
// Threads: run() and CheckOnce() belong to the monitor thread (CheckOnce may
// be called from another thread only while run() is not running). The
// previous result is touched by that thread alone. ForcePublish() may be
// called from any thread; the flag is a relaxed atomic byte, and a lost update
// only delays a publish by one cycle.
#ifndef DORN_CORE_MONITOR_H_
#define DORN_CORE_MONITOR_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "core/thread.h"

namespace orvane {
namespace zel {
namespace dorn {
class Software;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace ZelDorn {

class DornProperties;

class Monitor : public Thread {
 public:
  static constexpr const char* kThreadName = "MonitorThread";
  static constexpr const char* kStatusFilePath = "/etc/orvane/zel-dorn/software_status";

  // Builds the monitor with the force-publish flag set and no previous
  // result; the thread is not started. `properties` gives the start delay and
  // the check period; when null, DornProperties::GetInstance() is read at
  // each use, and without an instance the defaults (180 s and 60 s) apply.
  explicit Monitor(const std::string& name = kThreadName,
                   const std::string& statusFilePath = kStatusFilePath,
                   boost::shared_ptr<const DornProperties> properties = {});
  // Joins the thread if it was started (never interrupts it), so a running
  // monitor holds its last owner here until something interrupts it.
  ~Monitor();

  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;

  // The thread body: writes 0 to the status file, sleeps for
  // Monitoring.monitoringStartDelay seconds, then runs CheckOnce every
  // Monitoring.updateCheckFrequency seconds (read anew each cycle) for ever.
  // The sleeps are interruption points; an interruption ends the loop with a
  // WARN line and returns.
  void run() override;

  // Makes the next check publish whether or not the result changed. Called
  // by the CommunicationHandler after each MT_INIT.
  void ForcePublish();

  // One check: asks the SoftwareManager for the unmet packages and publishes
  // when the result differs from the previous one (in size, or in the
  // serialised bytes of an entry) or when forced, and when no previous result
  // exists and the new one is not empty. Publishing logs one ERROR line per
  // unmet package (MPA30006 absent, MPA30007 wrong version), writes the count
  // to the status file and clears the force flag. Contains an interruption
  // point. Returns true when it published.
  bool CheckOnce();

  const std::string& statusFilePath() const { return statusFilePath_; }

 private:
  // Rewrites the status file with `count`. Failures are ignored: the file is
  // advisory and the next publish writes it again.
  void WriteStatusFile_(uint32_t count) const;
  int32_t StartDelaySeconds_() const;
  int32_t CheckPeriodSeconds_() const;

  const std::string statusFilePath_;
  const boost::shared_ptr<const DornProperties> properties_;
  std::atomic<uint8_t> forcePublish_{1};
  // The result of the last check; null before the first. Monitor thread only.
  std::unique_ptr<std::vector<std::unique_ptr<orvane::zel::dorn::Software>>> previous_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_MONITOR_H_
