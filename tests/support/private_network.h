// Private network and mount namespaces for the test process, so that tests
// bind fixed ports, add interfaces and addresses, make named network
// namespaces and replace /etc files without touching the machine. Needs root
// and iproute2.
//
//   static void SetUpTestSuite() { ready_ = zel::testing::EnterPrivateNetwork(); }
//   ...
//   ASSERT_TRUE(zel::testing::Shell("ip netns add zel-blue"));
//   ASSERT_TRUE(zel::testing::ReplaceFile("/etc/hosts", "10.0.0.5 mp.test\n"));
//
// Enter before the test starts any thread: a namespace switch of the process
// reaches only threads made afterwards. Every later child process (openssl,
// python) runs inside too.
#ifndef ZEL_TESTS_SUPPORT_PRIVATE_NETWORK_H_
#define ZEL_TESTS_SUPPORT_PRIVATE_NETWORK_H_

#include <string>

namespace zel {
namespace testing {

// Unshares the mount and network namespaces (once per process), brings the
// loopback interface up and mounts an empty /run/netns. False when that is
// not possible here (not root).
bool EnterPrivateNetwork();
// Runs `command` with /bin/sh; true when it exits with 0.
bool Shell(const std::string& command);
// Puts `content` over `path` (a bind mount in the private mount namespace).
bool ReplaceFile(const std::string& path, const std::string& content);
// Makes IPv4 `address` a black hole: packets to it leave and nothing ever
// answers, so a connect to it hangs until it is given up. (A bridge with no
// ports, in the private namespace, with a fixed neighbour entry for it.)
bool AddBlackhole(const std::string& address);

}  // namespace testing
}  // namespace zel

#endif  // ZEL_TESTS_SUPPORT_PRIVATE_NETWORK_H_
