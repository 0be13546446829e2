# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""Makes what fuzzing begins with.

    python3 tests/fuzz/seeds.py SOFTDVB_MUX FOLDER      seeds and dictionaries: FOLDER/ENTRY/*, FOLDER/ENTRY.dict
    python3 tests/fuzz/seeds.py --keep ENTRY FOLDER     the smallest inputs of FOLDER into tests/fuzz/corpus/ENTRY.hex

Seeds are the kept inputs, and sections, descriptors, texts and packets of streams that softdvb-mux makes.
"""

import hashlib
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "support"))
from sections import sections  # noqa: E402

ENTRIES = ("section descriptor siparse text tuner_line packets description trace database imports").split()
MOST_BYTES_KEPT = 800
MOST_KEPT = 40
MOST_KEPT_IN_ALL = 10000
MOST_SEEDS = 1000
NOW = "2026-03-01T18:00:00Z"
PIDS = {0: 0, 1: 1, 16: 3, 17: 4, 18: 5, 20: 6}  # as siparse_entry.cpp numbers them; 2 is a PMT's
EXTRA_TEXTS = (b"\x10\x00\x02\xb5", b"\x11\x00A\xd8=\xdeB", b"\x12\xc7\xd1", b"\x13\xd6\xd0", b"\x14Ql", b"\x15\xc3\x96",
               b"\x1f\x01x", b"\xc2a\xc8 ", b"a\x86b\x87\x8ac", b"\x05\x80\xff", b"\xe0\x8a\xee\x82\x8a")
TUNER_LINE = b"Fr:  506000000 Bw:  0 CrH:  3 CrL:  3 Mod:  3 TrM:  2 Grd:  0 Hir:  0"
TABLE = b"""# A comment
[CHANNEL]
\tDELIVERY_SYSTEM = DVBT2
\tFREQUENCY = 506000000
\tBANDWIDTH_HZ = 8000000
\tSTREAM_ID = 1

T 474000000 8MHz 2/3 NONE QAM64 8k 1/8 NONE
T2 498000000 8MHz AUTO AUTO AUTO AUTO AUTO AUTO 1
"""
FEW = """{"duration": 0.4, "bit_rate": 480000, "payload_rate": 0, "fast": true, "transport_stream_id": 1,
 "original_network_id": 1, "network": {"name": "N"}, "time": {"offsets": [{"country": "EST", "offset": "+02:00"}]},
 "services": [{"service_id": 1, "lcn": 1, "name": "A", "provider": "P", "streams": [{"type": 2}, {"type": "teletext",
 "teletext": [{"language": "est"}]}], "events": [{"start": "now", "duration": "1h", "name": "E", "extended": {"text":
 "x", "items": [{"name": "a", "text": "b"}]}}]}], "faults": [{"fault": "wrong_crc", "table": "eit", "every": 3}]}"""
# Not all of them right.
SMALL = ('{"transport_stream_id": 1, "original_network_id": 2}', "{", '{"duration": -1}',
         '{"transport_stream_id": "0x10", "original_network_id": 2, "duration": 0.1, "cat": {"ca": [{"system_id": 1}]}}',
         '{"transport_stream_id": 1, "original_network_id": 2, "services": [{"service_id": 1, "events": [{"start": "now"}]}]}')


def streams(mux, folder):
    """The example, the samples, and a short one with a bit of everything."""
    texts = [subprocess.run([mux, "--example"], check=True, capture_output=True, text=True).stdout, FEW]
    texts += [path.read_text() for path in sorted((ROOT / "samples").glob("*.json"))]
    for number, text in enumerate(texts):
        description = folder / f"{number}.json"
        description.write_text(text)
        made = subprocess.run([mux, str(description), "-q", "-o", "-", "--now", NOW], capture_output=True, check=False)
        if made.returncode == 0:
            yield text, made.stdout


def loops(section):
    """Loops of descriptors, roughly: whatever has tags and lengths that fit to the end."""
    body = section.raw[3:]
    for begin in range(5, min(len(body), 40)):
        at = begin
        while at + 2 <= len(body) and at + 2 + body[at + 1] <= len(body) - 4:
            at += 2 + body[at + 1]
        if at - begin > 4:
            yield body[begin:at]


def quoted(data):
    return '"' + "".join(f"\\x{byte:02X}" for byte in data) + '"'


def make(mux, out):
    seeds = {entry: set() for entry in ENTRIES}
    words = {entry: set() for entry in ENTRIES}
    work = out / "streams"
    work.mkdir(parents=True, exist_ok=True)
    for text, stream in streams(mux, work):
        seeds["description"].add(text.encode())
        seeds["description"] |= {piece.encode() for piece in SMALL}
        seeds["packets"].add(b"\x03" + stream[:188 * 60])
        for packet in range(0, min(len(stream), 188 * 400), 188 * 9):
            seeds["packets"].add(b"\x01" + stream[packet:packet + 188 * 4])
        row = b""
        seen = set()
        for pid, section in sections(stream):
            if section.raw in seen:
                continue
            seen.add(section.raw)
            seeds["section"].add(section.raw)
            head = PIDS.get(pid, 2)
            for receiver in (0x00, 0x20, 0x60):
                seeds["siparse"].add(bytes([head | receiver]) + section.raw)
            if len(row) < 3000:
                row += bytes([head | 0x20 | (0x10 if pid == 18 else 0)]) + section.raw
            for table in range(8):
                for loop in list(loops(section))[:3]:
                    seeds["descriptor"].add(bytes([table]) + loop[:200])
        # All tables, the merge, the guide.
        seeds["siparse"].add(row + b"\xa1\xa2\xa3" + row + b"\xa6")
        seeds["siparse"].add(bytes(b & 0x5F if i == 0 else b for i, b in enumerate(row)) + b"\x81\x83" + row)
    for how in range(16):
        for text in EXTRA_TEXTS:
            seeds["text"].add(bytes([how]) + text)
            seeds["text"].add(bytes([how | 4]) + bytes([len(text) + 14]) + b"\x01est" + bytes([len(text) * 0 + 6]) +
                              b"\x02ab\x02cd" + bytes([len(text)]) + text)
    words["text"] |= set(EXTRA_TEXTS)
    seeds["tuner_line"] |= {bytes([how]) + TUNER_LINE[:size] for how in (0, 1) for size in (4, 20, 50, len(TUNER_LINE))}
    seeds["tuner_line"].add(b"\x00Fr: 99999999999999999999 Bw: -5")
    words["tuner_line"] |= {b"Fr: ", b" Bw: ", b" CrH: ", b" Mod: ", b"-2147483648", b"4294967296"}
    for record in ("00000100 01000007 776F726B 65720000\n", "00000120 02000000 74756E65 000001FA\n"):
        raw = bytes.fromhex(record.replace("\n", "").replace(" ", ""))
        little = b"".join(raw[i:i + 4][::-1] for i in range(0, 16, 4))
        for how in range(16):
            seeds["trace"].add(bytes([how]) + (record.encode() if how & 3 in (0, 3) else raw if how & 2 else little) * 3)
    seeds["imports"] |= {bytes([how]) + text for how in range(8) for text in (TABLE,) + EXTRA_TEXTS}
    seeds["imports"] |= {b"\x03TZif2\x00\x00\n<+03>-3\n", b"\x04AA:b,CC:d,", b"\x04a:b\nc:d\n", b"\x03TZif\nEST-2\n"}
    words["imports"] |= {word.encode() for word in re.findall(r"[A-Za-z0-9/_\[\]]{2,}", TABLE.decode())}
    words["imports"] |= {b"\xc2\x9b", b"\xe2\x80\xae", b"\xf8\x88\x80\x80\x80", b"TZif", b"\x1b["}
    documented = re.findall(r"`([a-z_0-9-]+)`", (ROOT / "docs" / "softdvb-mux.md").read_text())
    words["description"] |= {f'"{word}"'.encode() for word in documented} | {b"-1", b"1e308", b"null", b"[]", b"{}"}
    seeds["database"] |= {bytes([how]) + bytes([0, page >> 8, at]) + bytes([value]) for how in range(8)
                          for page in (0, 0x100, 0x1000, 0x2000) for at in (16, 28, 100, 103, 105) for value in (0, 255)}
    for tag in sorted({loop[1] for loop in seeds["descriptor"]} | set(range(0x40, 0x80))):
        for entry in ("section", "descriptor", "siparse"):
            words[entry] |= {bytes([tag, 0]), bytes([tag, 3]), bytes([tag, 255])}
    words["siparse"] |= {bytes([0x80 | step | receiver]) for step in range(8) for receiver in (0, 0x20, 0x60)}
    for entry in ENTRIES:
        kept = HERE / "corpus" / f"{entry}.hex"
        if kept.exists():
            seeds[entry] |= {bytes.fromhex(line) for line in kept.read_text().split("\n") if line}
        folder = out / entry
        folder.mkdir(parents=True, exist_ok=True)
        named = {hashlib.sha1(seed).hexdigest(): seed for seed in seeds[entry]}
        for name in sorted(named)[:MOST_SEEDS]:
            (folder / name).write_bytes(named[name][:4096])
        (out / f"{entry}.dict").write_text("".join(quoted(word) + "\n" for word in sorted(words[entry] or {b"\x00"})))


def keep(entry, folder):
    """Of a corpus that libFuzzer has already made small."""
    inputs = sorted((path.read_bytes() for path in pathlib.Path(folder).iterdir()), key=lambda data: (len(data), data))
    inputs = [data for data in inputs if 0 < len(data) <= MOST_BYTES_KEPT]
    step = max(1, len(inputs) // MOST_KEPT, sum(len(data) for data in inputs) // MOST_KEPT_IN_ALL)
    (HERE / "corpus" / f"{entry}.hex").write_text("".join(data.hex() + "\n" for data in inputs[::step][:MOST_KEPT]))


if __name__ == "__main__":
    if len(sys.argv) == 4 and sys.argv[1] == "--keep":
        keep(sys.argv[2], sys.argv[3])
    elif len(sys.argv) == 3:
        make(sys.argv[1], pathlib.Path(sys.argv[2]))
    else:
        sys.exit(__doc__)
