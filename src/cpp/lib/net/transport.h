// Transport: the factory and owner of the network layer's sockets and
// connections, and its listeners. NetTransport (net_transport.h) is the
// implementation.
//
//   ConnectionResult r = transport->NewConnection(Endpoint("tcp://10.0.0.5:4096"), options);
//   if (ConnectionPtr conn = r.value()) conn->Connect(onConnected);
//
//   transport->Listen(Endpoint("unix:///run/x.sock"), options,
//                     [](const error_code& ec, const ConnectionPtr& conn) {
//                       if (conn) Keep(conn);
//                       return true;          // false refuses (drops) it
//                     });
//
// Threads: every operation may be called from any thread. Listen's handler
// runs on an event-loop thread with no lock of the transport held.
#ifndef ZEL_NET_TRANSPORT_H_
#define ZEL_NET_TRANSPORT_H_

#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include <boost/system/error_code.hpp>

#include "cpp/lib/net/connection.h"
#include "cpp/lib/net/endpoint.h"
#include "cpp/lib/net/socket_options.h"
#include "cpp/lib/net/stream_socket.h"

namespace zel {
namespace net {

// Who asks for a socket or connection: this side connects, or it accepts.
enum class Role { CLIENT = 1, SERVER = 2 };

// The object, an error code, or a text that describes a failure.
template <class T>
class Result {
 public:
  Result(T object) : content_(std::move(object)) {}  // NOLINT: implicit on purpose
  Result(const boost::system::error_code& ec) : content_(ec) {}  // NOLINT
  Result(std::string text) : content_(std::move(text)) {}        // NOLINT

  bool ok() const { return content_.index() == 0 && std::get<0>(content_) != nullptr; }
  // The object; empty on failure.
  T value() const { return content_.index() == 0 ? std::get<0>(content_) : T(); }
  // The failure as an error code: the code itself, ERANGE (generic) for a
  // text, success for an object. Throws std::logic_error on content of no
  // known kind ("Invalid content of result: <index>").
  boost::system::error_code error() const;
  // The failure's text ("" for an object).
  std::string text() const;

 private:
  std::variant<T, boost::system::error_code, std::string> content_;
};

using SocketResult = Result<StreamSocketPtr>;
using ConnectionResult = Result<ConnectionPtr>;

// Called for each accepted connection once it is ready, or with a failure
// and no connection; returning false refuses the connection.
using AcceptHandler =
    std::function<bool(const boost::system::error_code& status, const ConnectionPtr& connection)>;

class Transport {
 public:
  virtual ~Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // A socket for `endpoint`: a client socket is opened (and set up with the
  // options), a server socket waits for an accept.
  virtual SocketResult NewStreamSocket(const Endpoint& endpoint, const SocketOptions& options,
                                       Role role = Role::CLIENT) = 0;
  virtual void StopListening(const Endpoint& endpoint) = 0;
  // Only connections call this, when they close.
  virtual void UnregisterConnection(uint32_t id) = 0;
  virtual ConnectionResult NewConnection(const Endpoint& endpoint, const SocketOptions& options,
                                         Role role = Role::CLIENT) = 0;
  // Connections are found by their users, never by endpoint: always empty.
  virtual ConnectionPtr GetConnection(const Endpoint& endpoint) = 0;
  // Listens on `endpoint` and calls `handler` for each accepted connection.
  // A second Listen on the same URI replaces the handler only.
  virtual boost::system::error_code Listen(const Endpoint& endpoint, const SocketOptions& options,
                                           AcceptHandler handler) = 0;
  // Closes every listener and connection; every later call fails with
  // "Shut down".
  virtual void Shutdown() = 0;

 protected:
  Transport() = default;
};

template <class T>
boost::system::error_code Result<T>::error() const {
  switch (content_.index()) {
    case 0:
      return {};
    case 1:
      return std::get<1>(content_);
    case 2:
      return boost::system::error_code(ERANGE, boost::system::generic_category());
    default:
      throw std::logic_error("Invalid content of result: " +
                             std::to_string(static_cast<int>(content_.index())));
  }
}

template <class T>
std::string Result<T>::text() const {
  switch (content_.index()) {
    case 1:
      return std::get<1>(content_).message();
    case 2:
      return std::get<2>(content_);
    default:
      return std::string();
  }
}

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_TRANSPORT_H_
