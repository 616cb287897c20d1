// CommunicationHandler: the one meeting point between the operation managers
// and the management-plane client.
//
// Inbound, Callback takes each record the client layer delivers, parses its
// payload as a DornMessage and calls the manager for its message type
// (HandleMsg). Outbound, every manager hands SendMsg a finished DornMessage,
// which goes out wrapped in an rmqClientMessage with its headers. There is no
// queue and no worker here: the manager runs on the delivering thread, inside
// Callback, and its answer is sent before Callback returns.
//
// Threads. Start and Stop belong to the entry thread. Callback runs on the
// client layer's delivering thread; SendMsg may be called from any thread
// (managers call it with their own mutex held) and reads the client under
// clientMutex_, so a Stop on the entry thread never races a send. Nothing here
// holds a lock while calling a manager or the client layer's SendMsg.
#ifndef DORN_CORE_COMMUNICATION_HANDLER_H_
#define DORN_CORE_COMMUNICATION_HANDLER_H_

#include <cstdint>
#include <string>

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

struct rmqClientMessage;

namespace orvane {
namespace zel {
namespace dorn {
class DornMessage;
}  // namespace dorn
}  // namespace zel
}  // namespace orvane

namespace zel {
namespace rpc {
class AsioZelProvider;
}  // namespace rpc
}  // namespace zel

namespace ZelDorn {

class Monitor;
class MpClient;
class MpClientLayer;

class CommunicationHandler {
 public:
  // The application type and queue under which the agent registers.
  static constexpr const char* kAppName = "DORN_FABRIC_APPLICATION";
  // Header keys: correlation id (in and out), reply-to (in), type (out).
  static constexpr const char* kCorrelationIdHeader = "amqp_correlationId";
  static constexpr const char* kReplyToHeader = "amqp_replyTo";
  static constexpr const char* kTypeIdHeader = "__TypeId__";
  static constexpr const char* kTypeId = "com.orvane.zel.dorn.DornFabricMessage.DornMessage";
  static constexpr const char* kContentType = "application/protobuf";
  // Kinds of an outbound record: a message of the agent's own, and an answer
  // to a request that named a reply-to queue.
  static constexpr int32_t kMessageKind = 10;
  static constexpr int32_t kReplyKind = 11;
  // What Start registers with the client layer.
  static constexpr int kConnectionType = 1;
  static constexpr uint16_t kMpaPort = 9002;
  static constexpr uint64_t kAckRetryMicros = 30000000;
  static constexpr uint64_t kConnectRetryMicros = 5000000;

  // Builds the process-wide instance (replacing any earlier one) and returns
  // it. `monitor` is kept for as long as the instance lives, so the instance
  // going away joins the monitor thread. `provider` is not owned: the entry
  // keeps it alive until after Stop; Start runs it. `clientLayer` is the road
  // to the management plane (the real layer in the agent, a fake in tests).
  static boost::shared_ptr<CommunicationHandler> CreateInstance(
      boost::shared_ptr<Monitor> monitor, zel::rpc::AsioZelProvider* provider,
      boost::shared_ptr<MpClientLayer> clientLayer);
  // The instance, or null before CreateInstance.
  static boost::shared_ptr<CommunicationHandler> GetInstance();
  // Drops the process-wide reference. When it was the last one, the handler
  // goes, and with it its Monitor reference: if that was the Monitor's last
  // owner, its Thread destructor joins the monitor thread, which never ends.
  static void ReleaseInstance();

  ~CommunicationHandler();
  CommunicationHandler(const CommunicationHandler&) = delete;
  CommunicationHandler& operator=(const CommunicationHandler&) = delete;

  // Registers the client, starts it and the proxy client, then runs the
  // provider with one thread in blocking mode on the calling thread: it
  // returns only once the provider has been stopped. Called once, by the
  // entry.
  void Start();
  // Stops the client, drops it and unregisters the application.
  void Stop();

  // The function registered with the client layer. Handles registration
  // acknowledgements and closes by logging them, hands data records (kinds
  // 3 and 8) to HandleMsg and ignores every other kind. A payload that is not
  // a DornMessage is logged and gets no answer. Does not keep `message` or
  // free its buffer: the layer owns both.
  void Callback(rmqClientMessage* message);

  // Calls the manager for `message.message_type()`. `replyTo` and
  // `correlationId` (either may be null) live as long as the received
  // record's headers and are passed to the manager unchanged.
  // MT_OPERATION_STATUS and unknown types are dropped without an answer.
  // An exception thrown by a manager is not caught.
  void HandleMsg(const orvane::zel::dorn::DornMessage& message, const char* replyTo,
                 const char* correlationId);

  // Sends `message` through the client: kind 11 routed to `replyTo` when it
  // is not null, kind 10 with an empty routing key otherwise. The answer
  // carries `correlationId` (which may be null) when the message asks for the
  // same correlation id, and the fixed id "DORN_FABRIC_APPLICATION-0"
  // otherwise. A failed send is logged and not reported to the caller.
  void SendMsg(const orvane::zel::dorn::DornMessage& message, const char* replyTo,
               const char* correlationId);

  const std::string& appName() const { return appName_; }
  const std::string& queueName() const { return queueName_; }

 private:
  CommunicationHandler(boost::shared_ptr<Monitor> monitor, zel::rpc::AsioZelProvider* provider,
                       boost::shared_ptr<MpClientLayer> clientLayer);

  boost::shared_ptr<MpClient> Client_();

  const boost::shared_ptr<Monitor> monitor_;
  zel::rpc::AsioZelProvider* const provider_;
  const boost::shared_ptr<MpClientLayer> clientLayer_;
  boost::mutex clientMutex_;
  // Set by Start, cleared by Stop. Guarded by clientMutex_.
  boost::shared_ptr<MpClient> client_;
  // Written by Start before the client can deliver anything; read-only after.
  std::string appName_;
  std::string queueName_;
};

}  // namespace ZelDorn

#endif  // DORN_CORE_COMMUNICATION_HANDLER_H_
