// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <nlohmann/json.hpp>

#include "support/browser.h"
#include "tools/command_fixture.h"
#include "tools/guide/page.h"

// The page of the guide in a browser without a screen. What is written into it stands in guide_test.cpp.

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using support::Browser;

constexpr int64_t HOUR = 3600;
const char* const GENRES[] = {"Movie/Drama",
                              "News/Current affairs",
                              "Show/Game show",
                              "Sports",
                              "Children's/Youth programmes",
                              "Music/Ballet/Dance",
                              "Arts/Culture",
                              "Leisure hobbies",
                              "Social/Political issues/Economics",
                              "Education/Science/Factual topics"};

ordered_json channel(int row, const std::string& name, const std::string& type = "TV") {
  return {{"channel", row},
          {"lcn", row},
          {"name", name},
          {"type", type},
          {"visible", true},
          {"service_id", 100 + row},
          {"transport_stream_id", 1},
          {"original_network_id", 2}};
}

ordered_json event(int row, int id, int64_t start, int64_t length, const std::string& est, const std::string& eng) {
  return {{"channel", row},
          {"event_id", id},
          {"start_epoch", start},
          {"duration", length},
          {"genres", {GENRES[id % std::size(GENRES)]}},
          {"ratings", {{{"country", "EST"}, {"age", 12}}}},
          {"texts",
           {{{"language", "est"},
             {"title", est},
             {"description", est + "st lühidalt."},
             {"extended", ""},
             {"items", {{{"name", "Osades"}, {"text", "Liis Kask"}}}}},
            {{"language", "eng"}, {"title", eng}, {"description", "Of " + eng + "."}, {"extended", ""}}}}};
}

struct Documents {
  ordered_json channels{{"channels", ordered_json::array()}};
  ordered_json guide{{"events", ordered_json::array()}};
  std::string page() const { return guide_page(channels, guide, Page_kind::STORED); }
};

// So many channels, the last one radio, with an event an hour: "Saade 3.12" is the one of channel 3 that begins twelve
// hours after `start`. One title is Arabic and one as long as can be.
Documents schedule(int channels, int hours, int64_t start) {
  Documents out;
  for (int row = 1; row <= channels; ++row) {
    out.channels["channels"].push_back(channel(row, "Kanal " + std::to_string(row), row == channels ? "radio" : "TV"));
    for (int i = 0; i < hours; ++i) {
      const std::string place = std::to_string(row) + "." + std::to_string(i);
      const std::string title = place == "2.3"   ? "أخبار المساء"
                                : place == "4.4" ? std::string(4000, 'W')
                                                 : "Saade " + place;
      out.guide["events"].push_back(event(row, i, start + i * HOUR, HOUR, title, "Broadcast " + place));
    }
  }
  return out;
}

const std::string READY = "return document.documentElement.dataset.ready";
const std::string FOCUSED =
    "const at = document.activeElement; "
    "return at.classList.contains('event') ? at.querySelector('.title').textContent : at.getAttribute('aria-label') ?? at.id";

class Guide_in_browser : public testing::Test {
 protected:
  void SetUp() override {
    if (!browser_.missing().empty())
      GTEST_SKIP() << "no headless browser: " << browser_.missing();
    browser_.zone("Europe/Tallinn");
    browser_.screen(1280, 800);
  }
  void show(const Documents& documents) {
    support::write_file(dir_.file("guide.html"), documents.page());
    browser_.open(dir_.file("guide.html"));
    ASSERT_EQ(browser_.wait(READY), "true");
  }
  std::string focused() { return browser_.js(FOCUSED).get<std::string>(); }
  std::string text_of(const std::string& selector) {
    return browser_.js("return document.querySelector(arguments[0])?.textContent ?? '(none)'", selector)
        .get<std::string>();
  }
  bool holds(const std::string& condition) { return browser_.wait("return " + condition) == true; }

  // The hour that runs began at this minute, so that neither its begin nor its end is near.
  const int64_t now_ = time(nullptr);
  const int64_t today_ = now_ - 30 * 60;
  support::Temp_dir dir_;
  Browser browser_;
};

TEST_F(Guide_in_browser, is_whole_at_every_size_in_light_and_dark) {
  const Documents documents = schedule(30, 24, today_ - 6 * HOUR);
  const struct {
    int width, height, pixels;  // so many pixels of the page are one of the picture, each way
  } screens[] = {{390, 844, 2}, {1280, 800, 4}, {2560, 1440, 8}};
  for (const auto& [width, height, pixels] : screens) {
    for (const std::string colours : {"light", "dark"}) {
      SCOPED_TRACE(std::to_string(width) + " " + colours);
      browser_.screen(width, height, width < 640, 1.0 / pixels);
      browser_.media({{"prefers_color_scheme", colours}});
      ASSERT_NO_FATAL_FAILURE(show(documents));
      const json seen = browser_.js(R"(
        const box = (id) => document.getElementById(id).getBoundingClientRect();
        const on = Array.from(document.querySelectorAll(".event.on"), (one) => one.getBoundingClientRect());
        const line = box("now-line");
        const outside = Array.from(document.querySelectorAll("#top button, #top input, #top select, footer, #guide"))
          .filter((one) => !one.closest("[hidden]") && one.offsetParent !== null && !one.closest(".second"))
          .map((one) => [one.id, one.getBoundingClientRect()])
          .filter(([, one]) => one.left < 0 || one.right > innerWidth || one.top < 0 || one.bottom > innerHeight + 1);
        return {
          line: line.left, from: box("guide").left + box("corner").width, to: box("guide").right,
          // Half an hour of each event has gone.
          parts: on.map((one) => Math.round(((line.left + line.width / 2 - one.left) / one.width) * 20)),
          overflow: document.documentElement.scrollWidth - innerWidth + document.documentElement.scrollHeight - innerHeight,
          outside: outside.map(([id]) => id),
          cells: document.querySelectorAll(".event").length,
          rows: document.querySelectorAll(".row").length,
          chip: document.getElementById("now-chip").textContent,
        };)");
      EXPECT_GT(seen["line"], seen["from"]);
      EXPECT_LT(seen["line"], seen["to"]);
      EXPECT_GT(seen["parts"].size(), 5U);
      for (const json& part : seen["parts"])
        EXPECT_EQ(part, 10) << "the line stands in the middle of the event that is half over";
      EXPECT_LE(seen["overflow"], 0);
      EXPECT_EQ(seen["outside"], json::array());
      EXPECT_LT(seen["cells"], 30 * 24) << "only what is in view";
      EXPECT_EQ(browser_.complaints(), json::array());

      browser_.screenshot(dir_.file("page.png"));
      const std::map<std::string, size_t> found = support::colours_of(dir_.file("page.png"));
      size_t all = 0;
      for (const auto& [colour, count] : found)
        all += count;
      EXPECT_NEAR(static_cast<double>(all), width * height / (pixels * pixels), width);
      const std::string back = colours == "light" ? "f3f3f0" : "111316",
                        cell = colours == "light" ? "ffffff" : "1c1f24";
      EXPECT_GT(found.at(back), all / 8);
      EXPECT_GT(found.at(cell), all / 8);
      EXPECT_GT(found.size(), 100U) << "letters have shades, genres have colours";
    }
  }
}

TEST_F(Guide_in_browser, works_by_the_keys_alone) {
  ASSERT_NO_FATAL_FAILURE(show(schedule(30, 48, today_ - 6 * HOUR)));
  // From the top of the page: the way in is a handful of tabs, and one leads to what is on now.
  for (int i = 0; i < 40 && focused().find("Saade") != 0; ++i)
    browser_.keys({"Tab"});
  EXPECT_EQ(focused(), "Saade 1.6");
  const struct {
    const char* key;
    const char* there;
  } steps[] = {{"ArrowRight", "Saade 1.7"},  {"ArrowDown", "Saade 2.7"}, {"ArrowDown", "Saade 3.7"},
               {"ArrowLeft", "Saade 3.6"},   {"ArrowUp", "Saade 2.6"},   {"Control+End", "Saade 30.6"},
               {"Control+Home", "Saade 1.6"}};
  for (const auto& [key, there] : steps) {
    browser_.keys({key});
    EXPECT_EQ(focused(), there) << key;
  }
  EXPECT_EQ(browser_.js("return document.querySelectorAll('#guide [tabindex=\"0\"]').length"), 1) << "one stop for Tab";
  for (int i = 0; i < 20; ++i)
    browser_.keys({"ArrowRight"});
  EXPECT_EQ(focused(), "Saade 1.26") << "far out of what was made at first";
  EXPECT_TRUE(
      holds("(() => { const one = document.activeElement.getBoundingClientRect(); const all = "
            "document.getElementById('guide').getBoundingClientRect(); "
            "return one.left >= all.left && one.right <= all.right; })()"));

  browser_.keys({"Enter"});
  EXPECT_TRUE(holds("document.getElementById('details').open"));
  EXPECT_EQ(text_of("#d-title"), "Saade 1.26");
  EXPECT_EQ(text_of("#d-items"), "OsadesLiis Kask");
  EXPECT_EQ(text_of("#d-chips"), "Arts/CultureFrom 12 years (EST)");
  browser_.keys({"ArrowRight"});
  EXPECT_EQ(text_of("#d-title"), "Saade 1.27");
  browser_.keys({"Escape"});
  EXPECT_TRUE(holds("!document.getElementById('details').open"));
  EXPECT_EQ(focused(), "Saade 1.26") << "back where it was opened";

  browser_.keys({"n", "/", "saade 7.3"});
  EXPECT_TRUE(
      holds("document.querySelectorAll('.hit').length > 0 && document.getElementById('results-head').textContent "
            "!== ''"));
  EXPECT_EQ(browser_.wait("return document.querySelectorAll('.hit').length === 30 && 30"), 30)
      << "7.30 to 7.39 of 7, 17 and 27, and no 7.3, which is over: " << text_of("#results-head");
  browser_.keys({"ArrowDown", "ArrowDown", "Enter"});
  EXPECT_TRUE(holds("document.getElementById('details').open"));
  EXPECT_EQ(text_of("#d-title"), "Saade 17.30");
  browser_.keys({"Escape", "Escape"});
  EXPECT_TRUE(holds("document.getElementById('results').hidden"));
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, favourites_languages_days_and_paper) {
  ASSERT_NO_FATAL_FAILURE(show(schedule(6, 48, today_ - 6 * HOUR)));
  const std::string names =
      "return Array.from(document.querySelectorAll('.channel bdi'), (one) => one.textContent).join()";
  browser_.click("[data-index='2'] .star");
  browser_.click("#kinds [data-kind=favourites]");
  EXPECT_EQ(browser_.js(names), "Kanal 3");
  browser_.click("#kinds [data-kind=radio]");
  EXPECT_EQ(browser_.js(names), "Kanal 6");
  ASSERT_NO_FATAL_FAILURE(show(schedule(6, 48, today_ - 6 * HOUR)));
  browser_.click("#kinds [data-kind=favourites]");
  EXPECT_EQ(browser_.js(names), "Kanal 3") << "remembered";

  EXPECT_EQ(text_of("#language"), "As broadcastEestiEnglish");
  (void)browser_.js(
      "const s = document.getElementById('language'); s.value = 'en'; s.dispatchEvent(new Event('change'))");
  EXPECT_EQ(text_of(".event.on .title"), "Broadcast 3.6");
  EXPECT_EQ(browser_.js("return document.querySelector('.event.on .title').lang"), "en");
  browser_.click("#kinds [data-kind=all]");

  browser_.keys({"]"});
  EXPECT_TRUE(
      holds("document.querySelectorAll('#days button')[1].getAttribute('aria-pressed') === 'true' || "
            "document.querySelectorAll('#days button')[2].getAttribute('aria-pressed') === 'true'"));
  browser_.click("#legend button");
  EXPECT_TRUE(holds("document.querySelectorAll('.dim .event.chosen').length > 0"));
  browser_.click("#theme");
  EXPECT_EQ(browser_.js("return getComputedStyle(document.documentElement).colorScheme"), "light");
  browser_.click("#theme");
  EXPECT_EQ(browser_.js("return getComputedStyle(document.documentElement).colorScheme"), "dark");

  browser_.media({{"media", "print"}});
  (void)browser_.js("dispatchEvent(new Event('beforeprint'))");
  const json paper = browser_.js(R"(return {
      heads: document.querySelectorAll("#paper h2").length,
      lines: document.querySelectorAll("#paper .line").length,
      app: document.getElementById("app").offsetHeight,
      background: getComputedStyle(document.body).backgroundColor,
      wide: document.documentElement.scrollWidth > innerWidth,
      text: document.querySelector("#paper .line p").textContent})");
  EXPECT_EQ(paper["heads"], 6);
  EXPECT_GE(paper["lines"], 6);
  EXPECT_EQ(paper["app"], 0);
  EXPECT_EQ(paper["background"], "rgb(255, 255, 255)");
  EXPECT_EQ(paper["wide"], false);
  EXPECT_THAT(paper["text"].get<std::string>(), testing::StartsWith("Of Broadcast 1."));
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, runs_nothing_that_came_off_the_air) {
  const std::string hostile[] = {"</script><script>window.ran = 1</script>",
                                 "<img src=x onerror=\"window.ran = 2\">",
                                 "\"><svg onload=window.ran=3>",
                                 "<!-- <script>",
                                 "]]> &lt;b&gt; &#60;i&#62; ${window.ran = 4} `${window.ran = 5}`",
                                 "javascript:window.ran=6",
                                 "\u2028\u2029window.ran = 7//",
                                 "__proto__",
                                 "@SCRIPT@@DATA@"};
  Documents documents;
  int row = 0;
  for (const std::string& text : hostile) {
    ordered_json one = channel(++row, text, text);
    one["names"] = {{text, text}, {"__proto__", text}};
    documents.channels["channels"].push_back(one);
    ordered_json on = event(row, row, today_, HOUR, text, text);
    on["genres"] = {text};
    on["ratings"] = {{{"country", text}, {"age", text}}};
    on["contents"] = {{{"name", text}, {"detail", text}}};
    on["episode"] = {{"text", text}};
    on["components"] = {{{"kind", text}, {"language", text}, {"text", text}}, {{"kind", "audio"}, {"language", text}}};
    on["texts"][0]["language"] = text;
    on["texts"][0]["items"] = {{{"name", text}, {"text", text}}};
    documents.guide["events"].push_back(on);
  }
  // Wrong types and times that no guide has.
  for (const json& wrong : {json("x"), json(-5), json(1e300), json::array({1}), json::object(), json(true)}) {
    ordered_json on = event(1, 77, today_ + 2 * HOUR, HOUR, "a", "b");
    for (const char* key : {"start_epoch", "duration", "genres", "ratings", "texts", "event_id", "channel", "contents",
                            "components", "episode", "running_status", "scrambled"}) {
      ordered_json spoilt = on;
      spoilt[key] = wrong;
      documents.guide["events"].push_back(spoilt);
    }
  }
  ASSERT_NO_FATAL_FAILURE(show(documents));
  for (int i = 0; i < row; ++i) {
    SCOPED_TRACE(hostile[i]);
    const std::string in_row = "[data-index='" + std::to_string(i) + "'] ";
    EXPECT_EQ(text_of(in_row + ".channel bdi"), hostile[i]);
    EXPECT_EQ(text_of(in_row + ".event.on .title"), hostile[i]);
    (void)browser_.js("document.querySelector(arguments[0]).click()", in_row + ".event.on");
    EXPECT_EQ(text_of("#d-title"), hostile[i]);
    EXPECT_EQ(text_of("#d-items dd"), hostile[i]);
    EXPECT_EQ(text_of("#d-facts dd"), hostile[i]);
    (void)browser_.js("document.getElementById('details').close()");
  }
  browser_.click("#query");
  browser_.keys({"window.ran"});
  EXPECT_TRUE(holds("document.querySelectorAll('.hit').length === 6"));
  browser_.keys({"Escape"});
  (void)browser_.js("dispatchEvent(new Event('beforeprint'))");
  EXPECT_EQ(browser_.js("return window.ran ?? null"), nullptr);
  EXPECT_EQ(
      browser_.js("return document.querySelectorAll('img, iframe, object, svg [onload], a[href^=javascript]').length"),
      0);
  EXPECT_EQ(browser_.js("return performance.getEntriesByType('resource').length"), 0) << "asks for nothing";
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, details_say_what_the_command_says) {
  const std::string db = dir_.file("dvb.db");
  make_prepared_db(db);
  add_event_tables(dir_.file("dvb_epg.db"));
  add_rich_events(dir_.file("dvb_epg.db"));
  const auto told = [&](const Words& command) {
    return run_command(joined({{KELVO_COMMAND}, command, {"--db", db}}), {{"TZ", "Europe/Tallinn"}}).out;
  };
  Documents documents;
  documents.channels = ordered_json::parse(told({"channels", "--all", "--format", "json"}));
  documents.guide = ordered_json::parse(told({"epg", "--format", "json"}));
  ASSERT_NO_FATAL_FAILURE(show(documents));
  const std::string names[][2] = {{"\\best\\b|\\bEST\\b", "Eesti"}, {"\\brus\\b", "Русский"}};
  for (const std::string title : {"Üle keskööfilm", "=1+1"}) {
    SCOPED_TRACE(title);
    std::string in_full = told({"epg", "--search", title, "--show"});
    in_full = in_full.substr(0, in_full.find("\n\n\n"));
    std::string facts;
    for (const std::string& line : support::lines_of(in_full)) {
      if (std::regex_search(line, std::regex("^  (Episode|Picture|Sound|Subtitles|Broadcast): ")))
        facts += line.substr(2) + "\n";
    }
    for (const auto& [code, name] : names)
      facts = std::regex_replace(facts, std::regex(code), name);
    EXPECT_GT(support::count_of(facts, "\n"), 1U) << in_full;
    (void)browser_.js(
        "Array.from(document.querySelectorAll('.event')).find((one) => one.getAttribute('aria-label')"
        ".startsWith(arguments[0])).click()",
        title);
    EXPECT_EQ(text_of("#d-title"), title);
    EXPECT_EQ(browser_.js(
                  "return Array.from(document.querySelectorAll('#d-facts div'), (one) => "
                  "one.querySelector('dt').textContent + ': ' + one.querySelector('dd').textContent + '\\n').join('')"),
              facts);
    const std::string genres = browser_.js(
        "return Array.from(document.querySelectorAll('#d-chips span'), (one) => one.textContent).join(', ')");
    EXPECT_THAT(in_full, testing::HasSubstr("\n  " + genres));
    EXPECT_EQ(genres.empty(), title == "=1+1");
    (void)browser_.js("document.getElementById('details').close()");
  }
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, days_on_which_clocks_change_are_right) {
  const struct {
    const char* legend;
    int64_t midnight;
    std::string zone, hours;
  } days[] = {{"23 hours", 2058386400, "Times in your zone: Europe/Tallinn, UTC+2, from Sun 25 Mar UTC+3",
               "Sun 25 Mar|01:00|02:00|04:00 UTC+3|05:00"},
              {"25 hours", 2077131600, "Times in your zone: Europe/Tallinn, UTC+3, from Sun 28 Oct UTC+2",
               "Sun 28 Oct|01:00|02:00|03:00|03:00 UTC+2|04:00"}};
  for (const auto& [legend, midnight, zone, hours] : days) {
    SCOPED_TRACE(legend);
    ASSERT_NO_FATAL_FAILURE(show(schedule(2, 30, midnight)));
    EXPECT_EQ(text_of("#zone"), zone);
    EXPECT_THAT(browser_
                    .js("return Array.from(document.querySelectorAll('.tick:not(.half)'), (one) => "
                        "one.textContent).join('|')")
                    .get<std::string>(),
                testing::StartsWith(hours));
    // The fifth hour of broadcasting begins where its time stands.
    EXPECT_THAT(text_of("[data-index='0'] .event[aria-colindex='6'] .under"),
                testing::HasSubstr(std::string(legend) == "23 hours" ? "05:00 – 06:00" : "03:00 – 04:00"));
  }
}

TEST_F(Guide_in_browser, of_events_that_overlap_the_one_that_began_last_is_shown) {
  constexpr int64_t MINUTE = 60;
  const struct {
    const char* legend;
    std::vector<std::array<int64_t, 2>> events;  // begin and length, minutes from now
    std::string shown;                           // in their order, the one that is on in brackets
  } cases[] = {
      {"a block and what it holds, which is over", {{-120, 240}, {-60, 30}}, "0 1 [0]"},
      {"which is on", {{-120, 240}, {-60, 90}}, "0 [1] 0"},
      {"two that follow one another in it", {{-120, 240}, {-60, 30}, {-30, 60}}, "0 1 [2] 0"},
      {"one in one in one", {{-120, 240}, {-60, 120}, {-10, 20}}, "0 1 [2] 1 0"},
      {"the next begins too early", {{-50, 60}, {-10, 60}}, "0 [1]"},
      {"both begin at once", {{-10, 60}, {-10, 30}}, "[0]"},
      {"one without a length yields", {{-60, 120}, {-5, 0}}, "[0]"},
      {"and stands where nothing else is", {{-60, 30}, {-20, 0}}, "0 1"},
      {"the same twice", {{-60, 120}, {-60, 120}}, "[1]"},
      {"a gap is a gap", {{-60, 30}, {30, 60}}, "0 1"},
  };
  browser_.zone(support::zone_of_noon(now_));
  Documents documents;
  int row = 0;
  for (const auto& one : cases) {
    documents.channels["channels"].push_back(channel(++row, one.legend));
    for (size_t i = 0; i < one.events.size(); ++i)
      documents.guide["events"].push_back(event(row, static_cast<int>(i), now_ + one.events[i][0] * MINUTE,
                                                one.events[i][1] * MINUTE, std::to_string(i), "eng"));
  }
  ASSERT_NO_FATAL_FAILURE(show(documents));
  for (int i = 0; i < row; ++i) {
    SCOPED_TRACE(cases[i].legend);
    const std::string in_row = "[data-index='" + std::to_string(i) + "'] ";
    EXPECT_EQ(browser_.js(R"(return Array.from(document.querySelectorAll(arguments[0] + ".event"))
      .sort((a, b) => a.ariaColIndex - b.ariaColIndex)
      .map((one) => { const title = one.getAttribute("aria-label").split(",")[0];
                      return one.classList.contains("on") ? "[" + title + "]" : title; }).join(" "))",
                          in_row),
              cases[i].shown);
    // One behind the other, as they stand.
    EXPECT_EQ(browser_.js(R"(return Array.from(document.querySelectorAll(arguments[0] + ".event"))
      .sort((a, b) => a.ariaColIndex - b.ariaColIndex).map((one) => one.getBoundingClientRect())
      .every((one, i, all) => i === 0 || all[i - 1].right <= one.left))",
                          in_row),
              true);
  }
  // The rest of a block is the block: its times, and one line on paper.
  (void)browser_.js("document.querySelector('[data-index=\"0\"] .event.on').click()");
  EXPECT_EQ(text_of("#d-title"), "0");
  EXPECT_THAT(text_of("#d-when"), testing::HasSubstr("4 h"));
  EXPECT_EQ(browser_.js("const own = document.querySelector('#d-channel bdi').textContent; return "
                        "document.getElementById('d-again').textContent.includes(own)"),
            false)
      << "it is no repeat of itself";
  browser_.keys({"ArrowLeft"});
  EXPECT_EQ(text_of("#d-title"), "1");
  browser_.keys({"ArrowLeft"});
  EXPECT_EQ(text_of("#d-title"), "0");
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, works_where_nothing_may_be_remembered) {
  (void)browser_.ask({{"do", "forbid_storage"}});
  ASSERT_NO_FATAL_FAILURE(show(schedule(3, 12, today_)));
  browser_.click("[data-index='1'] .star");
  browser_.click("#kinds [data-kind=favourites]");
  EXPECT_EQ(text_of(".channel bdi"), "Kanal 2");
  browser_.click("#theme");
  EXPECT_EQ(browser_.complaints(), json::array());
}

TEST_F(Guide_in_browser, has_no_serious_findings_of_accessibility) {
  const std::string axe = KELVO_AXE;
  if (access(axe.c_str(), R_OK) != 0)
    GTEST_SKIP() << "axe-core is not here; 'make guide-check' fetches it";
  for (const std::string colours : {"light", "dark"}) {
    SCOPED_TRACE(colours);
    browser_.media({{"prefers_color_scheme", colours}});
    ASSERT_NO_FATAL_FAILURE(show(schedule(12, 24, today_ - 6 * HOUR)));
    EXPECT_EQ(browser_.serious_findings(axe), json::array()) << "the grid";
    (void)browser_.js("document.querySelector('.event.on').click()");
    EXPECT_EQ(browser_.serious_findings(axe), json::array()) << "the details";
    browser_.keys({"Escape", "/", "saade"});
    EXPECT_TRUE(holds("document.querySelectorAll('.hit').length > 0"));
    EXPECT_EQ(browser_.serious_findings(axe), json::array()) << "the results";
  }
}

// Ten thousand events: nothing takes so long that a finger would feel it. Only `make guide-check`, on a machine that
// has nothing else to do; the best of some runs counts.
TEST_F(Guide_in_browser, ten_thousand_events_are_smooth) {
  if (getenv("KELVO_GUIDE_LONG") == nullptr)
    GTEST_SKIP() << "'make guide-check' measures it";
  const Documents documents = schedule(60, 168, today_ - 6 * HOUR);
  ASSERT_EQ(documents.guide["events"].size(), 10080U);
  const std::string longest = "const all = longTasks.splice(0); return Math.max(0, ...all)";
  std::map<std::string, int> best;
  const auto note = [&](const std::string& what) {
    const int ms = browser_.js(longest).get<int>();
    best[what] = best.contains(what) ? std::min(best[what], ms) : ms;
  };
  for (int i = 0; i < 5; ++i) {
    ASSERT_NO_FATAL_FAILURE(show(documents));
    usleep(300000);
    note("load");
    (void)browser_.js(R"(const guide = document.getElementById("guide");
      return (async () => {
        for (let i = 0; i < 60; ++i) {
          guide.scrollLeft += 90;
          guide.scrollTop += i % 20 < 10 ? 40 : -40;
          await new Promise((go) => requestAnimationFrame(() => setTimeout(go)));
        }
      })())");
    note("scroll");
    browser_.click("#query");
    browser_.keys({"saade 7"});
    EXPECT_TRUE(holds("document.querySelectorAll('.hit').length > 0"));
    usleep(300000);
    note("search");
  }
  for (const auto& [what, ms] : best) {
    std::cout << what << ": longest task " << ms << " ms\n";
    EXPECT_LT(ms, 50) << what;
  }
}

}  // namespace
