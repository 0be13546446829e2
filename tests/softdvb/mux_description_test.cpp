// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/description.h"
#include "softdvb/mux/stream.h"
#include "softdvb/mux/time_text.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

using mux_support::NOW;
using mux_support::one_service;

// What is wrong with a description, or "" where a stream can be made of it.
static std::string complaint(const std::string& json) {
  try {
    softdvb_mux::make_stream(json, NOW);
  } catch (const softdvb_mux::Description_error& error) {
    return error.what();
  }
  return "";
}

struct Wrong_case {
  const char* legend;
  std::string json;  // the whole description, or further keys of it or of its service
  std::string message;
};

static std::string not_number(const char* value, const char* range) {
  return std::string(value) + " is not allowed, a whole number from " + range + " is";
}

static const char* const WORD = "0 to 65535 (or \"0x0\" to \"0xFFFF\")";

TEST(Mux_description, is_refused_with_its_place) {
  const Wrong_case WHOLE[] = {
      {"empty", "", "line 1, column 1: this is no valid JSON"},
      {"a number beyond all", "{\"duration\": 1e999}", "a number is too large for any use"},
      {"a comma too many, third line", "{\n  \"a\": 1,\n  }", "line 3, column 3: this is no valid JSON"},
      {"a list", "[]", "the description: [] is not allowed, an object {...} is"},
      {"no id", R"({"original_network_id": 1})", "transport_stream_id: missing, this key is needed"},
      {"number too large", R"({"transport_stream_id": 65536, "original_network_id": 1})",
       "transport_stream_id: " + not_number("65536", WORD)},
      {"negative", R"({"transport_stream_id": -1, "original_network_id": 1})",
       "transport_stream_id: " + not_number("-1", WORD)},
      {"fraction", R"({"transport_stream_id": 1.5, "original_network_id": 1})",
       "transport_stream_id: " + not_number("1.5", WORD)},
      {"wrong hexadecimal", R"({"transport_stream_id": "0xG1", "original_network_id": 1})",
       "transport_stream_id: " + not_number("\"0xG1\"", WORD)},
      {"character table", R"({"charset": {"a": 1}, "transport_stream_id": 1, "original_network_id": 1})",
       "charset: {\"a\":1} is not allowed, a text in \"\" is"},
      {"too low a bit rate tells what is needed",
       R"({"transport_stream_id": 1, "original_network_id": 1, "bit_rate": 21000})",
       "bit_rate: 21000 is too low, the tables, PCRs and payload at their intervals need 22000 bits a second"},
      {"which is enough", R"({"transport_stream_id": 1, "original_network_id": 1, "bit_rate": 22000})", ""},
      {"comments are allowed", "// first\n{\"transport_stream_id\": 1, /* second */ \"original_network_id\": 1}", ""},
  };
  for (const Wrong_case& c : WHOLE)
    EXPECT_EQ(complaint(c.json), c.message) << c.legend;
}

TEST(Mux_description, is_refused_for_a_key) {
  const Wrong_case KEYS[] = {
      {"unknown interval", R"("intervals": {"bat": 1})",
       "intervals.bat: unknown key, allowed are pat, pmt, cat, nit_actual, nit_other, sdt_actual, sdt_other, "
       "eit_pf_actual, eit_pf_other, eit_schedule_actual, eit_schedule_other, eit_schedule_actual_later, "
       "eit_schedule_other_later, tdt, tot, pcr"},
      {"interval of nothing", R"("intervals": {"pat": 0})",
       "intervals.pat: 0 is not allowed, a number from 0.005 to 86400 (seconds) is"},
      {"now", R"("now": "yesterday")", "now: \"machine\" or a time such as \"2026-03-01T18:00:00Z\" is allowed"},
      {"flag", R"("fast": 1)", "fast: 1 is not allowed, true or false is"},
      {"a stream too long", R"("duration": 86400)",
       "duration: 86400 seconds at 1000000 bits a second are more than 1073741824 bytes, the most that is made"},
      {"constellation",
       R"("network": {"transport_streams": [{"transport_stream_id": 1,
                      "delivery": {"frequency": 474000000, "constellation": "64QAM"}}]})",
       "network.transport_streams[0].delivery.constellation: \"64QAM\" is not allowed, one of \"QPSK\", \"16-QAM\", "
       "\"64-QAM\" is"},
      {"steps of 10 Hz",
       R"("network": {"transport_streams": [{"transport_stream_id": 1, "delivery": {"frequency": 474000001}}]})",
       "network.transport_streams[0].delivery.frequency: the frequency is broadcast in steps of 10 Hz, use a multiple "
       "of 10"},
      {"other network without an id", R"("other_networks": [{"name": "x"}])",
       "other_networks[0].network_id: missing, this key is needed"},
      {"offset", R"("time": {"offsets": [{"country": "EST", "offset": "2h"}]})",
       "time.offsets[0].offset: \"2h\" is not allowed, an offset such as \"+02:00\" or \"-03:30\" is"},
      {"offsets of two signs", R"("time": {"offsets": [{"country": "EST", "offset": "+02:00", "next": "-01:00"}]})",
       "time.offsets[0].next: the offset now and the next one must have the same sign"},
      {"fault", R"("faults": [{"fault": "bad", "table": "pat"}])",
       "faults[0].fault: \"bad\" is not allowed, one of \"wrong_crc\", \"drop\", \"missing\", \"silence\", \"cut\", "
       "\"wrong_section_length\", \"wrong_loop_length\", \"wrong_version\", \"wrong_bytes\", \"current_next_0\", "
       "\"other_pid\", \"duplicate\", \"duplicate_packet\", \"lose_packet\", \"discontinuity\", \"transport_error\" is"},
      {"table", R"("faults": [{"fault": "drop", "table": "sdt"}])",
       "faults[0].table: \"sdt\" is not allowed, one of \"all\", \"eit\", \"pat\", \"pmt\", \"cat\", \"nit_actual\", "
       "\"nit_other\", \"sdt_actual\", \"sdt_other\", \"eit_pf_actual\", \"eit_pf_other\", \"eit_schedule_actual\", "
       "\"eit_schedule_other\", \"tdt\", \"tot\" is"},
      {"fault without its value", R"("faults": [{"fault": "cut", "table": "pat"}])",
       "faults[0].bytes: missing, this key is needed"},
      {"change of a length", R"("faults": [{"fault": "wrong_section_length", "table": "pat", "change": 4096}])",
       "faults[0].change: 4096 is not allowed, a number from -4095 to 4095 is"},
  };
  for (const Wrong_case& c : KEYS)
    EXPECT_EQ(complaint(one_service("", ", " + c.json)), c.message) << c.legend;
}

TEST(Mux_description, is_refused_for_a_key_of_a_service) {
  const Wrong_case KEYS[] = {
      {"unknown key", R"("stream": [])",
       "stream: unknown key, allowed are service_id, type, charset, language, name, provider, names, descriptors, "
       "running_status, free_ca, eit_pf, eit_schedule, lcn, in_pat, in_sdt, in_nit, pmt, pmt_pid, pmt_version, "
       "pcr_pid, ca, pmt_descriptors, streams, pmt_changes, events, schedule, appears_at, vanishes_at"},
      {"unknown type", R"("type": "tele")",
       "type: \"tele\" is not allowed, a number or one of \"tv\", \"radio\", \"teletext\", \"radio-avc\", \"data\", "
       "\"tv-hd-mpeg2\", \"tv-sd-h264\", \"tv-hd-h264\", \"tv-hevc\" is"},
      {"charset", R"("name": {"text": "Ж", "charset": "iso8859-7"})",
       "name: the character \"Ж\" is not in the table \"iso8859-7\", choose another \"charset\""},
      {"text of another kind", R"("name": 7)",
       "name: a text is needed: \"...\", {\"text\": \"...\", \"charset\": \"...\"} or {\"hex\": \"...\"}"},
      {"raw text", R"("name": {"hex": "4"})",
       "name.hex: \"4\" is not allowed, a text of pairs of hexadecimal digits such as \"5f04 00000028\" is"},
      {"language", R"("streams": [{"type": 3, "languages": ["en"]}])",
       "streams[0].languages[0]: \"en\" is not allowed, a code of three letters such as \"est\" is"},
      {"stream without type", R"("streams": [{"pid": 300}])", "streams[0].type: missing, this key is needed"},
      {"PID", R"("streams": [{"type": 3, "pid": 9000}])",
       "streams[0].pid: " + not_number("9000", "16 to 8190 (or \"0x10\" to \"0x1FFE\")")},
      {"PIDs run out", R"("pmt_pid": 8190, "streams": [{"type": 3}])",
       "streams[0]: no PID is left after the PMT's, choose a \"pid\""},
      {"teletext without pages", R"("streams": [{"type": "teletext"}])",
       "streams[0].teletext: missing, this key is needed"},
      {"descriptor length", R"("descriptors": ["5f05 00000028"])",
       "descriptors[0]: the second byte of a descriptor must be the number of bytes after it, or use {\"tag\": .., "
       "\"hex\": ..}"},
      {"LCN", R"("lcn": 1024)", "lcn: " + not_number("1024", "0 to 1023 (or \"0x0\" to \"0x3FF\")")},
      {"PMT change at the start", R"("pmt_changes": [{"at": 0}])",
       "pmt_changes[0].at: the changes must stand in the order of their times, the first later than 0"},
      {"rating", R"("events": [{"start": "now", "duration": "1h", "rating": [{"country": "EST", "age": 3}]}])",
       "events[0].rating[0].age: " + not_number("3", "4 to 18 (or \"0x4\" to \"0x12\")")},
      {"a name and a text too long for one descriptor",
       R"("events": [{"start": "now", "duration": "1h", "name": ")" + std::string(200, 'n') + R"(", "text": ")" +
           std::string(51, 't') + "\"}]",
       "events[0]: name and text together take 251 bytes, at most 250 are allowed; use \"extended\""},
      {"a text too long for sixteen",
       R"("events": [{"start": "now", "duration": "1h", "extended": {"text": ")" + std::string(16 * 249 + 1, 't') +
           "\"}}]",
       "events[0].extended.text: the text takes 3985 bytes, at most 3984 are allowed here"},
      {"start of an event", R"("events": [{"start": "soon", "duration": "1h"}])",
       "events[0].start: \"soon\" is not allowed, a time such as \"2026-03-01T18:00:00Z\" (1901 to 2038-04-22), "
       "\"now\", \"now+90m\", \"now-01:30:00\" or \"today+18h\" is"},
      {"duration of an event", R"("events": [{"start": "now", "duration": "100:00:00"}])",
       "events[0].duration: \"100:00:00\" is not allowed, a duration such as \"01:30:00\", \"90m\" or 5400 of at most "
       "359999 seconds is"},
      {"schedule of nothing", R"("schedule": {"programmes": []})",
       "schedule.programmes: at least one programme is needed"},
  };
  for (const Wrong_case& c : KEYS)
    EXPECT_EQ(complaint(R"({"transport_stream_id": 1, "original_network_id": 1, "services": [{"service_id": 1, )" +
                        c.json + "}]}"),
              "services[0]." + c.message)
        << c.legend;
  EXPECT_EQ(complaint(R"({"transport_stream_id": 1, "original_network_id": 1,
                          "services": [{"service_id": 1}, {"service_id": 1}]})"),
            "services[1].service_id: 1 is used twice at the same time");
}

TEST(Mux_description, of_a_pmt_that_needs_two_sections_is_refused) {
  std::string streams;
  for (int i = 0; i < 40; ++i)
    streams += std::string(i == 0 ? "" : ",") +
               R"({"type": 3, "descriptors": [{"tag": 128, "hex": "0102030405060708090a0b0c0d0e0f101112131415"}]})";
  EXPECT_EQ(complaint(one_service(R"(, "streams": [)" + streams + "]")),
            "service 101: its PMT takes 1136 bytes, at most 1024 fit into the one section that a PMT has");
}

static int64_t time_of(const std::string& text) {
  const nlohmann::json value = text;
  return softdvb_mux::read_time(softdvb_mux::Json_node(value, "t"), NOW);
}

TEST(Mux_description, times_are_read) {
  EXPECT_EQ(time_of("2026-03-01T18:00:00Z"), NOW);
  EXPECT_EQ(time_of("1970-01-01T00:00:00Z"), 0);
  EXPECT_EQ(time_of("2024-02-29T23:59:59Z"), 1709251199);
  EXPECT_EQ(time_of("now"), NOW);
  EXPECT_EQ(time_of("now+90m"), NOW + 5400);
  EXPECT_EQ(time_of("now-01:30:05"), NOW - 5405);
  EXPECT_EQ(time_of("today"), NOW - 18 * 3600);
  EXPECT_EQ(time_of("today+2d"), NOW - 18 * 3600 + 2 * 86400);
  EXPECT_EQ(time_of("2038-04-22T23:59:59Z"), 2155593599);
  EXPECT_EQ(softdvb_mux::mjd_bcd(2155593599), 0xFFFF235959u) << "nothing later fits";
  for (const char* wrong :
       {"2025-02-29T00:00:00Z", "2026-13-01T00:00:00Z", "2026-03-01 18:00:00Z", "2038-04-23T00:00:00Z",
        "2039-01-01T00:00:00Z", "now+4500d", "now+", "now+5", "now*2h", "today+1:00:00", "tomorrow"})
    EXPECT_THROW(time_of(wrong), softdvb_mux::Description_error) << wrong;
}

TEST(Mux_description, times_become_mjd_and_bcd) {
  // The example of EN 300 468, annex C: 93/10/13 12:45:00 is 0xC079124500.
  EXPECT_EQ(softdvb_mux::mjd_bcd(750516300), 0xC079124500u);
  EXPECT_EQ(softdvb_mux::bcd_duration(6330), 0x014530u);
  EXPECT_EQ(softdvb_mux::bcd_duration(359999), 0x995959u);
}
