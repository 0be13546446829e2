// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "support/test.h"

// These headers need their order.
// clang-format off
extern "C" {
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/dr_09.h>
#include <dvbpsi/dr_0a.h>
#include <dvbpsi/dr_48.h>
#include <dvbpsi/dr_56.h>
#include <dvbpsi/dr_58.h>
#include <dvbpsi/dr_59.h>
#include <dvbpsi/dr_5a.h>
#include <dvbpsi/dr_62.h>
#include <dvbpsi/dr_83.h>
}
// clang-format on

#include "base/ids.h"
#include "softdvb/mux_support.h"

namespace {

using namespace mux_support;
using Lines = std::vector<std::string>;

Lines decoded(const std::string& json, const std::string& prefix, const std::vector<uint16_t>& pmt_pids = {256}) {
  return lines_with(tables_by_libdvbpsi(stream_of(json), pmt_pids), prefix);
}

// The body of the first descriptor `tag` in a line of tables_by_libdvbpsi().
Bytes body_of(const std::string& line, const std::string& tag) {
  std::smatch found;
  EXPECT_TRUE(std::regex_search(line, found, std::regex("[{ ]" + tag + "\\[([0-9a-f]*)\\]"))) << tag << " in " << line;
  return unhex(found.str(1));
}

// What libdvbpsi's own decoder of this descriptor makes of it; valid until the end of the test.
template <typename Record>
const Record& decoded_by(Record* (*decoder)(dvbpsi_descriptor_t*), uint8_t tag, Bytes body) {
  static std::vector<std::unique_ptr<dvbpsi_descriptor_t, decltype(&dvbpsi_DeleteDescriptors)>> kept;
  kept.emplace_back(dvbpsi_NewDescriptor(tag, static_cast<uint8_t>(body.size()), body.data()),
                    dvbpsi_DeleteDescriptors);
  const Record* record = decoder(kept.back().get());
  if (record == nullptr)
    throw std::runtime_error("libdvbpsi does not decode the descriptor");
  return *record;
}

using Numbers = std::vector<uint64_t>;

TEST(Mux_tables, pat_lists_network_and_programmes) {
  EXPECT_EQ(
      decoded(R"({"duration": 1, "transport_stream_id": "0x1234", "original_network_id": 5, "version": 9, "nit_pid": 40,
                        "services": [{"service_id": 101}, {"service_id": 500, "pmt_pid": 1000},
                                     {"service_id": 7, "in_pat": false}]})",
              "PAT"),
      (Lines{"PAT ts 4660 v9: 0>40 101>256 500>1000"}));
  EXPECT_EQ(decoded(one_service("", R"(, "nit_in_pat": false)"), "PAT"), (Lines{"PAT ts 1 v0: 101>256"}));
}

TEST(Mux_tables, pat_in_several_sections_is_numbered) {
  const Bytes stream =
      stream_of(R"({"duration": 1, "payload_rate": 0, "transport_stream_id": 1, "original_network_id": 5,
                                     "pat_programs_per_section": 2,
                                     "services": [{"service_id": 101}, {"service_id": 102}, {"service_id": 103}]})");
  const auto sections = sections_of(stream, pid::PAT, table::PAT);
  ASSERT_GE(sections.size(), 2u);
  for (const auto& section : sections) {
    EXPECT_TRUE(section.crc_right());
    EXPECT_EQ(section.bytes[7], 1);
    EXPECT_EQ(section.bytes.size(), 8u + 2 * 4 + 4);
  }
  EXPECT_EQ(lines_with(tables_by_libdvbpsi(stream), "PAT"), (Lines{"PAT ts 1 v0: 0>16 101>256 102>272 103>288"}));
}

TEST(Mux_tables, pmt_carries_streams_and_descriptors) {
  EXPECT_EQ(
      decoded(one_service(R"(, "pmt_version": 3, "pmt_descriptors": ["0e03c00001"], "streams": [
                      {"type": "mpeg2-video", "component_tag": 1},
                      {"type": "mpeg2-audio", "languages": ["est", {"language": "eng", "audio_type": 3}], "pid": 700},
                      {"type": "ac3"}, {"type": "eac3", "eac3": {"component_type": "0x44", "asvc": 2}},
                      {"type": 6, "ac3": {"bsid": 8}, "descriptors": [{"tag": "0x70", "hex": "61"}]},
                      {"type": "hevc"}])"),
              "PMT"),
      (Lines{"PMT 101 v3 pcr 257 {0e[c00001]}: 0x02@257 {52[01]} 0x04@700 {0a[65737400656e6703]} 0x06@259 {6a[00]} "
             "0x06@260 {7a[904402]} 0x06@261 {6a[4008] 70[61]} 0x24@262 {}"}));
  EXPECT_EQ(decoded(one_service(R"(, "pcr_pid": 4000)"), "PMT"), (Lines{"PMT 101 v0 pcr 4000 {}:"}));
  EXPECT_EQ(decoded(one_service(), "PMT"), (Lines{"PMT 101 v0 pcr 8191 {}:"}));
}

TEST(Mux_tables, teletext_subtitles_and_ca_mean_what_was_asked) {
  const Lines pmt =
      decoded(one_service(R"(, "ca": [{"system_id": "0x0B00", "pid": 384, "private": "0102"}], "streams": [
                      {"type": "teletext", "teletext": [{"language": "est", "type": 2, "magazine": 7, "page": "0x88"},
                                                                                  {"language": "rus"}]},
                      {"type": "subtitles", "subtitles": [{"language": "est", "type": "0x20", "composition_page": 300},
                                                          {"language": "rus", "ancillary_page": 4}]}])"),
              "PMT");
  ASSERT_EQ(pmt.size(), 1u);
  const dvbpsi_ca_dr_t& ca = decoded_by(dvbpsi_DecodeCADr, tag::CA, body_of(pmt[0], "09"));
  EXPECT_EQ((Numbers{ca.i_ca_system_id, ca.i_ca_pid}), (Numbers{0x0B00, 384}));
  EXPECT_EQ(hex(Bytes(ca.i_private_data, ca.i_private_data + ca.i_private_length)), "0102");

  const Bytes teletext = body_of(pmt[0], "56");
  EXPECT_EQ(hex(teletext), "65737417887275730900");
  const dvbpsi_teletext_dr_t& pages = decoded_by(dvbpsi_DecodeTeletextDr, tag::TELETEXT, teletext);
  const dvbpsi_teletextpage_t& first = pages.p_pages[0];
  EXPECT_EQ((Numbers{pages.i_pages_number, first.i_teletext_type, first.i_teletext_magazine_number,
                     first.i_teletext_page_number}),
            (Numbers{2, 2, 7, 0x88}));

  // EN 300 468, 6.2.41: language, type, composition page, ancillary page
  EXPECT_EQ(hex(body_of(pmt[0], "59")), "65737420012c00017275731000010004");
}

TEST(Mux_tables, sdt_carries_flags_and_names) {
  EXPECT_EQ(
      decoded(R"({"duration": 2, "transport_stream_id": 1, "original_network_id": 5, "versions": {"sdt_actual": 31},
     "services": [
       {"service_id": 101, "type": "radio", "name": "Öö", "provider": "P"},
       {"service_id": 102, "type": 200, "running_status": 1, "free_ca": true, "eit_pf": true, "name": {"hex": "1541"}},
       {"service_id": 103, "charset": "iso8859-5", "provider": "Ж", "descriptors": ["5d00"], "eit_schedule": true},
       {"service_id": 104, "names": [{"language": "eng", "name": "N", "provider": "PP"}, {"language": "ell",
                                      "charset": "iso8859-7", "name": "Α"}]},
       {"service_id": 105, "in_sdt": false}]})",
              "SDT"),
      (Lines{"SDT 0x42 ts 1 net 5 v31: 101 schedule 0 pf 0 running 4 ca 0 {48[02015004c84fc86f]} 102 schedule 0 pf 1 "
             "running 1 ca 1 {48[c800021541]} 103 schedule 1 pf 0 running 4 ca 0 {48[010201b600] 5d[]} 104 schedule 0 "
             "pf 0 running 4 ca 0 {5d[656e67025050014e656c6c000203c1]}"}));
}

TEST(Mux_tables, a_long_sdt_takes_several_sections_of_at_most_1024_bytes) {
  std::string services;
  for (int i = 0; i < 60; ++i)
    services += std::string(i == 0 ? "" : ",") + R"({"service_id": )" + std::to_string(101 + i) +
                R"(, "name": "A service with a rather long name", "provider": "A provider"})";
  const Bytes stream = stream_of(R"({"duration": 2, "payload_rate": 0, "bit_rate": 4000000, "transport_stream_id": 1,
                                     "original_network_id": 5, "services": [)" +
                                 services + "]}");
  size_t last = 0;
  for (const auto& section : sections_of(stream, pid::SDT, table::SDT_ACTUAL)) {
    EXPECT_TRUE(section.crc_right());
    EXPECT_LE(section.bytes.size(), 1024u);
    last = section.bytes[7];
  }
  EXPECT_EQ(last, 3u);
  const Lines lines = lines_with(tables_by_libdvbpsi(stream), "SDT");
  ASSERT_EQ(lines.size(), 1u);
  for (int i = 0; i < 60; ++i)
    EXPECT_NE(lines[0].find(" " + std::to_string(101 + i) + " schedule"), std::string::npos) << i;
}

TEST(Mux_tables, scrambled_streams_set_free_ca) {
  const Lines sdt = decoded(one_service(R"(, "streams": [{"type": 2, "ca": [{"system_id": 1, "pid": 99}]}])"), "SDT");
  EXPECT_EQ(sdt, (Lines{"SDT 0x42 ts 1 net 5 v0: 101 schedule 0 pf 0 running 4 ca 1 {48[010150014e]}"}));
}

TEST(Mux_tables, sdt_other_comes_beside_the_actual_one) {
  EXPECT_EQ(
      decoded(one_service("", R"(, "other_transport_streams": [{"transport_stream_id": 2, "original_network_id": 6,
                      "services": [{"service_id": 201, "name": "O", "provider": "P"}]}])"),
              "SDT 0x46"),
      (Lines{"SDT 0x46 ts 2 net 6 v0: 201 schedule 0 pf 0 running 4 ca 0 {48[010150014f]}"}));
}

TEST(Mux_tables, nit_carries_names_delivery_lists_and_numbers) {
  const Lines nit = decoded(
      R"({"duration": 5, "transport_stream_id": 1, "original_network_id": 5,
          "services": [{"service_id": 101, "lcn": 7}, {"service_id": 102, "type": 2, "lcn": {"number": 800, "visible": false}},
                       {"service_id": 103}, {"service_id": 104, "in_nit": false, "lcn": 9}],
          "network": {"network_id": 99, "name": "Nä", "names": [{"language": "eng", "name": "N"}],
            "private_data_specifier": "0x28", "descriptors": ["6c00"],
            "transport_streams": [
              {"transport_stream_id": 1, "private_data_specifier": 40, "frequencies": [474000000, 482000000],
               "delivery": {"frequency": 474000000}},
              {"transport_stream_id": 2, "original_network_id": 6, "services": [{"service_id": 9, "type": 2, "lcn": 1}],
               "delivery": {"frequency": 177500000, "bandwidth": 7, "constellation": "16-QAM", "hierarchy": "2",
                            "code_rate_hp": "7/8", "code_rate_lp": "3/4", "guard_interval": "1/4", "mode": "2k",
                            "priority": false, "time_slicing": true, "mpe_fec": true, "other_frequency": true},
               "descriptors": ["8001ff"]}]}})",
      "NIT");
  EXPECT_EQ(nit,
            (Lines{"NIT 0x40 net 99 v0 {40[4ec861] 5b[656e67014e] 5f[00000028] 6c[]}: 1/5 {5a[02d344401f8112ffffffff] "
                   "41[006501006602006701] 62[ff02d3444002df7940] 5f[00000028] 83[0065fc0700667f20]} 2/6 "
                   "{5a[010ed7f0235459ffffffff] 41[000902] 83[0009fc01] 80[ff]}"}));
  ASSERT_EQ(nit.size(), 1u);
  const std::string second = nit[0].substr(nit[0].find(" 2/6 "));
  const dvbpsi_terr_deliv_sys_dr_t& system =
      decoded_by(dvbpsi_DecodeTerrDelivSysDr, tag::TERRESTRIAL_DELIVERY_SYSTEM, body_of(second, "5a"));
  EXPECT_EQ(system.i_centre_frequency, 17750000u);
  // Bandwidth, constellation, hierarchy, code rates, guard interval, mode.
  EXPECT_EQ(
      (Numbers{system.i_bandwidth, system.i_constellation, system.i_hierarchy_information, system.i_code_rate_hp_stream,
               system.i_code_rate_lp_stream, system.i_guard_interval, system.i_transmission_mode}),
      (Numbers{1, 1, 2, 4, 2, 3, 0}));
  // Priority, time slicing and error correction, which are told by a 0; other frequencies.
  EXPECT_EQ((Numbers{system.i_priority, system.i_time_slice_indicator, system.i_mpe_fec_indicator,
                     system.i_other_frequency_flag}),
            (Numbers{0, 0, 0, 1}));

  const dvbpsi_lcn_dr_t& lcn = decoded_by(dvbpsi_DecodeLCNDr, tag::LOGICAL_CHANNEL, body_of(nit[0], "83"));
  const auto& last = lcn.p_entries[1];
  EXPECT_EQ((Numbers{lcn.i_number_of_entries, last.i_service_id, last.i_logical_channel_number,
                     last.b_visible_service_flag ? 1u : 0u}),
            (Numbers{2, 102, 800, 0}));
}

TEST(Mux_tables, nit_other_and_service_lists_of_other_streams) {
  const Lines nit = decoded(one_service("", R"(, "duration": 10, "other_transport_streams": [{"transport_stream_id": 2,
                      "services": [{"service_id": 201, "type": 2, "lcn": 3}]}],
                      "network": {"name": "A", "transport_streams": [{"transport_stream_id": 2}]},
                      "other_networks": [{"network_id": 77, "name": "B"}])"),
                            "NIT");
  EXPECT_THAT(nit, testing::UnorderedElementsAre("NIT 0x40 net 5 v0 {40[41]}: 2/5 {41[00c902] 83[00c9fc03]}",
                                                 "NIT 0x41 net 77 v0 {40[42]}:"));
}

TEST(Mux_tables, cat_carries_ca_systems) {
  EXPECT_EQ(decoded(one_service(
                        "", R"(, "cat": {"ca": [{"system_id": "0x0B00", "pid": "0x182"}], "descriptors": ["800101"]})"),
                    "CAT"),
            (Lines{"CAT v0 {09[0b00e182] 80[01]}"}));
  EXPECT_EQ(decoded(one_service(), "CAT"), Lines());
}

TEST(Mux_tables, tdt_and_tot_tell_the_time_of_the_stream) {
  const Bytes stream = stream_of(one_service("", R"(, "duration": 61, "intervals": {"tdt": 20, "tot": 30},
      "time": {"offsets": [{"country": "EST", "region": 3, "offset": "+02:00", "change": "2026-03-29T01:00:00Z",
                            "next": "+03:00"}, {"country": "CAN", "offset": "-03:30", "next": "-02:30"}]})"));
  // 2026-03-01 is the Modified Julian Date 61100, 0xEEAC.
  Lines times;
  for (const auto& section : sections_of(stream, pid::TIME, table::TDT)) {
    EXPECT_EQ(section.hex(0, 5), "707005eeac");
    times.push_back(section.hex(5, 3));
  }
  EXPECT_EQ(times, (Lines{"180000", "180015", "180030", "180045"}));
  const auto tots = sections_of(stream, pid::TIME, table::TOT);
  ASSERT_EQ(tots.size(), 3u);
  for (const auto& tot : tots)
    EXPECT_TRUE(tot.crc_right());
  EXPECT_EQ(tots[1].hex(0, 10), "737027eeac180020f01c");
  const Lines lines = lines_with(tables_by_libdvbpsi(stream), "TOT 0x73");
  ASSERT_FALSE(lines.empty());
  const Bytes body = body_of(lines[0], "58");
  const dvbpsi_local_time_offset_dr_t& record =
      decoded_by(dvbpsi_DecodeLocalTimeOffsetDr, tag::LOCAL_TIME_OFFSET, body);
  const auto& estonia = record.p_local_time_offset[0];
  const auto& canada = record.p_local_time_offset[1];
  EXPECT_EQ(std::string(estonia.i_country_code, estonia.i_country_code + 3), "EST");
  // Region, polarity, offset, time of change, next offset.
  EXPECT_EQ(
      (Numbers{record.i_local_time_offsets_number, estonia.i_country_region_id, estonia.i_local_time_offset_polarity,
               estonia.i_local_time_offset, estonia.i_time_of_change, estonia.i_next_time_offset}),
      (Numbers{2, 3, 0, 0x0200, 0xEEC8010000, 0x0300}));
  EXPECT_EQ((Numbers{canada.i_local_time_offset_polarity, canada.i_local_time_offset}), (Numbers{1, 0x0330}));
  // EN 300 468, 6.2.20: country, region and polarity, offset, time of change, next offset
  EXPECT_EQ(hex(body), "4553540e0200eec8010000030043414e030330ef601800000230");
}

TEST(Mux_tables, time_tables_can_be_left_out) {
  const auto heads = [](const char* left_out) {
    Lines all;
    const std::string time = R"(, "time": {")" + std::string(left_out) + R"(": false})";
    for (const auto& section : sections_of(stream_of(one_service("", time))))
      if (section.pid == pid::TIME)
        all.push_back(section.hex(0, 10));
    return all;
  };
  EXPECT_EQ(heads("tdt"), (Lines{"73700beeac180000f000"}));
  EXPECT_EQ(heads("tot"), (Lines{"707005eeac180000"}));
}

TEST(Mux_tables, every_section_has_its_reserved_bits_set_and_a_right_crc) {
  const Bytes stream = stream_of(one_service(
      R"(, "events": [{"start": "now", "duration": "1h", "name": "E"}])",
      R"(, "cat": {}, "network": {"name": "A"}, "time": {"offsets": [{"country": "EST", "offset": "+02:00"}]})"));
  const auto sections = sections_of(stream);
  EXPECT_GT(sections.size(), 50u);
  for (const auto& section : sections) {
    const unsigned id = section.table_id();
    EXPECT_EQ(section.crc_right(), id != table::TDT) << id;
    // PAT, CAT and PMT have a 0 after the syntax indicator (ISO/IEC 13818-1), the others a reserved 1 (EN 300 468).
    const bool is_time = id == table::TDT || id == table::TOT;
    EXPECT_EQ(section.bytes[1] & 0xF0, id <= table::PMT ? 0xB0 : is_time ? 0x70 : 0xF0) << id;
    if (!is_time) {
      EXPECT_EQ(section.bytes[5] & 0xC1, 0xC1) << id;
    }
  }
}

}  // namespace
