// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <pugixml.hpp>

#include <nlohmann/json.hpp>

#include "tools/guide_fixture.h"
#include "tools/signal/meters.h"
#include "tools/signal/signal_log.h"
#include "tools/signal/signal_plot.h"

// `kelvo signal` under the software adapter, in virtual time.

namespace {

using nlohmann::json;
using support::read_file;
using support::Running_command;
using testing::_;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

const std::string HEADINGS =
    "time,freq_hz,system,status,strength,strength_unit,snr,snr_unit,pre_ber,pre_ber_unit,post_ber,post_ber_unit,"
    "block_errors,block_errors_unit,age_ms";
const std::string NO_LOG = ": is no log of kelvo signal";

class Signal : public Guide_fixture {
 protected:
  Signal() { device_ = "box"; }  // whose readings and quick answers the texts are made for

  Command_result signal(const Words& options, const Words& arguments) const {
    return run(options, joined({{"signal"}, arguments}));
  }
  const std::string log_ = dir_.file("log.csv");
  const Words locked_ = network("x10");
  const Words freq_{"--freq", "506000000"};
};

TEST_F(Signal, is_a_line_a_second) {
  const Command_result result = signal(locked_, joined({freq_, {"--for", "4s"}}));
  EXPECT_THAT(result, ends(0, _, ""));
  Words lines = timed_lines_of(result.out);
  EXPECT_THAT(lines.front(), MatchesRegex("locked, DVB-T, in [0-9]+ ms"));
  lines.erase(lines.begin());
  EXPECT_GE(lines.size(), 2U);
  EXPECT_THAT(lines, Each("signal carrier viterbi sync lock  strength 78 %  SNR 98 %  BER 0, corrected 0  blocks 0"));
}

TEST_F(Signal, of_a_channel_is_that_of_its_multiplex) {
  scan(network());
  for (const char* channel : {"Шпак", "#3", "11"}) {
    const Command_result result = signal(locked_, {channel, "--for", "3s", "--json"});
    ASSERT_THAT(result, ends(0, Not(""), "")) << channel;
    EXPECT_EQ(json::parse(support::lines_of(result.out).front())["freq_hz"], 514000000) << channel;
  }
  EXPECT_THAT(signal(locked_, {"Keegi"}), ends(1, "", StartsWith("kelvo: channel ")));
}

TEST_F(Signal, is_an_object_a_second_for_programs) {
  const Command_result result = signal(locked_, joined({freq_, {"--for", "4s", "--json"}}));
  EXPECT_THAT(result, ends(0, _, ""));
  for (const std::string& text : support::lines_of(result.out)) {
    json line = json::parse(text);
    EXPECT_THAT(line["time"].get<std::string>(), MatchesRegex("2026-03-01T18:00:[0-9.]{6}Z"));
    EXPECT_GE(line["age_ms"], 0);
    line.erase("time");
    line.erase("age_ms");
    line["strength"]["value"] = std::round(line["strength"]["value"].get<double>());
    line["snr"]["value"] = std::round(line["snr"]["value"].get<double>());
    EXPECT_EQ(line, json::parse(R"({"freq_hz": 506000000, "system": "DVB-T", "status": 31, "locked": true,
      "strength": {"value": 78, "unit": "%"}, "snr": {"value": 98, "unit": "%"}, "pre_ber": {"value": 0, "unit": "rate"},
      "post_ber": {"value": 0, "unit": "rate"}, "block_errors": {"value": 0, "unit": "rate"}})"));
  }
}

TEST_F(Signal, of_the_box_has_its_scales) {
  const Command_result result = signal(locked_, joined({freq_, {"--for", "4s", "--json", "--profile", "box"}}));
  EXPECT_THAT(result, ends(0, Not(""), ""));
  const json line = json::parse(support::lines_of(result.out).back());
  EXPECT_EQ(line["strength"], json::parse(R"({"value": 100, "unit": "box"})"));
  EXPECT_EQ(line["snr"]["unit"], "box");
  EXPECT_EQ(std::round(line["snr"]["value"].get<double>() * 10), 171) << "5 of 255 is noise";
  EXPECT_EQ(line["post_ber"], json::parse(R"({"value": 100, "unit": "box"})"));
}

TEST_F(Signal, without_a_lock_is_tried_again_and_a_failure_at_the_end) {
  const std::string calls = dir_.file("calls");
  const Command_result result = signal(joined({locked_, {"--log", calls}}), {"--freq", "530000000", "--for", "9s"});
  EXPECT_THAT(result, ends(1, _, "kelvo: 530.000 MHz: no signal\n"));
  EXPECT_THAT(timed_lines_of(result.out), Contains("no signal").Times(1)) << "said once";
  EXPECT_GE(support::count_of(read_file(calls), "FE_SET_PROPERTY"), 2U);
}

TEST_F(Signal, shows_a_lock_that_comes_late) {
  Running_command running(
      controlled(joined({network("x4"), {"--signal", "506000000:status=0"}}), joined({{"signal"}, freq_})));
  ASSERT_TRUE(running.wait_for_out("no signal\n")) << running.out();
  control("adapter 0 status 506000000 = 0x1f");
  ASSERT_TRUE(running.wait_for_out("locked, DVB-T, in ")) << running.out();
  EXPECT_THAT(ended_by(SIGINT, running), ends(0, HasSubstr(" none  strength ")));
}

TEST_F(Signal, an_interrupt_ends_it_also_in_the_middle_of_a_tuning) {
  Running_command running(kelvo(network("x1"), {"signal", "--freq", "530000000", "--lock-time", "60"}));
  ASSERT_TRUE(running.wait_for_out(" none  strength ")) << running.out();
  EXPECT_THAT(ended_by(SIGTERM, running), ends(1, _, HasSubstr("530.000 MHz: ")));
}

TEST_F(Signal, has_meters_on_a_terminal) {
  const Command_result result = support::run_on_terminal(kelvo(locked_, joined({{"signal"}, freq_, {"--for", "4s"}})));
  EXPECT_THAT(result, ends(0, AllOf(HasSubstr("506.000 MHz  locked, DVB-T, in "),
                                    HasSubstr("status    signal carrier viterbi sync lock\r\n"),
                                    HasSubstr("strength  [########################......] 78 %\r\n"),
                                    HasSubstr("SNR       [#############################.] 98 %\r\n"),
                                    HasSubstr("SNR, 60 s ██"))));
}

TEST_F(Signal, is_added_to_a_log) {
  for (const size_t least : {3U, 5U}) {
    EXPECT_EQ(signal(locked_, joined({freq_, {"--for", "4s", "--log", log_}})).exit_code, 0);
    const Words lines = support::lines_of(read_file(log_));
    EXPECT_EQ(lines.front(), HEADINGS);
    EXPECT_GE(lines.size(), least);
    for (size_t i = 1; i < lines.size(); ++i)
      EXPECT_THAT(lines[i],
                  MatchesRegex("2026-03-01T18:00:[0-9.]{6}Z,506000000,DVB-T,31,78[.0-9]*,%,98[.0-9]*,%,0,rate,"
                               "0,rate,0,rate,[0-9]+"));
  }
}

TEST_F(Signal, a_file_that_is_no_log_is_left_alone) {
  support::write_file(log_, "precious\n");
  EXPECT_EQ(signal(locked_, joined({freq_, {"--log", log_}})),
            fails(log_ + ": exists and is no log of kelvo signal; name another file"));
  EXPECT_EQ(read_file(log_), "precious\n");
  EXPECT_EQ(signal(locked_, joined({freq_, {"--log", dir_.file("none/log")}})),
            fails(dir_.file("none/log") + ": cannot be written: No such file or directory"));
}

TEST_F(Signal, is_drawn_from_a_log_and_at_the_end) {
  const std::string live = dir_.file("live.svg");
  const std::string later = dir_.file("later.svg");
  ASSERT_EQ(signal(locked_, joined({freq_, {"--for", "4s", "--log", log_, "--plot", live}})).exit_code, 0);
  EXPECT_THAT(run_command({KELVO_COMMAND, "signal", "--from", log_, "--plot", later}),
              ends(0, "", MatchesRegex("kelvo: " + later + ": [0-9]+ samples\n")));
  for (const std::string& file : {live, later}) {
    pugi::xml_document picture;
    ASSERT_TRUE(picture.load_file(file.c_str())) << file;
    std::vector<std::string> names;
    for (const auto& name : picture.select_nodes("//text[@class='name']"))
      names.emplace_back(name.node().text().get());
    EXPECT_EQ(names, (Words{"Strength (%)", "SNR (%)", "Bit errors before correction (rate)", "Bit errors (rate)",
                            "Block errors (rate)"}));
    EXPECT_STREQ(picture.select_node("//text[@class='title']").node().text().get(), "506.000 MHz");
  }
}

TEST_F(Signal, what_cannot_be_drawn_is_one_line) {
  const auto plot = [&](const std::string& contents) {
    support::write_file(log_, contents);
    const std::string svg = dir_.file("plot.svg");
    const Command_result result = run_command({KELVO_COMMAND, "signal", "--from", log_, "--plot", svg});
    EXPECT_FALSE(std::filesystem::exists(svg));
    return result;
  };
  const std::string good = "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,-52.5,dB,24,dB,,,,,,,100\n";
  EXPECT_EQ(plot(""), fails(log_ + NO_LOG));
  EXPECT_EQ(plot("time\n"), fails(log_ + NO_LOG));
  EXPECT_EQ(plot(HEADINGS + "\n"), fails(log_ + ": has no samples"));
  EXPECT_EQ(plot(HEADINGS + "\n" + good.substr(0, 40)), fails(log_ + ": has no samples")) << "cut off";
  for (const char* bad :
       {"x", "yesterday,506000000,DVB-T,31,,,,,,,,,,,100", "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,,,,,,,,,,,",
        "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,nan,dB,,,,,,,,,100",
        "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,1e999,dB,,,,,,,,,100",
        "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,1,furlong,,,,,,,,,100",
        "2026-03-01T18:00:01.000Z,506000000,DVB-T,31,1,,,,,,,,,,100",
        "2026-03-01T18:00:01.000Z,99999999999,DVB-T,31,,,,,,,,,,,100"})
    EXPECT_EQ(plot(HEADINGS + "\n" + good + bad + "\n" + good),
              fails(log_ + ": line 3 is no line of a log of kelvo signal"))
        << bad;
  EXPECT_EQ(run_command({KELVO_COMMAND, "signal", "--from", dir_.file("none"), "--plot", "-"}),
            fails(dir_.file("none") + ": cannot be read: No such file or directory"));
}

TEST_F(Signal, wrong_arguments_are_one_line) {
  const std::string help = " (see 'kelvo signal --help')";
  const struct {
    Words arguments;
    std::string line;
  } cases[] = {
      {{}, "signal: of what? give a channel or --freq" + help},
      {{"1", "--freq", "506000000"}, "CHANNEL excludes --freq" + help},
      {{"--from", "x"}, "--from: says what to draw and not where to; give --plot, too"},
      {{"--from", "x", "--freq", "506000000"}, "--freq excludes --from" + help},
      {{"--freq", "506000000", "--plot", "-"}, "--plot -: only with --from; the readings go to standard output"},
      {{"--freq", "506000000", "--profile", "cable"}, "--profile: cable not in {any,box}" + help},
      {{"--freq", "506000000", "--profile", "box", "--lock-time", "1"},
       "--lock-time: not with --profile box, which waits 0.15 s"},
      {{"--freq", "506000000", "--lock-time", "0"}, "--lock-time: Value 0 not in range 0.100000 to 60.000000" + help},
      {{"--freq", "506000000", "--for", "5"}, "--for 5: not a time; give for example 90s, 10m or 1h"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(run_command(joined({{KELVO_COMMAND, "signal"}, c.arguments})), fails(c.line, 2));
}

TEST(Signal_log_file, gives_back_what_was_added_and_goes_on_behind_a_line_that_was_cut_off) {
  const support::Temp_dir dir;
  const std::string file = dir.file("log.csv");
  Signal_sample sample{1772388000250, 506000000, "DVB-T2 pipe 3", {}};
  sample.readings.age_ms = 12;
  sample.readings.status = 0x1F;
  sample.readings.strength = {SCALE_DECIBEL, -52.375};
  sample.readings.snr = {SCALE_RELATIVE, 63.5};
  sample.readings.post_ber = {SCALE_RATE, 2.5e-7};
  sample.readings.block_errors = {SCALE_DRIVER, 4294967295};
  Signal_log(file).add(sample);
  support::write_file(file, read_file(file) + "2026-03-01T18");
  EXPECT_EQ(read_signal_log(file).size(), 1U);
  const std::vector<Signal_sample> samples = read_signal_log(file);
  ASSERT_EQ(samples.size(), 1U);
  const Signal_readings& read = samples[0].readings;
  EXPECT_EQ(samples[0].time_ms, sample.time_ms);
  EXPECT_EQ(samples[0].freq, sample.freq);
  EXPECT_EQ(samples[0].system, sample.system);
  EXPECT_EQ(read.age_ms, 12);
  EXPECT_EQ(read.status, 0x1FU);
  EXPECT_EQ(read.strength.scale, SCALE_DECIBEL);
  EXPECT_EQ(read.strength.value, -52.375);
  EXPECT_EQ(read.snr.scale, SCALE_RELATIVE);
  EXPECT_EQ(read.snr.value, 63.5);
  EXPECT_EQ(read.pre_ber.scale, SCALE_ABSENT);
  EXPECT_EQ(read.post_ber.value, 2.5e-7);
  EXPECT_EQ(read.block_errors.scale, SCALE_DRIVER);
  EXPECT_EQ(read.block_errors.value, 4294967295.0);
}

TEST(Readings_line, has_every_scale_with_its_unit_and_absent_ones_as_a_dash) {
  Signal_readings readings;
  EXPECT_EQ(readings_line(readings), "none  strength -  SNR -  BER -  blocks -");
  readings.status = 0x13;
  readings.strength = {SCALE_DRIVER, 51400};
  readings.snr = {SCALE_DECIBEL, 24.06};
  readings.pre_ber = {SCALE_RATE, 2.14e-4};
  readings.post_ber = {SCALE_RATE, 0};
  EXPECT_EQ(readings_line(readings),
            "signal carrier lock  strength 51400 (driver)  SNR 24.1 dB  BER 2.1e-04, corrected 0  blocks -");
  readings = {};
  readings.strength = {SCALE_BOX, 100};
  readings.post_ber = {SCALE_BOX, 97};
  EXPECT_EQ(readings_line(readings), "none  strength 100 %  SNR -  BER quality 97 of 100  blocks -");
}

TEST(Meter_lines, draw_bars_and_a_minute_and_fit_the_screen) {
  Meters meters;
  Signal_readings readings;
  for (int second = 0; second < 70; ++second) {
    readings.snr = {SCALE_DECIBEL, second < 35 ? 0.0 : 35.0};
    meters.add(readings);
  }
  readings.strength = {SCALE_DECIBEL, -60};
  std::string graph;
  for (int i = 0; i < 60; ++i)
    graph += i < 25 ? "▁" : "█";
  EXPECT_EQ(meters.lines(readings, 100),
            (std::vector<std::string>{"status    none", "strength  [###############...............] -60.0 dBm",
                                      "SNR       [##############################] 35.0 dB", "BER       -",
                                      "blocks    -", "SNR, 60 s " + graph}));
  EXPECT_EQ(meters.lines(readings, 14).back(), "SNR, 60 s ███");
  readings.snr = {};
  EXPECT_EQ(meters.lines(readings, 100)[2], "SNR       [                              ] -");
}

TEST(Picture_of_signals, breaks_its_lines_where_nothing_was_measured) {
  std::vector<Signal_sample> samples(5, {1772388000000, 506000000, "DVB-T", {}});
  for (size_t i = 0; i < samples.size(); ++i) {
    samples[i].time_ms += static_cast<int64_t>(i) * 1000 + (i == 4 ? 60'000 : 0);
    samples[i].readings.snr = {SCALE_DECIBEL, 20.0 + static_cast<double>(i)};
    samples[i].readings.status = i == 2 ? 0 : 0x1F;
  }
  pugi::xml_document picture;
  ASSERT_TRUE(picture.load_string(signal_picture(samples, "506.000 MHz").c_str()));
  const std::string path = picture.select_node("//path").node().attribute("d").value();
  EXPECT_EQ(std::count(path.begin(), path.end(), 'M'), 2) << path;
  // Locked, not, locked again, and after the gap once more.
  EXPECT_EQ(picture.select_nodes("//rect[@height='16']").size(), 4U);
  EXPECT_THAT(picture.child("svg").attribute("aria-label").value(), HasSubstr("5 samples, 80 % locked"));
}

}  // namespace
