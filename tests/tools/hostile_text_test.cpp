// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Texts off the air that mean harm to a shell, a database, a format, a terminal, JSON or XML: through every field of a
// stream to every output. The rows hold them byte for byte, outputs show them clean, and nothing runs them.
#include <pugixml.hpp>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "support/database.h"
#include "tools/exposition_check.h"
#include "tools/guide_fixture.h"
#include "tools/http_client.h"
#include "tools/serve/pages.h"

namespace {

using nlohmann::json;
using std::string_literals::operator""s;

struct Hostile_text {
  std::string air;         // as broadcast
  std::string any = {};    // what is stored, where it is not that; a line feed is a blank in names
  std::string box = {};    // with the box's profile
  std::string shown = {};  // in tables, JSON and XML
  std::string language = "est";
};

// Where a shell ran one of them, there would be a file "ran.off" in this folder.
const Hostile_text TEXTS[] = {
    {"a'b\"c`d''--; DROP TABLE kanalid;--", "", "", "", "';-"},
    {"a%n%s%x%99999d%1$n%*c", "", "", "", "%n%"},
    {"$(>ran.off)`>ran.off`;>ran.off|>ran.off&", "", "", "", "$()"},
    {"'; >ran.off; '\"; >ran.off; \"", "", "", "", "\"'`"},
    {"abc\0d'); DELETE FROM kanalid;--"s, "abcd'); DELETE FROM kanalid;--", "abc", "", "a\0b"s},
    {"a\nb\rINSERT x", "a\nb\nINSERT x", "", "a b INSERT x", "a\nb"},
    {"a\x1B[31mb\x1B]0;c\x07\x7F\x08", "a[31mb]0;c", "", "a[31mb]0;c", "\x1B[m"},
    {"a\x9B\x33\x31mb\x90\x63\x84", "a31mbc", "a\u009B31mb\u0090c\u0084", "a31mbc", "\x9B\x31m"},
    {"\x15\x61\u202Eb\u2066c\u200Fd\u061Ce", "a\u202Eb\u2066c\u200Fd\u061Ce", "", "abcde", "\u202E"},
    {"\x15\x61\xFF\xC0\xAF\xED\xA0\x80z", "a\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFDz", "",
     "a\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFDz", "\xFF\xC0\xAF"},
    {"</script><b a=\"b\">]]>&amp;&#10;<!--", "", "", "", "</s"},
    {"a\tb,c;d:e|f\\n\\e[m\\", "a b,c;d:e|f\\n\\e[m\\", "", "a b,c;d:e|f\\n\\e[m\\", "a,b"},
};
constexpr int COUNT = std::size(TEXTS);

std::string hex_of(const std::string& bytes) {
  std::string hex;
  for (const char c : bytes)
    hex += fmt::format("{:02X}", static_cast<unsigned char>(c));
  return hex;
}

std::string sized(const std::string& text) {
  return static_cast<char>(text.size()) + text;
}

std::string descriptor(int tag, const std::string& body) {
  return hex_of(static_cast<char>(tag) + sized(body));
}

std::string in_a_line(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

// What no terminal, no reader of lines and no eye may get: control codes of both ranges, marks that turn the direction.
bool is_harmless(const std::string& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = [&](size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned three = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
    if (byte(i) < 0x20 || byte(i) == 0x7F || (byte(i) == 0xC2 && byte(i + 1) >= 0x80 && byte(i + 1) <= 0x9F) ||
        (three >= 0xE280AA && three <= 0xE280AE) || (three >= 0xE281A6 && three <= 0xE281A9) || three == 0xE2808F ||
        (byte(i) == 0xD8 && byte(i + 1) == 0x9C))
      return false;
  }
  return true;
}

// By RFC 4180.
std::vector<Words> rows_of_csv(const std::string& text) {
  std::vector<Words> out(1, Words(1));
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"' && quoted && i + 1 < text.size() && text[i + 1] == '"') {
      out.back().back() += text[++i];
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      out.back().emplace_back();
    } else if (c == '\r' && !quoted) {
      EXPECT_EQ(text.substr(i++, 2), "\r\n");
      out.emplace_back(1);
    } else {
      out.back().back() += c;
    }
  }
  EXPECT_EQ(out.back(), Words(1));
  out.pop_back();
  return out;
}

// By RFC 5545: the properties of each event, without their parameters.
std::vector<std::map<std::string, std::string>> events_of_calendar(const std::string& text) {
  std::vector<std::map<std::string, std::string>> out;
  for (const std::string& line : support::lines_of(std::regex_replace(text, std::regex("\r\n |\r"), ""))) {
    if (line == "BEGIN:VEVENT")
      out.emplace_back();
    const size_t colon = line.find(':');
    std::string value;
    for (size_t i = std::min(colon, line.size() - 1) + 1; i < line.size(); ++i) {
      const bool escape = line[i] == '\\' && ++i < line.size();
      value += escape && line[i] == 'n' ? '\n' : line[i];
    }
    if (!out.empty())
      out.back()[line.substr(0, std::min(colon, line.find(';')))] = value;
  }
  return out;
}

class Hostile_texts : public Guide_fixture, public testing::WithParamInterface<const char*> {
 protected:
  Hostile_texts() { device_ = "box"; }

  bool box() const { return GetParam() == "box"s; }
  std::string air(int i) const { return TEXTS[i].air; }
  std::string stored(int i) const {
    const std::string& own = box() ? TEXTS[i].box : TEXTS[i].any;
    return own.empty() ? TEXTS[i].air : own;
  }
  std::string shown(int i) const { return TEXTS[i].shown.empty() ? in_a_line(stored(i)) : TEXTS[i].shown; }
  // A name, which stands in a line.
  std::string stored_name(int i) const { return box() ? stored(i) : in_a_line(stored(i)); }
  json event(int i) const {
    const std::string text = air(i), code = TEXTS[i].language;
    return {{"start", "now-5m"},
            {"duration", "2h"},
            {"descriptors",
             {descriptor(0x4D, code + sized(text) + sized(text)),
              descriptor(0x4E, "\0"s + code + sized(sized(text) + sized(text)) + sized(text)),
              descriptor(0x50, "\xF1\x01\x01" + code + text), descriptor(0x55, code + "\x05"),
              descriptor(0x76, "\x04" + sized(text) + "\x08" + sized(text))}}};
  }

  // Every second text, as many as an SDT section holds: the even ones on 506 MHz, the others on 514.
  Words mux(int half, bool hostile) const {
    json services = json::array();
    for (int i = half; i < COUNT; i += 2) {
      const std::string text = air(i), code = TEXTS[i].language;
      json service{{"service_id", i + 1}, {"lcn", i + 1}, {"name", "Kanal"}, {"provider", "Meedia"}};
      service["streams"] = {{{"type", "mpeg2-audio"}, {"languages", {"est"}}}};
      if (hostile) {
        service.erase("name");
        service.erase("provider");
        service["descriptors"] = {descriptor(0x48, "\x01" + sized(text) + sized(text)),
                                  descriptor(0x5D, code + sized(text) + sized(text))};
        service["streams"] = {{{"type", "mpeg2-audio"}, {"descriptors", {descriptor(0x0A, code + "\0"s)}}},
                              {{"type", 6}, {"descriptors", {descriptor(0x56, code + "\x09\x10"s)}}},
                              {{"type", 6}, {"descriptors", {descriptor(0x59, code + "\x10\0\x01\0\x01"s)}}}};
        service["events"] = json::array({event(i)});
      }
      services.push_back(service);
    }
    const json description{{"fast", true},
                           {"duration", 20},
                           {"payload_rate", 0},
                           {"time", {{"tdt", false}, {"tot", false}}},
                           {"original_network_id", 65281},
                           {"transport_stream_id", half + 1},
                           {"network", network_of(half, hostile)},
                           {"services", services}};
    const std::string file = stream(half, hostile);
    support::write_file(file + ".json", description.dump());
    const Command_result made =
        run_command({SOFTDVB_MUX_COMMAND, file + ".json", "-q", "-o", file, "--now", "2026-03-01T18:00:00Z"});
    EXPECT_EQ(made.exit_code, 0) << made.err;
    return {"--mux", (half == 0 ? "506000000=" : "514000000=") + file};
  }

  std::string stream(int half, bool hostile) const {
    return dir_.file((hostile ? "hostile" : "plain") + std::to_string(half) + ".ts");
  }
  static std::string network_text() { return "%n'\"$(x)\x1B[31m\x07\n\x9B</b>]]>,"; }
  json network_of(int half, bool hostile) const {
    json network{{"transport_streams", {{{"transport_stream_id", half + 1}}}}};
    if (!hostile)
      network["name"] = "Kuldnokk";
    else
      network["descriptors"] = {descriptor(0x40, network_text()), descriptor(0x5B, "%n%" + sized(network_text()))};
    return network;
  }

  Words command(const Words& words) const { return joined({words, box() ? Words{"--profile", "box"} : Words{}}); }
  Command_result on_terminal(const Words& words) const {
    return support::run_on_terminal(joined({{KELVO_COMMAND}, words, {"--db", db_}}), {{"TZ", "UTC0"}}, 300);
  }
  Command_result off_terminal(const Words& words) const {
    return run_command(joined({{KELVO_COMMAND}, words, {"--db", db_}}), {{"TZ", "UTC0"}});
  }

  // Every line of it but for what the command itself moves the cursor with, and tabs of the library's messages.
  static void expect_harmless_lines(const std::string& text) {
    static const std::regex own("\x1B\\[[0-9]*[KAJ]|\r|\t");
    for (const std::string& line : support::lines_of(std::regex_replace(text, own, "")))
      EXPECT_TRUE(is_harmless(line)) << support::visible(line);
  }
  static void expect_harmless_values(const json& value) {
    if (value.is_string()) {
      EXPECT_TRUE(is_harmless(value)) << value;
    } else if (value.is_structured()) {
      for (const json& inner : value)
        expect_harmless_values(inner);
    }
  }
  // Whatever a name is, it is a channel: no line, field or key more or less than that.
  void expect_safe_lists() const {
    const struct {
      const char* format;
      const char* line;  // of a channel
      size_t others;     // lines a channel besides
    } lists[] = {
        {"vdr", "[^:;]+(;[^:]+)?:[0-9]+:[A-Z0-9]+:T:0(:[^:]+){8}", 0},
        {"zap", "[^:]+:[0-9]+(:[A-Z0-9_]+){8}:[0-9]+:[0-9]+:[0-9]+", 0},
        {"dvbv5", "\\[[^\\[\\]]+\\]", SIZE_MAX},
        {"m3u", "#EXTINF:-1( [a-z-]+=\"[A-Za-z0-9.]+\")+,.+", 1},
        {"csv", "[0-9]*,(\"([^\"=+@-]|\"\")([^\"]|\"\")*\"|[^\",=+@-][^\",]*)(,(\"([^\"]|\"\")*\"|[^\",]*)){21}", 0}};
    for (const auto& list : lists) {
      const Command_result result = off_terminal({"channels", "--all", "--format", list.format});
      expect_harmless_lines(result.out);
      Words lines = support::lines_of(result.out);
      std::erase_if(lines, [](const std::string& line) {
        return line == "#EXTM3U" || line.starts_with("number,name,") || line.starts_with(":@");
      });
      const auto channels = std::count_if(lines.begin(), lines.end(), [&](std::string line) {
        if (!line.empty() && line.back() == '\r')
          line.pop_back();
        return std::regex_match(line, std::regex(list.line));
      });
      EXPECT_EQ(channels, COUNT) << list.format << result.out;
      if (list.others != SIZE_MAX) {
        EXPECT_EQ(lines.size(), COUNT * (1 + list.others)) << list.format << result.out;
      }
    }
    pugi::xml_document xml;
    const Command_result xspf = off_terminal({"channels", "--all", "--format", "xspf"});
    ASSERT_TRUE(xml.load_string(xspf.out.c_str(), pugi::parse_full)) << xspf.out;
    expect_harmless_lines(xspf.out);
  }
  // Pages, JSON and metrics of the server.
  void expect_served_clean(const json& services) const {
    Serving server({KELVO_COMMAND, "serve", "--port", "0", "--no-adapter", "--db", db_});
    const std::string page = server.get("/channels").body;
    expect_harmless_lines(page);
    EXPECT_EQ(support::count_of(page, "<script"), 1U);
    for (int i = 0; i < COUNT; ++i)
      EXPECT_THAT(page, testing::HasSubstr("<bdi class=\"cut\">" + html_text(shown(i)) + "</bdi>"));
    const std::string metrics = server.get("/metrics").body;
    expect_harmless_lines(metrics);
    EXPECT_EQ(samples_of(metrics).count("kelvo_channels{frequency=\"506000000\"}"), 1U);
    EXPECT_EQ(json::parse(server.get("/channels.json").body)["channels"], services);
    EXPECT_EQ(server.end().exit_code, 0);
  }
  void expect_nothing_was_run() const { EXPECT_FALSE(std::filesystem::exists("ran.off")); }
};

TEST_P(Hostile_texts, are_stored_to_the_byte_shown_clean_and_run_by_nothing) {
  const Words options = at_speed("x10", joined({mux(0, true), mux(1, true)}));
  const Command_result scanned = support::run_on_terminal(
      kelvo(options, command({"scan", "-vvvvv", "--freq", "506000000", "--freq", "514000000"})), {}, 300);
  ASSERT_EQ(scanned.exit_code, 0) << scanned.out;
  expect_harmless_lines(scanned.out);
  ASSERT_EQ(run(options, command({"epg", "update", "--for", "90s"})).exit_code, 0);
  expect_nothing_was_run();

  const support::Other_connection channels(db_), guide(guide_);
  Words names, languages, events, items;
  for (int i = 0; i < COUNT; ++i) {
    const std::string name = hex_of(stored_name(i)), text = hex_of(stored(i));
    const std::string code = hex_of(TEXTS[i].language.c_str());
    names.push_back(name + "|" + name);
    languages.push_back(code + "|" + name + "|" + name);
    // The box stores less than three bytes as none.
    events.push_back((box() && code.size() < 6 ? "" : code) + "|" + name + "|" + text + "|" + text);
    items.push_back(code + "|" + name + "|" + name);
  }
  EXPECT_EQ(channels.rows("SELECT hex(serv_name), hex(prov_name) FROM kanalid ORDER BY pat_prnr"), names);
  EXPECT_EQ(channels.rows("SELECT hex(lang), hex(l.serv_name), hex(l.prov_name) FROM kanalid_lang l JOIN kanalid k ON "
                          "source_oid = channel WHERE lang <> '%n%' OR pat_prnr = 2 ORDER BY pat_prnr"),
            languages);
  EXPECT_EQ(guide.rows("SELECT hex(lang), hex(ev_name), hex(ev_desc), hex(ext_desc) FROM epglist_lang JOIN epglist ON "
                       "entry = source_oid ORDER BY pat_prnr"),
            events);
  if (!box()) {
    EXPECT_EQ(guide.rows("SELECT hex(lang), hex(name), hex(value) FROM event_item JOIN epglist USING (entry) "
                         "ORDER BY pat_prnr"),
              items);
  }

  const Command_result table = on_terminal({"channels"});
  expect_harmless_lines(table.out);
  const Command_result list = off_terminal({"channels", "--format", "json"});
  const json services = json::parse(list.out)["channels"];
  ASSERT_EQ(services.size(), COUNT);
  expect_harmless_values(services);
  expect_safe_lists();
  const Command_result guide_table = on_terminal({"epg", "--day", "2026-03-01"});
  expect_harmless_lines(guide_table.out);
  const json programme = json::parse(off_terminal({"epg", "--format", "json", "--day", "2026-03-01"}).out)["events"];
  ASSERT_EQ(programme.size(), COUNT);
  expect_harmless_values(programme);
  pugi::xml_document xml;
  const Command_result xmltv = off_terminal({"epg", "--format", "xmltv", "--day", "2026-03-01"});
  ASSERT_TRUE(xml.load_string(xmltv.out.c_str(), pugi::parse_full)) << xmltv.out;
  expect_harmless_lines(xmltv.out);
  // The page for browsers; what a browser does with such texts is tested in guide_page_test.cpp.
  const std::string page = off_terminal({"guide", "-"}).out, mark = "data-what=\"channels\">";
  expect_harmless_lines(page);
  const size_t block = page.find(mark) + mark.size();
  const json in_page = json::parse(page.substr(block, page.find("</script>", block) - block));
  ASSERT_EQ(in_page.size(), COUNT);
  const Command_result csv = off_terminal({"epg", "--format", "csv", "--day", "2026-03-01"});
  expect_harmless_lines(csv.out);
  const std::vector<Words> sheet = rows_of_csv(csv.out);
  ASSERT_EQ(sheet.size(), COUNT + 1U);
  const Command_result ics = off_terminal({"epg", "--format", "ics", "--day", "2026-03-01"});
  expect_harmless_lines(ics.out);
  const std::vector<std::map<std::string, std::string>> calendar = events_of_calendar(ics.out);
  ASSERT_EQ(calendar.size(), COUNT);
  for (int i = 0; i < COUNT; ++i) {
    SCOPED_TRACE(support::visible(TEXTS[i].air));
    const std::string text = shown(i);
    EXPECT_EQ(in_page[i]["name"], text);
    EXPECT_THAT(table.out, testing::HasSubstr(text));
    EXPECT_EQ(services[i]["name"], text);
    EXPECT_EQ(services[i]["provider"], text);
    EXPECT_THAT(guide_table.out, testing::HasSubstr(text));
    const auto event =
        std::find_if(programme.begin(), programme.end(), [&](const json& e) { return e["lcn"] == i + 1; });
    ASSERT_NE(event, programme.end());
    const json& texts = event->at("texts").at(0);
    EXPECT_EQ(event->at("name"), text);
    EXPECT_EQ(texts["title"], text);
    EXPECT_EQ(texts["description"], text);
    EXPECT_EQ(texts["extended"], text);
    EXPECT_EQ(texts["items"].at(0)["name"].get<std::string>() + ":" + texts["items"].at(0)["text"].get<std::string>(),
              box() && stored(i) == "abc" ? ":abc" : text + ":" + text);
    const std::string id = event->at("channel_id");
    const pugi::xml_node tv = xml.child("tv");
    EXPECT_EQ(tv.find_child_by_attribute("channel", "id", id.c_str()).child("display-name").text().get(), text);
    const pugi::xml_node shown_event = tv.find_child_by_attribute("programme", "channel", id.c_str());
    EXPECT_EQ(shown_event.child("title").text().get(), text);
    EXPECT_THAT(shown_event.child("desc").text().get(), testing::StartsWith(text + "\n" + text));
    const auto row = std::find_if(sheet.begin(), sheet.end(), [&](const Words& r) { return r.at(1) == id; });
    ASSERT_NE(row, sheet.end());
    ASSERT_EQ(row->size(), 19U);
    EXPECT_EQ((Words{row->at(3), row->at(10), row->at(11), row->at(12)}), Words(4, text));
    const auto entry = std::find_if(calendar.begin(), calendar.end(), [&](const auto& e) {
      return e.count("UID") == 1 && e.at("UID").ends_with("@" + id);
    });
    ASSERT_NE(entry, calendar.end());
    EXPECT_EQ(entry->at("SUMMARY"), text);
    EXPECT_EQ(entry->at("LOCATION"), text);
    EXPECT_THAT(entry->at("DESCRIPTION"), testing::StartsWith(text + "\n" + text));
  }
  expect_served_clean(services);
}

class Hostile_changes : public Hostile_texts {};

TEST_P(Hostile_changes, are_told_clean) {
  const Words plain = at_speed("x20", mux(0, false));
  (void)mux(0, true);
  scan(plain, {"506000000"});
  const Command_result watched = support::run_on_terminal(
      kelvo(joined({plain, {"--then", "506000000=15:" + stream(0, true)}}), command({"watch", "1", "--for", "45s"})),
      {}, 300);
  EXPECT_EQ(watched.exit_code, 0) << watched.out;
  expect_harmless_lines(watched.out);
  for (int i = 0; i < COUNT; i += 2)
    EXPECT_THAT(watched.out, testing::HasSubstr("renamed: Kanal -> " + shown(i)));
  // Escapes and marks that turn the direction.
  for (const int i : {6, 8}) {
    const Command_result played = run(at_speed("x20", {"--mux", "506000000=" + stream(0, true)}),
                                      command({"play", std::to_string(i + 1), "--for", "40s", "-o", "/dev/null"}));
    EXPECT_THAT(played.err, testing::StartsWith("kelvo: playing " + shown(i) + " on "));
    expect_harmless_lines(played.err);
  }
  expect_nothing_was_run();
}

const auto profile_of = [](const auto& row) { return std::string(row.param); };
INSTANTIATE_TEST_SUITE_P(, Hostile_texts, testing::Values("any", "box"), profile_of);
INSTANTIATE_TEST_SUITE_P(, Hostile_changes, testing::Values("any"), profile_of);

}  // namespace
