"""What is asked of the daemon, and what a run says of it: rows that the report and the files of
further machines share."""
from dataclasses import dataclass

from figures import ASKED, ASKED_MICRO, FIGURES, SUBJECT
from intervals import Interval, median_interval


@dataclass(frozen=True)
class Row:
    label: str
    bound: float
    better: str = "less"

    @property
    def wanted(self):
        return f"{'<=' if self.better == 'less' else '>='} {self.bound:g}"


def _label(row):
    against = (f" against {row.peer}" if row.peer else
               f" against its own {FIGURES[row.own].label}" if row.own else "")
    return FIGURES[row.figure].label + against


def _name(row):
    return " / ".join(part for part in (row.figure, row.own or row.peer) if part)


# By the name that result files use.
ROWS = {**{_name(row): Row(_label(row), row.bound, FIGURES[row.figure].better) for row in ASKED},
        **{name: Row(f"{name}, ns", bound) for name, bound in ASKED_MICRO.items()}}


def _interval(result, set_name, row):
    """None where it was not measured."""
    own = result["own"].get(set_name, {})
    if row.peer:
        pairs = result["sets"].get(set_name, {}).get(row.peer, {}).get(row.figure, [])
        samples = [ours / theirs for ours, theirs in pairs if theirs]
    elif row.own:
        samples = [ours / other for ours, other
                   in zip(own.get(row.figure, []), own.get(row.own, [])) if other]
    elif FIGURES[row.figure].kind is None:
        value = result["idle"].get(SUBJECT, {}).get(row.figure)
        return Interval(value, value, value) if value and set_name == "usual" else None
    else:
        samples = [value * FIGURES[row.figure].factor for value in own.get(row.figure, [])]
    return median_interval(samples) if samples else None


def measured(result, set_name):
    """The intervals of one set's rows, by name."""
    found = {_name(row): interval for row in ASKED
             if (interval := _interval(result, set_name, row))}
    if set_name == "usual":
        found |= {name: median_interval(result["micro"][name]["ns"]) for name in ASKED_MICRO
                  if name in result["micro"]}
    return found
