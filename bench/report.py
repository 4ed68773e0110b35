"""The tables of a run, for the terminal and for docs/performance.md."""
import statistics

import asked
import machine
from figures import BULK, FIGURES, SETS, SUBJECT
from intervals import median_interval, verdict


def figure(value):
    return f"{value:.0f}" if abs(value) >= 100 or value == 0 else f"{value:.3g}"


def with_ends(interval, factor=1):
    ends = "" if interval.low is None else (
        f" [{figure(interval.low * factor)}, {figure(interval.high * factor)}]")
    return figure(interval.median * factor) + ends


def verdict_cell(interval, row):
    return f"{with_ends(interval)} {verdict(interval, row.bound, row.better)}" if interval else "-"


def asked_grid(titles, columns):
    """A line for each row that is asked, of what each column's dictionary has of it."""
    yield ["asked", "", *titles]
    for name, row in asked.ROWS.items():
        if any(name in column for column in columns):
            yield [row.label, row.wanted,
                   *(verdict_cell(column.get(name), row) for column in columns)]


def _asked_of(result):
    sets = [name for name in SETS if name in result["own"]] or ["usual"]
    return asked_grid([SETS[name].title for name in sets],
                      [asked.measured(result, name) for name in sets])


# ---- all figures of a set

def _pair_cell(pairs, row):
    """The peer's median, the daemon's in terms of it, and whether that is ahead or behind."""
    theirs = statistics.median(pair[1] for pair in pairs)
    ratios = [pair[0] / pair[1] for pair in pairs if pair[1]]
    if not ratios:
        return figure(theirs * row.factor)
    interval = median_interval(ratios)
    word = {"met": " ahead", "not met": " behind"}.get(verdict(interval, 1, row.better), "")
    return f"{figure(theirs * row.factor)}: {with_ends(interval)}{word}"


def _set_grid(result, set_name, rows):
    peers, own = result["sets"].get(set_name, {}), result["own"].get(set_name, {})
    yield ["", SUBJECT, *peers]
    for key in rows:
        if key in own:
            yield [FIGURES[key].label, figure(statistics.median(own[key]) * FIGURES[key].factor),
                   *(_pair_cell(found[key], FIGURES[key]) if key in found else "-"
                     for found in peers.values())]


def _idle_grid(result):
    yield ["", *result["idle"]]
    for key in ("rss_idle", "rss_peak", "idle_cpu", "idle_switches"):
        yield [FIGURES[key].label, *(figure(of[key]) for of in result["idle"].values())]


_COUNTS = {"calls": "system calls per MB", "voluntary": "waits per MB",
           "nonvoluntary": "involuntary switches per MB", "wakeups": "wake-ups per MB",
           "instructions": "instructions per byte", "cycles": "cycles per byte"}


def _count_cell(found, key):
    names = ", ".join(f"{name} {figure(value)}" for name, value in found["by_name"].items()) \
        if key == "calls" and key in found else ""
    return (figure(found[key]) if key in found else "-") + (f" ({names})" if names else "")


def _count_grid(result):
    yield ["", *result["counts"]]
    for kind in BULK:
        for key, label in _COUNTS.items():
            if any(key in of[kind] for of in result["counts"].values()):
                yield [f"{kind}: {label}",
                       *(_count_cell(of[kind], key) for of in result["counts"].values())]


def _micro_grid(result):
    yield ["", "ns", "GB/s"]
    for name, row in result["micro"].items():
        yield [name.replace("/", ", "), with_ends(median_interval(row["ns"])),
               f"{row['gbs']:.1f}" if "gbs" in row else "-"]


def _lost(result):
    lost = sum(sum(own.get("lost", [])) for own in result["own"].values())
    return f"Bulk bytes lost by the daemon: {lost:.0f}."


def _describe(result):
    loads = result["load"]
    return (f"{machine.text(result['machine'])}\n{result['pairs']} pairs of windows of "
            f"{result['window_ms']} ms; load average {min(loads):.1f} to {max(loads):.1f}. "
            f"{_lost(result)}" if loads else machine.text(result["machine"]))


def _tables(result, rows):
    """(title, grid) of every table that has something in it."""
    tables = [("What is asked", _asked_of(result))]
    tables += [(f"{SETS[name].title.capitalize()}", _set_grid(result, name, rows))
               for name in SETS if name in result["sets"]]
    tables += [("Counts of the gateway's processes", _count_grid(result))] \
        if result["counts"] else []
    tables += [("At rest", _idle_grid(result))] if result["idle"] else []
    tables += [("Pieces of the work for a message", _micro_grid(result))] if result["micro"] else []
    return [(title, found) for title, grid in tables if len(found := list(grid)) > 1]


def plain(rows):
    widths = [max(map(len, column)) for column in zip(*rows)]
    return "\n".join(row[0].ljust(widths[0]) + "".join(
        f"  {cell:>{width}}" for cell, width in zip(row[1:], widths[1:])) for row in rows)


def markdown_table(rows):
    rows = [rows[0], ["---"] * len(rows[0]), *rows[1:]]
    return "".join(f"| {' | '.join(row)} |\n" for row in rows)


def text(result, rows):
    return "\n\n".join((_describe(result), *(
        f"{title}\n{plain(grid)}" for title, grid in _tables(result, rows))))


def markdown(result):
    return f"{_describe(result)}\n\n" + "\n".join(
        f"### {title}\n\n{markdown_table(grid)}" for title, grid in _tables(result, list(FIGURES)))
