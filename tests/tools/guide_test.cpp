// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"
#include "tools/guide/page.h"

// `kelvo guide` and the page as it is written. What it is like in a browser stands in guide_page_test.cpp.

namespace {

using nlohmann::ordered_json;
using support::count_of;
using testing::HasSubstr;
using testing::Not;

const ordered_json CHANNELS = ordered_json::parse(R"({"channels": [{"channel": 1, "lcn": 12, "name": "<b>&\"",
    "provider": "", "type": "TV", "visible": true, "service_id": 1001}]})");
const ordered_json GUIDE = ordered_json::parse(R"({"events": [{"channel": 1, "event_id": 2, "start_epoch": 2058388200,
    "duration": 60, "genres": [], "series_crid": null,
    "texts": [{"language": "est", "title": "</script><script>alert(1)</script><!--", "description": "", "items": []}]}]})");

std::string between(const std::string& text, const std::string& begin, const std::string& end) {
  const size_t at = text.find(begin) + begin.size();
  return text.substr(at, text.find(end, at) - at);
}

// By another program than the one that built the page.
std::string hash_of(const support::Temp_dir& dir, const std::string& text) {
  support::write_file(dir.file("text"), text);
  const Command_result sum = run_command(
      {"sh", "-c",
       "sha256sum \"$1\" | cut -c-64 | python3 -c 'import sys, base64; print(base64.b64encode(bytes.fromhex(sys.stdin.read())).decode())'",
       "sh", dir.file("text")});
  return "'sha256-" + sum.out.substr(0, sum.out.find('\n')) + "'";
}

TEST(Guide_page, has_its_data_where_nothing_in_it_is_markup) {
  const std::string page = guide_page(CHANNELS, GUIDE, Page_kind::STORED);
  EXPECT_EQ(count_of(page, "<script"), 4U) << "channels, texts, events and the page's own";
  EXPECT_EQ(count_of(page, "</script>"), 4U);
  EXPECT_EQ(between(page, "data-what=\"channels\">", "</script>"),
            R"([{"channel":1,"lcn":12,"name":"\u003cb>&\"","type":"TV","visible":true,"service_id":1001}])");
  EXPECT_EQ(between(page, "data-what=\"events\">", "</script>"),
            R"([{"channel":1,"event_id":2,"start_epoch":2058388200,"duration":60,"texts":[0]}])");
  EXPECT_EQ(between(page, "data-what=\"texts\">", "</script>"),
            R"([{"language":"est","title":"\u003c/script>\u003cscript>alert(1)\u003c/script>\u003c!--"}])");
}

TEST(Guide_page, has_what_many_events_say_once) {
  ordered_json guide = GUIDE;
  guide["events"][0].update(ordered_json::parse(R"json({"running_status": 4, "scrambled": true, "genres": ["Sports"],
    "contents": [{"level1": 4, "name": "Sports", "detail": "Athletics"}, {"level1": 4, "name": "Sports", "detail": null}],
    "ratings": [{"country": "EST", "age": 12}], "episode": {"text": "(3/6)", "season": null, "number": 3, "of": 6},
    "components": [{"kind": "audio", "language": "est", "text": null, "component_tag": 7, "component_type": 3}]})json"));
  for (int i = 1; i < 400; ++i) {
    guide["events"].push_back(guide["events"][0]);
    guide["events"][static_cast<size_t>(i)]["event_id"] = i;
  }
  guide["events"][399]["texts"][0]["title"] = "Last";
  guide["events"][399]["components"] = ordered_json::array();
  guide["events"][399]["running_status"] = 0;
  guide["events"][399]["scrambled"] = false;
  const std::string page = guide_page(CHANNELS, guide, Page_kind::STORED);
  EXPECT_EQ(between(page, "data-what=\"lists\">", "</script>"),
            R"([["Sports"],[{"name":"Sports","detail":"Athletics"}],[{"country":"EST","age":12}],)"
            R"([{"kind":"audio","language":"est"}]])");
  EXPECT_EQ(count_of(page, "data-what=\"lists\""), 1U);
  EXPECT_EQ(count_of(page, "data-what=\"texts\""), 2U) << "what only the second block names stands before that";
  EXPECT_THAT(page,
              HasSubstr(R"({"channel":1,"event_id":398,"start_epoch":2058388200,"duration":60,)"
                        R"json("episode":{"text":"(3/6)","number":3,"of":6},"running_status":4,"scrambled":true,)json"
                        R"("genres":0,"contents":1,"ratings":2,"components":3,"texts":[0]})"));
  EXPECT_THAT(page, HasSubstr(R"("of":6},"genres":0,"contents":1,"ratings":2,"texts":[1]}])"));
}

TEST(Guide_page, survives_what_is_no_utf8) {
  ordered_json guide = GUIDE;
  guide["events"][0]["texts"][0]["title"] = "a\xFF\xC0z";
  EXPECT_THAT(guide_page(CHANNELS, guide, Page_kind::STORED), HasSubstr("\"title\":\"a\uFFFD\uFFFDz\""));
}

TEST(Guide_page, is_cut_into_blocks) {
  ordered_json guide = GUIDE;
  for (int i = 1; i < 600; ++i)
    guide["events"].push_back(guide["events"][0]);
  EXPECT_EQ(count_of(guide_page(CHANNELS, guide, Page_kind::STORED), "data-what=\"events\""), 3U);
}

TEST(Guide_page, names_no_other_place) {
  const std::string page = guide_page(CHANNELS, GUIDE, Page_kind::STORED);
  EXPECT_EQ(count_of(page, "://"), count_of(page, "http://www.w3.org/2000/svg")) << "the name of SVG is never fetched";
  for (const char* never : {"@import", "url(", "innerHTML", "outerHTML", "insertAdjacent", "document.write", "eval("})
    EXPECT_EQ(count_of(page, never), 0U) << never;
}

TEST(Guide_page, allows_its_own_script_and_style_and_nothing_else) {
  const support::Temp_dir dir;
  const std::string page = guide_page(CHANNELS, GUIDE, Page_kind::STORED);
  const std::string script = hash_of(dir, between(page, "<script>", "</script>"));
  const std::string style = hash_of(dir, between(page, "<style>", "</style>"));
  const std::string allowed = "default-src 'none'; script-src " + script + "; style-src " + style + ";";
  const std::string rest = " base-uri 'none'; form-action 'none'";
  EXPECT_EQ(between(page, "Content-Security-Policy\" content=\"", "\""), allowed + rest);
  const std::string live = guide_page({}, {}, Page_kind::LIVE);
  EXPECT_EQ(between(live, "Content-Security-Policy\" content=\"", "\""), allowed + " connect-src 'self';" + rest);
  EXPECT_EQ(count_of(live, "data-what="), 0U);
  EXPECT_THAT(live, HasSubstr("<html lang=\"en\" data-kind=\"live\">"));
}

TEST(Guide_page, hashes_are_written_as_policies_have_them) {
  const Embedded_text nothing{"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"};
  EXPECT_EQ(policy_hash(nothing), "'sha256-47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU='");
}

class Guide_command : public Command_fixture {
 protected:
  void SetUp() override {
    make_prepared_db(db_);
    // On now, tomorrow and in ten days.
    for (const int hours : {0, 24, 240})
      run_sql(guide_, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) VALUES (1, " +
                          std::to_string(hours) + ", " + std::to_string(now_ + hours * 3600 - 60) + ", 3600, '', '');");
    run_sql(guide_,
            "INSERT INTO epglist_lang (source_oid, lang, ev_name) SELECT entry, 'est', 'Film ' || ev_id FROM "
            "epglist UNION ALL SELECT entry, 'eng', 'Movie ' || ev_id FROM epglist;");
  }
  Command_result guide(const Words& arguments) const {
    return run_command(joined({{KELVO_COMMAND, "guide", "--db", db_}, arguments}), {{"TZ", "UTC"}});
  }
  std::string written(const Words& more = {}) const {
    EXPECT_EQ(guide(joined({{out_}, more})), prints(""));
    return support::read_file(out_);
  }

  const int64_t now_ = time(nullptr);
  const std::string out_ = dir_.file("guide.html");
};

TEST_F(Guide_command, writes_a_week_from_today_on) {
  const std::string page = written();
  EXPECT_THAT(page, AllOf(HasSubstr("Film 0\""), HasSubstr("Film 24\""), Not(HasSubstr("Film 240\""))));
  EXPECT_THAT(page, AllOf(HasSubstr("\"name\":\"Kuldnokk\""), HasSubstr("\"names\":{\"eng\":\"Starling\"}")));
  EXPECT_EQ(count_of(written({"--days", "1"}), "Film 24\""), 0U);
  EXPECT_EQ(count_of(written({"--days", "12"}), "Film 240\""), 1U);
}

TEST_F(Guide_command, puts_wanted_languages_first) {
  EXPECT_THAT(written(), HasSubstr(R"(data-what="texts">[{"language":"est")"));
  EXPECT_THAT(written({"--lang", "ENG"}), HasSubstr(R"(data-what="texts">[{"language":"eng")"));
}

TEST_F(Guide_command, writes_to_standard_output) {
  const std::string page = written();
  EXPECT_EQ(guide({"-"}), prints(page));
}

TEST_F(Guide_command, without_a_guide_there_are_channels) {
  ASSERT_EQ(std::remove(guide_.c_str()), 0);
  EXPECT_EQ(guide({out_}), prints("", "No guide in " + guide_ + " yet; 'kelvo epg update' collects it.\n"));
  EXPECT_THAT(support::read_file(out_), HasSubstr("Kuldnokk"));
}

TEST_F(Guide_command, an_old_guide_is_said_to_be_old) {
  run_sql(guide_,
          "UPDATE epglist SET start_epoch = start_epoch - 1000000 WHERE ev_id < 240; DELETE FROM epglist WHERE "
          "ev_id = 240;");
  EXPECT_EQ(guide({out_}), prints("", "No such events in the guide; 'kelvo epg update' collects newer ones.\n"));
}

TEST_F(Guide_command, a_failure_is_one_line_and_leaves_what_was_there) {
  support::write_file(out_, "old");
  const std::string help = " (see 'kelvo guide --help')";
  const std::string folder = dir_.path();
  const std::string missing = dir_.file("none/guide.html");
  EXPECT_EQ(guide({out_, "--days", "0"}), fails("--days: Value 0 not in range 1 to 60" + help, 2));
  EXPECT_EQ(guide({}), fails("OUT is required" + help, 2));
  EXPECT_EQ(guide({out_, "--lang", ","}),
            fails("--lang ,: not a list of languages; give codes of three letters, such as est,eng", 2));
  EXPECT_EQ(guide({folder}), fails(folder + ": cannot be written: Is a directory"));
  EXPECT_EQ(guide({missing}), fails(missing + ": cannot be written: No such file or directory"));
  EXPECT_EQ(guide({"/dev/full"}), fails("/dev/full: cannot be written: disk full"));
  support::write_file(db_, std::string(5000, 'x'));
  EXPECT_EQ(guide({out_}), fails(db_ + NO_DATABASE));
  EXPECT_EQ(support::read_file(out_), "old");
}

}  // namespace
