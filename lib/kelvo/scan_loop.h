// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/polled_timer.h"
#include "db/scan_merger.h"
#include "filter/section_filter.h"
#include "kelvo/kelvo_parts.h"
#include "kelvo/rescan_pace.h"

// What the worker of a Kelvo does: one pass after the other, each one made of the steps below, until the Kelvo is being
// destroyed. A pass waits at most a second for a section; it allocates nothing. Everything here belongs to the worker's
// thread.
//
// The stages: a frequency request goes SCAN_PAT, then SCAN_EIT. A channel request goes SCAN_PMT, then SCAN_EIT, and on
// to SCAN_PMT every 3 s and SCAN_PAT every 300 s or after a time-out. Each SCAN_PAT and SCAN_PMT is one scan, whose end
// the host's listener is told.
//
// A request that has been accepted ends the work for the one before it: each step that could answer the old request, or
// begin something new for it, looks at the box of requests first.
class Scan_loop {
 public:
  explicit Scan_loop(Kelvo::Parts& kelvo)
      : kelvo_(kelvo),
        requests_(kelvo.requests),
        filter_(kelvo.filter),
        parser_(kelvo.parser),
        merger_(sdbl::make_scan_merger(kelvo.database, kelvo.profile.refresh)) {}

  void run();

 private:
  void pass();
  void survive();  // a pass for which there was no memory

  // The steps of a pass, in this order (scan_loop.cpp).
  void take_request();
  void apply_scan_switch();
  void run_export();
  void wait_and_parse();
  void send_test_signal();
  // False while the device is gone, which has ended everything that was asked for.
  bool device_is_there();
  // And these (scan_loop_end.cpp). False when the pass ends with it.
  bool complete_scan();
  void answer_request();
  bool check_for_stream(bool scanning);
  // True when a table that has changed has begun a scan.
  bool follow_tables();
  void rescan();

  // Parts of them.
  void begin_request();
  void tune();
  void lose_device();
  void regain_device();
  void parse_ready_sections();
  void finish_scan(bool timed_out);
  int how_it_ended(bool timed_out);
  bool has_news(bool timed_out);
  bool merge(int freq);
  void remove_scan_filters();
  void open_watch();
  void close_watch();
  int change_code(int freq, int result);
  void restart_from_pat();
  void restart_from_pmt();
  void start_eit();
  void arm_timers();
  void tell_change(int code);
  void tell_host(int result);

  // The scan as its end will be told: begun with the stage that scan_mode_ has, ended once.
  void begin_scan();
  void end_scan(int outcome);
  void note_missing_tables();
  void note_missing_table(int pid, int table_id);

  // The tuned frequency in Hz; without a tuner the one asked for.
  int freq();
  bool is_dvbh();

  Kelvo::Parts& kelvo_;
  Request_box& requests_;
  Section_filter& filter_;
  Siparse& parser_;
  const std::unique_ptr<sdbl::Scan_merger> merger_;

  // Deleted from the last to the first.
  Polled_timer autoscan_timer_{300};  // when everything is read again; tells when the guide is started again, too
  Polled_timer pmt_timer_{3};         // when the PMTs are read again
  Polled_timer scan_timer_{40};       // how long a scan may take; tells a multiplex without stream, too

  Request request_;  // the one being served
  SCAN_STATE scan_mode_ = SCAN_NONE;
  Scan_end scan_;  // the scan under way
  int merge_tries_ = 0;
  bool scan_open_ = false;
  bool beginning_ = false;     // a request has been taken and its scan is not begun
  std::vector<int> given_up_;  // PIDs of PMTs
  int dropped_before_ = 0;     // filters given up since the request when the scan began
  bool scan_applied_ = false;
  bool eit_restarted_ = false;
  bool device_lost_ = false;
  bool guide_begun_ = false;    // of a request without a channel
  bool follows_table_ = false;  // the scan under way was begun by a table
  Rescan_pace pace_;
  bool data_seen_ = false;
  bool timed_out_ = false;
  int untold_code_ = 0;     // of the change callback: what a channel's scan changed before a new request overtook it
  int last_eit_count_ = 0;  // never reset: the parser counts on, too
  int loop_counter_ = 0;
  int wait_counter_ = 0;

  // With room behind a longest section, zero beyond what was read, for parsers that look a little too far.
  static constexpr int SLACK = 64;
  char section_[SECTION_BUF_SIZE + SLACK]{};
};
