"""Independent peer for the schema wire-compatibility test.

Builds the same sample messages as schemas_wire_test.cpp, with the pure-Python
protobuf runtime and modules compiled by protoc --python_out, and checks each
one against bytes written by a hand encoder that knows nothing but field
numbers and wire types. The C++ test drives it:

  wire_peer.py --gen DIR encode           print "<case> <hex>" per sample
  wire_peer.py --gen DIR decode FILE      parse "<case> <hex>" lines made by
                                          C++ and compare with the samples
  wire_peer.py --gen DIR options          check custom options via descriptors

Exit status 0 means every check passed; anything else is printed on stderr.
Run it with the system interpreter (/usr/bin/python3), which carries the
python3-protobuf package.
"""

import os
import struct
import sys

# The C++ runtime is an implementation the test must not share with the code it
# checks, so force the pure-Python one before the first protobuf import.
os.environ["PROTOCOL_BUFFERS_PYTHON_IMPLEMENTATION"] = "python"

EXIT_NO_PROTOBUF = 3


def fail(text):
    sys.stderr.write("wire_peer: %s\n" % text)
    sys.exit(1)


def import_modules(gen_dir):
    try:
        from google.protobuf.internal import api_implementation
    except ImportError as exc:
        sys.stderr.write(
            "wire_peer: %s has no google.protobuf (install the python3-protobuf "
            "package): %s\n" % (sys.executable, exc))
        sys.exit(EXIT_NO_PROTOBUF)
    if api_implementation.Type() != "python":
        fail("protobuf runtime is '%s', expected the pure-Python one"
             % api_implementation.Type())
    sys.path.insert(0, gen_dir)
    global cfo, core, dorn, mpa, generic, ctrl, applproxy, messaging, rpc
    global svcopt, metrics
    from orvane.zel import core_field_options_pb2 as cfo
    from orvane.zel import core_types_pb2 as core
    from orvane.zel.dorn import dorn_fabric_message_pb2 as dorn
    from orvane.zel.messaging.appinit import mpa_pb2 as mpa
    from orvane.zel.messaging import generic_unified_messaging_pb2 as generic
    from orvane.zel.messaging import control_header_unified_messaging_pb2 as ctrl
    from orvane.zel.messaging import applproxyinfo_pb2 as applproxy
    from orvane.zel.messaging import messaging_pb2 as messaging
    from orvane.zel.rpc import zel_rpc_pb2 as rpc
    from orvane.zel.rpc import service_options_pb2 as svcopt
    from orvane.zel.metrics import zel_metrics_pb2 as metrics


# --- Hand encoder: wire format from first principles --------------------------

def varint(n):
    if n < 0:
        n += 1 << 64  # int32/int64/enum negatives are ten-byte varints
    out = bytearray()
    while True:
        low = n & 0x7F
        n >>= 7
        if n:
            out.append(low | 0x80)
        else:
            out.append(low)
            return bytes(out)


def tag(number, wire_type):
    return varint((number << 3) | wire_type)


def v(number, value):  # varint field: integers, bools, enums
    return tag(number, 0) + varint(int(value))


def ld(number, payload):  # length-delimited: strings, bytes, messages
    if isinstance(payload, str):
        payload = payload.encode("utf-8")
    return tag(number, 2) + varint(len(payload)) + payload


def fx64(number, value):
    return tag(number, 1) + struct.pack("<Q", value)


def dbl(number, value):
    return tag(number, 1) + struct.pack("<d", value)


def cat(*parts):
    return b"".join(parts)


# --- Samples ------------------------------------------------------------------
# Each sample returns (message built with the generated API, hand-encoded
# bytes). Fields are listed in field-number order in the hand encoding, which
# is the order every conforming serialiser writes known fields in.

UUID_L = 0x0123456789ABCDEF
UUID_R = 0xFEDCBA9876543210
APH1 = (0x1111111111111111, 0x2222222222222222)
APH2 = (0x8000000000000001, 0x00000000000000FF)
IPV6 = bytes(range(0x20, 0x30))
RAW = b"\x00\xff\x80raw\x00"


def uuid_bytes(left, right):
    return cat(fx64(1, left), fx64(2, right))


def sample_uuid():
    m = core.UuidMsg(left=UUID_L, right=UUID_R)
    return m, uuid_bytes(UUID_L, UUID_R)


def sample_dorn_message():
    m = dorn.DornMessage()
    m.message_type = dorn.MT_RUN_COMMAND
    m.operation_id = "op-42"
    o = m.dorn_fabric_object.add()
    o.fabric_object_identifier = "obj-1"
    o.runCommand.command = "uname -a"
    o = m.dorn_fabric_object.add()
    o.fabric_object_identifier = "obj-2"
    o.fileCopy.file = "/tmp/zel/h\u00e9llo.sh"
    o.fileCopy.data = "#!/bin/sh\necho \u00e9\n"
    o.fileCopy.make_executable = True
    o = m.dorn_fabric_object.add()
    o.fabric_object_identifier = "obj-3"
    o.software.name = "zel-pkg"
    o.software.version = "1.2.3"
    o.software.state = dorn.INVALID_VERSION
    o = m.dorn_fabric_object.add()
    o.fabric_object_identifier = "obj-4"
    o.rebootHost.SetInParent()
    o = m.dorn_fabric_object.add()
    o.fabric_object_identifier = "obj-5"
    o.createOrDeleteUser.username = "alice"
    o.createOrDeleteUser.password = "s3cret"
    o.getCertificate.SetInParent()
    o.stopServices.name = "ntpd"
    o.restartServices.name = "sshd"
    o.findMissingPackagesFromList.name = "openssl"
    o.getRsaKey.SetInParent()
    s = m.operation_status.add()
    s.status = dorn.COMMAND_SUCCESS
    s.fabric_object_identifier = "obj-1"
    s.message = "Linux"
    s = m.operation_status.add()
    s.status = dorn.GET_CERTIFICATE_FAILED
    s.fabric_object_identifier = "obj-2"
    m.return_same_correlationid = True

    wire = cat(
        v(1, 3),
        ld(2, "op-42"),
        ld(3, cat(ld(1, "obj-1"), ld(4, ld(1, "uname -a")))),
        ld(3, cat(ld(1, "obj-2"),
                  ld(3, cat(ld(1, "/tmp/zel/h\u00e9llo.sh"),
                            ld(2, "#!/bin/sh\necho \u00e9\n"), v(3, 1))))),
        ld(3, cat(ld(1, "obj-3"),
                  ld(2, cat(ld(1, "zel-pkg"), ld(2, "1.2.3"), v(3, 2))))),
        ld(3, cat(ld(1, "obj-4"), ld(6, b""))),
        ld(3, cat(ld(1, "obj-5"),
                  ld(5, cat(ld(1, "alice"), ld(2, "s3cret"))),
                  ld(7, b""),
                  ld(8, ld(1, "ntpd")),
                  ld(9, ld(1, "sshd")),
                  ld(10, ld(1, "openssl")),
                  ld(11, b""))),
        ld(4, cat(v(1, 3), ld(2, "obj-1"), ld(3, "Linux"))),
        ld(4, cat(v(1, 8), ld(2, "obj-2"))),
        v(5, 1))
    return m, wire


def sample_dorn_mp_unified():
    m = dorn.DornMpUnifiedMsg()
    m.msg1.message_type = dorn.MT_SOFTWARE_STATUS
    m.msg1.operation_id = "op-1"
    m.msg2.application_instance = "dorn-1"
    m.objectType = "com.orvane.zel.dorn.DornFabricMessage.DornMessage"
    m.ctrlHeaders.sessionId = "sess"
    m.ctrlHeaders.sequenceNumber = 7
    wire = cat(
        ld(1, cat(v(1, 1), ld(2, "op-1"))),
        ld(2, ld(1, "dorn-1")),
        ld(3, "com.orvane.zel.dorn.DornFabricMessage.DornMessage"),
        ld(4, cat(ld(1, "sess"), v(2, 7))))
    return m, wire


def host_unified_sample():
    m = dorn.DornHostUnifiedMsg()
    m.msg1.message_type = dorn.MT_GET_RSA_KEY
    m.msg1.operation_id = "op-7"
    m.msg2.application_instance = "dorn"
    t = m.msg2.topic_list.add()
    t.topic = "t1"
    t.priority = 5
    m.msg2.queue_list.extend(["q1", "q2"])
    m.objectType = "x"
    m.ctrlHeaders.sessionId = "s"
    m.ctrlHeaders.sequenceNumber = -1
    m.raw_payload.msg = RAW
    wire = cat(
        ld(1, cat(v(1, 11), ld(2, "op-7"))),
        ld(2, cat(ld(1, "dorn"), ld(2, cat(ld(1, "t1"), v(2, 5))),
                  ld(3, "q1"), ld(3, "q2"))),
        ld(3, "x"),
        ld(4, cat(ld(1, "s"), v(2, -1))),
        ld(5, ld(1, RAW)))
    return m, wire


def sample_generic_unified():
    inner, inner_wire = host_unified_sample()
    if inner.SerializeToString() != inner_wire:
        fail("DornHostUnifiedMsg inside generic_unified does not match the "
             "hand encoding")
    m = generic.GenericUnifiedMsg()
    m.msg = inner.SerializeToString()
    m.ctrlHeaders.sessionId = "session-9"
    m.ctrlHeaders.sequenceNumber = -5
    wire = cat(ld(1, inner_wire), ld(2, cat(ld(1, "session-9"), v(2, -5))))
    return m, wire


def sample_appl_proxy_info():
    m = applproxy.ApplProxyInfoRspMsg()
    m.host_uuid.left, m.host_uuid.right = UUID_L, UUID_R
    a = m.applproxy_info.add()
    a.id.left, a.id.right = APH1
    a.master = True
    a = m.applproxy_info.add()
    a.id.left, a.id.right = APH2
    a.master = False
    pv = m.effective_product_version
    pv.major, pv.minor, pv.maintenance, pv.patch = 4, 1, 2, 0
    pv.suffix = "rc1"
    pv.build_number = 123456
    wire = cat(
        ld(1, uuid_bytes(UUID_L, UUID_R)),
        ld(2, cat(ld(1, uuid_bytes(*APH1)), v(2, 1))),
        ld(2, cat(ld(1, uuid_bytes(*APH2)), v(2, 0))),
        ld(3, cat(v(1, 4), v(2, 1), v(3, 2), v(4, 0), ld(5, "rc1"),
                  v(6, 123456))))
    return m, wire


def sample_discovery_response():
    m = messaging.DiscoveryResponseMsg()
    c = m.configuration
    b = c.brokers.add()
    b.host.ip_addresses.add().ipv4 = 0x7F000001
    b.host.ip_addresses.add().ipv6 = IPV6
    b.host.fqdn = "mp.local"
    b.port = 5671
    b.virtual_host = "/"
    b.thumbprint = "ab:cd"
    c.heartbeat_interval = 30000
    c.product_version.major = 4
    c.manager_accounts.append("admin")
    a = c.applproxy_info.add()
    a.uuid.left, a.uuid.right = APH1
    a.addr.fqdn = "aph"
    a.port = 1234
    a.certificate = "PEM"
    e = a.entity.add()
    e.entity_type = messaging.EntityInfoMsg.ENTITY_CCP
    e.uuid.left, e.uuid.right = APH2
    e.master = True
    c.configuration_hash = "h1"
    m.client_id = "c"
    m.management_queues.append("mq")
    q = m.management_vertical_queue_map.add()
    q.vertical = "v"
    q.queues.append("q")
    m.master_broker.port = 1
    m.error_message.code = messaging.ErrorMsg.VERSION_MISMATCH
    m.error_message.module = "mod"
    m.error_message.detail = "det"
    wire = cat(
        ld(1, cat(
            ld(1, cat(ld(1, cat(ld(1, v(1, 0x7F000001)), ld(1, ld(2, IPV6)),
                                ld(2, "mp.local"))),
                      v(2, 5671), ld(3, "/"), ld(4, "ab:cd"))),
            v(2, 30000),
            ld(3, v(1, 4)),
            ld(4, "admin"),
            ld(5, "h1"),
            ld(12, cat(ld(1, uuid_bytes(*APH1)), ld(2, ld(2, "aph")),
                       v(3, 1234), ld(4, "PEM"),
                       ld(6, cat(v(1, 2), ld(2, uuid_bytes(*APH2)),
                                 v(3, 1))))))),
        ld(2, "c"),
        ld(5, "mq"),
        ld(6, cat(ld(1, "v"), ld(2, "q"))),
        ld(10, v(2, 1)),
        ld(11, cat(v(1, 3), ld(2, "mod"), ld(3, "det"))))
    return m, wire


def sample_rpc_stream_control():
    m = rpc.StreamControlMsg()
    m.service = "orvane.zel.metrics.MetricsCollector"
    m.open_stream = True
    m.ack_stream = False
    m.close_stream = True
    m.DEPRECATED_close_reason = "bye"
    m.priority = 96
    m.destination = "ep-2"
    m.source = "ep-1"
    m.settings.version = 1
    m.close_status.code = rpc.RpcStatusMsg.UNAVAILABLE
    m.close_status.error_msg = "gone"
    wire = cat(
        ld(1, "orvane.zel.metrics.MetricsCollector"),
        v(2, 1), v(3, 0), v(4, 1), ld(5, "bye"), v(6, 96), ld(7, "ep-2"),
        ld(8, "ep-1"), ld(9, v(1, 1)), ld(10, cat(v(1, 13), ld(2, "gone"))))
    return m, wire


def sample_rpc_frame():
    m = rpc.FrameMsg()
    h = m.header.header.add()
    h.key, h.value = "k1", "v1"
    h = m.header.header.add()
    h.key, h.value = "trace", ""
    m.header.client_id = "cli"
    m.settings.version = rpc.RPC_V1
    m.settings.endpoint_id.extend(["ep-a", "ep-b"])
    m.settings.default_flow_control_window_size = 65535
    m.settings.service.append("svc1")
    r = m.rpc_msg
    r.call_id = (1 << 40) + 1
    r.method = "orvane.zel.metrics.MetricsCollector.Report"
    r.cancel_call = False
    r.has_payload = True
    r.status.code = rpc.RpcStatusMsg.APPLICATION_ERROR
    r.status.error_msg = "boom"
    m.keep_alive_request.request_id = 7
    m.keep_alive_request.timestamp = 1700000000123
    m.keep_alive_response.request_id = 8
    m.keep_alive_response.timestamp = 1700000000456
    wire = cat(
        ld(1, cat(ld(1, cat(ld(1, "k1"), ld(2, "v1"))),
                  ld(1, cat(ld(1, "trace"), ld(2, ""))), ld(2, "cli"))),
        ld(2, cat(v(1, 1), ld(2, "ep-a"), ld(2, "ep-b"), v(3, 65535),
                  ld(4, "svc1"))),
        ld(3, cat(v(1, (1 << 40) + 1),
                  ld(2, "orvane.zel.metrics.MetricsCollector.Report"),
                  v(3, 0), v(4, 1), ld(5, cat(v(1, 15), ld(2, "boom"))))),
        ld(4, cat(v(1, 7), v(2, 1700000000123))),
        ld(5, cat(v(1, 8), v(2, 1700000000456))))
    return m, wire


# Aggregate fields of a metric value: name, number, and whether it is a count.
METRIC_AGGREGATES = [
    ("value_last", 10, False), ("value_num", 11, True),
    ("value_min", 12, False), ("value_max", 13, False),
    ("value_avg", 14, False), ("value_sum", 15, False),
    ("value_rate", 16, False), ("value_freq", 17, False),
    ("value_p50", 20, False),
    ("sample_last", 30, False), ("sample_num", 31, True),
    ("sample_min", 32, False), ("sample_max", 33, False),
    ("sample_avg", 34, False), ("sample_sum", 35, False),
    ("sample_rate", 36, False), ("sample_freq", 37, False),
    ("sample_twa", 38, False), ("sample_p50", 40, False),
    ("sample_p75", 41, False), ("sample_p90", 42, False),
    ("sample_p95", 43, False), ("sample_p99", 44, False),
]


def aggregate_value(number, is_count):
    # Distinct per field so that a swapped pair of numbers shows; the same
    # formula is used on the C++ side.
    return number * 1000 + 7 if is_count else number + 0.25


def sample_metrics_report():
    m = metrics.MetricsReportMsg()
    m.root.name = "/"
    zel = m.root.subkey.add()
    zel.name = "zel"
    leaf = zel.subkey.add()
    leaf.name = "rpc"
    val = leaf.value
    val.type = 3
    val.timestamp = 1700000000000
    val.units = "ms"
    val.value = "12"
    t = val.tag.add()
    t.key, t.value = "ep", "unix"
    for name, number, is_count in METRIC_AGGREGATES:
        setattr(val, name, aggregate_value(number, is_count))
    empty = zel.subkey.add()
    empty.name = "idle"
    for key, value in (("source", "host-a"), ("app", "zeldorn")):
        t = m.tag.add()
        t.key, t.value = key, value

    value_wire = cat(v(1, 3), v(2, 1700000000000), ld(3, "ms"), ld(4, "12"),
                     ld(5, cat(ld(1, "ep"), ld(2, "unix"))),
                     *[v(n, aggregate_value(n, True)) if c
                       else dbl(n, aggregate_value(n, False))
                       for _, n, c in METRIC_AGGREGATES])
    wire = cat(
        ld(1, cat(ld(1, "/"),
                  ld(3, cat(ld(1, "zel"),
                            ld(3, cat(ld(1, "rpc"), ld(2, value_wire))),
                            ld(3, ld(1, "idle")))))),
        ld(2, cat(ld(1, "source"), ld(2, "host-a"))),
        ld(2, cat(ld(1, "app"), ld(2, "zeldorn"))))
    return m, wire


SAMPLES = {
    "uuid": sample_uuid,
    "dorn_message": sample_dorn_message,
    "dorn_mp_unified": sample_dorn_mp_unified,
    "generic_unified": sample_generic_unified,
    "appl_proxy_info": sample_appl_proxy_info,
    "discovery_response": sample_discovery_response,
    "rpc_stream_control": sample_rpc_stream_control,
    "rpc_frame": sample_rpc_frame,
    "metrics_report": sample_metrics_report,
}


# --- Commands -----------------------------------------------------------------

def cmd_encode():
    errors = []
    lines = []
    for name, build in SAMPLES.items():
        msg, wire = build()
        data = msg.SerializeToString()
        if data != wire:
            errors.append("%s: Python serialisation differs from the hand "
                          "encoding\n  python: %s\n  hand:   %s"
                          % (name, data.hex(), wire.hex()))
        lines.append("%s %s" % (name, data.hex()))
    if errors:
        fail("\n".join(errors))
    print("\n".join(lines))


def cmd_decode(path):
    errors = []
    seen = set()
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line:
                continue
            name, _, hexdata = line.partition(" ")
            if name not in SAMPLES:
                errors.append("%s: unknown sample" % name)
                continue
            seen.add(name)
            expected, _ = SAMPLES[name]()
            data = bytes.fromhex(hexdata)
            parsed = type(expected)()
            try:
                parsed.ParseFromString(data)
            except Exception as exc:  # DecodeError and friends
                errors.append("%s: does not parse: %s" % (name, exc))
                continue
            if parsed != expected:
                errors.append("%s: parsed fields differ\n--- parsed\n%s--- expected\n%s"
                              % (name, parsed, expected))
            if parsed.SerializeToString() != data:
                errors.append("%s: re-serialisation changes the bytes" % name)
    missing = set(SAMPLES) - seen
    if missing:
        errors.append("samples missing from C++ output: %s" % sorted(missing))
    if errors:
        fail("\n".join(errors))
    print("decoded %d samples" % len(seen))


def cmd_options():
    errors = []

    def expect(what, got, want):
        if got != want:
            errors.append("%s: got %r, want %r" % (what, got, want))

    def field_opts(msg_cls, field):
        return msg_cls.DESCRIPTOR.fields_by_name[field].GetOptions()

    expect("IpAddressMsg.ipv4 uint32_as",
           field_opts(core.IpAddressMsg, "ipv4").Extensions[cfo.uint32_as],
           cfo.UINT32_IPV4)
    expect("IpSubnetAddressMsg.ipv6 bytes_as",
           field_opts(core.IpSubnetAddressMsg, "ipv6").Extensions[cfo.bytes_as],
           cfo.BYTES_IPV6)
    expect("MacAddressMsg.mac uint64_as",
           field_opts(core.MacAddressMsg, "mac").Extensions[cfo.uint64_as],
           cfo.UINT64_MAC_ADDRESS)
    plain = field_opts(core.IpPrefixMsg, "prefix_length")
    expect("unmarked uint32_as", plain.Extensions[cfo.uint32_as], cfo.UINT32_DEFAULT)
    expect("unmarked redact", plain.Extensions[cfo.redact], cfo.REDACT_NONE)

    def method_opts(pb2, service, method):
        return (pb2.DESCRIPTOR.services_by_name[service]
                .methods_by_name[method].GetOptions())

    report = method_opts(metrics, "MetricsCollector", "Report")
    expect("Report client_streaming", report.Extensions[svcopt.client_streaming], True)
    expect("Report server_streaming", report.Extensions[svcopt.server_streaming], False)
    sub = method_opts(applproxy, "ApplProxyInfoService", "Subscribe")
    expect("Subscribe server_streaming", sub.Extensions[svcopt.server_streaming], True)
    expect("Subscribe client_streaming", sub.Extensions[svcopt.client_streaming], False)
    handler = method_opts(dorn, "DornHostService", "RpcMsgHandler")
    expect("DornHostService.RpcMsgHandler has streaming options",
           handler.HasExtension(svcopt.client_streaming)
           or handler.HasExtension(svcopt.server_streaming), False)

    if errors:
        fail("\n".join(errors))
    print("options ok")


def main(argv):
    if len(argv) < 3 or argv[0] != "--gen":
        fail("usage: wire_peer.py --gen DIR encode|decode FILE|options")
    import_modules(argv[1])
    command = argv[2]
    if command == "encode":
        cmd_encode()
    elif command == "decode" and len(argv) == 4:
        cmd_decode(argv[3])
    elif command == "options":
        cmd_options()
    else:
        fail("unknown command %r" % " ".join(argv[2:]))


if __name__ == "__main__":
    main(sys.argv[1:])
