# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""json_page_test.py SOURCE BUILD: kelvo-json(5) has every key of the documents that kelvo writes, with its type. Those of
channels and guide are compared with the schemas, both ways; all are compared with what the command writes of the sample
network. Exit status 77 without the command or the software adapter."""

import json
import pathlib
import re
import sqlite3
import subprocess
import sys
import tempfile

TYPES = {
    "text": lambda value: isinstance(value, str),
    "integer": lambda value: isinstance(value, int) and not isinstance(value, bool),
    "number": lambda value: isinstance(value, (int, float)) and not isinstance(value, bool),
    "true or false": lambda value: isinstance(value, bool),
    "list": lambda value: isinstance(value, list) and all(isinstance(one, (dict, type(None))) for one in value),
    "list of texts": lambda value: isinstance(value, list) and all(isinstance(one, str) for one in value),
    "object": lambda value: isinstance(value, dict),
    "null": lambda value: value is None,
}
FREE_KEYS = {"channels[].names"}  # objects whose keys are no names of ours
SOURCES = {"SCAN": "scan/scan_json.cpp", "GUIDE UPDATE": "epg/update_report.cpp", "WATCH": "watch/watch.cpp",
           "SIGNAL": "signal/signal.cpp", "ADAPTERS": "adapters/adapters.cpp", "CHECK": "check/check.cpp"}
AIR = ["--time", "x10", "--mux", "522000000=522.ts"]


def plain(line):
    return re.sub(r"\\f.", "", line.replace("\\-", "-")).replace('"', "")


def page_of(text):
    """{section: {path: {key: type}}}"""
    page, section, paths, lines = {}, None, [], text.splitlines()
    for line, entry in zip(lines, lines[1:] + [""]):
        if line.startswith(".SH "):
            section, paths = page.setdefault(line[4:].strip('"'), {}), [""]
        elif line.startswith(".SS "):
            paths = plain(line[4:]).split(", ")
        elif line == ".TP" and (found := re.match(r"\.BR (.*) \((.*)\)$", plain(entry))):
            for path in paths:
                keys = section.setdefault(path, {})
                keys.update({key.strip(): found[2] for key in re.split(r"\s*,\s*", found[1])})
    return page


def may_be(value, kind):
    return any(test(value) for word in re.split(r" or (?=null)", kind) for name, test in TYPES.items() if name == word)


def compare(value, section, path="", problems=None):
    """What the page does not say, or says otherwise, of a document."""
    problems = [] if problems is None else problems
    keys = section.get(path)
    if keys is None:
        problems.append(f"no part on '{path}'")
        return problems
    for key, inner in value.items():
        if key not in keys:
            problems.append(f"'{path}' lacks {key}")
            continue
        if not may_be(inner, keys[key]):
            problems.append(f"{path} {key}: {json.dumps(inner)[:60]} is no {keys[key]}")
        below = f"{path}.{key}".lstrip(".")
        if below in FREE_KEYS:
            continue
        if isinstance(inner, dict):
            compare(inner, section, below, problems)
        elif isinstance(inner, list):
            for one in inner:
                if isinstance(one, dict):
                    compare(one, section, f"{below}[]", problems)
    return problems


def type_of(schema, node):
    """The page's word for what a schema allows."""
    node = {**node, **(schema["$defs"][node["$ref"].rsplit("/", 1)[1]] if "$ref" in node else {})}
    kinds = node.get("type")
    kinds = kinds if isinstance(kinds, list) else [kinds]
    values = node.get("enum", [node["const"]] if "const" in node else [])
    if values:
        kinds = sorted({"null" if value is None else "integer" if isinstance(value, int) else "string" for value in values})
        kinds.sort(key=lambda kind: kind == "null")
    words = {"string": "text", "boolean": "true or false", "array": "list"}
    kinds = [words.get(kind, kind) for kind in kinds]
    if kinds == ["list"] and "properties" not in node["items"] and "$ref" not in node["items"]:
        kinds = ["list of texts"]
    return " or ".join(kinds), node


def keys_of(schema, node, path=""):
    """{path: {key: type}} of a schema."""
    found = {path: {}}
    for key, inner in node["properties"].items():
        kind, inner = type_of(schema, inner)
        found[path][key] = kind
        below = f"{path}.{key}".lstrip(".")
        if inner.get("items") and kind == "list":
            found |= keys_of(schema, type_of(schema, inner["items"])[1], f"{below}[]")
        elif "properties" in inner:
            found |= keys_of(schema, inner, below)
    return found


def documents(build, folder):
    """(section, document) of each."""
    kelvo = [build / "tools/kelvo"]
    on_air = [build / "softdvb/softdvb", *AIR, "--", *kelvo]

    def said_by(*command, codes=(0,)):
        done = subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=300)
        if done.returncode not in codes:
            sys.exit(f"{' '.join(map(str, command))}: {done.returncode}\n{done.stderr}")
        return done.stdout

    samples = build / "samples"
    said_by(build / "softdvb/mux/softdvb-mux", "-q", samples / "kuldnokk-522.json", "-o", "522.ts")
    scan = [*on_air, "scan", "-q", "--json", "--freq", "522000000", "--freq", "530000000", "--db", "a.db"]
    yield "SCAN", json.loads(said_by(*scan))
    database = sqlite3.connect(folder / "a.db")
    with database:
        database.execute("UPDATE kanalid SET serv_name = 'Before' WHERE channel = 1")
    database.close()
    again = json.loads(said_by(*scan))
    if not again["changes"] or again["changes"][0]["kinds"] != ["renamed"]:
        sys.exit(f"no change is told: {again['changes']}")
    yield "SCAN", again
    yield "GUIDE UPDATE", json.loads(said_by(*on_air, "epg", "update", "-q", "--json", "--for", "10m", "--db", "a.db"))
    yield "CHANNELS", json.loads(said_by(*kelvo, "channels", "--format", "json", "--db", "a.db"))
    guide = json.loads(said_by(*kelvo, "epg", "--format", "json", "--db", "a.db"))
    if not guide["events"]:
        sys.exit("no events")
    yield "GUIDE", guide
    for line in said_by(*on_air, "watch", "#1", "--json", "--for", "60s", "--db", "a.db").splitlines():
        yield "WATCH", json.loads(line)
    for line in said_by(*on_air, "signal", "#1", "--json", "--for", "3s", "--db", "a.db").splitlines():
        yield "SIGNAL", json.loads(line)
    for one in json.loads(said_by(*on_air, "adapters", "--json")):
        yield "ADAPTERS", one
    for one in json.loads(said_by(*kelvo, "check", "--json", "--db", "a.db")):
        yield "CHECK", one


def main():
    source, build = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve()
    if not all((build / name).exists() for name in ("tools/kelvo", "softdvb/softdvb", "softdvb/mux/softdvb-mux")):
        print("skipped: no command, or no software adapter")
        return 77
    page = page_of((source / "docs/man/kelvo-json.5").read_text())
    page["SCAN"] |= {path: keys for path, keys in page["CHANNELS"].items() if path}
    problems = []
    for section, name in (("CHANNELS", "channels"), ("GUIDE", "guide")):
        schema = json.loads((source / f"schemas/{name}.schema.json").read_text())
        known = {path: keys for path, keys in keys_of(schema, schema).items() if path not in FREE_KEYS}
        for path in sorted(known.keys() | page[section].keys()):
            ours, theirs = page[section].get(path, {}), known.get(path, {})
            problems += [f"{section} '{path}' {key}: the page says '{ours.get(key)}', {name}.schema.json '{theirs.get(key)}'"
                         for key in sorted(ours.keys() | theirs.keys()) if ours.get(key) != theirs.get(key)]
    for section, name in SOURCES.items():
        text = (source / "tools" / name).read_text()
        own = [key for path, keys in page[section].items() if section != "SCAN" or path not in page["CHANNELS"] or not path
               for key in keys]
        problems += [f"{section} {key}: {name} writes no such key" for key in own if f'"{key}"' not in text]
    count, sections = 0, set()
    with tempfile.TemporaryDirectory() as folder:
        for section, document in documents(build, pathlib.Path(folder)):
            problems += [f"{section}: {problem}" for problem in compare(document, page[section])]
            count += 1
            sections.add(section)
    problems += [f"{section}: no document" for section in sorted({*SOURCES, "CHANNELS", "GUIDE"} - sections)]
    print("\n".join(dict.fromkeys(problems)) or f"{count} documents")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
