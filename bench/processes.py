"""Starting servers and clients, placing them on CPUs, and ending them."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

from measures import FREE, SPLIT

ALL_CPUS = os.sched_getaffinity(0)


class Failed(Exception):
    pass


def cpus_of(placement, side):
    if placement == FREE:
        return ALL_CPUS
    if placement == SPLIT and side == "server":
        return {max(ALL_CPUS)}
    return {min(ALL_CPUS)}


def _free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """One server process. Its standard input ends when this one does, so that it never stays behind."""

    _count = 0

    def __init__(self, peer, programs, wrapper=()):
        self.peer = peer
        self.programs = programs
        Server._count += 1
        self.log = tempfile.TemporaryFile(mode="w+")
        self.socket_files = []
        if peer.transport == "tcp":
            self.address = f"tcp:127.0.0.1:{_free_port()}"
        else:
            # Where libmivo puts its local sockets; the others follow.
            path = f"/tmp/echo.sock.bench{os.getpid()}-{Server._count}"
            self.address = "unix:" + path
            self.socket_files = [path, path + ".posts"]
        command = [*wrapper, os.path.join(programs, f"bench_{peer.program}_server"), "--address", self.address]
        if peer.flavour:
            command += ["--flavour", peer.flavour]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.log,
                                        text=True, env={**os.environ, **peer.environment})
        killer = threading.Timer(60 if wrapper else 20, self.process.kill)
        killer.start()
        line = self.process.stdout.readline()
        killer.cancel()
        if "READY" not in line:
            text = self._log_text()
            self.stop()
            raise Failed(f"the server of {peer.name} did not start: {text}")

    def _log_text(self):
        self.log.seek(0)
        return self.log.read().strip()[-300:]

    @property
    def pid(self):
        return self.process.pid

    def alive(self):
        return self.process.poll() is None

    def place(self, cpus):
        for task in os.listdir(f"/proc/{self.pid}/task"):
            try:
                os.sched_setaffinity(int(task), cpus)
            except OSError:
                pass  # a thread that has just ended

    def resident_kib(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return int(re.search(r"^VmRSS:\s+(\d+)", status.read(), re.M).group(1))

    def start_client(self, measure, arguments, cpus=None, wrapper=()):
        command = [*wrapper, os.path.join(self.programs, f"bench_{self.peer.program}_client"),
                   "--address", self.address, "--measure", measure, "--server-pid", str(self.pid)]
        if self.peer.flavour:
            command += ["--flavour", self.peer.flavour]
        for name, value in arguments.items():
            command += ["--" + name, str(value)]
        errors = tempfile.TemporaryFile(mode="w+")
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, text=True,
                                   env={**os.environ, **self.peer.environment},
                                   preexec_fn=lambda: os.sched_setaffinity(0, cpus or ALL_CPUS))
        process.errors = errors
        return process

    def client(self, measure, arguments, cpus=None, wrapper=(), timeout=120):
        process = self.start_client(measure, arguments, cpus, wrapper)
        try:
            output, _ = process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise Failed(f"no result within {timeout} s") from None
        process.errors.seek(0)
        said = process.errors.read().strip()[-300:]
        process.errors.close()
        if process.returncode != 0 or not output.startswith("{"):
            raise Failed(f"client ended with {process.returncode}: {said} {self._log_text()}")
        return json.loads(output)

    def stop(self):
        try:
            self.process.stdin.close()
        except OSError:
            pass
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        self.log.close()
        for path in self.socket_files:
            if os.path.exists(path):
                os.unlink(path)


class Hogs:
    """Busy processes that want every CPU; they end by themselves should nobody end them."""

    def __init__(self, count, seconds=120):
        busy = f"import time\nend = time.monotonic() + {seconds}\nwhile time.monotonic() < end: pass"
        self.processes = [subprocess.Popen([sys.executable, "-c", busy]) for _ in range(count)]
        if count:
            time.sleep(0.1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process in self.processes:
            process.kill()
            process.wait()


def idle_memory(server, connections, each=1000):
    """KiB of the server's memory for each idle connection, which several client processes hold."""
    first = server.client("call", {"calls": 1})
    if "left_out" in first:
        return first
    time.sleep(0.2)
    before = server.resident_kib()
    clients = []
    try:
        for begin in range(0, connections, each):
            clients.append(server.start_client("hold", {"connections": min(each, connections - begin)}))
            answer = _line_within(clients[-1], 60)
            if "left_out" in answer:
                return json.loads(answer)
            if "held" not in answer:
                clients[-1].errors.seek(0)
                raise Failed(f"connections were not held: {clients[-1].errors.read().strip()[-200:]}")
        time.sleep(0.3)
        return {"kib": round((server.resident_kib() - before) / connections, 2)}
    finally:
        for client in clients:
            client.stdin.close()
            try:
                client.wait(20)
            except subprocess.TimeoutExpired:
                client.kill()
                client.wait()
            client.stdout.close()
            client.errors.close()


def _line_within(process, seconds):
    killer = threading.Timer(seconds, process.kill)
    killer.start()
    line = process.stdout.readline()
    killer.cancel()
    return line


class SystemCalls:
    """Counts system calls with perf, or with strace where perf cannot; says why where neither can."""

    def __init__(self, tools=("perf", "strace")):
        self.reason = ""
        self.tool = ""
        probes = {
            "perf": ["perf", "stat", "-e", "raw_syscalls:sys_enter", "-x,", "true"],
            "strace": ["strace", "-f", "-c", "-o", os.devnull, "true"],
        }
        for tool in tools:
            probe = probes[tool]
            if shutil.which(tool) and self._works(probe):
                self.tool = tool
                return
        self.reason = f"system calls cannot be counted here with {' or '.join(tools)}"

    @staticmethod
    def _works(command):
        run = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
        return run.returncode == 0 and "not supported" not in run.stderr and "No permission" not in run.stderr

    def of_both(self, server, cpus, calls):
        """How many one client's life takes that makes so many small calls: (of the server, of the client)."""
        with tempfile.TemporaryDirectory() as folder:
            files = [os.path.join(folder, side) for side in ("server", "client")]
            if self.tool == "perf":
                perf = ["perf", "stat", "-e", "raw_syscalls:sys_enter", "-x,", "-o"]
                server.client("call", {"calls": calls}, cpus,
                              [*perf, files[0], "-p", str(server.pid), "--", *perf, files[1], "--"])
                return [self._perf_count(path) for path in files]
            strace = ["strace", "-f", "-c", "-o"]
            follower = subprocess.Popen([*strace, files[0], "-p", str(server.pid)], stderr=subprocess.PIPE, text=True)
            follower.stderr.readline()  # it says when it is attached
            server.client("call", {"calls": calls}, cpus, [*strace, files[1]])
            follower.send_signal(signal.SIGINT)
            follower.communicate(timeout=20)
            return [self._strace_count(path) for path in files]

    @staticmethod
    def _perf_count(path):
        with open(path, encoding="ascii") as report:
            return sum(int(line.split(",")[0]) for line in report if "raw_syscalls" in line)

    @staticmethod
    def _strace_count(path):
        with open(path, encoding="ascii") as report:
            return sum(int(re.split(r"\s+", line.strip())[3]) for line in report if line.strip().endswith("total"))

    def per_call(self, server, cpus, few=300, many=3300):
        """The difference between many calls and few, so that starting, connecting and ending do not count."""
        if not self.tool:
            return {"left_out": self.reason}
        counts = [self.of_both(server, cpus, calls) for calls in (few, many)]
        per_call = [(b - a) / (many - few) for a, b in zip(*counts)]
        return {"server_syscalls": round(per_call[0], 2), "client_syscalls": round(per_call[1], 2),
                "syscalls": round(sum(per_call), 2), "tool": self.tool}
