// Endpoint parsing, socket addresses made from endpoints, and the printed
// form of socket options.
#include "cpp/lib/net/endpoint.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <cerrno>
#include <string>

#include <boost/system/system_error.hpp>
#include <gtest/gtest.h>

#include "cpp/lib/net/socket_address.h"
#include "cpp/lib/net/socket_options.h"

namespace zel {
namespace net {
namespace {

TEST(EndpointTest, PartsOfTheUri) {
  struct Row {
    const char* uri;
    const char* scheme;
    const char* authority;
    const char* host;
    uint16_t port;
    const char* path;
  };
  const Row rows[] = {
      {"", "", "", "", 0, ""},
      {"tcp://127.0.0.1:4096", "tcp", "127.0.0.1:4096", "127.0.0.1", 4096, ""},
      {"tcp://127.0.0.1", "tcp", "127.0.0.1", "127.0.0.1", 0, ""},
      {"unix:///a/b", "unix", "", "", 0, "/a/b"},
      {"unix:///var/run/orvane/zel/metrics-collector.sock", "unix", "", "", 0,
       "/var/run/orvane/zel/metrics-collector.sock"},
      {"ssl-tcp://h:7/x/y?q", "ssl-tcp", "h:7", "h", 7, "/x/y?q"},
      {"tcp:", "tcp", "", "", 0, ""},                  // ends after the scheme
      {"//h:1/x", "", "h:1", "h", 1, "/x"},            // no scheme
      {"a/b", "", "", "", 0, "a/b"},                   // a path only
      {":x", "", "", "", 0, ":x"},                     // a leading colon is no scheme
      {"//:80", "", ":80", ":80", 0, ""},              // a leading colon is no port either
      {"tcp://:80", "tcp", ":80", ":80", 0, ""},
      {"tcp://h:99999", "tcp", "h:99999", "h", 34463, ""},  // cut to 16 bits
      {"tcp://h:12ab", "tcp", "h:12ab", "h", 12, ""},  // digits up to the first other
      {"tcp://[::1]:80", "tcp", "[::1]:80", "[", 0, ""},  // no bracket form
      {"tcp://fe80::1", "tcp", "fe80::1", "fe80", 0, ""},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.uri);
    const Endpoint ep(r.uri);
    EXPECT_EQ(ep.uri(), r.uri);
    EXPECT_EQ(ep.scheme(), r.scheme);
    EXPECT_EQ(ep.authority(), r.authority);
    EXPECT_EQ(ep.host(), r.host);
    EXPECT_EQ(ep.port(), r.port);
    EXPECT_EQ(ep.path(), r.path);
  }
}

TEST(EndpointTest, CopiesOwnTheirText) {
  auto* original = new Endpoint("ssl-unix:///run/a.sock");
  Endpoint copy(*original);
  Endpoint assigned;
  assigned = *original;
  delete original;
  EXPECT_EQ(copy.path(), "/run/a.sock");
  EXPECT_EQ(assigned.scheme(), "ssl-unix");
  EXPECT_TRUE(copy.IsLocal());
  EXPECT_TRUE(copy.IsSecure());
  for (const char* scheme : {"tcp", "ssl", "ssl-tcp", "unix", "ssl-unix"}) {
    EXPECT_TRUE(Endpoint(std::string(scheme) + "://x").IsKnownScheme()) << scheme;
  }
  EXPECT_FALSE(Endpoint("zel://DornService").IsKnownScheme());
  EXPECT_FALSE(Endpoint("tcp").IsKnownScheme());
}

// The error number of the system_error that `f` throws, 0 if none.
template <typename F>
int ErrorOf(F f) {
  try {
    f();
  } catch (const boost::system::system_error& e) {
    return e.code().value();
  }
  return 0;
}

// "<address>[%<scope>]:<port>" of a made address.
std::string Text(const SocketAddress& a) {
  char text[INET6_ADDRSTRLEN] = "";
  const auto* in = reinterpret_cast<const sockaddr_in*>(&a.storage);
  const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&a.storage);
  const bool four = a.Family() == AF_INET;
  inet_ntop(a.Family(), four ? static_cast<const void*>(&in->sin_addr) : &in6->sin6_addr, text, sizeof text);
  return text + (four ? "" : "%" + std::to_string(in6->sin6_scope_id)) + ":" +
         std::to_string(ntohs(four ? in->sin_port : in6->sin6_port));
}

TEST(SocketAddressTest, HostsAndPaths) {
  struct Row {
    const char* host;
    const char* text;  // null: refused with EINVAL
  };
  const Row rows[] = {
      {"*", "0.0.0.0:9"},
      {"127.0.0.1", "127.0.0.1:9"},
      {"::1", "::1%0:9"},
      {"fe80::1%lo", "fe80::1%1:9"},      // link-local: the interface's index
      {"fe80::1%7", "fe80::1%7:9"},       // or the number
      {"2001:db8::1%lo", "2001:db8::1%0:9"},  // other addresses keep no scope
      {"localhost", nullptr},             // names are the resolver's affair
      {"1.2.3", nullptr},
      {"", nullptr},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.host);
    if (r.text != nullptr) {
      EXPECT_EQ(Text(TcpAddress(r.host, 9)), r.text);
    } else {
      EXPECT_EQ(ErrorOf([&] { TcpAddress(r.host, 9); }), EINVAL);
    }
  }

  // A path fits sun_path with its terminating NUL: 107 characters at most.
  const SocketAddress ok = LocalAddress(std::string(107, 'p'));
  EXPECT_EQ(ok.Family(), AF_UNIX);
  EXPECT_EQ(ok.size, offsetof(sockaddr_un, sun_path) + 108);
  EXPECT_EQ(ErrorOf([] { LocalAddress(std::string(108, 'p')); }), ENAMETOOLONG);
}

TEST(SocketOptionsTest, PrintedForm) {
  SocketOptions o;
  EXPECT_EQ(ToString(o), "{acceptor:{reuse_address} linger:{off,0s} uds:{}}");
  o.timeout = 2000;  // as the proxy's forwarding connection sets it
  EXPECT_EQ(ToString(o), "{timeout:2000ms acceptor:{reuse_address} linger:{off,0s} uds:{}}");
  o = SocketOptions();
  o.keepalive = true;
  o.keepalive_count = 5;
  EXPECT_EQ(ToString(o), "{acceptor:{reuse_address} keepalive:{0s+5*0s} linger:{off,0s} uds:{}}");
  o.timeout = -1;
  o.acceptor.backlog = 16;
  o.ns = "blue";
  o.keepalive_idle = 10;
  o.keepalive_interval = 2;
  o.linger = 0;
  o.uds = {true, 0660};
  o.security_context_id = "pinned";
  EXPECT_EQ(ToString(o),
            "{timeout:-1ms acceptor:{reuse_address backlog:16} ns:blue keepalive:{10s+5*2s} "
            "linger:{on,0s} uds:{mkdir perm:0660} sctx-id:pinned}");
  o = SocketOptions();
  o.acceptor.reuse_address = false;
  o.linger.reset();
  o.uds.perm = 07;
  EXPECT_EQ(ToString(o), "{acceptor:{} uds:{perm:0007}}");
  o.acceptor.backlog = 1;
  o.linger = 30;
  EXPECT_EQ(ToString(o), "{acceptor:{backlog:1} linger:{on,30s} uds:{perm:0007}}");
  EXPECT_EQ(SocketOptions().acceptor.Backlog(), 128);
}

}  // namespace
}  // namespace net
}  // namespace zel
