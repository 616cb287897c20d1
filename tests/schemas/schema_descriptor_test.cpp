// Properties of the compiled schemas that peers rely on but that no wire
// sample shows: defaults of absent fields, enum numbers, unknown enum values,
// and the custom field and method options as seen through descriptors.

#include <iterator>
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
namespace dorn = orvane::zel::dorn;
namespace messaging = orvane::zel::messaging;
namespace rpc = orvane::zel::rpc;

// --- Defaults and unknown values --------------------------------------------

TEST(DornMessageDefaults, AbsentFieldsReadAsDefaults) {
  dorn::DornMessage msg;
  ASSERT_TRUE(msg.ParseFromString(""));
  EXPECT_FALSE(msg.has_return_same_correlationid());
  EXPECT_FALSE(msg.return_same_correlationid());
  EXPECT_FALSE(msg.has_message_type());
  EXPECT_EQ(msg.message_type(), dorn::MT_INIT);

  dorn::DornFabricObject object;
  ASSERT_TRUE(object.ParseFromString(std::string("\x0a\x01x", 3)));  // identifier only
  EXPECT_FALSE(object.has_filecopy());
  EXPECT_EQ(object.filecopy().file(), "");
  EXPECT_EQ(object.filecopy().data(), "");
  EXPECT_FALSE(object.filecopy().make_executable());
  EXPECT_EQ(object.runcommand().command(), "");
  EXPECT_EQ(object.software().state(), dorn::INSTALLED);
}

TEST(DornMessageDefaults, UnknownMessageTypeStaysUnsetAndSurvivesReserialisation) {
  const std::string wire("\x08\x63\x12\x02op", 6);  // message_type 99, operation_id "op"
  dorn::DornMessage msg;
  ASSERT_TRUE(msg.ParseFromString(wire));
  EXPECT_FALSE(msg.has_message_type());
  EXPECT_EQ(msg.message_type(), dorn::MT_INIT);
  EXPECT_EQ(msg.operation_id(), "op");
  // proto2 keeps the unknown value aside, so a relay does not lose it; it is
  // written after the known fields.
  EXPECT_EQ(msg.SerializeAsString(), std::string("\x12\x02op\x08\x63", 6));

  ASSERT_TRUE(msg.ParseFromString(std::string("\x08\x0b", 2)));
  EXPECT_EQ(msg.message_type(), dorn::MT_GET_RSA_KEY);
}

TEST(RpcStatusDefaults, AbsentCodeReadsUnknownAndSuccessIsExplicit) {
  rpc::RpcStatusMsg status;
  ASSERT_TRUE(status.ParseFromString(""));
  EXPECT_FALSE(status.has_code());
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);

  status.set_code(rpc::RpcStatusMsg::SUCCESS);
  EXPECT_EQ(status.SerializeAsString(), std::string("\x08\x00", 2));

  // A code from a newer peer is not one of ours: it stays unset, hence UNKNOWN.
  ASSERT_TRUE(status.ParseFromString(std::string("\x08\x10", 2)));
  EXPECT_FALSE(status.has_code());
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);

  messaging::ErrorMsg error;
  EXPECT_EQ(error.code(), messaging::ErrorMsg::INCORRECT_PROTOBUF_TYPE);
  orvane::zel::RpcStatusMsg app_status;
  EXPECT_EQ(app_status.error_code(), orvane::zel::RpcStatusMsg::SUCCESS);
}

// --- Enum numbers that travel -------------------------------------------------

TEST(EnumNumbers, OperationSelectorsAndStatusesAreContiguousInOrder) {
  const dorn::MessageType types[] = {
      dorn::MT_INIT,          dorn::MT_SOFTWARE_STATUS,  dorn::MT_FILE_COPY,
      dorn::MT_RUN_COMMAND,   dorn::MT_OPERATION_STATUS, dorn::MT_CREATE_USER,
      dorn::MT_REBOOT_HOST,   dorn::MT_GET_CERTIFICATE,  dorn::MT_STOP_SERVICES,
      dorn::MT_RESTART_SERVICES, dorn::MT_FIND_MISSING_PACKAGES_FROM_LIST,
      dorn::MT_GET_RSA_KEY};
  for (size_t i = 0; i < std::size(types); ++i) EXPECT_EQ(types[i], static_cast<int>(i));
  EXPECT_EQ(dorn::MessageType_descriptor()->value_count(), 12);

  const dorn::Status statuses[] = {
      dorn::UNSET,
      dorn::FILE_COPY_SUCCESS,          dorn::FILE_COPY_FAILED,
      dorn::COMMAND_SUCCESS,            dorn::COMMAND_FAILED,
      dorn::USER_CREATE_DELETE_SUCCESS, dorn::USER_CREATE_DELETE_FAILED,
      dorn::GET_CERTIFICATE_SUCCESS,    dorn::GET_CERTIFICATE_FAILED};
  for (size_t i = 0; i < std::size(statuses); ++i) EXPECT_EQ(statuses[i], static_cast<int>(i));

  EXPECT_EQ(dorn::INSTALLED, 0);
  EXPECT_EQ(dorn::ABSENT, 1);
  EXPECT_EQ(dorn::INVALID_VERSION, 2);
}

TEST(EnumNumbers, RpcStatusCodesAndVersions) {
  using S = rpc::RpcStatusMsg;
  const S::StatusCode codes[] = {
      S::SUCCESS,           S::UNKNOWN,           S::INVALID_ARGUMENT,  S::NOT_FOUND,
      S::ALREADY_EXISTS,    S::PERMISSION_DENIED, S::UNAUTHENTICATED,   S::RESOURCE_EXHAUSTED,
      S::FAILED_PRECONDITION, S::ABORTED,         S::OUT_OF_RANGE,      S::UNIMPLEMENTED,
      S::INTERNAL,          S::UNAVAILABLE,       S::DATA_LOSS,         S::APPLICATION_ERROR};
  for (size_t i = 0; i < std::size(codes); ++i) EXPECT_EQ(codes[i], static_cast<int>(i));
  EXPECT_EQ(S::StatusCode_MIN, 0);
  EXPECT_EQ(S::StatusCode_MAX, 15);
  // Declared first, hence the default of an absent field.
  EXPECT_EQ(S::StatusCode_descriptor()->value(0)->number(), S::UNKNOWN);

  EXPECT_EQ(rpc::INVALID_VERSION, 0);
  EXPECT_EQ(rpc::RPC_V1, 1);
  EXPECT_EQ(rpc::RPC_V2, 2);
}

// --- Descriptors and options ------------------------------------------------------

// Every schema file of the library, reached from one generated type of each
// and its imports.
std::vector<const pb::FileDescriptor*> AllSchemaFiles() {
  std::vector<const pb::FileDescriptor*> pending = {
      dorn::DornMessage::descriptor()->file(),
      messaging::DiscoveryResponseMsg::descriptor()->file(),
      messaging::ApplProxyInfoRspMsg::descriptor()->file(),
      orvane::zel::metrics::MetricsReportMsg::descriptor()->file(),
      rpc::FrameMsg::descriptor()->file(),
  };
  std::vector<const pb::FileDescriptor*> files;
  std::set<std::string> seen;
  while (!pending.empty()) {
    const pb::FileDescriptor* file = pending.back();
    pending.pop_back();
    if (file->package().rfind("orvane.zel", 0) != 0 || !seen.insert(file->name()).second) continue;
    files.push_back(file);
    for (int i = 0; i < file->dependency_count(); ++i) pending.push_back(file->dependency(i));
  }
  return files;
}

void CollectFields(const pb::Descriptor* message, std::vector<const pb::FieldDescriptor*>* out) {
  for (int i = 0; i < message->field_count(); ++i) out->push_back(message->field(i));
  for (int i = 0; i < message->nested_type_count(); ++i) CollectFields(message->nested_type(i), out);
}

TEST(SchemaDescriptors, LibraryHoldsEveryFileAsProto2WithoutGenericServices) {
  std::set<std::string> names;
  for (const pb::FileDescriptor* file : AllSchemaFiles()) {
    names.insert(file->name());
    EXPECT_EQ(file->syntax(), pb::FileDescriptor::SYNTAX_PROTO2) << file->name();
    EXPECT_FALSE(file->options().cc_generic_services()) << file->name();
  }
  const std::set<std::string> expected = {
      "orvane/zel/core_field_options.proto",
      "orvane/zel/core_types.proto",
      "orvane/zel/dorn/dorn_fabric_message.proto",
      "orvane/zel/messaging/appinit/mpa.proto",
      "orvane/zel/messaging/applproxyinfo.proto",
      "orvane/zel/messaging/control_header_unified_messaging.proto",
      "orvane/zel/messaging/generic_unified_messaging.proto",
      "orvane/zel/messaging/messaging.proto",
      "orvane/zel/metrics/zel_metrics.proto",
      "orvane/zel/rpc/service_options.proto",
      "orvane/zel/rpc/zel_rpc.proto",
  };
  EXPECT_EQ(names, expected);
}

TEST(SchemaDescriptors, DisplayOptionsSitOnMatchingTypesAndNothingIsRedacted) {
  int marked = 0;
  for (const pb::FileDescriptor* file : AllSchemaFiles()) {
    std::vector<const pb::FieldDescriptor*> fields;
    for (int i = 0; i < file->message_type_count(); ++i) CollectFields(file->message_type(i), &fields);
    for (const pb::FieldDescriptor* field : fields) {
      const pb::FieldOptions& options = field->options();
      EXPECT_FALSE(options.HasExtension(orvane::zel::redact)) << field->full_name();
      if (options.HasExtension(orvane::zel::uint32_as)) {
        EXPECT_EQ(field->type(), pb::FieldDescriptor::TYPE_UINT32) << field->full_name();
        ++marked;
      }
      if (options.HasExtension(orvane::zel::uint64_as)) {
        EXPECT_EQ(field->type(), pb::FieldDescriptor::TYPE_UINT64) << field->full_name();
        ++marked;
      }
      if (options.HasExtension(orvane::zel::bytes_as)) {
        EXPECT_EQ(field->type(), pb::FieldDescriptor::TYPE_BYTES) << field->full_name();
        ++marked;
      }
    }
  }
  // ipv4 and ipv6 in five address messages, plus the MAC address.
  EXPECT_EQ(marked, 11);

  const pb::FieldOptions& ipv4 =
      orvane::zel::IpAddressMsg::descriptor()->FindFieldByName("ipv4")->options();
  EXPECT_EQ(ipv4.GetExtension(orvane::zel::uint32_as), orvane::zel::UINT32_IPV4);
  const pb::FieldOptions& v6 =
      orvane::zel::VipSubnetAddressMsg::descriptor()->FindFieldByName("active_ipv6")->options();
  EXPECT_EQ(v6.GetExtension(orvane::zel::bytes_as), orvane::zel::BYTES_IPV6);
  const pb::FieldOptions& mac =
      orvane::zel::MacAddressMsg::descriptor()->FindFieldByName("mac")->options();
  EXPECT_EQ(mac.GetExtension(orvane::zel::uint64_as), orvane::zel::UINT64_MAC_ADDRESS);

  // An unmarked field reads each option's declared default.
  const pb::FieldOptions& plain =
      orvane::zel::IpPrefixMsg::descriptor()->FindFieldByName("prefix_length")->options();
  EXPECT_EQ(plain.GetExtension(orvane::zel::uint32_as), orvane::zel::UINT32_DEFAULT);
  EXPECT_EQ(plain.GetExtension(orvane::zel::uint64_as), orvane::zel::UINT64_DEFAULT);
  EXPECT_EQ(plain.GetExtension(orvane::zel::bytes_as), orvane::zel::BYTES_DEFAULT);
  EXPECT_EQ(plain.GetExtension(orvane::zel::redact), orvane::zel::REDACT_NONE);
}

const pb::MethodDescriptor* Method(const char* service, const char* method) {
  const pb::ServiceDescriptor* s = pb::DescriptorPool::generated_pool()->FindServiceByName(service);
  if (s == nullptr) return nullptr;
  return s->FindMethodByName(method);
}

TEST(SchemaDescriptors, StreamingOptionsDecideCallKinds) {
  // Make sure the files are linked in before looking them up by name.
  (void)orvane::zel::metrics::MetricsReportMsg::descriptor();
  (void)messaging::ApplProxyInfoRspMsg::descriptor();
  (void)dorn::DornMessage::descriptor();
  (void)messaging::DiscoveryResponseMsg::descriptor();

  const pb::MethodDescriptor* report = Method("orvane.zel.metrics.MetricsCollector", "Report");
  ASSERT_NE(report, nullptr);
  EXPECT_TRUE(report->options().GetExtension(rpc::client_streaming));
  EXPECT_FALSE(report->options().GetExtension(rpc::server_streaming));
  EXPECT_EQ(report->output_type(), orvane::zel::VoidMsg::descriptor());

  const pb::MethodDescriptor* subscribe =
      Method("orvane.zel.messaging.ApplProxyInfoService", "Subscribe");
  ASSERT_NE(subscribe, nullptr);
  EXPECT_FALSE(subscribe->options().GetExtension(rpc::client_streaming));
  EXPECT_TRUE(subscribe->options().GetExtension(rpc::server_streaming));

  // All other methods are simple calls.
  for (const char* service :
       {"orvane.zel.dorn.DornHostService", "orvane.zel.dorn.DornMpService",
        "orvane.zel.messaging.MpService", "orvane.zel.messaging.HostService",
        "orvane.zel.messaging.MessagingClientService", "orvane.zel.messaging.DiscoveryService"}) {
    const pb::ServiceDescriptor* s = pb::DescriptorPool::generated_pool()->FindServiceByName(service);
    ASSERT_NE(s, nullptr) << service;
    for (int i = 0; i < s->method_count(); ++i) {
      const pb::MethodOptions& options = s->method(i)->options();
      EXPECT_FALSE(options.GetExtension(rpc::client_streaming)) << s->method(i)->full_name();
      EXPECT_FALSE(options.GetExtension(rpc::server_streaming)) << s->method(i)->full_name();
      EXPECT_FALSE(options.GetExtension(rpc::requires_local_context)) << s->method(i)->full_name();
    }
  }

  const pb::MethodDescriptor* handler = Method("orvane.zel.dorn.DornHostService", "MsgHandler");
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->input_type(), messaging::GenericUnifiedMsg::descriptor());
  EXPECT_EQ(handler->output_type(), orvane::zel::VoidMsg::descriptor());
}

TEST(SchemaDescriptors, DornMessageTypeIdFollowsJavaNames) {
  const pb::FileOptions& options = dorn::DornMessage::descriptor()->file()->options();
  EXPECT_EQ(options.java_package() + "." + options.java_outer_classname() + "." +
                dorn::DornMessage::descriptor()->name(),
            "com.orvane.zel.dorn.DornFabricMessage.DornMessage");
}

}  // namespace
