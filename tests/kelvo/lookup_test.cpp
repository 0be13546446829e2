// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What hosts ask of the stored channel list and guide.
#include <sqlite3.h>

#include "kelvo/channel_lookup.h"
#include "kelvo/now_and_next.h"
#include "support/database.h"
#include "support/messages.h"

using support::messages_at;
using support::Texts;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr int MIDNIGHT = 1772409600;  // 2026-03-02 00:00 UTC
constexpr int HOUR = 3600;

std::string text_of(const Listed_channel& channel) {
  return std::to_string(channel.number) + " " + channel.name + (channel.lost ? " lost" : "") +
         (channel.hidden ? " hidden" : "");
}

Texts texts_of(const std::vector<Listed_channel>& channels) {
  Texts all;
  for (const Listed_channel& channel : channels)
    all.push_back(text_of(channel));
  return all;
}

class Lookup_test : public testing::Test, protected support::Database {
 protected:
  struct Service {
    std::string name;
    int lcn = 65535;
    int type = 1;
    int scan_state = 1;
    int row_status = 0;
  };
  // Its row.
  int add(const Service& s) {
    ++services_;
    EXPECT_EQ(
        run("INSERT INTO kanalid (freq, pat_prnr, serv_name, lcn, serv_type, scan_state, row_status) VALUES "
            "(506000000, " +
            std::to_string(services_) + ", '" + s.name + "', " + std::to_string(s.lcn) + ", " + std::to_string(s.type) +
            ", " + std::to_string(s.scan_state) + ", " + std::to_string(s.row_status) + ")"),
        SQLITE_DONE);
    return number("SELECT last_insert_rowid()");
  }
  // As a profile that reads visibility stores it.
  void hide(int channel) {
    run("CREATE TABLE IF NOT EXISTS service_detail (channel integer primary key, lcn int, hd_lcn int, visible int, "
        "eit_schedule int, eit_present_following int, set_aside int, list_name text)");
    EXPECT_EQ(run("INSERT INTO service_detail (channel, visible) VALUES (" + std::to_string(channel) + ", 0)"),
              SQLITE_DONE);
  }

  Texts list(Channel_lookup::Which which = Channel_lookup::SHOWN) {
    std::vector<Listed_channel> channels(1);
    EXPECT_TRUE(Channel_lookup(&sdbl()).list(&channels, which));
    return texts_of(channels);
  }
  Texts by_number(int number) {
    std::vector<Listed_channel> channels(1);
    EXPECT_TRUE(Channel_lookup(&sdbl()).by_number(number, &channels));
    return texts_of(channels);
  }
  Texts by_name(const std::string& name) {
    std::vector<Listed_channel> channels(1);
    EXPECT_TRUE(Channel_lookup(&sdbl()).by_name(name, &channels));
    return texts_of(channels);
  }
  // The name that a service is shown by whose row has this text.
  std::string shown_name(const std::string& stored) {
    run("DELETE FROM kanalid");
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(conn(), "INSERT INTO kanalid (freq, scan_state, serv_name) VALUES (506000000, 1, ?1)", -1,
                       &statement, nullptr);
    sqlite3_bind_text(statement, 1, stored.data(), static_cast<int>(stored.size()), SQLITE_STATIC);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    sqlite3_finalize(statement);
    std::vector<Listed_channel> channels;
    EXPECT_TRUE(Channel_lookup(&sdbl()).list(&channels));
    return channels.size() == 1 ? channels.front().name : "not one channel";
  }

 private:
  int services_ = 0;
};

}  // namespace

// --- The channel list ------------------------------------------------------------------------------------------------

TEST_F(Lookup_test, list_of_an_empty_database_is_empty) {
  EXPECT_EQ(list(), Texts{});
  EXPECT_EQ(by_number(1), Texts{});
  EXPECT_EQ(by_name("a"), Texts{});
}

TEST_F(Lookup_test, list_goes_by_number_and_those_without_one_follow_by_kind_and_name) {
  add({.name = "Radio without", .type = 2});
  add({.name = "Text", .type = 12});
  add({.name = "Zebra"});
  add({.name = "Apple", .lcn = 0});
  add({.name = "Ten", .lcn = 10});
  add({.name = "Radio two", .lcn = 2, .type = 10});
  add({.name = "Two", .lcn = 2, .type = 25});
  EXPECT_EQ(list(), (Texts{"2 Two", "2 Radio two", "10 Ten", "-1 Apple", "-1 Zebra", "-1 Radio without", "-1 Text"}));
}

TEST_F(Lookup_test, lost_and_hidden_services_are_listed_on_demand_and_behind_others_of_their_number) {
  add({.name = "Lost", .lcn = 1, .scan_state = 0});
  hide(add({.name = "Hidden", .lcn = 1}));
  add({.name = "Radio", .lcn = 1, .type = 2});
  add({.name = "Timed out", .lcn = 3, .scan_state = 2});
  add({.name = "No streams yet", .lcn = 2, .scan_state = 0, .row_status = 2});
  EXPECT_EQ(list(), (Texts{"1 Radio", "2 No streams yet", "3 Timed out"}));
  EXPECT_EQ(list(Channel_lookup::ALL),
            (Texts{"1 Radio", "1 Hidden hidden", "1 Lost lost", "2 No streams yet", "3 Timed out"}));
  EXPECT_EQ(by_number(1), (Texts{"1 Radio", "1 Hidden hidden", "1 Lost lost"})) << "the one that is meant comes first";
}

TEST_F(Lookup_test, all_that_a_row_says_is_there) {
  run("INSERT INTO kanalid (channel, hf_conn, dvb_type, freq, pat_prnr, orig_network_id, tstream_id, lcn, serv_name, "
      "prov_name, network_name, serv_type, free_ca, scan_state) VALUES (7, 3, 1, 498000001, 4097, 65281, 2, 11, 'Eins', "
      "'Firma', 'Netz', 22, 1, 1)");
  std::vector<Listed_channel> channels;
  ASSERT_TRUE(Channel_lookup(&sdbl()).list(&channels));
  ASSERT_EQ(channels.size(), 1U);
  const Listed_channel& c = channels.front();
  EXPECT_EQ(std::tie(c.channel, c.number, c.name, c.provider, c.network, c.type, c.freq, c.service_id),
            std::make_tuple(7, 11, "Eins", "Firma", "Netz", 22, 498000001, 4097));
  EXPECT_EQ(std::tie(c.original_network_id, c.transport_stream_id, c.scrambled), std::make_tuple(65281, 2, true));
}

TEST_F(Lookup_test, two_services_of_one_number_are_both_found) {
  add({.name = "North", .lcn = 5});
  add({.name = "South", .lcn = 5});
  EXPECT_EQ(by_number(5), (Texts{"5 North", "5 South"}));
}

TEST_F(Lookup_test, numbers_that_mean_none_find_nothing) {
  add({.name = "Without"});
  add({.name = "Zero", .lcn = 0});
  for (const int none : {65535, 0, -1, -2, 1})
    EXPECT_EQ(by_number(none), Texts{}) << none;
}

TEST_F(Lookup_test, whole_name_counts_before_a_part_of_one) {
  add({.name = "Uno Due", .lcn = 1});
  add({.name = "Uno", .lcn = 2});
  add({.name = "Numero uno", .lcn = 3});
  EXPECT_EQ(by_name("Uno"), (Texts{"2 Uno"}));
  EXPECT_EQ(by_name("uno d"), (Texts{"1 Uno Due"}));
  EXPECT_EQ(by_name("un"), (Texts{"1 Uno Due", "2 Uno", "3 Numero uno"})) << "all that match";
  EXPECT_EQ(by_name(""), Texts{});
  EXPECT_EQ(by_name("Quattro"), Texts{});
  EXPECT_EQ(by_name("%"), Texts{}) << "no pattern";
}

TEST_F(Lookup_test, names_are_compared_without_regard_to_capitals_of_any_script) {
  add({.name = "ÕHTU", .lcn = 1});
  add({.name = "Шпак ТВ", .lcn = 2});
  add({.name = "Ράδιο", .lcn = 3});
  const struct {
    const char* asked;
    Texts found;
  } cases[] = {
      {"õhtu", {"1 ÕHTU"}}, {"шпак тв", {"2 Шпак ТВ"}}, {"РАК", {}}, {"ΡΆΔΙΟ", {"3 Ράδιο"}}, {"ПАК", {"2 Шпак ТВ"}}};
  for (const auto& c : cases)
    EXPECT_EQ(by_name(c.asked), c.found) << c.asked;
}

TEST_F(Lookup_test, names_in_other_languages_are_found_too) {
  const int channel = add({.name = "Erstes", .lcn = 1});
  run("INSERT INTO kanalid_lang (source_oid, lang, serv_name) VALUES (" + std::to_string(channel) +
      ", 'eng', 'First'), (" + std::to_string(channel) + ", 'fra', ''), (99, 'eng', 'First of nobody')");
  EXPECT_EQ(by_name("first"), (Texts{"1 Erstes"}));
}

TEST_F(Lookup_test, names_are_valid_utf8_however_they_are_stored) {
  const struct {
    const char* legend;
    std::string stored;
    const char* shown;
  } cases[] = {
      {"plain", "Kuldnokk 1", "Kuldnokk 1"},
      {"UTF-8", "Шпак", "Шпак"},
      {"UTF-8 with its selector", "\x15\xD0\xA8\xD0\xBF", "Шп"},
      {"ISO 8859-5 as broadcast", "\x01\xBF\xD8", "Пи"},
      {"ISO 6937 as broadcast", "Caf\xC2\x65", "Café"},
      {"two-byte characters as broadcast", "\x11\x04\x1F\x04\x38", "Пи"},
      {"two of them joined to one", "\xF8\x90\x90\x81\x82", "AB"},
      {"control codes",
       "A\xC2\x86"
       "B\x1B[2J\n",
       "AB[2J "},
      {"half a character at the end", "AB\xD0", "AB"},
      {"no character of any table", "A\xC0!", "A\xEF\xBF\xBD!"},
      {"a replaced one", "A\xEF\xBF\xBD", "A\xEF\xBF\xBD"},
      {"empty", "", ""},
  };
  for (const auto& c : cases)
    EXPECT_EQ(shown_name(c.stored), c.shown) << c.legend;
}

TEST_F(Lookup_test, list_that_cannot_be_read_is_told_and_left_alone) {
  add({.name = "One", .lcn = 1});
  std::vector<Listed_channel> channels(3);
  for (const char* table : {"kanalid_lang", "kanalid"}) {
    run(std::string("DROP TABLE ") + table);
    EXPECT_THAT(messages_at(0, [&] { EXPECT_FALSE(Channel_lookup(&sdbl()).list(&channels)); }), StartsWith("ERROR: "))
        << table;
    const support::Verbosity quiet(-1);
    EXPECT_FALSE(Channel_lookup(&sdbl()).by_number(1, &channels));
    EXPECT_FALSE(Channel_lookup(&sdbl()).by_name("One", &channels));
    EXPECT_EQ(channels.size(), 3U);
  }
}

TEST_F(Lookup_test, closed_database_is_told) {
  sdbl().close_db();
  std::vector<Listed_channel> channels(3);
  Now_next shown;
  EXPECT_NE(messages_at(0, [&] { EXPECT_FALSE(Channel_lookup(&sdbl()).list(&channels)); }), "");
  EXPECT_NE(messages_at(0, [&] { EXPECT_FALSE(Now_and_next(&sdbl()).read(1, {}, 0, &shown)); }), "");
  EXPECT_EQ(channels.size(), 3U);
  support::stderr_of([&] { sdbl().open_db(); });
}

// --- Now and next ----------------------------------------------------------------------------------------------------

namespace {

class Now_next_test : public Lookup_test {
 protected:
  // An event of channel 1, titled in one language unless the title is empty.
  void add(const std::string& title, int start, int duration, const std::string& language = "eng") {
    EXPECT_EQ(run("INSERT INTO epglist (channel, start_epoch, dur_sec, ev_id) VALUES (1, " + std::to_string(start) +
                  ", " + std::to_string(duration) + ", 9)"),
              SQLITE_DONE);
    if (!title.empty())
      add_text(number("SELECT max(entry) FROM epglist"), language, title);
  }
  void add_text(int entry, const std::string& language, const std::string& title, const std::string& description = "") {
    EXPECT_EQ(run("INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc) VALUES (" + std::to_string(entry) +
                  ", '" + language + "', '" + title + "', '" + description + "')"),
              SQLITE_DONE);
  }
  // "now / next" by their titles, a dash for none.
  std::string at(int64_t time, const std::vector<std::string>& languages = {}) {
    Now_next shown{Programme{}, Programme{}};
    EXPECT_TRUE(Now_and_next(&sdbl()).read(1, languages, time, &shown));
    const auto text = [](const std::optional<Programme>& event) { return event ? event->title : "-"; };
    return text(shown.now) + " / " + text(shown.next);
  }
};

}  // namespace

TEST_F(Now_next_test, event_is_on_from_its_first_second_to_its_end) {
  add("News", MIDNIGHT, HOUR);
  add("Film", MIDNIGHT + HOUR, 2 * HOUR);
  EXPECT_EQ(at(MIDNIGHT - 1), "- / News");
  EXPECT_EQ(at(MIDNIGHT), "News / Film");
  EXPECT_EQ(at(MIDNIGHT + HOUR - 1), "News / Film");
  EXPECT_EQ(at(MIDNIGHT + HOUR), "Film / -");
  EXPECT_EQ(at(MIDNIGHT + 3 * HOUR), "- / -");
}

TEST_F(Now_next_test, in_a_gap_nothing_is_on_and_the_next_one_is_behind_it) {
  add("News", MIDNIGHT, HOUR);
  add("Film", MIDNIGHT + 5 * HOUR, HOUR);
  EXPECT_EQ(at(MIDNIGHT + 2 * HOUR), "- / Film");
}

TEST_F(Now_next_test, event_goes_on_over_midnight_and_for_days) {
  add("Night", MIDNIGHT - HOUR, 2 * HOUR);
  EXPECT_EQ(at(MIDNIGHT), "Night / -");
  EXPECT_EQ(at(MIDNIGHT + HOUR - 1), "Night / -");
  add("Test card", MIDNIGHT + HOUR, 100 * HOUR);
  EXPECT_EQ(at(MIDNIGHT + 99 * HOUR), "Test card / -");
}

TEST_F(Now_next_test, event_without_a_duration_is_never_on_but_may_be_next) {
  add("Start of the day", MIDNIGHT, 0);
  add("Film", MIDNIGHT + HOUR, HOUR);
  EXPECT_EQ(at(MIDNIGHT - 1), "- / Start of the day");
  EXPECT_EQ(at(MIDNIGHT), "- / Film");
}

TEST_F(Now_next_test, of_overlapping_events_the_one_that_began_last_is_on) {
  add("Morning show", MIDNIGHT, 4 * HOUR);
  add("News", MIDNIGHT + HOUR, HOUR / 4);
  add("Film", MIDNIGHT + 3 * HOUR, 2 * HOUR);
  EXPECT_EQ(at(MIDNIGHT + HOUR / 2), "Morning show / News");
  EXPECT_EQ(at(MIDNIGHT + HOUR), "News / Film");
  EXPECT_EQ(at(MIDNIGHT + 2 * HOUR), "Morning show / Film") << "the block goes on behind the short one";
  EXPECT_EQ(at(MIDNIGHT + 3 * HOUR), "Film / -");
}

TEST_F(Now_next_test, other_channels_and_unknown_ones_have_their_own) {
  add("News", MIDNIGHT, HOUR);
  Now_next shown{Programme{}, Programme{}};
  for (const int channel : {2, 0, -1}) {
    EXPECT_TRUE(Now_and_next(&sdbl()).read(channel, {}, MIDNIGHT, &shown));
    EXPECT_FALSE(shown.now || shown.next) << channel;
  }
}

TEST_F(Now_next_test, times_beyond_32_bits_are_behind_everything) {
  add("News", MIDNIGHT, HOUR);
  EXPECT_EQ(at(int64_t{1} << 40), "- / -");
  EXPECT_EQ(at(-(int64_t{1} << 40)), "- / News");
  EXPECT_EQ(at(INT64_MAX), "- / -");
}

TEST_F(Now_next_test, end_beyond_32_bits_is_no_trouble) {
  add("Last", 2147483000, HOUR);
  EXPECT_EQ(at(2147483647), "Last / -");
  Now_next shown;
  EXPECT_TRUE(Now_and_next(&sdbl()).read(1, {}, 2147483000, &shown));
  EXPECT_EQ(shown.now->end(), 2147486600);
}

TEST_F(Now_next_test, texts_are_in_the_first_language_that_has_a_title) {
  add("", MIDNIGHT, HOUR);
  const int entry = number("SELECT max(entry) FROM epglist");
  add_text(entry, "est", "Uudised", "Eesti");
  add_text(entry, "rus", "Новости");
  add_text(entry, "eng", "", "only a description");
  EXPECT_EQ(at(MIDNIGHT), "Uudised / -") << "the first one stored";
  EXPECT_EQ(at(MIDNIGHT, {"RUS", "est"}), "Новости / -");
  EXPECT_EQ(at(MIDNIGHT, {"eng", "rus"}), "Новости / -") << "an English title there is none";
  EXPECT_EQ(at(MIDNIGHT, {"deu"}), "Uudised / -");
}

TEST_F(Now_next_test, all_that_an_event_says_is_there) {
  run("INSERT INTO epglist (entry, channel, start_epoch, dur_sec, ev_id, run_status) VALUES (5, 1, " +
      std::to_string(MIDNIGHT) + ", 600, 77, 4)");
  run("INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc) VALUES (5, 'est', x'1555', "
      "'one' || char(10) || 'two', 'long' || char(138) || 'text')");
  Now_next shown;
  ASSERT_TRUE(Now_and_next(&sdbl()).read(1, {}, MIDNIGHT, &shown));
  ASSERT_TRUE(shown.now);
  const Programme& p = *shown.now;
  EXPECT_EQ(std::tie(p.entry, p.event_id, p.start, p.duration_sec, p.running_status),
            std::make_tuple(5, 77, MIDNIGHT, 600, 4));
  EXPECT_EQ(std::tie(p.language, p.title, p.description, p.extended),
            std::make_tuple("est", "U", "one\ntwo", "long\ntext"));
}

TEST_F(Now_next_test, event_without_texts_is_shown_without) {
  add("", MIDNIGHT, HOUR);
  EXPECT_EQ(at(MIDNIGHT, {"eng"}), " / -");
}

TEST_F(Now_next_test, system_clock_counts_without_a_time) {
  const int64_t now = time(nullptr);
  add("On", static_cast<int>(now - HOUR), 2 * HOUR);
  Now_next shown;
  EXPECT_TRUE(Now_and_next(&sdbl()).read(1, {}, &shown));
  ASSERT_TRUE(shown.now);
  EXPECT_EQ(shown.now->title, "On");
}

TEST_F(Now_next_test, without_a_guide_file_that_is_told_and_nothing_is_changed) {
  add("News", MIDNIGHT, HOUR);
  sdbl().close_db();
  sdbl().open_db();  // without the guide
  Now_next shown;
  shown.now.emplace().entry = 3;
  EXPECT_THAT(messages_at(0, [&] { EXPECT_FALSE(Now_and_next(&sdbl()).read(1, {}, MIDNIGHT, &shown)); }),
              HasSubstr("no such table: epglist"));
  EXPECT_EQ(shown.now->entry, 3);
  EXPECT_FALSE(shown.next);
}

TEST_F(Now_next_test, texts_that_cannot_be_read_are_a_failure) {
  add("News", MIDNIGHT, HOUR);
  run("DROP TABLE epg_db.epglist_lang");
  Now_next shown;
  EXPECT_THAT(messages_at(0, [&] { EXPECT_FALSE(Now_and_next(&sdbl()).read(1, {}, MIDNIGHT, &shown)); }),
              HasSubstr("no such table: epglist_lang"));
  EXPECT_FALSE(shown.now);
}
