// NetNamespaceGuard: switches the calling thread into the network namespace
// that SocketOptions::ns names (/var/run/netns/<ns>) for its lifetime, and
// back on destruction. A socket keeps the namespace it was opened in, so the
// guard is held only around opening a socket and applying its options:
//
//   {
//     zel::net::NetNamespaceGuard inside(options);   // throws errno_exception
//     fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
//     ApplyToTcpSocket(fd, options);
//   }
//   connect(fd, ...);  // in the socket's namespace, wherever the thread is
//
// An empty `ns` does nothing. Construction throws zel::errno_exception when
// the namespace cannot be opened or entered (the thread is then back where
// it was); the destructor never throws and logs a failed way back with
// errorCode:NET20.
//
// Threads: setns acts on the calling thread only; construct, use and destroy
// the guard on one thread with nothing else run in between.
#ifndef ZEL_NET_NET_NAMESPACE_GUARD_H_
#define ZEL_NET_NET_NAMESPACE_GUARD_H_

namespace zel {
namespace net {

struct SocketOptions;

class NetNamespaceGuard {
 public:
  explicit NetNamespaceGuard(const SocketOptions& options);
  ~NetNamespaceGuard();
  NetNamespaceGuard(const NetNamespaceGuard&) = delete;
  NetNamespaceGuard& operator=(const NetNamespaceGuard&) = delete;

 private:
  // The namespace to go back to; -1 when nothing was switched.
  int original_ = -1;
};

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_NET_NAMESPACE_GUARD_H_
