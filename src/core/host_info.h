// HostInfo: what kind of host the agent runs on, and what the management
// plane calls it.
//
// The host type is detected once, at start, from "uname -s -r" and, on Linux,
// "lsb_release -si". It is one of the five kHostType* literals below, or null
// when the host is not recognised. Callers compare it as a pointer against
// those literals, never as text.
//
// The host id comes from the CLI script kHostIdScript, which fails until the
// host has registered with the management plane. Each GetHostId() with no id
// yet runs the script again. A text that is no UUID is logged once and then
// kept: later calls see a non-empty id and do not run the script again.
//
// Threads: CreateInstance (and so the host type) runs on the entry thread
// before any other thread starts; after that GetHostType() may be read from
// any thread. The host id has one user, the monitor thread, and no lock.
#ifndef DORN_CORE_HOST_INFO_H_
#define DORN_CORE_HOST_INFO_H_

#include <string>

#include <boost/shared_ptr.hpp>

namespace ZelDorn {

// Host types. Compare pointers: GetHostType() == kHostTypeUlm.
extern const char kHostTypeUbuntu[];  // "UBUNTUKVM"
extern const char kHostTypeRhel[];    // "RHELKVM"
extern const char kHostTypeCentos[];  // "CENTOSKVM"
extern const char kHostTypeSles[];    // "SLESKVM"
extern const char kHostTypeUlm[];     // "ULMI", the Ulm hypervisor

class HostInfo {
 public:
  static constexpr const char* kHostIdScript = "/opt/orvane/zel-cli/bin/scripts/get_mpa_node_uuid";
  // What the id script prints on a host that has not registered yet.
  static constexpr const char* kNotRegistered = "% Host is not registered";

  // Builds the process-wide instance with an empty host id, then detects the
  // host type (InitVersionInfo). A detection failure is logged there and does
  // not stop the caller. `idScript` is the command that prints the host id.
  static void CreateInstance(const std::string& idScript = kHostIdScript);
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<HostInfo> GetInstance();

  // Detects the host type and stores it process-wide. Returns 0 when the
  // kernel is "Ulmcore" or "Linux" (an unknown Linux distribution leaves the
  // type null and still returns 0), -1 when uname's output is not two words
  // in under 50 characters or names another kernel ("errorCode:MPA30011").
  static int InitVersionInfo();

  // One of the kHostType* literals, or null when unknown or not detected.
  static const char* GetHostType();
  // The version of the Ulm hypervisor as uname printed it; empty elsewhere.
  static std::string GetHostVersion();

  // Replaces the detected host type; for tests of code that chooses by type.
  static void SetHostTypeForTest(const char* hostType);

  HostInfo(const HostInfo&) = delete;
  HostInfo& operator=(const HostInfo&) = delete;

  // The host id. When none is known yet, runs the id script first
  // (RefreshHostId); may therefore return an empty string, or a text that is
  // no UUID if the script once printed one.
  std::string GetHostId();

  // Reads the host id from the script unless one is already known. Returns 1
  // when an id is known (a valid UUID, or an earlier text that is kept), 0
  // when the script failed or the host is not registered
  // ("errorCode:MPA30002", the id stays empty) or when it printed no valid
  // UUID ("errorCode:MPA30001", the text is kept as the id).
  int RefreshHostId();

 private:
  explicit HostInfo(const std::string& idScript);

  const std::string idScript_;
  std::string hostId_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_HOST_INFO_H_
