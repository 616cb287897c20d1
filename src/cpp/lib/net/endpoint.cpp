#include "cpp/lib/net/endpoint.h"

#include <cstdlib>
#include <utility>

namespace zel {
namespace net {

Endpoint::Endpoint(std::string uri) : uri_(std::move(uri)) {
  const size_t n = uri_.size();
  if (n == 0) return;

  size_t cursor = 0;
  // A scheme is the text before the first colon, when that colon is not the
  // first character and no '/' stands before it ("//h:1/x" has none).
  const size_t colon = uri_.find(':');
  if (colon != std::string::npos && colon > 0 && uri_.find('/') > colon) {
    scheme_ = {0, colon};
    cursor = colon + 1;
    if (cursor == n) return;  // "tcp:" ends after the scheme
  }

  if (uri_.compare(cursor, 2, "//") == 0) {
    const size_t start = cursor + 2;
    const size_t slash = uri_.find('/', start);
    authority_ = {start, (slash == std::string::npos ? n : slash) - start};
    if (slash != std::string::npos) {
      path_ = {slash, n - slash};
    }
  } else {
    path_ = {cursor, n - cursor};
  }

  const std::string_view authority = View(authority_);
  const size_t portColon = authority.find(':');
  if (portColon != std::string_view::npos && portColon > 0) {
    host_ = {authority_.at, portColon};
    // strtol stops at the first non-digit; the copy ends with the authority.
    const std::string digits(authority.substr(portColon + 1));
    port_ = static_cast<uint16_t>(std::strtol(digits.c_str(), nullptr, 10));
  } else {
    host_ = authority_;
  }
}

bool Endpoint::IsKnownScheme() const {
  const std::string_view s = scheme();
  return s == "tcp" || s == "ssl" || s == "ssl-tcp" || s == "unix" || s == "ssl-unix";
}

}  // namespace net
}  // namespace zel
