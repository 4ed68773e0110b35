"""The tables of docs/wan.md."""
from wan_cell import BESIDE, CUT_S

_COLUMNS = ["RTT", "loss", "system", "up", "down", *BESIDE, f"after {CUT_S} s", "lost"]


def speed(value):
    return "–" if value is None else f"{value / 1e6:.2f}" if value < 10e6 else f"{value / 1e6:.1f}"


def milliseconds(value, more=False):
    return (">" if more else "") + (f"{value * 1000:.0f}" if value < 9.95 else f"{value:.1f} s")


def volume(count):
    return "0" if not count else f"{count} B" if count < 1000 else \
        f"{count / 1e3:.0f} KB" if count < 1e6 else f"{count / 1e6:.1f} MB"


def rate_name(rate):
    return f"{rate / 1e3:g} kbit/s" if rate < 1e6 else f"{rate / 1e6:g} Mbit/s"


def _keystrokes(found):
    if not found or "fault" in found:
        return "–" if not found else "failed"
    # What has not come by the end of the wait took at least as long.
    share = found["unanswered"] / found["keys"]
    text = (f"{milliseconds(found['p50'], share > 0.5)} / "
            f"{milliseconds(found['p99'], share > 0.01)}")
    return text + (" ended" if found["ended"] or found.get("bulk_ended") else "")


def _recovery(found):
    if not found or "fault" in found:
        return "–" if not found else "failed"
    if found["recovery"] is None:
        return "never"
    return f"{found['recovery']:.1f} s" + ("" if found["same_session"] else ", new session")


def _lost(phases):
    known = [found for found in phases.values() if "fault" not in found]
    wrong = sum(found["wrong"] for found in known)
    return volume(sum(found["lost"] for found in known)) + (f", {wrong} WRONG" if wrong else "")


def _row(cell, system, phases):
    return [f"{cell.rtt} ms", f"{cell.loss:g} %", system,
            *(speed(phases.get(way, {}).get("speed")) for way in ("up1", "down1")),
            *(_keystrokes(phases.get(phase)) for phase in BESIDE),
            _recovery(phases.get("cut")), _lost(phases)]


def tables(results):
    """Markdown; `results` are {(cell, system): {phase: figures}}."""
    for rate in sorted({cell.rate for cell, _ in results}):
        yield f"### {rate_name(rate)}\n"
        yield "| " + " | ".join(_COLUMNS) + " |"
        yield "|--:|--:|---|" + "--:|" * (len(_COLUMNS) - 3)
        for (cell, system), phases in results.items():
            if cell.rate == rate:
                yield "| " + " | ".join(_row(cell, system, phases)) + " |"
        yield ""


def line_table(rows):
    yield "| rate | RTT | RTT, measured | datagrams | one TCP | lost at 5 % |"
    yield "|--:|--:|--:|--:|--:|--:|"
    for row in rows:
        yield (f"| {rate_name(row['rate'])} | {row['rtt']} ms | {row['round_trip']:.2f} ms | "
               f"{100 * row['datagrams'] / row['rate']:.1f} % | "
               f"{100 * row['tcp'] / row['rate']:.1f} % | {row['lost']:.2f} % |")
