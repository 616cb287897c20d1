#include "support/private_network.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>

namespace zel {
namespace testing {

bool EnterPrivateNetwork() {
  static std::once_flag once;
  static bool entered = false;
  std::call_once(once, [] {
    entered = getuid() == 0 && unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
              mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              (mkdir("/run/netns", 0755) == 0 || errno == EEXIST) &&
              mount("tmpfs", "/run/netns", "tmpfs", 0, "mode=0755") == 0 &&
              Shell("ip link set lo up");
  });
  return entered;
}

bool Shell(const std::string& command) { return std::system(command.c_str()) == 0; }

bool ReplaceFile(const std::string& path, const std::string& content) {
  static int serial = 0;
  const std::string source = "/run/netns/.file-" + std::to_string(getpid()) + "-" +
                             std::to_string(serial++);
  {
    std::ofstream out(source, std::ios::trunc);
    out << content;
    if (!out) return false;
  }
  return mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

bool AddBlackhole(const std::string& address) {
  static int serial = 0;
  const std::string bridge = "zbh" + std::to_string(serial++);
  // The bridge takes .254 of the same /24 as its own address.
  const std::string prefix = address.substr(0, address.rfind('.'));
  return Shell("ip link add " + bridge + " type bridge && ip addr add " + prefix + ".254/24 dev " +
               bridge + " && ip link set " + bridge + " up && ip neigh add " + address +
               " lladdr 02:00:00:00:00:01 dev " + bridge + " nud permanent");
}

}  // namespace testing
}  // namespace zel
