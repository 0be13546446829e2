#!/usr/bin/env python3
# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""Texts of the SI in transport streams, decoded with Python's own codecs.

Prints, for each different text or event, one line of fields with tabs between them: "name" and a text in hex, or
"event" and the loop of an event's descriptors in hex; behind that what it has to become, as hex of UTF-8: of a name
the text, of an event for each language its code, name, text, long text, the number of its items, and description and
text of each. Knows nothing of the library: loops and tables are read here once more.
"""

import codecs
import os
import re
import sys
import unicodedata

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from sections import descriptors, sections  # noqa: E402

# ISO/IEC 6937 with the changes of EN 300 468, figure A.1: what stands above 0xA0. "?" is not defined.
UPPER = (
    "\xa0\xa1\xa2\xa3\u20ac\xa5?\xa7\xa4\u2018\u201c\xab\u2190\u2191\u2192\u2193"
    "\xb0\xb1\xb2\xb3\xd7\xb5\xb6\xb7\xf7\u2019\u201d\xbb\xbc\xbd\xbe\xbf"
    "????????????????"
    "\u2014\xb9\xae\xa9\u2122\u266a\xac\xa6????\u215b\u215c\u215d\u215e"
    "\u2126\xc6\u0110\xaa\u0126?\u0132\u013f\u0141\xd8\u0152\xba\xde\u0166\u014a\u0149"
    "\u0138\xe6\u0111\xf0\u0127\u0131\u0133\u0140\u0142\xf8\u0153\xdf\xfe\u0167\u014b\xad"
)
ACCENTS = dict(
    zip(
        range(0xC1, 0xD0),
        "\u0300\u0301\u0302\u0303\u0304\u0306\u0307\u0308?\u030a\u0327?\u030b\u0328\u030c",
    )
)
BROKEN = "\ufffd"


ALONE = dict(zip(ACCENTS, "`\xb4^~\xaf\u02d8\u02d9\xa8?\u02da\xb8?\u02dd\u02db\u02c7"))


def iso_6937(data):
    """What a text that was cut has at its end of a letter is left out."""
    # Czech broadcasts write the letter in this way.
    data = data.replace(b"\xca\xad", b"\xcaU")
    out = []
    i = 0
    while i < len(data):
        byte = data[i]
        i += 1
        if byte not in ACCENTS:
            out.append(chr(byte) if byte < 0xA0 else UPPER[byte - 0xA0].replace("?", BROKEN))
        elif i < len(data):
            base = chr(data[i]) if data[i] < 0xC0 else UPPER[data[i] - 0xA0]
            if ACCENTS[byte] == "?" or not (base == " " or base.isascii() and base.isalpha() or data[i] > 0xE0 and base.isalpha()):
                out.append(BROKEN)
                continue
            i += 1
            base = "i" if base == "\u0131" else base
            out.append(ALONE[byte] if base == " " else unicodedata.normalize("NFC", base + ACCENTS[byte]))
    return "".join(out)


def looks_like_utf8(data):
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError:
        return False
    return any(ord(c) >= 0x80 for c in text) and "\u02ad" not in text


def announcement(data):
    """The bytes that announce a table, and the rest."""
    if not data or data[0] >= 0x20:
        return b"", data
    size = {0x10: 3, 0x1F: 2}.get(data[0], 1)
    return data[:size], data[size:]


def table(selector, data):
    if not selector:
        return data.decode("utf-8") if looks_like_utf8(data) else iso_6937(data)
    first = selector[0]
    codec = None
    if 0x01 <= first <= 0x0B and first != 0x08:
        codec = "iso8859_%d" % (first + 4)
    elif first == 0x10 and len(selector) == 3 and selector[1] == 0 and 1 <= selector[2] <= 15 and selector[2] != 12:
        codec = "iso8859_%d" % selector[2]
    else:
        codec = {0x11: "utf_16_be", 0x12: "euc_kr", 0x13: "gbk", 0x14: "utf_16_be", 0x15: "utf_8"}.get(first)
    if codec is None:
        raise ValueError("no rule for selector %s" % selector.hex())
    # Incremental, and never told that it is over: what was cut is left out here, too.
    return codecs.getincrementaldecoder(codec)("replace").decode(data)


def cleaned(text, prose):
    line = "\n" if prose else " "
    text = text.replace("\r\n", line)
    text = re.sub("[\r\n\x8a\ue08a]", line, text)
    text = text.replace("\t", " ")
    keep = "\n" if prose else ""
    return "".join(
        c for c in text if not (c < " " and c not in keep or "\x7f" <= c <= "\x9f" or "\ue080" <= c <= "\ue09f" or c == "\xad")
    )


def decoded(parts, prose=False):
    """One text that stands in several parts."""
    runs = []
    for part in parts:
        if not part:
            continue
        selector, rest = announcement(part)
        if runs and runs[-1][0] == selector:
            runs[-1][1] += rest
        else:
            runs.append([selector, rest])
    return "".join(cleaned(table(selector, data), prose) for selector, data in runs)


def counted(data, at):
    return data[at + 1 : at + 1 + data[at]], at + 1 + data[at]


def length12(data, at):
    return (data[at] & 0x0F) << 8 | data[at + 1]


def name_loops(section):
    """The descriptor loops with names, of an SDT or a NIT."""
    end = len(section) - 4
    if section[0] in (0x42, 0x46):
        at = 11
        while at + 5 <= end:
            size = length12(section, at + 3)
            yield section[at + 5 : at + 5 + size]
            at += 5 + size
    elif section[0] in (0x40, 0x41):
        yield section[10 : 10 + length12(section, 8)]


def names(section):
    for loop in name_loops(section):
        for tag, body in descriptors(loop):
            if tag == 0x40:
                yield body
            elif tag == 0x48 and len(body) >= 3:
                provider, at = counted(body, 1)
                yield provider
                yield counted(body, at)[0]


def event_loops(section):
    if not 0x4E <= section[0] <= 0x6F:
        return
    at = 14
    while at + 12 <= len(section) - 4:
        size = length12(section, at + 10)
        yield section[at + 12 : at + 12 + size]
        at += 12 + size


def event(loop):
    """For each language, in their order: code, name, text, long text and the items."""
    languages = {}
    for tag, body in descriptors(loop):
        if tag not in (0x4D, 0x4E) or len(body) < 5:
            continue
        number, at = (None, 0) if tag == 0x4D else (body[0] >> 4, 1)
        of_language = languages.setdefault(body[at : at + 3], {"name": b"", "text": b"", "parts": {}})
        if tag == 0x4D:
            name, at = counted(body, 3)
            text, _ = counted(body, at)
            of_language["name"] = name or of_language["name"]
            of_language["text"] = text or of_language["text"]
            continue
        items, at = counted(body, 4)
        of_language["parts"].setdefault(number, (items, counted(body, at)[0]))
    fields = []
    for code, of_language in languages.items():
        parts = [of_language["parts"][number] for number in sorted(of_language["parts"])]
        items = []
        for block, _ in parts:
            at = 0
            while at + 2 <= len(block):
                description, at = counted(block, at)
                item, at = counted(block, at)
                if not description and items:
                    items[-1][1].append(item)
                else:
                    items.append((description, [item]))
        fields.append(code.decode("latin_1"))
        fields.append(decoded([of_language["name"]]))
        fields.append(decoded([of_language["text"]], prose=True))
        fields.append(decoded([text for _, text in parts], prose=True))
        pairs = []
        for description, item in items:
            pair = (decoded([description]), decoded(item))
            if pair not in pairs and pair != ("", ""):
                pairs.append(pair)
        fields.append(str(len(pairs)))
        for pair in pairs:
            fields.extend(pair)
    return fields


def main():
    seen = set()
    for path in sys.argv[1:]:
        with open(path, "rb") as file:
            data = file.read()
        for _, section in sections(data, (0x10, 0x11, 0x12)):
            seen.update(("name", text) for text in names(section.raw))
            seen.update(("event", loop) for loop in event_loops(section.raw))
    for kind, data in sorted(seen):
        fields = [decoded([data])] if kind == "name" else event(data)
        print("\t".join([kind, data.hex()] + [field.encode("utf-8").hex() for field in fields]))


if __name__ == "__main__":
    main()
