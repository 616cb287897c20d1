// Wire compatibility of the generated C++ code with an independent encoder:
// the pure-Python protobuf runtime with its own protoc --python_out modules,
// driven through tests/schemas/wire_peer.py. The peer also checks its bytes
// against a hand encoder that knows only field numbers and wire types, so a
// wrong number or type in a schema shows here even though both sides compile
// the same files.
//
// The samples below are built independently of the peer's and must stay the
// same messages as the SAMPLES table of wire_peer.py.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
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
namespace metrics = orvane::zel::metrics;
namespace rpc = orvane::zel::rpc;
using orvane::zel::UuidMsg;

// --- The peer ---------------------------------------------------------------------

struct PeerResult {
  int exit_code = -1;
  std::string output;  // stdout and stderr together
};

std::string Quote(const std::string& text) { return "'" + text + "'"; }

// Runs wire_peer.py with the system interpreter; `-I` keeps user site packages
// and PYTHON* variables of the test environment out of it.
PeerResult RunPeer(const std::string& args) {
  const std::string command = Quote(ZEL_SYSTEM_PYTHON) + " -I " + Quote(ZEL_WIRE_PEER) +
                              " --gen " + Quote(ZEL_PY_GEN_DIR) + " " + args + " 2>&1";
  PeerResult result;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    result.output = "popen failed for: " + command;
    return result;
  }
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
  const int status = ::pclose(pipe);
  result.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (result.exit_code == 3) {
    result.output = "the system Python (" ZEL_SYSTEM_PYTHON
                    ") lacks google.protobuf; install python3-protobuf.\n" + result.output;
  }
  return result;
}

std::string ToHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back(kDigits[c >> 4]);
    out.push_back(kDigits[c & 0xf]);
  }
  return out;
}

bool FromHex(const std::string& hex, std::string* bytes) {
  if (hex.size() % 2 != 0) return false;
  bytes->clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    char* end = nullptr;
    const std::string pair = hex.substr(i, 2);
    const long value = std::strtol(pair.c_str(), &end, 16);
    if (end != pair.c_str() + 2) return false;
    bytes->push_back(static_cast<char>(value));
  }
  return true;
}

// The peer's "encode" output, run once per test program.
struct PeerSamples {
  PeerResult run;
  std::map<std::string, std::string> bytes;  // sample name -> serialised bytes
  std::string error;                          // set when the output is unusable
};

const PeerSamples& PythonSamples() {
  static const PeerSamples samples = [] {
    PeerSamples s;
    s.run = RunPeer("encode");
    if (s.run.exit_code != 0) {
      s.error = "wire_peer.py encode failed (exit " + std::to_string(s.run.exit_code) + "):\n" +
                s.run.output;
      return s;
    }
    std::istringstream lines(s.run.output);
    std::string name, hex;
    while (lines >> name >> hex) {
      if (!FromHex(hex, &s.bytes[name])) s.error = "bad hex for " + name;
    }
    return s;
  }();
  return samples;
}

// --- Samples, built with the C++ API -------------------------------------------------

constexpr uint64_t kUuidLeft = 0x0123456789ABCDEFull;
constexpr uint64_t kUuidRight = 0xFEDCBA9876543210ull;
constexpr std::pair<uint64_t, uint64_t> kAph1{0x1111111111111111ull, 0x2222222222222222ull};
constexpr std::pair<uint64_t, uint64_t> kAph2{0x8000000000000001ull, 0x00000000000000FFull};
const std::string kRaw("\x00\xff\x80raw\x00", 7);

std::string Ipv6Bytes() {
  std::string out;
  for (int b = 0x20; b < 0x30; ++b) out.push_back(static_cast<char>(b));
  return out;
}

void SetUuid(UuidMsg* uuid, std::pair<uint64_t, uint64_t> halves) {
  uuid->set_left(halves.first);
  uuid->set_right(halves.second);
}

std::unique_ptr<pb::Message> SampleUuid() {
  auto m = std::make_unique<UuidMsg>();
  SetUuid(m.get(), {kUuidLeft, kUuidRight});
  return m;
}

std::unique_ptr<pb::Message> SampleDornMessage() {
  auto m = std::make_unique<dorn::DornMessage>();
  m->set_message_type(dorn::MT_RUN_COMMAND);
  m->set_operation_id("op-42");
  dorn::DornFabricObject* o = m->add_dorn_fabric_object();
  o->set_fabric_object_identifier("obj-1");
  o->mutable_runcommand()->set_command("uname -a");
  o = m->add_dorn_fabric_object();
  o->set_fabric_object_identifier("obj-2");
  o->mutable_filecopy()->set_file("/tmp/zel/h\xc3\xa9llo.sh");
  o->mutable_filecopy()->set_data("#!/bin/sh\necho \xc3\xa9\n");
  o->mutable_filecopy()->set_make_executable(true);
  o = m->add_dorn_fabric_object();
  o->set_fabric_object_identifier("obj-3");
  o->mutable_software()->set_name("zel-pkg");
  o->mutable_software()->set_version("1.2.3");
  o->mutable_software()->set_state(dorn::INVALID_VERSION);
  o = m->add_dorn_fabric_object();
  o->set_fabric_object_identifier("obj-4");
  o->mutable_reboothost();
  o = m->add_dorn_fabric_object();
  o->set_fabric_object_identifier("obj-5");
  o->mutable_createordeleteuser()->set_username("alice");
  o->mutable_createordeleteuser()->set_password("s3cret");
  o->mutable_getcertificate();
  o->mutable_stopservices()->set_name("ntpd");
  o->mutable_restartservices()->set_name("sshd");
  o->mutable_findmissingpackagesfromlist()->set_name("openssl");
  o->mutable_getrsakey();
  dorn::OperationStatus* s = m->add_operation_status();
  s->set_status(dorn::COMMAND_SUCCESS);
  s->set_fabric_object_identifier("obj-1");
  s->set_message("Linux");
  s = m->add_operation_status();
  s->set_status(dorn::GET_CERTIFICATE_FAILED);
  s->set_fabric_object_identifier("obj-2");
  m->set_return_same_correlationid(true);
  return m;
}

std::unique_ptr<pb::Message> SampleDornMpUnified() {
  auto m = std::make_unique<dorn::DornMpUnifiedMsg>();
  m->mutable_msg1()->set_message_type(dorn::MT_SOFTWARE_STATUS);
  m->mutable_msg1()->set_operation_id("op-1");
  m->mutable_msg2()->set_application_instance("dorn-1");
  m->set_objecttype("com.orvane.zel.dorn.DornFabricMessage.DornMessage");
  m->mutable_ctrlheaders()->set_sessionid("sess");
  m->mutable_ctrlheaders()->set_sequencenumber(7);
  return m;
}

dorn::DornHostUnifiedMsg HostUnified() {
  dorn::DornHostUnifiedMsg m;
  m.mutable_msg1()->set_message_type(dorn::MT_GET_RSA_KEY);
  m.mutable_msg1()->set_operation_id("op-7");
  m.mutable_msg2()->set_application_instance("dorn");
  messaging::appinit::AppInitConfigMsg::TopicInfo* topic = m.mutable_msg2()->add_topic_list();
  topic->set_topic("t1");
  topic->set_priority(5);
  m.mutable_msg2()->add_queue_list("q1");
  m.mutable_msg2()->add_queue_list("q2");
  m.set_objecttype("x");
  m.mutable_ctrlheaders()->set_sessionid("s");
  m.mutable_ctrlheaders()->set_sequencenumber(-1);
  m.mutable_raw_payload()->set_msg(kRaw);
  return m;
}

std::unique_ptr<pb::Message> SampleGenericUnified() {
  auto m = std::make_unique<messaging::GenericUnifiedMsg>();
  m->set_msg(HostUnified().SerializeAsString());
  m->mutable_ctrlheaders()->set_sessionid("session-9");
  m->mutable_ctrlheaders()->set_sequencenumber(-5);
  return m;
}

std::unique_ptr<pb::Message> SampleApplProxyInfo() {
  auto m = std::make_unique<messaging::ApplProxyInfoRspMsg>();
  SetUuid(m->mutable_host_uuid(), {kUuidLeft, kUuidRight});
  messaging::ApplProxyInfoMsg* a = m->add_applproxy_info();
  SetUuid(a->mutable_id(), kAph1);
  a->set_master(true);
  a = m->add_applproxy_info();
  SetUuid(a->mutable_id(), kAph2);
  a->set_master(false);
  orvane::zel::ProductVersionMsg* pv = m->mutable_effective_product_version();
  pv->set_major(4);
  pv->set_minor(1);
  pv->set_maintenance(2);
  pv->set_patch(0);
  pv->set_suffix("rc1");
  pv->set_build_number(123456);
  return m;
}

std::unique_ptr<pb::Message> SampleDiscoveryResponse() {
  auto m = std::make_unique<messaging::DiscoveryResponseMsg>();
  messaging::ConfigurationMsg* c = m->mutable_configuration();
  messaging::BrokerMsg* b = c->add_brokers();
  b->mutable_host()->add_ip_addresses()->set_ipv4(0x7F000001);
  b->mutable_host()->add_ip_addresses()->set_ipv6(Ipv6Bytes());
  b->mutable_host()->set_fqdn("mp.local");
  b->set_port(5671);
  b->set_virtual_host("/");
  b->set_thumbprint("ab:cd");
  c->set_heartbeat_interval(30000);
  c->mutable_product_version()->set_major(4);
  c->add_manager_accounts("admin");
  messaging::ApplProxyCfgMsg* a = c->add_applproxy_info();
  SetUuid(a->mutable_uuid(), kAph1);
  a->mutable_addr()->set_fqdn("aph");
  a->set_port(1234);
  a->set_certificate("PEM");
  messaging::EntityInfoMsg* e = a->add_entity();
  e->set_entity_type(messaging::EntityInfoMsg::ENTITY_CCP);
  SetUuid(e->mutable_uuid(), kAph2);
  e->set_master(true);
  c->set_configuration_hash("h1");
  m->set_client_id("c");
  m->add_management_queues("mq");
  messaging::ManagementVerticalQueueMapMsg* q = m->add_management_vertical_queue_map();
  q->set_vertical("v");
  q->add_queues("q");
  m->mutable_master_broker()->set_port(1);
  m->mutable_error_message()->set_code(messaging::ErrorMsg::VERSION_MISMATCH);
  m->mutable_error_message()->set_module("mod");
  m->mutable_error_message()->set_detail("det");
  return m;
}

std::unique_ptr<pb::Message> SampleRpcStreamControl() {
  auto m = std::make_unique<rpc::StreamControlMsg>();
  m->set_service("orvane.zel.metrics.MetricsCollector");
  m->set_open_stream(true);
  m->set_ack_stream(false);
  m->set_close_stream(true);
  m->set_deprecated_close_reason("bye");
  m->set_priority(96);
  m->set_destination("ep-2");
  m->set_source("ep-1");
  m->mutable_settings()->set_version(1);
  m->mutable_close_status()->set_code(rpc::RpcStatusMsg::UNAVAILABLE);
  m->mutable_close_status()->set_error_msg("gone");
  return m;
}

std::unique_ptr<pb::Message> SampleRpcFrame() {
  auto m = std::make_unique<rpc::FrameMsg>();
  rpc::HeaderMsg* h = m->mutable_header()->add_header();
  h->set_key("k1");
  h->set_value("v1");
  h = m->mutable_header()->add_header();
  h->set_key("trace");
  h->set_value("");
  m->mutable_header()->set_client_id("cli");
  m->mutable_settings()->set_version(rpc::RPC_V1);
  m->mutable_settings()->add_endpoint_id("ep-a");
  m->mutable_settings()->add_endpoint_id("ep-b");
  m->mutable_settings()->set_default_flow_control_window_size(65535);
  m->mutable_settings()->add_service("svc1");
  rpc::RpcControlMsg* r = m->mutable_rpc_msg();
  r->set_call_id((uint64_t{1} << 40) + 1);
  r->set_method("orvane.zel.metrics.MetricsCollector.Report");
  r->set_cancel_call(false);
  r->set_has_payload(true);
  r->mutable_status()->set_code(rpc::RpcStatusMsg::APPLICATION_ERROR);
  r->mutable_status()->set_error_msg("boom");
  m->mutable_keep_alive_request()->set_request_id(7);
  m->mutable_keep_alive_request()->set_timestamp(1700000000123ull);
  m->mutable_keep_alive_response()->set_request_id(8);
  m->mutable_keep_alive_response()->set_timestamp(1700000000456ull);
  return m;
}

// Aggregate fields of a metric value, with numbers and kinds as the peer's
// METRIC_AGGREGATES table; values differ per field by the same formula.
struct Aggregate {
  const char* name;
  int number;
  bool is_count;
};
constexpr Aggregate kAggregates[] = {
    {"value_last", 10, false},  {"value_num", 11, true},    {"value_min", 12, false},
    {"value_max", 13, false},   {"value_avg", 14, false},   {"value_sum", 15, false},
    {"value_rate", 16, false},  {"value_freq", 17, false},  {"value_p50", 20, false},
    {"sample_last", 30, false}, {"sample_num", 31, true},   {"sample_min", 32, false},
    {"sample_max", 33, false},  {"sample_avg", 34, false},  {"sample_sum", 35, false},
    {"sample_rate", 36, false}, {"sample_freq", 37, false}, {"sample_twa", 38, false},
    {"sample_p50", 40, false},  {"sample_p75", 41, false},  {"sample_p90", 42, false},
    {"sample_p95", 43, false},  {"sample_p99", 44, false},
};

std::unique_ptr<pb::Message> SampleMetricsReport() {
  auto m = std::make_unique<metrics::MetricsReportMsg>();
  m->mutable_root()->set_name("/");
  metrics::MetricKeyMsg* zel = m->mutable_root()->add_subkey();
  zel->set_name("zel");
  metrics::MetricKeyMsg* leaf = zel->add_subkey();
  leaf->set_name("rpc");
  metrics::MetricValueMsg* value = leaf->mutable_value();
  value->set_type(3);
  value->set_timestamp(1700000000000ull);
  value->set_units("ms");
  value->set_value("12");
  metrics::MetricTagMsg* tag = value->add_tag();
  tag->set_key("ep");
  tag->set_value("unix");
  const pb::Reflection* reflection = value->GetReflection();
  for (const Aggregate& a : kAggregates) {
    const pb::FieldDescriptor* field = value->GetDescriptor()->FindFieldByName(a.name);
    EXPECT_NE(field, nullptr) << a.name;
    if (field == nullptr) continue;
    EXPECT_EQ(field->number(), a.number) << a.name;
    if (a.is_count) {
      reflection->SetUInt64(value, field, static_cast<uint64_t>(a.number) * 1000 + 7);
    } else {
      reflection->SetDouble(value, field, a.number + 0.25);
    }
  }
  zel->add_subkey()->set_name("idle");
  for (const auto& [key, val] : {std::pair<const char*, const char*>{"source", "host-a"},
                                 std::pair<const char*, const char*>{"app", "zeldorn"}}) {
    tag = m->add_tag();
    tag->set_key(key);
    tag->set_value(val);
  }
  return m;
}

using SampleBuilder = std::unique_ptr<pb::Message> (*)();
const std::map<std::string, SampleBuilder>& CppSamples() {
  static const std::map<std::string, SampleBuilder> samples = {
      {"uuid", SampleUuid},
      {"dorn_message", SampleDornMessage},
      {"dorn_mp_unified", SampleDornMpUnified},
      {"generic_unified", SampleGenericUnified},
      {"appl_proxy_info", SampleApplProxyInfo},
      {"discovery_response", SampleDiscoveryResponse},
      {"rpc_stream_control", SampleRpcStreamControl},
      {"rpc_frame", SampleRpcFrame},
      {"metrics_report", SampleMetricsReport},
  };
  return samples;
}

// Parses the peer's bytes of `name` into a fresh message of the sample's type.
template <typename T>
bool ParsePeer(const std::string& name, T* out) {
  const PeerSamples& peer = PythonSamples();
  auto it = peer.bytes.find(name);
  return it != peer.bytes.end() && out->ParseFromString(it->second);
}

// --- Tests ------------------------------------------------------------------------

class WireCompatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const PeerSamples& peer = PythonSamples();
    ASSERT_TRUE(peer.error.empty()) << peer.error;
  }
};

TEST_F(WireCompatTest, PeerAndCppHaveTheSameSamples) {
  std::set<std::string> peer_names, cpp_names;
  for (const auto& entry : PythonSamples().bytes) peer_names.insert(entry.first);
  for (const auto& entry : CppSamples()) cpp_names.insert(entry.first);
  EXPECT_EQ(peer_names, cpp_names);
}

TEST_F(WireCompatTest, CppSerialisesToThePeersBytes) {
  for (const auto& [name, build] : CppSamples()) {
    std::unique_ptr<pb::Message> message = build();
    std::string bytes;
    ASSERT_TRUE(message->SerializeToString(&bytes)) << name;
    auto it = PythonSamples().bytes.find(name);
    ASSERT_NE(it, PythonSamples().bytes.end()) << name;
    EXPECT_EQ(ToHex(bytes), ToHex(it->second)) << name << "\n" << message->DebugString();
  }
}

TEST_F(WireCompatTest, PeersBytesParseToTheSameMessages) {
  for (const auto& [name, build] : CppSamples()) {
    std::unique_ptr<pb::Message> expected = build();
    std::unique_ptr<pb::Message> parsed(expected->New());
    auto it = PythonSamples().bytes.find(name);
    ASSERT_NE(it, PythonSamples().bytes.end()) << name;
    ASSERT_TRUE(parsed->ParseFromString(it->second)) << name;
    std::string diff;
    pb::util::MessageDifferencer differencer;
    differencer.ReportDifferencesToString(&diff);
    EXPECT_TRUE(differencer.Compare(*expected, *parsed)) << name << ":\n" << diff;
    EXPECT_EQ(parsed->GetReflection()->GetUnknownFields(*parsed).field_count(), 0) << name;
  }
}

// Spot checks of fields whose encoding is easy to get subtly wrong.
TEST_F(WireCompatTest, PeersBytesCarryTheTrickyFields) {
  UuidMsg uuid;
  ASSERT_TRUE(ParsePeer("uuid", &uuid));
  EXPECT_EQ(uuid.left(), kUuidLeft);
  EXPECT_EQ(uuid.right(), kUuidRight);
  // fixed64 halves go little-endian, eight bytes each.
  EXPECT_EQ(ToHex(PythonSamples().bytes.at("uuid")), "09efcdab8967452301111032547698badcfe");

  messaging::GenericUnifiedMsg generic;
  ASSERT_TRUE(ParsePeer("generic_unified", &generic));
  EXPECT_EQ(generic.ctrlheaders().sequencenumber(), -5);
  dorn::DornHostUnifiedMsg host;
  ASSERT_TRUE(host.ParseFromString(generic.msg()));
  EXPECT_EQ(host.msg1().message_type(), dorn::MT_GET_RSA_KEY);
  EXPECT_EQ(host.raw_payload().msg(), kRaw);
  EXPECT_EQ(host.ctrlheaders().sequencenumber(), -1);
  EXPECT_EQ(host.msg2().topic_list(0).priority(), 5u);

  dorn::DornMessage dorn_msg;
  ASSERT_TRUE(ParsePeer("dorn_message", &dorn_msg));
  ASSERT_EQ(dorn_msg.dorn_fabric_object_size(), 5);
  EXPECT_TRUE(dorn_msg.dorn_fabric_object(1).filecopy().make_executable());
  EXPECT_EQ(dorn_msg.dorn_fabric_object(1).filecopy().file(), "/tmp/zel/h\xc3\xa9llo.sh");
  EXPECT_TRUE(dorn_msg.dorn_fabric_object(3).has_reboothost());  // empty but present
  EXPECT_FALSE(dorn_msg.dorn_fabric_object(3).has_getrsakey());
  EXPECT_EQ(dorn_msg.operation_status(1).status(), dorn::GET_CERTIFICATE_FAILED);
  EXPECT_FALSE(dorn_msg.operation_status(1).has_message());
  EXPECT_TRUE(dorn_msg.return_same_correlationid());

  messaging::ApplProxyInfoRspMsg aph;
  ASSERT_TRUE(ParsePeer("appl_proxy_info", &aph));
  ASSERT_EQ(aph.applproxy_info_size(), 2);
  EXPECT_TRUE(aph.applproxy_info(1).has_master());  // an explicit false is kept
  EXPECT_FALSE(aph.applproxy_info(1).master());
  EXPECT_EQ(aph.applproxy_info(1).id().left(), kAph2.first);

  messaging::DiscoveryResponseMsg discovery;
  ASSERT_TRUE(ParsePeer("discovery_response", &discovery));
  ASSERT_EQ(discovery.configuration().applproxy_info_size(), 1);
  EXPECT_EQ(discovery.configuration().applproxy_info(0).entity(0).entity_type(),
            messaging::EntityInfoMsg::ENTITY_CCP);
  EXPECT_EQ(discovery.configuration().configuration_hash(), "h1");
  EXPECT_EQ(discovery.error_message().code(), messaging::ErrorMsg::VERSION_MISMATCH);

  rpc::FrameMsg frame;
  ASSERT_TRUE(ParsePeer("rpc_frame", &frame));
  EXPECT_EQ(frame.rpc_msg().call_id(), (uint64_t{1} << 40) + 1);
  EXPECT_EQ(frame.rpc_msg().status().code(), rpc::RpcStatusMsg::APPLICATION_ERROR);
  EXPECT_EQ(frame.settings().version(), static_cast<uint32_t>(rpc::RPC_V1));
  EXPECT_TRUE(frame.header().header(1).has_value());
  EXPECT_EQ(frame.header().header(1).value(), "");

  rpc::StreamControlMsg control;
  ASSERT_TRUE(ParsePeer("rpc_stream_control", &control));
  EXPECT_EQ(control.deprecated_close_reason(), "bye");
  EXPECT_EQ(control.priority(), 96u);
  EXPECT_EQ(control.close_status().code(), rpc::RpcStatusMsg::UNAVAILABLE);

  metrics::MetricsReportMsg report;
  ASSERT_TRUE(ParsePeer("metrics_report", &report));
  const metrics::MetricValueMsg& value = report.root().subkey(0).subkey(0).value();
  EXPECT_EQ(value.timestamp(), 1700000000000ull);
  EXPECT_EQ(value.value_num(), 11007u);
  EXPECT_DOUBLE_EQ(value.sample_twa(), 38.25);
  EXPECT_DOUBLE_EQ(value.sample_p99(), 44.25);
  EXPECT_FALSE(report.root().subkey(0).subkey(1).has_value());
  EXPECT_EQ(report.tag(1).value(), "zeldorn");
}

TEST_F(WireCompatTest, PeerParsesCppBytesToItsOwnSamples) {
  char path[] = "/tmp/zel_schemas_wire_XXXXXX";
  const int fd = ::mkstemp(path);
  ASSERT_GE(fd, 0);
  ::close(fd);
  {
    std::ofstream out(path);
    for (const auto& [name, build] : CppSamples()) {
      out << name << " " << ToHex(build()->SerializeAsString()) << "\n";
    }
  }
  const PeerResult result = RunPeer(std::string("decode ") + Quote(path));
  std::remove(path);
  EXPECT_EQ(result.exit_code, 0) << result.output;
}

TEST_F(WireCompatTest, PeerReadsTheCustomOptions) {
  const PeerResult result = RunPeer("options");
  EXPECT_EQ(result.exit_code, 0) << result.output;
}

}  // namespace
