// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <sys/stat.h>

#include "softdvb/mux_support.h"
#include "tools/guide_fixture.h"

// `kelvo play` under the software adapter, in virtual time. What it makes of single packets: play_parts_test.cpp.

namespace {

using mux_support::lines_with;
using mux_support::tables_by_libdvbpsi;
using support::Bytes;
using support::Running_command;
using testing::_;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

constexpr size_t PACKET = 188;

const std::string PLAYING = "kelvo: playing Kuldnokk on 506.000 MHz\n";
const std::string END = "kelvo: [0-9]+ packets in 0:00:[0-9]+: [0-9.]+ MB, ";

Bytes bytes_of(const std::string& file) {
  const std::string text = support::read_file(file);
  return {text.begin(), text.end()};
}

int pid_of(const Bytes& stream, size_t at) {
  return (stream[at + 1] & 0x1F) << 8 | stream[at + 2];
}

std::map<int, Bytes> by_pid(const Bytes& stream) {
  std::map<int, Bytes> out;
  EXPECT_EQ(stream.size() % PACKET, 0U);
  for (size_t at = 0; at + PACKET <= stream.size(); at += PACKET) {
    const auto from = stream.begin() + static_cast<std::ptrdiff_t>(at);
    Bytes& bytes = out[pid_of(stream, at)];
    bytes.insert(bytes.end(), from, from + PACKET);
  }
  return out;
}

// PIDs whose counters do not go on from packet to packet.
std::set<int> broken_pids(const Bytes& stream) {
  std::set<int> broken;
  std::map<int, int> last;
  for (const mux_support::Packet& packet : mux_support::packets_of(stream)) {
    if (!packet.has_payload || packet.pid == 0x1FFF)
      continue;
    const auto known = last.find(packet.pid);
    if (known != last.end() && packet.counter != (known->second + 1) % 16)
      broken.insert(packet.pid);
    last[packet.pid] = packet.counter;
  }
  return broken;
}

// Whether `part` is what is sent between two moments, the stream going round.
bool is_part_of(const Bytes& part, const Bytes& whole) {
  Bytes round;
  while (round.size() < part.size() + whole.size())
    round.insert(round.end(), whole.begin(), whole.end());
  return !part.empty() && std::search(round.begin(), round.end(), part.begin(), part.end()) != round.end();
}

class Play : public Guide_fixture {
 protected:
  // A channel with picture, sound and a clock of its own, and another one.
  static const Words& two_channels() {
    static const Words made = mux("506", channel(101, 1, "Kuldnokk", "300") + "," + channel(102, 2, "Öökull", "400"),
                                  R"(, "payload_rate": 300000)");
    return made;
  }
  static std::string channel(int id, int lcn, const std::string& name, const std::string& pid,
                             const std::string& more = "") {
    return R"({ "service_id": )" + std::to_string(id) + R"(, "lcn": )" + std::to_string(lcn) + R"(, "name": ")" + name +
           R"(", "provider": "Meedia", "pcr_pid": )" + pid + R"(, "streams": [{ "type": "mpeg2-video", "pid": )" + pid +
           R"( }, { "type": "mpeg2-audio", "pid": )" + pid.substr(0, 1) + R"(01, "languages": ["est"] }])" + more +
           DAY_OF_EVENTS + "}";
  }
  static Words options(const std::string& speed = "x10") { return at_speed(speed, two_channels()); }
  static Bytes source() { return bytes_of(two_channels()[1].substr(two_channels()[1].find('=') + 1)); }
  void scan_all(const Words& how = options()) const { scan(how, {"506000000"}); }

  Command_result play(const Words& how, const Words& arguments) const {
    return run(how, joined({{"play"}, arguments, {"-o", film_}}));
  }
  Words playing(const Words& how, const Words& arguments) const {
    return controlled(how, joined({{"play"}, arguments, {"-o", film_}}));
  }
  Bytes film() const { return bytes_of(film_); }

  std::string film_ = dir_.file("film.ts");
};

TEST_F(Play, writes_the_channel_alone_and_all_of_it) {
  scan_all();
  EXPECT_THAT(play(options(), {"1", "--for", "12s"}), ends(0, "", MatchesRegex(PLAYING + END + "nothing lost\n")));
  const Bytes written = film();
  std::map<int, Bytes> now = by_pid(written);
  std::map<int, Bytes> sent = by_pid(source());
  // The tables stand in front.
  EXPECT_EQ(pid_of(written, 0), 0);
  const int pmt_pid = pid_of(written, PACKET);
  for (const int pid : {300, 301})
    EXPECT_TRUE(is_part_of(now[pid], sent[pid])) << pid;
  EXPECT_GT(now[300].size(), 1000 * PACKET);
  std::set<int> pids;
  for (const auto& [pid, bytes] : now)
    pids.insert(pid);
  EXPECT_EQ(pids, (std::set<int>{0, 0x11, 0x12, pmt_pid, 300, 301}));
  EXPECT_EQ(broken_pids(written), std::set<int>{});

  const auto tables = tables_by_libdvbpsi(written, {static_cast<uint16_t>(pmt_pid)});
  EXPECT_THAT(lines_with(tables, "PAT"), ElementsAre("PAT ts 1 v0: 101>" + std::to_string(pmt_pid)));
  const auto sent_tables = tables_by_libdvbpsi(source(), {static_cast<uint16_t>(pmt_pid)});
  const auto all_pmts = lines_with(sent_tables, "PMT");
  EXPECT_EQ(lines_with(tables, "PMT"), all_pmts);
  EXPECT_THAT(lines_with(tables, "SDT"),
              ElementsAre(MatchesRegex("SDT 0x42 ts 1 net 65281 v0: 101 schedule 0 pf 1 .*")));
  EXPECT_THAT(lines_with(tables, "SDT")[0], Not(HasSubstr(" 102 ")));
  EXPECT_THAT(lines_with(tables, "EIT"), AllOf(Not(testing::IsEmpty()), Each(testing::StartsWith("EIT 0x4e 101 "))));
}

TEST_F(Play, writes_the_whole_multiplex) {
  scan_all();
  const Command_result result = run(options(), {"play", "1", "--all", "--for", "15s"}, "exec \"$@\" >" + film_);
  EXPECT_THAT(
      result,
      ends(0, "", MatchesRegex("kelvo: playing the whole multiplex on 506.000 MHz\n" + END + "nothing lost\n")));
  EXPECT_TRUE(is_part_of(film(), source()));
  EXPECT_GT(film().size(), 1000 * PACKET);
}

TEST_F(Play, collects_the_guide_meanwhile) {
  scan_all();
  EXPECT_EQ(play(options(), {"1", "--for", "40s"}).exit_code, 0);
  EXPECT_EQ(value(guide_, "SELECT count(*) FROM epglist;"), "96");
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(Play, stores_nothing_without_the_guide) {
  scan_all();
  run_sql(db_, "PRAGMA wal_checkpoint(TRUNCATE);");
  const std::string before = support::read_file(db_) + support::read_file(guide_);
  EXPECT_EQ(
      play(joined({options(), {"--fault", "access(dvb.db)=EACCES"}}), {"1", "--no-guide", "--for", "12s"}).exit_code,
      0);
  EXPECT_EQ(support::read_file(db_) + support::read_file(guide_), before);
  EXPECT_EQ(broken_pids(film()), std::set<int>{});
  EXPECT_EQ(by_pid(film()).count(300), 1U);
}

TEST_F(Play, follows_the_streams_of_the_channel) {
  const Words how = joined({at_speed("x10", mux("506",
                                                channel(101, 1, "Kuldnokk", "300",
                                                        R"(, "pmt_changes": [{ "at": 12, "pcr_pid": 310, "streams": [
                                        { "type": "mpeg2-video", "pid": 310 }, { "type": "mpeg2-audio", "pid": 301 }] }])"),
                                                R"(, "payload_rate": 300000)")),
                            {"--once"}});
  scan_all(how);
  const Command_result result = play(how, {"1", "--for", "22s"});
  EXPECT_THAT(result, ends(0, "",
                           MatchesRegex(PLAYING +
                                        "kelvo: the channel has changed: 1 new stream, 1 stream less, the clock on "
                                        "another PID\n" +
                                        END + "nothing lost\n")));
  const std::map<int, Bytes> now = by_pid(film());
  EXPECT_GT(now.at(310).size(), 200 * PACKET);
  EXPECT_GT(now.at(300).size(), 200 * PACKET);
  EXPECT_EQ(broken_pids(film()), std::set<int>{});
  const auto tables = tables_by_libdvbpsi(film(), {static_cast<uint16_t>(pid_of(film(), PACKET))});
  EXPECT_EQ(lines_with(tables, "PMT").size(), 2U);
}

TEST_F(Play, waits_for_a_signal_that_is_lost) {
  device_ = "box";
  scan_all();
  Running_command running(playing(options("x4"), {"1"}));
  ASSERT_TRUE(running.wait_for_err(PLAYING)) << running.err();
  ASSERT_TRUE(support::wait_for([&] { return film().size() > 100 * PACKET; }, std::chrono::seconds(30)));
  control("adapter 0 status 506000000 = 0");
  ASSERT_TRUE(running.wait_for_err("kelvo: the signal is lost; waiting for it\n")) << running.err();
  control("adapter 0 status 506000000 = 0x1f");
  ASSERT_TRUE(running.wait_for_err("kelvo: the signal is back after ")) << running.err();
  EXPECT_THAT(ended_by(SIGINT, running),
              ends(0, "",
                   MatchesRegex(PLAYING + "kelvo: the signal is lost; waiting for it\n" +
                                "kelvo: the signal is back after [0-9]+ s\n" + END +
                                "(nothing lost|lost: [0-9]+ packets? or more in [0-9]+ gaps?)\n")));
  EXPECT_EQ(film().size() % PACKET, 0U);
}

TEST_F(Play, waits_for_the_first_signal_when_asked_to) {
  device_ = "box";
  scan_all();
  const Words silent = joined({options("x4"), {"--signal", "506000000:status=0"}});
  EXPECT_EQ(play(silent, {"1"}), fails("506.000 MHz: no signal"));
  EXPECT_EQ(play(silent, {"1", "--wait", "--for", "8s"}).err,
            "kelvo: 506.000 MHz: no signal; waiting for it\nkelvo: 506.000 MHz: no signal\n");
  EXPECT_FALSE(std::filesystem::exists(film_)) << "nothing is left behind";
  Running_command running(playing(silent, {"1", "--wait"}));
  ASSERT_TRUE(running.wait_for_err("kelvo: 506.000 MHz: no signal; waiting for it\n")) << running.err();
  control("adapter 0 status 506000000 = 0x1f");
  ASSERT_TRUE(running.wait_for_err(PLAYING)) << running.err();
  EXPECT_EQ(ended_by(SIGTERM, running).exit_code, 0);
}

TEST_F(Play, ends_when_the_device_is_pulled_out) {
  scan_all();
  Running_command running(playing(options("x4"), {"1"}));
  ASSERT_TRUE(running.wait_for_err(PLAYING)) << running.err();
  ASSERT_TRUE(support::wait_for([&] { return film().size() > 100 * PACKET; }, std::chrono::seconds(30)));
  control("adapter 0 unplug");
  EXPECT_THAT(
      running.wait(),
      ends(1, "", MatchesRegex(PLAYING + END + "nothing lost\nkelvo: adapter 0 is gone; what was received is kept\n")));
  EXPECT_EQ(film().size() % PACKET, 0U);
}

TEST_F(Play, ends_with_whole_packets_at_ctrl_c) {
  scan_all();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    std::filesystem::remove(film_);
    Running_command running(playing(options("x4"), {"1"}));
    ASSERT_TRUE(running.wait_for_err(PLAYING)) << running.err();
    ASSERT_TRUE(support::wait_for([&] { return film().size() > 100 * PACKET; }, std::chrono::seconds(30)));
    EXPECT_THAT(ended_by(signal, running), ends(0, "", MatchesRegex(PLAYING + END + "nothing lost\n"))) << signal;
    EXPECT_EQ(film().size() % PACKET, 0U);
    EXPECT_EQ(broken_pids(film()), std::set<int>{});
  }
}

TEST_F(Play, says_what_was_lost) {
  scan_all();
  EXPECT_THAT(play(joined({options(), {"--fault", "read(dvr0)=EOVERFLOW@20*1"}}), {"1", "--for", "15s"}),
              ends(0, "",
                   MatchesRegex(PLAYING + END +
                                "lost: ([0-9]+ packets? or more in [0-9]+ gaps?; )?the device's buffer overflowed 1 "
                                "time\n")));
  EXPECT_EQ(film().size() % PACKET, 0U);
}

// As the multiplex was before it came to the adapter.
TEST_F(Play, counts_what_was_lost_on_the_way) {
  scan_all();
  Bytes stream = source();
  constexpr size_t LATE = 3900;  // packets, 20 s: the command has begun to listen by then
  size_t seen = 0, hole = 0, damaged = 0;
  for (size_t at = 0; at < stream.size(); at += PACKET) {
    const bool counts = (stream[at + 3] & 0x10) != 0;  // a clock alone has no counter
    if (pid_of(stream, at) == 300 && counts && ++seen % 300 == 0 && seen > LATE) {
      // Of this PID alone: three are missing, one is damaged, and others are none of its business.
      if (hole < 3) {
        stream[at + 1] = 0x1F;
        stream[at + 2] = 0xFF;
        ++hole;
      } else if (damaged < 1) {
        stream[at + 1] |= 0x80;
        ++damaged;
      }
    }
  }
  const std::string file = dir_.file("holes.ts");
  support::write_file(file, std::string(stream.begin(), stream.end()));
  EXPECT_THAT(play(joined({at_speed("x10", {"--mux", "506000000=" + file}), {"--once"}}), {"1", "--for", "35s"}),
              ends(0, "",
                   MatchesRegex(PLAYING + "(kelvo: nothing comes although the signal is there; waiting\n)?" + END +
                                "lost: 3 packets or more in 3 gaps; 1 packet damaged\n")));
}

TEST_F(Play, receives_everything_where_filters_are_scarce) {
  scan_all();
  EXPECT_THAT(play(joined({options(), {"--filters", "10"}}), {"1", "--for", "15s"}).err,
              MatchesRegex(PLAYING + END + "nothing lost\n"));
  std::set<int> pids;
  for (const auto& [pid, bytes] : by_pid(film()))
    pids.insert(pid);
  EXPECT_THAT(pids, AllOf(testing::IsSupersetOf({0, 300, 301}), Not(testing::Contains(400))));
}

// --- Where it goes -------------------------------------------------------------------------------------------------

TEST_F(Play, ends_quietly_when_its_reader_goes_away) {
  scan_all();
  const std::string code = dir_.file("code");
  const Command_result result =
      run(options(), {"play", "1", "--for", "60s"}, "(\"$@\"; echo $? >" + code + ") | head -c 18800 | wc -c");
  EXPECT_THAT(result, ends(0, "18800\n", PLAYING));
  EXPECT_EQ(support::read_file(code), "141\n");
  EXPECT_EQ(integrity(), "ok");
}

TEST_F(Play, gives_a_terminal_no_stream) {
  scan_all();
  const Command_result shown = support::run_on_terminal(kelvo(options(), {"play", "1"}));
  EXPECT_EQ(shown.exit_code, 2);
  EXPECT_EQ(shown.out,
            "kelvo: a terminal cannot show the stream: give a file (-o FILE) or a player (kelvo play ... | mpv -)\r\n");
}

TEST_F(Play, draws_a_line_on_a_terminal) {
  scan_all();
  const Command_result shown =
      support::run_on_terminal(kelvo(options("x4"), {"play", "1", "-o", film_, "--for", "12s"}));
  EXPECT_EQ(shown.exit_code, 0);
  EXPECT_TRUE(std::regex_search(shown.out, std::regex("0:00:0[0-9]  [0-9.]+ MB  [0-9.]+ Mbit/s  nothing lost\r\n")))
      << shown.out;
}

TEST_F(Play, writes_over_a_file_only_when_asked_to) {
  scan_all();
  support::write_file(film_, "an older film");
  EXPECT_EQ(play(options(), {"1", "--for", "15s"}),
            fails(film_ + ": exists already; name another file, or give --force to write over it"));
  EXPECT_EQ(support::read_file(film_), "an older film");
  EXPECT_EQ(play(options(), {"1", "--for", "15s", "--force"}).exit_code, 0);
  EXPECT_EQ(film()[0], 0x47);
}

TEST_F(Play, a_full_disk_is_one_line_and_leaves_whole_packets) {
  scan_all();
  EXPECT_THAT(play(joined({options(), {"--fault", "write(film.ts)=ENOSPC@4"}}), {"1", "--for", "20s"}),
              ends(1, "", PLAYING + "kelvo: " + film_ + ": cannot be written: disk full\n"));
  EXPECT_GT(film().size(), PACKET);
  EXPECT_EQ(film().size() % PACKET, 0U);
}

TEST_F(Play, writes_into_a_named_pipe) {
  scan_all();
  const std::string pipe = dir_.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const Command_result result = run(options(), {"play", "1", "-o", pipe, "--for", "15s"},
                                    "cat " + pipe + " >" + film_ + " & \"$@\"; code=$?; wait; exit $code");
  EXPECT_THAT(result, ends(0, "", MatchesRegex(PLAYING + END + "nothing lost\n")));
  EXPECT_EQ(by_pid(film()).count(300), 1U);
}

// None of these may change the databases, nor leave a file.
TEST_F(Play, a_failure_is_one_line) {
  const std::string help = " (see 'kelvo play --help')";
  expect_failures(
      {"play", "-o", film_},
      {{"unknown name", {}, {"Olematu"}, "channel Olematu: no such channel; 'kelvo channels' lists them"},
       {"no channel", {}, {}, "CHANNEL is required" + help, 2},
       {"wrong time", {}, {"#1", "--for", "10"}, "--for 10: not a time; give for example 90s, 10m or 1h", 2},
       {"wrong buffer", {}, {"#1", "--buffer", "0"}, "--buffer: Value 0 not in range 1 to 4096" + help, 2},
       {"missing device", {}, {"#1", "--adapter", "1"}, "/dev/dvb/adapter1/frontend0" + NO_DEVICE},
       {"busy device", {"--fault", "open(frontend0)=EBUSY"}, {"#1"}, "/dev/dvb/adapter0/frontend0" + BUSY_DEVICE},
       {"no permission", {"--fault", "open(demux0)=EACCES"}, {"#1"}, "/dev/dvb/adapter0/demux0" + DENIED_DEVICE},
       {"database not writable",
        {"--fault", "access(dvb.db)=EACCES"},
        {"#1"},
        "DB: cannot be written: Permission denied"}});
  EXPECT_FALSE(std::filesystem::exists(film_));
  scan_all();
  EXPECT_EQ(play(joined({options(), {"--fault", "open(dvr0)=EBUSY"}}), {"1"}),
            fails("/dev/dvb/adapter0/dvr0" + BUSY_DEVICE));
  EXPECT_EQ(run(options(), {"play", "1", "-o", dir_.path()}),
            fails(dir_.path() + ": cannot be written: Is a directory"));
  EXPECT_EQ(run(options(), {"play", "1", "-o", dir_.file("none/film.ts")}),
            fails(dir_.file("none/film.ts") + ": cannot be written: No such file or directory"));
}

}  // namespace
