"""What machines have measured: one short file for each in docs/performance/, and the tables that
docs/performance.md has of them."""
import json
import math
import re

from harness.documents import DOCS

import asked
import machine
import report
from figures import SETS
from intervals import Interval

FOLDER = DOCS / "performance"
FORMAT = 1
_TEXTS = ("date", "model", "architecture", "governor", "hypervisor", "kernel", "congestion",
          "system", "openssl", "ssh")
_LISTS = ("siblings", "flags")


class BadResult(ValueError):
    """The file is no result, with what is wrong about it."""


def _rounded(value):
    return None if value is None else float(f"{value:.4g}")


def summary(result):
    """Of a run: [median, low, high] of each row that something is asked of, by set."""
    sets = {name: {row: [_rounded(value) for value in (found.median, found.low, found.high)]
                   for row, found in asked.measured(result, name).items()} for name in SETS}
    return {"format": FORMAT, **{key: result[key] for key in ("machine", "pairs", "window_ms")},
            "sets": sets}


def _require(good, what):
    if not good:
        raise BadResult(what)


def _is_text(value):
    """It goes into a table as it is: one line, no markup."""
    return isinstance(value, str) and re.fullmatch(r"[^\W_][\w .,:;()/@+~-]{0,199}", value)


def _is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool) and (
        math.isfinite(value) and value >= 0)


def _check_machine(found):
    _require(isinstance(found, dict), "no machine")
    for name in _TEXTS:
        _require(_is_text(found.get(name)), f"machine: no proper {name}")
    for name in _LISTS:
        _require(isinstance(found.get(name), list) and all(map(_is_text, found[name])),
                 f"machine: no proper {name}")
    for name in ("processors", "memory_mb"):
        _require(_is_number(found.get(name)), f"machine: no proper {name}")
    _require(isinstance(found.get("caches"), dict) and
             all(_is_text(text) for item in found["caches"].items() for text in item),
             "machine: no proper caches")


def check(found):
    """Raises BadResult unless it is what summary() gives."""
    _require(isinstance(found, dict) and found.get("format") == FORMAT,
             f"not a result of format {FORMAT}")
    _check_machine(found.get("machine"))
    for name in ("pairs", "window_ms"):
        _require(_is_number(found.get(name)), f"no proper {name}")
    _require(isinstance(found.get("sets"), dict) and set(found["sets"]) == set(SETS),
             "other sets than " + ", ".join(SETS))
    for name, rows in found["sets"].items():
        _require(isinstance(rows, dict), f"{name}: no rows")
        for row, ends in rows.items():
            _require(row in asked.ROWS, f"{name}: unknown row {row}")
            _require(isinstance(ends, list) and len(ends) == 3 and _is_number(ends[0]) and (
                ends[1:] == [None, None] or all(map(_is_number, ends)) and
                ends[1] <= ends[0] <= ends[2]), f"{name}, {row}: no median between its ends")
    return found


def read(path):
    try:
        return check(json.loads(path.read_text(encoding="utf-8")))
    except (OSError, ValueError) as error:
        raise BadResult(f"{path.name}: {error}") from error


def read_all():
    """By name of the file, without its ending."""
    return {path.stem: read(path) for path in sorted(FOLDER.glob("*.json"))}


def name_of(described):
    words = f"{described['model']} {described['processors']} {described['system']}"
    return re.sub(r"[^a-z0-9]+", "-", re.sub(r"\(.*?\)|GNU/Linux", "", words).lower()).strip("-")


def keep(name, result):
    """Stores the summary of a run."""
    found = check(json.loads(json.dumps(summary(result))))
    FOLDER.mkdir(exist_ok=True)
    fresh = FOLDER / f"{name}.new"
    fresh.write_text(json.dumps(found, indent=1) + "\n", encoding="utf-8")
    fresh.replace(FOLDER / f"{name}.json")


def include(path):
    """Stores the summary of a run of another machine, of which --json kept all samples."""
    _require(re.fullmatch(r"[a-z0-9-]{1,60}", path.stem),
             f"{path.name}: named neither in small letters, digits and hyphens")
    try:
        keep(path.stem, json.loads(path.read_text(encoding="utf-8")))
    except (OSError, ValueError, KeyError, TypeError, AttributeError) as error:
        raise BadResult(f"{path.name}: no samples of scripts/bench --json: {error!r}") from error


def markdown():
    """The machines, and a table for each set: a row for each thing asked, a column for each."""
    found = read_all()
    parts = [f"- **{name}**: {machine.text(of['machine'])} {of['pairs']} pairs.\n"
             for name, of in found.items()]
    for set_name, conditions in SETS.items():
        columns = [{row: Interval(*ends) for row, ends in of["sets"][set_name].items()}
                   for of in found.values()]
        rows = list(report.asked_grid([f"{name}, {conditions.title}" for name in found], columns))
        if len(rows) > 1:
            parts.append("\n" + report.markdown_table(rows))
    return "".join(parts)
