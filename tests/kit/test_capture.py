# SPDX-License-Identifier: Apache-2.0
"""Captures, read back by tshark with the installed dissector, against the trace of the same world."""

import json
import os
import subprocess
from pathlib import Path

import pytest

import svcmgr_sim

CTL = os.environ["SVCMGRCTL"]
DISSECTOR = Path(svcmgr_sim.__file__).resolve().parents[1] / "wireshark" / "velmora_svcmgr.lua"

FIELDS = {name: f"velmora_svcmgr.{name}" for name in (
    "kind", "direction", "stream", "client", "app", "command", "method", "answers", "request",
    "delegate.id", "delegate.seq", "model.id", "model.version", "model.title", "model.description",
    "array_count", "count", "app_id", "app_version", "agent", "result", "text", "state", "index",
    "percentage", "bytes", "early", "unknown", "partial", "rest")}
METHODS = {2: "get_agent_api_level", 3: "get_license", 4: "request_update", 5: "GetUsableModelList",
           6: "GetUsableModelListWithDesc", 7: "GetModelVersionList", 8: "RequestToUpdate",
           9: "RequestToUninstall", 10: "request_update_with_list"}
SEPARATOR = "\x01"  # between the values of one field


def tshark(capture, *options):
    command = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", str(capture), *options]
    finished = subprocess.run(command, capture_output=True, text=True, check=True, timeout=120)
    assert "Lua" not in finished.stderr, finished.stderr
    return finished.stdout


def packets(capture):
    """What tshark shows of each packet: lists of texts by the names of fields, and its line."""
    options = ["-T", "fields", "-E", "separator=/t", "-E", f"aggregator={SEPARATOR}"]
    for field in FIELDS.values():
        options += ["-e", field]
    lines = tshark(capture, *options, "-e", "_ws.col.Info").split("\n")
    read = []
    for line in filter(None, lines):
        *values, info = line.split("\t")
        packet = {name: value.split(SEPARATOR) for name, value in zip(FIELDS, values) if value}
        packet["info"] = info
        read.append(packet)
    return read


def run(folder, scenario, script, *options):
    """The packets and the records of a world in which a script runs."""
    capture, trace = folder / "c.pcapng", folder / "t.jsonl"
    if isinstance(scenario, dict):
        (folder / "s.json").write_text(json.dumps(scenario), encoding="utf-8")
        scenario = folder / "s.json"
    subprocess.run([svcmgr_sim.program(), "run", str(scenario), "--capture", str(capture), "--trace",
                    str(trace), "--time-scale", "0", *options, "--", "sh", "-c", script],
                   env={**os.environ, "CTL": CTL, "SIM": svcmgr_sim.program()}, timeout=120,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    records = [json.loads(line) for line in trace.read_text(encoding="utf-8").splitlines()]
    return packets(capture), records


def number(packet, name):
    return int(packet[name][0]) if name in packet else None


def of_models(packet):
    # A single empty text is shown as nothing.
    return list(zip(packet.get("model.id", []), packet.get("model.version", [""])))


def as_shown(record):
    """What tshark has to show of a record of the trace, as packets are read below; None if nothing."""
    what = record["what"]
    if what == "connect":
        return ("connect", record["client"], record["app"])
    if what == "disconnect":
        return ("disconnect", record["client"])
    if what == "refuse":
        return ("refuse", record["app"])
    if what == "request":
        arguments = record["arguments"]
        models = arguments.get("models", [arguments["model"]] if "model" in arguments else [])
        return ("request", record["client"], record["method"],
                arguments.get("delegate", {}).get("seq"),
                [(model["id"], model["version"]) for model in models], arguments.get("agents", []),
                arguments.get("appId"), arguments.get("count"))
    if what == "reply":
        return ("reply", record["client"], record["method"], record.get("result"),
                (record.get("text") or "").replace("\n", "\\n") or None)
    if what == "answer":
        models = record.get("models", [])
        return ("answer", record["client"], record["method"], record["delegate"]["seq"],
                record["result"], [(model["id"], model["version"]) for model in models],
                record["count"], record.get("state"), record.get("index"), record.get("percentage"))
    return None


def as_seen(packet):
    kind, client = number(packet, "kind"), number(packet, "client")
    if kind == 2:
        return ("connect", client, packet["app"][0])
    if kind == 3:
        return ("disconnect", client)
    if kind == 4:
        return ("refuse", packet["app"][0])
    if packet["direction"] == ["0"]:
        return ("request", client, METHODS[number(packet, "method")], number(packet, "delegate.seq"),
                of_models(packet), packet.get("agent", []), packet.get("app_id", [None])[0],
                number(packet, "count"))
    if packet["stream"] == ["0"]:
        return ("reply", client, packet["answers"][0], number(packet, "result"),
                packet.get("text", [None])[0])
    return ("answer", client, packet["answers"][0], number(packet, "delegate.seq"),
            number(packet, "result"), of_models(packet), number(packet, "count"),
            number(packet, "state"), number(packet, "index"), number(packet, "percentage"))


SESSION = """
"$CTL" license; "$CTL" api-level; "$CTL" models list --descriptions; "$CTL" models list
"$CTL" models versions speech.wake-word
"$CTL" models update speech.wake-word@3.2.0 vision.segment; "$CTL" models uninstall vision.segment
"$CTL" update com.velmora.svcmgr com.velmora.notes; "$CTL" update; "$CTL" license
"""


def test_a_capture_shows_all_that_the_trace_shows(tmp_path):
    seen, records = run(tmp_path, "demo", SESSION)
    shown = [each for each in map(as_shown, records) if each is not None]
    assert [as_seen(packet) for packet in seen] == shown
    assert {each[2] for each in shown if each[0] == "request"} == set(METHODS.values())
    assert not [packet for packet in seen if {"early", "unknown", "partial", "rest"} & set(packet)]


def test_a_reply_is_linked_to_its_request(tmp_path):
    seen, _ = run(tmp_path, "empty", '"$CTL" api-level')
    request = next(i for i, packet in enumerate(seen, 1) if packet.get("method") == ["2"])
    reply, = [packet for packet in seen if packet.get("answers") == ["get_agent_api_level"]]
    assert reply["request"] == [str(request)]
    assert reply["info"] == "reply to get_agent_api_level: 11"


def test_texts_and_all_fields_of_models_are_shown(tmp_path):
    model = {"id": "m\u00f6del", "title": "T", "description": "", "versions": ["1"]}
    seen, _ = run(tmp_path, {"models": [model]}, '"$CTL" models list --descriptions')
    answer, = [packet for packet in seen if packet.get("stream") == ["1"]]
    assert answer["model.id"] == ["m\u00f6del"]
    assert answer["model.title"] == ["T"]
    assert answer["array_count"] == answer["count"] == ["1"]
    assert answer["info"] == "answer to GetUsableModelListWithDesc: result 0, m\u00f6del 1"


@pytest.mark.parametrize("fault, expert", [("cut", "early"), ("truncated", "early"),
                                           ("oversized", "early")])
def test_messages_that_end_early_are_marked(tmp_path, fault, expert):
    seen, _ = run(tmp_path, {"methods": {"GetUsableModelList": {"fault": fault}}},
                  '"$CTL" --timeout 1 models list')
    assert [packet for packet in seen if expert in packet and packet["direction"] == ["1"]]


def test_messages_that_mean_nothing_are_marked(tmp_path):
    seen, _ = run(tmp_path, {"methods": {"GetUsableModelList": {"stray": 3},
                                         "get_license": {"stray": 2}}},
                  '"$CTL" models list; "$CTL" license')
    assert len([packet for packet in seen if "unknown" in packet]) >= 4
    assert "reply to get_license: text" in [packet["info"] for packet in seen]


def test_a_refused_client_and_a_long_list_are_shown(tmp_path):
    seen, _ = run(tmp_path, "refused", '"$CTL" license')
    assert seen[0]["info"] == "refuse com.example.client"
    seen, _ = run(tmp_path, {"generate": 20000}, '"$CTL" models list')
    answer, = [packet for packet in seen if packet.get("stream") == ["1"]]
    assert "partial" in answer and "early" not in answer
    assert answer["array_count"] == ["20000"]
