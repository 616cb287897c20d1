// Error tags of the "RPC" family; see cpp/lib/common/error_tags.h.
#ifndef ZEL_RPC_ERROR_TAGS_H_
#define ZEL_RPC_ERROR_TAGS_H_

namespace zel {
namespace rpc {

inline constexpr char kTagRpc9999[] = "errorCode:RPC9999";

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_ERROR_TAGS_H_
