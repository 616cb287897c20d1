// The compiled schemas as peers see them.
//
// Wire compatibility with an independent encoder: wire_peer.py writes each
// sample with a hand encoder that knows only field numbers and wire types,
// checks that the pure-Python protobuf runtime reads it with no unknown field
// and writes it back unchanged, and prints it. Here the same messages, built
// by field name through the C++ code, must serialise to exactly those bytes;
// so a wrong number or type in a schema shows although both sides compile the
// same files. The samples below must stay the same messages as SAMPLES in
// wire_peer.py.
//
// Then what no wire sample shows: defaults of absent fields, enum numbers,
// unknown enum values, and where the custom field and method options sit.
#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include "orvane/zel/core_field_options.pb.h"
#include "orvane/zel/core_types.pb.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "orvane/zel/messaging/applproxyinfo.pb.h"
#include "orvane/zel/messaging/generic_unified_messaging.pb.h"
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

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

// Runs `wire_peer.py encode` with the system interpreter (`-I` keeps user
// site packages and PYTHON* variables out of it); returns its exit code.
int RunPeer(std::string* output) {
  FILE* pipe = ::popen("'" ZEL_SYSTEM_PYTHON "' -I '" ZEL_WIRE_PEER "' --gen '" ZEL_PY_GEN_DIR
                       "' encode 2>&1", "r");
  if (pipe == nullptr) return -1;
  char buffer[4096];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output->append(buffer, n);
  const int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Samples, built by field name through the C++ code.
template <typename T>
std::unique_ptr<pb::Message> FromText(const std::string& text) {
  auto message = std::make_unique<T>();
  EXPECT_TRUE(pb::TextFormat::ParseFromString(text, message.get())) << text;
  return message;
}

const char kHostUnified[] = R"pb(
  msg1 { message_type: MT_GET_RSA_KEY operation_id: "op-7" }
  msg2 { application_instance: "dorn" topic_list { topic: "t1" priority: 5 }
         queue_list: "q1" queue_list: "q2" }
  objectType: "x"
  ctrlHeaders { sessionId: "s" sequenceNumber: -1 }
  raw_payload { msg: "\x00\xff\x80raw\x00" })pb";

std::map<std::string, std::unique_ptr<pb::Message>> CppSamples() {
  std::map<std::string, std::unique_ptr<pb::Message>> s;
  s["uuid"] = FromText<orvane::zel::UuidMsg>("left: 0x0123456789ABCDEF right: 0xFEDCBA9876543210");
  s["dorn_message"] = FromText<dorn::DornMessage>(R"pb(
    message_type: MT_RUN_COMMAND operation_id: "op-42"
    dorn_fabric_object { fabric_object_identifier: "obj-1" runCommand { command: "uname -a" } }
    dorn_fabric_object {
      fabric_object_identifier: "obj-2"
      fileCopy { file: "/tmp/zel/h\303\251llo.sh" data: "#!/bin/sh\necho \303\251\n"
                 make_executable: true } }
    dorn_fabric_object {
      fabric_object_identifier: "obj-3"
      software { name: "zel-pkg" version: "1.2.3" state: INVALID_VERSION } }
    dorn_fabric_object { fabric_object_identifier: "obj-4" rebootHost {} }
    dorn_fabric_object {
      fabric_object_identifier: "obj-5"
      createOrDeleteUser { username: "alice" password: "s3cret" } getCertificate {}
      stopServices { name: "ntpd" } restartServices { name: "sshd" }
      findMissingPackagesFromList { name: "openssl" } getRsaKey {} }
    operation_status { status: COMMAND_SUCCESS fabric_object_identifier: "obj-1" message: "Linux" }
    operation_status { status: GET_CERTIFICATE_FAILED fabric_object_identifier: "obj-2" }
    return_same_correlationid: true)pb");
  s["dorn_mp_unified"] = FromText<dorn::DornMpUnifiedMsg>(R"pb(
    msg1 { message_type: MT_SOFTWARE_STATUS operation_id: "op-1" }
    msg2 { application_instance: "dorn-1" }
    objectType: "com.orvane.zel.dorn.DornFabricMessage.DornMessage"
    ctrlHeaders { sessionId: "sess" sequenceNumber: 7 })pb");
  s["host_unified"] = FromText<dorn::DornHostUnifiedMsg>(kHostUnified);
  auto generic = FromText<messaging::GenericUnifiedMsg>(
      R"pb(ctrlHeaders { sessionId: "session-9" sequenceNumber: -5 })pb");
  static_cast<messaging::GenericUnifiedMsg&>(*generic).set_msg(
      s["host_unified"]->SerializeAsString());
  s["generic_unified"] = std::move(generic);
  s["appl_proxy_info"] = FromText<messaging::ApplProxyInfoRspMsg>(R"pb(
    host_uuid { left: 0x0123456789ABCDEF right: 0xFEDCBA9876543210 }
    applproxy_info { id { left: 0x1111111111111111 right: 0x2222222222222222 } master: true }
    applproxy_info { id { left: 0x8000000000000001 right: 0xFF } master: false }
    effective_product_version { major: 4 minor: 1 maintenance: 2 patch: 0 suffix: "rc1"
                                build_number: 123456 })pb");
  s["discovery_response"] = FromText<messaging::DiscoveryResponseMsg>(R"pb(
    configuration {
      brokers {
        host { ip_addresses { ipv4: 0x7F000001 }
               ip_addresses { ipv6: " !\"#$%&'()*+,-./" } fqdn: "mp.local" }
        port: 5671 virtual_host: "/" thumbprint: "ab:cd" }
      heartbeat_interval: 30000 product_version { major: 4 } manager_accounts: "admin"
      applproxy_info {
        uuid { left: 0x1111111111111111 right: 0x2222222222222222 }
        addr { fqdn: "aph" } port: 1234 certificate: "PEM"
        entity { entity_type: ENTITY_CCP
                 uuid { left: 0x8000000000000001 right: 0xFF } master: true } }
      configuration_hash: "h1" }
    client_id: "c" management_queues: "mq"
    management_vertical_queue_map { vertical: "v" queues: "q" }
    master_broker { port: 1 }
    error_message { code: VERSION_MISMATCH module: "mod" detail: "det" })pb");
  s["rpc_stream_control"] = FromText<orvane::zel::rpc::StreamControlMsg>(R"pb(
    service: "orvane.zel.metrics.MetricsCollector"
    open_stream: true ack_stream: false close_stream: true DEPRECATED_close_reason: "bye"
    priority: 96 destination: "ep-2" source: "ep-1" settings { version: 1 }
    close_status { code: UNAVAILABLE error_msg: "gone" })pb");
  s["rpc_frame"] = FromText<orvane::zel::rpc::FrameMsg>(R"pb(
    header { header { key: "k1" value: "v1" } header { key: "trace" value: "" } client_id: "cli" }
    settings { version: 1 endpoint_id: "ep-a" endpoint_id: "ep-b"
               default_flow_control_window_size: 65535 service: "svc1" }
    rpc_msg { call_id: 1099511627777 method: "orvane.zel.metrics.MetricsCollector.Report"
              cancel_call: false has_payload: true
              status { code: APPLICATION_ERROR error_msg: "boom" } }
    keep_alive_request { request_id: 7 timestamp: 1700000000123 }
    keep_alive_response { request_id: 8 timestamp: 1700000000456 })pb");
  // Aggregates: counts are number * 1000 + 7, the rest number + 0.25.
  s["metrics_report"] = FromText<orvane::zel::metrics::MetricsReportMsg>(R"pb(
    root { name: "/" subkey { name: "zel"
      subkey { name: "rpc" value {
        type: 3 timestamp: 1700000000000 units: "ms" value: "12" tag { key: "ep" value: "unix" }
        value_last: 10.25 value_num: 11007 value_min: 12.25 value_max: 13.25 value_avg: 14.25
        value_sum: 15.25 value_rate: 16.25 value_freq: 17.25 value_p50: 20.25
        sample_last: 30.25 sample_num: 31007 sample_min: 32.25 sample_max: 33.25
        sample_avg: 34.25 sample_sum: 35.25 sample_rate: 36.25 sample_freq: 37.25
        sample_twa: 38.25 sample_p50: 40.25 sample_p75: 41.25 sample_p90: 42.25
        sample_p95: 43.25 sample_p99: 44.25 } }
      subkey { name: "idle" } } }
    tag { key: "source" value: "host-a" } tag { key: "app" value: "zeldorn" })pb");
  return s;
}

TEST(WireCompatTest, CppAndHandEncoderAgreeOnEverySample) {
  std::string output;
  const int code = RunPeer(&output);
  ASSERT_EQ(code, 0) << "wire_peer.py failed:\n" << output
                     << (code == 3 ? "\ninstall python3-protobuf for " ZEL_SYSTEM_PYTHON : "");
  std::map<std::string, std::string> peer;  // sample name -> hand-encoded bytes in hex
  std::istringstream lines(output);
  for (std::string name, hex; lines >> name >> hex;) peer[name] = hex;
  // fixed64 halves are little-endian, eight bytes each.
  EXPECT_EQ(peer["uuid"], "09efcdab8967452301111032547698badcfe");

  const auto samples = CppSamples();
  ASSERT_EQ(peer.size(), samples.size()) << output;
  for (const auto& [name, message] : samples) {
    SCOPED_TRACE(name);  // a sample the peer lacks compares with ""
    EXPECT_EQ(ToHex(message->SerializeAsString()), peer[name]) << message->DebugString();
  }
}

// An absent enum field reads as the value declared first, which need not be
// number 0: an absent status code is UNKNOWN, not SUCCESS.
TEST(SchemaDefaults, AbsentFieldsAndUnknownEnumValues) {
  rpc::RpcStatusMsg status;
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);
  EXPECT_EQ(messaging::ErrorMsg().code(), messaging::ErrorMsg::INCORRECT_PROTOBUF_TYPE);
  EXPECT_EQ(zel::RpcStatusMsg().error_code(), zel::RpcStatusMsg::SUCCESS);

  // An unknown enum value stays unset, and is kept aside as unknown so a relay
  // loses nothing; it is written after the known fields.
  dorn::DornMessage msg;
  ASSERT_TRUE(msg.ParseFromString(std::string("\x08\x63\x12\x02op", 6)));  // type 99, id "op"
  EXPECT_FALSE(msg.has_message_type());
  EXPECT_EQ(msg.SerializeAsString(), std::string("\x12\x02op\x08\x63", 6));
  // A status code from a newer peer is not one of ours: unset, hence UNKNOWN.
  ASSERT_TRUE(status.ParseFromString(std::string("\x08\x10", 2)));
  EXPECT_EQ(status.code(), rpc::RpcStatusMsg::UNKNOWN);
}

// The numbers travel; the names are what the code uses.
TEST(SchemaEnums, NumbersFollowTheNamesInOrder) {
  const std::pair<const pb::EnumDescriptor*, std::string> cases[] = {
      {dorn::MessageType_descriptor(),
       "MT_INIT MT_SOFTWARE_STATUS MT_FILE_COPY MT_RUN_COMMAND MT_OPERATION_STATUS MT_CREATE_USER "
       "MT_REBOOT_HOST MT_GET_CERTIFICATE MT_STOP_SERVICES MT_RESTART_SERVICES "
       "MT_FIND_MISSING_PACKAGES_FROM_LIST MT_GET_RSA_KEY"},
      {dorn::Status_descriptor(),
       "UNSET FILE_COPY_SUCCESS FILE_COPY_FAILED COMMAND_SUCCESS COMMAND_FAILED "
       "USER_CREATE_DELETE_SUCCESS USER_CREATE_DELETE_FAILED GET_CERTIFICATE_SUCCESS "
       "GET_CERTIFICATE_FAILED"},
      {dorn::SoftwareState_descriptor(), "INSTALLED ABSENT INVALID_VERSION"},
      {rpc::RpcStatusMsg::StatusCode_descriptor(),
       "SUCCESS UNKNOWN INVALID_ARGUMENT NOT_FOUND ALREADY_EXISTS PERMISSION_DENIED UNAUTHENTICATED "
       "RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE UNIMPLEMENTED INTERNAL "
       "UNAVAILABLE DATA_LOSS APPLICATION_ERROR"},
      {rpc::RpcVersion_descriptor(), "INVALID_VERSION RPC_V1 RPC_V2"},
  };
  for (const auto& [type, names] : cases) {
    std::string byNumber;  // the names of 0, 1, 2 ...; "?" for a gap
    for (int i = 0; i < type->value_count(); ++i) {
      const pb::EnumValueDescriptor* value = type->FindValueByNumber(i);
      byNumber += (i == 0 ? "" : " ") + (value == nullptr ? "?" : value->name());
    }
    EXPECT_EQ(byNumber, names) << type->full_name();
  }
}

void CollectFields(const pb::Descriptor* message, std::vector<const pb::FieldDescriptor*>* out) {
  for (int i = 0; i < message->field_count(); ++i) out->push_back(message->field(i));
  for (int i = 0; i < message->nested_type_count(); ++i) CollectFields(message->nested_type(i), out);
}

// Every schema file, walked from its descriptors: display options only on
// fields of the matching type and nothing redacted; streaming only where a
// call is a stream; no generic services.
TEST(SchemaOptions, OptionsSitWhereTheyBelong) {
  std::vector<const pb::FileDescriptor*> pending = {
      dorn::DornMessage::descriptor()->file(), messaging::DiscoveryResponseMsg::descriptor()->file(),
      messaging::ApplProxyInfoRspMsg::descriptor()->file(),
      zel::metrics::MetricsReportMsg::descriptor()->file(), rpc::FrameMsg::descriptor()->file()};
  std::set<std::string> seen, streams;
  int marked = 0;
  while (!pending.empty()) {
    const pb::FileDescriptor* file = pending.back();
    pending.pop_back();
    if (file->package().rfind("orvane.zel", 0) != 0 || !seen.insert(file->name()).second) continue;
    for (int i = 0; i < file->dependency_count(); ++i) pending.push_back(file->dependency(i));
    EXPECT_EQ(file->syntax(), pb::FileDescriptor::SYNTAX_PROTO2) << file->name();
    EXPECT_FALSE(file->options().cc_generic_services()) << file->name();
    for (int i = 0; i < file->service_count(); ++i) {
      for (int j = 0; j < file->service(i)->method_count(); ++j) {
        const pb::MethodDescriptor* method = file->service(i)->method(j);
        const pb::MethodOptions& options = method->options();
        EXPECT_FALSE(options.GetExtension(rpc::requires_local_context)) << method->full_name();
        if (options.GetExtension(rpc::client_streaming)) streams.insert(method->full_name() + " <");
        if (options.GetExtension(rpc::server_streaming)) streams.insert(method->full_name() + " >");
      }
    }
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
  // "<" a stream from the client, ">" one from the server.
  EXPECT_EQ(streams, (std::set<std::string>{"orvane.zel.metrics.MetricsCollector.Report <",
                                            "orvane.zel.messaging.ApplProxyInfoService.Subscribe >"}));
  // The type id that travels as "objectType" is the Java name of the message.
  const pb::FileOptions& java = dorn::DornMessage::descriptor()->file()->options();
  EXPECT_EQ(java.java_package() + "." + java.java_outer_classname() + "." +
                dorn::DornMessage::descriptor()->name(),
            "com.orvane.zel.dorn.DornFabricMessage.DornMessage");
}

}  // namespace
