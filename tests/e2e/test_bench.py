"""What scripts/bench says of its samples, and which files of other machines it takes."""
import json
import random

import pytest

import asked
import machine
import results
from figures import SETS
from harness.waiting import SCALE
from intervals import Interval, median_interval, verdict

pytestmark = pytest.mark.skipif(SCALE != 1, reason="they are the same for every build")
# From tables of the sign test: which samples in order, from 1, enclose the median in 95 of 100.
RANKS = {5: None, 6: (1, 6), 8: (1, 8), 9: (2, 8), 15: (4, 12), 17: (5, 13), 20: (6, 15),
         25: (8, 18), 50: (18, 33)}


def test_interval_of_the_median():
    for count, ranks in RANKS.items():
        samples = random.sample(range(1, count + 1), count)
        assert median_interval(samples) == Interval((count + 1) / 2, *(ranks or (None, None)))
    for better, words in {"less": ("met", "not sure", "not met"),
                          "more": ("not met", "not sure", "met")}.items():
        assert words == tuple(verdict(Interval(end, end - 0.1, end + 0.1), 1.0, better)
                              for end in (0.8, 1.0, 1.2))


def test_results_of_other_machines():
    pair = {"cpu_down1": [[1.0, 2.0]] * 6}
    good = results.summary({
        "machine": machine.describe(), "pairs": 6, "window_ms": 250, "micro": {}, "idle": {},
        "own": {"core": {"cpu_down1": [1.0] * 12}}, "sets": {"core": {"ssh-aes128": pair}}})
    assert set(good["sets"]) == set(SETS)
    assert good["sets"]["core"] == {"cpu_down1 / ssh-aes128": [0.5, 0.5, 0.5]}
    results.check(json.loads(json.dumps(good)))
    row = next(iter(asked.ROWS))
    for wrong in ({"format": 2}, {"machine": good["machine"] | {"model": "a | <b>"}}, {"sets": {}},
                  {"sets": good["sets"] | {"usual": {"unknown": [1, 1, 1]}}},
                  {"sets": good["sets"] | {"usual": {row: [1, 2, 3]}}},
                  {"sets": good["sets"] | {"usual": {row: [1, float("nan"), 3]}}}):
        with pytest.raises(results.BadResult):
            results.check(good | wrong)
    results.read_all()  # those that are kept
