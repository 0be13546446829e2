// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// `kelvo serve` by real requests on a socket, on databases made by hand; and its parts that decide who may ask.
#include <nlohmann/json.hpp>

#include "tools/command_fixture.h"
#include "tools/exposition_check.h"
#include "tools/http_client.h"
#include "tools/serve/exposition.h"
#include "tools/serve/pages.h"
#include "tools/serve/request_check.h"
#include "tools/serve/site.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Key;
using testing::Not;
using testing::StartsWith;

TEST(Request_check, reads_the_name_of_a_host_header) {
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"", std::nullopt},
      {":80", std::nullopt},
      {"a b", std::nullopt},
      {"a:b", std::nullopt},
      {"a:", std::nullopt},
      {"a:123456", std::nullopt},
      {"a:80:80", std::nullopt},
      {"[::1", std::nullopt},
      {"[::1]x", std::nullopt},
      {"[]", std::nullopt},
      {"[evil.example]", std::nullopt},
      {"a/b", std::nullopt},
      {"user@a", std::nullopt},
      {std::string(256, 'a'), std::nullopt},
      {"Box.LAN:8506", "box.lan"},
      {"box.lan.", "box.lan"},
      {"127.0.0.1", "127.0.0.1"},
      {"[::1]:8506", "::1"},
      {"localhost:1", "localhost"},
  };
  for (const auto& [header, host] : cases)
    EXPECT_EQ(host_of(header), host) << header;
}

TEST(Request_check, lets_in_who_asks_by_a_name_of_this_machine) {
  const Allowed_hosts hosts("192.0.2.7", {"Box.lan", "tv"});
  for (const char* allowed :
       {"localhost", "LOCALHOST:80", "127.0.0.1:8506", "[::1]", "192.0.2.7", "box.lan:8506", "tv", "198.51.100.9:8506"})
    EXPECT_TRUE(hosts.allows(allowed, "198.51.100.9")) << allowed;
  for (const char* refused : {"", "evil.example", "localhost.evil.example", "127.0.0.1.evil.example", "127.0.0.2",
                              "box", "box.lan.evil", "0.0.0.0", "[::]", "198.51.100.10", "local host"})
    EXPECT_FALSE(hosts.allows(refused, "198.51.100.9")) << refused;
}

TEST(Request_check, knows_its_own_pages_by_their_origin) {
  for (const char* own : {"http://localhost:8506", "https://localhost:8506", "http://LocalHost:8506"})
    EXPECT_TRUE(is_own_origin(own, "localhost:8506")) << own;
  for (const char* other : {"", "null", "http://localhost", "http://localhost:8507", "http://evil.example",
                            "http://localhost:8506.evil.example", "localhost:8506", "file://localhost:8506"})
    EXPECT_FALSE(is_own_origin(other, "localhost:8506")) << other;
}

TEST(Request_check, compares_secrets_whole) {
  EXPECT_TRUE(same_secret("abc", "abc"));
  for (const char* wrong : {"", "a", "ab", "abd", "abcd", "ABC"})
    EXPECT_FALSE(same_secret(wrong, "abc")) << wrong;
  EXPECT_FALSE(same_secret("", "")) << "no secret is none that anybody has";
  const std::string one = new_token(), two = new_token();
  EXPECT_THAT(one, testing::MatchesRegex("[0-9a-f]{32}"));
  EXPECT_NE(one, two);
}

TEST(Request_check, takes_fields_out_of_a_form) {
  const std::pair<std::string, std::string> cases[] = {{"", ""},
                                                       {"token", ""},
                                                       {"token=", ""},
                                                       {"token=a", "a"},
                                                       {"x=1&token=a+b", "a b"},
                                                       {"&&token=a", "a"},
                                                       {"token=%41%zz%4", "A%zz%4"},
                                                       {"to%6ben=a&token=b", "a"},
                                                       {"token=a=b", "a=b"},
                                                       {"mytoken=a", ""}};
  for (const auto& [form, value] : cases)
    EXPECT_EQ(form_value(form, "token"), value) << form;
}

TEST(Exposition, escapes_labels_and_leaves_out_what_has_no_sample) {
  Exposition out;
  out.family("kelvo_nothing", Exposition::Kind::GAUGE, "Nothing.");
  out.family("kelvo_a_total", Exposition::Kind::COUNTER, "Back\\slash\nand \"quotes\".");
  out.count({{"name", "a\"b\\c\n1"}, {"other", "Õ"}}, 18446744073709551615U);
  out.family("kelvo_b", Exposition::Kind::GAUGE, "B.");
  out.sample({}, 0.25);
  EXPECT_EQ(out.text(),
            "# HELP kelvo_a_total Back\\\\slash\\nand \"quotes\".\n# TYPE kelvo_a_total counter\n"
            "kelvo_a_total{name=\"a\\\"b\\\\c\\n1\",other=\"Õ\"} 18446744073709551615\n"
            "# HELP kelvo_b B.\n# TYPE kelvo_b gauge\nkelvo_b 0.25\n");
  EXPECT_EQ(samples_of(out.text()).size(), 2U);
}

TEST(Pages, escape_what_browsers_would_act_on) {
  EXPECT_EQ(html_text("<a href=\"x\" title='y'>&amp;"), "&lt;a href=&quot;x&quot; title=&#39;y&#39;&gt;&amp;amp;");
}

class Serve : public Command_fixture {
 protected:
  Serve() { make_prepared_db(db_); }
  Words serve(const Words& options = {}) const {
    return joined({{KELVO_COMMAND, "serve", "--port", "0", "--db", db_}, options});
  }
  Words stored(const Words& options = {}) const { return joined({serve({"--no-adapter"}), options}); }
  // Both files, byte for byte.
  std::string files() const { return support::read_file(db_) + support::read_file(guide_); }
};

void expect_guarded(const Http_result& result) {
  EXPECT_THAT(result.headers,
              AllOf(Contains(testing::Pair("x-content-type-options", "nosniff")),
                    Contains(testing::Pair("referrer-policy", "same-origin")),
                    Contains(testing::Pair("cross-origin-resource-policy", "same-origin")),
                    Contains(testing::Pair("x-frame-options", "DENY")), Contains(Key("cache-control")),
                    Contains(testing::Pair("content-security-policy", HasSubstr("frame-ancestors 'none'"))),
                    Not(Contains(Key(StartsWith("access-control"))))));
}

TEST_F(Serve, has_these_pages_and_no_others) {
  Serving server(stored());
  EXPECT_EQ(server.command().out(),
            "serving " + db_ + " at http://" + server.host() + "/, as it is stored: no adapter is used\n");
  const struct {
    const char* path;
    const char* type;
    const char* holds;
  } pages[] = {{"/", "text/html; charset=utf-8", "EventSource(\"changes\")"},
               {"/guide.json", "application/json", "{\"format\":\"kelvo-guide\","},
               {"/channels.json", "application/json", "{\"format\":\"kelvo-channels\","},
               {"/channels", "text/html; charset=utf-8", "506.000 MHz, <bdi>Võrk</bdi></h2>"},
               {"/channels?x=%00&y", "text/html; charset=utf-8", "<bdi class=\"cut\">Kuldnokk</bdi>"},
               {"/scan", "text/html; charset=utf-8", "No adapter is used"},
               {"/style.css", "text/css; charset=utf-8", "color-scheme"},
               {"/live.js", "text/javascript; charset=utf-8", "\"use strict\""},
               {"/metrics", "text/plain; version=0.0.4; charset=utf-8", "kelvo_channels"}};
  for (const auto& page : pages) {
    const Http_result result = server.get(page.path);
    EXPECT_EQ(result.status, 200) << page.path;
    EXPECT_EQ(result.headers.at("content-type"), page.type) << page.path;
    EXPECT_THAT(result.body, HasSubstr(page.holds)) << page.path;
    expect_guarded(result);
    const Http_result head = server.ask("HEAD", page.path);
    EXPECT_EQ(head.status, 200) << page.path;
    EXPECT_EQ(head.body, "") << page.path;
    EXPECT_EQ(head.headers.at("content-type"), page.type) << page.path;
  }
  for (const char* path : {"/dvb.db", "/../dvb.db", "/%2e%2e/dvb.db", "//etc/passwd", "/etc/passwd",
                           "/..%2f..%2f..%2fetc%2fpasswd", "/channels/", "/channels/../dvb.db", "/./channels",
                           "/channels%00", "/CHANNELS", "/favicon.ico", "/%", "/\\..\\dvb.db", "/channels.json/x"}) {
    const Http_result result = server.get(path);
    EXPECT_EQ(result.status, 404) << path;
    EXPECT_EQ(result.body, "there is no such page\n") << path;
    expect_guarded(result);
  }
  EXPECT_EQ(server.end(), prints(server.command().out()));
}

TEST_F(Serve, gives_the_documents_of_the_other_commands_once) {
  Serving server(stored());
  const Http_result channels = server.get("/channels.json");
  EXPECT_EQ(json::parse(channels.body),
            json::parse(run_command({KELVO_COMMAND, "channels", "--format", "json", "--db", db_}).out));
  const Http_result guide = server.get("/guide.json");
  EXPECT_EQ(json::parse(guide.body),
            json::parse(run_command({KELVO_COMMAND, "epg", "--format", "json", "--db", db_}).out));
  EXPECT_NE(channels.headers.at("etag"), guide.headers.at("etag"));
  const Http_result known = server.get("/channels.json", "If-None-Match: " + channels.headers.at("etag") + "\r\n");
  EXPECT_EQ(known.status, 304);
  EXPECT_EQ(known.body, "");
  EXPECT_EQ(server.get("/channels.json", "If-None-Match: \"other\"\r\n").status, 200);
}

// A page of another site that the browser was made to take for one of this server (DNS rebinding) has its name in Host.
TEST_F(Serve, answers_by_its_own_names_alone) {
  const Serving server(stored({"--host", "Box.lan"}));
  const std::string port = ":" + std::to_string(server.port());
  for (const std::string& host : {"127.0.0.1" + port, "localhost" + port, "[::1]" + port, "box.lan" + port})
    EXPECT_EQ(server.get("/channels.json", "Host: " + host + "\r\n").status, 200) << host;
  for (const std::string& host :
       {"evil.example" + port, "127.0.0.1.evil.example" + port, std::string("box"), std::string("a b"),
        std::string("192.0.2.1"), std::string("[::2]"), std::string("0.0.0.0") + port, std::string(3000, 'a')}) {
    const Http_result result = server.get("/channels.json", "Host: " + host + "\r\n");
    EXPECT_EQ(result.status, 421) << host;
    EXPECT_EQ(result.body, "this name of the server is not known to it; start it with --host NAME\n");
    expect_guarded(result);
  }
  Http_connection old(server.port());
  ASSERT_TRUE(old.send("GET /channels.json HTTP/1.0\r\n\r\n"));
  EXPECT_THAT(old.read_to_end(), HasSubstr(" 421 ")) << "no Host at all";
}

TEST_F(Serve, gives_nothing_to_pages_of_other_sites) {
  const Serving server(stored());
  for (const char* site : {"cross-site", "same-site"}) {
    const std::string asks = std::string("Sec-Fetch-Site: ") + site + "\r\nSec-Fetch-Mode: ";
    EXPECT_EQ(server.get("/guide.json", asks + "no-cors\r\n").status, 403);
    EXPECT_EQ(server.get("/guide.json", asks + "cors\r\nOrigin: http://evil.example\r\n").status, 403);
    EXPECT_EQ(server.get("/", asks + "navigate\r\n").status, 200) << "a link may lead here";
  }
  EXPECT_EQ(server.get("/guide.json", "Sec-Fetch-Site: same-origin\r\nSec-Fetch-Mode: cors\r\n").status, 200);
  EXPECT_EQ(server.get("/guide.json", "Sec-Fetch-Site: none\r\nSec-Fetch-Mode: navigate\r\n").status, 200);
}

TEST_F(Serve, changes_nothing_whatever_is_asked) {
  const std::string before = files();
  Serving server(stored());
  for (const char* method : {"POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "PROPFIND", "X"}) {
    for (const char* path : {"/", "/scan", "/channels.json", "/nothing"}) {
      const Http_result result = server.ask(method, path);
      EXPECT_EQ(result.status, 405) << method << " " << path;
      EXPECT_EQ(result.headers.at("allow"), "GET, HEAD") << method << " " << path;
      expect_guarded(result);
    }
  }
  EXPECT_EQ(server.post("/scan", "do=start&token=").status, 405);
  EXPECT_EQ(server.ask("GET", "/scan", "", "do=start").status, 400);
  (void)server.end();
  EXPECT_EQ(files(), before);
}

TEST_F(Serve, tells_when_channels_and_guide_change) {
  Serving server(stored());
  Http_connection stream(server.port());
  ASSERT_TRUE(stream.send("GET /changes HTTP/1.1\r\nHost: localhost\r\n\r\n"));
  const std::string head = stream.read_until("retry: 3000\n\n");
  EXPECT_THAT(head, AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), HasSubstr("\r\nContent-Type: text/event-stream\r\n")));
  const std::string before = server.get("/channels.json").headers.at("etag");
  run_sql(db_, "UPDATE kanalid SET serv_name = 'Uus' WHERE channel = 1");
  EXPECT_THAT(stream.read_until("\n\n"), HasSubstr("event: channels\ndata: "));
  const Http_result channels = server.get("/channels.json");
  EXPECT_NE(channels.headers.at("etag"), before);
  EXPECT_EQ(json::parse(channels.body)["channels"][1]["name"], "Uus");
  run_sql(guide_, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (1, 7, 4102444800, 3600)");
  EXPECT_THAT(stream.read_until("event: guide"), HasSubstr("event: guide"));
  EXPECT_EQ(json::parse(server.get("/guide.json").body)["events"][0]["start_epoch"], 4102444800);
  // A file in the place of the old one, too.
  make_prepared_db(dir_.file("new.db"));
  run_sql(dir_.file("new.db"), "UPDATE kanalid SET serv_name = 'Uuem' WHERE channel = 1");
  std::filesystem::rename(dir_.file("new.db"), db_);
  EXPECT_THAT(stream.read_until("event: channels"), HasSubstr("event: channels"));
  EXPECT_EQ(json::parse(server.get("/channels.json").body)["channels"][1]["name"], "Uuem");
}

TEST_F(Serve, has_metrics_of_what_is_stored_and_none_of_what_is_not_received) {
  run_sql(guide_,
          "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (1, 7, 1772388000, 3600), "
          "(2, 8, 1772388000, 7200), (99, 9, 1772388000, 9000)");
  run_sql(db_, "UPDATE kanalid SET network_name = 'a\"b\\c' WHERE freq = 506000000");
  const Serving server(stored());
  EXPECT_EQ(server.get("/nothing").status, 404);
  std::map<std::string, double> samples = samples_of(server.get("/metrics").body);
  EXPECT_GT(samples["kelvo_guide_change_timestamp_seconds"], 1772388000);
  samples.erase("kelvo_guide_change_timestamp_seconds");
  const std::map<std::string, double> wanted{
      {"kelvo_multiplex_info{frequency=\"506000000\",network=\"a\\\"b\\\\c\",transport_stream=\"7\"}", 1},
      {"kelvo_multiplex_info{frequency=\"650166666\",network=\"Võrk\",transport_stream=\"6\"}", 1},
      {"kelvo_channels{frequency=\"506000000\"}", 3},
      {"kelvo_channels{frequency=\"650166666\"}", 2},
      {"kelvo_guide_events{frequency=\"506000000\"}", 2},
      {"kelvo_guide_events{frequency=\"650166666\"}", 0},
      {"kelvo_guide_end_timestamp_seconds{frequency=\"506000000\"}", 1772395200},
      {"kelvo_http_answers_total{status=\"404\"}", 1},
      {"kelvo_http_event_streams", 0}};
  EXPECT_EQ(samples, wanted);
}

TEST_F(Serve, escapes_names_on_its_pages) {
  run_sql(db_,
          "UPDATE kanalid SET serv_name = '</bdi><script>alert(1)</script>', network_name = '\"><b onclick=''x''>' "
          "WHERE channel = 1");
  const Serving server(stored());
  const std::string page = server.get("/channels").body;
  EXPECT_THAT(page, HasSubstr("<bdi class=\"cut\">&lt;/bdi&gt;&lt;script&gt;alert(1)&lt;/script&gt;</bdi>"));
  EXPECT_THAT(page, HasSubstr("<bdi>&quot;&gt;&lt;b onclick=&#39;x&#39;&gt;</bdi>"));
  EXPECT_THAT(server.get("/channels?token=%22%3E%3Cb%3E").body, Not(HasSubstr("<b>")));
}

// What is refused by the one in front of all, and answers in words; whatever it is, the next request is answered.
TEST_F(Serve, survives_broken_requests) {
  Serving server(stored());
  const std::string host = "Host: localhost\r\n";
  const struct {
    const char* legend;
    std::string request;
    int status;  // 0: closed without an answer
  } cases[] = {
      {"nothing but line ends", "\r\n\r\n\r\n\r\n", 0},
      {"no version", "GET /\r\n" + host + "\r\n", 400},
      {"two Hosts", "GET /nothing HTTP/1.1\r\n" + host + "Host: evil.example\r\n\r\n", 404},
      {"Host missing", "GET / HTTP/1.1\r\n\r\n", 400},
      {"a header without a colon", "GET /nothing HTTP/1.1\r\n" + host + "nonsense\r\n\r\n", 400},
      {"a request line of 20,000 bytes", "GET /" + std::string(20000, 'a') + " HTTP/1.1\r\n" + host + "\r\n", 414},
      {"a header of 20,000 bytes", "GET / HTTP/1.1\r\n" + host + "X: " + std::string(20000, 'a') + "\r\n\r\n", 431},
      {"a body without end", "POST /scan HTTP/1.1\r\n" + host + "Content-Length: 99999999999999999999\r\n\r\n", 413},
      {"a body of less than nothing", "POST /scan HTTP/1.1\r\n" + host + "Content-Length: -1\r\n\r\n", 400},
      {"a body that is too long", "POST /scan HTTP/1.1\r\n" + host + "Content-Length: 4097\r\n\r\n", 413},
      {"a body in pieces", "POST /scan HTTP/1.1\r\n" + host + "Transfer-Encoding: chunked\r\n\r\nFFFFFFFF\r\n", 411},
  };
  for (const auto& c : cases) {
    Http_connection connection(server.port());
    (void)connection.send(c.request);
    (void)connection.send("\r\n\r\n");
    EXPECT_EQ(parse_answer(connection.read_until("\r\n\r\n", c.status == 0 ? 1 : 20)).status, c.status) << c.legend;
  }
  EXPECT_EQ(server.get("/channels.json").status, 200);
  EXPECT_EQ(server.end().exit_code, 0);
}

// Requests with random bytes in random places, and bytes that are none; the seed is fixed.
TEST_F(Serve, survives_random_bytes) {
  const int rounds = std::getenv("KELVO_SERVE_ROUNDS") != nullptr ? std::stoi(std::getenv("KELVO_SERVE_ROUNDS")) : 400;
  Serving server(stored());
  std::mt19937 random(13);
  const std::string good =
      "GET /channels.json?token=abc HTTP/1.1\r\nHost: localhost\r\nConnection: keep-alive\r\n"
      "If-None-Match: \"x\"\r\nContent-Length: 3\r\n\r\nabcPOST /scan HTTP/1.1\r\n\r\n";
  for (int round = 0; round < rounds; ++round) {
    std::string bytes = good;
    for (auto i = random() % 12 + 1; i > 0; --i) {
      const size_t at = random() % bytes.size();
      switch (random() % 4) {
        case 0:
          bytes[at] = static_cast<char>(random());
          break;
        case 1:
          bytes.erase(at, random() % 20);
          break;
        case 2:
          bytes.insert(at, bytes.substr(random() % bytes.size(), random() % 50));
          break;
        default:
          bytes.insert(at, std::string(random() % 400, static_cast<char>(random())));
      }
    }
    Http_connection connection(server.port());
    (void)connection.send(bytes);
    if (round % 40 == 0)
      (void)connection.read_until("\r\n\r\n", 1);
  }
  EXPECT_EQ(server.get("/channels.json").status, 200);
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve, serves_a_hundred_clients_at_once) {
  Serving server(stored());
  std::vector<std::unique_ptr<Http_connection>> streams;
  for (int i = 0; i < 129; ++i) {
    streams.push_back(std::make_unique<Http_connection>(server.port()));
    ASSERT_TRUE(streams.back()->send("GET /changes HTTP/1.1\r\nHost: localhost\r\n\r\n"));
  }
  for (int i = 0; i < 128; ++i)
    EXPECT_THAT(streams[static_cast<size_t>(i)]->read_until("retry: 3000\n\n"), HasSubstr(" 200 OK")) << i;
  EXPECT_THAT(streams[128]->read_until("\r\n\r\n"), AllOf(HasSubstr(" 503 "), HasSubstr("Retry-After: 10")));
  std::vector<std::unique_ptr<Http_connection>> readers;
  for (int i = 0; i < 100; ++i) {
    readers.push_back(std::make_unique<Http_connection>(server.port()));
    ASSERT_TRUE(readers.back()->send("GET /channels.json HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
  }
  for (const auto& reader : readers)
    EXPECT_EQ(parse_answer(reader->read_to_end()).status, 200);
  EXPECT_EQ(samples_of(server.get("/metrics").body)["kelvo_http_event_streams"], 128);
  // It ends with all of them open, and they are told.
  EXPECT_EQ(server.end().exit_code, 0);
  EXPECT_THAT(streams.front()->read_to_end(), testing::EndsWith("0\r\n\r\n"));
  EXPECT_TRUE(streams.front()->ended());
}

TEST_F(Serve, ends_at_sigterm_too) {
  Serving server(stored());
  (void)kill(server.command().pid(), SIGTERM);
  EXPECT_EQ(server.command().wait().exit_code, 0);
}

TEST_F(Serve, says_what_is_wrong_in_one_line) {
  const Serving other(stored());
  const std::string port = std::to_string(other.port());
  const struct {
    Words arguments;
    std::string line;
    int code = 1;
  } cases[] = {
      {{"--port", port, "--no-adapter"},
       "port " + port + " at 127.0.0.1: in use by another program; choose another one with --port"},
      {{"--port", "0", "--address", "box"}, "--address box: no address; give one such as 127.0.0.1, ::1 or 0.0.0.0", 2},
      {{"--port", "0", "--address", "192.0.2.1"}, "--address 192.0.2.1: no address of this machine"},
      {{"--host", "a b"}, "--host a b: no name or address of a machine", 2},
      {{"--freq", "506000000"}, "--freq requires --control (see 'kelvo serve --help')", 2},
      {{"--adapter", "0", "--no-adapter"}, "--adapter excludes --no-adapter (see 'kelvo serve --help')", 2},
  };
  for (const auto& c : cases)
    EXPECT_EQ(run_command(joined({{KELVO_COMMAND, "serve", "--db", db_}, c.arguments})), fails(c.line, c.code));
  const std::string none = dir_.file("none.db");
  EXPECT_EQ(run_command({KELVO_COMMAND, "serve", "--port", "0", "--no-adapter", "--db", none}),
            fails(none + ": No such file or directory; make it with 'kelvo scan'"));
}

TEST_F(Serve, with_control_wants_the_token_and_its_own_pages) {
  Serving server(stored({"--control"}));
  EXPECT_THAT(server.token(), testing::MatchesRegex("[0-9a-f]{32}"));
  const std::string right = "do=start&token=" + server.token();
  const struct {
    const char* legend;
    std::string body;
    std::string headers;
    int status;
  } cases[] = {{"no token", "do=start", "", 403},
               {"a wrong one", "do=start&token=0123456789abcdef0123456789abcdef", "", 403},
               {"half of it", "do=start&token=" + server.token().substr(0, 16), "", 403},
               {"another site's page", right, "Origin: http://evil.example\r\n", 403},
               {"a file's page", right, "Origin: null\r\n", 403},
               {"another site's form", right, "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n", 403},
               {"too much", right + std::string(4096, '&'), "", 413},
               {"its own page, without an adapter", right, "Origin: http://" + server.host() + "\r\n", 409},
               {"a program", right, "", 409}};
  for (const auto& c : cases) {
    const Http_result result = server.post("/scan", c.body, c.headers);
    EXPECT_EQ(result.status, c.status) << c.legend;
  }
  EXPECT_EQ(server.post("/channels", right).status, 405);
  EXPECT_EQ(server.ask("PUT", "/scan").headers.at("allow"), "GET, HEAD, POST");
  EXPECT_EQ(server.ask("POST", "/scan").status, 411) << "a body of unknown length";
  EXPECT_THAT(server.get("/scan").body, Not(HasSubstr(server.token())));
}

}  // namespace
