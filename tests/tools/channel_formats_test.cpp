// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/channels/channel_url.h"
#include "tools/channels/list_format.h"
#include "tools/command_fixture.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Channel_formats : public Command_fixture {
 protected:
  Channel_formats() {
    make_prepared_db(db_);
    // DVB-T of 7 MHz; a pipe of DVB-T2 in 1.7 MHz.
    run_sql(db_, R"(
        UPDATE kanalid SET hf_conn = 0, dvb_type = 0;
        CREATE TABLE tuned_multiplex (freq int, hf_conn int, dvb_type int, asked_freq int, system int, pipe int,
                                      bandwidth_hz int, modulation int, offset_hz int, lock_ms int);
        INSERT INTO tuned_multiplex VALUES (506000000, 0, 0, 506000000, 3, -1, 7000000, 3, 166000, 80),
                                           (650166666, 0, 0, 650166664, 16, 2, 1712000, 5, 0, 80);)");
  }

  Command_result channels(const Words& arguments) const {
    return run_command(joined({{KELVO_COMMAND, "channels", "--db", db_}, arguments}));
  }
  std::string list(const std::string& format, const Words& arguments = {}) const {
    const Command_result result = channels(joined({{"--format", format}, arguments}));
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.out;
  }
};

constexpr const char* LEFT_OUT = "3 of 5 channels left out: 1 lost, 2 without streams; --all writes them, too.\n";

TEST_F(Channel_formats, vdr_has_pids_languages_types_systems_and_ids) {
  EXPECT_EQ(channels({"--format", "vdr"}),
            prints(":@12\n"
                   "Kuldnokk;Meedia:506166:B7C999D999G999M64S0T999Y999:T:0:257+101=27:258=est+eng@4;259=est@106:260;"
                   "261=est:0:1001:9:7:0\n"
                   "Raadio;Meedia:506166:B7C999D999G999M64S0T999Y999:T:0:0+111:300=@3:0:0:1002:9:7:0\n",
                   LEFT_OUT));
  EXPECT_EQ(list("vdr", {"--all"}),
            ":@3\n"
            "Žluťoučký:506166:B7C999D999G999M64S0T999Y999:T:0:400+121=2:401=ces@15:0:B00,100:1003:9:7:0\n"
            ":@12\n"
            "Kuldnokk;Meedia:506166:B7C999D999G999M64S0T999Y999:T:0:257+101=27:258=est+eng@4;259=est@106:260;"
            "261=est:0:1001:9:7:0\n"
            "a(2J b;\uFFFDA:650167:B1712C999D999G999M256P2S1T999X999Y999:T:0:0+131:0:0:0:1:9:6:0\n"
            "Raadio;Meedia:506166:B7C999D999G999M64S0T999Y999:T:0:0+111:300=@3:0:0:1002:9:7:0\n"
            "Channel #5;Meedia:650167:B1712C999D999G999M256P2S1T999X999Y999:T:0:0:0:0:0:2:9:6:0\n");
}

TEST_F(Channel_formats, vdr_tells_channels_with_the_same_ids_apart) {
  run_sql(db_,
          "UPDATE kanalid SET orig_network_id = 9, tstream_id = 7, pat_prnr = 1001 + (channel = 2) * 0, freq = "
          "freq + channel WHERE channel IN (1, 2);");
  EXPECT_THAT(support::lines_of(list("vdr")),
              ElementsAre(":@12", testing::EndsWith(":1001:9:7:0"), testing::EndsWith(":1001:9:7:1")));
}

TEST_F(Channel_formats, dvbv5_has_the_way_of_tuning) {
  const std::string automatic =
      "\tCODE_RATE_HP = AUTO\n\tCODE_RATE_LP = AUTO\n\tGUARD_INTERVAL = AUTO\n\tTRANSMISSION_MODE = AUTO\n"
      "\tHIERARCHY = AUTO\n\tINVERSION = AUTO\n";
  EXPECT_EQ(channels({"--format", "dvbv5", "--tv", "--all", "--free"}),
            prints("[Kuldnokk]\n\tSERVICE_ID = 1001\n\tNETWORK_ID = 9\n\tTRANSPORT_ID = 7\n\tVCHANNEL = 12\n"
                   "\tVIDEO_PID = 257\n\tAUDIO_PID = 258 259\n\tDELIVERY_SYSTEM = DVBT\n\tFREQUENCY = 506166000\n"
                   "\tBANDWIDTH_HZ = 7000000\n\tMODULATION = QAM/64\n" +
                   automatic));
  EXPECT_THAT(list("dvbv5", {"--all"}),
              HasSubstr("[a(2J b]\n\tSERVICE_ID = 1\n\tNETWORK_ID = 9\n\tTRANSPORT_ID = 6\n\tVCHANNEL = 12\n"
                        "\tDELIVERY_SYSTEM = DVBT2\n\tFREQUENCY = 650166664\n\tBANDWIDTH_HZ = 1712000\n"
                        "\tMODULATION = QAM/256\n" +
                        automatic + "\tSTREAM_ID = 2\n"));
}

TEST_F(Channel_formats, what_is_not_known_is_automatic) {
  run_sql(db_, "DROP TABLE tuned_multiplex; DELETE FROM kanalid WHERE channel <> 1;");
  EXPECT_THAT(list("vdr"), HasSubstr(":506000:C999D999G999M999S0T999Y999:T:"));
  EXPECT_THAT(list("dvbv5"), HasSubstr("\tDELIVERY_SYSTEM = DVBT\n\tFREQUENCY = 506000000\n\tBANDWIDTH_HZ = AUTO\n"
                                       "\tMODULATION = QAM/AUTO\n"));
  EXPECT_EQ(list("zap"),
            "Kuldnokk:506000000:INVERSION_AUTO:BANDWIDTH_AUTO:FEC_AUTO:FEC_AUTO:QAM_AUTO:"
            "TRANSMISSION_MODE_AUTO:GUARD_INTERVAL_AUTO:HIERARCHY_AUTO:257:258:1001\n");
}

TEST_F(Channel_formats, zap_leaves_out_what_it_cannot_say) {
  EXPECT_EQ(channels({"--format", "zap", "--tv", "--all"}),
            prints("Žluťoučký:506166000:INVERSION_AUTO:BANDWIDTH_7_MHZ:FEC_AUTO:FEC_AUTO:QAM_64:TRANSMISSION_MODE_AUTO:"
                   "GUARD_INTERVAL_AUTO:HIERARCHY_AUTO:400:401:1003\n"
                   "Kuldnokk:506166000:INVERSION_AUTO:BANDWIDTH_7_MHZ:FEC_AUTO:FEC_AUTO:QAM_64:TRANSMISSION_MODE_AUTO:"
                   "GUARD_INTERVAL_AUTO:HIERARCHY_AUTO:257:258:1001\n",
                   "1 channel left out: the format cannot say DVB-T2; vdr and dvbv5 can.\n"));
}

TEST_F(Channel_formats, m3u_links_by_name_or_by_a_template) {
  EXPECT_EQ(channels({"--format", "m3u"}),
            prints("#EXTM3U\n"
                   "#EXTINF:-1 tvg-id=\"1001.7.9.dvb.guide\" tvg-chno=\"12\" group-title=\"TV\",Kuldnokk\n"
                   "dvb://Kuldnokk\n"
                   "#EXTINF:-1 tvg-id=\"1002.7.9.dvb.guide\" group-title=\"Radio\" radio=\"true\",Raadio\n"
                   "dvb://Raadio\n",
                   LEFT_OUT));
  EXPECT_EQ(channels({"--format", "m3u", "--all", "--url", "http://host/{number}?n={name}"}),
            prints("#EXTM3U\n"
                   "#EXTINF:-1 tvg-id=\"1003.7.9.dvb.guide\" tvg-chno=\"3\" group-title=\"TV\",Žluťoučký\n"
                   "http://host/3?n=%C5%BDlu%C5%A5ou%C4%8Dk%C3%BD\n"
                   "#EXTINF:-1 tvg-id=\"1001.7.9.dvb.guide\" tvg-chno=\"12\" group-title=\"TV\",Kuldnokk\n"
                   "http://host/12?n=Kuldnokk\n"
                   "#EXTINF:-1 tvg-id=\"1.6.9.dvb.guide\" tvg-chno=\"12\" group-title=\"TV\",a[2J b\n"
                   "http://host/12?n=a%5B2J%20b\n",
                   "2 channels without a number left out, which {number} of --url wants; {channel} is there for "
                   "all.\n"));
}

TEST(Channel_url, has_every_value_encoded) {
  Service service;
  service.channel = 7;
  service.lcn = 12;
  service.name = "A/b&c ~ü";
  service.program_number = 1001;
  service.transport_stream_id = 1;
  service.original_network_id = 2;
  service.network_id = 3;
  service.delivery.freq = 506000000;
  EXPECT_EQ(channel_url("{number}/{channel}/{service_id}.{transport_stream_id}.{original_network_id}.{network_id}/"
                        "{frequency}/{name}/{id}",
                        {&service, "other"}),
            "12/7/1001.1.2.3/506000000/A%2Fb%26c%20~%C3%BC/1001.1.2.dvb.guide");
  EXPECT_EQ(channel_url("http://host/tv", {&service, "other"}), "http://host/tv");
  service.name = "";
  EXPECT_EQ(channel_url("{name}", {&service, "Channel #7"}), "Channel%20%237");
  service.lcn = NO_LCN;
  EXPECT_EQ(channel_url("{number}", {&service, ""}), std::nullopt);
}

TEST_F(Channel_formats, wrong_options_are_named_before_any_file_is_opened) {
  db_ = dir_.file("missing.db");
  const std::string all =
      "; there are {number} {name} {id} {channel} {service_id} {transport_stream_id} {original_network_id} "
      "{network_id} {frequency}";
  const std::string no_link =
      "--url: a link has no blanks, quotes, control characters or letters beyond ASCII; write them as %XX";
  const struct {
    Words arguments;
    std::string err;
  } cases[] = {
      {{"--url", "http://host/{number}"}, "--url: only --format m3u and xspf have links"},
      {{"--format", "vdr", "--url", "x"}, "--url: only --format m3u and xspf have links"},
      {{"--format", "m3u", "--url", "http://host/{nmber}"}, "--url: no placeholder {nmber}" + all},
      {{"--format", "m3u", "--url", "{number}{"}, "--url: no placeholder {}" + all},
      {{"--format", "m3u", "--url", "a\nb"}, no_link},
      {{"--format", "xspf", "--url", "http://höst/"}, no_link},
      {{"-o", "list"}, "--output: a table is for the terminal; choose another --format for a file"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(channels(c.arguments), fails(c.err, 2));
}

TEST_F(Channel_formats, xspf_is_valid) {
  const std::string file = dir_.file("list.xspf");
  for (const Words& more : {Words{}, Words{"--all", "--url", "http://host/{channel}?{name}&x=1"}}) {
    EXPECT_EQ(channels(joined({{"--format", "xspf", "-o", file}, more})).exit_code, 0);
    EXPECT_EQ(run_command({"xmllint", "--noout", "--relaxng", KELVO_TEST_DATA "/xspf.rng", file}),
              prints("", file + " validates\n"));
  }
  EXPECT_THAT(support::read_file(file), HasSubstr("<location>http://host/4?a%5B2J%20b&amp;x=1</location>"));
  const std::string all = list("xspf", {"--all"});
  EXPECT_THAT(all, HasSubstr("    <track>\n"
                             "      <location>dvb-t2://frequency=650166664</location>\n"
                             "      <identifier>urn:x-dvb:1.6.9.dvb.guide</identifier>\n"
                             "      <title>a[2J b</title>\n"
                             "      <trackNum>12</trackNum>\n"
                             "      <extension application=\"http://www.videolan.org/vlc/playlist/0\">\n"
                             "        <vlc:option>dvb-bandwidth=2</vlc:option>\n"
                             "        <vlc:option>dvb-plp-id=2</vlc:option>\n"
                             "        <vlc:option>program=1</vlc:option>\n"
                             "      </extension>\n"
                             "    </track>\n"));
}

// A spreadsheet would run it.
TEST_F(Channel_formats, csv_has_all_and_no_formula) {
  run_sql(db_,
          "UPDATE kanalid SET serv_name = '=1+1' WHERE channel = 1; UPDATE kanalid SET serv_name = '-x', prov_name "
          "= '@a\"b, c' WHERE channel = 2; UPDATE kanalid SET serv_name = '+' WHERE channel = 4;");
  const std::string text = list("csv");
  EXPECT_THAT(text, testing::StartsWith("number,name,type,provider,network,system,"));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6);
  EXPECT_THAT(
      text, HasSubstr("\r\n,'-x,radio,\"'@a\"\"b, c\",Võrk,DVB-T,506166000,7000000,QAM-64,,1002,7,9,8,110,111,no,,yes,"
                      "found,audio 300,1002.7.9.dvb.guide,2\r\n"));
  const std::string file = dir_.file("list.csv");
  support::write_file(file, text);
  EXPECT_EQ(
      run_command({"python3", "-c",
                   "import csv, sys\n"
                   "for row in csv.DictReader(open(sys.argv[1], newline='', encoding='utf-8'), strict=True):\n"
                   "    print(row['channel'], row['name'], row['bandwidth'], row['plp'], row['state'], sep='|')\n",
                   file}),
      prints("3|Žluťoučký|7000000||lost\n1|'=1+1|7000000||found\n4|'+|1712000|2|timed out\n"
             "2|'-x|7000000||found\n5||1712000|2|no streams\n"));
}

// As it stands in the package, and with no key that it does not name.
TEST_F(Channel_formats, json_is_what_its_schema_says) {
  if (run_command({"python3", "-c", "import jsonschema"}).exit_code != 0)
    GTEST_SKIP() << "python3-jsonschema is not installed";
  const auto validate = [this](const std::string& document) {
    const std::string file = dir_.file("list.json");
    support::write_file(file, document);
    return run_command({"python3", "-c",
                        "import json, sys, jsonschema\n"
                        "schema, document = (json.load(open(name, encoding='utf-8')) for name in sys.argv[1:])\n"
                        "jsonschema.Draft202012Validator.check_schema(schema)\n"
                        "def close(part):\n"
                        "    if isinstance(part, dict):\n"
                        "        if part.get('type') == 'object':\n"
                        "            part.setdefault('additionalProperties', False)\n"
                        "        for inner in part.values():\n"
                        "            close(inner)\n"
                        "    elif isinstance(part, list):\n"
                        "        for inner in part:\n"
                        "            close(inner)\n"
                        "close(schema)\n"
                        "for error in jsonschema.Draft202012Validator(schema).iter_errors(document):\n"
                        "    print(error.json_path, error.message)\n",
                        KELVO_SCHEMAS "/channels.schema.json", file});
  };
  run_sql(db_, R"(
      CREATE TABLE stream_detail (channel int, es_pid int, es_type int, component_tag int, kind text, codec text,
                                  profile text);
      CREATE TABLE stream_language (channel int, es_pid int, lang text, role text, page int);
      CREATE TABLE stream_ca (channel int, es_pid int, ca_sysid int, ca_pid int);
      INSERT INTO stream_detail VALUES (1, 257, 27, -1, 'video', 'H.264', 'High@L4.0'), (1, 260, 6, 3, 'teletext', '', '');
      INSERT INTO stream_language VALUES (1, 260, 'est', 'index', 100), (1, 260, 'rus', '', 0);
      INSERT INTO stream_ca VALUES (3, 0, 2816, 1200), (3, 402, 4660, 1202);)");
  const std::string document = list("json");
  EXPECT_THAT(document, AllOf(HasSubstr("\"roles\""), HasSubstr("\"ca\""), HasSubstr("\"plp\": 2")));
  EXPECT_EQ(validate(document), prints(""));
  EXPECT_THAT(validate(std::regex_replace(document, std::regex("\"version\": 1"), "\"version\": 2")).out,
              testing::StartsWith("$.version "));
}

TEST_F(Channel_formats, what_is_asked_for_is_listed) {
  const auto rows = [this](const Words& arguments) {
    const auto document = list("csv", arguments);
    Words numbers;
    for (const std::string& line : support::lines_of(document))
      numbers.push_back(line.substr(line.rfind(',') + 1, 1));
    numbers.erase(numbers.begin());
    return numbers;
  };
  EXPECT_THAT(rows({}), ElementsAre("3", "1", "4", "2", "5"));
  EXPECT_THAT(rows({"--tv"}), ElementsAre("3", "1", "4"));
  EXPECT_THAT(rows({"--radio"}), ElementsAre("2"));
  EXPECT_THAT(rows({"--tv", "--radio", "--free"}), ElementsAre("1", "2"));
  // What the standard leaves to its users is told by the streams.
  run_sql(db_, "UPDATE kanalid SET serv_type = 128 WHERE channel IN (1, 2, 5);");
  EXPECT_THAT(rows({"--tv"}), ElementsAre("3", "1", "4"));
  EXPECT_THAT(rows({"--radio"}), ElementsAre("2"));
  EXPECT_THAT(support::lines_of(channels({"--radio"}).out), testing::SizeIs(2)) << "the table, too";
}

TEST_F(Channel_formats, each_reason_for_leaving_out_is_counted) {
  run_sql(db_,
          "CREATE TABLE service_detail (channel int, visible int); INSERT INTO service_detail VALUES (1, 0);"
          "UPDATE kanalid SET serv_type = 12 WHERE channel = 2;");
  EXPECT_EQ(channels({"--format", "zap"}),
            prints("",
                   "5 of 5 channels left out: 1 hidden, 1 lost, 1 neither television nor radio, 2 without streams; "
                   "--all writes them, too.\n"));
  run_sql(db_, "DELETE FROM kanalid;");
  EXPECT_EQ(channels({"--format", "zap"}), prints("", "No channels in " + db_ + " yet; 'kelvo scan' finds them.\n"));
}

TEST_F(Channel_formats, a_file_is_whole_or_as_it_was) {
  const std::string file = dir_.file("channels.conf");
  EXPECT_EQ(channels({"--format", "vdr", "-o", file}), prints("", LEFT_OUT));
  EXPECT_EQ(support::read_file(file), list("vdr"));
  const std::string folder = dir_.file("none");
  EXPECT_EQ(channels({"--format", "csv", "-o", folder + "/list"}),
            fails(folder + "/list: cannot be written: No such file or directory"));
  const std::string before = support::read_file(file);
  // Half a kilobyte, in most shells.
  EXPECT_EQ(run_command({"sh", "-c", "ulimit -f 1; exec \"$@\"", "sh", KELVO_COMMAND, "channels", "--db", db_,
                         "--format", "json", "-o", file}),
            fails(file + ": cannot be written: disk full"));
  EXPECT_EQ(support::read_file(file), before);
}

}  // namespace
