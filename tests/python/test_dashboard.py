"""The dashboard as scrapers, browsers and strangers meet it."""

from __future__ import annotations

import json
import threading
from http.client import RemoteDisconnected
from typing import Any
from unittest.mock import Mock, patch

import pytest
from dashboards import FIGURES, LOOPBACK, connect, left, made_up, served
from prometheus_client.parser import text_string_to_metric_families

from support import engine_with, get
from tarvomeldric import serve_dashboard
from tarvomeldric._engine import _build_dashboard

pytestmark = pytest.mark.usefixtures("silent")

CARD = (
    '<div style="display:inline-block;margin:8px;padding:12px;border-radius:8px;background:#1e1e2e;min-width:180px">'
    '<span style="color:%s;font-size:20px">&#9679;</span> <b style="color:#cdd6f4">%s</b><br>'
    '<small style="color:#a6adc8">score: %s | %sms</small><br>'
    '<small style="color:#a6adc8">&#10003;%s &#10007;%s circuit:%s</small></div>'
)
LINE = '<div style="color:#a6adc8"><b style="color:#89b4fa">%s</b>: %s</div>'
CHIP = '<span style="color:#a6adc8;margin-right:12px"><b style="color:#89b4fa">%s</b>:%s</span>'
NO_CHIP = '<span style="color:#a6adc8">No faults yet</span>'
PAGE = (
    "<!DOCTYPE html><html><head><title>TarvoMeldric v%(version)s</title>"
    '<meta http-equiv="refresh" content="5"><style>body{background:#11111b;color:#cdd6f4;font-family:system-ui,'
    "sans-serif;margin:20px}h1{color:#89b4fa} h2{color:#cba6f7} a{color:#89b4fa}</style></head><body>"
    "<h1>TarvoMeldric v%(version)s</h1><h2>Providers</h2>%(cards)s<h2>Engine Stats</h2>"
    '<div style="display:grid;grid-template-columns:1fr 1fr;gap:8px">'
    '<div style="background:#1e1e2e;padding:12px;border-radius:8px">'
    '<b style="color:#f9e2af">Calls</b>: %(call_count)s<br>'
    '<b style="color:#a6e3a1">Healed</b>: %(heal_count)s (%(heal_rate)s)<br>'
    '<b style="color:#89b4fa">L1 Skip</b>: %(l1_skip_count)s | '
    '<b style="color:#cba6f7">L2 Downgrade</b>: %(l2_downgrade_count)s<br>'
    '<b style="color:#f38ba8">L3 Failover</b>: %(l3_failover_count)s | '
    '<b style="color:#fab387">L4 Learned</b>: %(l4_learned_count)s</div>'
    '<div style="background:#1e1e2e;padding:12px;border-radius:8px">'
    '<b style="color:#f9e2af">Flywheel</b>: %(total_rules)s rules | %(high_confidence_rules)s high-conf<br>'
    '<b style="color:#89b4fa">Sync</b>: %(sync_mode)s<br>'
    '<b style="color:#a6e3a1">Rate Limited</b>: %(rate_limited_count)s | '
    '<b style="color:#f38ba8">Bulkhead Rejected</b>: %(bulkhead_rejected_count)s</div></div><h2>Live Metrics</h2>'
    '<div style="background:#1e1e2e;padding:12px;border-radius:8px">%(lines)s</div><h2>Diagnosis Counts</h2>'
    '<div style="background:#1e1e2e;padding:12px;border-radius:8px">%(chips)s</div>'
    '<p style="color:#585b70;margin-top:20px">Auto-refresh 5s | <a href="/metrics">Prometheus</a> | '
    '<a href="/health">Health</a> | <a href="/stats">Stats JSON</a></p></body></html>'
)
VALUES = [None, 8, 3, "37.5%", True, 1.0, 1e22, -4, "", (1, "é")]
PROVIDERS = {
    "<b>&": {"healthy": True, "health_score": 0.1 + 0.2, "avg_latency_ms": 1e16, "success": 2**70},
    "é\U0001f600 %s": {"healthy": "yes", "avg_latency_ms": 1e-05, "circuit": {"state": None}},
    7: {"healthy": 0, "fail": None, "health_score": float("nan"), "circuit": {"state": "open"}},
}
COUNTERS = {"latency_p95": 1, "calls_total": 2.0, "Rate": 3, "rated": None, "fault_é": [], "": 1}
COUNTERS |= {"unhealed": True, "errors": "<i>", "success_primary": {}, "x": 5}
SHOWN = ["calls_total", "rated", "fault_é", "unhealed", "errors", "success_primary"]
DIAGNOSED = {"rate_limit": 1, "odd <": None, "": ""}
FLYWHEEL = {"total_rules": 84.5, "high_confidence_rules": "many", "sync_mode": None}
NO_FLYWHEEL = {"total_rules": 0, "high_confidence_rules": 0, "sync_mode": "local"}
CARDS = (
    CARD % ("#4caf50", "<b>&", 0.1 + 0.2, 1e16, 2**70, 0, "?"),
    CARD % ("#4caf50", "é\U0001f600 %s", "?", 1e-05, 0, 0, None),
    CARD % ("#f44336", 7, float("nan"), "?", 0, None, "open"),
)


def test_the_page_is_fixed_to_the_letter() -> None:
    needed: Any = dict(zip(FIGURES, VALUES, strict=True))
    nothing = PAGE % {**needed, **NO_FLYWHEEL, "cards": "", "lines": "", "chips": NO_CHIP}
    assert _build_dashboard(made_up(needed)) == nothing
    empty: Any = {"providers": {}, "metrics": {}, "flywheel": {}, "diagnosis_counts": {}}
    assert _build_dashboard(made_up({**needed, **empty})) == nothing
    full = {"providers": PROVIDERS, "metrics": {"counters": COUNTERS}, "flywheel": FLYWHEEL}
    assert _build_dashboard(made_up({**needed, **full, "diagnosis_counts": DIAGNOSED})) == PAGE % {
        **needed,
        **FLYWHEEL,
        "cards": "".join(CARDS),
        "lines": "".join(LINE % (name, COUNTERS[name]) for name in SHOWN),
        "chips": "".join(CHIP % pair for pair in DIAGNOSED.items()),
    }
    for name in FIGURES:
        with pytest.raises(KeyError, match=name):
            _build_dashboard(made_up({key: needed[key] for key in FIGURES if key != name}))


SWITCHES = {"/": "with_dashboard", "/metrics": "with_prometheus", "/health": "with_health"}
LABELS = {"/": "Dashboard", "/metrics": "Prometheus", "/health": "Health"}
STATS = {**FIGURES, "version": "é", "odd": [1.5, {}]}
HEALTH = {"status": "dégradé", "error_count": 2}
BODIES = {
    "/": ("text/html; charset=utf-8", _build_dashboard(made_up(STATS))),
    "/metrics": ("text/plain", "é 1\n?"),
    "/health": ("application/json", json.dumps(HEALTH, indent=2)),
    "/stats": ("application/json", json.dumps(STATS, indent=2)),
}


@pytest.mark.parametrize("off", [(), ("/",), ("/metrics",), ("/health",), tuple(SWITCHES)])
def test_every_route_with_its_headers_and_its_switch(off: tuple[str, ...], silent: Any) -> None:
    engine = made_up(STATS, "é 1\n\ud800", HEALTH)
    with served(engine, **{SWITCHES[path]: False for path in off}) as server:
        address = f"{LOOPBACK}:{server.server_port}"
        lines = [f"  {LABELS[path]}: http://{address}{path}\n" for path in LABELS]
        shown = [line for path, line in zip(LABELS, lines, strict=True) if path not in off]
        assert silent.readouterr().out == "".join(shown)

        for path, (kind, text) in BODIES.items():
            for around in ("{}", "{}?a=/b", "{}#x?y", "{}?", f"http://{address}{{}}"):
                reply = get(server, around.format(path))
                if path in off:
                    assert reply.status == 404
                    continue
                body = text.encode()
                assert (reply.status, reply.body) == (200, body), path
                assert reply.headers[2:] == [
                    ("Content-Type", kind),
                    ("Content-Length", str(len(body))),
                ]
        for path in ("/metrics/", "/Metrics", "/health%20", "/stats;x", "/x", "*", "/../stats"):
            assert get(server, path).status == 404, path
        for method in ("HEAD", "POST", "PUT", "DELETE", "OPTIONS", "NONSENSE"):
            assert get(server, "/stats", method, b"body").status == 501, method


def test_an_engine_that_fails_costs_one_request(silent: Any) -> None:
    engine = made_up()
    with served(engine) as server:
        for failure in (KeyError("version"), ConnectionResetError("mine"), OSError("mine")):
            engine.get_stats = Mock(side_effect=failure)
            with pytest.raises(RemoteDisconnected):
                get(server, "/")
            header, *_, last, _, _ = silent.readouterr().err.split("\n")
            assert (header, last) == ("-" * 40, f"{type(failure).__name__}: {failure}")
            assert get(server, "/metrics").status == 200


def test_servers_live_and_end_on_their_own(silent: Any) -> None:
    with served(made_up(), with_health=False) as one, served(made_up()) as other:
        silent.readouterr()
        for error, message, host, port in (
            (OSError, "in use", LOOPBACK, one.server_port),
            (OSError, "assign", "192.0.2.1", 0),
            (OverflowError, "port must be", LOOPBACK, 65536),
        ):
            with pytest.raises(error, match=message):
                serve_dashboard(made_up(), host, port)
        assert silent.readouterr().out == ""
        assert sum("dashboard" in thread.name for thread in threading.enumerate()) == 2
        with patch("builtins.print", side_effect=BrokenPipeError), pytest.raises(BrokenPipeError):
            serve_dashboard(made_up(), LOOPBACK, 0)

        assert get(one, "/health").status == 404
        assert get(other, "/health").status == 200
        asking = connect(other, b"GET / HT")
        other.shutdown()
        other.server_close()
        assert left(asking) == b""
        with pytest.raises(ConnectionRefusedError):
            connect(other)
        assert get(one, "/stats").status == 200
        serve_dashboard(made_up(), LOOPBACK, other.server_port).server_close()


def test_a_scraper_understands_the_figures_of_a_real_engine() -> None:
    with engine_with() as engine, served(engine) as server:
        engine._call_count, engine._heal_count = 8, 3
        collector = engine.get_metrics()
        for number, value in enumerate((2.0, 1e-05, 1e22, float("inf"))):
            collector.inc(f"fault_{number}", number)
            collector.observe(f"time_{number}", value)
            collector.set_gauge(f"gauge_{number}", value)
        assert engine.get_stats()["heal_rate"] == "37.5%"
        assert get(server, "/").body.decode() == _build_dashboard(engine)
        assert json.loads(get(server, "/stats").body) == engine.get_stats()
        metrics = get(server, "/metrics").body.decode()

    samples = [one for family in text_string_to_metric_families(metrics) for one in family.samples]
    assert len(samples) == len(metrics.splitlines())
    figures: Any = collector.get_all()
    expected = {f"tm_{name}_total": count for name, count in figures["counters"].items()}
    expected |= {f"tm_{name}": value for name, value in figures["gauges"].items()}
    assert expected.items() <= {one.name: one.value for one in samples}.items()
