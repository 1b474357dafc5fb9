"""The results of bench/run: the machine, JSON, and rows of a table."""
import dataclasses
import os
import platform
import subprocess

GIB = 1 << 30


def machine():
    def first_line(*command):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=True)
        return done.stdout.splitlines()[0]
    cpu = next(line for line in open("/proc/cpuinfo", encoding="utf-8") if line.startswith("model name"))
    return {"cpu": cpu.split(":", 1)[1].strip(), "cores": os.cpu_count(), "kernel": platform.release(),
            "memory_gib": os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE") / GIB,
            "load_before": os.getloadavg()[0], "ssh": first_line("ssh", "-V"), "rsync": first_line("rsync", "--version"),
            "libssh2": first_line("dpkg-query", "-W", "-f", "${Version}\n", "libssh2-1*")}


def as_json(measured, figures):
    return {"contestants": {name: {"median_seconds": runs.seconds, "median_cpu_seconds": runs.cpu_seconds,
                                   "peak_mib": runs.peak_mib, "seconds": [run.seconds for run in runs]}
                            for name, runs in measured.items()},
            "figures": [{**dataclasses.asdict(figure), "met": figure.met()} for figure in figures]}


def row(case, measured, figures):
    medians = "; ".join(f"{name} {runs.seconds:.3f} s" for name, runs in measured.items())
    return f"| {case} | {medians} | {'; '.join(map(str, figures))} |"
