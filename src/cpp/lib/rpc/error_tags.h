// Error tags of the "RPC" family; see cpp/lib/common/error_tags.h.
#ifndef ZEL_RPC_ERROR_TAGS_H_
#define ZEL_RPC_ERROR_TAGS_H_

namespace zel {
namespace rpc {

// Connections: a net connection could not be had, an accept failed.
inline constexpr char kTagRpc1[] = "errorCode:RPC1";
inline constexpr char kTagRpc4[] = "errorCode:RPC4";
// Undecodable frame, or a read on a closed connection.
inline constexpr char kTagRpc5[] = "errorCode:RPC5";
// Send while not connected.
inline constexpr char kTagRpc6[] = "errorCode:RPC6";
// Payload over the maximum; a connection that could not be registered.
inline constexpr char kTagRpc8[] = "errorCode:RPC8";
// An endpoint id that did not resolve.
inline constexpr char kTagRpc10[] = "errorCode:RPC10";
// Bad control frame, serialisation failure, second settings.
inline constexpr char kTagRpc20[] = "errorCode:RPC20";
// Keepalive: unexpected response, expired, bad id, bad timestamp.
inline constexpr char kTagRpc30[] = "errorCode:RPC30";
inline constexpr char kTagRpc31[] = "errorCode:RPC31";
inline constexpr char kTagRpc32[] = "errorCode:RPC32";
inline constexpr char kTagRpc33[] = "errorCode:RPC33";
// Channels: new call refused, send after close, frame after close, unknown
// call id, stream refused by the peer, second close.
inline constexpr char kTagRpc50[] = "errorCode:RPC50";
inline constexpr char kTagRpc51[] = "errorCode:RPC51";
inline constexpr char kTagRpc52[] = "errorCode:RPC52";
inline constexpr char kTagRpc53[] = "errorCode:RPC53";
inline constexpr char kTagRpc54[] = "errorCode:RPC54";
inline constexpr char kTagRpc55[] = "errorCode:RPC55";
// Forwarding could not be set up.
inline constexpr char kTagRpc60[] = "errorCode:RPC60";
// Calls: misuse in a state, observer failed, channel down, error state,
// refused in a final state, send failed, no observer from a streaming method.
inline constexpr char kTagRpc100[] = "errorCode:RPC100";
inline constexpr char kTagRpc101[] = "errorCode:RPC101";
inline constexpr char kTagRpc102[] = "errorCode:RPC102";
inline constexpr char kTagRpc103[] = "errorCode:RPC103";
inline constexpr char kTagRpc104[] = "errorCode:RPC104";
inline constexpr char kTagRpc105[] = "errorCode:RPC105";
inline constexpr char kTagRpc106[] = "errorCode:RPC106";
// A header that could not be unpacked.
inline constexpr char kTagRpc150[] = "errorCode:RPC150";
// A section or payload that could not be parsed.
inline constexpr char kTagRpc400[] = "errorCode:RPC400";
// Server: started twice, stop not implemented; no such method.
inline constexpr char kTagRpc500[] = "errorCode:RPC500";
inline constexpr char kTagRpc501[] = "errorCode:RPC501";
inline constexpr char kTagRpc503[] = "errorCode:RPC503";
inline constexpr char kTagRpc9999[] = "errorCode:RPC9999";

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ERROR_TAGS_H_
