#include "core/host_info.h"

#include <stdio.h>
#include <string.h>

#include <atomic>
#include <cctype>
#include <mutex>
#include <string>

#include "core/execute_command.h"
#include "cpp/lib/common/logger.h"
#include "util/mpa_error_tags.h"

namespace ZelDorn {

const char kHostTypeUbuntu[] = "UBUNTUKVM";
const char kHostTypeRhel[] = "RHELKVM";
const char kHostTypeCentos[] = "CENTOSKVM";
const char kHostTypeSles[] = "SLESKVM";
const char kHostTypeUlm[] = "ULMI";

namespace {

constexpr const char* kFunction = "InitVersionInfo";
// uname's answer is two short words; anything this long is not what we
// asked for, and it also bounds the two sscanf targets below.
constexpr size_t kMaxUnameOutput = 50;

boost::shared_ptr<HostInfo> g_instance;
// Written once on the entry thread before other threads start; atomic so
// that tests which set it while a stray reader runs stay well defined.
std::atomic<const char*> g_hostType{nullptr};
std::mutex g_versionMutex;
std::string g_hostVersion;

struct Distribution {
  const char* marker;
  const char* type;
  const char* line;
};

// Searched in this order in the output of "lsb_release -si"; the first
// match decides.
constexpr Distribution kDistributions[] = {
    {"Ubuntu", kHostTypeUbuntu, "[%s] running on Ubuntu KVM...\n"},
    {"RedHat", kHostTypeRhel, "[%s] running on RedHat KVM...\n"},
    {"CentOS", kHostTypeCentos, "[%s] running on CentOS KVM...\n"},
    {"SUSE", kHostTypeSles, "[%s] running on SUSE KVM...\n"},
};

std::string TrimWhiteSpace(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

// 8-4-4-4-12 hexadecimal digits of either case.
bool IsUuid(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return false;
    } else if (!std::isxdigit(static_cast<unsigned char>(text[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

HostInfo::HostInfo(const std::string& idScript) : idScript_(idScript) {}

void HostInfo::CreateInstance(const std::string& idScript) {
  g_instance.reset(new HostInfo(idScript));
  // A failed detection is logged inside and leaves the type null; the agent
  // carries on and type-dependent operations report the unknown type.
  (void)InitVersionInfo();
}

boost::shared_ptr<HostInfo> HostInfo::GetInstance() { return g_instance; }

int HostInfo::InitVersionInfo() {
  std::string output;
  ExecuteCommand("uname -s -r", output);

  char kernel[kMaxUnameOutput] = {0};
  char version[kMaxUnameOutput] = {0};
  if (output.size() >= kMaxUnameOutput ||
      sscanf(output.c_str(), "%s %s", kernel, version) != 2) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA30011)
        .format("[%s] unrecognized uname output:[%s]\n", kFunction, output.c_str());
    return -1;
  }

  if (strcmp(kernel, "Ulmcore") == 0) {
    g_hostType = kHostTypeUlm;
    DORN_LOG(zel::kLogInfo).format("[%s] running on ULM...\n", kFunction);
    DORN_LOG(zel::kLogInfo).format("[%s] ulm version:[%s]\n", kFunction, version);
    std::lock_guard<std::mutex> lock(g_versionMutex);
    g_hostVersion = version;
    return 0;
  }

  if (strcmp(kernel, "Linux") == 0) {
    std::string distribution;
    ExecuteCommand("lsb_release -si", distribution);
    for (const Distribution& candidate : kDistributions) {
      if (distribution.find(candidate.marker) != std::string::npos) {
        g_hostType = candidate.type;
        DORN_LOG(zel::kLogInfo).format(candidate.line, kFunction);
        return 0;
      }
    }
    DORN_LOG(zel::kLogInfo).format("[%s] running on unknown KVM...\n", kFunction);
    return 0;
  }

  DORN_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA30011)
      .format("[%s] unrecognized host type:[%s]\n", kFunction, kernel);
  return -1;
}

const char* HostInfo::GetHostType() { return g_hostType; }

std::string HostInfo::GetHostVersion() {
  std::lock_guard<std::mutex> lock(g_versionMutex);
  return g_hostVersion;
}

void HostInfo::SetHostTypeForTest(const char* hostType) { g_hostType = hostType; }

std::string HostInfo::GetHostId() {
  if (hostId_.empty()) RefreshHostId();
  return hostId_;
}

int HostInfo::RefreshHostId() {
  if (!hostId_.empty()) return 1;

  std::string output;
  const int ret = ExecuteCommand(idScript_, output);
  // The script's exit code says nothing reliable; only what it printed
  // counts.
  if (ret == -1 || output.empty() || output.find(kNotRegistered) != std::string::npos) {
    DORN_LOG(zel::kLogError)
        .addTag(ZelMpa::tag::MPA30002)
        .format("Failed to get the ID for host, waiting for host registration to complete.");
    return 0;
  }

  DORN_LOG(zel::kLogVerbose).format("Command Reply for ZEL CLI HOST ID command = %s.",
                                    output.c_str());
  hostId_ = TrimWhiteSpace(output);
  if (IsUuid(hostId_)) {
    DORN_LOG(zel::kLogInfo).format("Host is registered with ID = %s.", hostId_.c_str());
    return 1;
  }
  // The text is kept on purpose: the script is not asked again for the life
  // of the process.
  DORN_LOG(zel::kLogError)
      .addTag(ZelMpa::tag::MPA30001)
      .format("Invalid Host ID found. ZEL-CLI provided %s is not valid UUID.", hostId_.c_str());
  return 0;
}

}  // namespace ZelDorn
