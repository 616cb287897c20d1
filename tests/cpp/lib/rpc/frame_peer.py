"""Independent peer for the RPC frame test.

Builds whole frames for a set of named samples with the pure-Python protobuf
runtime (modules from protoc --python_out) and a header packed by hand from
the wire layout: flags (1 byte), stream control size (1), frame size (2,
little-endian), payload size (4, little-endian), stream id (16). Prints one
line per sample, "<name> <hex>", for the C++ test to compare with its own
frames and to parse.

  frame_peer.py --gen DIR

Exit status 3 means the interpreter lacks google.protobuf.
"""

import os
import struct
import sys

os.environ["PROTOCOL_BUFFERS_PYTHON_IMPLEMENTATION"] = "python"


def main():
    if len(sys.argv) != 3 or sys.argv[1] != "--gen":
        sys.stderr.write("usage: frame_peer.py --gen DIR\n")
        return 2
    sys.path.insert(0, sys.argv[2])
    try:
        from orvane.zel.rpc import zel_rpc_pb2 as rpc
    except ImportError as e:
        sys.stderr.write("frame_peer: %s\n" % e)
        return 3

    sid = bytes(range(16))
    zero = bytes(16)

    def frame(stream_id, control, msg, payload=b""):
        sc = control.SerializeToString()
        fr = msg.SerializeToString()
        header = struct.pack("<BBHI16s", 0, len(sc), len(fr), len(payload), stream_id)
        return header + sc + fr + payload

    samples = []

    c = rpc.StreamControlMsg(service="orvane.zel.Echo", open_stream=True, priority=64)
    samples.append(("open", frame(sid, c, rpc.FrameMsg())))

    f = rpc.FrameMsg()
    f.rpc_msg.call_id = 7
    f.rpc_msg.method = "orvane.zel.Echo.Say"
    f.rpc_msg.has_payload = True
    h = f.header.header.add()
    h.key = "a"
    h.value = "b"
    f.header.client_id = "c"
    samples.append(("call", frame(sid, rpc.StreamControlMsg(), f, b"hello")))

    f = rpc.FrameMsg()
    f.rpc_msg.call_id = 7
    f.rpc_msg.status.code = rpc.RpcStatusMsg.INTERNAL
    f.rpc_msg.status.error_msg = "boom"
    samples.append(("status", frame(sid, rpc.StreamControlMsg(), f)))

    f = rpc.FrameMsg()
    f.settings.version = rpc.RPC_V1
    f.settings.endpoint_id.append("ep1")
    f.settings.service.extend(["s1", "s2"])
    samples.append(("settings", frame(zero, rpc.StreamControlMsg(), f)))

    f = rpc.FrameMsg()
    f.keep_alive_request.request_id = 1
    f.keep_alive_request.timestamp = 99
    samples.append(("keepalive", frame(zero, rpc.StreamControlMsg(), f)))

    c = rpc.StreamControlMsg(close_stream=True, DEPRECATED_close_reason="No Service x")
    samples.append(("close", frame(sid, c, rpc.FrameMsg())))

    for name, data in samples:
        print(name, data.hex())
    return 0


if __name__ == "__main__":
    sys.exit(main())
