#!/usr/bin/env python3
"""Writes the fuzzers' seed inputs from the known-good data of the repository:
records_fuzz  - the input object of every record sample of tests/model/data (what a
                reader is handed, not the sample file around it) and a downlink report
                of each kind;
commands_fuzz - an envelope around every request example of docs/api.md, and an empty
                body for every other command;
mbus_fuzz     - every payload of tests/drivers/data.
and a libFuzzer dictionary per target (<target>.dict): the JSON member names the readers
look up, so that mutations build the objects the readers know (the JSON parser itself is
Qt's and not instrumented, so coverage alone guides poorly into its structure).
Run from the repository's top folder after the data changes; the seeds are committed."""
import hashlib
import json
import pathlib
import re

top = pathlib.Path(__file__).resolve().parents[2]
seeds = top / "tests" / "fuzz" / "seeds"


def write(kind, data):
    folder = seeds / kind
    folder.mkdir(parents=True, exist_ok=True)
    (folder / hashlib.sha1(data).hexdigest()[:16]).write_bytes(data)


for sample in sorted((top / "tests" / "model" / "data").glob("*.json")):
    write("records_fuzz", json.dumps(json.loads(sample.read_text())["input"]).encode())
for report in ("dl_queued", "dl_inprocess", "dl_success", "dl_fault"):
    write("records_fuzz", json.dumps({"msg_type": report, "modem_id": 1,
                                      "status_id": "5f0c1e4a9d3b2a0001c0ffee"}).encode())

api = (top / "docs" / "api.md").read_text()
named = set()
for command, body in re.findall(r"Request `([a-z_]+)`:\s*```json\n(.*?)```", api, re.S):
    named.add(command)
    envelope = {"msg_type": command, "cmd_id": "1b4e28ba-2fa1-11d2-883f-0016d3cca427",
                "sender": "fuzz", "data": json.loads(body)}
    write("commands_fuzz", json.dumps(envelope).encode())
table = (top / "commands" / "command_factory.cpp").read_text()
for command in re.findall(r'\{"([a-z_]+)",', table):
    if command not in named:
        write("commands_fuzz", json.dumps({"msg_type": command, "data": {}}).encode())

for data in sorted((top / "tests" / "drivers" / "data").glob("*.json")):
    text = data.read_text()
    for payload in re.findall(r'"hex":\s*"([0-9a-fA-F]*)"', text):
        write("mbus_fuzz", bytes.fromhex(payload))


def write_dictionary(kind, sources):
    names = set()
    for source in sources:
        names.update(re.findall(r'"([a-z_][a-z0-9_ ]{1,40})"', source.read_text()))
    tokens = ['"{"', '"}"', '"["', '"]"', '":"', '","', '"true"', '"false"', '"null"', '"-1"',
              '"1e308"', '"2147483648"']
    tokens += ['"\\"%s\\""' % name for name in sorted(names)]
    (top / "tests" / "fuzz" / (kind + ".dict")).write_text("\n".join(tokens) + "\n")


write_dictionary("records_fuzz", sorted((top / "model").glob("*.cpp")))
write_dictionary("commands_fuzz", sorted((top / "commands").glob("*.cpp")) + sorted((top / "model").glob("*.cpp")))
