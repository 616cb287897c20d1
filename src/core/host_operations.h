// HostOperations: the one class that touches the host itself. It writes
// files, runs commands, creates users and reads the list of installed
// software, and it hides the differences between host types (HostInfo).
//
// Every command runs through ExecuteCommand, so through the shell, as the
// agent's user (root). Operations report failure through their results and
// the log, never by exceptions (apart from the unexpected ones CreateFile
// passes on).
//
// Threads: called from the client's delivering thread and from the monitor
// thread. There is no lock here: the software list is written and read only
// under the SoftwareManager's mutex, and CreateUser's fixed scratch file in
// /tmp is safe because the UserManager holds its mutex for the whole
// operation.
#ifndef DORN_CORE_HOST_OPERATIONS_H_
#define DORN_CORE_HOST_OPERATIONS_H_

#include <string>

#include <boost/shared_ptr.hpp>

namespace ZelDorn {

class HostOperations {
 public:
  // Scratch file of the Ulm user script; removed after each CreateUser.
  static constexpr const char* kCreateUserModulePath = "/tmp/create.py";

  // Builds the process-wide instance with an empty software list.
  static void CreateInstance();
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<HostOperations> GetInstance();

  HostOperations() = default;
  HostOperations(const HostOperations&) = delete;
  HostOperations& operator=(const HostOperations&) = delete;

  // Writes `data` to `file`, creating missing parent directories, reads it
  // back to verify it, and with `makeExecutable` sets mode 0700. Returns an
  // empty string on success, otherwise the reason: "Provide absolute path"
  // for a path without a directory part (only that is tested: "a/b" passes,
  // relative to the working directory), "File verification failed", or the
  // strerror text of the failing step. Files written before a failure stay.
  std::string CreateFile(const std::string& file, const std::string& data, bool makeExecutable);

  // Runs `command` through the shell and returns its exit code (-1 when it
  // could not be started), with its standard output in `output`. Logs the
  // command and its outcome, whole, at INFO/WARN.
  int Execute(const std::string& command, std::string& output);

  // Creates (or replaces) the account `username` with `password` by the
  // script of the host type: on Ubuntu a sudo user, on the rpm hosts an
  // account with uid 0, on the Ulm hypervisor an Admin user through the
  // host's scripting interface. Returns the script's exit code. On an
  // unknown host type nothing runs and 0 is returned. Then removes
  // /tmp/create.py* and /tmp/zel* on every host type.
  int CreateUser(const std::string& username, const std::string& password);

  // Runs the software list command of the host type and keeps its output
  // ("<name> <version>" per line). A failing command leaves the list empty.
  void GetSoftwareList();

  // The version of `name` in the list last read by GetSoftwareList, or an
  // empty string. The first line that contains "<name> " anywhere decides
  // (so "foo" also matches "libfoo 1.2"); when none does and `name` contains
  // "zel-host", the first line that contains `name` alone. The version is
  // everything behind the first blank of that line.
  std::string GetSoftwareVersion(const std::string& name) const;

  // Logs the request; there is no upgrade procedure behind it.
  void Upgrade(const std::string& file, const std::string& options);

  const std::string& softwareList() const { return softwareList_; }

  // The software list command of `hostType` (a HostInfo literal), or null
  // for an unknown type.
  static const char* SoftwareListCommand(const char* hostType);
  // The user command of `hostType` with the name and password put in, or an
  // empty string for an unknown type.
  static std::string UserCommand(const char* hostType, const std::string& username,
                                 const std::string& password);
  // The text of /tmp/create.py, the module that the Ulm user command loads.
  static const char* CreateUserModule();

 private:
  std::string softwareList_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_HOST_OPERATIONS_H_
