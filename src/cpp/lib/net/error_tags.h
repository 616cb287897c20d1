// Error tags of the "NET" family (the network transport and its TLS layer).
#ifndef ZEL_NET_ERROR_TAGS_H_
#define ZEL_NET_ERROR_TAGS_H_

namespace zel {
namespace net {

// No socket or connection could be made for an endpoint.
inline constexpr char kTagNet1[] = "errorCode:NET1";
// Listening on an endpoint failed.
inline constexpr char kTagNet3[] = "errorCode:NET3";
// Accepting a connection failed.
inline constexpr char kTagNet4[] = "errorCode:NET4";
// Read or write while not connected.
inline constexpr char kTagNet5[] = "errorCode:NET5";
inline constexpr char kTagNet6[] = "errorCode:NET6";
// A scheme the transport does not know.
inline constexpr char kTagNet7[] = "errorCode:NET7";
// The way back to the original network namespace failed.
inline constexpr char kTagNet20[] = "errorCode:NET20";
// An address query of a live socket failed.
inline constexpr char kTagNet30[] = "errorCode:NET30";
// A stale local socket file could not be removed.
inline constexpr char kTagNet31[] = "errorCode:NET31";
// No security context under the asked name.
inline constexpr char kTagNet100[] = "errorCode:NET100";
// Accept in a state that does not allow it.
inline constexpr char kTagNet500[] = "errorCode:NET500";
// Certificates: PEM read, validation and trust store, key and certificate use.
inline constexpr char kTagNet1109[] = "errorCode:NET1109";
inline constexpr char kTagNet1111[] = "errorCode:NET1111";
inline constexpr char kTagNet1120[] = "errorCode:NET1120";
// A BIO (file or memory object) of the certificate code failed.
inline constexpr char kTagNet1132[] = "errorCode:NET1132";
// An exception out of a handler; the process aborts after the line.
inline constexpr char kTagNet9999[] = "errorCode:NET9999";

}  // namespace net
}  // namespace zel

#endif  // ZEL_NET_ERROR_TAGS_H_
