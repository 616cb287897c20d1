#include "cpp/lib/net/stream_socket.h"

namespace zel {
namespace net {

const char* ToString(StreamSide side) {
  switch (side) {
    case StreamSide::CLIENT:
      return "client";
    case StreamSide::SERVER:
      return "server";
  }
  return "<StreamSide::INVALID>";
}

const char* ToString(StreamSocket::State state) {
  static const char* const kNames[] = {"Init",    "Open",   "Accepting", "Connected",
                                       "Closing", "Closed", "Deleted"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 7 ? kNames[i] : "<StreamSocket::State::INVALID>";
}

const char* ToString(StreamAcceptor::State state) {
  static const char* const kNames[] = {"Init", "Open", "Listening", "Closing", "Closed", "Deleted"};
  const int i = static_cast<int>(state);
  return i >= 0 && i < 6 ? kNames[i] : "<StreamAcceptor::State::INVALID>";
}

}  // namespace net
}  // namespace zel
