// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/example.h"

#include <fmt/format.h>

#include "softdvb/mux/description.h"

namespace softdvb_mux {

namespace {

std::string intervals_text(const Intervals& intervals) {
  std::string text;
  for (unsigned kind = 0; kind < TABLE_KINDS; ++kind)
    text += fmt::format("    \"{}\": {},\n", name_of(static_cast<Table_kind>(kind)), intervals.table[kind]);
  text += fmt::format("    \"eit_schedule_actual_later\": {},\n", intervals.later_actual);
  text += fmt::format("    \"eit_schedule_other_later\": {},\n", intervals.later_other);
  text += fmt::format("    \"pcr\": {}\n", intervals.pcr);
  return text;
}

}  // namespace

std::string defaults_text() {
  return "{\n  // Seconds from one transmission to the next. \"..._later\": days after the first.\n  \"intervals\": {\n" +
         intervals_text(default_intervals()) + "  }\n}\n// With \"fast\": true\n{\n  \"intervals\": {\n" +
         intervals_text(fast_intervals()) + "  }\n}\n";
}

std::string example_text() {
  return R"json({
  // A complete small multiplex: softdvb-mux --example > mux.json; softdvb-mux mux.json -o mux.ts
  "now": "machine",
  "duration": 30,
  "bit_rate": 1500000,
  "transport_stream_id": 1,
  "original_network_id": "0x3001",
  "language": "est",
  "network": {
    "network_id": "0x3001",
    "name": "Saarevõrk",
    "names": [{ "language": "est", "name": "Saarevõrk" }, { "language": "eng", "name": "Isle Network" }],
    "transport_streams": [
      {
        "transport_stream_id": 1,
        "delivery": { "frequency": 474000000, "bandwidth": 8, "constellation": "64-QAM", "code_rate_hp": "2/3",
                      "guard_interval": "1/8", "mode": "8k" },
        "private_data_specifier": "0x28"
      }
    ]
  },
  "services": [
    {
      "service_id": 101, "type": "tv", "name": "Õhtu TV", "provider": "Saare", "lcn": 1,
      "streams": [
        { "type": "mpeg2-video", "component_tag": 1 },
        { "type": "mpeg2-audio", "languages": ["est"], "component_tag": 2 },
        { "type": "ac3", "languages": ["est"] },
        { "type": "teletext", "teletext": [{ "language": "est", "type": 1, "magazine": 1, "page": 0 }] },
        { "type": "subtitles", "subtitles": [{ "language": "est" }, { "language": "eng", "composition_page": 2 }] }
      ],
      "events": [
        { "start": "now-10m", "duration": "00:30:00", "name": "Uudised", "text": "Päeva tähtsamad sündmused",
          "content": ["0x20"], "rating": [{ "country": "EST", "age": 7 }] },
        { "start": "now+20m", "duration": "01:00:00", "name": "Saarte elu", "text": "Dokumentaal",
          "extended": { "items": [{ "name": "Režissöör", "text": "Liis Kask" }], "text": "Pikk kirjeldus ..." } }
      ]
    },
    {
      "service_id": 102, "type": "radio", "name": "Радио Остров", "provider": "Saare", "charset": "iso8859-5", "lcn": 101,
      "streams": [{ "type": "mpeg1-audio", "languages": ["rus"] }]
    }
  ],
  "time": { "offsets": [{ "country": "EST", "offset": "+02:00", "change": "2026-10-25T01:00:00Z", "next": "+03:00" }] },
  "faults": [{ "fault": "wrong_crc", "table": "sdt_actual", "first": 1 }]
}
)json";
}

}  // namespace softdvb_mux
