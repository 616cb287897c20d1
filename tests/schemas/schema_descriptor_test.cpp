// Properties of the compiled schemas that peers rely on but that no wire
// sample shows: defaults of absent fields, enum numbers, unknown enum values,
// and the custom field and method options as seen through descriptors.

#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "orvane/zel/core_field_options.pb.h"
#include "orvane/zel/core_types.pb.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "orvane/zel/messaging/applproxyinfo.pb.h"
#include "orvane/zel/messaging/messaging.pb.h"
#include "orvane/zel/metrics/zel_metrics.pb.h"
#include "orvane/zel/rpc/service_options.pb.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace {

namespace pb = google::protobuf;
namespace zel = orvane::zel;
namespace dorn = orvane::zel::dorn;
namespace messaging = orvane::zel::messaging;
namespace rpc = orvane::zel::rpc;

TEST(SchemaDefaults, AbsentFieldsAndUnknownEnumValues) {
  dorn::DornMessage msg;
  ASSERT_TRUE(msg.ParseFromString(""));
  EXPECT_FALSE(msg.has_return_same_correlationid());
  EXPECT_FALSE(msg.return_same_correlationid());
  EXPECT_EQ(msg.message_type(), dorn::MT_INIT);
  dorn::DornFabricObject object;
  ASSERT_TRUE(object.ParseFromString(std::string("\x0a\x01x", 3)));  // identifier only
  EXPECT_FALSE(object.has_filecopy());
  EXPECT_FALSE(object.filecopy().make_executable());
  EXPECT_EQ(object.software().state(), dorn::INSTALLED);
  rpc::RpcStatusMsg status;
  ASSERT_TRUE(status.ParseFromString(""));
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);  // declared first, hence the default
  status.set_code(rpc::RpcStatusMsg::SUCCESS);
  EXPECT_EQ(status.SerializeAsString(), std::string("\x08\x00", 2));  // success is explicit
  EXPECT_EQ(messaging::ErrorMsg().code(), messaging::ErrorMsg::INCORRECT_PROTOBUF_TYPE);
  EXPECT_EQ(zel::RpcStatusMsg().error_code(), zel::RpcStatusMsg::SUCCESS);

  // An unknown enum value stays unset, and is kept aside as unknown so a relay
  // loses nothing; it is written after the known fields.
  ASSERT_TRUE(msg.ParseFromString(std::string("\x08\x63\x12\x02op", 6)));  // type 99, id "op"
  EXPECT_FALSE(msg.has_message_type());
  EXPECT_EQ(msg.message_type(), dorn::MT_INIT);
  EXPECT_EQ(msg.operation_id(), "op");
  EXPECT_EQ(msg.SerializeAsString(), std::string("\x12\x02op\x08\x63", 6));
  // A status code from a newer peer is not one of ours: unset, hence UNKNOWN.
  ASSERT_TRUE(status.ParseFromString(std::string("\x08\x10", 2)));
  EXPECT_FALSE(status.has_code());
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);
}

// The numbers travel; the names are what the code uses.
TEST(SchemaEnums, NumbersFollowTheNamesInOrder) {
  struct Case {
    const pb::EnumDescriptor* type;
    std::vector<std::string> byNumber;  // the name of 0, 1, 2 ...
  } cases[] = {
      {dorn::MessageType_descriptor(),
       {"MT_INIT", "MT_SOFTWARE_STATUS", "MT_FILE_COPY", "MT_RUN_COMMAND", "MT_OPERATION_STATUS",
        "MT_CREATE_USER", "MT_REBOOT_HOST", "MT_GET_CERTIFICATE", "MT_STOP_SERVICES",
        "MT_RESTART_SERVICES", "MT_FIND_MISSING_PACKAGES_FROM_LIST", "MT_GET_RSA_KEY"}},
      {dorn::Status_descriptor(),
       {"UNSET", "FILE_COPY_SUCCESS", "FILE_COPY_FAILED", "COMMAND_SUCCESS", "COMMAND_FAILED",
        "USER_CREATE_DELETE_SUCCESS", "USER_CREATE_DELETE_FAILED", "GET_CERTIFICATE_SUCCESS",
        "GET_CERTIFICATE_FAILED"}},
      {dorn::SoftwareState_descriptor(), {"INSTALLED", "ABSENT", "INVALID_VERSION"}},
      {rpc::RpcStatusMsg::StatusCode_descriptor(),
       {"SUCCESS", "UNKNOWN", "INVALID_ARGUMENT", "NOT_FOUND", "ALREADY_EXISTS",
        "PERMISSION_DENIED", "UNAUTHENTICATED", "RESOURCE_EXHAUSTED", "FAILED_PRECONDITION",
        "ABORTED", "OUT_OF_RANGE", "UNIMPLEMENTED", "INTERNAL", "UNAVAILABLE", "DATA_LOSS",
        "APPLICATION_ERROR"}},
      {rpc::RpcVersion_descriptor(), {"INVALID_VERSION", "RPC_V1", "RPC_V2"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type->full_name());
    EXPECT_EQ(c.type->value_count(), static_cast<int>(c.byNumber.size()));
    for (size_t i = 0; i < c.byNumber.size(); ++i) {
      const pb::EnumValueDescriptor* value = c.type->FindValueByNumber(static_cast<int>(i));
      ASSERT_NE(value, nullptr) << i;
      EXPECT_EQ(value->name(), c.byNumber[i]);
    }
  }
}

void CollectFields(const pb::Descriptor* message, std::vector<const pb::FieldDescriptor*>* out) {
  for (int i = 0; i < message->field_count(); ++i) out->push_back(message->field(i));
  for (int i = 0; i < message->nested_type_count(); ++i) CollectFields(message->nested_type(i), out);
}

TEST(SchemaOptions, DisplayOptionsSitOnMatchingTypesAndNothingIsRedacted) {
  std::vector<const pb::FileDescriptor*> pending = {
      dorn::DornMessage::descriptor()->file(), messaging::DiscoveryResponseMsg::descriptor()->file(),
      messaging::ApplProxyInfoRspMsg::descriptor()->file(),
      zel::metrics::MetricsReportMsg::descriptor()->file(), rpc::FrameMsg::descriptor()->file()};
  std::set<std::string> seen;
  int marked = 0;
  while (!pending.empty()) {
    const pb::FileDescriptor* file = pending.back();
    pending.pop_back();
    if (file->package().rfind("orvane.zel", 0) != 0 || !seen.insert(file->name()).second) continue;
    for (int i = 0; i < file->dependency_count(); ++i) pending.push_back(file->dependency(i));
    EXPECT_EQ(file->syntax(), pb::FileDescriptor::SYNTAX_PROTO2) << file->name();
    std::vector<const pb::FieldDescriptor*> fields;
    for (int i = 0; i < file->message_type_count(); ++i) CollectFields(file->message_type(i), &fields);
    for (const pb::FieldDescriptor* field : fields) {
      const pb::FieldOptions& options = field->options();
      EXPECT_FALSE(options.HasExtension(zel::redact)) << field->full_name();
      const std::pair<bool, pb::FieldDescriptor::Type> marks[] = {
          {options.HasExtension(zel::uint32_as), pb::FieldDescriptor::TYPE_UINT32},
          {options.HasExtension(zel::uint64_as), pb::FieldDescriptor::TYPE_UINT64},
          {options.HasExtension(zel::bytes_as), pb::FieldDescriptor::TYPE_BYTES}};
      for (const auto& [has, type] : marks) {
        if (!has) continue;
        EXPECT_EQ(field->type(), type) << field->full_name();
        ++marked;
      }
    }
  }
  EXPECT_EQ(seen.size(), 11u);
  EXPECT_EQ(marked, 11);  // ipv4 and ipv6 in five address messages, plus the MAC address

  auto options = [](const pb::Descriptor* message, const char* field) -> const pb::FieldOptions& {
    return message->FindFieldByName(field)->options();
  };
  EXPECT_EQ(options(zel::IpAddressMsg::descriptor(), "ipv4").GetExtension(zel::uint32_as),
            zel::UINT32_IPV4);
  EXPECT_EQ(options(zel::VipSubnetAddressMsg::descriptor(), "active_ipv6").GetExtension(zel::bytes_as),
            zel::BYTES_IPV6);
  EXPECT_EQ(options(zel::MacAddressMsg::descriptor(), "mac").GetExtension(zel::uint64_as),
            zel::UINT64_MAC_ADDRESS);
  // An unmarked field reads each option's declared default.
  const pb::FieldOptions& plain = options(zel::IpPrefixMsg::descriptor(), "prefix_length");
  EXPECT_EQ(plain.GetExtension(zel::uint32_as), zel::UINT32_DEFAULT);
  EXPECT_EQ(plain.GetExtension(zel::uint64_as), zel::UINT64_DEFAULT);
  EXPECT_EQ(plain.GetExtension(zel::bytes_as), zel::BYTES_DEFAULT);
  EXPECT_EQ(plain.GetExtension(zel::redact), zel::REDACT_NONE);
}

TEST(SchemaOptions, StreamingOptionsDecideCallKinds) {
  // Link the files in before looking them up by name.
  (void)zel::metrics::MetricsReportMsg::descriptor();
  (void)messaging::ApplProxyInfoRspMsg::descriptor();
  (void)dorn::DornMessage::descriptor();
  (void)messaging::DiscoveryResponseMsg::descriptor();
  const pb::DescriptorPool* pool = pb::DescriptorPool::generated_pool();
  const struct {
    const char* service;
    const char* method;
    bool clientStreaming, serverStreaming;
    const pb::Descriptor* input;
    const pb::Descriptor* output;
  } methods[] = {
      {"orvane.zel.metrics.MetricsCollector", "Report", true, false, nullptr,
       zel::VoidMsg::descriptor()},
      {"orvane.zel.messaging.ApplProxyInfoService", "Subscribe", false, true, nullptr, nullptr},
      {"orvane.zel.dorn.DornHostService", "MsgHandler", false, false,
       messaging::GenericUnifiedMsg::descriptor(), zel::VoidMsg::descriptor()},
  };
  for (const auto& m : methods) {
    SCOPED_TRACE(m.method);
    const pb::ServiceDescriptor* s = pool->FindServiceByName(m.service);
    const pb::MethodDescriptor* method = s == nullptr ? nullptr : s->FindMethodByName(m.method);
    ASSERT_NE(method, nullptr);
    EXPECT_EQ(method->options().GetExtension(rpc::client_streaming), m.clientStreaming);
    EXPECT_EQ(method->options().GetExtension(rpc::server_streaming), m.serverStreaming);
    if (m.input != nullptr) EXPECT_EQ(method->input_type(), m.input);
    if (m.output != nullptr) EXPECT_EQ(method->output_type(), m.output);
  }
  // Every method of the other services is a simple call.
  for (const char* service :
       {"orvane.zel.dorn.DornHostService", "orvane.zel.dorn.DornMpService",
        "orvane.zel.messaging.MpService", "orvane.zel.messaging.HostService",
        "orvane.zel.messaging.MessagingClientService", "orvane.zel.messaging.DiscoveryService"}) {
    const pb::ServiceDescriptor* s = pool->FindServiceByName(service);
    ASSERT_NE(s, nullptr) << service;
    EXPECT_FALSE(s->file()->options().cc_generic_services()) << service;
    for (int i = 0; i < s->method_count(); ++i) {
      const pb::MethodOptions& options = s->method(i)->options();
      EXPECT_FALSE(options.GetExtension(rpc::client_streaming)) << s->method(i)->full_name();
      EXPECT_FALSE(options.GetExtension(rpc::server_streaming)) << s->method(i)->full_name();
      EXPECT_FALSE(options.GetExtension(rpc::requires_local_context)) << s->method(i)->full_name();
    }
  }
  // The type id that travels as "objectType" is the Java name of the message.
  const pb::FileOptions& java = dorn::DornMessage::descriptor()->file()->options();
  EXPECT_EQ(java.java_package() + "." + java.java_outer_classname() + "." +
                dorn::DornMessage::descriptor()->name(),
            "com.orvane.zel.dorn.DornFabricMessage.DornMessage");
}

}  // namespace
