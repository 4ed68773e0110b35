"""The tables of a run, for the terminal and for docs/performance.md."""
import datetime
import os
import pathlib
import subprocess

SUBJECT = "daemon"

# What a row shows: its label, the factor to its unit, and one key or two for "p50 / p99".
ROWS = [
    ("MB/s down, 1 session", 1, "mbs_down1"),
    ("MB/s up, 1 session", 1, "mbs_up1"),
    ("MB/s down, 8 sessions", 1, "mbs_down8"),
    ("MB/s up, 8 sessions", 1, "mbs_up8"),
    ("slowest of 8, % of its share, down", 1, "share_down8"),
    ("slowest of 8, % of its share, up", 1, "share_up8"),
    ("gateway CPU s/GB down, 1 session", 1, "cpu_down1"),
    ("gateway CPU s/GB up, 1 session", 1, "cpu_up1"),
    ("gateway CPU s/GB down, 8 sessions", 1, "cpu_down8"),
    ("gateway CPU s/GB up, 8 sessions", 1, "cpu_up8"),
    ("far side CPU s/GB down, 1 session", 1, "far_down1"),
    ("far side CPU s/GB up, 1 session", 1, "far_up1"),
    ("far side CPU s/GB down, 8 sessions", 1, "far_down8"),
    ("far side CPU s/GB up, 8 sessions", 1, "far_up8"),
    ("round trip us, p50", 1, "rtt_p50"),
    ("round trip us, p99", 1, "rtt_p99"),
    ("round trip beside bulk down ms, p50", 1e-3, "rtt_down_p50"),
    ("round trip beside bulk down ms, p99", 1e-3, "rtt_down_p99"),
    ("round trip beside bulk up ms, p50", 1e-3, "rtt_up_p50"),
    ("round trip beside bulk up ms, p99", 1e-3, "rtt_up_p99"),
    ("open ms, p50", 1, "open_p50"),
    ("open ms, p99", 1, "open_p99"),
    ("RSS MB, idle", 1, "rss_idle"),
    ("RSS MB, peak", 1, "rss_peak"),
    ("idle CPU %", 1, "idle_cpu"),
    ("idle context switches/s", 1, "idle_switches"),
    ("bulk bytes lost", 1, "lost"),
]


def _figure(value):
    return f"{value:.0f}" if value >= 100 or value == 0 else f"{value:.3g}"


def _cell(peers, name, key, factor):
    """The median, and what the daemon's is in terms of it."""
    value, subject = peers[name].get(key), peers.get(SUBJECT, {}).get(key)
    if value is None:
        return "-"
    ratio = f" ({subject / value:.2f}x)" if name != SUBJECT and subject and value else ""
    return _figure(value * factor) + ratio


def _grid(result):
    peers = result["peers"]
    yield ["", *peers]
    for label, factor, key in ROWS:
        cells = [_cell(peers, name, key, factor) for name in peers]
        if any(cell != "-" for cell in cells):
            yield [label, *cells]


def _micro_grid(result):
    yield ["", "ns", "GB/s"]
    for row in result["micro"]:
        rate = row.get("bytes_per_second")
        yield [row["name"].replace("/", ", "), _figure(row["cpu_time"]),
               f"{rate / 1e9:.1f}" if rate else "-"]


def _plain(grid):
    rows = list(grid)
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join(row[0].ljust(widths[0]) + "".join(
        f"  {cell:>{width}}" for cell, width in zip(row[1:], widths[1:])) for row in rows)


def _markdown(grid):
    rows = list(grid)
    rows.insert(1, ["---"] * len(rows[0]))
    return "".join(f"| {' | '.join(row)} |\n" for row in rows)


def _describe(result):
    loads = ", ".join(f"{load:.1f}" for load in result["load"])
    return (f"{result['machine']}\nMedians of {result['rounds']} rounds; load average at the start "
            f"of each: {loads}.")


def describe_machine():
    def first(*command):
        return subprocess.run(command, capture_output=True, text=True,
                              check=False).stdout.split("\n")[0]
    cpus = pathlib.Path("/proc/cpuinfo").read_text().splitlines()
    model = next((line.split(":")[1].strip() for line in cpus if "model name" in line), "?")
    versions = "; ".join((first("openssl", "version").split(" (")[0],
                          first("sh", "-c", "ssh -V 2>&1").split(",")[0]))
    today = datetime.datetime.now(datetime.timezone.utc).date()
    return f"{today}, {os.cpu_count()} x {model}, Linux {os.uname().release}; {versions}."


def text(result):
    return "\n\n".join((_describe(result), _plain(_grid(result)), _plain(_micro_grid(result))))


def markdown(result):
    return f"{_describe(result)}\n\n{_markdown(_grid(result))}\n{_markdown(_micro_grid(result))}"
