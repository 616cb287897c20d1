#include "core/monitor.h"

#include <fstream>
#include <string>
#include <utility>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/thread/thread.hpp>

#include "core/dorn_properties.h"
#include "core/host_info.h"
#include "core/software_manager.h"
#include "cpp/lib/common/logger.h"
#include "util/mpa_error_tags.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {

using orvane::zel::dorn::Software;

namespace {

constexpr int32_t kDefaultStartDelaySeconds = 180;
constexpr int32_t kDefaultCheckPeriodSeconds = 60;

// Sleeps to an absolute time so that the wait is one interruption point and
// is not stretched by spurious wake-ups.
void SleepSeconds(int32_t seconds) {
  boost::this_thread::sleep(boost::posix_time::microsec_clock::universal_time() +
                            boost::posix_time::microseconds(int64_t{seconds} * 1000000));
}

bool SameEntries(const std::vector<std::unique_ptr<Software>>& previous,
                 const std::vector<std::unique_ptr<Software>>& current) {
  for (size_t i = 0; i < current.size(); ++i) {
    // Serialised bytes, so that a change of state or version with the same
    // name counts as well.
    if (previous[i]->SerializeAsString() != current[i]->SerializeAsString()) return false;
  }
  return true;
}

}  // namespace

Monitor::Monitor(const std::string& name, const std::string& statusFilePath,
                 boost::shared_ptr<const DornProperties> properties)
    : Thread(name), statusFilePath_(statusFilePath), properties_(std::move(properties)) {}

Monitor::~Monitor() {
  // run() uses this object's members: wait for it here, before they go.
  Join();
}

void Monitor::run() {
  // The file's presence tells other processes that the monitor is alive.
  WriteStatusFile_(0);
  try {
    SleepSeconds(StartDelaySeconds_());
    for (;;) {
      DORN_LOG(zel::kLogVerbose)
          .format("Check status of software installed on this host and report to MP.");
      CheckOnce();
      SleepSeconds(CheckPeriodSeconds_());
    }
  } catch (const boost::thread_interrupted&) {
    DORN_LOG(zel::kLogWarn).format("Software monitor thread interrupted.");
  }
}

void Monitor::ForcePublish() { forcePublish_.store(1, std::memory_order_relaxed); }

bool Monitor::CheckOnce() {
  auto current = std::make_unique<std::vector<std::unique_ptr<Software>>>(
      SoftwareManager::GetInstance()->GetUnmet());
  boost::this_thread::interruption_point();

  const bool forced = forcePublish_.load(std::memory_order_relaxed) != 0;
  bool publish;
  if (!previous_) {
    publish = !current->empty() || forced;
  } else if (previous_->size() != current->size()) {
    publish = true;
  } else if (!SameEntries(*previous_, *current)) {
    DORN_LOG(zel::kLogInfo).format("Change detected in the list of missing software");
    publish = true;
  } else {
    publish = forced;
  }
  if (publish) DORN_LOG(zel::kLogInfo).format("Publishing status update");

  previous_ = std::move(current);
  if (!publish) return false;

  // The host id is asked for each line: on a host that is not registered yet
  // every line runs the id script again, which may by then have an answer.
  for (const auto& software : *previous_) {
    if (software->state() == orvane::zel::dorn::ABSENT) {
      DORN_LOG(zel::kLogError)
          .addTag(ZelMpa::tag::MPA30006)
          .format("Software %s not present on host %s", software->name().c_str(),
                  HostInfo::GetInstance()->GetHostId().c_str());
    } else {
      DORN_LOG(zel::kLogError)
          .addTag(ZelMpa::tag::MPA30007)
          .format("Host %s has invalid version %s of software %s",
                  HostInfo::GetInstance()->GetHostId().c_str(), software->version().c_str(),
                  software->name().c_str());
    }
  }
  WriteStatusFile_(static_cast<uint32_t>(previous_->size()));
  forcePublish_.store(0, std::memory_order_relaxed);
  return true;
}

void Monitor::WriteStatusFile_(uint32_t count) const {
  std::ofstream out(statusFilePath_, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(&count), sizeof(count));
}

int32_t Monitor::StartDelaySeconds_() const {
  boost::shared_ptr<const DornProperties> properties =
      properties_ ? properties_ : DornProperties::GetInstance();
  return properties ? properties->GetMonitoringStartDelay() : kDefaultStartDelaySeconds;
}

int32_t Monitor::CheckPeriodSeconds_() const {
  boost::shared_ptr<const DornProperties> properties =
      properties_ ? properties_ : DornProperties::GetInstance();
  return properties ? properties->GetUpdateCheckFrequency() : kDefaultCheckPeriodSeconds;
}

}  // namespace ZelDorn
