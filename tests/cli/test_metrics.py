"""The metrics: both formats are what they say they are, and the dashboard shows what there is."""

import json
import re
import shutil
import subprocess

from prometheus_client.openmetrics import parser

from conftest import SOURCE

#: No sample has to be there before the first change that takes the time, but ours all are.
HISTOGRAMS = ("vorn_staged_duration_seconds", "vorn_hardware_duration_seconds")


def families(text):
    return {family.name: family for family in parser.text_string_to_metric_families(text)}


def test_open_metrics_are_read_by_a_parser_that_is_strict(live):
    found = families(live.vorn("metrics").out)
    writes = found["vorn_entry_writes"]
    assert writes.type == "counter"
    assert {(s.labels["table"], s.labels["unit"]): s.value for s in writes.samples}[
        "PolicyCpuTcamAction", "1"] == 3
    assert found["vorn_log_acknowledged_version"].samples[0].value > 0
    for name in HISTOGRAMS:
        assert found[name].type == "histogram"
        assert found[name].unit == "seconds"


def test_prometheus_text_passes_the_linter(live):
    promtool = shutil.which("promtool")
    assert promtool, "promtool is part of the package prometheus"
    text = live.vorn("metrics", "--prometheus").out
    checked = subprocess.run([promtool, "check", "metrics"], input=text, text=True,
                             capture_output=True, check=False, timeout=60)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", "")


def test_the_dashboard_asks_for_nothing_that_is_not_there(live):
    with open(SOURCE / "docs" / "grafana" / "control-plane-policy.json", encoding="utf-8") as file:
        dashboard = json.load(file)
    text = live.vorn("metrics", "--prometheus").out
    there = set(re.findall(r"^(vorn_\w+)[ {]", text, re.MULTILINE))
    asked = {name for panel in dashboard["panels"] for target in panel["targets"]
             for name in re.findall(r"\b(vorn_\w+)", target["expr"])}
    assert len(asked) > 15
    assert asked - there == set()


def test_metrics_of_a_dead_agent_are_none(dead):
    result = dead.vorn("metrics")
    assert result.code == 4
    assert result.out == ""
    assert result.err.splitlines()[-1].startswith("vorn: the agent does not run")


