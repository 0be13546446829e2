// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <kelvo/kelvo.h>
#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"
#include "tools/database/stream_words.h"

namespace {

using std::filesystem::exists;
using testing::HasSubstr;
using testing::Not;

class Channels : public Command_fixture {
 protected:
  Channels() { make_prepared_db(db_); }

  Command_result channels(const Words& arguments = {}, const support::Environment& env = {}) const {
    return run_command(joined({{KELVO_COMMAND, "channels", "--db", db_}, arguments}), env);
  }
  Command_result on_terminal(int columns, const Words& arguments = {}) const {
    return support::run_on_terminal(joined({{KELVO_COMMAND, "channels", "--db", db_}, arguments}), {}, columns);
  }
};

TEST_F(Channels, table_is_sorted_by_number_then_row) {
  EXPECT_EQ(
      channels(),
      prints(
          "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA             STATE       PIDS\n"
          "  3  Žluťoučký  HD TV  -         -        506.000 MHz  0x0B00 0x0100  lost        video 400, audio 401 ces, "
          "data 402\n"
          " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -              found       video 257, audio 258 est "
          "eng, audio 259 est, teletext 260 est, subtitles 261 est rus\n"
          " 12  a[2J b     HD TV  \xEF\xBF\xBD"
          "A        Võrk     650.166 MHz  yes            timed out   -\n"
          "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -              found       audio 300\n"
          "  -  -          data   Meedia    Võrk     650.166 MHz  -              no streams  -\n"));
}

TEST_F(Channels, json_tells_everything) {
  run_sql(db_, "DELETE FROM kanalid WHERE channel IN (2, 4);");
  EXPECT_EQ(channels({"--format", "json"}), prints(support::read_file(KELVO_TEST_DATA "/channels.json")));
}

// What a receiver that names streams stores beside what there was before.
constexpr const char* WORDS = R"(
    CREATE TABLE stream_detail (channel int, es_pid int, es_type int, component_tag int, kind text, codec text,
                                profile text);
    CREATE TABLE stream_language (channel int, es_pid int, lang text, role text, page int);
    CREATE TABLE stream_ca (channel int, es_pid int, ca_sysid int, ca_pid int);
    INSERT INTO stream_detail VALUES (1, 257, 27, -1, 'video', 'H.264', 'High@L4.0'),
                                     (1, 258, 4, 3, 'audio', 'MPEG-2', ''), (1, 259, 6, -1, 'audio', 'E-AC-3', ''),
                                     (1, 260, 6, -1, 'teletext', '', ''), (1, 261, 6, -1, 'subtitles', 'TTML', ''),
                                     (2, 300, 15, -1, 'audio', 'AAC', ''), (3, 402, 5, -1, 'application', 'HbbTV', '');
    INSERT INTO stream_language VALUES (1, 258, 'est', '', 0), (1, 258, 'eng', 'audio description', 0),
                                       (1, 259, 'est', 'hard of hearing', 0), (1, 260, 'est', 'index', 100),
                                       (1, 260, 'est', 'subtitles', 888), (1, 260, 'rus', '', 700),
                                       (1, 261, 'est', '', 1), (1, 261, 'rus', 'hard of hearing', 2),
                                       (99, 500, 'est', '', 0);
    INSERT INTO stream_ca VALUES (3, 0, 2816, 1200), (3, 0, 1280, 1300), (3, 402, 2816, 1201), (3, 402, 4660, 1202),
                                 (99, 0, 256, 1);
)";

TEST_F(Channels, streams_in_words_have_codec_and_roles_and_all_systems_their_names) {
  run_sql(db_, WORDS);
  run_sql(db_, "DELETE FROM kanalid WHERE channel IN (4, 5);");
  EXPECT_EQ(
      channels(),
      prints(
          "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA                     STATE  PIDS\n"
          "  3  Žluťoučký  HD TV  -         -        506.000 MHz  Conax Viaccess 0x1234  lost   video 400, audio 401 "
          "ces, application 402 HbbTV\n"
          " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -                      found  video 257 H.264, "
          "audio 258 MPEG-2 est eng (audio description), audio 259 E-AC-3 est (hard of hearing), teletext 260 est "
          "(index 100, subtitles 888) rus (700), subtitles 261 TTML est rus (hard of hearing)\n"
          "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -                      found  audio 300\n"))
      << "the last one's type is another than its words were made for";
}

TEST_F(Channels, json_has_the_words_beside_the_rest) {
  run_sql(db_, WORDS);
  run_sql(db_, "DELETE FROM kanalid WHERE channel IN (2, 4, 5);");
  const auto list = nlohmann::json::parse(channels({"--format", "json"}).out)["channels"];
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0]["ca_systems"], nlohmann::json::parse(R"(["0x0B00", "0x0500", "0x1234"])"));
  EXPECT_EQ(list[0]["ca"], nlohmann::json::parse(R"([
      {"system": 2816, "name": "Conax", "pid": 1200, "stream": null},
      {"system": 1280, "name": "Viaccess", "pid": 1300, "stream": null},
      {"system": 2816, "name": "Conax", "pid": 1201, "stream": 402},
      {"system": 4660, "name": null, "pid": 1202, "stream": 402}])"));
  EXPECT_FALSE(list[0]["streams"][0].contains("roles")) << "it has no words";
  EXPECT_EQ(list[0]["streams"][2], nlohmann::json::parse(R"({"pid": 402, "kind": "application", "codec": "HbbTV",
      "stream_type": 5, "languages": [], "ca_system": 256, "ca_pid": 1201, "profile": null, "component_tag": null,
      "roles": []})"));
  EXPECT_FALSE(list[1].contains("ca"));
  EXPECT_EQ(list[1]["streams"][0]["profile"], "High@L4.0");
  EXPECT_EQ(list[1]["streams"][1], nlohmann::json::parse(R"({"pid": 258, "kind": "audio", "codec": "MPEG-2",
      "stream_type": 4, "languages": ["est", "eng"], "profile": null, "component_tag": 3, "roles": [
        {"language": "est", "role": null, "page": null},
        {"language": "eng", "role": "audio description", "page": null}]})"));
  EXPECT_EQ(list[1]["streams"][3]["roles"], nlohmann::json::parse(R"([
      {"language": "est", "role": "index", "page": 100}, {"language": "est", "role": "subtitles", "page": 888},
      {"language": "rus", "role": null, "page": 700}])"));
}

TEST_F(Channels, json_says_how_the_multiplex_was_received) {
  run_sql(db_, "DELETE FROM kanalid WHERE channel > 1;");
  run_sql(db_, "UPDATE kanalid SET hf_conn = 0, dvb_type = 0;");
  run_sql(db_, R"(CREATE TABLE tuned_multiplex (freq int, hf_conn int, dvb_type int, asked_freq int, system int,
                  pipe int, bandwidth_hz int, modulation int, offset_hz int, lock_ms int);)");
  const auto delivery = [this] {
    return nlohmann::json::parse(channels({"--format", "json"}).out)["channels"][0]["delivery"].dump();
  };
  const std::string nothing = R"({"bandwidth":null,"frequency":506000000,"modulation":null,"plp":null,"system":null})";
  const std::string t = R"({"bandwidth":7000000,"frequency":506166000,"modulation":"QAM-64","plp":null,)"
                        R"("system":"DVB-T"})";
  const std::string t2 = R"({"bandwidth":1712000,"frequency":505999998,"modulation":"QAM-256","plp":2,)"
                         R"("system":"DVB-T2"})";
  const std::string unsure = R"({"bandwidth":null,"frequency":506000000,"modulation":null,"plp":null,)"
                             R"("system":"DVB-T2"})";
  const struct {
    const char* what;
    const char* row;
    std::string delivery;
  } rows[] = {{"no row", nullptr, nothing},
              {"of DVB-T, beside its centre", "506000000, 0, 0, 506000000, 3, -1, 7000000, 3, 166000, 80", t},
              {"of a pipe", "506000000, 0, 0, 505999998, 16, 2, 1712000, 5, 0, 80", t2},
              {"little is known", "506000000, 0, 0, 506000000, 16, -1, 0, -1, 0, 80", unsure},
              {"a constellation of its own choice", "506000000, 0, 0, 506000000, 16, -1, 0, 6, 0, 80", unsure},
              {"another input", "506000000, 1, 0, 506000000, 3, -1, 7000000, 3, 0, 80", nothing},
              {"a pipe of DVB-T", "506000000, 0, 0, 505999998, 3, 2, 7000000, 3, 0, 80", nothing},
              {"a system that is none", "506000000, 0, 0, 506000000, 5, -1, 7000000, 3, 0, 80", nothing},
              {"a bandwidth that is none", "506000000, 0, 0, 506000000, 3, -1, 7, 3, 0, 80", nothing},
              {"a frequency that is not its", "506000000, 0, 0, 506000001, 3, -1, 7000000, 3, 0, 80", nothing}};
  for (const auto& row : rows) {
    run_sql(db_, "DELETE FROM tuned_multiplex;");
    if (row.row != nullptr)
      run_sql(db_, std::string("INSERT INTO tuned_multiplex VALUES (") + row.row + ");");
    EXPECT_EQ(delivery(), row.delivery) << row.what;
  }
}

TEST_F(Channels, one_of_their_tables_alone_holds_no_words) {
  run_sql(db_, "CREATE TABLE stream_detail (channel int);");
  EXPECT_EQ(channels().exit_code, 0) << "the two other tables are not there";
}

TEST(Service_types, have_the_names_of_the_standard) {
  const std::map<int, std::string> types = {
      {0x01, "TV"},       {0x02, "radio"},   {0x03, "teletext"}, {0x04, "NVOD"},   {0x06, "mosaic"},
      {0x07, "FM radio"}, {0x0A, "radio"},   {0x0B, "mosaic"},   {0x0C, "data"},   {0x0D, "type 13"},
      {0x10, "data"},     {0x11, "HD TV"},   {0x16, "SD TV"},    {0x19, "HD TV"},  {0x1C, "3D TV"},
      {0x1E, "NVOD"},     {0x1F, "HEVC TV"}, {0x20, "UHD TV"},   {0x21, "VVC TV"}, {0x80, "type 128"}};
  for (const auto& [type, name] : types) {
    Service service;
    service.type = type;
    EXPECT_EQ(type_text(service), name) << type;
  }
}

TEST(Ca_names, are_told_by_the_number) {
  const std::map<int, std::string> names = {{0x0100, "Mediaguard"},
                                            {0x0500, "Viaccess"},
                                            {0x0604, "Irdeto"},
                                            {0x093B, "VideoGuard"},
                                            {0x0B00, "Conax"},
                                            {0x0B02, "Conax"},
                                            {0x0D95, "CryptoWorks"},
                                            {0x0E00, "PowerVu"},
                                            {0x1843, "Nagravision"},
                                            {0x2600, "BISS"},
                                            {0x4AE1, "DRE-Crypt"},
                                            {0x4AE2, ""},
                                            {0, ""},
                                            {0x0200, ""},
                                            {0xFFFF, ""}};
  for (const auto& [system, name] : names)
    EXPECT_EQ(ca_name(system), name) << system;
}

TEST_F(Channels, is_the_same_in_every_locale) {
  EXPECT_THAT(channels({}, {{"LC_ALL", "C"}}), ends(0, channels().out));
}

TEST_F(Channels, hostile_names_do_not_reach_a_terminal) {
  EXPECT_THAT(on_terminal(400), ends(0, AllOf(HasSubstr("a[2J b"), Not(HasSubstr("\x1B")))));
}

TEST_F(Channels, a_terminal_gets_what_fits_in_whole_words) {
  const struct {
    int columns;
    const char* table;
  } cases[] = {
      {40,
       "LCN  NAME         FREQUENCY  STATE\r\n"
       "  3  Žluťoučký  506.000 MHz  lost\r\n"
       " 12  Kuldnokk   506.000 MHz  found\r\n"
       " 12  a[2J b     650.166 MHz  timed out\r\n"
       "  -  Raadio     506.000 MHz  found\r\n"
       "  -  -          650.166 MHz  no streams\r\n"},
      {80,
       "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA             STATE\r\n"
       "  3  Žluťoučký  HD TV  -         -        506.000 MHz  0x0B00 0x0100  lost\r\n"
       " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -              found\r\n"
       " 12  a[2J b     HD TV  \uFFFDA        Võrk     650.166 MHz  yes            timed out\r\n"
       "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -              found\r\n"
       "  -  -          data   Meedia    Võrk     650.166 MHz  -              no streams\r\n"},
      {120,
       "LCN  NAME       TYPE   PROVIDER  NETWORK    FREQUENCY  CA             STATE       PIDS\r\n"
       "  3  Žluťoučký  HD TV  -         -        506.000 MHz  0x0B00 0x0100  lost        video 400, audio 401 ces, data "
       "402\r\n"
       " 12  Kuldnokk   TV     Meedia    Võrk     506.000 MHz  -              found       video 257, audio 258 est eng, "
       "audio\r\n"
       "                                                                                  259 est, teletext 260 est, "
       "subtitles\r\n"
       "                                                                                  261 est rus\r\n"
       " 12  a[2J b     HD TV  \uFFFDA        Võrk     650.166 MHz  yes            timed out   -\r\n"
       "  -  Raadio     radio  Meedia    Võrk     506.000 MHz  -              found       audio 300\r\n"
       "  -  -          data   Meedia    Võrk     650.166 MHz  -              no streams  -\r\n"},
  };
  for (const auto& c : cases)
    EXPECT_THAT(on_terminal(c.columns), ends(0, c.table)) << c.columns;
  EXPECT_THAT(
      on_terminal(40, {"--wide"}),
      ends(0, HasSubstr("video 257, audio 258 est eng, audio 259 est, teletext 260 est, subtitles 261 est rus\r\n")));
}

TEST_F(Channels, leaves_the_database_as_it_is) {
  const std::string before = support::read_file(db_);
  EXPECT_EQ(channels().exit_code, 0);
  EXPECT_EQ(support::read_file(db_), before);
}

TEST_F(Channels, an_empty_database_is_no_error) {
  db_ = dir_.file("empty.db");
  (void)support::stderr_of([this] { const Sdbl made(db_.c_str()); });
  EXPECT_EQ(channels(), prints("", "No channels in " + db_ + " yet; 'kelvo scan' finds them.\n"));
  EXPECT_EQ(channels({"--format", "json"}),
            prints("{\n  \"format\": \"kelvo-channels\",\n  \"version\": 1,\n  \"channels\": []\n}\n"));
}

TEST_F(Channels, a_named_database_must_exist) {
  db_ = dir_.file("missing.db");
  EXPECT_EQ(channels(), fails(db_ + MISSING));
  EXPECT_FALSE(exists(db_));
}

TEST_F(Channels, before_the_first_scan_there_are_none_and_nothing_is_made) {
  const std::string data = dir_.file("data");
  EXPECT_THAT(run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}}),
              ends(0, testing::_, "No channels in " + data + "/kelvo/dvb.db yet; 'kelvo scan' finds them.\n"));
  EXPECT_EQ(run_command({KELVO_COMMAND, "epg"}, {{"XDG_DATA_HOME", data}}), fails(data + "/kelvo/dvb.db" + MISSING));
  EXPECT_FALSE(exists(data));
}

TEST_F(Channels, the_default_database_is_below_home_without_a_usable_data_folder) {
  for (const std::string data : {"", "relative"}) {
    const std::string home = dir_.file("home" + data);
    EXPECT_EQ(run_command({KELVO_COMMAND, "channels"}, {{"XDG_DATA_HOME", data}, {"HOME", home}}).err,
              "No channels in " + home + "/.local/share/kelvo/dvb.db yet; 'kelvo scan' finds them.\n");
  }
}

TEST_F(Channels, that_may_not_be_read_are_said_to_be_so) {
  std::filesystem::permissions(db_, std::filesystem::perms::none);
  // Root may read whatever it likes, unless it gives that up.
  const Words powerless = geteuid() == 0 ? Words{"setpriv", "--bounding-set=-all"} : Words{};
  EXPECT_EQ(run_command(joined({powerless, {KELVO_COMMAND, "channels", "--db", db_}})),
            fails(db_ + ": permission denied"));
}

TEST_F(Channels, hidden_ones_are_marked) {
  run_sql(db_,
          "CREATE TABLE service_detail (channel integer primary key, visible int);"
          "INSERT INTO service_detail VALUES (1, 0), (2, 1); DELETE FROM kanalid WHERE channel > 2;");
  EXPECT_EQ(channels(),
            prints("LCN  NAME      TYPE   PROVIDER  NETWORK    FREQUENCY  CA  STATE          PIDS\n"
                   " 12  Kuldnokk  TV     Meedia    Võrk     506.000 MHz  -   found, hidden  video 257, audio "
                   "258 est eng, audio 259 est, teletext 260 est, subtitles 261 est rus\n"
                   "  -  Raadio    radio  Meedia    Võrk     506.000 MHz  -   found          audio 300\n"));
}

TEST_F(Channels, a_reader_that_has_enough_ends_the_list_without_a_word) {
  for (const std::string format : {"table", "json"})
    EXPECT_EQ(run_for_nobody({KELVO_COMMAND, "channels", "--db", db_, "--format", format}), prints("141\n"));
}

TEST_F(Channels, a_full_output_is_an_error) {
  EXPECT_EQ(run_command({"sh", "-c", KELVO_COMMAND " channels --db " + db_ + " > /dev/full"}),
            fails("cannot write the list: No space left on device"));
}

}  // namespace
