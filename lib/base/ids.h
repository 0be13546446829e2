// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// The numbers of ISO/IEC 13818-1 and EN 300 468 by name: PIDs, table ids, descriptor tags. They stand here alone.

// PIDs that tables have everywhere (ISO/IEC 13818-1, 2.4.3.3; EN 300 468, table 1).
namespace pid {

inline constexpr int PAT = 0x0000;
inline constexpr int CAT = 0x0001;
inline constexpr int NIT = 0x0010;
inline constexpr int SDT = 0x0011;
inline constexpr int EIT = 0x0012;
inline constexpr int TIME = 0x0014;           // TDT and TOT
inline constexpr int LAST_RESERVED = 0x001F;  // streams of programmes have PIDs above
inline constexpr int LAST = 0x1FFF;

}  // namespace pid

// Table ids (ISO/IEC 13818-1, 2.4.4.4; EN 300 468, table 2).
namespace table {

inline constexpr int PAT = 0x00;
inline constexpr int CAT = 0x01;
inline constexpr int PMT = 0x02;
inline constexpr int NIT_ACTUAL = 0x40;
inline constexpr int NIT_OTHER = 0x41;
inline constexpr int SDT_ACTUAL = 0x42;
inline constexpr int SDT_OTHER = 0x46;
inline constexpr int EIT_PRESENT_FOLLOWING = 0x4E;        // of the actual multiplex
inline constexpr int EIT_PRESENT_FOLLOWING_OTHER = 0x4F;  // of others
inline constexpr int EIT_SCHEDULE_FIRST = 0x50;           // of the actual multiplex, up to
inline constexpr int EIT_SCHEDULE_LAST = 0x5F;
inline constexpr int EIT_SCHEDULE_OTHER_FIRST = 0x60;  // of others, up to
inline constexpr int EIT_LAST = 0x6F;
inline constexpr int TDT = 0x70;
inline constexpr int TOT = 0x73;

}  // namespace table

// Descriptor tags (ISO/IEC 13818-1, table 2-45; EN 300 468, table 12). Tags from 0x80 on are private.
namespace tag {

inline constexpr int VIDEO_STREAM = 0x02;
inline constexpr int AUDIO_STREAM = 0x03;
inline constexpr int HIERARCHY = 0x04;
inline constexpr int REGISTRATION = 0x05;
inline constexpr int DATA_STREAM_ALIGNMENT = 0x06;
inline constexpr int CA = 0x09;
inline constexpr int ISO_639_LANGUAGE = 0x0A;
inline constexpr int SYSTEM_CLOCK = 0x0B;
inline constexpr int MULTIPLEX_BUFFER_UTILIZATION = 0x0C;
inline constexpr int MAXIMUM_BITRATE = 0x0E;
inline constexpr int SMOOTHING_BUFFER = 0x10;
inline constexpr int STD = 0x11;
inline constexpr int MPEG4_AUDIO = 0x1C;
inline constexpr int AVC_VIDEO = 0x28;
inline constexpr int HEVC_VIDEO = 0x38;
inline constexpr int VVC_VIDEO = 0x39;
inline constexpr int NETWORK_NAME = 0x40;
inline constexpr int SERVICE_LIST = 0x41;
inline constexpr int STUFFING = 0x42;
inline constexpr int VBI_DATA = 0x45;
inline constexpr int VBI_TELETEXT = 0x46;
inline constexpr int SERVICE = 0x48;
inline constexpr int LINKAGE = 0x4A;
inline constexpr int SHORT_EVENT = 0x4D;
inline constexpr int EXTENDED_EVENT = 0x4E;
inline constexpr int COMPONENT = 0x50;
inline constexpr int MOSAIC = 0x51;
inline constexpr int STREAM_IDENTIFIER = 0x52;
inline constexpr int CA_IDENTIFIER = 0x53;
inline constexpr int CONTENT = 0x54;
inline constexpr int PARENTAL_RATING = 0x55;
inline constexpr int TELETEXT = 0x56;
inline constexpr int LOCAL_TIME_OFFSET = 0x58;
inline constexpr int SUBTITLING = 0x59;
inline constexpr int TERRESTRIAL_DELIVERY_SYSTEM = 0x5A;
inline constexpr int MULTILINGUAL_NETWORK_NAME = 0x5B;
inline constexpr int MULTILINGUAL_SERVICE_NAME = 0x5D;
inline constexpr int MULTILINGUAL_COMPONENT = 0x5E;
inline constexpr int PRIVATE_DATA_SPECIFIER = 0x5F;
inline constexpr int FREQUENCY_LIST = 0x62;
inline constexpr int DATA_BROADCAST = 0x64;
inline constexpr int DATA_BROADCAST_ID = 0x66;
inline constexpr int AC3 = 0x6A;
inline constexpr int CELL_LIST = 0x6C;
inline constexpr int CELL_FREQUENCY_LINK = 0x6D;
inline constexpr int APPLICATION_SIGNALLING = 0x6F;
inline constexpr int CONTENT_IDENTIFIER = 0x76;
inline constexpr int ECM_REPETITION_RATE = 0x78;
inline constexpr int ENHANCED_AC3 = 0x7A;
inline constexpr int DTS = 0x7B;
inline constexpr int AAC = 0x7C;
inline constexpr int EXTENSION = 0x7F;
inline constexpr int LOGICAL_CHANNEL = 0x83;        // private to terrestrial networks, as those below
inline constexpr int SERVICE_ATTRIBUTE = 0x86;      // in the United Kingdom
inline constexpr int LOGICAL_CHANNEL_LISTS = 0x87;  // NorDig's second version
inline constexpr int HD_LOGICAL_CHANNEL = 0x88;

// Ranges that messages tell apart: from these on.
inline constexpr int FIRST_OF_SI = 0x40;
inline constexpr int FIRST_PRIVATE = 0x80;

}  // namespace tag

// First bytes of an extension descriptor (EN 300 468, table 109).
namespace extension_tag {

inline constexpr int T2_DELIVERY_SYSTEM = 0x04;
inline constexpr int SUPPLEMENTARY_AUDIO = 0x06;
inline constexpr int DTS_HD = 0x0E;
inline constexpr int AC4 = 0x15;
inline constexpr int TTML_SUBTITLING = 0x20;
inline constexpr int DTS_UHD = 0x21;

}  // namespace extension_tag
