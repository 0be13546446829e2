# SPDX-FileCopyrightText: the libkelvo++ authors
# SPDX-License-Identifier: LGPL-2.1-or-later

"""Sections of a recorded transport stream, read without any of the library's code. For references of tests.

    for pid, section in sections(open(file, "rb").read()):    # whole ones with a right CRC, in the order of their ends
        if section.table_id == 0x02:
            for tag, body in descriptors(section.body[4:]): ...
"""

import struct

PACKET = 188
SYNC = 0x47
LAST_TABLE_WITHOUT_CRC = (0x70, 0x71, 0x72)  # TDT, running status, stuffing


def _crc_table():
    table = []
    for byte in range(256):
        value = byte << 24
        for _ in range(8):
            value = (value << 1 ^ 0x04C11DB7 if value & 0x80000000 else value << 1) & 0xFFFFFFFF
        table.append(value)
    return table


_CRC = _crc_table()


def crc32(data):
    """The CRC of ISO/IEC 13818-1, Annex A; 0 over a section with its CRC."""
    value = 0xFFFFFFFF
    for byte in data:
        value = (value << 8 & 0xFFFFFFFF) ^ _CRC[value >> 24 ^ byte]
    return value


class Section:
    """One section: `raw` is all of it. Long ones have the fields of the common header and `body` between that and the
    CRC; of short ones (TDT, TOT) `body` is what follows the length, without the CRC if there is one."""

    def __init__(self, raw):
        self.raw = raw
        self.table_id = raw[0]
        self.is_long = raw[1] & 0x80 != 0
        if self.is_long:
            self.extension = raw[3] << 8 | raw[4]
            self.version = raw[5] >> 1 & 0x1F
            self.is_current = raw[5] & 1 != 0
            self.number = raw[6]
            self.last_number = raw[7]
            self.body = raw[8:-4]
        else:
            self.body = raw[3:] if self.table_id in LAST_TABLE_WITHOUT_CRC else raw[3:-4]

    def is_whole(self):
        if self.is_long:
            return len(self.raw) >= 12 and crc32(self.raw) == 0
        return self.table_id in LAST_TABLE_WITHOUT_CRC or (len(self.raw) >= 7 and crc32(self.raw) == 0)


def packet_shape(data):
    """Length of a packet (188, 192 or 204) and where the first one begins; (0, 0) when it is no transport stream."""
    for size in (PACKET, 192, 204):
        for start in range(min(size, len(data))):
            places = range(start, min(len(data), start + 8 * size), size)
            if len(places) > 0 and all(data[place] == SYNC for place in places):
                return size, start
    return 0, 0


def packets(data):
    """(pid, starts a section or PES, continuity counter, payload, packet number) of each packet with a payload and without
    an error."""
    size, place = packet_shape(data)
    while size != 0 and place + PACKET <= len(data):
        header = struct.unpack_from(">BHB", data, place)
        if header[0] != SYNC:
            place += 1  # a piece is missing: the next sync byte that others follow
            while place + PACKET <= len(data) and not (
                    data[place] == SYNC and (place + size >= len(data) or data[place + size] == SYNC)):
                place += 1
            continue
        begin = place + 4
        if header[2] & 0x20:
            begin += 1 + data[place + 4]
        if header[2] & 0x10 and not header[1] & 0x8000 and begin < place + PACKET:
            yield header[1] & 0x1FFF, header[1] & 0x4000 != 0, header[2] & 0x0F, data[begin:place + PACKET], place // size
        place += size


def sections(data, pids=None):
    """(pid, Section) of all that are whole, on `pids` or on every PID that carries any; `packet` of each is the number of
    the one that ended it. What is lost or repeated in the stream is noticed by the continuity counters."""
    waiting = {}
    counters = {}
    for pid, starts, counter, payload, number in packets(data):
        if pid == 0x1FFF or (pids is not None and pid not in pids):
            continue
        before = counters.get(pid)
        counters[pid] = counter
        if before == counter:
            continue  # the packet was sent twice
        if before is not None and (before + 1) & 0x0F != counter:
            waiting.pop(pid, None)
        if starts:
            if payload[:3] == b"\0\0\1":
                continue  # PES
            pointer = payload[0]
            rest, payload = payload[1:1 + pointer], payload[1 + pointer:]
            if waiting.get(pid):
                yield from _finished(pid, waiting[pid] + rest, number)[0]
            waiting[pid] = b""
        elif pid not in waiting:
            continue
        found, waiting[pid] = _finished(pid, waiting[pid] + payload, number)
        yield from found


def _finished(pid, data, packet):
    found = []
    while len(data) >= 3 and data[0] != 0xFF:
        size = ((data[1] & 0x0F) << 8 | data[2]) + 3
        if len(data) < size:
            return found, data
        if not (data[1] & 0x80 and size < 12):
            section = Section(data[:size])
            section.packet = packet
            if section.is_whole():
                found.append((pid, section))
        data = data[size:]
    return found, b"" if data[:1] == b"\xFF" else data


def descriptors(loop):
    """(tag, body) of each descriptor of a loop; one that is cut off ends it."""
    while len(loop) >= 2 and len(loop) >= 2 + loop[1]:
        yield loop[0], loop[2:2 + loop[1]]
        loop = loop[2 + loop[1]:]


def loop12(data):
    """What a 12-bit length at the beginning of `data` spans, and what follows it."""
    size = (data[0] & 0x0F) << 8 | data[1]
    return data[2:2 + size], data[2 + size:]


def pat(section):
    """{program number: PID}; 0 is the NIT's."""
    entries = section.body
    return {entries[i] << 8 | entries[i + 1]: (entries[i + 2] & 0x1F) << 8 | entries[i + 3]
            for i in range(0, len(entries) - 3, 4)}


def pmt(section):
    """PCR PID, the programme's descriptors, and (type, PID, descriptors) of each stream; loops as bytes."""
    pcr = (section.body[0] & 0x1F) << 8 | section.body[1]
    programme, rest = loop12(section.body[2:])
    streams = []
    while len(rest) >= 5:
        loop, after = loop12(rest[3:])
        streams.append((rest[0], (rest[1] & 0x1F) << 8 | rest[2], loop))
        rest = after
    return pcr, programme, streams
