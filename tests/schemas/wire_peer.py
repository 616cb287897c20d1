"""Independent peer for the schema wire-compatibility test.

Each sample is written by a hand encoder that knows nothing but field numbers
and wire types, so a wrong number or type in a schema shows even though the
C++ and Python code are generated from the same files. The pure-Python
protobuf runtime (modules from protoc --python_out) must read every sample
with no unknown field anywhere and write back the very same bytes. The C++
test then serialises the same messages and compares with what this prints:

  wire_peer.py --gen DIR encode       print "<sample> <hex>" per sample

Exit status 0 means every check passed; 3 means the interpreter lacks
google.protobuf; anything else is explained on stderr. Run it with the
system interpreter (/usr/bin/python3), which carries python3-protobuf.
"""

import os
import struct
import sys

# The C++ runtime is an implementation the test must not share with the code
# it checks, so force the pure-Python one before the first protobuf import.
os.environ["PROTOCOL_BUFFERS_PYTHON_IMPLEMENTATION"] = "python"

EXIT_NO_PROTOBUF = 3


def fail(text):
    sys.stderr.write("wire_peer: %s\n" % text)
    sys.exit(1)


# --- Hand encoder: wire format from first principles --------------------------

def varint(n):
    if n < 0:
        n += 1 << 64  # int32/int64/enum negatives are ten-byte varints
    out = bytearray()
    while True:
        low = n & 0x7F
        n >>= 7
        out.append(low | 0x80 if n else low)
        if not n:
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
# Fields in field-number order, the order every conforming serialiser writes
# known fields in. The C++ test builds the same messages by field name.

APH1 = (0x1111111111111111, 0x2222222222222222)
APH2 = (0x8000000000000001, 0x00000000000000FF)
RAW = b"\x00\xff\x80raw\x00"


def uuid(left, right):
    return cat(fx64(1, left), fx64(2, right))


HOST_UNIFIED = cat(
    ld(1, cat(v(1, 11), ld(2, "op-7"))),
    ld(2, cat(ld(1, "dorn"), ld(2, cat(ld(1, "t1"), v(2, 5))), ld(3, "q1"), ld(3, "q2"))),
    ld(3, "x"),
    ld(4, cat(ld(1, "s"), v(2, -1))),
    ld(5, ld(1, RAW)))

# Aggregate fields of a metric value: number and whether it is a count. The
# values differ per field (the C++ side uses the same formula), so a swapped
# pair of numbers shows.
METRIC_AGGREGATES = [(10, False), (11, True), (12, False), (13, False), (14, False),
                     (15, False), (16, False), (17, False), (20, False), (30, False),
                     (31, True), (32, False), (33, False), (34, False), (35, False),
                     (36, False), (37, False), (38, False), (40, False), (41, False),
                     (42, False), (43, False), (44, False)]
METRIC_VALUE = cat(v(1, 3), v(2, 1700000000000), ld(3, "ms"), ld(4, "12"),
                   ld(5, cat(ld(1, "ep"), ld(2, "unix"))),
                   *[v(n, n * 1000 + 7) if count else dbl(n, n + 0.25)
                     for n, count in METRIC_AGGREGATES])

# name -> (module attribute path of the message class, hand-encoded bytes)
SAMPLES = {
    # fixed64 halves go little-endian, eight bytes each.
    "uuid": ("core.UuidMsg", uuid(0x0123456789ABCDEF, 0xFEDCBA9876543210)),
    "dorn_message": ("dorn.DornMessage", cat(
        v(1, 3),
        ld(2, "op-42"),
        ld(3, cat(ld(1, "obj-1"), ld(4, ld(1, "uname -a")))),
        ld(3, cat(ld(1, "obj-2"), ld(3, cat(ld(1, "/tmp/zel/h\u00e9llo.sh"),
                                            ld(2, "#!/bin/sh\necho \u00e9\n"), v(3, 1))))),
        ld(3, cat(ld(1, "obj-3"), ld(2, cat(ld(1, "zel-pkg"), ld(2, "1.2.3"), v(3, 2))))),
        ld(3, cat(ld(1, "obj-4"), ld(6, b""))),  # empty but present
        ld(3, cat(ld(1, "obj-5"), ld(5, cat(ld(1, "alice"), ld(2, "s3cret"))), ld(7, b""),
                  ld(8, ld(1, "ntpd")), ld(9, ld(1, "sshd")), ld(10, ld(1, "openssl")),
                  ld(11, b""))),
        ld(4, cat(v(1, 3), ld(2, "obj-1"), ld(3, "Linux"))),
        ld(4, cat(v(1, 8), ld(2, "obj-2"))),
        v(5, 1))),
    "dorn_mp_unified": ("dorn.DornMpUnifiedMsg", cat(
        ld(1, cat(v(1, 1), ld(2, "op-1"))),
        ld(2, ld(1, "dorn-1")),
        ld(3, "com.orvane.zel.dorn.DornFabricMessage.DornMessage"),
        ld(4, cat(ld(1, "sess"), v(2, 7))))),
    "host_unified": ("dorn.DornHostUnifiedMsg", HOST_UNIFIED),
    "generic_unified": ("generic.GenericUnifiedMsg", cat(
        ld(1, HOST_UNIFIED), ld(2, cat(ld(1, "session-9"), v(2, -5))))),
    "appl_proxy_info": ("applproxy.ApplProxyInfoRspMsg", cat(
        ld(1, uuid(0x0123456789ABCDEF, 0xFEDCBA9876543210)),
        ld(2, cat(ld(1, uuid(*APH1)), v(2, 1))),
        ld(2, cat(ld(1, uuid(*APH2)), v(2, 0))),  # an explicit false is kept
        ld(3, cat(v(1, 4), v(2, 1), v(3, 2), v(4, 0), ld(5, "rc1"), v(6, 123456))))),
    "discovery_response": ("messaging.DiscoveryResponseMsg", cat(
        ld(1, cat(
            ld(1, cat(ld(1, cat(ld(1, v(1, 0x7F000001)), ld(1, ld(2, bytes(range(0x20, 0x30)))),
                                ld(2, "mp.local"))),
                      v(2, 5671), ld(3, "/"), ld(4, "ab:cd"))),
            v(2, 30000), ld(3, v(1, 4)), ld(4, "admin"), ld(5, "h1"),
            ld(12, cat(ld(1, uuid(*APH1)), ld(2, ld(2, "aph")), v(3, 1234), ld(4, "PEM"),
                       ld(6, cat(v(1, 2), ld(2, uuid(*APH2)), v(3, 1))))))),
        ld(2, "c"), ld(5, "mq"), ld(6, cat(ld(1, "v"), ld(2, "q"))), ld(10, v(2, 1)),
        ld(11, cat(v(1, 3), ld(2, "mod"), ld(3, "det"))))),
    "rpc_stream_control": ("rpc.StreamControlMsg", cat(
        ld(1, "orvane.zel.metrics.MetricsCollector"),
        v(2, 1), v(3, 0), v(4, 1), ld(5, "bye"), v(6, 96), ld(7, "ep-2"),
        ld(8, "ep-1"), ld(9, v(1, 1)), ld(10, cat(v(1, 13), ld(2, "gone"))))),
    "rpc_frame": ("rpc.FrameMsg", cat(
        ld(1, cat(ld(1, cat(ld(1, "k1"), ld(2, "v1"))),
                  ld(1, cat(ld(1, "trace"), ld(2, ""))), ld(2, "cli"))),
        ld(2, cat(v(1, 1), ld(2, "ep-a"), ld(2, "ep-b"), v(3, 65535), ld(4, "svc1"))),
        ld(3, cat(v(1, (1 << 40) + 1), ld(2, "orvane.zel.metrics.MetricsCollector.Report"),
                  v(3, 0), v(4, 1), ld(5, cat(v(1, 15), ld(2, "boom"))))),
        ld(4, cat(v(1, 7), v(2, 1700000000123))),
        ld(5, cat(v(1, 8), v(2, 1700000000456))))),
    "metrics_report": ("metrics.MetricsReportMsg", cat(
        ld(1, cat(ld(1, "/"), ld(3, cat(ld(1, "zel"),
                                         ld(3, cat(ld(1, "rpc"), ld(2, METRIC_VALUE))),
                                         ld(3, ld(1, "idle")))))),
        ld(2, cat(ld(1, "source"), ld(2, "host-a"))),
        ld(2, cat(ld(1, "app"), ld(2, "zeldorn"))))),
}


def unknown_fields(msg, path):
    """Paths of every (sub)message that holds fields the schema lacks."""
    found = [path] if len(msg.UnknownFields()) else []
    for field, value in msg.ListFields():
        if field.message_type is None:
            continue
        values = value if field.label == field.LABEL_REPEATED else [value]
        for i, sub in enumerate(values):
            found += unknown_fields(sub, "%s.%s[%d]" % (path, field.name, i))
    return found


def main(argv):
    if len(argv) != 3 or argv[0] != "--gen" or argv[2] != "encode":
        fail("usage: wire_peer.py --gen DIR encode")
    try:
        from google.protobuf.internal import api_implementation
    except ImportError as exc:
        sys.stderr.write("wire_peer: %s has no google.protobuf (install the "
                         "python3-protobuf package): %s\n" % (sys.executable, exc))
        sys.exit(EXIT_NO_PROTOBUF)
    if api_implementation.Type() != "python":
        fail("protobuf runtime is '%s', expected the pure-Python one" % api_implementation.Type())
    sys.path.insert(0, argv[1])
    from orvane.zel import core_types_pb2 as core
    from orvane.zel.dorn import dorn_fabric_message_pb2 as dorn
    from orvane.zel.messaging import applproxyinfo_pb2 as applproxy
    from orvane.zel.messaging import generic_unified_messaging_pb2 as generic
    from orvane.zel.messaging import messaging_pb2 as messaging
    from orvane.zel.metrics import zel_metrics_pb2 as metrics
    from orvane.zel.rpc import zel_rpc_pb2 as rpc
    modules = dict(core=core, dorn=dorn, applproxy=applproxy, generic=generic,
                   messaging=messaging, metrics=metrics, rpc=rpc)

    errors, lines = [], []
    for name, (cls_path, wire) in SAMPLES.items():
        module, cls = cls_path.split(".")
        msg = getattr(modules[module], cls)()
        try:
            msg.ParseFromString(wire)
        except Exception as exc:  # DecodeError and friends
            errors.append("%s: hand bytes do not parse: %s" % (name, exc))
            continue
        for where in unknown_fields(msg, name):
            errors.append("%s: fields unknown to the schema" % where)
        if msg.SerializeToString() != wire:
            errors.append("%s: Python re-serialisation differs from the hand encoding\n"
                          "  python: %s\n  hand:   %s"
                          % (name, msg.SerializeToString().hex(), wire.hex()))
        lines.append("%s %s" % (name, wire.hex()))
    if errors:
        fail("\n".join(errors))
    print("\n".join(lines))


if __name__ == "__main__":
    main(sys.argv[1:])
