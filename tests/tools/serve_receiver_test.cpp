// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// `kelvo serve` with an adapter made of software, in virtual time.
#include <nlohmann/json.hpp>

#include "tools/exposition_check.h"
#include "tools/guide_fixture.h"
#include "tools/http_client.h"

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class Serve_receiver : public Guide_fixture {
 protected:
  Words serve(const Words& options, const Words& arguments) const {
    return kelvo(options, joined({{"serve", "--port", "0"}, arguments}));
  }
  static std::map<std::string, double> metrics(const Serving& server) {
    return samples_of(server.get("/metrics").body);
  }
  // Waits until the page of the scan holds `text`, and returns it.
  static std::string scan_page_with(const Serving& server, const std::string& text) {
    std::string page;
    EXPECT_TRUE(support::wait_for(
        [&] {
          page = server.get("/scan?token=" + server.token()).body;
          return page.find(text) != std::string::npos;
        },
        std::chrono::seconds(60)))
        << page;
    return page;
  }
};

TEST_F(Serve_receiver, scans_when_its_page_asks_and_receives_what_it_found) {
  Serving server(
      serve(network("x20"), {"--control", "--freq", "506000000", "--freq", "514000000", "--freq", "522000000"}));
  EXPECT_THAT(server.command().out(), HasSubstr(" with adapter 0; scans are started at http://"));
  EXPECT_EQ(json::parse(server.get("/channels.json").body)["channels"], json::array());
  const std::string before = server.get("/scan?token=" + server.token()).body;
  EXPECT_THAT(before, AllOf(HasSubstr("No scan since the server was started."),
                            HasSubstr("<button class=\"do\" name=\"do\" value=\"start\">Start a scan</button>")));
  EXPECT_THAT(server.get("/scan?token=wrong").body,
              AllOf(Not(HasSubstr("<form")), HasSubstr("Open the page by the URL that the server printed")));
  EXPECT_EQ(server.post("/scan", "do=start").status, 403);
  EXPECT_EQ(metrics(server)["kelvo_scan_running"], 0);

  Http_connection stream(server.port());
  ASSERT_TRUE(stream.send("GET /changes HTTP/1.1\r\nHost: localhost\r\n\r\n"));
  const std::string start = "do=start&token=" + server.token();
  const Http_result started = server.post("/scan", start, "Origin: http://" + server.host() + "\r\n");
  EXPECT_EQ(started.status, 303);
  EXPECT_EQ(started.headers.at("location"), "scan?token=" + server.token());
  EXPECT_EQ(server.post("/scan", start).body, "a scan runs already\n");
  EXPECT_THAT(scan_page_with(server, "<progress max=\"3\""),
              HasSubstr("<button class=\"do\" name=\"do\" value=\"stop\">Stop the scan</button>"));
  const std::string after = scan_page_with(server, "<b id=\"end\">done</b>, 3 services on 3 frequencies.");
  for (const char* row : {"<tr><th scope=\"row\">506.000 MHz</th><td class=\"count\">2</td>",
                          "<tr><th scope=\"row\">514.000 MHz</th><td class=\"count\">1</td>",
                          "<tr class=\"gone\"><th scope=\"row\">522.000 MHz</th><td class=\"count\">0</td>"})
    EXPECT_THAT(after, HasSubstr(row));
  const std::string events = stream.read_until("event: guide");
  EXPECT_THAT(events, AllOf(HasSubstr("event: scan\ndata: "), HasSubstr("event: channels\ndata: ")));
  EXPECT_THAT(stream.read_until("event: signal"), HasSubstr("event: signal"));
  const auto names = [&] {
    Words out;
    const json document = json::parse(server.get("/channels.json").body);
    for (const json& channel : document["channels"])
      out.push_back(channel["name"]);
    return out;
  };
  (void)support::wait_for([&] { return names().size() == 3; });
  EXPECT_EQ(names(), (Words{"Kuldnokk", "Öökull", "Шпак"}));

  // It goes on with the guide of what is there, the first multiplex first.
  const std::string first = "{adapter=\"0\",frequency=\"506000000\"}";
  std::map<std::string, double> now;
  EXPECT_TRUE(support::wait_for(
      [&] {
        now = metrics(server);
        return now["kelvo_guide_completeness_ratio" + first] == 1;
      },
      std::chrono::seconds(60)));
  EXPECT_EQ(now["kelvo_adapter_up{adapter=\"0\"}"], 1);
  EXPECT_EQ(now["kelvo_signal_locked" + first], 1);
  EXPECT_EQ(now["kelvo_guide_services" + first], 2);
  EXPECT_GE(now["kelvo_guide_age_seconds" + first], 0);
  EXPECT_GT(now["kelvo_sections_total" + first], 10);
  EXPECT_GT(now["kelvo_sections_total{adapter=\"0\",frequency=\"514000000\"}"], 0);
  EXPECT_EQ(now["kelvo_section_crc_errors_total" + first], 0);
  EXPECT_TRUE(now.contains("kelvo_section_overflows_total" + first));
  EXPECT_FALSE(now.contains("kelvo_sections_total{adapter=\"0\",frequency=\"522000000\"}"));
  EXPECT_EQ(now["kelvo_scan_frequencies_done"], 3);
  EXPECT_TRUE(support::wait_for([&] { return metrics(server)["kelvo_guide_events{frequency=\"506000000\"}"] == 96; },
                                std::chrono::seconds(60)));
  EXPECT_THAT(server.get("/channels").body,
              AllOf(HasSubstr("Adapter 0: locked"), HasSubstr("<bdi class=\"cut\">Uudised</bdi>")));
  EXPECT_EQ(server.end().exit_code, 0);
  EXPECT_EQ(integrity(), "ok");
}

// By Prometheus' own check, after which samples_of() is made.
TEST_F(Serve_receiver, metrics_pass_the_check_of_who_collects_them) {
  Command_result checked = run_command({"sh", "-c", "command -v \"$0\" || command -v promtool", KELVO_PROMTOOL});
  if (checked.exit_code != 0)
    GTEST_SKIP() << "no promtool here; 'make test' fetches it where there is a network";
  const std::string promtool = checked.out.substr(0, checked.out.find('\n'));
  const std::string file = dir_.file("metrics");
  const auto check = [&](const std::string& text) {
    support::write_file(file, text);
    return run_command({"sh", "-c", "\"$0\" check metrics <\"$1\" 2>&1", promtool, file});
  };
  EXPECT_EQ(check("kelvo_channels 1\n"), (Command_result{3, "kelvo_channels no help text\n", ""})) << "it does look";
  scan(network("x20"));
  run_sql(db_, "UPDATE kanalid SET network_name = 'a\"b\\c' || char(10) || '<ä>' WHERE freq = 514000000");
  Serving server(serve(network("x20"), {"--control", "--freq", "506000000"}));
  ASSERT_EQ(server.post("/scan", "do=start&token=" + server.token()).status, 303);
  (void)scan_page_with(server, "<b id=\"end\">done</b>");
  std::string text;
  EXPECT_TRUE(support::wait_for(
      [&] {
        text = server.get("/metrics").body;
        const std::map<std::string, double> now = samples_of(text);
        return now.contains("kelvo_guide_age_seconds{adapter=\"0\",frequency=\"506000000\"}") &&
               now.contains("kelvo_guide_events{frequency=\"506000000\"}");
      },
      std::chrono::seconds(60)));
  EXPECT_EQ(check(text), prints("")) << text;
  EXPECT_EQ(server.end().exit_code, 0);
  EXPECT_EQ(check(Serving(serve(network("x20"), {"--no-adapter"})).get("/metrics").body), prints(""));
}

TEST_F(Serve_receiver, stops_a_scan_that_is_not_wanted_any_more) {
  Serving server(serve(at_speed("x5", {}), {"--control", "--band", "uhf"}));
  ASSERT_EQ(server.post("/scan", "do=start&token=" + server.token()).status, 303);
  (void)scan_page_with(server, "<progress max=\"49\"");
  EXPECT_EQ(server.post("/scan", "do=halt&token=" + server.token()).status, 400);
  EXPECT_EQ(server.post("/scan", "do=stop&token=" + server.token()).status, 303);
  EXPECT_THAT(scan_page_with(server, "<b id=\"end\">stopped</b>"), HasSubstr("not scanned: interrupted"));
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_receiver, reads_its_signal_and_looks_for_an_adapter_that_has_gone) {
  device_ = "box";  // whose readings the values are those of
  scan(network("x20"));
  Serving server(controlled(network("x20"), {"serve", "--port", "0"}));
  const std::string first = "{adapter=\"0\",frequency=\"506000000\"}";
  std::map<std::string, double> now;
  EXPECT_TRUE(support::wait_for(
      [&] {
        now = metrics(server);
        return now["kelvo_signal_locked" + first] == 1 && now.contains("kelvo_signal_strength_ratio" + first);
      },
      std::chrono::seconds(60)));
  EXPECT_NEAR(now["kelvo_signal_strength_ratio" + first], 0.784, 0.001);
  EXPECT_NEAR(now["kelvo_signal_snr_ratio" + first], 0.98, 0.001);
  EXPECT_EQ(now["kelvo_signal_block_error_ratio" + first], 0);
  control("adapter 0 unplug");
  EXPECT_TRUE(server.command().wait_for_err("kelvo: adapter 0 is gone; it is looked for again\n"));
  EXPECT_TRUE(support::wait_for([&] { return metrics(server)["kelvo_adapter_up{adapter=\"0\"}"] == 0; }));
  EXPECT_FALSE(metrics(server).contains("kelvo_signal_locked" + first));
  EXPECT_EQ(server.get("/channels").status, 200);
  EXPECT_EQ(server.end().exit_code, 0);
}

TEST_F(Serve_receiver, ends_clients_that_take_too_long) {
  make_prepared_db(db_);
  Serving server(serve(at_speed("x20", {}), {"--no-adapter"}));
  Http_connection silent(server.port()), slow(server.port());
  ASSERT_TRUE(slow.send("GET / HTTP/1.1\r\nHost: localhost\r\nX: "));
  // A byte each two seconds is not silent, and a request has twenty in all.
  bool open = true;
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (open && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    open = slow.send("a");
  }
  EXPECT_FALSE(open);
  (void)silent.read_to_end();
  EXPECT_TRUE(silent.ended());
  EXPECT_EQ(server.get("/channels.json").status, 200);
  EXPECT_EQ(server.end().exit_code, 0);
}

}  // namespace
