# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""recorded_streams.py RECORDING: what its PMTs say of streams, a line each, by a reading of its own:
program|pid|type|component tag|kind|codec, program|lang|pid|place|language|role|page, program|ca|pid|system|ECM PID."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from sections import descriptors, pat, pmt, sections  # noqa: E402

BY_TYPE = {
    0x01: "video MPEG-1", 0x02: "video MPEG-2", 0x03: "audio MPEG-1", 0x04: "audio MPEG-2", 0x0F: "audio AAC",
    0x10: "video MPEG-4", 0x11: "audio HE-AAC", 0x1B: "video H.264", 0x24: "video HEVC", 0x08: "data DSM-CC",
    0x0A: "data DSM-CC", 0x0B: "data DSM-CC", 0x0C: "data DSM-CC", 0x0D: "data DSM-CC",
}
# Of private streams, the strongest first.
BY_DESCRIPTOR = [(0x7A, "audio E-AC-3"), (0x7F15, "audio AC-4"), (0x7F20, "subtitles TTML"), (0x6A, "audio AC-3"),
                 (0x7B, "audio DTS"), (0x7C, "audio AAC"), (0x6F, "application "), (0x56, "teletext "),
                 (0x59, "subtitles DVB")]
CAROUSELS = {5: "MPE", 6: "data carousel", 7: "object carousel", 0x0A: "software update", 0x0B: "IP/MAC notification",
             0xF0: "object carousel", 0x106: "MHEG-5", 0x123: "HbbTV carousel"}
APPLICATIONS = {1: "MHP", 2: "MHP", 0x10: "HbbTV"}
AUDIO_TYPES = ["", "clean effects", "hard of hearing", "audio description"]
TELETEXT_TYPES = ["", "index", "subtitles", "additional information", "programme schedule", "hard of hearing"]
AC3_SERVICES = ["", "music and effects", "audio description", "hard of hearing", "dialogue", "commentary", "emergency",
                ""]
AUDIO_CLASSES = ["", "audio description", "hard of hearing", "spoken subtitles", "dependent data"]


def code(raw):
    return "".join(chr(byte) if 0x20 < byte < 0x7F else "?" for byte in raw[:3])


def entries(body, size):
    return [body[i:i + size] for i in range(0, len(body) - size + 1, size)]


def describe(stream_type, loop):
    found = {}
    for tag, body in loop:
        found.setdefault(0x7F00 | body[0] if tag == 0x7F and body else tag, []).append(body)
    name = BY_TYPE.get(stream_type, "")
    if not name and (stream_type in (5, 6) or stream_type >= 0x80):
        name = next((name for tag, name in BY_DESCRIPTOR if tag in found), "")
    kind, _, codec = (name or "data ").partition(" ")
    if kind == "application":
        kinds = [(entry[0] << 8 | entry[1]) & 0x7FFF for body in found[0x6F] for entry in entries(body, 3)]
        codec = next((APPLICATIONS[number] for number in kinds if number in APPLICATIONS), "")
    if kind == "audio" and "AAC" in codec:
        for level in [body[0] for body in found.get(0x7C, []) if body]:
            codec = ("AAC" if 0x28 <= level <= 0x2B else "HE-AAC" if 0x2C <= level <= 0x2F else
                     "HE-AAC v2" if 0x30 <= level <= 0x33 else codec)
    if kind == "data":
        for body in found.get(0x66, []):
            codec = CAROUSELS.get(body[0] << 8 | body[1], codec)
    languages = []
    if kind == "teletext":
        for body in found[0x56]:
            for entry in entries(body, 5):
                page = (entry[3] & 7 or 8) * 100 + (entry[4] >> 4) * 10 + (entry[4] & 15)
                valid = entry[4] >> 4 < 10 and entry[4] & 15 < 10
                role = entry[3] >> 3
                languages.append((code(entry), TELETEXT_TYPES[role] if role < 6 else "", page if valid else 0))
    elif kind == "subtitles" and 0x59 in found:
        for body in found[0x59]:
            for entry in entries(body, 8):
                languages.append((code(entry), "hard of hearing" if 0x20 <= entry[3] <= 0x2F else "",
                                  entry[4] << 8 | entry[5]))
    else:
        for body in found.get(0x0A, []):
            for entry in entries(body, 4):
                languages.append((code(entry), AUDIO_TYPES[entry[3]] if entry[3] < 4 else "", 0))
    if kind == "audio":
        role = ""
        for body in found.get(0x6A, []) + found.get(0x7A, []):
            if len(body) > 1 and body[0] & 0x80:
                role = role or AC3_SERVICES[body[1] >> 3 & 7]
        for body in found.get(0x7F06, []):
            kind_of_sound = body[1] >> 2 & 0x1F
            role = (AUDIO_CLASSES[kind_of_sound] if kind_of_sound < 5 else "") or role
        if role:
            languages = [(language, role, page) for language, _, page in languages]
    component = next((body[0] for body in found.get(0x52, []) if body), -1)
    return component, kind, codec, languages


def ca_of(loop):
    return [(body[0] << 8 | body[1], (body[2] & 0x1F) << 8 | body[3]) for tag, body in loop if tag == 9 and len(body) > 3]


def main():
    with open(sys.argv[1], "rb") as recording:
        data = recording.read()
    programmes = {}
    for _, section in sections(data, {0}):
        if section.table_id == 0:
            programmes.update({number: pid for number, pid in pat(section).items() if number})
    lines = set()
    seen = set()
    for pid, section in sections(data, set(programmes.values())):
        number = section.extension if section.is_long else None
        if section.table_id != 2 or not section.is_current or number in seen or programmes.get(number) != pid:
            continue
        seen.add(number)
        _, loop, streams = pmt(section)
        for system, ecm in ca_of(descriptors(loop)):
            lines.add(f"{number}|ca|0|{system}|{ecm}")
        for stream_type, es_pid, stream_loop in streams:
            component, kind, codec, languages = describe(stream_type, list(descriptors(stream_loop)))
            lines.add(f"{number}|{es_pid}|{stream_type}|{component}|{kind}|{codec}")
            for place, (language, role, page) in enumerate(languages):
                lines.add(f"{number}|lang|{es_pid}|{place}|{language}|{role}|{page}")
            for system, ecm in ca_of(descriptors(stream_loop)):
                lines.add(f"{number}|ca|{es_pid}|{system}|{ecm}")
    print("\n".join(sorted(lines)))


if __name__ == "__main__":
    sys.exit(main())
