"""The figures of a run: where each comes from, how it is shown, and what is asked of it."""
from dataclasses import dataclass

SUBJECT = "daemon"


@dataclass(frozen=True)
class Figure:
    label: str
    kind: str | None  # of the load's window it comes from; None: of the process at rest
    better: str = "less"
    factor: float = 1  # to the unit of the label


def _bulk(key, label, better="less", counts=(1, 8)):
    return {f"{key}_{way}{count}": Figure(
        f"{label} {way}, {count} session{'s' * (count > 1)}", f"{way}{count}", better)
        for count in counts for way in ("down", "up")}


FIGURES = {
    **_bulk("mbs", "MB/s", "more"),
    **_bulk("share", "slowest, % of its share,", "more", (8,)),
    **_bulk("cpu", "gateway CPU s/GB"),
    **_bulk("far", "far side CPU s/GB"),
    **_bulk("load", "the load's own CPU s/GB"),
    "rtt_p50": Figure("round trip us, p50", "rtt"),
    "rtt_p99": Figure("round trip us, p99", "rtt"),
    "rtt_down_p50": Figure("round trip beside bulk down ms, p50", "rtt_down", factor=1e-3),
    "rtt_down_p99": Figure("round trip beside bulk down ms, p99", "rtt_down", factor=1e-3),
    "rtt_up_p50": Figure("round trip beside bulk up ms, p50", "rtt_up", factor=1e-3),
    "rtt_up_p99": Figure("round trip beside bulk up ms, p99", "rtt_up", factor=1e-3),
    "open_p50": Figure("open ms, p50", "open"),
    "open_p99": Figure("open ms, p99", "open"),
    "rss_idle": Figure("RSS MB, idle", None),
    "rss_peak": Figure("RSS MB, peak", None),
    "idle_cpu": Figure("idle CPU %", None),
    "idle_switches": Figure("idle context switches/s", None),
}
KINDS = ("down1", "up1", "down8", "up8", "rtt", "rtt_down", "rtt_up", "open")
BULK = KINDS[:4]


@dataclass(frozen=True)
class Asked:
    """The daemon's figure divided by the peer's, in the same pair of windows; with `own`, by
    another one of its own, in the same window; without either the figure itself."""
    figure: str
    bound: float
    peer: str | None = None
    own: str | None = None


ASKED = [
    *(Asked(f"cpu_{kind}", 0.95, "ssh-aes128") for kind in BULK),
    *(Asked(f"cpu_{kind}", 0.9, "stunnel") for kind in BULK),
    *(Asked(f"cpu_{kind}", 1.15, "tls-aes128") for kind in BULK[:2]),
    *(Asked(f"mbs_{kind}", 1.1, "ssh-aes128") for kind in BULK),
    Asked("rtt_p50", 1.0, "ssh-aes128"),
    Asked("rtt_p99", 0.5, "ssh-aes128"),
    *(Asked(f"rtt_{way}_p99", 1.0, "ssh-aes128") for way in ("down", "up")),
    *(Asked(f"rtt_{way}_p99", 3.0) for way in ("down", "up")),
    Asked("open_p50", 1.0, "ssh-aes128"),
    *(Asked(f"far_{kind}", 1.0, own=f"cpu_{kind}") for kind in BULK),
    Asked("rss_idle", 8.0),
]
# Of the pieces that run for each message: ns by the name of the micro-benchmark.
ASKED_MICRO = {"id": 60, "header built, id included": 200}


@dataclass(frozen=True)
class Set:
    """The same windows under other conditions."""
    title: str
    kinds: tuple
    cost: str = "usual"     # of the load's own flows
    one_core: bool = False  # the gateway's processes have one, everything else the others
    only_asked: bool = False


SETS = {
    "usual": Set("nothing pinned", KINDS),
    "limits": Set("gateway limits", BULK, cost="cheap", only_asked=True),
    "core": Set("one core", KINDS, one_core=True, only_asked=True),
}


def is_asked(peer, kind):
    return any(row.peer == peer and FIGURES[row.figure].kind == kind for row in ASKED)
