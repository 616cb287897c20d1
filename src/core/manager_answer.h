// The frame that every operation manager gives its answer: the message type,
// and the request's operation id and correlation flag copied over. Included
// only by the managers' sources.
#ifndef DORN_CORE_MANAGER_ANSWER_H_
#define DORN_CORE_MANAGER_ANSWER_H_

#include "orvane/zel/dorn/dorn_fabric_message.pb.h"

namespace ZelDorn {

inline orvane::zel::dorn::DornMessage MakeAnswer(
    const orvane::zel::dorn::DornMessage& request,
    orvane::zel::dorn::MessageType type = orvane::zel::dorn::MT_OPERATION_STATUS) {
  orvane::zel::dorn::DornMessage answer;
  answer.set_message_type(type);
  answer.set_operation_id(request.operation_id());
  answer.set_return_same_correlationid(request.return_same_correlationid());
  return answer;
}

}  // namespace ZelDorn

#endif  // DORN_CORE_MANAGER_ANSWER_H_
