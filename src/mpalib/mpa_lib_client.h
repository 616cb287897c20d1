// ZelMpa::MpaLibClient: one connection from an application to the local
// management-plane agent (MPA), speaking its framed BSON protocol.
//
// Wire format, both directions: a 4-byte big-endian length N, then one
// finished BSON document of N bytes. Outbound documents are a registration
// (msg_type 1 or 6) or a data message; inbound documents become an
// rmqClientMessage handed to the callback (see rmq_client_message.h).
//
// Threads and locks.
// - The listener thread calls Receive(). Only the socket read happens under
//   the client mutex; the chunk assembler's state is the listener thread's
//   alone, and the callback runs with no lock held, so it may call Send() on
//   this same client.
// - Application threads call Send(), Close(), Init(). The client mutex is
//   recursive and a send that waits for room in the socket holds it: a slow
//   peer blocks this client's reads, no other client's.
// - A send that finds no room for about ten minutes ends the process with
//   exit(0) so that its supervisor restarts it.
#ifndef ZEL_MPALIB_MPA_LIB_CLIENT_H_
#define ZEL_MPALIB_MPA_LIB_CLIENT_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "mpalib/mpa_lib_result.h"
#include "mpalib/rmq_client_message.h"

struct bson;

namespace ZelMpa {

class BSON;
class Socket;

// Size of the buffer Send() fills with "<session>:<sequence>".
constexpr size_t kMpaMessageIdSize = 64;

class MpaLibClient {
 public:
  // `appType` names the client in the protocol and the logs. Connection type
  // 1 is the usable one (3 also registers; 2 and 4 are refused by Init).
  MpaLibClient(const char* appType, int connectionType,
               rmqClientCallback callback);
  // Frees a message still being assembled; the socket closes with its owner.
  virtual ~MpaLibClient();

  MpaLibClient(const MpaLibClient&) = delete;
  MpaLibClient& operator=(const MpaLibClient&) = delete;

  // Reads once (at most 2000 bytes) and delivers every message completed by
  // the read, synchronously, on the calling thread. Returns 0,
  // kMpaNothingRead when nothing could be read, or kMpaFailure when the
  // socket failed, the peer closed, or a message could not be delivered. A
  // frame that cannot be read without going outside its bytes (elements that
  // run past its end, a payload_len above its payload) is dropped with an
  // MPA131 line and does not count as a failure. A malformed value of a
  // known key throws a heap-allocated BsonException (the catcher deletes it);
  // the message is dropped first.
  virtual int Receive();
  // Sends one data message with `sessionId`. When `messageIdOut` is given
  // (kMpaMessageIdSize bytes) it receives "<session>:<sequence>",
  // zero-filled, with "no-session" / "no-seq" for what is missing. Returns 0
  // or a negative result code.
  virtual int Send(const rmqClientMessage* message, const char* sessionId,
                   char* messageIdOut);
  // Closes the socket's descriptor; the socket object stays, so later calls
  // fail on it as socket errors and GetCookieId() answers -1. With `notify`,
  // the callback then receives a RMQ_CLIENT_CLOSE record (type 5) carrying
  // the cookie the client had (-1 when it was closed already); its rawBuffer
  // is a heap copy of the application type. Returns 0, kMpaFailure when the
  // close failed, kMpaNoCallback when there is no callback to notify.
  virtual int Close(bool notify);
  // Connects (blocking, TCP_NODELAY) and sends the registration with the
  // optional `headers` (a finished document). On success returns 0, stores
  // the cookie id (the descriptor) in `cookieOut`, draws a fresh session id
  // and makes the socket non-blocking. On failure returns a negative code,
  // leaves -1 in `cookieOut` and closes the socket.
  virtual int Init(const char* ip, const char* port, const bson* headers,
                   int* cookieOut);
  // The descriptor under the client mutex: -1 once closed, and -1 with an
  // MPA132 line when no socket was ever made.
  virtual int GetCookieId();
  // The same without the mutex; the caller serialises.
  virtual int GetSocketDescriptor();
  // "no-session" until a registration has been sent.
  virtual std::string GetSessionId();
  // Replaces the socket by a new, unconnected one.
  virtual void CreateSocket();
  // Builds, frames and sends the registration document. Returns 0 or a
  // negative code; throws a heap-allocated BsonException when an append
  // fails, SocketException from the socket.
  virtual int SendRegistration(const bson* headers);

  const std::string& GetAppType() const { return appType_; }

  // Retries of a send that finds no room before the process exits; the
  // default is 23999. For tests that reach the exit in bounded time.
  static void SetSendRetryLimitForTest(unsigned limit);

 private:
  // Frames `doc` and sends it all, waiting for room as needed.
  int SendDocument_(const BSON& doc);
  // Feeds one chunk of the stream to the assembler; one status per message
  // completed (or failed) in it.
  std::vector<int> AssembleChunk_(const uint8_t* chunk, size_t len);
  // Starts a message of `length` bytes; 0, kMpaOutOfMemory or
  // kMpaInvalidLength.
  int StartMessage_(uint32_t length);
  // Hands the completed message to the callback.
  int Deliver_();
  // Fills `m` from the frame's document; false (logged) when the frame must
  // be dropped because reading it would go outside its bytes.
  bool FillRecord_(uint8_t* doc, size_t len, rmqClientMessage* m);
  // Forgets the assembler state; frees the message buffer when `free`.
  void ResetAssembler_(bool free);
  std::string NewSessionId_();

  const char* const logPrefix_ = "MPALIBCLIENT: ";
  std::recursive_mutex mutex_;
  const int connectionType_;
  const rmqClientCallback callback_;
  const std::string appType_;
  std::shared_ptr<Socket> socket_;  // guarded by mutex_
  std::string sessionId_;           // guarded by mutex_

  // Assembler state; listener thread only.
  uint8_t* msgBuf_ = nullptr;
  int32_t bytesRead_ = 0;
  int32_t bytesToRead_ = 0;
  uint8_t partialBuf_[4] = {};
  int32_t partialLen_ = 0;

  std::mutex idMutex_;
};

}  // namespace ZelMpa

#endif  // ZEL_MPALIB_MPA_LIB_CLIENT_H_
