"""What is measured: how a client is asked for it, where, how often, and which figure stands for it."""

from dataclasses import dataclass, field

KIB = 1 << 10
MIB = 1 << 20

FREE, ONE_CPU, SPLIT = "free", "1cpu", "split"
PLACEMENTS = (FREE, ONE_CPU, SPLIT)


@dataclass(frozen=True)
class Measure:
    name: str
    figure: str  # the field that the tables show first
    client: str  # --measure of the client
    arguments: dict = field(default_factory=dict)
    seconds: float = 0.3
    placements: tuple = (FREE,)
    hogs: int = 0
    rounds: int = 1000  # at most so many: what hardly varies, or takes long
    tcp: bool = False  # also for the peers over TCP
    quick: bool = True
    quick_arguments: dict = field(default_factory=dict)
    layer: bool = False  # only of the peers that name it
    what: str = ""


def _callers(count, quick):
    return Measure(f"callers-{count}", "calls_s", "callers", {"threads": count}, tcp=count == 8, quick=quick,
                   what=f"{count} threads call over one connection")


def _echo(name, size, tcp=False, quick=True, seconds=0.25):
    return Measure(f"echo-{name}", "mb_s", "echo", {"size": size}, seconds, tcp=tcp, quick=quick,
                   what=f"{name.upper()} there and back in one message")


def _slow(count):
    return Measure(f"slow-{count}", "p99_us", "beside_slow", {"threads": count}, quick=count == 3,
                   what=f"the small call beside {count} connections with handlers that sleep 0-300 us")


MEASURES = [
    Measure("call", "p50_us", "call", seconds=0.5, placements=PLACEMENTS, tcp=True,
            what="small call: an integer, a short string and 64 bytes, echoed and compared"),
    *[_callers(count, count == 8) for count in (1, 2, 4, 8, 16)],
    Measure("connections-8", "calls_s", "connections", {"threads": 8}, tcp=True,
            what="8 connections with one caller each"),
    Measure("async-10000", "calls_s", "many", {"calls": 10000}, layer=True,
            what="10,000 calls under way at a time from one thread, each of which ends in a function"),
    *[_slow(count) for count in (1, 3, 8)],
    Measure("posts-1", "posts_s", "posts", {"threads": 1}, what="calls that nobody waits for, from one thread"),
    Measure("posts-8", "posts_s", "posts", {"threads": 8}, what="calls that nobody waits for, from 8 threads"),
    Measure("back", "p50_us", "back", what="small call from the server to its client"),
    Measure("back-after-call", "p50_us", "back_after_call", what="the same, right after a call of that client's"),
    _echo("4k", 4 * KIB, quick=False, seconds=0.15),
    _echo("64k", 64 * KIB, quick=False, seconds=0.15),
    _echo("1m", MIB, tcp=True),
    _echo("16m", 16 * MIB, tcp=True),
    Measure("large-16m", "mb_s", "echo_large", {"size": 16 * MIB}, 0.25,
            what="16 MiB there and back by the means for data of any size (SendMsgEx)"),
    Measure("large-256m", "mb_s", "echo_large", {"size": 256 * MIB}, 0.01, rounds=5, quick=False,
            what="256 MiB there and back by the means for data of any size (SendMsgEx)"),
    Measure("travel", "p99_us", "beside_travel", {"size": 256 * MIB}, quick_arguments={"size": 16 * MIB},
            what="the small call while 256 MiB travel there and back"),
    Measure("open", "opens_s", "open", tcp=True, what="connect, version check, first call"),
    Measure("idle-1000", "kib", "hold", {"connections": 1000}, rounds=2, quick=False,
            what="memory of the server for each of 1,000 idle connections, KiB"),
    Measure("idle-10000", "kib", "hold", {"connections": 10000}, rounds=1, quick=False,
            what="memory of the server for each of 10,000 idle connections, KiB"),
    Measure("idle-wakeups", "wakeups", "idle", rounds=1,
            what="wake-ups in a second of a client and a server that have nothing to do"),
    Measure("syscalls", "syscalls", "call", placements=(FREE, ONE_CPU), rounds=1,
            what="system calls for each small call, both processes"),
    Measure("hogs-call", "p50_us", "call", hogs=2, tcp=True, what="the small call beside two busy processes"),
    Measure("hogs-callers-8", "calls_s", "callers", {"threads": 8}, hogs=2, quick=False, what="callers-8 beside them"),
    Measure("hogs-connections-8", "calls_s", "connections", {"threads": 8}, hogs=2, quick=False,
            what="connections-8 beside them"),
    Measure("hogs-posts-1", "posts_s", "posts", {"threads": 1}, hogs=2, quick=False, what="posts-1 beside them"),
    Measure("hogs-back", "p50_us", "back", hogs=2, quick=False, what="back beside them"),
    Measure("hogs-echo-1m", "mb_s", "echo", {"size": MIB}, 0.25, hogs=2, quick=False, what="echo-1m beside them"),
    Measure("hogs-open", "opens_s", "open", hogs=2, quick=False, what="open beside them"),
]
