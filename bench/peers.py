"""Who is measured: the programs, the packages they need, and the address they listen at."""

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Peer:
    name: str
    program: str  # bench_<program>_server and bench_<program>_client
    flavour: str = ""
    transport: str = "unix"
    packages: tuple = ()
    note: str = ""
    environment: dict = field(default_factory=dict)
    left_out: dict = field(default_factory=dict)  # measure -> why
    measures: tuple = ()  # these only


RAW = "raw"
BEST = "raw-best"
RAW_TCP = "raw-tcp"

PEERS = [
    Peer(RAW, "raw", note="blocking ping-pong over a Unix socket, a thread for each connection"),
    Peer(BEST, "raw", "polling", note="the same; both sides look for 20 us before they sleep"),
    Peer("libmivo", "mivo", note="handlers on the plain interface; callers use SendMsgFast"),
    Peer("grpc", "grpc", packages=("libgrpc++-dev", "protobuf-compiler-grpc", "libprotobuf-dev"),
         note="gRPC C++, synchronous server and stubs"),
    Peer("capnp", "capnp", packages=("libcapnp-dev", "capnproto"), note="Cap'n Proto RPC, one event loop a side"),
    Peer("thrift-buffered", "thrift", "buffered", packages=("libthrift-dev", "thrift-compiler"),
         note="Apache Thrift, binary protocol, a thread for each connection"),
    Peer("thrift-framed", "thrift", "framed", packages=("libthrift-dev", "thrift-compiler"),
         note="the same with framed transport"),
    Peer("zmq-req", "zmq", "req", packages=("libzmq3-dev",), note="ZeroMQ REQ/REP, one thread answers"),
    Peer("zmq-dealer", "zmq", "dealer", packages=("libzmq3-dev",), note="ZeroMQ DEALER/ROUTER, four workers"),
    Peer("nng", "nng", packages=("libnng-dev",), note="nng req/rep, four workers with contexts"),
    Peer("sd-bus", "sdbus", packages=("libsystemd-dev",), note="sd-bus peer to peer, one thread a side",
         left_out={"idle-10000": "its loop looks at all connections in each turn; opening so many takes minutes"}),
    Peer("libmivo-add", "mivo_add", "plain", measures=("call",),
         note="the sum of two numbers through the plain interface"),
    Peer("libmivo-add-typed", "mivo_add", "typed", measures=("call", "async-10000"),
         note="the same through the typed layer"),
    Peer(RAW_TCP, "raw", transport="tcp", note="raw over TCP loopback"),
    Peer("libmivo-tcp", "mivo", transport="tcp", note="libmivo over TCP loopback"),
    Peer("grpc-tcp", "grpc", transport="tcp", packages=("libgrpc++-dev", "protobuf-compiler-grpc", "libprotobuf-dev"),
         note="gRPC C++ over TCP loopback"),
]

LAYERS = tuple(peer.name for peer in PEERS if peer.measures)
TCP = tuple(peer.name for peer in PEERS if peer.transport == "tcp")
