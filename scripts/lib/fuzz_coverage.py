"""Lines and regions of the code under a fuzz target, from llvm-cov's export on standard input.

Arguments: the target, then FILE or FILE(FUNCTION|...) for each source that it is for.
"""
import json
import re
import sys


def lines_of(function):
    """Line -> whether it was run: the innermost region that begins last decides."""
    lines = {}
    regions = sorted(function["regions"], key=lambda r: (r[0], r[1], -r[2], -r[3]))
    for start, _, end, _, count, *_, kind in regions:
        if kind == 0:
            lines.update((line, count > 0 or (line == start and lines.get(line, False)))
                         for line in range(start, end + 1))
    return lines


target, *sources = sys.argv[1:]
functions = json.load(sys.stdin)["data"][0]["functions"]
for source in sources:
    file, wanted = re.fullmatch(r"([^(]+)(?:\((.*)\))?", source).groups()
    lines, regions = {}, {}
    for function in functions:
        if not function["filenames"][0].endswith(file):
            continue
        if not re.search(wanted or "", function["name"]):
            continue
        for line, run in lines_of(function).items():
            lines[line] = run or lines.get(line, False)
        for region in function["regions"]:
            if region[-1] == 0:
                place = tuple(region[:4])
                regions[place] = region[4] > 0 or regions.get(place, False)
    shares = [f"{sum(part.values())}/{len(part)} "
              f"{100 * sum(part.values()) / max(len(part), 1):.0f} %" for part in (lines, regions)]
    print("%-20s %-58s %15s %15s" % (target, source, *shares))
