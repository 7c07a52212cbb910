"""The dashboard as scrapers, browsers and strangers meet it."""

from __future__ import annotations

import json
import re
import threading
from http.client import RemoteDisconnected
from pathlib import Path
from typing import Any
from unittest.mock import Mock, patch

import pytest
from dashboards import FIGURES, LOOPBACK, connect, left, made_up, served
from helpers import complaints_of_promtool, promtool

from support import engine_with, get, provider
from tarvomeldric import APIError, FaultCategory, serve_dashboard
from tarvomeldric._engine import _build_dashboard
from tarvomeldric._host_names import HostNames

pytestmark = pytest.mark.usefixtures("silent")

VALUES = [None, 8, 3, "37.5%", True, 1.0, 1e22, -4, "", (1, "é")]
PROVIDERS = {
    "<b>&": {"healthy": True, "health_score": 0.1 + 0.2, "avg_latency_ms": 1e16, "success": 2**70},
    "é\U0001f600 %s": {"healthy": "yes", "avg_latency_ms": 1e-05, "circuit": {"state": None}},
    7: {"healthy": 0, "fail": None, "health_score": float("nan"), "circuit": {"state": "open"}},
}
COUNTERS = {"latency_p95": 1, "calls_total": 2.0, "Rate": 3, "rated": None, "fault_é": [], "": 1}
COUNTERS |= {"unhealed": True, "errors": "<i>", "success_primary": {}, "x": 5}
DIAGNOSED = {"rate_limit": 1, "odd <": None, "": ""}
FLYWHEEL = {"total_rules": 84.5, "high_confidence_rules": "many", "sync_mode": None}
ROOT = Path(__file__).parents[2]
EMPTY, FULL = (Path(__file__).with_name(f"{name}_page.html") for name in ("empty", "full"))


def test_the_page_is_fixed_to_the_letter() -> None:
    needed: Any = dict(zip(FIGURES, VALUES, strict=True))
    assert _build_dashboard(made_up(needed)) == EMPTY.read_text()
    empty: Any = {"providers": {}, "metrics": {}, "flywheel": {}, "diagnosis_counts": {}}
    assert _build_dashboard(made_up({**needed, **empty})) == EMPTY.read_text()
    full: Any = {"providers": PROVIDERS, "metrics": {"counters": COUNTERS}, "flywheel": FLYWHEEL}
    page = _build_dashboard(made_up({**needed, **full, "diagnosis_counts": DIAGNOSED}))
    assert page == FULL.read_text()
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
                assert reply.status == 200, path
                assert reply.body == body, path
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
            assert header == "-" * 40
            assert last == f"{type(failure).__name__}: {failure}"
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


UNITS = " metric names should not contain abbreviated units"
FIXED_NAMES = {
    f"tm_{name}{part}{UNITS}"
    for name in ("fault_latency_us", "latency_primary_ms", "latency_failover_ms")
    for part in ("", "_count", "_sum")
}


def test_promtool_finds_nothing_but_the_fixed_names() -> None:
    engine = engine_with(provider(name="one"), provider(name="other"))
    results = [APIError("bad key", 401), "answer", "answer"]
    with engine, patch.object(engine, "_execute_sync", side_effect=results):
        assert engine.call_sync("a").heal_level == "l3_failover"
        engine.call_sync("b")
        with served(engine) as server:
            metrics = get(server, "/metrics").body
    complaints = complaints_of_promtool(metrics)
    assert {line for line in complaints if not line.endswith(" no help text")} == FIXED_NAMES


def scrape_of_everything() -> bytes:
    """After a day on which the engine wrote every metric that it knows."""
    source = (ROOT / "src/observability/metric_names.h").read_text()
    counters, histograms = (re.findall(r'"(\w+)"', part) for part in source.split("// Histograms."))
    with engine_with() as engine, served(engine) as server:
        for name in counters:
            for kind in FaultCategory if name == "fault_" else [""]:
                engine.get_metrics().inc(f"{name}{kind and kind.value}")
        for name in histograms:
            engine.get_metrics().observe(name, 1.0)
        return get(server, "/metrics").body


# Of metrics, by how much they grow in a minute, and the alerts that fire.
DAYS = [
    ({"calls_total_total": 60, "success_primary_total": 60}, ""),
    ({"calls_total_total": 60, "success_primary_total": 30, "heal_l3_failover_total": 15}, "CallsFail ManyHeals"),
    ({"calls_total_total": 60, "errors_no_provider_total": 60}, "NoProvider CallsFail"),
    ({"calls_total_total": 0, "bulkhead_rejected_total": 1}, "SlotsFull"),
    ({"calls_total_total": 60, "heal_l1_retry_total": 60, "fault_rate_limit_total": 12, "fault_auth_error_total": 1},
     "ManyHeals ProvidersLimitUs KeyRefused"),
    ({"calls_total_total": 1, "success_primary_total": 1, 'latency_primary_ms{quantile="0.95"}': 900}, "Slow"),
]  # fmt: skip
TRIAL = """
- interval: 1m
  input_series: [%s]
  promql_expr_test:
  - expr: count by (alertname) (ALERTS{alertstate="firing"})
    eval_time: 30m
    exp_samples: [%s]"""


def test_alerts_and_the_grafana_dashboard_go_by_what_is_scraped(tmp_path: Path) -> None:
    alerts, grafana = ROOT / "docs/alerts.yml", ROOT / "docs/grafana-dashboard.json"
    scraped = set(re.findall(r"^tm_\w+", scrape_of_everything().decode(), re.MULTILINE))
    for text in (alerts.read_text(), grafana.read_text()):
        assert set(re.findall(r"\btm_\w+", text)) <= scraped

    rules, trial = tmp_path / "shown.yml", tmp_path / "trial.yml"
    shown = re.findall(
        r'"expr": (".*?[^\\]")', grafana.read_text().replace("$__rate_interval", "5m")
    )
    lines = [f"  - record: shown:{at}\n    expr: {each}\n" for at, each in enumerate(shown)]
    rules.write_text("groups:\n- name: shown\n  rules:\n" + "".join(lines))
    trial.write_text(f"rule_files: [{alerts}]\ntests:")
    with trial.open("a") as file:
        for grown, firing in DAYS:
            series = [f"{{series: 'tm_{name}', values: 0+{by}x40}}" for name, by in grown.items()]
            told = [
                f"""{{labels: '{{alertname="TarvoMeldric{it}"}}', value: 1}}"""
                for it in firing.split()
            ]
            file.write(TRIAL % (", ".join(series), ", ".join(told)))
    for work in (["check", "rules", alerts, rules], ["test", "rules", trial]):
        done = promtool(*work)
        assert done.returncode == 0, (done.stdout + done.stderr).decode()


OURS = ["localhost", "LOCALHOST.:1", "127.0.0.1", "127.9.9.9:80", "[::1]", "[0:0::1]:9"]
ADDED = ["Bound:", "bound.", "A.example:80", "[fd00::1]"]
THEIRS = ["", ".", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "128.0.0.1"]
ODD = ["[::2]", "[]", "[bound]", "me@localhost", "localhost,evil.example", "localhost:80:80"]


def test_the_names_of_a_server() -> None:
    names = HostNames("bOUND.", ["a.example", "[FD00::1]"])
    assert [name for name in OURS + ADDED if name not in names] == []
    assert [name for name in THEIRS + ODD if name in names] == []
    assert [name for name in ADDED + THEIRS + ODD if name in HostNames("")] == []


def status(server: Any, *hosts: str, target: str = "/stats", method: str = "GET") -> int:
    head = "".join(f"Host: {host}\r\n" for host in hosts)
    reply = left(connect(server, f"{method} {target} HTTP/1.1\r\n{head}\r\n".encode()))
    assert (b"call_count" in reply) == (b" 200 " in reply[:15])
    return int(reply.split()[1])


def test_a_page_from_elsewhere_cannot_read_what_the_loopback_serves() -> None:
    with served(made_up()) as server:
        assert status(server, "localhost:1") == status(server) == 200
        assert status(server, "evil.example") == status(server, "evil.example", target="/x") == 421
        assert status(server, "localhost", "localhost") == 400
        assert status(server, "evil.example", method="HEAD") == 501
        # The target's own host counts, where it has one.
        assert status(server, "evil.example", target="http://localhost/stats") == 200
        assert status(server, "localhost", target="http://evil.example/stats") == 421
    with served(made_up(), "0.0.0.0") as server:
        assert status(server, "a.example") == status(server, "a", "b") == 200
    for host in (LOOPBACK, "0.0.0.0"):
        with served(made_up(), host, allowed_hosts=("a.example",)) as server:
            assert status(server, "a.example:80") == status(server, "localhost") == 200
            assert status(server, "b.example") == 421
            assert status(server, "a.example", "a.example") == 400
    with served(made_up(), "0.0.0.0", allowed_hosts=[]) as server:
        assert status(server, "a.example") == 421


@pytest.mark.parametrize("wrong", ["localhost", {"a"}, [7], ["a:80"], ["*"], [""]])
def test_allowed_hosts_are_refused_by_name(wrong: Any) -> None:
    with pytest.raises((TypeError, ValueError), match="allowed_hosts must "):
        serve_dashboard(made_up(), LOOPBACK, 0, allowed_hosts=wrong)
