// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Broken sections of every kind through the whole parser: nothing may fault or hang (a memory checker watches), and
// whole sections afterwards are read as if nothing had been.

#include "base/receiver_profile.h"
#include "dvbsi/malformed_cases.h"
#include "dvbsi/samples.h"
#include "si/recorded_clock.h"
#include "si/si_support.h"
#include "si/siparse_parts.h"
#include "softdvb/model/section_feed.h"

using namespace si_support;

namespace {

class Hostile : public Parser_test {
 protected:
  // What get_section_data() promises: as many bytes as section_length says, in a block of that size.
  void throw_at_parser(Bytes section, int pid) {
    section.resize(std::max<size_t>(section.size(), 3));
    section.resize(std::min<size_t>(3 + ((section[1] & 0x0Fu) << 8 | section[2]), 4098));
    section.shrink_to_fit();
    EXPECT_EQ(scan(section, pid, states[++thrown % 3]), 0);
  }

  void expect_a_whole_scan() {
    db.clear_temp_tables(0);
    filter.remove_all();
    open(PAT);
    scan(pat({{1, 0x100}}));
    scan(pmt(1, 0x101, {{2, 0x101}, {3, 0x102, languages({{"est", 0}})}}));
    scan(nit(0x3001, network_name("Net"), {{TS_ID, 0x20, lcn({{1, 0xFC05}})}}));
    scan(sdt({{1, service_descriptor(1, "Prov", "One")}}));
    EXPECT_THAT(rows("SELECT pat_prnr, pmt_pid, pcr_pid, network_id, orig_network_id, network_name, lcn, serv_name, "
                     "prov_name FROM kanalid_scan_0"),
                ElementsAre("1|256|257|12289|32|Net|5|One|Prov"));
    EXPECT_THAT(rows("SELECT es_pid, es_type, es_subtype, codec, languages, ca_sysid FROM estreams_scan_0"),
                ElementsAre("257|2|0|||0", "258|3|0||est |0"));
    EXPECT_TRUE(filters().empty());
  }

  static constexpr SCAN_STATE states[] = {SCAN_PMT, SCAN_PAT, SCAN_EIT};
  size_t thrown = 0;
};

TEST_F(Hostile, broken_sections_of_every_known_kind) {
  parser.start_eit_scan(FREQ, SCAN_EIT);
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    SCOPED_TRACE(row.legend);
    for (int i = 0; i < 3; ++i)
      throw_at_parser(row.section, pid_of(row.section));
  }
  expect_a_whole_scan();
}

TEST_F(Hostile, sections_that_could_harm_a_parser_reach_none) {
  parser.start_eit_scan(FREQ, SCAN_EIT);
  for (const dvbsi_test::Malformed& row : dvbsi_test::malformed_cases()) {
    SCOPED_TRACE(row.legend);
    const bool refused = row.verdict == dvbsi_test::Verdict::REFUSED;
    const int pid = pid_of(row.section);
    if (row.section[0] == table::NIT_OTHER)
      continue;  // no parser takes it
    const std::string all = messages_at(4, [&] { throw_at_parser(row.section, pid); });
    EXPECT_EQ(all.find("Section dropped: ") != std::string::npos, refused);
    EXPECT_FALSE(refused && all.find("Parsing descriptor") != std::string::npos);
    EXPECT_THAT(messages_at(3, [&] { throw_at_parser(row.section, pid); }), Not(HasSubstr("dropped")));
  }
}

TEST_F(Hostile, lengths_that_no_table_can_have) {
  for (int id = 0; id < 256; ++id) {
    for (int length : {0, 1, 4, 5, 8, 9, 12, 13, 0x3FD, 0xFFD, 0xFFE, 0xFFF}) {
      Bytes section{static_cast<uint8_t>(id), static_cast<uint8_t>(0xF0 | length >> 8), static_cast<uint8_t>(length)};
      for (uint8_t filling : {uint8_t{0}, uint8_t{0xFF}}) {
        section.resize(static_cast<size_t>(length) + 3, filling);
        throw_at_parser(section, pid_of(section));
      }
    }
  }
  expect_a_whole_scan();
}

TEST_F(Hostile, every_cut_of_whole_sections) {
  for (const Bytes& section : dvbsi_test::sample_sections()) {
    for (size_t size = 3; size < section.size(); ++size) {
      Bytes cut(section.begin(), section.begin() + static_cast<long>(size));
      cut[1] = static_cast<uint8_t>((cut[1] & 0xF0) | (size - 3) >> 8);
      cut[2] = static_cast<uint8_t>(size - 3);
      throw_at_parser(cut, pid_of(cut));
    }
  }
  expect_a_whole_scan();
}

TEST_F(Hostile, random_damage) {
  dvbsi_test::Random random(4096);
  const std::vector<Bytes> samples = dvbsi_test::sample_sections();
  for (int i = 0; i < 6000; ++i) {
    const Bytes section = i % 3 == 0 ? dvbsi_test::random_section(random)
                                     : dvbsi_test::damaged(samples[random() % samples.size()], random);
    throw_at_parser(section, i % 16 == 0 ? static_cast<int>(random() % 32) : pid_of(section));
    if (i % 500 == 0) {
      db.clear_temp_tables(0);
      filter.remove_all();
    }
  }
  expect_a_whole_scan();
}

TEST_F(Hostile, random_damage_while_everything_is_traced) {
  dvbsi_test::Random random(44);
  const std::vector<Bytes> samples = dvbsi_test::sample_sections();
  const std::string all = messages_at(4, [&] {
    for (int i = 0; i < 300; ++i) {
      const Bytes section = dvbsi_test::damaged(samples[random() % samples.size()], random);
      throw_at_parser(section, pid_of(section));
    }
  });
  EXPECT_GT(all.size(), 10000u);
  expect_a_whole_scan();
}

TEST_F(Hostile, random_texts) {
  dvbsi_test::Random random(6937);
  for (int i = 0; i < 20000; ++i) {
    std::string text(random() % 80, ' ');
    for (char& c : text)
      c = static_cast<char>(random());
    if (!text.empty() && i % 2 == 0)
      text[0] = static_cast<char>(random() % 0x20);
    const std::string before = text;
    parser.dvb_text_to_utf8(&text);
    ASSERT_LE(text.size(), 4 * before.size());
  }
}

TEST_F(Hostile, languages_without_a_stream_do_not_pile_up) {
  const Bytes words = short_event("aaa", "x", "y");
  const Bytes subtitles = subtitling({{"bbb", 1}});
  for (int i = 0; i < 50; ++i) {
    scan(sdt({{1, join({words, subtitles})}}));
    scan(nit(1, join({words, subtitles}), {}));
  }
  scan(pat({{1, 0x100}}));
  scan(pmt(1, 0x101, {{2, 0x101}}));
  EXPECT_THAT(rows("SELECT es_subtype, languages FROM estreams_scan_0"), ElementsAre("0|"));
}

TEST_F(Hostile, names_of_languages_in_the_wrong_loop_do_not_pile_up) {
  const Bytes section = sdt({{1, languages({{"est", 1}, {"rus", 2}})}});
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(scan_at(4, section), HasSubstr("ISO 639 lang descriptor, languages est rus , codes 1 2 , oid 0\n"));
}

// --- Streams that are kept beside the tree ---------------------------------------------------------------------------

// As on the box, and as on any receiver.
class Hostile_streams : public Hostile, public testing::WithParamInterface<const char*> {
 protected:
  Hostile_streams() {
    if (is_any())
      parser.parts().read_as(Receiver_profile::any_linux());
  }

  bool is_any() const { return GetParam() == std::string("any"); }

  void begin_anew() {
    db.clear_temp_tables(0);
    filter.remove_all();
    parser.parts().begin_multiplex();
    parser.parts().begin_network();
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.start_eit_scan(FREQ, SCAN_EIT);
  }

  // What is beside the broken section, or comes afterwards, is read; the channel list is left alone, the clock too
  // where the receiver does not set it.
  void expect_no_harm() {
    begin_anew();
    filter.remove_all();
    expect_a_whole_scan();
    EXPECT_THAT(rows("SELECT * FROM kanalid"), IsEmpty());
    const std::vector<time_t> settings = recorded_clock.take_settings();
    EXPECT_TRUE(!is_any() || settings.empty());
  }

  void throw_stream_at_parser(const std::filesystem::path& file) {
    const std::string stream = support::read_file(file.string());
    std::vector<softdvb::Section_feed> feeds;
    for (int pid = 0; pid <= pid::LAST; ++pid)
      feeds.emplace_back(pid, false);
    for (size_t at = 0; at + softdvb::TS_PACKET <= stream.size(); at += softdvb::TS_PACKET) {
      const auto* packet = reinterpret_cast<const uint8_t*>(stream.data()) + at;
      const int pid = (packet[1] & 0x1F) << 8 | packet[2];
      feeds[static_cast<size_t>(pid)].packet(
          packet, [&](const uint8_t* section, size_t size) { throw_at_parser(Bytes(section, section + size), pid); });
    }
  }
};

TEST_P(Hostile_streams, of_the_collection_of_broken_ones) {
  const std::string folder = support::capture_file("../malformed");
  if (folder.empty())
    GTEST_SKIP() << "the collection is not here";
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    SCOPED_TRACE(entry.path().filename().string());
    begin_anew();
    throw_stream_at_parser(entry.path());
    expect_no_harm();
  }
  EXPECT_GT(thrown, 1000u);
}

TEST_P(Hostile_streams, broken_sections_that_real_parsers_stumbled_over) {
  const std::string folder = dvbsi_test::shared_file("malformed");
  if (folder.empty())
    GTEST_SKIP() << "the collection is not here";
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    SCOPED_TRACE(entry.path().filename().string());
    // Either one section over several lines, or a line each with words before it.
    std::vector<Bytes> sections(1);
    std::ifstream lines(entry.path());
    for (std::string line; std::getline(lines, line);) {
      if (line.empty() || line[0] == '#')
        continue;
      const size_t words = line.rfind(' ');
      if (words != std::string::npos)
        sections.emplace_back();
      for (size_t i = words + 1; i + 1 < line.size(); i += 2)
        sections.back().push_back(static_cast<uint8_t>(std::stoi(line.substr(i, 2), nullptr, 16)));
    }
    EXPECT_GE(sections.back().size(), 3u);
    for (const Bytes& section : sections) {
      for (int i = 0; i < 3; ++i)
        throw_at_parser(section, pid_of(section));
    }
    expect_no_harm();
  }
}

// One entry of a loop is broken, those before it are not.
TEST_P(Hostile_streams, neighbours_of_a_broken_entry_are_stored) {
  begin_anew();
  Bytes broken = pmt(1, 0x101, {{2, 0x101}, {3, 0x102, languages({{"est", 0}})}, {6, 0x103, {0x56, 0x20, 'e'}}});
  scan(pat({{1, 0x100}, {2, 0x200}}));
  scan(broken, 0x100);
  scan(pmt(2, 0x201, {{2, 0x201}}), 0x200);
  scan(sdt({{1, {0x48, 3, 1, 0x40, 1}}, {2, service_descriptor(1, "Prov", "Two")}}));
  EXPECT_THAT(rows("SELECT es_pid FROM estreams_scan_0 WHERE channel = 2"), ElementsAre("513"));
  EXPECT_THAT(rows("SELECT pat_prnr, serv_name FROM kanalid_scan_0 WHERE pat_prnr = 2"), ElementsAre("2|Two"));
}

INSTANTIATE_TEST_SUITE_P(, Hostile_streams, testing::Values("box", "any"),
                         [](const auto& row) { return std::string(row.param); });

}  // namespace
