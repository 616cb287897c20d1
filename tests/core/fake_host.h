// Test helper: while it lives, PATH is <private bin>:tests/fakes/hosts/<type>:
// <old PATH>, and ZEL_FAKE_HOST_DIR a private state directory where the
// stand-ins record calls (calls.log) and read inputs (packages, advcfg/,
// zelcli.rc). One at a time: the environment is process-wide.
#ifndef DORN_TESTS_CORE_FAKE_HOST_H_
#define DORN_TESTS_CORE_FAKE_HOST_H_

#include <stdlib.h>
#include <sys/stat.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"

#ifndef DORN_FAKE_HOSTS_DIR
#error "DORN_FAKE_HOSTS_DIR must name tests/fakes/hosts"
#endif

namespace ZelDorn {
namespace testing {

using zel::testing::LogCapture;
using zel::testing::TempDir;

class FakeHost {
 public:
  static std::string FakesDir() { return DORN_FAKE_HOSTS_DIR; }

  // `type` is a directory of tests/fakes/hosts ("ubuntu", "ulm" ...), or
  // empty for the private bin directory alone.
  explicit FakeHost(const std::string& type)
      : oldPath_(Get("PATH")), oldState_(Get("ZEL_FAKE_HOST_DIR")),
        oldSandbox_(Get("ZEL_SANDBOX_DIR")) {
    std::string path = bin_.path();
    if (!type.empty()) path += ":" + FakesDir() + "/" + type;
    if (oldPath_) path += ":" + *oldPath_;
    setenv("PATH", path.c_str(), 1);
    setenv("ZEL_FAKE_HOST_DIR", state_.path().c_str(), 1);
    unsetenv("ZEL_SANDBOX_DIR");
  }
  ~FakeHost() {
    Restore("PATH", oldPath_);
    Restore("ZEL_FAKE_HOST_DIR", oldState_);
    Restore("ZEL_SANDBOX_DIR", oldSandbox_);
  }
  FakeHost(const FakeHost&) = delete;
  FakeHost& operator=(const FakeHost&) = delete;

  const std::string& state() const { return state_.path(); }

  // Puts an executable shell script `name` first in PATH.
  void AddTool(const std::string& name, const std::string& body) const {
    const std::string file = bin_.WriteFile(name, "#!/bin/sh\n" + body + "\n");
    if (chmod(file.c_str(), 0755) != 0) throw std::runtime_error("chmod " + file);
  }

  // Writes a file into the state directory (e.g. "packages").
  void WriteState(const std::string& name, const std::string& content) const {
    state_.WriteFile(name, content);
  }

  // Lines of calls.log, optionally only those that start with `prefix`.
  std::vector<std::string> Calls(const std::string& prefix = "") const {
    std::vector<std::string> result;
    std::istringstream lines(TempDir::ReadFile(state_.path() + "/calls.log"));
    std::string line;
    while (std::getline(lines, line)) {
      if (line.compare(0, prefix.size(), prefix) == 0) result.push_back(line);
    }
    return result;
  }

 private:
  static std::optional<std::string> Get(const char* name) {
    const char* value = getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  }
  static void Restore(const char* name, const std::optional<std::string>& value) {
    if (value) {
      setenv(name, value->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }

  const std::optional<std::string> oldPath_;
  const std::optional<std::string> oldState_;
  const std::optional<std::string> oldSandbox_;
  TempDir bin_;
  TempDir state_;
};

}  // namespace testing
}  // namespace ZelDorn

#endif  // DORN_TESTS_CORE_FAKE_HOST_H_
