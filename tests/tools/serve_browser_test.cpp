// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The pages of a running `kelvo serve` in a browser without a screen, with an adapter made of software.
#include <fmt/format.h>
#include <kelvo/kelvo.h>
#include <kelvo/now_and_next.h>
#include <nlohmann/json.hpp>

#include "support/browser.h"
#include "tools/guide_fixture.h"
#include "tools/http_client.h"

namespace {

using nlohmann::json;
using support::Browser;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string READY = "document.documentElement.dataset.ready === 'true'";
const char* const PAGES[] = {"/", "/channels", "/scan"};

class Serve_in_browser : public Guide_fixture {
 protected:
  void SetUp() override {
    if (!browser_.missing().empty())
      GTEST_SKIP() << "no headless browser: " << browser_.missing();
    browser_.zone("Europe/Tallinn");
    browser_.screen(1280, 800);
  }
  Words serve(const Words& options, const Words& arguments = {}) const {
    return kelvo(options, joined({{"serve", "--port", "0"}, arguments}));
  }
  Words stored(const Words& arguments = {}) const {
    return joined({{KELVO_COMMAND, "serve", "--port", "0", "--db", db_, "--no-adapter"}, arguments});
  }
  // Opens a page. What is remembered of it until the next one tells whether it was loaded again.
  void open(const Serving& server, const std::string& path) {
    browser_.go("http://" + server.host() + path);
    (void)browser_.js("window.here = 1");
    if (path.starts_with("/?") || path == "/") {
      ASSERT_TRUE(holds(READY));
    }
  }
  // Whether it comes to hold, on however busy a machine.
  bool holds(const std::string& condition, const json& argument = nullptr) {
    return browser_.wait("return " + condition, argument, 80) == true;
  }
  std::string text_of(const std::string& selector) {
    return browser_.js("return document.querySelector(arguments[0])?.textContent ?? '(none)'", selector)
        .get<std::string>();
  }
  // Without a break of the policy, an error or a word on the console, and nobody but the server was asked for anything.
  void expect_quiet(const Serving& server) {
    EXPECT_EQ(browser_.complaints(), json::array());
    EXPECT_EQ(browser_.js("return performance.getEntriesByType('resource').map((one) => one.name)"
                          ".filter((name) => !name.startsWith(arguments[0]))",
                          "http://" + server.host() + "/"),
              json::array());
  }
  // Pages that are opened from now on hear of changes by what the server tells alone, not by asking now and then.
  void take_clocks_away() {
    (void)browser_.ask({{"do", "cdp"},
                        {"list", {"Page.addScriptToEvaluateOnNewDocument"}},
                        {"source", "window.setInterval = () => 0"}});
  }
  void expect_same_document() { EXPECT_EQ(browser_.js("return window.here ?? 0"), 1) << "it was not loaded again"; }

  Browser browser_;
};

TEST_F(Serve_in_browser, channels_and_scan_look_as_the_guide_does_at_every_size) {
  device_ = "box";
  scan(network("x20"));
  Serving server(serve(network("x20"), {"--control", "--freq", "506000000"}));
  ASSERT_EQ(server.post("/scan", "do=start&token=" + server.token()).status, 303);
  open(server, "/scan?token=" + server.token());
  ASSERT_TRUE(holds("document.getElementById('end') !== null"));
  open(server, "/channels");
  ASSERT_TRUE(holds("document.querySelector('.signal.good meter') !== null"));
  const struct {
    int width, height, pixels;  // so many pixels of the page are one of the picture, each way
  } screens[] = {{390, 844, 2}, {1280, 800, 4}, {3840, 2160, 12}};
  for (const auto& [width, height, pixels] : screens) {
    for (const std::string colours : {"light", "dark"}) {
      for (const std::string path : PAGES) {
        SCOPED_TRACE(path + " " + std::to_string(width) + " " + colours);
        browser_.screen(width, height, width < 640, 1.0 / pixels);
        browser_.media({{"prefers_color_scheme", colours}});
        ASSERT_NO_FATAL_FAILURE(open(server, path == "/scan" ? "/scan?token=" + server.token() : path));
        const json seen = browser_.js(R"js(
          const style = (selector) => getComputedStyle(document.querySelector(selector));
          return {
            wide: document.documentElement.scrollWidth - innerWidth,
            outside: Array.from(document.querySelectorAll("#top *, .box, .box *:not(.unseen)"))
              .filter((one) => !one.closest("[hidden], .unseen, svg, .second, thead") && one.offsetParent !== null)
              .filter((one) => {
          const box = one.getBoundingClientRect();
          return box.left < 0 || box.right > innerWidth + 1; })
              .map((one) => one.outerHTML.slice(0, 80)),
            letters: [style("body").fontFamily, style("h1").fontSize, style("#pages [aria-current]").color, style("#pages a:not([aria-current])").color, style("body").backgroundColor],
            size: style("html").fontSize,
            here: Array.from(document.querySelectorAll("#pages [aria-current=page]"), (one) => one.textContent).join(),
            links: Array.from(document.querySelectorAll("#pages a"), (one) => one.textContent).join(),
      };)js");
        EXPECT_LE(seen["wide"], 0);
        EXPECT_EQ(seen["outside"], json::array());
        EXPECT_EQ(seen["links"], "Guide,Channels,Scan");
        EXPECT_EQ(seen["here"], path == "/" ? "Guide" : path == "/channels" ? "Channels" : "Scan");
        EXPECT_EQ(seen["size"], width > 3400 ? "30px" : "16px");
        static std::map<std::string, json> first;
        EXPECT_EQ(first.emplace(std::to_string(width) + colours, seen["letters"]).first->second, seen["letters"]);
        expect_quiet(server);
        browser_.screenshot(dir_.file("page.png"));
        const std::map<std::string, size_t> found = support::colours_of(dir_.file("page.png"));
        const std::string back = colours == "light" ? "f3f3f0" : "111316",
                          box = colours == "light" ? "ffffff" : "1c1f24";
        ASSERT_TRUE(found.contains(back));
        EXPECT_GT(found.at(back), 1000U);
        if (path != "/") {
          EXPECT_GT(found.contains(box) ? found.at(box) : 0, 300U);
        }
        EXPECT_GT(found.size(), 20U) << "letters have shades";
      }
    }
  }
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_in_browser, channels_appear_when_a_scan_ends_and_then_their_signal_and_guide) {
  device_ = "box";
  Serving server(
      serve(network("x20"), {"--control", "--freq", "506000000", "--freq", "514000000", "--freq", "522000000"}));
  take_clocks_away();
  open(server, "/channels");
  EXPECT_EQ(text_of(".empty strong"), "No channels yet");
  ASSERT_EQ(server.post("/scan", "do=start&token=" + server.token()).status, 303);
  EXPECT_TRUE(holds("document.querySelectorAll('tbody tr').length === 3"));
  EXPECT_EQ(browser_.js("return Array.from(document.querySelectorAll('tbody th'), (one) => one.textContent).join()"),
            "Kuldnokk,Öökull,Шпак");
  EXPECT_EQ(browser_.js("return Array.from(document.querySelectorAll('h2'), (one) => one.textContent).join('|')"),
            "506.000 MHz, Kuldnokk|514.000 MHz, Kuldnokk");
  EXPECT_TRUE(holds("document.querySelector('.signal.good .what')?.textContent.endsWith(': locked')"));
  EXPECT_TRUE(holds("document.querySelector('.signal.good meter')?.value === 78"));
  EXPECT_THAT(text_of(".readings"),
              AllOf(HasSubstr("Strength"), HasSubstr("78 %"), HasSubstr("SNR"), HasSubstr("98 %")));
  // As it was last, and not what was read when the adapter had gone on to where there is nothing. On a busy machine the
  // scan may be over before it was read at all.
  EXPECT_TRUE(holds("document.querySelector('.signal.old meter') !== null"));
  EXPECT_EQ(browser_.js("return document.querySelector('.signal.old meter')?.value ?? null"), 78) << text_of(".old");
  EXPECT_TRUE(holds("document.querySelector('tbody .now')?.textContent.startsWith('Uudised until ')"));
  // In the zone of whoever looks, which is two hours east of that of the streams.
  EXPECT_TRUE(holds("/^Uudised until 2[0-2]:[03]0$/.test(document.querySelector('tbody .now').textContent)"))
      << text_of("tbody .now");
  expect_same_document();
  expect_quiet(server);
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_in_browser, a_scan_is_started_by_the_keys_and_is_seen_to_go_on) {
  // Slow enough for a browser on a busy machine to be there before it ends.
  Serving server(serve(at_speed("x1", two_muxes()), {"--control", "--band", "uhf"}));
  open(server, "/scan");
  EXPECT_EQ(browser_.js("return document.querySelectorAll('main button, main form').length"), 0);
  EXPECT_THAT(text_of("#action"), HasSubstr("by the URL that the server printed"));
  take_clocks_away();
  open(server, "/scan?token=" + server.token());
  EXPECT_EQ(text_of("#state"), "\nNo scan since the server was started.\n");
  const std::string focused = "return document.activeElement.textContent";
  json last;
  for (int i = 0; i < 12 && last != "Start a scan"; ++i) {
    browser_.keys({"Tab"});
    last = browser_.js(focused);
    EXPECT_EQ(browser_.js("return getComputedStyle(document.activeElement).outlineStyle"), "solid") << last;
  }
  ASSERT_EQ(last, "Start a scan");
  browser_.keys({"Enter"});
  ASSERT_TRUE(holds("document.querySelector('progress')?.max === 49"));
  (void)browser_.js(R"(window.here = 1; window.seen = [];
    new MutationObserver(() => {
      const value = document.querySelector("progress")?.value;
      if (value !== undefined && value !== seen.at(-1)) seen.push(value);
    }).observe(document.body, { subtree: true, childList: true, attributes: true });)");
  EXPECT_TRUE(holds("seen.length > 2")) << "the bar moves";
  EXPECT_TRUE(holds("document.querySelectorAll('.frequencies tbody tr').length > 2"));
  EXPECT_EQ(browser_.js("return seen.every((one, i) => i === 0 || one > seen[i - 1])"), true);
  EXPECT_EQ(text_of(".do"), "Stop the scan");
  // The same button, which has not been left, stops it.
  for (int i = 0; i < 12 && browser_.js(focused) != "Stop the scan"; ++i)
    browser_.keys({"Tab"});
  const json before = browser_.js("return document.querySelector('progress').value");
  EXPECT_TRUE(browser_.wait("return document.querySelector('progress').value > arguments[0]", before) == true);
  EXPECT_EQ(browser_.js(focused), "Stop the scan") << "what changes around it does not take the focus away";
  expect_same_document();
  browser_.keys({"Enter"});
  EXPECT_TRUE(holds("document.getElementById('end')?.textContent === 'stopped'"));
  EXPECT_TRUE(holds("document.querySelector('.do')?.textContent === 'Start a scan'"));
  expect_quiet(server);
  // The token goes along to the other pages and back.
  for (const char* name : {"Guide", "Channels", "Scan"}) {
    (void)browser_.js(
        "Array.from(document.querySelectorAll('#pages a')).find((one) => one.textContent === "
        "arguments[0]).click()",
        name);
    EXPECT_TRUE(browser_.wait("return document.querySelector('#pages [aria-current]')?.textContent === arguments[0] && "
                              "!document.getElementById('pages').hidden",
                              name) == true);
  }
  EXPECT_TRUE(holds("document.querySelector('.do')?.textContent === 'Start a scan'"));
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_in_browser, without_control_nothing_can_be_started) {
  scan(network("x20"));
  Serving server(serve(network("x20")));
  open(server, "/scan?token=" + std::string(32, '0'));
  EXPECT_EQ(browser_.js("return document.querySelectorAll('main button, main form').length"), 0);
  EXPECT_THAT(text_of("#action"), HasSubstr("when the server runs with --control"));
  expect_quiet(server);
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_in_browser, the_guide_follows_what_is_collected) {
  scan(network("x20"));
  Serving server(serve(network("x20")));
  take_clocks_away();
  ASSERT_NO_FATAL_FAILURE(open(server, "/"));
  EXPECT_TRUE(holds("document.querySelectorAll('.event').length > 3")) << "as it comes in";
  EXPECT_EQ(text_of(".event .title"), "Uudised");
  EXPECT_EQ(browser_.js("return document.getElementById('pages').hidden"), false);
  expect_same_document();
  expect_quiet(server);
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_in_browser, a_guide_that_was_empty_shows_the_first_that_comes_whenever_that_is) {
  make_prepared_db(db_);
  Serving server(stored());
  ASSERT_NO_FATAL_FAILURE(open(server, "/"));
  EXPECT_EQ(browser_.js("return document.querySelectorAll('.event').length"), 0);
  const int64_t day = 86400, early = time(nullptr) / day * day + 20 * day + day / 2;
  const auto add = [&](int64_t start) {
    run_sql(guide_, fmt::format("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) "
                                "VALUES (1, {0}, {0}, 3600, '', '')",
                                start));
  };
  add(early);
  EXPECT_TRUE(holds("document.querySelectorAll('.event').length === 1"));
  EXPECT_TRUE(
      holds("(() => { const one = document.querySelector('.event').getBoundingClientRect(); return one.left >= 0 && "
            "one.right <= innerWidth; })()"));
  // From then on the view stays where it is.
  const json left = browser_.js("return document.getElementById('guide').scrollLeft = 700");
  add(early + 3 * day);
  EXPECT_TRUE(holds("document.querySelectorAll('#days button').length > 3"));
  EXPECT_EQ(browser_.js("return document.getElementById('guide').scrollLeft"), left);
  expect_same_document();
  expect_quiet(server);
}

TEST_F(Serve_in_browser, pages_follow_changes_and_say_when_they_cannot) {
  make_prepared_db(db_);
  Serving server(stored());
  take_clocks_away();
  open(server, "/channels");
  ASSERT_TRUE(holds("document.querySelectorAll('tbody tr').length === 5"));
  (void)browser_.js("getSelection().selectAllChildren(document.querySelector('h2'))");
  run_sql(db_, "UPDATE kanalid SET serv_name = 'Uus' WHERE channel = 1; DELETE FROM kanalid WHERE channel = 5");
  EXPECT_TRUE(holds("document.querySelectorAll('tbody tr').length === 4"));
  EXPECT_THAT(text_of("tbody"), HasSubstr("Uus"));
  EXPECT_EQ(browser_.js("return String(getSelection())"), "506.000 MHz, Võrk") << "what did not change was left alone";
  EXPECT_EQ(text_of("#connection"), "");
  expect_same_document();
  EXPECT_EQ(server.end().exit_code, 0);
  EXPECT_TRUE(
      holds("document.getElementById('connection').textContent === 'Not connected: what is shown may be old.'"));
  EXPECT_EQ(browser_.js("return document.querySelectorAll('tbody tr').length"), 4);
}

TEST_F(Serve_in_browser, colours_are_chosen_once_for_all_pages) {
  make_prepared_db(db_);
  Serving server(stored());
  const std::string colours = "return getComputedStyle(document.documentElement).colorScheme";
  browser_.media({{"prefers_color_scheme", "light"}});
  open(server, "/channels");
  EXPECT_EQ(browser_.js(colours), "light dark");
  browser_.click("#theme");
  EXPECT_EQ(browser_.js(colours), "light");
  browser_.click("#theme");
  for (const char* path : PAGES) {
    ASSERT_NO_FATAL_FAILURE(open(server, path));
    EXPECT_EQ(browser_.js(colours), "dark") << path;
    EXPECT_EQ(browser_.js("return getComputedStyle(document.body).backgroundColor"), "rgb(17, 19, 22)") << path;
    EXPECT_EQ(text_of("#theme-text"), "Colours: dark") << path;
  }
}

TEST_F(Serve_in_browser, names_stay_text_however_hostile_long_or_turned_they_are) {
  make_prepared_db(db_);
  const std::string hostile[] = {"</bdi><script>window.ran=1</script>", "<img src=x onerror=window.ran=2>",
                                 "\"><svg onload=window.ran=3>", "<a href=javascript:window.ran=4>x</a>"};
  const std::string now = std::to_string(time(nullptr) - 600);
  for (int i = 0; i < 4; ++i) {
    run_sql(db_, "UPDATE kanalid SET serv_name = '" + hostile[i] + "', network_name = '" + hostile[i] +
                     "', prov_name = '" + hostile[i] + "', serv_type = 1, freq = 506000000 + 8000000 * " +
                     std::to_string(i) + " WHERE channel = " + std::to_string(i + 1));
    run_sql(guide_, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) VALUES (" +
                        std::to_string(i + 1) + ", 1, " + now + ", 3600, '', '')");
    run_sql(guide_, "INSERT INTO epglist_lang (source_oid, lang, ev_name) SELECT entry, 'est', '" + hostile[i] +
                        "' FROM epglist WHERE channel = " + std::to_string(i + 1));
  }
  run_sql(db_, "UPDATE kanalid SET serv_name = 'قناة الأخبار', network_name = '" + std::string(4000, 'W') +
                   "' WHERE channel = 5");
  run_sql(guide_, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) VALUES (5, 1, " +
                      now +
                      ", 3600, '', ''); INSERT INTO epglist_lang (source_oid, lang, ev_name) SELECT entry, 'est', '" +
                      std::string(4000, 'W') + "' FROM epglist WHERE channel = 5");
  Serving server(stored());
  browser_.screen(390, 844, true);
  open(server, "/channels");
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(hostile[i]);
    const std::string in = ".box:nth-of-type(" + std::to_string(i + 1) + ") ";
    EXPECT_EQ(text_of(in + "tbody th"), hostile[i]);
    EXPECT_EQ(text_of(in + "h2 bdi"), hostile[i]);
    EXPECT_EQ(text_of(in + ".now bdi"), hostile[i]);
  }
  EXPECT_EQ(browser_.js("return document.querySelectorAll('main script, main img, main svg, main a').length"), 0);
  const json layout = browser_.js(R"(
    const row = Array.from(document.querySelectorAll("tbody tr")).find((one) => one.textContent.includes("قناة"));
    const name = row.querySelector("bdi");
    return {
      wide: document.documentElement.scrollWidth - innerWidth,
      height: Math.max(...Array.from(document.querySelectorAll("tbody tr, h2"), (one) => one.offsetHeight)),
      isolated: getComputedStyle(name).unicodeBidi,
      indent: (() => { const range = document.createRange(); range.selectNodeContents(name);
        return Math.round(range.getBoundingClientRect().left - row.querySelector("th").getBoundingClientRect().left); })(),
    };)");
  EXPECT_LE(layout["wide"], 0);
  EXPECT_LT(layout["height"], 200) << "the next one stays near";
  EXPECT_EQ(layout["isolated"], "isolate");
  EXPECT_EQ(layout["indent"], 0) << "it begins where the others do";
  ASSERT_NO_FATAL_FAILURE(open(server, "/"));
  EXPECT_TRUE(holds("document.querySelectorAll('.event.on').length > 3"));
  EXPECT_THAT(browser_.js("return Array.from(document.querySelectorAll('.event.on .title'), (one) => one.textContent)"),
              testing::IsSupersetOf(std::vector<json>{hostile[0], hostile[3]}));
  for (const char* path : PAGES) {
    ASSERT_NO_FATAL_FAILURE(open(server, path));
    EXPECT_EQ(browser_.js("return window.ran ?? null"), nullptr) << path;
    expect_quiet(server);
  }
}

// Of events that overlap the one that began last is on, and behind it the one that it interrupted.
TEST_F(Serve_in_browser, what_is_on_is_the_same_for_command_library_and_pages) {
  make_prepared_db(db_);
  run_sql(db_,
          "DELETE FROM kanalid WHERE channel = 5; UPDATE kanalid SET serv_name = 'Kanal ' || channel, lcn = channel, "
          "serv_type = 1");
  const int64_t now = time(nullptr);
  const struct {
    int channel, from, minutes;  // from now
    const char* title;
  } events[] = {{1, -120, 240, "Block"},      {1, -30, 60, "Inside, on"}, {2, -120, 240, "Block, again"},
                {2, -60, 30, "Inside, over"}, {3, -50, 60, "Earlier"},    {3, -10, 60, "Later"},
                {4, -60, 120, "Whole"},       {4, -5, 0, "No length"}};
  int id = 0;
  for (const auto& [channel, from, minutes, title] : events) {
    ++id;
    run_sql(guide_,
            fmt::format("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec, content_id, rating) "
                        "VALUES ({0}, {1}, {2}, {3}, '', ''); INSERT INTO epglist_lang (source_oid, lang, ev_name) "
                        "SELECT entry, 'est', '{4}' FROM epglist WHERE ev_id = {1}",
                        channel, id, now + from * 60, minutes * 60, title));
  }
  const std::map<std::string, std::string> wanted{
      {"Kanal 1", "Inside, on"}, {"Kanal 2", "Block, again"}, {"Kanal 3", "Later"}, {"Kanal 4", "Whole"}};
  std::map<std::string, std::string> found;
  const Command_result told = run_command({KELVO_COMMAND, "epg", "--db", db_, "--now", "--format", "json"});
  const json guide = json::parse(told.out);
  for (const json& event : guide["events"])
    EXPECT_TRUE(found.emplace(event["name"], event["texts"][0]["title"]).second) << event;
  EXPECT_EQ(found, wanted) << "kelvo epg --now";
  found.clear();
  (void)support::stderr_of([&] {
    Sdbl database(db_.c_str());
    for (int channel = 1; channel <= 4; ++channel) {
      Now_next shown;
      if (Now_and_next(&database).read(channel, {}, &shown) && shown.now)
        found["Kanal " + std::to_string(channel)] = shown.now->title;
    }
  });
  EXPECT_EQ(found, wanted) << "Now_and_next";
  browser_.zone(support::zone_of_noon(now));
  Serving server(stored());
  open(server, "/channels");
  const auto titles = [&](const std::string& rows, const std::string& name, const std::string& title) {
    return browser_.js(
        "return Object.fromEntries(Array.from(document.querySelectorAll(arguments[0][0]), (row) => "
        "[row.querySelector(arguments[0][1]).textContent, row.querySelector(arguments[0][2])?.textContent]))",
        {rows, name, title});
  };
  EXPECT_EQ(titles("tbody tr", "th", ".now bdi"), json(wanted)) << "the page of channels";
  ASSERT_NO_FATAL_FAILURE(open(server, "/"));
  ASSERT_TRUE(holds("document.querySelectorAll('.event.on').length > 3"));
  EXPECT_EQ(titles(".row", ".channel bdi", ".event.on .title"), json(wanted)) << "the guide";
  EXPECT_EQ(browser_.js("return Array.from(document.querySelectorAll('[data-index=\"1\"] .event .title'), (one) => "
                        "one.textContent).join('|')"),
            "Block, again|Inside, over|Block, again")
      << "what was interrupted goes on";
  expect_quiet(server);
}

TEST_F(Serve_in_browser, pages_have_no_serious_findings_of_accessibility) {
  const std::string axe = KELVO_AXE;
  if (access(axe.c_str(), R_OK) != 0)
    GTEST_SKIP() << "axe-core is not here; 'make guide-check' fetches it";
  device_ = "box";
  scan(network("x20"));
  Serving server(serve(network("x20"), {"--control", "--band", "uhf"}));
  open(server, "/channels");
  ASSERT_TRUE(holds("document.querySelector('.signal.good meter') !== null"));
  ASSERT_EQ(server.post("/scan", "do=start&token=" + server.token()).status, 303);
  for (const std::string colours : {"light", "dark"}) {
    browser_.media({{"prefers_color_scheme", colours}});
    for (const std::string path : PAGES) {
      SCOPED_TRACE(path + " " + colours);
      ASSERT_NO_FATAL_FAILURE(open(server, path == "/scan" ? "/scan?token=" + server.token() : path));
      if (path == "/scan") {
        EXPECT_TRUE(holds("document.querySelector('.frequencies tbody tr') !== null"));
      }
      EXPECT_EQ(browser_.serious_findings(axe), json::array());
    }
  }
}

}  // namespace
