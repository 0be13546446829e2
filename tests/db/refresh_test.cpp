// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Known services that follow the air, and the same scans without that.
#include "db/scan_merger.h"
#include "db/sdbl_parts.h"
#include "db_support.h"

using sdbl::Scan_details;
using support::Texts;
using testing::HasSubstr;

namespace {

constexpr int CHANNELS_LOST = 1;
constexpr int CHANNELS_ADDED = 2;
constexpr int F1 = 506000000;
constexpr int F2 = 514000000;

// A service on the air.
struct Service {
  int id;
  std::string name;
  int lcn = 65535;
  int type = 1;
  bool visible = true;
  int free_ca = 0;
  int pcr = 1000;
  std::string sound = "eng";
};

// A multiplex as a scan reads it.
struct Air {
  std::vector<Service> services;
  int ts_id = 5;
  int freq = F1;
  int network = 10;  // original, and the network's own
  bool sdt = true;
  bool nit = true;
};

class Refresh : public db_support::Database_test {
 protected:
  Refresh() { sdbl().create_temp_tables(0); }

  Scan_details fill(const Air& air) {
    sdbl().clear_temp_tables(0);
    Scan_details details;
    details.has_numbers = true;
    details.nit_came = air.nit;
    if (air.sdt || air.nit)
      details.original_network_id = air.network;
    for (const Service& s : air.services) {
      const int row = sdbl().pat_for_network(0, TYPE, CONN, air.freq, s.id, air.ts_id, 100 + s.id);
      if (s.pcr != 0) {
        sdbl().pmt_channel_number(0, TYPE, CONN, air.freq, s.id, s.pcr, SCAN_PAT);
        std::list<PMT_subtxt_lang*> none;
        sdbl().pmt_for_service(0, row, 2000 + s.id, 3, 0, "MPEG1", s.sound.c_str(), "", 0, 0, &none);
      }
      if (air.sdt) {
        sdbl().sdt_for_service(0, TYPE, CONN, air.freq, s.id, 4, s.free_ca);
        sdbl().modify_table_oid(row, "kanalid_scan_0", "serv_name", s.name.c_str());
        sdbl().modify_table_oid(row, "kanalid_scan_0", "prov_name", "P");
        sdbl().modify_table_oid(row, "kanalid_scan_0", "serv_type", s.type);
        sdbl().modify_lang_table_oid(row, "kanalid_lang_scan_0", "eng", "serv_name", (s.name + " (eng)").c_str());
        details.services.push_back({s.id, true, true});
      }
      if (air.nit)
        details.numbers.push_back({air.network, air.ts_id, s.id, s.lcn, 65535, s.visible, false, ""});
    }
    if (air.nit)
      sdbl().nit_for_network(0, TYPE, CONN, air.freq, "network_id", air.network);
    return details;
  }
  int scan(const Air& air, SCAN_STATE state = SCAN_PAT) {
    const Scan_details details = fill(air);
    const sdbl::Merge_end end =
        merger_->merge(0, {Input{Connector{CONN}, Delivery{TYPE}}, air.freq}, state, details, &changes_);
    outcome_ = end.outcome;
    return end.changes;
  }
  Texts channels() {
    return rows(
        "SELECT channel, freq / 1000, pat_prnr, tstream_id, serv_name, lcn, scan_state FROM kanalid "
        "ORDER BY channel");
  }
  // "3 moved,renamed" and what it was and is.
  Texts changes() const {
    static const std::pair<unsigned, const char*> NAMES[] = {
        {CHANNEL_RENAMED, "renamed"},     {CHANNEL_RENUMBERED, "renumbered"},
        {CHANNEL_MOVED, "moved"},         {CHANNEL_RETYPED, "retyped"},
        {CHANNEL_SCRAMBLED, "scrambled"}, {CHANNEL_CLEAR, "clear"},
        {CHANNEL_HIDDEN, "hidden"},       {CHANNEL_SHOWN, "shown"},
        {CHANNEL_PROVIDER, "provider"},   {CHANNEL_STREAMS, "streams"},
        {CHANNEL_PIDS, "pids"},           {CHANNEL_NETWORK, "network"},
        {CHANNEL_RUNNING, "running"},     {CHANNEL_TRANSLATED, "translated"}};
    Texts all;
    for (const Channel_change& c : changes_) {
      std::string text = std::to_string(c.channel);
      for (const auto& [kind, name] : NAMES)
        text += (c.kinds & kind) != 0 ? std::string(" ") + name : "";
      all.push_back(text);
    }
    return all;
  }

  // With a row each of channels 1 and 2, whose numbers are their PIDs.
  void make_stream_tables() {
    for (const std::string table : STREAM_TABLES) {
      run("CREATE TABLE " + table + " (channel int, es_pid int)");
      run("INSERT INTO " + table + " VALUES (1, 1), (2, 2)");
    }
  }
  static constexpr const char* STREAM_TABLES[] = {"stream_detail", "stream_language", "stream_ca"};

  std::vector<Channel_change> changes_;
  sdbl::Merge_outcome outcome_{};
  std::unique_ptr<sdbl::Scan_merger> merger_ = sdbl::make_scan_merger(sdbl(), true);
};

}  // namespace

// A service that could not be written down for want of memory is none that has left.
TEST_F(Refresh, of_a_scan_short_of_memory_nothing_is_merged) {
  for (const bool refresh : {false, true}) {
    SCOPED_TRACE(refresh);
    merger_ = sdbl::make_scan_merger(sdbl(), refresh);
    run("DELETE FROM kanalid");
    scan({{{1, "One"}, {2, "Two"}}});
    const Texts before = channels();
    ASSERT_EQ(before.size(), 2U);
    const Scan_details details = fill({{{1, "One"}}});
    sdbl().parts().errors.remember(SQLITE_NOMEM, "pat_for_network");
    sdbl::Merge_end end;
    EXPECT_EQ(support::messages_at(
                  1,
                  [&] {
                    end = merger_->merge(0, {Input{Connector{CONN}, Delivery{TYPE}}, F1}, SCAN_PAT, details, &changes_);
                  }),
              "ERROR: No memory for the channels of 506000000 Hz: nothing is stored\n");
    EXPECT_EQ(end.outcome, sdbl::Merge_outcome::FAILED);
    EXPECT_EQ(channels(), before);
    EXPECT_EQ(scan({{{1, "One"}}}), CHANNELS_LOST) << "the next scan counts";
  }
}

TEST_F(Refresh, new_services_are_added_as_without_it) {
  EXPECT_EQ(scan({{{1, "One", 11}, {2, "Two", 12}}}), CHANNELS_ADDED | 32);
  EXPECT_EQ(channels(), (Texts{"1|506000|1|5|One|11|1", "2|506000|2|5|Two|12|1"}));
  EXPECT_EQ(rows("SELECT hf_conn, dvb_type, pmt_pid, network_id, orig_network_id, pcr_pid, prov_name, run_status, "
                 "row_status FROM kanalid WHERE channel = 1"),
            (Texts{"2|1|101|10|10|1000|P|4|0"}));
  EXPECT_EQ(rows("SELECT channel, es_pid, languages FROM estreams"), (Texts{"1|2001|eng", "2|2002|eng"}));
  EXPECT_EQ(rows("SELECT source_oid, lang, serv_name FROM kanalid_lang"),
            (Texts{"1|eng|One (eng)", "2|eng|Two (eng)"}));
  EXPECT_EQ(rows("SELECT channel, lcn, visible, eit_schedule FROM service_detail"), (Texts{"1|11|1|1", "2|12|1|1"}));
  EXPECT_EQ(changes(), Texts{});
  EXPECT_EQ(scan({{{1, "One", 11}, {2, "Two", 12}}}), 0) << "nothing new";
}

TEST_F(Refresh, each_value_of_a_known_service_follows_the_air_and_is_told) {
  const Service before{1, "One", 11};
  const struct {
    const char* legend;
    Service after;
    const char* told;
    const char* query;
    const char* stored;
  } CASES[] = {
      {"name", {1, "Uno", 11}, "1 renamed translated", "SELECT serv_name FROM kanalid", "Uno"},
      {"name in a language", {1, "Uno", 11}, "1 renamed translated", "SELECT serv_name FROM kanalid_lang", "Uno (eng)"},
      {"number", {1, "One", 5}, "1 renumbered", "SELECT lcn FROM kanalid", "5"},
      {"no number any more", {1, "One"}, "1 renumbered", "SELECT lcn FROM kanalid", "65535"},
      {"type", {1, "One", 11, 25}, "1 retyped", "SELECT serv_type FROM kanalid", "25"},
      {"hidden", {1, "One", 11, 1, false}, "1 hidden", "SELECT visible FROM service_detail", "0"},
      {"scrambled", {1, "One", 11, 1, true, 1}, "1 scrambled", "SELECT free_ca FROM kanalid", "1"},
      {"clock", {1, "One", 11, 1, true, 0, 1234}, "1 pids", "SELECT pcr_pid FROM kanalid", "1234"},
      {"streams", {1, "One", 11, 1, true, 0, 1000, "est"}, "1 streams", "SELECT languages FROM estreams", "est"},
  };
  for (const auto& c : CASES) {
    SCOPED_TRACE(c.legend);
    for (const char* table : {"kanalid", "kanalid_lang", "estreams", "main.sqlite_sequence"})
      run(std::string("DELETE FROM ") + table);
    scan({{before}});
    scan({{c.after}});
    EXPECT_EQ(changes(), Texts{c.told});
    EXPECT_EQ(text(c.query), c.stored);
    scan({{c.after}});
    EXPECT_EQ(changes(), Texts{}) << "told once";
    EXPECT_EQ(rows("SELECT channel FROM kanalid"), (Texts{"1"}));
  }
}

TEST_F(Refresh, a_change_tells_the_old_and_the_new_value) {
  scan({{{1, "One", 11}}});
  scan({{{1, "Uno", 12}}});
  ASSERT_EQ(changes_.size(), 1U);
  const Channel_change& c = changes_[0];
  EXPECT_EQ(c.old_name + ">" + c.new_name, "One>Uno");
  EXPECT_EQ(std::pair(c.old_lcn, c.new_lcn), std::pair(11, 12));
  EXPECT_EQ(std::pair(c.old_freq, c.new_freq), std::pair(F1, F1));
  EXPECT_EQ(c.service_id, 1);
}

TEST_F(Refresh, without_it_known_services_stay_as_they_are) {
  merger_ = sdbl::make_scan_merger(sdbl(), false);
  const auto with_ids = [&](const Air& air) {
    const Scan_details details = fill(air);
    run("UPDATE kanalid_scan_0 SET orig_network_id = 10");
    return merger_->merge(0, {Input{Connector{CONN}, Delivery{TYPE}}, air.freq}, SCAN_PAT, details, &changes_).changes;
  };
  with_ids({{{1, "One", 11}}});
  EXPECT_EQ(with_ids({{{1, "Uno", 12, 25, false, 1}}}), 0);
  EXPECT_EQ(text("SELECT serv_name FROM kanalid"), "One");
  EXPECT_EQ(changes(), Texts{});
  EXPECT_EQ(number("SELECT count(*) FROM sqlite_master WHERE name = 'service_detail'"), 0);
}

TEST_F(Refresh, what_was_not_received_stays) {
  scan({{{1, "One", 11, 2}, {2, "Two", 12}}});
  Air air{{{1, "", 65535, 0, true, 0, 0}, {2, "", 65535, 0, true, 0, 0}}};
  air.sdt = air.nit = false;
  EXPECT_EQ(scan(air), 0);
  EXPECT_EQ(channels(), (Texts{"1|506000|1|5|One|11|1", "2|506000|2|5|Two|12|1"}));
  EXPECT_EQ(rows("SELECT serv_type, pcr_pid, network_id, orig_network_id FROM kanalid WHERE channel = 1"),
            (Texts{"2|1000|10|10"}));
  EXPECT_EQ(rows("SELECT es_pid FROM estreams"), (Texts{"2001", "2002"}));
  // An empty name is none.
  scan({{{1, "", 11, 2}, {2, "Two", 12}}});
  EXPECT_EQ(text("SELECT serv_name FROM kanalid WHERE channel = 1"), "One");
}

TEST_F(Refresh, a_service_without_pmt_is_stored_and_there_when_it_has_one) {
  scan({{{1, "One", 11, 1, true, 0, 0}}});
  EXPECT_EQ(rows("SELECT scan_state, row_status, lcn FROM kanalid"), (Texts{"0|2|11"}));
  EXPECT_EQ(scan({{{1, "One", 11}}}) & CHANNELS_ADDED, CHANNELS_ADDED);
  EXPECT_EQ(rows("SELECT scan_state, row_status FROM kanalid"), (Texts{"1|0"}));
}

TEST_F(Refresh, a_lost_service_keeps_its_row_and_is_counted_once) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  EXPECT_EQ(scan({{{1, "One", 11}}}), CHANNELS_LOST);
  EXPECT_EQ(scan({{{1, "One", 11}}}), 0);
  EXPECT_EQ(channels().back(), "2|506000|2|5|Two|12|0");
  EXPECT_EQ(scan({{{1, "One", 11}, {2, "Two", 12}}}), CHANNELS_ADDED);
  EXPECT_EQ(channels().back(), "2|506000|2|5|Two|12|1");
}

// --- Places ----------------------------------------------------------------------------------------------------------

TEST_F(Refresh, a_service_that_was_lost_first_moves_with_its_number) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  scan({{{2, "Two", 12}}});
  scan({{{1, "One", 11}}, 5, F2});
  EXPECT_EQ(channels(), (Texts{"1|514000|1|5|One|11|1", "2|506000|2|5|Two|12|1"}));
  EXPECT_EQ(changes(), (Texts{"1 moved"}));
}

TEST_F(Refresh, one_that_is_found_first_moves_when_its_old_place_is_scanned) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  scan({{{1, "One", 11}}, 5, F2});
  EXPECT_EQ(channels().back(), "3|514000|1|5|One|11|1") << "perhaps it is sent twice";
  EXPECT_EQ(scan({{{2, "Two", 12}}}) & CHANNELS_LOST, CHANNELS_LOST);
  EXPECT_EQ(channels(), (Texts{"1|514000|1|5|One|11|1", "2|506000|2|5|Two|12|1", "3|506000|1|5|One|11|0"}));
  EXPECT_THAT(changes(), testing::Contains("1 moved"));
  EXPECT_EQ(rows("SELECT channel, es_pid FROM estreams ORDER BY channel"), (Texts{"1|2001", "2|2002", "3|2001"}));
}

TEST_F(Refresh, one_that_is_found_first_moves_when_its_old_place_does_not_lock) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  scan({{{1, "One", 11}}, 5, F2});
  EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN + 1, {F1}, &changes_), 0) << "of another input";
  EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN, {F1, F2}, &changes_), 0) << "nowhere to go";
  EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN, {F1}, &changes_), 1);
  EXPECT_EQ(channels(), (Texts{"1|514000|1|5|One|11|1", "2|506000|2|5|Two|12|1", "3|506000|1|5|One|11|0"}))
      << "nobody knows what has become of the second one";
  EXPECT_EQ(changes(), (Texts{"1 moved"}));
  EXPECT_EQ(rows("SELECT channel, es_pid FROM estreams ORDER BY channel"), (Texts{"1|2001", "2|2002", "3|2001"}));
  EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN, {F1}, &changes_), 0) << "once";
  EXPECT_EQ(changes(), Texts{});
  scan({{{1, "One", 11}}, 5, F2});
  EXPECT_EQ(changes(), Texts{});
}

TEST_F(Refresh, one_that_moved_to_another_stream_keeps_the_number_it_had) {
  scan({{{1, "One", 11}}});
  scan({{{1, "One", 11}}, 6, F2});
  EXPECT_EQ(rows("SELECT lcn FROM kanalid ORDER BY channel"), (Texts{"11", "800"})) << "another service, as it seems";
  EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN, {F1}, &changes_), 1);
  EXPECT_EQ(channels().front(), "1|514000|1|6|One|11|1");
  EXPECT_EQ(changes(), (Texts{"1 moved network", "2 network"}));
}

TEST_F(Refresh, a_move_that_cannot_be_written_is_told_and_changes_nothing) {
  scan({{{1, "One", 11}}});
  scan({{{1, "One", 11}}, 5, F2});
  const Texts before = channels();
  run("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON main.kanalid WHEN new.freq = 514000000 BEGIN SELECT raise(ABORT, "
      "'refused'); END");
  EXPECT_THAT(support::messages_at(0, [&] { EXPECT_EQ(sdbl().keep_moved_channels(TYPE, CONN, {F1}, &changes_), -1); }),
              HasSubstr("SQL_exec: 1811"));
  EXPECT_EQ(channels(), before);
  EXPECT_EQ(changes(), Texts{});
}

TEST_F(Refresh, streams_in_words_go_with_their_place) {
  scan({{{1, "One", 11}}});
  scan({{{1, "One", 11}}, 5, F2});
  make_stream_tables();
  scan({{{9, "Nine", 19}}});
  EXPECT_EQ(channels().front(), "1|514000|1|5|One|11|1");
  for (const char* table : STREAM_TABLES)
    EXPECT_EQ(rows(std::string("SELECT channel, es_pid FROM ") + table + " ORDER BY channel"), (Texts{"1|2", "2|1"}))
        << table;
}

TEST_F(Refresh, a_channel_that_is_dropped_takes_streams_and_guide_along) {
  scan({{{1, "One", 11}}, 5});
  scan({{{1, "One", 11}}, 5, F2});
  make_stream_tables();
  for (const char* entry : {"7, 1", "8, 2"})
    run(std::string("INSERT INTO epg_db.epglist (entry, channel, start_epoch, dur_sec) VALUES (") + entry +
        ", 100, 1)");
  for (const char* entry : {"7", "8"})
    run(std::string("INSERT INTO epg_db.epglist_lang (source_oid, lang) VALUES (") + entry + ", 'eng')");
  // Another service on the old place, which sets the old row aside; its twin elsewhere makes it superfluous.
  scan({{{1, "Else", 21}}, 6});
  EXPECT_EQ(channels(), (Texts{"1|514000|1|5|One|11|1", "3|506000|1|6|Else|21|1"}));
  for (const char* table : STREAM_TABLES)
    EXPECT_EQ(rows(std::string("SELECT channel FROM ") + table), (Texts{"1"})) << table;
  EXPECT_EQ(rows("SELECT e.channel, l.source_oid FROM epglist e, epglist_lang l WHERE l.source_oid = e.entry"),
            (Texts{"1|7"}));
  EXPECT_EQ(number("SELECT count(*) FROM epglist_lang"), 1);
}

TEST_F(Refresh, one_that_two_transmitters_send_does_not_move_between_them) {
  scan({{{1, "One", 11}}});
  scan({{{1, "One", 11}}, 5, F2});
  const Texts both = channels();
  EXPECT_EQ(both, (Texts{"1|506000|1|5|One|11|1", "2|514000|1|5|One|11|1"})) << "one number for the two";
  for (const int freq : {F1, F2, F2, F1}) {
    EXPECT_EQ(scan({{{1, "One", 11}}, 5, freq}), 0);
    EXPECT_EQ(channels(), both);
  }
}

TEST_F(Refresh, one_that_moved_to_another_stream_of_its_network_is_known_by_its_name) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  scan({{{7, "Seven", 17}}, 6, F2});
  scan({{{2, "Two", 12}}});
  scan({{{7, "Seven", 17}, {1, "One", 11}}, 6, F2});
  EXPECT_EQ(channels(), (Texts{"1|514000|1|6|One|11|1", "2|506000|2|5|Two|12|1", "3|514000|7|6|Seven|17|1"}));
  EXPECT_EQ(changes(), (Texts{"1 moved network"}));
  // Another name: another service.
  scan({{{7, "Seven", 17}}, 6, F2});
  scan({{{2, "Two", 12}, {1, "Else", 11}}});
  EXPECT_EQ(channels().back(), "4|506000|1|5|Else|11|1");
}

TEST_F(Refresh, two_multiplexes_that_change_places_keep_all_numbers) {
  const std::vector<Service> a{{1, "A1", 1}, {2, "A2", 2}};
  const std::vector<Service> b{{1, "B1", 3}, {2, "B2", 4}};
  scan({a, 5, F1});
  scan({b, 6, F2});
  scan({b, 6, F1});
  EXPECT_EQ(outcome_, sdbl::Merge_outcome::DONE);
  scan({a, 5, F2});
  EXPECT_EQ(channels(),
            (Texts{"1|514000|1|5|A1|1|1", "2|514000|2|5|A2|2|1", "3|506000|1|6|B1|3|1", "4|506000|2|6|B2|4|1"}));
  scan({b, 6, F1});
  EXPECT_EQ(changes(), Texts{});
}

TEST_F(Refresh, two_services_that_change_ids_follow_the_ids) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  scan({{{1, "Two", 12}, {2, "One", 11}}});
  EXPECT_EQ(channels(), (Texts{"1|506000|1|5|Two|12|1", "2|506000|2|5|One|11|1"}));
  EXPECT_EQ(changes(), (Texts{"1 renamed renumbered translated", "2 renamed renumbered translated"}));
}

TEST_F(Refresh, a_network_that_changes_its_ids_keeps_its_rows) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  Air air{{{1, "One", 11}, {2, "Two", 12}}, 77};
  air.network = 20;
  EXPECT_EQ(scan(air) & (CHANNELS_ADDED | CHANNELS_LOST), 0);
  EXPECT_EQ(channels(), (Texts{"1|506000|1|77|One|11|1", "2|506000|2|77|Two|12|1"}));
  EXPECT_EQ(changes(), (Texts{"1 network", "2 network"}));
}

TEST_F(Refresh, another_service_on_the_same_place_gets_another_number_and_the_old_one_waits) {
  scan({{{1, "One", 11}}, 5});
  scan({{{1, "Else", 21}}, 6});
  EXPECT_EQ(channels(), (Texts{"1|506001|1|5|One|11|0", "2|506000|1|6|Else|21|1"}));
  scan({{{1, "One", 11}}, 5, F2});
  EXPECT_EQ(channels(), (Texts{"1|514000|1|5|One|11|1", "2|506000|1|6|Else|21|1"}));
}

TEST_F(Refresh, other_inputs_are_left_alone) {
  scan({{{1, "One", 11}}});
  run("UPDATE kanalid SET hf_conn = 9");
  scan({{{1, "Uno", 11}}});
  EXPECT_EQ(rows("SELECT channel, hf_conn, serv_name, lcn FROM kanalid ORDER BY channel"),
            (Texts{"1|9|One|11", "2|2|Uno|11"}));
}

// --- Numbers and failures --------------------------------------------------------------------------------------------

TEST_F(Refresh, a_number_that_two_ask_for_goes_to_one_and_comes_back_when_it_is_free) {
  scan({{{1, "One", 5}}});
  scan({{{9, "Nine", 5}}, 6, F2});
  EXPECT_EQ(rows("SELECT serv_name, lcn FROM kanalid ORDER BY channel"), (Texts{"One|5", "Nine|800"}));
  scan({{{1, "One", 6}}});
  EXPECT_EQ(rows("SELECT serv_name, lcn FROM kanalid ORDER BY channel"), (Texts{"One|6", "Nine|5"}));
  EXPECT_EQ(changes(), (Texts{"1 renumbered", "2 renumbered"}));
}

TEST_F(Refresh, numbers_of_other_networks_are_for_services_without_one) {
  Air air{{{1, "One"}, {2, "Two", 12}}};
  scan(air);
  scan({{{9, "Nine", 5}}, 6, F2});
  Scan_details details = fill(air);
  details.numbers = {{10, 5, 1, 71, 65535, true, true, ""},
                     {10, 5, 2, 12, 65535, true, false, ""},
                     {10, 6, 9, 99, 65535, true, true, ""}};
  merger_->merge(0, {Input{Connector{CONN}, Delivery{TYPE}}, F1}, SCAN_PAT, details, &changes_);
  EXPECT_EQ(rows("SELECT lcn FROM kanalid ORDER BY channel"), (Texts{"71", "12", "5"}));
}

TEST_F(Refresh, a_merge_that_fails_half_way_changes_nothing) {
  scan({{{1, "One", 11}, {2, "Two", 12}}});
  const Texts before = channels();
  run("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON main.kanalid WHEN new.serv_name = 'Dos' BEGIN SELECT "
      "raise(ABORT, 'refused'); END");
  const std::string printed = support::messages_at(0, [&] {
    EXPECT_EQ(scan({{{1, "Uno", 21}, {2, "Dos", 22}, {3, "Tres", 23}}}), 0);
  });
  EXPECT_THAT(printed, HasSubstr("SQL_exec: 1811"));
  EXPECT_EQ(outcome_, sdbl::Merge_outcome::FAILED);
  EXPECT_EQ(channels(), before);
  EXPECT_EQ(changes(), Texts{});
  run("DROP TRIGGER refuse");
  scan({{{1, "Uno", 21}, {2, "Dos", 22}}});
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid"), (Texts{"Uno", "Dos"}));
}

TEST_F(Refresh, a_file_that_another_program_keeps_locked_is_left_alone) {
  scan({{{1, "One", 11}}});
  {
    const db_support::Other_connection other(file());
    other.run("BEGIN EXCLUSIVE");
    EXPECT_THAT(support::messages_at(0, [&] { EXPECT_EQ(scan({{{1, "Uno", 11}}}), 0); }), HasSubstr("SQL_exec: 5 "));
    EXPECT_EQ(outcome_, sdbl::Merge_outcome::BUSY);
  }
  EXPECT_EQ(text("SELECT serv_name FROM kanalid"), "One");
  scan({{{1, "Uno", 11}}});
  EXPECT_EQ(text("SELECT serv_name FROM kanalid"), "Uno");
}

TEST_F(Refresh, pmts_that_are_read_again_change_streams_alone) {
  scan({{{1, "One", 11}}});
  sdbl().clear_temp_tables(0);
  std::list<PMT_subtxt_lang*> none;
  sdbl().pmt_for_service(0, 1, 2001, 3, 0, "MPEG1", "fin", "", 0, 0, &none);
  const sdbl::Merge_end end =
      merger_->merge(0, {Input{Connector{CONN}, Delivery{TYPE}}, F1}, SCAN_PMT, Scan_details{}, &changes_);
  EXPECT_EQ(end.changes, 16 | 32);
  EXPECT_EQ(changes(), (Texts{"1 streams"}));
  EXPECT_EQ(rows("SELECT languages FROM estreams"), (Texts{"fin"}));
}
