// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What listeners are told: the end of each scan, and what the worker does.
#include <linux/dvb/frontend.h>

#include "kelvo/kelvo_run.h"
#include "support/database.h"

namespace {

class Scan_ends : public Kelvo_run {
 protected:
  // Request a, whose SDT never comes. The worker waits at the gate once it has the PAT, so that the scan cannot time
  // out before the test goes on, however slow the machine is.
  void begin_a_scan_without_end() {
    silence({SDT});
    make();
    kelvo_->set_activity_listener({[](void* data, int kind, int) {
                                     auto* self = static_cast<Scan_ends*>(data);
                                     if (kind == ACTIVITY_SECTIONS_END &&
                                         self->number_of("SELECT count(*) FROM kanalid_scan_0") == 3)
                                       self->gate_.pass();
                                   },
                                   this});
    EXPECT_EQ(request("a"), -1);
    EXPECT_TRUE(gate_.wait_until_reached());
  }

  Gate gate_;
};

}  // namespace

TEST_F(Scan_ends, complete_scan_is_told_before_its_answer) {
  make_and_ask("a");
  EXPECT_EQ(protocol_.text(),
            "end 506000000 -1 PAT complete merged 34\n"
            "done a 0\n");
  ask("b");
  EXPECT_EQ(protocol_.text({"end"}),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 -1 PAT complete merged 0\n");
}

TEST_F(Scan_ends, each_rescan_of_a_channel_has_its_own) {
  make_and_ask("a");
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete", 2));  // of the version known
  kelvo_.reset();
  EXPECT_EQ(protocol_.text({"done", "change"}), "done a 0\n");
  // Versions are unknown after the request, and once more when the guide begins, 5 to 6 s later.
  EXPECT_EQ(protocol_.text({"end"}).find("end 506000000 -1 PAT complete merged 34\n"
                                         "end 506000000 1 PMT complete merged 0\n"),
            0U);
  EXPECT_LE(protocol_.count("end 506000000 1 PMT complete merged 0"), 2U) << protocol_.text();
}

TEST_F(Scan_ends, scan_that_times_out_names_the_tables_that_never_came) {
  silence({SDT, PMT_OF_102, TOT});  // the time belongs to no scan
  make_and_ask("a");
  const std::string text = protocol_.text();
  EXPECT_TRUE(text == "end 506000000 -1 PAT timed out missing 272/2 17/42\ndone a 0\n" ||
              text == "end 506000000 -1 PAT timed out missing 17/42 272/2\ndone a 0\n")
      << text;
}

TEST_F(Scan_ends, scan_that_times_out_for_a_pmt_is_merged) {
  silence({PMT_OF_102});
  make_and_ask("a");
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT timed out merged 34 missing 272/2\ndone a 0\n");
}

TEST_F(Scan_ends, no_section_within_6_seconds_is_no_stream) {
  silence({PAT, TOT});
  make_and_ask("a", -1);
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT no stream\ndone a -1\n") << "once, though passes go on";
}

TEST_F(Scan_ends, demultiplexer_that_cannot_be_opened_is_told_apart_from_a_complete_scan) {
  support::softdvb_control("fault open(demux0)=EBUSY");
  make_and_ask("a");
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT no demux merged 0\ndone a 0\n");
}

TEST_F(Scan_ends, request_replaces_the_scan_under_way) {
  begin_a_scan_without_end();
  support::softdvb_control("clear sections");
  EXPECT_EQ(request("b"), -1);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("done b 0"));
  EXPECT_EQ(protocol_.text(),
            "end 506000000 -1 PAT replaced\n"
            "end 506000000 -1 PAT complete merged 34\n"
            "done b 0\n");
}

TEST_F(Scan_ends, request_that_fails_to_tune_replaces_it_too) {
  begin_a_scan_without_end();
  EXPECT_EQ(request("b", 530000000), 0);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("done a 0"));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT replaced\ndone a 0\n");
}

TEST_F(Scan_ends, scan_under_way_at_the_destruction_is_not_told) {
  begin_a_scan_without_end();
  gate_.open();
  kelvo_.reset();
  EXPECT_EQ(protocol_.text(), "");
}

TEST_F(Scan_ends, first_database_error_since_the_scan_began_is_told_with_it) {
  make_and_ask("a");
  support::softdvb_control("fault write(dvb.db)=ENOSPC");
  (void)database_->set_master_scan_timeout(TYPE, CONNECTOR, FREQ);
  support::softdvb_control("clear faults");
  Database_error error;
  EXPECT_TRUE(database_->first_error(&error));
  EXPECT_EQ(error.code, 13);
  ask("b");
  EXPECT_EQ(protocol_.text({"end"}),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 -1 PAT complete merged 0\n")
      << "an error before the scan is none of it";
  support::softdvb_control("fault write(dvb.db)=ENOSPC");
  ask("c");
  support::softdvb_control("clear faults");
  EXPECT_NE(protocol_.text({"end"}).find(" error 13 "), std::string::npos) << protocol_.text();
  ask("d");
  EXPECT_EQ(protocol_.count("end 506000000 -1 PAT complete merged 0"), 2U) << "forgotten when the next scan begins";
}

TEST_F(Scan_ends, merge_without_room_is_told_as_not_merged_and_done_by_the_next_scan) {
  make();
  EXPECT_GT(number_of("PRAGMA main.max_page_count = 1"), 1);  // as many as there are
  ask("a");
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT complete error 13 update_master_scan_data\ndone a 0\n");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 0);
  EXPECT_EQ(number_of("PRAGMA main.max_page_count = 8000"), 8000);
  ask("b");
  EXPECT_EQ(protocol_.text({"end"}),
            "end 506000000 -1 PAT complete error 13 update_master_scan_data\n"
            "end 506000000 -1 PAT complete merged 34\n");
}

TEST_F(Scan_ends, merge_of_channels_that_another_program_has_locked_is_kept_and_done_later) {
  make();
  const support::Other_connection other(folder_.file("dvb.db"));
  ASSERT_EQ(other.run("BEGIN"), SQLITE_DONE);
  EXPECT_EQ(other.rows("SELECT count(*) FROM kanalid"), (support::Texts{"0"}));  // and stays in the file
  EXPECT_EQ(request("a"), -1);
  Database_error error;
  const auto merge_has_failed = [&] {
    const bool failed = database_->first_error(&error) && std::string(error.operation) == "update_master_scan_data";
    if (!failed)
      database_->forget_errors();  // of the tables before
    return failed;
  };
  for (int i = 0; i < 3000 && !merge_has_failed(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(error.code, SQLITE_BUSY);
  EXPECT_STREQ(error.operation, "update_master_scan_data");
  EXPECT_EQ(protocol_.text(), "") << "neither ended nor answered";
  ASSERT_EQ(other.run("COMMIT"), SQLITE_DONE);
  EXPECT_TRUE(protocol_.wait_for("done a 0"));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT complete merged 34 error 5 terrestrial_tuner_info\ndone a 0\n")
      << "the first error of the scan is an older one";
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 3);
}

TEST_F(Scan_ends, what_was_read_of_the_multiplex_is_told_with_it) {
  make();
  std::pair<Protocol*, Scan_end> told{&protocol_, {}};
  kelvo_->set_scan_listener(
      [](void* data, const Scan_end& end) {
        auto& [protocol, last] = *static_cast<std::pair<Protocol*, Scan_end>*>(data);
        last = end;
      },
      &told);
  ask("a");
  const Scan_end& end = told.second;
  EXPECT_EQ(end.original_network_id, 8193);
  EXPECT_EQ(end.transport_stream_id, 7);
  ASSERT_EQ(end.announced.size(), 1U);
  const Announced_multiplex& multiplex = end.announced[0];
  EXPECT_EQ(multiplex.original_network_id, 8193);
  EXPECT_EQ(multiplex.transport_stream_id, 7);
  EXPECT_EQ(multiplex.system, SYS_DVBT);
  EXPECT_EQ(multiplex.freq, 506000000);
  EXPECT_EQ(multiplex.bandwidth_hz, 8000000);
  EXPECT_EQ(multiplex.pipe, -1);

  // What was read then does not belong to the next one.
  silence({PAT, TOT});
  ask("b", -1);
  EXPECT_EQ(told.second.outcome, SCAN_NO_STREAM);
  EXPECT_EQ(told.second.original_network_id, -1);
  EXPECT_TRUE(told.second.announced.empty());
  kelvo_.reset();
}

TEST_F(Scan_ends, nobody_is_told_once_the_listener_is_taken_away) {
  make();
  kelvo_->set_scan_listener(nullptr, nullptr);
  ask("a");
  EXPECT_EQ(protocol_.text(), "done a 0\n");
}

TEST_F(Scan_ends, watch_again_reads_everything_of_the_frequency_that_is_tuned) {
  make_and_ask("a");
  EXPECT_EQ(kelvo_->tune_to_freq(FREQ, 1, nullptr, nullptr), -1);
  std::this_thread::sleep_for(std::chrono::seconds(5));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT complete merged 34\ndone a 0\n") << "a channel request does not";
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete merged 0"));
}

TEST_F(Scan_ends, time_listener_is_told_of_the_broadcast_time) {
  make();
  std::pair<Protocol*, Broadcast_time> told{&protocol_, {}};
  kelvo_->set_time_listener(
      [](void* data, const Broadcast_time& time) {
        auto& [protocol, first] = *static_cast<std::pair<Protocol*, Broadcast_time>*>(data);
        if (first.freq == 0)
          first = time;
        protocol->add("time");
      },
      &told);
  EXPECT_EQ(request("a"), -1);
  EXPECT_TRUE(protocol_.wait_for("time"));
  kelvo_.reset();
  EXPECT_EQ(told.second.freq, FREQ);
  EXPECT_GE(told.second.utc, 1772388000) << "2026-03-01 18:00 UTC";
  EXPECT_LE(told.second.utc, 1772388000 + 20);
  EXPECT_EQ(told.second.clock, CLOCK_SET);
}
