// Wire compatibility of the generated C++ code with an independent encoder:
// tests/schemas/wire_peer.py writes each sample with a hand encoder that knows
// only field numbers and wire types, checks that the pure-Python protobuf
// runtime reads it with no unknown field and writes it back unchanged, and
// prints it. Here the same messages, built by field name through the C++
// code, must serialise to exactly those bytes and parse back from them; so a
// wrong number or type in a schema shows although both sides compile the same
// files.
//
// The samples below must stay the same messages as SAMPLES in wire_peer.py.

#include <sys/wait.h>

#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "orvane/zel/core_types.pb.h"
#include "orvane/zel/dorn/dorn_fabric_message.pb.h"
#include "orvane/zel/messaging/applproxyinfo.pb.h"
#include "orvane/zel/messaging/generic_unified_messaging.pb.h"
#include "orvane/zel/messaging/messaging.pb.h"
#include "orvane/zel/metrics/zel_metrics.pb.h"
#include "orvane/zel/rpc/zel_rpc.pb.h"

namespace {

namespace pb = google::protobuf;
namespace dorn = orvane::zel::dorn;
namespace messaging = orvane::zel::messaging;

// --- The peer ---------------------------------------------------------------------

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

struct PeerSamples {
  std::map<std::string, std::string> hex;  // sample name -> hand-encoded bytes
  std::string error;                        // set when the peer failed
};

// Runs `wire_peer.py encode` once per test program with the system
// interpreter; `-I` keeps user site packages and PYTHON* variables out of it.
const PeerSamples& Peer() {
  static const PeerSamples samples = [] {
    PeerSamples s;
    const std::string command = "'" ZEL_SYSTEM_PYTHON "' -I '" ZEL_WIRE_PEER "' --gen '" ZEL_PY_GEN_DIR
                                "' encode 2>&1";
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
      s.error = "popen failed for: " + command;
      return s;
    }
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    const int status = ::pclose(pipe);
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    if (code != 0) {
      s.error = "wire_peer.py failed (exit " + std::to_string(code) + "):\n" + output;
      if (code == 3) s.error += "\ninstall python3-protobuf for " ZEL_SYSTEM_PYTHON;
      return s;
    }
    std::istringstream lines(output);
    std::string name, hex;
    while (lines >> name >> hex) s.hex[name] = hex;
    return s;
  }();
  return samples;
}

// --- Samples, built by field name through the C++ code -----------------------------

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

// --- Tests ------------------------------------------------------------------------

TEST(WireCompatTest, CppAndHandEncoderAgreeOnEverySample) {
  const PeerSamples& peer = Peer();
  ASSERT_TRUE(peer.error.empty()) << peer.error;
  const auto samples = CppSamples();
  std::set<std::string> peerNames, cppNames;
  for (const auto& entry : peer.hex) peerNames.insert(entry.first);
  for (const auto& entry : samples) cppNames.insert(entry.first);
  ASSERT_EQ(peerNames, cppNames);

  for (const auto& [name, message] : samples) {
    SCOPED_TRACE(name);
    const std::string hex = peer.hex.at(name);
    EXPECT_EQ(ToHex(message->SerializeAsString()), hex) << message->DebugString();

    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
      bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    std::unique_ptr<pb::Message> parsed(message->New());
    ASSERT_TRUE(parsed->ParseFromString(bytes));
    std::string diff;
    pb::util::MessageDifferencer differencer;
    differencer.ReportDifferencesToString(&diff);
    EXPECT_TRUE(differencer.Compare(*message, *parsed)) << diff;
  }
  // fixed64 halves are little-endian, eight bytes each.
  EXPECT_EQ(peer.hex.at("uuid"), "09efcdab8967452301111032547698badcfe");
}

}  // namespace
