// The generic resolver table with both caching policies, and the host name
// resolver against a hosts file of the test's own (bound over /etc/hosts in
// its private mount namespace), on an io_context the test runs by hand so
// that a query's answer comes exactly when the test lets it.
#include "cpp/lib/net/net_name_resolver.h"

#include <algorithm>
#include <vector>

#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/smart_ptr/make_shared.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/net_error.h"
#include "cpp/lib/net/resolver.h"
#include "net_test_rig.h"
#include "support/private_network.h"

namespace zel {
namespace net {
namespace testing {
namespace {

using Stored = Resolver<std::string, std::string, std::equal_to<std::string>,
                        ResolverPolicy<policy::threading::Locked, policy::caching::STORE>>;
using Passing = Resolver<std::string, std::string>;

const error_code kCanceled(ECANCELED, boost::system::system_category());
const error_code kShutDown = error::make_error_code(error::shut_down);

// What the requests of one test received, in order.
struct Answers {
  std::vector<std::pair<error_code, std::string>> got;
  Stored::Handler Handler() {
    return [this](const error_code& ec, const std::string& v) { got.emplace_back(ec, v); };
  }
};

TEST(ResolverTest, StoringTable) {
  NetLogCapture log;
  Stored table("Table[1]");
  Answers a;
  // A request before the mapping waits, and is answered when it comes.
  table.Resolve("ep-1", a.Handler());
  EXPECT_TRUE(a.got.empty());
  EXPECT_FALSE(table.Get("ep-1"));
  table.AddMapping("ep-1", "tcp://10.0.0.1:1");
  ASSERT_EQ(a.got.size(), 1u);
  EXPECT_EQ(a.got[0], std::make_pair(error_code(), std::string("tcp://10.0.0.1:1")));
  // Kept: later requests are answered at once, failures are ignored.
  table.Resolve("ep-1", a.Handler());
  EXPECT_EQ(a.got.size(), 2u);
  EXPECT_EQ(table.Get("ep-1").value_or(""), "tcp://10.0.0.1:1");
  table.Fail("ep-1", boost::asio::error::host_not_found);
  EXPECT_TRUE(log.WaitFor("Table[1] Already resolved 'ep-1' to 'tcp://10.0.0.1:1' - ignoring failure"));
  table.Cancel("ep-1");
  EXPECT_TRUE(log.WaitFor("Cannot cancel request for 'ep-1' (with error 125-Operation canceled) - "
                          "already in RESOLVED state"));
  // A removal leaves the entry waiting for the next mapping.
  table.RemoveMapping("ep-1", "tcp://other:1");
  EXPECT_TRUE(log.WaitFor("Couldn't find mapping from 'ep-1' to 'tcp://other:1'"));
  table.RemoveMapping("ep-1", "tcp://10.0.0.1:1");
  EXPECT_FALSE(table.Get("ep-1"));
  EXPECT_TRUE(log.WaitFor("Returning <none> - entry for 'ep-1' is not resolved"));

  // A cancelled entry stays cancelled: mappings don't revive it.
  table.Resolve("ep-2", a.Handler());
  table.Cancel("ep-2");
  EXPECT_EQ(a.got.back().first, kCanceled);
  table.AddMapping("ep-2", "tcp://10.0.0.2:1");
  EXPECT_TRUE(log.WaitFor("Cannot resolve request for 'ep-2' - already in CANCELLED state"));
  table.Resolve("ep-2", a.Handler());
  EXPECT_EQ(a.got.back().first, kCanceled);

  // A failed entry answers its error; unknown keys take the default.
  table.Resolve("ep-3", a.Handler());
  table.Fail("ep-3", boost::asio::error::host_not_found);
  table.Resolve("ep-3", a.Handler());
  EXPECT_EQ(a.got.back().first, boost::asio::error::host_not_found);
  table.SetDefault("tcp://gateway:1");
  table.Resolve("unknown", a.Handler());
  EXPECT_EQ(a.got.back().second, "tcp://gateway:1");
  EXPECT_EQ(table.Get("unknown").value_or(""), "tcp://gateway:1");
  table.ResetDefault();
  EXPECT_FALSE(table.Get("unknown"));

  // Shut down: waiting requests and every later one fail.
  table.Resolve("ep-4", a.Handler());
  table.Shutdown();
  EXPECT_EQ(a.got.back().first, kShutDown);
  table.Resolve("ep-1", a.Handler());
  EXPECT_EQ(a.got.back().first, kShutDown);
  EXPECT_FALSE(table.Get("ep-1"));
  table.Shutdown();
  EXPECT_TRUE(log.WaitFor("Table[1] Already shutdown"));
  EXPECT_STREQ(ResolverStateText(static_cast<Stored::State>(9)), "<Resolver::Entry::State::INVALID>");
}

TEST(ResolverTest, PassingTableKeepsNothing) {
  NetLogCapture log;
  std::vector<std::string> queries;
  Passing table("Table[2]", [&](const std::string& key) { queries.push_back(key); });
  Answers a;
  table.AddMapping("h", "1.1.1.1");
  EXPECT_TRUE(log.WaitFor("Not adding mapping update from 'h' to '1.1.1.1' due to caching policy"));
  table.Resolve("h", a.Handler());
  table.Resolve("h", a.Handler());
  EXPECT_EQ(queries, std::vector<std::string>{"h"});  // one query for both
  table.AddMapping("h", "2.2.2.2");
  EXPECT_EQ(a.got.size(), 2u);
  EXPECT_FALSE(table.Get("h"));
  table.Resolve("h", a.Handler());
  EXPECT_EQ(queries.size(), 2u);  // asked again
  // Requests removed: the late answer finds nobody waiting and is dropped.
  table.RemoveRequests("h");
  table.AddMapping("h", "3.3.3.3");
  EXPECT_TRUE(log.WaitFor("Ignoring resolve update for 'h' in INIT state for DO_NOT_STORE policy"));
  EXPECT_EQ(a.got.size(), 2u);
}

class NetNameResolverTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Lookups ask only for the families this host has addresses of, loopback
    // not counted: give the namespace an IPv4 and an IPv6 address.
    ready_ = zel::testing::EnterPrivateNetwork() &&
             zel::testing::Shell("ip link add zr0 type bridge && ip addr add 10.88.0.1/24 dev zr0 && "
                                 "ip -6 addr add fd00:88::1/64 dev zr0 nodad && ip link set zr0 up") &&
             zel::testing::ReplaceFile("/etc/hosts",
                                       "10.1.0.5 one.test\n"
                                       "10.1.0.6 two.test\n"
                                       "10.1.0.7 two.test\n"
                                       "::1 v6only.test\n") &&
             zel::testing::ReplaceFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
  }
  void SetUp() override {
    if (!ready_) GTEST_SKIP() << "needs root";
  }

  // Runs the io_context until `n` answers have come.
  void RunUntil(std::size_t n) {
    ASSERT_TRUE(zel::testing::WaitUntil([&] {
      io_->restart();
      io_->poll();
      return got_.size() >= n;
    }));
  }
  ResolveHandler Handler() {
    return [this](const error_code& ec, const AddressList& list) {
      AddressList sorted = list;
      std::sort(sorted.begin(), sorted.end());
      got_.emplace_back(ec, sorted);
    };
  }

  static bool ready_;
  NetLogCapture log_;
  boost::shared_ptr<boost::asio::io_context> io_ = boost::make_shared<boost::asio::io_context>();
  NetNameResolver resolver_{io_};
  std::vector<std::pair<error_code, AddressList>> got_;
};

bool NetNameResolverTest::ready_ = false;

TEST_F(NetNameResolverTest, Lookups) {
  struct Row {
    std::string host;
    error_code status;
    AddressList addresses;
  };
  const Row rows[] = {
      {"one.test", {}, {"10.1.0.5"}},
      {"two.test", {}, {"10.1.0.6", "10.1.0.7"}},
      // IPv6 addresses are dropped; with none left the name fails.
      {"v6only.test", boost::asio::error::no_data, {}},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.host);
    got_.clear();
    resolver_.Resolve(r.host, Handler());
    RunUntil(1);
    EXPECT_EQ(got_[0].first, r.status) << got_[0].first.message();
    EXPECT_EQ(got_[0].second, r.addresses);
  }
  EXPECT_TRUE(log_.WaitFor("Ignoring ipv6 address '::1' of 'v6only.test'"));
  got_.clear();
  resolver_.Resolve("missing.test", Handler());
  RunUntil(1);
  EXPECT_TRUE(got_[0].first);
}

TEST_F(NetNameResolverTest, OneQueryServesSimultaneousRequests) {
  resolver_.Resolve("one.test", Handler());
  resolver_.Resolve("one.test", Handler());
  RunUntil(2);
  EXPECT_EQ(log_.Count("Querying 'one.test'"), 1u);
  EXPECT_EQ(got_[0], got_[1]);
  // Not kept: the next request asks again.
  resolver_.Resolve("one.test", Handler());
  RunUntil(3);
  EXPECT_EQ(log_.Count("Querying 'one.test'"), 2u);
}

TEST_F(NetNameResolverTest, CancelDuringAQueryAndShutdown) {
  resolver_.Resolve("one.test", Handler());
  resolver_.Cancel("one.test");
  ASSERT_EQ(got_.size(), 1u);
  EXPECT_EQ(got_[0].first, kCanceled);
  // The answer arrives late and is dropped.
  ASSERT_TRUE(zel::testing::WaitUntil([&] {
    io_->restart();
    io_->poll();
    return log_.Count("Not adding mapping update from 'one.test'") == 1;
  }));
  EXPECT_EQ(got_.size(), 1u);

  resolver_.Shutdown();
  resolver_.Resolve("one.test", Handler());
  ASSERT_EQ(got_.size(), 2u);
  EXPECT_EQ(got_[1].first, kShutDown);
}

}  // namespace
}  // namespace testing
}  // namespace net
}  // namespace zel
