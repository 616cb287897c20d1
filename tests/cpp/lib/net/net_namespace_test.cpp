// The scoped switch into a named network namespace, against real
// namespaces. The test process first moves into private mount and network
// namespaces of its own, with a private /run/netns, so the namespaces it
// makes with `ip netns add` never reach the machine. Needs root and
// iproute2.
#include "cpp/lib/net/net_namespace_guard.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "cpp/lib/common/errors.h"
#include "cpp/lib/net/socket_address.h"
#include "cpp/lib/net/socket_options.h"
#include "support/log_capture.h"
#include "support/private_network.h"

namespace zel {
namespace net {
namespace {

ino_t CurrentNamespace() {
  struct stat st {};
  EXPECT_EQ(stat("/proc/thread-self/ns/net", &st), 0);
  return st.st_ino;
}

SocketOptions In(const std::string& ns) {
  SocketOptions options;
  options.ns = ns;
  return options;
}

class NetNamespaceGuardTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ready_ = zel::testing::EnterPrivateNetwork() &&
             zel::testing::Shell("ip netns add zel-blue && ip -n zel-blue link set lo up && "
                                 ": > /run/netns/zel-file");
  }

  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root, unshare and iproute2";
  }

  static bool ready_;
  zel::testing::LogCapture log_;
};

bool NetNamespaceGuardTest::ready_ = false;

// A socket opened under the guard lives in the named namespace, also after
// the thread has gone back: a listener there is unreachable from here.
TEST_F(NetNamespaceGuardTest, SocketsOpenedUnderTheGuardStayInTheNamespace) {
  const ino_t home = CurrentNamespace();
  int listener = -1;
  {
    NetNamespaceGuard inside(In("zel-blue"));
    EXPECT_NE(CurrentNamespace(), home);
    listener = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  }
  EXPECT_EQ(CurrentNamespace(), home);
  const SocketAddress a = TcpAddress("127.0.0.1", 4096);
  ASSERT_EQ(bind(listener, a.Get(), a.size), 0);
  ASSERT_EQ(listen(listener, 1), 0);

  const int here = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  EXPECT_NE(connect(here, a.Get(), a.size), 0);
  EXPECT_EQ(errno, ECONNREFUSED);
  int there = -1;
  {
    NetNamespaceGuard inside(In("zel-blue"));
    there = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  }
  EXPECT_EQ(connect(there, a.Get(), a.size), 0);
  for (int fd : {listener, here, there}) close(fd);

  EXPECT_TRUE(log_.InOrder({"Set network namespace ", "'zel-blue'", "Set original network namespace "}));
  EXPECT_EQ(log_.Count("errorCode"), 0u);
}

TEST_F(NetNamespaceGuardTest, FailuresLeaveTheThreadWhereItWas) {
  struct Row {
    const char* ns;
    int error;
    const char* text;
  };
  const Row rows[] = {
      {"zel-none", ENOENT, "Couldn't open ns file '/var/run/netns/zel-none'"},
      // A file that is no namespace opens, and setns refuses it.
      {"zel-file", EINVAL, "Couldn't set network namespace "},
  };
  const ino_t home = CurrentNamespace();
  for (const Row& r : rows) {
    SCOPED_TRACE(r.ns);
    try {
      NetNamespaceGuard inside(In(r.ns));
      ADD_FAILURE() << "switched";
    } catch (const zel::errno_exception& e) {
      EXPECT_EQ(e.error(), r.error);
      EXPECT_NE(std::string(e.what()).find(r.text), std::string::npos) << e.what();
    }
    EXPECT_EQ(CurrentNamespace(), home);
  }
  { NetNamespaceGuard nothing(In("")); }
  EXPECT_EQ(CurrentNamespace(), home);
  EXPECT_TRUE(log_.Lines().empty());
}

}  // namespace
}  // namespace net
}  // namespace zel
