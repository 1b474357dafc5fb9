#!/usr/bin/python3
"""Compares the tool with scp and rsync; started by bench/run. See README.md."""
import argparse
import contextlib
import dataclasses
import itertools
import json
import os
import socket
import statistics
import subprocess
import sys
import time

from contestants import (BINARY, CATALOGUED, ENVIRONMENT, HOST, OFFERED, PEER, PRISTINE, ROOT, TOP, BenchHost, Link,
                         catalogue, further_pass, link_files, make_pristine, measure,
                         negotiated_algorithms, offer, remove, rsync, same, scp, sondrel, ssh, ssh_cat, timed)
from figure import Figure
from linux_agent import install_linux_agent
from linux_host import web_host
from link_speed import round_trips, seconds_to_send
from publish import publish
from report import as_json, machine, row
from source_services import add_user
from world import content_verified, enter_private_network, write

MEMORY = "/mnt/target"  # tmpfs
DISK = f"{TOP}/build/bench/disk.{os.getpid()}"
MB = 10**6
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
SMALL = 8 * KIB


def speed(measured, peers=("scp", "rsync"), least=None):
    """How many times as fast as the fastest peer the tool is."""
    fastest = min(peers, key=lambda peer: measured[peer].seconds)
    return Figure(f"speed, {fastest} = 1:", measured[fastest].seconds / measured["sondrel"].seconds, "", least=least)


def peak(measured):
    return Figure("peak memory", measured["sondrel"].peak_mib, "MiB", most=32)


class Bench:
    """Runs the cases. Each case returns its measurements ({contestant: Runs}) and figures."""

    def __init__(self, pairs, scale):
        self._pairs = pairs
        self._scale = scale

    def scaled(self, number):
        return max(1, round(number * self._scale))

    def fetch(self, count, size, link, target=MEMORY, with_cat=False, removal=False):
        """--get-content and its peers. With `removal` the peers remove what they have copied, as the tool does."""
        algorithms = negotiated_algorithms() if with_cat else None
        offer(make_pristine(count, size), size)
        here = f"{target}/archives"
        contestants = {"sondrel": sondrel(link, target), "scp": scp(link, f"{PEER}:{OFFERED}", here),
                       "rsync": rsync(link, f"{PEER}:{OFFERED}", here)}
        if with_cat:
            name = "content/000/000000"
            contestants["ssh cat"] = ssh_cat(link, f"{ROOT.agent_dir}/{name}", f"{here}/{name}", *algorithms)
        if removal:
            for name in "scp", "rsync":
                contestants[name] += ssh(link, "rm", "-r", OFFERED)

        def prepare():
            remove(target)
            os.makedirs(here)
            link_files(OFFERED)
            os.sync()  # so that this run does not pay for another one's unwritten data

        def check(name):
            same(PRISTINE, f"{here}/content")
            left = sum(len(files) for _, _, files in os.walk(OFFERED))
            if left != (0 if removal or name == "sondrel" else count):
                sys.exit(f"{name} has left {left} files")

        return measure(contestants, self._pairs, prepare, check)

    def set_up(self, link, action="get-content"):
        """The median seconds of a run that transfers no file."""
        if action == "get-content":
            offer({})
        else:
            catalogue(0, 0)
        contestants = {"sondrel": sondrel(link, MEMORY, action)}
        return measure(contestants, self._pairs)["sondrel"].seconds

    def one_file(self, size, rtt_ms=0, gbit=None, target=MEMORY, with_cat=False, least=None, verify=False):
        size = self.scaled(size)
        with Link(rtt_ms, gbit) as link, content_verified() if verify else contextlib.nullcontext():
            measured = self.fetch(1, size, link, target, with_cat)
        figures = [speed(measured, least=least), peak(measured),
                   Figure("rate", size / MB / measured["sondrel"].seconds, "MB/s")]
        if with_cat:
            figures.append(speed(measured, ["ssh cat"], least=1))
        return measured, figures

    def per_file(self, transfer, count, rtt_ms, action, most=None):
        """Many small files: the time per file without the set-up, and how much of it is caused by the link."""
        count = self.scaled(count)
        costs = []
        for distance in sorted({rtt_ms, 0}):
            with Link(distance) as link:
                measured = transfer(count, link)
                costs.append((measured["sondrel"].seconds - self.set_up(link, action)) / count * 1000)
        figures = [speed(measured), peak(measured), Figure("per file on loopback", costs[0], "ms", most=most)]
        if rtt_ms:
            figures += [Figure(f"per file at {rtt_ms} ms", costs[1], "ms", most=most and 4 * rtt_ms + most),
                        Figure("round trips per file", (costs[1] - costs[0]) / rtt_ms, "")]
        return measured, figures

    def fetch_many(self, count, rtt_ms=0):
        return self.per_file(lambda files, link: self.fetch(files, SMALL, link, removal=True), count, rtt_ms,
                             "get-content", most=6)

    def deploy(self, count, rtt_ms=0):
        return self.per_file(self.upload, count, rtt_ms, "deploy-agent")

    # --- what has changed since the first pass

    def changes(self, sites, files, size, changed, rtt_ms=0, most=None, most_beyond=None):
        """A further pass over `sites` with `files` of `size` bytes each. In `changed` of them one file has changed;
        of a single site `changed` of its files have."""
        files = self.scaled(files) if sites == 1 else files
        sites = self.scaled(sites)
        install_linux_agent()
        with web_host() as host:
            owner = add_user("alice")
            for number in range(sites):
                name = f"site{number:04d}.test"
                make_site(f"/home/alice/{name}", files, size, owner)
                host.nginx.add_site(name, f"/home/alice/{name}")
            here, copies = f"{MEMORY}/archives", f"{MEMORY}.copies"
            remove(MEMORY, copies)
            os.makedirs(here)
            with Link(rtt_ms) as link:
                peer = rsync(link, f"{PEER}:/home/alice/", f"{copies}/", "-HAX", "--delete")
                timed(*sondrel(link, MEMORY, "deploy-agent", batches=True, agent="linux"))
                timed(*further_pass(link, MEMORY))
                timed(*peer)
                passes = itertools.count()

                def prepare():
                    number = next(passes)
                    for index in range(number * changed, (number + 1) * changed):
                        # Change other sites each time: the agent packs a site as a whole again after many increments.
                        site, file = (0, index % files) if sites == 1 else (index % sites, 0)
                        write(f"/home/alice/site{site:04d}.test/{file // 100:03d}/{file:06d}", f"changed {number}",
                              owner=owner)

                def check(name):
                    if name == "rsync":
                        same("/home/alice", copies)
                    elif not any(b"increment" in line for line in open(f"{MEMORY}/dump.xml", "rb")):
                        sys.exit("there is no increment")

                measured = measure({"sondrel": further_pass(link, MEMORY), "rsync": peer}, self._pairs, prepare, check)
        seconds, others = measured["sondrel"].seconds, measured["rsync"].seconds
        figures = [Figure("median", seconds, "s", most=most),
                   Figure("seconds beyond 1.5 times rsync's", seconds - 1.5 * others, "s", most=most_beyond)]
        return measured, figures

    # --- small files in batches

    def fetch_batches(self, count, rtt_ms=0, most=None):
        """--get-content in batches, and the peer that also removes what it has copied."""
        count = self.scaled(count)
        offer(make_pristine(count, SMALL), SMALL)
        here = f"{MEMORY}/archives"

        def prepare():
            remove(MEMORY)
            os.makedirs(here)
            link_files(OFFERED)
            os.sync()

        def check(name):
            same(PRISTINE, f"{here}/content")
            if any(files for _, _, files in os.walk(OFFERED)):
                sys.exit(f"{name} has left files")

        with Link(rtt_ms) as link:
            contestants = {"sondrel": sondrel(link, MEMORY, batches=True),
                           "rsync": rsync(link, f"{PEER}:{OFFERED}", here, "--remove-source-files")}
            return self.batch_figures(measure(contestants, self._pairs, prepare, check), most, 2)

    def deploy_batches(self, count, rtt_ms=0, most=None):
        count = self.scaled(count)
        catalogue(count, SMALL)
        with Link(rtt_ms) as link:
            contestants = {"sondrel": sondrel(link, MEMORY, "deploy-agent", batches=True),
                           "rsync": rsync(link, f"{CATALOGUED}/", f"{PEER}:{ROOT.agent_dir}")}
            measured = measure(contestants, self._pairs, lambda: remove(MEMORY, ROOT.agent_dir),
                               lambda name: same(CATALOGUED, ROOT.agent_dir))
        return self.batch_figures(measured, most)

    @staticmethod
    def batch_figures(measured, most, most_times=None):
        seconds = measured["sondrel"].seconds
        return measured, [Figure("median", seconds, "s", most=most),
                          Figure("time, rsync = 1:", seconds / measured["rsync"].seconds, "", most=most_times),
                          Figure("peak memory", measured["sondrel"].peak_mib, "MiB", most=32)]

    def upload(self, count, link):
        catalogue(count, SMALL)
        contestants = {"sondrel": sondrel(link, MEMORY, "deploy-agent"),
                       "scp": scp(link, CATALOGUED, f"{PEER}:{ROOT.agent_dir}"),
                       "rsync": rsync(link, f"{CATALOGUED}/", f"{PEER}:{ROOT.agent_dir}")}
        return measure(contestants, self._pairs, lambda: remove(MEMORY, ROOT.agent_dir),
                       lambda name: same(CATALOGUED, ROOT.agent_dir))

    # --- files that are here already

    def hash_present(self, count, size):
        """The tool and md5sum on files that are already here, and the tool's set-up time."""
        sums = make_pristine(count, size)
        set_up = self.set_up(Link())
        offer(sums, size)
        remove(MEMORY)
        link_files(f"{MEMORY}/archives/content")
        md5sum = [["sh", "-c", f"cd {PRISTINE} && find . -type f -print0 | xargs -0 md5sum"]]
        return measure({"sondrel": sondrel(Link(), MEMORY), "md5sum": md5sum}, self._pairs), set_up

    def present_large(self):
        measured, set_up = self.hash_present(1, self.scaled(GIB))
        hashing = measured["sondrel"].seconds - set_up
        return measured, [Figure("speed beside the set-up, md5sum = 1:", measured["md5sum"].seconds / hashing, "",
                                 least=0.8), peak(measured)]

    def present_many(self):
        few, many = self.scaled(10_000), self.scaled(100_000)
        of_few, _ = self.hash_present(few, 100)
        measured, set_up = self.hash_present(many, 100)
        beside = measured["sondrel"].seconds - set_up - measured["md5sum"].seconds
        growth = (measured["sondrel"].peak_mib - of_few["sondrel"].peak_mib) * 1024 / (many - few)
        return measured, [Figure("per entry beside the hashing", beside / many * 1000, "ms", most=0.2),
                          Figure("memory per entry", growth, "KiB", most=2.5),
                          Figure("peak memory", measured["sondrel"].peak_mib, "MiB")]

    # --- the rest

    def memory(self):
        """The largest file for which there is room. No peer fetches it."""
        available = int(next(line for line in open("/proc/meminfo", encoding="ascii")
                             if line.startswith("MemAvailable")).split()[1]) * KIB
        filesystem = os.statvfs("/mnt")
        room = min(available, filesystem.f_bavail * filesystem.f_frsize) - GIB
        size = self.scaled(4 * GIB if room > 4 * GIB else 2 * GIB)
        offer(make_pristine(1, size, sparse=True), size)
        remove(MEMORY)
        link_files(OFFERED)
        measured = measure({"sondrel": sondrel(Link(), MEMORY)}, 1,
                           check=lambda name: same(PRISTINE, f"{MEMORY}/archives/content"))
        return measured, [peak(measured), Figure("size", size / GIB, "GiB")]

    def usage_text(self):
        seconds = []
        for _ in range(21):
            start = time.perf_counter()
            subprocess.run([BINARY, "--help"], env=ENVIRONMENT, stdout=subprocess.DEVNULL, check=True)
            seconds.append(time.perf_counter() - start)
        return {}, [Figure("median of 21", statistics.median(seconds) * 1000, "ms", most=10)]

    def relay(self):
        """The throughput and delay of the relay itself, to judge the other cases by."""
        size = self.scaled(4 * GIB)
        rtt_ms = 50
        with socket.create_server((HOST, 0)) as echo:
            port = echo.getsockname()[1]
            with Link(target=port) as direct, Link(target=port, relayed=True) as relayed, \
                    Link(rtt_ms, target=port) as far:
                rates = [size / MB / seconds_to_send(echo, link.port, size) for link in (direct, relayed)]
                trips = round_trips(echo, far.port, 20)
        return {}, [Figure("without a relay", rates[0], "MB/s"), Figure("through it", rates[1], "MB/s", least=1000),
                    Figure(f"median round trip at {rtt_ms} ms", statistics.median(trips) * 1000, "ms", least=rtt_ms),
                    Figure("longest", max(trips) * 1000, "ms")]


def make_site(directory, files, size, owner):
    """Makes a site with that many files of random bytes, in directories of 100."""
    for number in range(files):
        path = f"{directory}/{number // 100:03d}/{number:06d}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(os.urandom(size))
    subprocess.run(["chown", "-R", f"{owner[0]}:{owner[1]}", directory], check=True)


def distance(rtt_ms, least=None):
    return {f"rtt-{rtt_ms}": lambda bench: bench.one_file(256 * MIB, rtt_ms, least=least),
            f"rtt-{rtt_ms}-1gbit": lambda bench: bench.one_file(256 * MIB, rtt_ms, gbit=1, least=least)}


CASES = {
    "relay": Bench.relay,
    "loopback-tmpfs": lambda bench: bench.one_file(GIB, with_cat=True, least=0.9),
    "loopback-tmpfs-verify": lambda bench: bench.one_file(GIB, least=0.85, verify=True),
    "loopback-disk": lambda bench: bench.one_file(GIB, target=DISK, least=0.8),
    **distance(10), **distance(50, 1.3), **distance(100, 1.6), **distance(200, 2.2),
    "many-loopback": lambda bench: bench.fetch_many(2000),
    "many-50ms": lambda bench: bench.fetch_many(200, 50),
    "present-many": Bench.present_many,
    "present-large": Bench.present_large,
    "deploy-loopback": lambda bench: bench.deploy(300),
    "deploy-50ms": lambda bench: bench.deploy(300, 50),
    "batch-loopback": lambda bench: bench.fetch_batches(2000, most=1.5),
    "batch-50ms": lambda bench: bench.fetch_batches(200, 50, most=2.5),
    "batch-deploy-50ms": lambda bench: bench.deploy_batches(300, 50, most=2.5),
    "changes-loopback": lambda bench: bench.changes(1, 20000, 25 * 1000, 3, most_beyond=2),
    "changes-50ms": lambda bench: bench.changes(1, 20000, 25 * 1000, 3, 50, most_beyond=2),
    "changes-1000-sites": lambda bench: bench.changes(1000, 20, 2000, 10, most=60),
    "memory": Bench.memory,
    "help": Bench.usage_text,
}


def main():
    parser = argparse.ArgumentParser(prog="bench/run", description=__doc__)
    parser.add_argument("--pairs", type=int, default=5, help="runs of each contestant")
    parser.add_argument("--scale", type=float, default=1, help="of sizes and numbers of files; targets hold for 1 only")
    parser.add_argument("--json", default=f"{TOP}/build/bench/results.json")
    parser.add_argument("--publish", action="store_true",
                        help="write the tables and plots of docs/performance.md from the results, too")
    parser.add_argument("cases", nargs="*", metavar="CASE", help=", ".join(CASES))
    options = parser.parse_args()
    if options.publish and options.scale != 1:
        parser.error("results of another scale mean nothing")
    unknown = set(options.cases) - set(CASES)
    if unknown:
        parser.error(f"no such case: {', '.join(sorted(unknown))}; there are {', '.join(CASES)}")

    enter_private_network()
    results = {"date": time.strftime("%Y-%m-%d"), "machine": machine(), "pairs": options.pairs, "scale": options.scale, "cases": {}}
    rows = ["| case | medians | figures |", "|---|---|---|"]
    bench = Bench(options.pairs, options.scale)
    os.makedirs(os.path.dirname(os.path.abspath(options.json)), exist_ok=True)
    try:
        with BenchHost():
            for case in options.cases or CASES:
                print(case, file=sys.stderr)
                measured, figures = CASES[case](bench)
                if options.scale != 1:
                    figures = [dataclasses.replace(figure, least=None, most=None) for figure in figures]
                rows.append(row(case, measured, figures))
                results["cases"][case] = as_json(measured, figures)
                with open(options.json, "w", encoding="utf-8") as out:
                    json.dump(results, out, indent=1)
    finally:
        remove(DISK)
    print("\n".join(rows))
    if options.publish:
        publish(results)


if __name__ == "__main__":
    main()
