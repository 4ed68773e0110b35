"""The machine of a run: what decides how fast cryptography, copies and wake-ups are on it."""
import datetime
import os
import pathlib
import platform
import re
import ssl
import subprocess

# Of /proc/cpuinfo; x86 and ARM names.
FLAGS = ("aes", "pclmulqdq", "vaes", "vpclmulqdq", "avx2", "avx512f", "avx512bw", "sha_ni", "erms",
         "fsrm", "pmull", "sha2", "asimd", "neon", "sve")
CPU = pathlib.Path("/sys/devices/system/cpu")


def _first_line(*command):
    try:
        done = subprocess.run(command, capture_output=True, text=True, check=False)
    except FileNotFoundError:
        return "none"
    return (done.stdout + done.stderr).split("\n")[0].strip()


def _read(path):
    try:
        return path.read_text().strip()
    except OSError:
        return ""


def _cpuinfo(*names):
    for line in _read(pathlib.Path("/proc/cpuinfo")).splitlines():
        name, _, value = line.partition(":")
        if name.strip() in names:
            return value.strip()
    return ""


def _caches():
    found = {}
    for index in sorted(CPU.glob("cpu0/cache/index*")):
        kind = {"Data": "d", "Instruction": "i"}.get(_read(index / "type"), "")
        found[f"L{_read(index / 'level')}{kind}"] = (
            f"{_read(index / 'size')} for CPU {_read(index / 'shared_cpu_list')}")
    return found


def _siblings():
    groups = {_read(path) for path in CPU.glob("cpu[0-9]*/topology/thread_siblings_list")}
    return sorted(groups - {""})


def describe():
    flags = set(re.split(r"\s+", _cpuinfo("flags", "Features")))
    return {
        "date": str(datetime.datetime.now(datetime.timezone.utc).date()),
        "model": _cpuinfo("model name", "Model", "Hardware") or platform.machine(),
        "architecture": platform.machine(),
        "processors": os.cpu_count(),
        "siblings": _siblings(),
        "flags": [flag for flag in FLAGS if flag in flags],
        "caches": _caches(),
        "governor": _read(CPU / "cpu0/cpufreq/scaling_governor") or "none",
        "hypervisor": "yes" if "hypervisor" in flags else "no",
        "memory_mb": round(os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 1e6),
        "kernel": os.uname().release,
        # Of all peers' connections: bbr's timers cost a tenth of a busy tunnel on loopback.
        "congestion": _read(pathlib.Path("/proc/sys/net/ipv4/tcp_congestion_control")) or "?",
        "system": platform.freedesktop_os_release().get("PRETTY_NAME", "?"),
        "openssl": ssl.OPENSSL_VERSION,
        "ssh": _first_line("ssh", "-V").split(",")[0],
    }


def text(machine):
    caches = ", ".join(f"{name} {size}" for name, size in machine["caches"].items())
    siblings = ("each a core of its own" if all(group.isdigit() for group in machine["siblings"])
                else "threads of one core: " + "; ".join(machine["siblings"]))
    return (f"{machine['date']}, {machine['processors']} x {machine['model']} "
            f"({machine['architecture']}; {' '.join(machine['flags'])}), {siblings}; {caches}; "
            f"governor {machine['governor']}; virtual: {machine['hypervisor']}; "
            f"{machine['memory_mb']} MB; Linux {machine['kernel']}, TCP {machine['congestion']}, "
            f"{machine['system']}; "
            f"{machine['openssl']}; {machine['ssh']}.")
