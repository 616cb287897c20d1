// What a call runs against: the method (full name, service, type), the
// untyped receiver inside a call (MessageConsumer), the contexts that carry a
// call's headers, and the registry of local services a server looks methods
// up in.
//
//   RpcMethod m{"orvane.zel.Echo.Say", "orvane.zel.Echo", RMT_SIMPLE};
//   m.ToString() == "RpcMethod[orvane.zel.Echo.Say, RMT_SIMPLE]"
//
// Threads: methods and contexts are values; consumers run on their channel's
// scheduler thread, one callback at a time; the registry may be used from any
// thread.
#ifndef ZEL_RPC_METHOD_H_
#define ZEL_RPC_METHOD_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "cpp/lib/common/mutex.h"
#include "cpp/lib/common/ref_counted.h"
#include "cpp/lib/rpc/rpc_frame.h"
#include "cpp/lib/rpc/rpc_status.h"

namespace orvane {
namespace zel {
namespace rpc {
class HeadersMsg;
}  // namespace rpc
}  // namespace zel
}  // namespace orvane

namespace zel {
namespace rpc {

enum RpcMethodType {
  RMT_SIMPLE = 0,
  RMT_CLIENT_STREAMING = 1,
  RMT_SERVER_STREAMING = 2,
  RMT_BIDI_STREAMING = 3,
};

// "RMT_SIMPLE", ..., or "<RpcMethodType::INVALID>".
const char* ToString(RpcMethodType type);

struct RpcMethod {
  std::string name;     // full name: "<service>.<method>"
  std::string service;
  RpcMethodType type = RMT_SIMPLE;

  // "RpcMethod[<name>, <type>]".
  std::string ToString() const;
};

// The headers of a call. Every received header lands in `headers`; a
// repeated key keeps its first value.
class BaseContext {
 public:
  virtual ~BaseContext() = default;
  std::unordered_map<std::string, std::string> headers;
  std::string client_id;
};

class ClientContext : public BaseContext {};

// Headers, plus who the peer is.
class ServerContext : public BaseContext {
 public:
  std::string method;
  uint32_t connection_id = 0;
  std::string priority;
  std::string local_endpoint;
  std::string remote_endpoint;
  std::vector<std::string> remote_endpoint_ids;
  std::vector<std::string> remote_services;
  std::string net_peer;

  // "id: 3, pr: normal, remote endpoint ids:[a,b], remote services:[s], net: ...".
  std::string ToString() const;
};

// Packs the client's headers into `out` (once per call, on its first message).
void PackContext(const ClientContext& context, ::orvane::zel::rpc::HeadersMsg* out);
// Unpacks received headers; false (logged, errorCode:RPC150) when a header
// lacks its key or value.
[[nodiscard]] bool UnpackContext(const ::orvane::zel::rpc::HeadersMsg& in, BaseContext* out);

// The untyped receiver inside a call. Each operation returns the outcome; a
// failure moves the call to its error states.
class MessageConsumer {
 public:
  virtual ~MessageConsumer() = default;
  // Server side, when the call is accepted.
  virtual RpcStatus Prepare(ServerContext* context) = 0;
  // One message of the peer; the view is valid during the call only.
  virtual RpcStatus Next(const RpcFrame::View& payload) = 0;
  // The peer's final status.
  virtual RpcStatus RemoteStatus(const RpcStatus& status) = 0;
  // The call's outcome; the last callback.
  virtual RpcStatus CallStatus(const RpcStatus& status) = 0;
};

class Call;
class ServiceBase;

// Makes the consumer of a new server call of one method; the consumer
// answers through `call`.
class MethodHandler {
 public:
  virtual ~MethodHandler() = default;
  virtual std::shared_ptr<MessageConsumer> MakeConsumer(const RpcMethod& method,
                                                        const RefPtr<Call>& call) = 0;
};

struct RpcServiceMethod {
  RpcMethod method;
  std::shared_ptr<MethodHandler> handler;
};

class ServiceRegistry {
 public:
  virtual ~ServiceRegistry() = default;
  // The method of this full name, or none.
  virtual std::shared_ptr<const RpcServiceMethod> GetMethod(const std::string& name) = 0;
  virtual bool HasService(const std::string& name) = 0;
  virtual std::vector<std::string> ServiceNames() = 0;
};

// The registry of local services: "RpcServiceRegistry[<id>]".
class RpcServiceRegistry : public ServiceRegistry {
 public:
  RpcServiceRegistry();

  // Adds a service and all its methods (replacing one of the same name).
  void RegisterService(const std::string& service, const std::vector<RpcServiceMethod>& methods);
  // A generated service: its methods hold it until they are unregistered
  // and their calls have ended.
  void RegisterService(const std::shared_ptr<ServiceBase>& service);
  void UnregisterService(const std::string& service);

  // ServiceRegistry
  std::shared_ptr<const RpcServiceMethod> GetMethod(const std::string& name) override;
  bool HasService(const std::string& name) override;
  std::vector<std::string> ServiceNames() override;

  const std::string& name() const { return name_; }

 private:
  const std::string name_;
  Mutex mutex_;
  std::map<std::string, std::vector<std::string>> services_ GUARDED_BY(mutex_);
  std::unordered_map<std::string, std::shared_ptr<const RpcServiceMethod>> methods_
      GUARDED_BY(mutex_);
};

}  // namespace rpc
}  // namespace zel

#endif  // ZEL_RPC_METHOD_H_
