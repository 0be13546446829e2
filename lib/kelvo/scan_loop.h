#pragma once

#include "base/polled_timer.h"
#include "filter/section_filter.h"
#include "kelvo/kelvo.h"

// What the worker of a Kelvo does: one pass after the other, each one made of the steps below, until the Kelvo is being
// destroyed. A pass waits at most a second for a section; it allocates nothing. Everything here belongs to the worker's
// thread.
//
// The stages: a frequency request goes SCAN_PAT, then SCAN_EIT. A channel request goes SCAN_PMT, then SCAN_EIT, and on
// to SCAN_PMT every 3 s and SCAN_PAT every 300 s or after a time-out.
class Kelvo::Scan_loop {
 public:
  explicit Scan_loop(Kelvo& kelvo) : kelvo_(kelvo), filter_(*kelvo.filter_), parser_(*kelvo.parser_) {}

  void run();

 private:
  void pass();

  // The steps of a pass, in this order.
  void take_request();
  void begin_request();
  void apply_scan_switch();
  void run_export();
  void wait_and_parse();
  void send_test_signal();
  bool complete_scan();  // false when a host's request makes the rest of the pass pointless
  void answer_request();
  void check_for_stream(bool scanning);
  void rescan();

  // Parts of them.
  void parse_ready_sections();
  void finish_scan(bool timed_out);
  int merge(int freq, bool timed_out);
  int change_code(int freq, int result);
  void restart_from_pat();
  void restart_from_pmt();
  void start_eit();
  void arm_timers();
  void tell_change(int code);
  void tell_host(int result);

  // The tuned frequency in Hz; without a tuner the one asked for.
  int freq();

  Kelvo& kelvo_;
  Section_filter& filter_;
  Siparse& parser_;

  Polled_timer scan_timer_{40};       // how long a scan may take; tells a multiplex without stream, too
  Polled_timer autoscan_timer_{300};  // when everything is read again; tells when the guide is started again, too
  Polled_timer pmt_timer_{3};         // when the PMTs are read again

  Request request_;  // the one being served
  SCAN_STATE scan_mode_ = SCAN_NONE;
  bool scan_applied_ = false;
  bool eit_restarted_ = false;
  bool data_seen_ = false;
  bool timed_out_ = false;
  int last_eit_count_ = 0;  // never reset: the parser counts on, too
  int loop_counter_ = 0;
  int wait_counter_ = 0;

  // With room behind a longest section, zero beyond what was read, for parsers that look a little too far.
  static constexpr int SLACK = 64;
  char section_[SECTION_BUF_SIZE + SLACK]{};
};
