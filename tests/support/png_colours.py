# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""png_colours.py FILE: a line for each colour of a PNG (8 bits, RGB or RGBA, not interlaced): RRGGBB and its pixels."""

import collections
import struct
import sys
import zlib


def rows(data):
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    at, packed, header = 8, b"", None
    while at < len(data):
        size, kind = struct.unpack(">I4s", data[at : at + 8])
        body = data[at + 8 : at + 8 + size]
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            packed += body
        at += 12 + size
    width, height, depth, colour, _, _, interlace = header
    assert depth == 8 and colour in (2, 6) and interlace == 0
    step = 3 if colour == 2 else 4
    line, plain, above = width * step, zlib.decompress(packed), bytearray(width * step)
    for y in range(height):
        kind = plain[y * (line + 1)]
        row = bytearray(plain[y * (line + 1) + 1 : (y + 1) * (line + 1)])
        for i in range(line):
            left = row[i - step] if i >= step else 0
            up = above[i]
            corner = above[i - step] if i >= step else 0
            if kind == 1:
                guess = left
            elif kind == 2:
                guess = up
            elif kind == 3:
                guess = (left + up) // 2
            elif kind == 4:
                guess = min((left, up, corner), key=lambda value: abs(left + up - corner - value))
            else:
                break
            row[i] = (row[i] + guess) & 0xFF
        yield [bytes(row[i : i + 3]) for i in range(0, line, step)]
        above = row


def main():
    with open(sys.argv[1], "rb") as file:
        counts = collections.Counter(pixel for row in rows(file.read()) for pixel in row)
    for colour, count in counts.items():
        print(colour.hex(), count)


if __name__ == "__main__":
    main()
