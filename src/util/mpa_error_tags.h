// Error tags of the agent and its MPA libraries: every error line carries one
// "errorCode:<family><number>" tag, and the text of each tag lives here only,
// so a search for a tag finds its one definition and every use by name.
//
//   DORN_LOG(zel::kLogError).addTag(ZelMpa::tag::MPA30008) << "...";
#ifndef ZEL_UTIL_MPA_ERROR_TAGS_H_
#define ZEL_UTIL_MPA_ERROR_TAGS_H_

namespace ZelMpa {
namespace tag {

// The "MPA" family: the agent (MPA300xx) and the MPA library (MPA1xx, MPA15xx).
constexpr char MPA2[] = "errorCode:MPA2";
constexpr char MPA101[] = "errorCode:MPA101";
constexpr char MPA108[] = "errorCode:MPA108";
constexpr char MPA116[] = "errorCode:MPA116";
constexpr char MPA122[] = "errorCode:MPA122";
constexpr char MPA125[] = "errorCode:MPA125";
constexpr char MPA128[] = "errorCode:MPA128";
constexpr char MPA129[] = "errorCode:MPA129";
constexpr char MPA130[] = "errorCode:MPA130";
constexpr char MPA131[] = "errorCode:MPA131";
constexpr char MPA132[] = "errorCode:MPA132";
constexpr char MPA136[] = "errorCode:MPA136";
constexpr char MPA137[] = "errorCode:MPA137";
constexpr char MPA138[] = "errorCode:MPA138";
constexpr char MPA139[] = "errorCode:MPA139";
constexpr char MPA141[] = "errorCode:MPA141";
constexpr char MPA142[] = "errorCode:MPA142";
constexpr char MPA143[] = "errorCode:MPA143";
constexpr char MPA1501[] = "errorCode:MPA1501";
constexpr char MPA1506[] = "errorCode:MPA1506";
constexpr char MPA30001[] = "errorCode:MPA30001";
constexpr char MPA30002[] = "errorCode:MPA30002";
constexpr char MPA30006[] = "errorCode:MPA30006";
constexpr char MPA30007[] = "errorCode:MPA30007";
constexpr char MPA30008[] = "errorCode:MPA30008";
constexpr char MPA30009[] = "errorCode:MPA30009";
constexpr char MPA30010[] = "errorCode:MPA30010";
constexpr char MPA30011[] = "errorCode:MPA30011";

// The "MPAERR_" family: named failures of the management client and the agent.
constexpr char MPAERR_MPA_COOKIEID_MISMATCH[] = "errorCode:MPAERR_MPA_COOKIEID_MISMATCH";
constexpr char MPAERR_MPA_EVENT_LOOP_START[] = "errorCode:MPAERR_MPA_EVENT_LOOP_START";
constexpr char MPAERR_MPA_INVALID_MSG_HANDLER[] = "errorCode:MPAERR_MPA_INVALID_MSG_HANDLER";
constexpr char MPAERR_MPA_SENDMSG_FAILED[] = "errorCode:MPAERR_MPA_SENDMSG_FAILED";
constexpr char MPAERR_MPA_UNSUPPORT_MSG[] = "errorCode:MPAERR_MPA_UNSUPPORT_MSG";
constexpr char MPAERR_PARSE_DORN_MSG_FAIL[] = "errorCode:MPAERR_PARSE_DORN_MSG_FAIL";
constexpr char MPAERR_PROTOBUF_SERIALIZATION[] = "errorCode:MPAERR_PROTOBUF_SERIALIZATION";
constexpr char MPAERR_RMQCLIENTLIB_NUM_CLIENTS_EXCEEDED[] = "errorCode:MPAERR_RMQCLIENTLIB_NUM_CLIENTS_EXCEEDED";
constexpr char MPAERR_SEND_MP_MSG_FAIL[] = "errorCode:MPAERR_SEND_MP_MSG_FAIL";

}  // namespace tag
}  // namespace ZelMpa

#endif  // ZEL_UTIL_MPA_ERROR_TAGS_H_
