// Endpoint: a peer address as a URI text, split into views.
//
//   zel::net::Endpoint ep("tcp://127.0.0.1:4096");
//   ep.scheme() == "tcp"; ep.host() == "127.0.0.1"; ep.port() == 4096;
//   zel::net::Endpoint local("unix:///var/run/orvane/zel/metrics-collector.sock");
//   local.authority() == ""; local.path() == "/var/run/orvane/zel/metrics-collector.sock";
//
// Parsing never fails and validates nothing: parts that are not there stay
// empty, and whoever needs a host or a path finds out when it makes the
// socket address. There is no bracket form for IPv6 literals: the first colon
// of the authority always ends the host. The port is read up to the first
// non-digit and cut to 16 bits.
//
// Schemes the network transport takes: "tcp", "ssl" and "ssl-tcp" (host and
// port), "unix" and "ssl-unix" (path).
//
// Threads: a plain value; copies are independent (the views follow the copy).
#ifndef ZEL_NET_ENDPOINT_H_
#define ZEL_NET_ENDPOINT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace zel {
namespace net {

class Endpoint {
 public:
  Endpoint() = default;
  explicit Endpoint(std::string uri);

  const std::string& uri() const { return uri_; }
  std::string_view scheme() const { return View(scheme_); }
  std::string_view authority() const { return View(authority_); }
  std::string_view host() const { return View(host_); }
  uint16_t port() const { return port_; }
  std::string_view path() const { return View(path_); }

  // True for the schemes whose address is a local socket path.
  bool IsLocal() const { return scheme() == "unix" || scheme() == "ssl-unix"; }
  // True for the schemes that run TLS.
  bool IsSecure() const { return scheme() == "ssl" || scheme() == "ssl-tcp" || scheme() == "ssl-unix"; }
  // True for the five schemes above.
  bool IsKnownScheme() const;

 private:
  // Offset and length into uri_; the views are made on demand, so the
  // default copy is right.
  struct Span {
    size_t at = 0;
    size_t size = 0;
  };
  std::string_view View(Span s) const { return std::string_view(uri_).substr(s.at, s.size); }

  std::string uri_;
  Span scheme_;
  Span authority_;
  Span host_;
  uint16_t port_ = 0;
  Span path_;
};

inline bool operator==(const Endpoint& a, const Endpoint& b) { return a.uri() == b.uri(); }

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_ENDPOINT_H_
