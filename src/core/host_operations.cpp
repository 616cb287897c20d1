#include "core/host_operations.h"

#include <errno.h>
#include <string.h>

#include <fstream>
#include <ios>
#include <sstream>
#include <string>

#include <boost/filesystem.hpp>
#include <boost/system/error_code.hpp>

#include "core/execute_command.h"
#include "core/host_info.h"
#include "cpp/lib/common/logger.h"

namespace ZelDorn {

namespace {

boost::shared_ptr<HostOperations> g_instance;

// Software list commands. "\\n" stays as backslash-n for the tool to expand;
// every command prints "<name> <version>" per package.
constexpr const char* kDebianSoftwareList =
    "dpkg-query -Wf '${Status} ${Package} ${Version}\\n' | grep 'install ok installed' | "
    "cut -d' ' -f4,5 2>&1";
constexpr const char* kRpmSoftwareList = "rpmquery -a --queryformat '%{NAME} %{VERSION}\\n' 2>&1";
constexpr const char* kUlmSoftwareList =
    "ulmcli software upk list | awk '{$2=$2};1' | cut -d' ' -f1,2 2>&1";

// The user scripts run whole through the shell, newlines and all. They
// replace an existing account of the same name. The head is shared; the
// tails differ: the rpm hosts give the account uid 0 and the root group,
// Ubuntu makes it a sudo user.
constexpr const char* kUserScriptHead = "#!/bin/bash \nexport PATH=$PATH:/usr/sbin\nZEL_USER=\"";
constexpr const char* kUserScriptPassword = "\"\nPASSWORD=\"";
constexpr const char* kRpmUserScriptTail =
    "\"\nENCRYPTED_PSWD=$(openssl passwd -crypt \"$PASSWORD\")\n"
    "if id \"$ZEL_USER\" >/dev/null 2>&1; then\n"
    "groupdel \"$ZEL_USER\"\n"
    "userdel -r --force \"$ZEL_USER\"\n"
    "fi\n"
    "groupadd \"$ZEL_USER\"\n"
    "useradd -m -p \"$ENCRYPTED_PSWD\" -g \"$ZEL_USER\" \"$ZEL_USER\"\n"
    "usermod -G root -g 0 -ou 0 \"$ZEL_USER\"\n";
constexpr const char* kUbuntuUserScriptTail =
    "\"\nENCRYPTED_PSWD=$(openssl passwd -crypt \"$PASSWORD\")\n"
    "if id \"$ZEL_USER\" >/dev/null 2>&1; then\n"
    "userdel -r --force \"$ZEL_USER\"\n"
    "fi\n"
    "groupadd \"$ZEL_USER\"\n"
    "useradd -m -p \"$ENCRYPTED_PSWD\" -g \"$ZEL_USER\" \"$ZEL_USER\"\n"
    "usermod -aG sudo,syslog \"$ZEL_USER\"\n";

// Loaded by the Ulm user command from /tmp. It creates the account through
// the hypervisor's local scripting interface, adds it to the lockdown
// exceptions when lockdown is on, and gives it the Admin role on the root
// folder. createUser returns None, so a successful run prints "None".
constexpr const char* kCreateUserModule = R"PY(from pyHst.connect import SmartConnect
from pyHstApi import hst, HstApiSupport
import sys

roleName = "Admin"


def createUser(username, passwd):
    si = SmartConnect(user = "hmon")
    accountManager = si.content.accountManager
    hostspec = hst.host.LocalAccountManager.AccountSpecification()
    hostspec.id = username
    hostspec.password = passwd
    try:
        accountManager.CreateUser(hostspec)
    except hst.fault.AlreadyExists:
        deleteUser(username, accountManager)
        accountManager.CreateUser(hostspec)
    except hst.fault.NoPermission:
        message = "Permission denied. Please check whether the host is not in Lockdown Mode"
        print(message)
        sys.exit(message)
    updateLockdownExceptions(hostspec.id, si)
    setPermission(hostspec.id, si)
    return None


def updateLockdownExceptions(userName, si):
    host = si.content.rootFolder.childEntity[0].hostFolder.childEntity[0].host[0]
    accessManager = host.configManager.hostAccessManager
    try:
        if accessManager.lockdownMode != hst.HostLockdownMode.lockdownDisabled:
            exceptions = list(accessManager.QueryLockdownExceptions())
            exceptions.append(userName)
            accessManager.UpdateLockdownExceptions(exceptions)
    except hst.fault.UserNotFound as e:
        message = "Please remove the stale user " + str(e.principal) + "from lockdown exception list."
        print(message)
        sys.exit(message)
    except Exception as e:
        message = "Exception " + str(e) + "occured on updating exception list"
        print(message)
        sys.exit(message)
    except:
        message = "Unknown Exception occured on updating exception list"
        print(message)
        sys.exit(message)


def setPermission(userName, si):
    authorizationManager = si.content.authorizationManager
    roleId = None
    for role in authorizationManager.roleList:
        if role.name == roleName:
            roleId = role.roleId
            break
    permission = hst.AuthorizationManager.Permission()
    permission.group = False
    permission.principal = userName
    permission.propagate = True
    permission.roleId = roleId
    try:
        authorizationManager.SetEntityPermissions(si.content.rootFolder, [permission])
    except hst.fault.UserNotFound:
        message = userName + " does not exist"
        print(message)
        sys.exit(message)
    except hst.fault.NotFound:
        message = roleName + " permission's roleId is not valid"
        print(message)
        sys.exit(message)
    si.content.sessionManager.Logout()


def deleteUser(username, accountManager):
    try:
        accountManager.RemoveUser(username)
    except hst.fault.UserNotFound:
        sys.exit("ulm user does not exist")
)PY";

bool IsRpmHost(const char* type) {
  return type == kHostTypeRhel || type == kHostTypeCentos || type == kHostTypeSles;
}

// The type as the warning shows it; an undetected type is null.
const char* TypeText(const char* type) { return type != nullptr ? type : "(null)"; }

// The version part of a list line: everything behind its first blank.
std::string VersionOf(const std::string& line) {
  const size_t blank = line.find(' ');
  return blank == std::string::npos ? std::string() : line.substr(blank + 1);
}

// The first line of `list` that contains `key`, or false.
bool FindLine(const std::string& list, const std::string& key, std::string& found) {
  std::istringstream lines(list);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.find(key) != std::string::npos) {
      found = line;
      return true;
    }
  }
  return false;
}

}  // namespace

void HostOperations::CreateInstance() { g_instance.reset(new HostOperations()); }

boost::shared_ptr<HostOperations> HostOperations::GetInstance() { return g_instance; }

const char* HostOperations::SoftwareListCommand(const char* hostType) {
  if (hostType == kHostTypeUbuntu) return kDebianSoftwareList;
  if (IsRpmHost(hostType)) return kRpmSoftwareList;
  if (hostType == kHostTypeUlm) return kUlmSoftwareList;
  return nullptr;
}

std::string HostOperations::UserCommand(const char* hostType, const std::string& username,
                                        const std::string& password) {
  if (IsRpmHost(hostType) || hostType == kHostTypeUbuntu) {
    return kUserScriptHead + username + kUserScriptPassword + password +
           (hostType == kHostTypeUbuntu ? kUbuntuUserScriptTail : kRpmUserScriptTail);
  }
  if (hostType == kHostTypeUlm) {
    return "python -B -c \"from __future__ import print_function; import os; "
           "os.chdir('/tmp/'); import create; print(create.createUser('" +
           username + "','" + password + "'))\"";
  }
  return std::string();
}

const char* HostOperations::CreateUserModule() { return kCreateUserModule; }

std::string HostOperations::CreateFile(const std::string& file, const std::string& data,
                                       bool makeExecutable) {
  namespace fs = boost::filesystem;
  const fs::path path(file);
  const fs::path parent = path.parent_path();
  if (parent.empty()) {
    const std::string reason = "Provide absolute path";
    DORN_LOG(zel::kLogWarn).format("Failed to create file %s (%s).", file.c_str(), reason.c_str());
    return reason;
  }

  boost::system::error_code ec;
  const fs::file_type parentType = fs::status(parent, ec).type();
  if (parentType == fs::file_not_found || parentType == fs::status_error ||
      parentType == fs::type_unknown) {
    DORN_LOG(zel::kLogInfo).format("Creating directory %s.", parent.string().c_str());
    fs::create_directories(parent, ec);
    if (ec) {
      const std::string reason = ec.message();
      DORN_LOG(zel::kLogWarn)
          .format("Failed to create directory %s (%s).", parent.string().c_str(), reason.c_str());
      return reason;
    }
    DORN_LOG(zel::kLogVerbose).format("Created directory %s.", parent.string().c_str());
  }

  try {
    std::ofstream out;
    out.exceptions(std::ios::failbit | std::ios::badbit);
    errno = 0;
    out.open(file, std::ios::out | std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    out.close();
  } catch (const std::ios_base::failure&) {
    const std::string reason = strerror(errno);
    DORN_LOG(zel::kLogWarn).format("Failed to create file %s (%s).", file.c_str(), reason.c_str());
    return reason;
  }

  DORN_LOG(zel::kLogVerbose).format("Read %s to verify contents", file.c_str());
  std::ostringstream written;
  try {
    std::ifstream in;
    in.exceptions(std::ios::failbit | std::ios::badbit);
    errno = 0;
    in.open(file, std::ios::in | std::ios::binary);
    // Reading through the buffer leaves the stream's state alone at end of
    // file, so an empty file reads as empty text, not as a failure.
    written << in.rdbuf();
    in.close();
  } catch (const std::ios_base::failure&) {
    const std::string reason = strerror(errno);
    DORN_LOG(zel::kLogWarn)
        .format("Failed to read from file %s (%s).", file.c_str(), reason.c_str());
    return reason;
  }

  if (written.str() != data) {
    DORN_LOG(zel::kLogWarn).format("Contents of file %s do not match source buffer.",
                                   file.c_str());
    return "File verification failed";
  }

  if (makeExecutable) {
    DORN_LOG(zel::kLogVerbose).format("Set execute permission for file %s", file.c_str());
    fs::permissions(path, fs::owner_all, ec);
    if (ec) {
      const std::string reason = ec.message();
      DORN_LOG(zel::kLogWarn)
          .format("Failed to set execute permission on file %s (%s)", file.c_str(),
                  reason.c_str());
      return reason;
    }
  }

  DORN_LOG(zel::kLogInfo).format("Created file %s.", file.c_str());
  return std::string();
}

int HostOperations::Execute(const std::string& command, std::string& output) {
  DORN_LOG(zel::kLogInfo).format("Running command %s.", command.c_str());
  const int ret = ExecuteCommand(command, output);
  if (ret == 0) {
    DORN_LOG(zel::kLogInfo).format("Command %s succeeded (%s).", command.c_str(), output.c_str());
  } else {
    DORN_LOG(zel::kLogWarn)
        .format("Command %s failed with return-code %d (%s).", command.c_str(), ret,
                output.c_str());
  }
  return ret;
}

int HostOperations::CreateUser(const std::string& username, const std::string& password) {
  DORN_LOG(zel::kLogInfo)
      .format("Creating user with name %s and password %s", username.c_str(), password.c_str());
  const char* type = HostInfo::GetHostType();
  if (type == kHostTypeUlm) {
    DORN_LOG(zel::kLogInfo).format("Copy file %s", kCreateUserModulePath);
    const std::string reason = CreateFile(kCreateUserModulePath, kCreateUserModule, true);
    // The command runs all the same: it fails by itself without the module,
    // and its exit code is what the caller reports.
    if (!reason.empty()) {
      DORN_LOG(zel::kLogInfo).format("Error while creating create user script %s",
                                     reason.c_str());
    }
  } else if (type != kHostTypeUbuntu && !IsRpmHost(type)) {
    DORN_LOG(zel::kLogWarn).format("Invalid host type: (%s).", TypeText(type));
  }

  // An unknown type leaves the command empty; the shell runs it and exits 0.
  const std::string command = UserCommand(type, username, password);
  std::string output;
  const int ret = Execute(command, output);
  // Scratch of the Ulm script (also a .pyc an older interpreter may leave)
  // and of the agent's other tools; removed on every host type.
  Execute("rm -rf /tmp/create.py*", output);
  Execute("rm -rf /tmp/zel*", output);
  return ret;
}

void HostOperations::GetSoftwareList() {
  const char* type = HostInfo::GetHostType();
  const char* command = SoftwareListCommand(type);
  if (command == nullptr) {
    DORN_LOG(zel::kLogWarn).format("Invalid host type: (%s).", TypeText(type));
    command = "";
  }
  const int ret = ExecuteCommand(command, softwareList_);
  if (ret != 0) {
    DORN_LOG(zel::kLogWarn).format("Get software list operation failed (%d).", ret);
    softwareList_.clear();
  }
}

std::string HostOperations::GetSoftwareVersion(const std::string& name) const {
  std::string line;
  if (FindLine(softwareList_, name + " ", line)) return VersionOf(line);
  // A package family name ("zel-host") also matches its longer members
  // ("zel-host-core 1.0").
  if (name.find("zel-host") != std::string::npos && FindLine(softwareList_, name, line)) {
    return VersionOf(line);
  }
  DORN_LOG(zel::kLogWarn).format("Get software version failed for %s.", name.c_str());
  return std::string();
}

void HostOperations::Upgrade(const std::string& file, const std::string& options) {
  DORN_LOG(zel::kLogInfo).format("Upgrading with %s (%s)", file.c_str(), options.c_str());
}

}  // namespace ZelDorn
