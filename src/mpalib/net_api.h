// Entry points of the MPA library: the whole of what the application calls.
//
//   // On a thread given to the library for the life of the process:
//   NETEventLoop(nullptr);                      // returns when the loop ends
//
//   // On any thread:
//   int cookie = NETRegister("zel", "DORN_FABRIC_APPLICATION", 1,
//                            nullptr, &OnMessage, nullptr);
//   rmqClientMessage m;  memset(&m, 0, sizeof m);
//   m.messageType = RMQ_CLIENT_DATA_MESSAGE;  m.cookieId = cookie;
//   m.amqpContentType = "application/protobuf";  m.amqpRoutingKey = "";
//   m.payload = bytes;  m.payloadLen = n;  m.amqpHeaders = headers.raw();
//   NETSend(&m, nullptr);
//   NETClose(cookie);
//   NETStop();
//
// `OnMessage(rmqClientMessage*)` runs on the event-loop thread for every
// message from the MPA, and with a RMQ_CLIENT_CLOSE record (type 5) when the
// library drops the connection; it owns and free()s `rawBuffer`.
//
// Threads: all entry points may be called from any thread, including from
// inside the callback, except NETStop (not on the event-loop thread).
#ifndef ZEL_MPALIB_NET_API_H_
#define ZEL_MPALIB_NET_API_H_

#include "mpalib/mpa_lib_result.h"
#include "mpalib/rmq_client_message.h"

struct bson;

// Makes the process's library and runs its listener loop on the calling
// thread; returns only when the loop ends (after NETStop, or when the loop
// failed). A second call while a library exists returns 0 at once.
int NETEventLoop(void* arg);

// Connects a client of application type `name` and connection type `type`
// (1) to the MPA at `endpoint` (null: 127.0.0.1:9002) and sends its
// registration with the optional finished `headers`. `id` is the
// application id, which the protocol does not carry. Waits at most 1 second
// for NETEventLoop to come up. Returns the cookie id (>= 0) that names the
// connection, or a negative code of mpa_lib_result.h: kMpaInvalidArgument
// null name or callback or a bad port, kMpaNoEventLoop, kMpaNotStarted,
// kMpaSocketError MPA unreachable, kMpaTooManyClients (32 already),
// kMpaUnsupported bad type, others as the library gives.
int NETRegister(const char* id, const char* name, int type, const bson* headers,
                rmqClientCallback callback, const rmqClientEndpoint* endpoint);

// Closes the connection of `cookie` without a RMQ_CLIENT_CLOSE record.
// Returns 0 or a negative code (kMpaNoEventLoop, kMpaClientNotFound for an
// unknown cookie).
int NETClose(int cookie);

// Sends a data message on the connection `message->cookieId`. The library
// copies what it needs; the caller keeps ownership. `messageIdOut`, when not
// null, receives up to 64 bytes "<session>:<sequence>". Returns 0 or a
// negative code; a connection whose send failed is closed and its callback
// receives RMQ_CLIENT_CLOSE.
int NETSend(const rmqClientMessage* message, char* messageIdOut);

// Not supported: returns kMpaUnsupported.
int NETSendToHost(const rmqClientMessage* message);

// Stops the loop (NETEventLoop then returns), closes every connection without
// RMQ_CLIENT_CLOSE records and deletes the library. Takes up to 5 seconds.
// Returns 0, or kMpaNoEventLoop when there is no library.
int NETStop();

#endif  // ZEL_MPALIB_NET_API_H_
