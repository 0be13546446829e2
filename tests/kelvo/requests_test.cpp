// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Requests, answers and callbacks that meet: who sees what, and who comes first.

#include "kelvo/kelvo_run.h"

namespace {

class Requests : public Kelvo_run {
 protected:
  // The streams of a channel are gone from the list, so that the next reading of its PMT finds them new.
  void forget_streams_of(int channel) {
    (void)database_->sql_cache(true, 0, "DELETE FROM estreams WHERE channel = $channel", channel);
  }
  // The worker waits at the gate when it says something that begins so.
  void hold_at_message(const std::string& beginning) {
    message_ = beginning;
    Message_listener listener;
    listener.message = [](void* data, int, const char* text) {
      auto* self = static_cast<Requests*>(data);
      if (std::string(text).compare(0, self->message_.size(), self->message_) == 0)
        self->gate_.pass();
    };
    listener.data = this;
    listener.level = VERB_PROGRESS;
    listener.print = false;
    Kelvo::set_message_listener(listener);
  }
  // The worker waits at the gate with its next merge.
  void hold_at(int activity) {
    activity_ = activity;
    kelvo_->set_activity_listener({[](void* data, int kind, int) {
                                     auto* self = static_cast<Requests*>(data);
                                     if (kind == self->activity_)
                                       self->gate_.pass();
                                   },
                                   this});
  }
  void wait_until_answered(bool answered = true) {
    while (kelvo_->get_msg_state() != answered)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // A scan of "old" without the PMT of 102 that has timed out and is to be merged when the gate opens.
  void hold_before_the_merge() {
    silence({PMT_OF_102});
    hold_at_message("WARNING: mode 2 scan timed out");
    make();
    EXPECT_EQ(request("old"), -1);
    EXPECT_TRUE(gate_.wait_until_reached());
  }
  // A frontend that says that this multiplex is DVB-H.
  static void set_dvbh(bool on) {
    support::softdvb_control(on ? "adapter 0 status = 0x9f" : "adapter 0 status = 0x1f");
  }

  Gate gate_;
  std::string message_;
  int activity_ = -1;
};

}  // namespace

// --- The tuner's switch ----------------------------------------------------------------------------------------------

TEST_F(Requests, tuner_that_two_threads_switch_on_keeps_its_device) {
  make();
  kelvo_->set_tuner(false);
  hold_at_message(" Front end name is");  // it has the device by then
  std::thread other([&] { kelvo_->set_tuner(true); });
  EXPECT_TRUE(gate_.wait_until_reached());
  kelvo_->set_tuner(true);
  gate_.open();
  other.join();
  ask("a");
}

// --- Message state ---------------------------------------------------------------------------------------------------

TEST_F(Requests, answer_of_0_comes_before_the_request_counts_as_answered) {
  make();
  bool answered = true;
  protocol_.on("done a 0", [&] { answered = kelvo_->get_msg_state(); });
  ask("a");
  wait_until_answered();
  kelvo_.reset();
  EXPECT_FALSE(answered);
}

TEST_F(Requests, answer_of_minus_1_comes_when_the_request_counts_as_answered) {
  silence({PAT, TOT});
  make();
  bool answered = false;
  protocol_.on("done a -1", [&] { answered = kelvo_->get_msg_state(); });
  ask("a", -1);
  kelvo_.reset();
  EXPECT_TRUE(answered);
}

// --- A request while another one is served ---------------------------------------------------------------------------

TEST_F(Requests, that_come_with_the_end_of_a_scan_leave_the_old_one_unanswered) {
  make();
  protocol_.on("end 506000000 -1 PAT complete merged 34", [&] { request("new"); });
  EXPECT_EQ(request("old"), -1);
  EXPECT_TRUE(protocol_.wait_for("done new 0"));
  kelvo_.reset();
  EXPECT_EQ(protocol_.text(),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 -1 PAT complete merged 0\n"
            "done new 0\n");
}

TEST_F(Requests, that_come_during_a_merge_leave_the_old_one_unanswered) {
  make();
  hold_at(ACTIVITY_MERGE_END);
  EXPECT_EQ(request("old"), -1);
  EXPECT_TRUE(gate_.wait_until_reached());
  EXPECT_EQ(request("new"), -1);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("done new 0"));
  kelvo_.reset();
  EXPECT_EQ(protocol_.text({"done"}), "done new 0\n");
}

TEST_F(Requests, that_come_during_a_channel_s_merge_put_off_what_changed_to_the_next_scan) {
  make_and_ask("first");
  forget_streams_of(1);
  hold_at(ACTIVITY_MERGE_END);
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(gate_.wait_until_reached());
  kelvo_->watch_again(FREQ, 2);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("change 1"));
  EXPECT_EQ(protocol_.text({"end", "change"}),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 1 PMT complete merged 32\n"
            "end 506000000 2 PMT complete merged 0\n"
            "change 1\n");
}

TEST_F(Requests, that_come_with_an_answer_are_not_answered_for_the_old_one_s_stream) {
  make();
  protocol_.on("done old 0", [&] {
    set_dvbh(true);
    request("new");
  });
  EXPECT_EQ(request("old"), -1);
  EXPECT_TRUE(protocol_.wait_for("done new -1"));
  kelvo_.reset();
  EXPECT_EQ(protocol_.count("done old -1"), 0U) << protocol_.text();
}

TEST_F(Requests, that_come_with_the_end_of_a_silent_scan_leave_the_old_one_unanswered) {
  silence({PAT, TOT});
  make();
  protocol_.on("end 506000000 -1 PAT no stream", [&] { request("new"); });
  EXPECT_EQ(request("old"), -1);
  EXPECT_TRUE(protocol_.wait_for("done new -1"));
  EXPECT_EQ(protocol_.count("done old -1"), 0U);
}

TEST_F(Requests, that_come_with_a_change_begin_no_rescan_for_the_old_one) {
  make_and_ask("first");
  forget_streams_of(1);
  silence({PMT_OF_102});
  protocol_.on("change 1", [&] {
    support::softdvb_control("clear sections");
    kelvo_->watch_again(FREQ, 2);
  });
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 2 PMT complete merged 0"));
  EXPECT_EQ(protocol_.text({"end", "change"}),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 1 PMT timed out merged 32 missing 272/2\n"
            "change 1\n"
            "end 506000000 2 PMT complete merged 0\n");
}

TEST_F(Requests, that_come_right_before_a_merge_keep_it_from_half_a_scan) {
  hold_before_the_merge();
  support::softdvb_control("clear sections");
  EXPECT_EQ(request("new"), -1);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("done new 0"));
  EXPECT_EQ(protocol_.text(),
            "end 506000000 -1 PAT replaced\n"
            "end 506000000 -1 PAT complete merged 34\n"
            "done new 0\n");
}

// A channel's takes no filters away: that it waits is all there is to see.
TEST_F(Requests, that_come_for_a_channel_right_before_a_merge_keep_it_from_half_a_scan_too) {
  hold_before_the_merge();
  kelvo_->watch_again(FREQ, 1);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete"));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT replaced\nend 506000000 1 PMT complete\n");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 0);
}

TEST_F(Requests, that_fail_right_before_a_merge_keep_it_from_half_a_scan_too) {
  hold_before_the_merge();
  EXPECT_EQ(request("failed", 530000000), 0);
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("done old 0"));
  EXPECT_EQ(protocol_.text(), "end 506000000 -1 PAT replaced\ndone old 0\n");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid"), 0);
}

TEST_F(Requests, begin_with_empty_scan_tables) {
  silence({SDT});
  hold_at_message("Starting scan from PAT");
  make();
  gate_.open();
  EXPECT_EQ(request("old"), -1);
  EXPECT_TRUE(wait_for_sql("SELECT count(*) = 3 FROM kanalid_scan_0"));
  EXPECT_TRUE(wait_for_sql("SELECT count(*) > 2 FROM estreams_scan_0"));
  silence({PAT});
  EXPECT_EQ(request("new"), -1);
  wait_until_answered(false);
  EXPECT_TRUE(wait_for_sql("SELECT count(*) = 0 FROM kanalid_scan_0"));
  EXPECT_EQ(number_of("SELECT count(*) FROM estreams_scan_0"), 0);
  EXPECT_EQ(protocol_.text({"end", "done"}), "end 506000000 -1 PAT replaced\n") << "the new scan has not ended";
}

// --- Channels --------------------------------------------------------------------------------------------------------

TEST_F(Requests, pmts_of_known_versions_are_merged_all_the_same_when_one_never_came) {
  make_and_ask("first");
  kelvo_->watch_again(FREQ, 1);
  // Of the version known.
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete"));
  silence({PMT_OF_102});
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT timed out merged 0 missing 272/2"));
}

TEST_F(Requests, channel_on_dvb_h_is_not_read_again) {
  make_and_ask("first");
  set_dvbh(true);
  silence({PMT_OF_102});  // the first pass cannot complete
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT no stream"));
  std::this_thread::sleep_for(std::chrono::seconds(10));
  EXPECT_EQ(protocol_.text({"end"}),
            "end 506000000 -1 PAT complete merged 34\n"
            "end 506000000 1 PMT no stream\n");
  support::softdvb_control("clear sections");
  set_dvbh(false);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete merged 0")) << "but then it is";
}

// --- Input -----------------------------------------------------------------------------------------------------------

TEST_F(Requests, connector_and_type_reach_every_row) {
  make_and_ask("first");
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid WHERE hf_conn = 3 AND dvb_type = 1"), 3);
  EXPECT_EQ(number_of("SELECT count(*) FROM kanalid WHERE orig_network_id = 8193 AND network_id = 12289"), 3);
  EXPECT_EQ(number_of("SELECT count(*) FROM tuner_table WHERE hf_conn = 3 AND dvb_type = 1"), 1);
  kelvo_->watch_again(FREQ, 1);
  EXPECT_TRUE(protocol_.wait_for("end 506000000 1 PMT complete merged 0")) << "the services are found again";
  EXPECT_EQ(number_of("SELECT count(DISTINCT channel) FROM estreams"), 3);
}

// --- Exports ---------------------------------------------------------------------------------------------------------

TEST_F(Requests, two_exports_asked_for_at_once_are_both_written) {
  make();
  protocol_.on("done a 0", [&] { gate_.pass(); });
  EXPECT_EQ(request("a"), -1);
  EXPECT_TRUE(gate_.wait_until_reached());
  const std::string one = folder_.file("one.db");
  const std::string two = folder_.file("two.db");
  bool more = false;
  protocol_.on("change 8", [&] { more = kelvo_->export_db_in_progress(); });
  EXPECT_TRUE(kelvo_->export_db(one.c_str(), true));
  EXPECT_TRUE(kelvo_->export_db(two.c_str(), true));
  gate_.open();
  EXPECT_TRUE(protocol_.wait_for("change 8", 2));
  EXPECT_FALSE(kelvo_->export_db_in_progress());
  EXPECT_TRUE(more) << "the second one waits when the first one is done";
  EXPECT_EQ(access(folder_.file("one_epg.db").c_str(), F_OK), 0);
  EXPECT_EQ(access(folder_.file("two_epg.db").c_str(), F_OK), 0);
}
