"""How sure a median is: an interval from the order of the samples, whatever their distribution."""
import math
import statistics
from dataclasses import dataclass

CONFIDENCE = 0.95
FEWEST = 6  # samples that give an interval


@dataclass
class Interval:
    median: float
    low: float | None  # None: too few samples
    high: float | None


def median_interval(samples, confidence=CONFIDENCE):
    """The k-th smallest and largest sample, for the greatest k with which the true median lies
    outside in no more than the rest of the cases: each sample is above it or below like a coin."""
    count, rank, outside = len(samples), 0, 0.0
    while rank < count / 2:
        outside += 2 * math.comb(count, rank) / 2 ** count
        if outside > 1 - confidence:
            break
        rank += 1
    ordered = sorted(samples)
    ends = (ordered[rank - 1], ordered[count - rank]) if rank else (None, None)
    return Interval(statistics.median(ordered), *ends)


def verdict(interval, bound, better="less"):
    """Whether the whole interval is on the good side of the bound, the other, or neither."""
    if interval.low is None:
        return "not sure"
    sign = 1 if better == "less" else -1
    worst, best = sorted((sign * interval.low, sign * interval.high), reverse=True)
    return "met" if worst <= sign * bound else "not met" if best > sign * bound else "not sure"
