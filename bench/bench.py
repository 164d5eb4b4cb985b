"""Runs the measurements: starts the servers, each in a network and a /tmp of its own, has bench_load
measure them, and collects its lines in OUT/raw.jsonl. Called by run.sh inside private namespaces;
report.py makes tables and plots of the lines.
"""

import argparse
import json
import os
import platform
import re
import shutil
import signal
import struct
import subprocess
import sys
import time

WORK = "/run/bench"  # a tmpfs of the namespace
FORMS = [(1, 1), (1, 8), (4, 4)]  # connections, calls in flight on each
NAMES = ["null", "getattr", "lookup"]
DATA = ["read64k", "read4k", "vmmix", "write16k", "write4k"]
LISTINGS = ["readdir", "readdirplus"]
CORE = NAMES + DATA + ["create-remove"] + LISTINGS
OTHERS = ["setattr", "rename"]
REDIRECTED = ["redirected-memory-64k", "redirected-memory-4k", "redirected-info-64k",
              "redirected-info-4k"]
UDP = ["null", "getattr", "read4k"]
PIECES = "0,1460,4096"
GARBAGE = 1_000_000  # bytes that wait in the server's buffer of a mebibyte

GROWTH = {
    "paths": "10,1000,100000,1000000",
    "exports": "1,10,100,1000,10000",
    "sessions": "1,100,10000",
    "descriptors": "1,10,100,1023",
    "segments-memory": "1,100,10000,1000000",
    "segments-info": "1,100,10000,1000000",
    "entries": "10,100,1000,10000,100000",
    "connections": "1,2,3,4,5,6,7,8,9,10",
    "log": "1",
    "requests": "100000,1000000,10000000",
}

PATIENCE = 30  # seconds for a server to start or to end


def wait_for(condition, what, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"waited in vain for {what}")
        time.sleep(0.01)


class Server:
    """A server process, the subject NAME; `wrapper` is a command that it is started with."""

    def __init__(self, name, program, folder, environment=None, wrapper=()):
        self.name, self.folder = name, folder
        # Console output goes to a file: nobody has to keep up with a server that logs.
        self.log_path = f"{WORK}/{name}.log"
        script = ('ip link set lo up && mount -t tmpfs -o mode=1777 tmpfs /tmp && '
                  'if [ -n "$COUNTS_LIBRARY" ]; then export LD_PRELOAD=$COUNTS_LIBRARY; fi; '
                  'exec "$@"')
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                ["unshare", "-n", "-m", "sh", "-c", script, "sh", *wrapper, program, "-md", "svr"],
                stdin=subprocess.PIPE, stdout=log, stderr=subprocess.STDOUT,
                env={**os.environ, **(environment or {})})
        self.process.stdin.write(b"debug\nstart\n")
        self.process.stdin.flush()
        try:
            wait_for(self.listens, f"{name} to listen")
        except RuntimeError:
            self.process.kill()
            self.process.wait()
            with open(self.log_path, errors="replace") as log:
                sys.stderr.write(log.read()[-2000:])
            raise

    @property
    def pid(self):
        return self.process.pid

    def listens(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"{self.name} ended with {self.process.returncode}")
        # Until it is in its own network, this is ours, where nobody listens.
        listening = False
        with open(f"/proc/{self.pid}/net/tcp") as sockets:
            for line in sockets:
                fields = line.split()
                listening = listening or (fields[1].endswith(":0422") and fields[3] == "0A")
        # MOUNT (1058) is opened last.
        return listening and os.path.exists(f"/proc/{self.pid}/root/tmp/nfs-server")

    def subject(self):
        return f"{self.name}:nfs:{self.pid}:{self.folder}"

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        if self.alive():
            try:
                self.process.stdin.write(b"quit\n")
                self.process.stdin.flush()
                self.process.wait(PATIENCE)
            except (OSError, subprocess.TimeoutExpired):
                self.process.kill()
                self.process.wait()
        return self.process.returncode


class Bench:
    def __init__(self, arguments):
        self.arguments = arguments
        self.quick = arguments.mode == "quick"
        self.raw = open(f"{arguments.out}/raw.jsonl", "w")
        self.failures = 0
        self.servers = []
        self.echo = None
        self.net = "loopback"
        self.began = time.monotonic()
        # Many short rounds: the median then passes over what else the machine was doing.
        self.rounds = arguments.rounds or (7 if arguments.mode == "full" else 3)
        self.seconds = 0.12 if self.quick else 0.18

    # ------------------------------------------------------------------------------------------
    # Lines
    # ------------------------------------------------------------------------------------------

    def emit(self, line, **context):
        self.raw.write(json.dumps({**line, **context}) + "\n")
        self.raw.flush()

    def say(self, text):
        print(f"[{time.monotonic() - self.began:6.1f} s] {text}", flush=True)

    def fail(self, what, reason):
        self.failures += 1
        self.emit({"type": "error", "what": what, "reason": reason})
        self.say(f"FAILED {what}: {reason}")

    def wanted(self, *names):
        only = self.arguments.only
        return not only or any(name in only for name in names)

    # ------------------------------------------------------------------------------------------
    # Processes
    # ------------------------------------------------------------------------------------------

    def load(self, command, what, timeout=600, **context):
        """Runs bench_load and collects its lines; an empty list when it fails."""
        try:
            done = subprocess.run([*self.pinned(1), self.arguments.load, *map(str, command)],
                                  capture_output=True, text=True, timeout=timeout)
        except subprocess.TimeoutExpired:
            self.fail(what, f"took longer than {timeout} s")
            return []
        lines = [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]
        if done.returncode != 0:
            self.fail(what, done.stderr.strip()[-500:] or f"exit code {done.returncode}")
            return []
        for line in lines:
            self.emit(line, net=self.net, **context)
        return lines

    def pinned(self, core):
        """With --pin servers have one core and the clients another one."""
        return ["taskset", "-c", str(core % os.cpu_count())] if self.arguments.pin else []

    def folder(self, name):
        folder = f"{WORK}/{name}"
        if not os.path.isdir(folder):
            os.makedirs(folder)
            subprocess.run([self.arguments.load, "prepare", folder], check=True)
        return folder

    def start(self):
        """Starts whatever does not run: the servers and the echo server, in the first one's
        network."""
        programs = [("tree", self.arguments.tree)]
        if self.arguments.against:
            programs.append(("main", self.arguments.against))
        if self.servers and all(server.alive() for server in self.servers) and \
                self.echo and self.echo.poll() is None:
            return
        self.stop()
        self.servers = [Server(name, program, self.folder(name), wrapper=self.pinned(0))
                        for name, program in programs]
        self.echo = subprocess.Popen(
            ["nsenter", f"--net=/proc/{self.servers[0].pid}/ns/net", *self.pinned(0),
             self.arguments.load, "echo", self.folder("bare")], stdout=subprocess.PIPE)
        if self.echo.stdout.readline() != b"ready\n":
            raise RuntimeError("the echo server does not start")
        self.set_net(self.net)

    def stop(self):
        for server in self.servers:
            code = server.stop()
            if code != 0:
                self.fail(f"server {server.name}", f"ended with {code}")
        if self.echo:
            self.echo.kill()
            self.echo.wait()
        self.servers, self.echo = [], None

    def set_net(self, net):
        self.net = net
        mtu, switch = ("1500", "off") if net == "mtu1500" else ("65536", "on")
        for server in self.servers:
            inside = ["nsenter", f"--net=/proc/{server.pid}/ns/net"]
            subprocess.run([*inside, "ip", "link", "set", "lo", "mtu", mtu], check=True)
            subprocess.run([*inside, "ethtool", "-K", "lo", "tso", switch, "gso", switch, "gro",
                            switch], check=True, stdout=subprocess.DEVNULL)

    # ------------------------------------------------------------------------------------------
    # The wire
    # ------------------------------------------------------------------------------------------

    def subjects(self, workload):
        subjects = [server.subject() for server in self.servers]
        if workload in CORE + OTHERS:
            subjects.append(f"bare:echo:{self.echo.pid}:{WORK}/bare")
        if workload in DATA:
            subjects.append(f"bare-io:echoio:{self.echo.pid}:{WORK}/bare")
        return subjects

    def cell(self, workload, form, options=(), section="matrix"):
        self.start()
        connections, depth = form
        rounds = min(self.rounds, 3) if workload in LISTINGS else self.rounds
        what = f"{workload} {connections}x{depth} {self.net} {section}"
        command = ["ipc"] if workload == "ipc" else ["load", workload]
        lines = self.load([*command, "--connections", connections, "--depth", depth,
                           "--rounds", rounds, "--seconds", self.seconds, *options,
                           *self.subjects(workload)], what, section=section)
        rates = {}
        for line in lines:
            if not line["pieces"] and not line["garbage"]:
                rates.setdefault(line["subject"], []).append(line["rate"])
        if rates:
            self.say(what + ":  " + "  ".join(
                f"{subject} {sorted(values)[len(values) // 2]:,.0f}"
                for subject, values in rates.items()))

    def wire(self):
        for net in ["loopback"] if self.quick else ["loopback", "mtu1500"]:
            self.start()
            self.set_net(net)
            for workload in filter(self.wanted, CORE):
                for form in FORMS:
                    self.cell(workload, form)
        self.set_net("loopback")
        others = OTHERS + REDIRECTED + ["ipc", "callback"]
        if self.quick and not self.arguments.only:
            others = ["ipc", "callback", "redirected-memory-4k"]
        for workload in filter(self.wanted, others):
            for form in FORMS[:2] if self.quick else FORMS:
                self.cell(workload, form)
        for workload in filter(self.wanted, UDP[:1] if self.quick else UDP):
            for form in FORMS[:2]:
                self.cell(workload, form, ["--udp"], "udp")
        if self.wanted("write16k", "pieces"):
            for form in FORMS[:2] if self.quick else FORMS:
                self.cell("write16k", form, ["--pieces", PIECES], "pieces")
            self.cell("write16k", FORMS[0], ["--pieces", PIECES, "--gap", 100], "pieces-alone")
        if self.wanted("getattr", "garbage"):
            for form in FORMS[:1]:
                self.cell("getattr", form, ["--garbage", GARBAGE], "garbage")
        self.stop()

    # ------------------------------------------------------------------------------------------
    # Counters: what two runs of different length differ in is the calls', the rest set-up
    # ------------------------------------------------------------------------------------------

    COUNTED = CORE + OTHERS + REDIRECTED + ["ipc", "callback"]

    def run_count(self, server, workload, operations):
        """Calls of one run, or 0."""
        command = ["ipc"] if workload == "ipc" else ["load", workload]
        done = subprocess.run(
            [self.arguments.load, *command, "--rounds", "1", "--operations", str(operations),
             server.subject()], capture_output=True, text=True, timeout=300)
        if done.returncode != 0:
            self.fail(f"counting {workload}", done.stderr.strip()[-500:])
            return 0
        return json.loads(done.stdout.splitlines()[-1])["calls"]

    @staticmethod
    def operations(workload, few, many):
        # A listing of 2,000 names is 201 calls.
        return (1, 3) if workload in LISTINGS else (few, many)

    def counters(self):
        programs = [("tree", self.arguments.tree)]
        if self.arguments.against:
            programs.append(("main", self.arguments.against))
        workloads = [name for name in self.COUNTED if self.wanted(name, "counters")]
        if self.quick:
            workloads = [name for name in workloads if name in CORE]
        for name, program in programs:
            self.count_calls(name, program, workloads)
            if not self.quick and shutil.which("valgrind"):
                self.count_instructions(name, program, [w for w in workloads if w in CORE])

    def count_calls(self, name, program, workloads):
        counts_path = f"{WORK}/counts-{name}"
        server = Server(name, program, self.folder(name), {
            "COUNTS_LIBRARY": self.arguments.counts, "VELOCAST_COUNTS": counts_path})

        def counts():
            with open(counts_path, "rb") as file:
                return struct.unpack("<3Q", file.read(24))

        for workload in workloads:
            runs = []
            few, many = self.operations(workload, 100, 1100)
            self.run_count(server, workload, few)  # what only the first call of a path does
            for operations in (few, many):
                before = counts()
                strace = Strace(server.pid)
                calls = self.run_count(server, workload, operations)
                system_calls = strace.stop()
                difference = [b - a for a, b in zip(before, counts())]
                runs.append((calls, difference, system_calls))
            (few, few_counts, few_system), (many, many_counts, many_system) = runs
            # Calls from here on: a listing is more than one.
            if many <= few:
                continue
            per_call = {
                system_call: (many_system.get(system_call, 0) - few_system.get(system_call, 0)) /
                (many - few) for system_call in many_system}
            # A tenth of a call is noise of threads that come and go.
            per_call = {key: value for key, value in per_call.items() if value > 0.1}
            allocations, size, locks = (
                max(b - a, 0) / (many - few) for a, b in zip(few_counts, many_counts))
            self.emit({"type": "counters", "workload": workload, "subject": name,
                       "system_calls": sum(per_call.values()), "by_name": per_call,
                       "allocations": allocations, "allocated_bytes": size, "locks": locks})
            self.say(f"{workload} ({name}): {sum(per_call.values()):.1f} system calls, "
                     f"{allocations:.1f} allocations, {locks:.1f} locks a call")
        server.stop()

    def count_instructions(self, name, program, workloads):
        for workload in workloads:
            totals = []
            for operations in self.operations(workload, 50, 350):
                profile = f"{WORK}/callgrind"
                server = Server(name, program, self.folder(name), wrapper=[
                    "valgrind", "--tool=callgrind", "-q", f"--callgrind-out-file={profile}"])
                calls = self.run_count(server, workload, operations)
                server.stop()
                with open(profile) as file:
                    found = re.findall(r"^totals: (\d+)", file.read(), re.MULTILINE)
                totals.append((calls, sum(map(int, found))))
            (few, few_total), (many, many_total) = totals
            if many > few:
                instructions = (many_total - few_total) / (many - few)
                self.emit({"type": "instructions", "workload": workload, "subject": name,
                           "instructions": instructions})
                self.say(f"{workload} ({name}): {instructions:,.0f} instructions a call")

    # ------------------------------------------------------------------------------------------
    # Life and growth
    # ------------------------------------------------------------------------------------------

    def life(self):
        if not self.wanted("life"):
            return
        programs = [("tree", self.arguments.tree)]
        if self.arguments.against:
            programs.append(("main", self.arguments.against))
        for name, program in programs:
            for round_number in range(3 if self.quick else 5):
                # Each time in a network where no connection lingers.
                done = subprocess.run(
                    ["unshare", "-n", "-m", "sh", "-c",
                     'ip link set lo up && mount -t tmpfs tmpfs /tmp && exec "$@"', "sh",
                     self.arguments.load, "life", program],
                    capture_output=True, text=True, timeout=120)
                if done.returncode != 0:
                    self.fail("life", done.stderr.strip()[-500:])
                    return
                line = json.loads(done.stdout)
                self.emit(line, subject=name, round=round_number)
            self.say(f"life ({name}): first answer {line['first_answer_ms']:.1f} ms, "
                     f"quit {line['quit_ms']:.1f} ms")

    def growth(self):
        programs = [("tree", self.arguments.tree)]
        if self.arguments.against:
            programs.append(("main", self.arguments.against))
        for what, levels in GROWTH.items():
            if not self.wanted(what):
                continue
            for name, program in programs:
                folder = self.folder(f"growth-{name}")
                server = Server(name, program, folder, wrapper=self.pinned(0))
                # A full run of the slowest of them, ten million requests, takes minutes.
                lines = self.load(["grow", what, levels, "--rounds", self.rounds, "--seconds", 0.3,
                                   server.subject()], f"growth of {what}", timeout=3600)
                for line in lines:
                    if "micros" in line:
                        self.say(f"{what} {line['level']:>8,}  {line['operation']} ({name}): "
                                 f"{line['micros']:.1f} us")
                server.stop()
                shutil.rmtree(folder)

    # ------------------------------------------------------------------------------------------

    def machine(self):
        def first_line(command):
            try:
                done = subprocess.run(command, capture_output=True, text=True)
                return done.stdout.splitlines()[0] if done.stdout else ""
            except OSError:
                return ""

        with open("/proc/cpuinfo") as cpuinfo:
            models = re.findall(r"^model name\s*: (.*)$", cpuinfo.read(), re.MULTILINE)
        with open("/proc/meminfo") as meminfo:
            memory = int(re.search(r"MemTotal:\s*(\d+)", meminfo.read()).group(1))
        self.emit({
            "type": "machine", "time": time.strftime("%Y-%m-%d %H:%M:%S"),
            "mode": self.arguments.mode, "pinned": self.arguments.pin, "commit": self.arguments.commit,
            "against": self.arguments.against_commit, "cpu": models[0] if models else "unknown",
            "cores": os.cpu_count(), "memory_mib": memory // 1024, "kernel": platform.release(),
            "compiler": first_line(["g++", "--version"]), "load": os.getloadavg(),
            "seconds": self.seconds, "rounds": self.rounds})

    def run(self):
        self.machine()
        try:
            if self.arguments.mode == "growth":
                self.growth()
            else:
                self.wire()
                self.counters()
            self.life()
        finally:
            self.stop()
            self.emit({"type": "end", "load": os.getloadavg(), "failures": self.failures,
                       "seconds": time.monotonic() - self.began})
            self.raw.close()
        return 1 if self.failures else 0


class Strace:
    """Counts the system calls of a process, all threads, by name."""

    def __init__(self, pid):
        self.path = f"{WORK}/strace"
        self.process = subprocess.Popen(
            ["strace", "-f", "-c", "-q", "-U", "calls,name", "-o", self.path, "-p", str(pid)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

        def traced():
            if self.process.poll() is not None:
                raise RuntimeError("strace does not run")
            for task in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{task}/status") as status:
                    if re.search(r"^TracerPid:\s*0$", status.read(), re.MULTILINE):
                        return False
            return True

        wait_for(traced, "strace to attach")

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(PATIENCE)
        with open(self.path) as table:
            rows = re.findall(r"^\s*(\d+)\s+(\w+)\s*$", table.read(), re.MULTILINE)
        return {name: int(calls) for calls, name in rows if name != "total"}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--mode", choices=["full", "quick", "growth"], default="full")
    for name in ["tree", "load", "counts", "out", "commit"]:
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--against")
    parser.add_argument("--against-commit")
    parser.add_argument("--only", action="append", default=[])
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--pin", action="store_true")
    arguments = parser.parse_args()
    # A level must not differ from another by where the scheduler had put the two sides.
    arguments.pin = arguments.pin or arguments.mode == "growth"
    os.makedirs(WORK, exist_ok=True)
    # The programs may lie below a folder that the servers' own /tmp hides.
    for name in ["tree", "against", "load", "counts"]:
        program = getattr(arguments, name)
        if program:
            setattr(arguments, name, shutil.copy(program, f"{WORK}/{name}.program"))
    return Bench(arguments).run()


sys.exit(main())
