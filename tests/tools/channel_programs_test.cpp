// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/sample_streams.h"

// The lists of `kelvo channels`, read by the programs that they are for, which tune by them on the software adapter.

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

class Channel_programs : public Command_fixture {
 protected:
  Channel_programs() { device_ = "si2168"; }

  static Words samples_on_air() {
    const Words& files = sample_streams();
    return {"--time", "x8",
            "--mux",  "474000000=" + files[0],
            "--mux",  "498000000,system=dvbt2,plp=1=" + files[1],
            "--mux",  "522000000=" + files[2]};
  }

  // Scans, then makes what a list has to cope with: names that a syntax would take apart, the same name twice in
  // another case, none at all, a word of a syntax; another bandwidth; a pipe that was asked for.
  void SetUp() override {
    on_air_ = samples_on_air();
    const Command_result scanned =
        run(on_air_, {"scan", "--freq", "474000000", "--freq", "498000000", "--freq", "522000000"});
    ASSERT_EQ(scanned.exit_code, 0) << scanned.err;
    run_sql(db_, R"(
        UPDATE kanalid SET serv_name = 'A: [1]; b, c|@ "d"' WHERE pat_prnr = 1101;
        UPDATE kanalid SET serv_name = 'KULDNOKK 2', prov_name = 'a:b;c,d' WHERE pat_prnr = 1103;
        UPDATE kanalid SET serv_name = '' WHERE pat_prnr = 1104;
        UPDATE kanalid SET serv_name = 'Channel' WHERE pat_prnr = 1105;
        UPDATE kanalid SET serv_name = '#EXTINF %s' WHERE pat_prnr = 1106;
        UPDATE kanalid SET freq = 498000001 WHERE freq = 498000000;
        UPDATE tuned_multiplex SET freq = 498000001, pipe = 1, modulation = 3 WHERE freq = 498000000;
        UPDATE tuned_multiplex SET bandwidth_hz = 7000000, modulation = 3 WHERE freq = 522000000;)");
    nameless_ = "Channel #" + row_of("1104");
    twin_ = "KULDNOKK 2 #" + row_of("1103");
  }

  std::string row_of(const std::string& service) const {
    return value(db_, "SELECT channel FROM kanalid WHERE pat_prnr = " + service);
  }

  // Writes the list and returns its file.
  std::string list(const std::string& format) const {
    const std::string file = dir_.file("list." + format);
    const Command_result written =
        run_command({KELVO_COMMAND, "channels", "--db", db_, "--format", format, "-o", file});
    EXPECT_THAT(written,
                ends(0, "", testing::StartsWith("1 of 24 channels left out: 1 hidden; --all writes them, too.\n")));
    return file;
  }

  // What a program printed and asked the adapter for.
  struct Tuned {
    std::string text;
    std::string calls;
  };
  Tuned tuned_by(const Words& program, const support::Environment& env = {}, const Words& starter = {}) const {
    const std::string log = dir_.file("log");
    std::filesystem::remove(log);
    const Command_result result = run_command(
        joined({starter, {SOFTDVB_COMMAND, "--device", device_, "--log", log}, on_air_, {"--"}, program}), env);
    return {result.out + result.err, support::read_file(log)};
  }

  // A program that plays for ever, ended once it has asked the adapter for this, or after a minute.
  Words until(const std::string& asked, const Words& program) const {
    return joined({{"sh", "-c",
                    "log=$1 asked=$2; shift 2; \"$@\" & "
                    "for i in $(seq 600); do sleep 0.8; ! grep -q \"$asked\" \"$log\" || break; done; kill $!; wait",
                    "sh", dir_.file("log"), asked},
                   program});
  }

  static bool installed(const std::string& program) { return run_command({"which", program}).exit_code == 0; }

  Words on_air_;
  std::string nameless_;
  std::string twin_;
};

#define NEEDS(program)     \
  if (!installed(program)) \
  GTEST_SKIP() << program " is not installed"

TEST_F(Channel_programs, dvbv5_zap_tunes_by_every_name_to_every_system) {
  NEEDS("dvbv5-zap");
  NEEDS("umockdev-wrapper");
  const std::string file = list("dvbv5");
  const struct {
    std::string name;
    const char* asked;  // frequency, modulation, bandwidth; pipe; system
  } cases[] = {
      {"A| (1). b. c|(at) \"d\"", "3=474000000 4=6 5=8000000 .*17=3 "},
      {twin_, "3=474000000 4=6 5=8000000 .*17=3 "},
      {nameless_, "3=474000000 4=6 5=8000000 .*17=3 "},
      {"Channel #" + row_of("1105"), "3=474000000 4=6 5=8000000 .*17=3 "},
      {"Raadio Tõrvik", "3=522000000 4=3 5=7000000 .*17=3 "},
      {"Ψαρόνι 1", "3=498000000 4=3 5=8000000 .*42=1 17=16 "},
  };
  for (const auto& c : cases) {
    const Tuned tuned = tuned_by({"dvbv5-zap", "-c", file, "-w", "1", "-x", c.name});
    EXPECT_THAT(tuned.text, HasSubstr("Lock   (0x1f)")) << c.name;
    EXPECT_THAT(tuned.calls, ContainsRegex(std::string("FE_SET_PROPERTY ") + c.asked)) << c.name;
  }
}

TEST_F(Channel_programs, tzap_tunes_by_every_name) {
  NEEDS("tzap");
  const std::string file = list("zap");
  EXPECT_THAT(support::read_file(file), testing::Not(HasSubstr("498000000"))) << "it cannot say DVB-T2";
  const struct {
    std::string name;
    const char* pids;
    const char* asked;  // bw: 0 for 8 MHz, 1 for 7; const: 3 for QAM-64, 6 for automatic
  } cases[] = {
      {"A| (1). b. c|(at) \"d\"", "video pid 0x0101, audio pid 0x0102", "freq=474000000 inv=2 bw=0 hp=9 lp=9 const=6 "},
      {"Kuldnokk 2", "video pid 0x0111, audio pid 0x0112", "freq=474000000 inv=2 bw=0 hp=9 lp=9 const=6 "},
      {twin_, "video pid 0x0121, audio pid 0x0122", "freq=474000000 inv=2 bw=0 hp=9 lp=9 const=6 "},
      {"Raadio Tõrvik", "video pid 0x0000, audio pid 0x0101", "freq=522000000 inv=2 bw=1 hp=9 lp=9 const=3 "},
  };
  for (const auto& c : cases) {
    const Tuned tuned = tuned_by({"tzap", "-c", file, "-x", c.name});
    EXPECT_THAT(tuned.text, AllOf(HasSubstr(c.pids), HasSubstr("FE_HAS_LOCK"))) << c.name;
    EXPECT_THAT(tuned.calls, HasSubstr(std::string("FE_SET_FRONTEND ") + c.asked)) << c.name;
  }
}

TEST_F(Channel_programs, vdr_starts_reads_all_channels_and_tunes) {
  NEEDS("vdr");
  const std::string channels = support::read_file(list("vdr"));
  const std::string folder = dir_.file("vdr");
  std::filesystem::create_directory(folder);
  support::write_file(folder + "/channels.conf", channels);
  const Tuned tuned = tuned_by({"python3", KELVO_VDR_LIST, folder, dir_.file("log"), "11=498000000", "101=522000000"},
                               {{"LC_ALL", "C.UTF-8"}});
  const size_t end = tuned.text.find("switching: ");
  ASSERT_NE(end, std::string::npos) << tuned.text;
  EXPECT_EQ(tuned.text.substr(0, end), channels) << "as it was written, so it was understood";
  EXPECT_THAT(tuned.text, testing::Not(HasSubstr("Error")));
  EXPECT_THAT(tuned.calls, ContainsRegex("FE_SET_PROPERTY 17=16 3=498000000 .*5=8000000 .*4=3 .*42=1 "));
  EXPECT_THAT(tuned.calls, ContainsRegex("FE_SET_PROPERTY 17=3 3=522000000 .*5=7000000 .*4=3 "));
}

TEST_F(Channel_programs, vlc_plays_the_tracks_of_xspf) {
  NEEDS("cvlc");
  Words as_user;  // VLC refuses to run as root
  if (geteuid() == 0) {
    as_user = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};
    if (run_command(joined({as_user, {"test", "-x", SOFTDVB_COMMAND}})).exit_code != 0)
      GTEST_SKIP() << "this folder is closed to the user nobody";
    const std::string streams = std::filesystem::path(sample_streams()[0]).parent_path();
    ASSERT_EQ(run_command({"chown", "-R", "nobody", dir_.path(), streams}).exit_code, 0);
  }
  const std::string tracks = support::read_file(list("xspf"));
  const size_t first = tracks.find("<track>");
  const struct {
    std::string title;
    const char* asked;
    const char* stream;
  } cases[] = {{"A: [1]; b, c|@ \"d\"", "17=3 3=474000000 .*5=8000000 ", "pid=0x101 "},
               {"Kuldnokk 2", "17=3 3=474000000 .*5=8000000 ", "pid=0x111 "},
               {"#EXTINF %s", "17=3 3=474000000 .*5=8000000 ", "pid=0x152 "},
               {"Ψαρόνι HD", "17=16 3=498000000 .*5=8000000 .*42=1 ", "pid=0x112 "},
               {"Raadio Tõrvik", "17=3 3=522000000 .*5=7000000 ", "pid=0x101 "}};
  for (const auto& c : cases) {
    const size_t title = tracks.find("<title>" + c.title + "</title>");
    ASSERT_NE(title, std::string::npos) << c.title << tracks;
    const size_t begin = tracks.rfind("<track>", title);
    const size_t end = tracks.find("</track>", title) + std::string_view("</track>").size();
    const std::string playlist = dir_.file("one.xspf");
    support::write_file(playlist,
                        tracks.substr(0, first) + tracks.substr(begin, end - begin) + "</trackList></playlist>\n");
    const Tuned tuned =
        tuned_by(until(std::string("DMX_SET_PES_FILTER ") + c.stream,
                       {"cvlc", "--intf", "dummy", "--no-video", "--no-audio", "--no-media-library", playlist}),
                 {{"HOME", dir_.path()}}, as_user);
    EXPECT_THAT(tuned.calls, ContainsRegex(std::string("FE_SET_PROPERTY .*") + c.asked)) << c.title << tuned.text;
    EXPECT_THAT(tuned.calls, ContainsRegex(std::string("DMX_SET_PES_FILTER ") + c.stream + "output=2 .* = 0\n"))
        << c.title << tuned.text;
  }
}

// Names, languages, PIDs and systems as broadcasters send them.
class Recorded_channels : public Channel_programs {
 protected:
  void SetUp() override {
    const std::string rai = support::capture_file("it_rai_2022.ts");
    const std::string mediaset = support::capture_file("it_mediaset_2018_psi.ts");
    if (rai.empty() || mediaset.empty())
      GTEST_SKIP() << "no recorded stream";
    on_air_ = {"--time", "x8", "--mux", "506000000=" + rai, "--mux", "514000000=" + mediaset};
    const Command_result scanned = run(on_air_, {"scan", "--freq", "506000000", "--freq", "514000000"});
    ASSERT_EQ(scanned.exit_code, 0) << scanned.err;
  }
};

TEST_F(Recorded_channels, are_read_by_vdr_as_they_were_written) {
  NEEDS("vdr");
  const std::string folder = dir_.file("vdr");
  std::filesystem::create_directory(folder);
  const std::string channels = run_command({KELVO_COMMAND, "channels", "--db", db_, "--all", "--format", "vdr"}).out;
  Words lines = support::lines_of(channels);
  std::erase_if(lines, [](const std::string& line) { return line.front() == ':'; });
  EXPECT_EQ(std::to_string(lines.size()), value(db_, "SELECT count(*) FROM kanalid"));
  support::write_file(folder + "/channels.conf", channels);
  const Tuned read = tuned_by({"python3", KELVO_VDR_LIST, folder, dir_.file("log")}, {{"LC_ALL", "C.UTF-8"}});
  EXPECT_EQ(read.text, channels);
}

TEST_F(Recorded_channels, are_tuned_to_by_dvbv5_zap) {
  NEEDS("dvbv5-zap");
  NEEDS("umockdev-wrapper");
  const std::string file = dir_.file("channels");
  EXPECT_EQ(run_command({KELVO_COMMAND, "channels", "--db", db_, "--format", "dvbv5", "-o", file}).exit_code, 0);
  const Tuned tuned = tuned_by({"dvbv5-zap", "-c", file, "-w", "1", "-x", "Rai 3 TGR Emilia Romagna"});
  EXPECT_THAT(tuned.text, HasSubstr("Lock   (0x1f)"));
  EXPECT_THAT(tuned.calls, HasSubstr("FE_SET_PROPERTY 3=506000000 "));
}

TEST_F(Channel_programs, mpv_finds_the_links_of_m3u_in_the_list_of_vdr) {
  NEEDS("mpv");
  support::write_file(dir_.file("channels.conf.ter"), support::read_file(list("vdr")));
  const std::string links = support::read_file(list("m3u"));
  const struct {
    std::string link;
    const char* asked;
  } cases[] = {{"dvb://A| (1). b. c|(at) \"d\"", "17=3 3=474000000 "},
               {"dvb://Channel #EXTINF %s", "17=3 3=474000000 "},
               {"dvb://Ψαρόνι 1", "17=16 3=498000000 "}};
  for (const auto& c : cases) {
    EXPECT_THAT(links, HasSubstr("\n" + c.link + "\n"));
    const std::string playlist = dir_.file("one.m3u");
    support::write_file(playlist, "#EXTM3U\n" + c.link + "\n");
    const Tuned tuned =
        tuned_by(until("FE_SET_PROPERTY.* 3=", {"mpv", "--load-unsafe-playlists", "--vo=null", "--ao=null", playlist}),
                 {{"MPV_HOME", dir_.path()}});
    EXPECT_THAT(tuned.calls, HasSubstr(std::string("FE_SET_PROPERTY ") + c.asked)) << c.link << tuned.text;
  }
}

}  // namespace
