#include "kelvo/scan_loop.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/ids.h"
#include "base/log.h"
#include "filter/section_filter_parts.h"
#include "kelvo/tuner_slot.h"
#include "si/siparse_parts.h"

namespace {

constexpr char WORKER_NAME[] = "kelvo_th";
constexpr char TEST_SIGNAL_FILE[] = "/tmp/testsig";

constexpr int WAIT_MS = 1000;
constexpr int NO_STREAM_S = 6;
constexpr int EIT_RESTART_S = 6;
constexpr int EIT_REPORT_STEP = 20;

constexpr int CHANNELS_CHANGED_BITS = 0x0F;  // of Sdbl::update_master_scan_data's result
constexpr int STREAMS_CHANGED_BITS = 0xF0;

}  // namespace

void Kelvo::Scan_loop::run() {
  (void)prctl(PR_SET_NAME, WORKER_NAME);  // for debuggers only
  while (kelvo_.running_)
    pass();
}

void Kelvo::Scan_loop::pass() {
  take_request();
  apply_scan_switch();
  run_export();
  wait_and_parse();
  // Stopped filters look like a complete scan, so a paused one is left alone, and so is one whose filters are only
  // started by the next pass.
  const bool scanning = scan_applied_ && kelvo_.scan_requested_;
  if (scanning) {
    send_test_signal();
    if (!complete_scan())
      return;
  } else if (kelvo_.request_under_way()) {
    return;
  }
  answer_request();
  check_for_stream(scanning);
  if (scanning && request_.channel != -1 && scan_mode_ == SCAN_EIT)
    rescan();
}

int Kelvo::Scan_loop::freq() {
  const Tuner_slot::Use tuner(*kelvo_.tuner_);
  return tuner ? tuner->fe_freq() : request_.freq;
}

void Kelvo::Scan_loop::arm_timers() {
  autoscan_timer_.arm();
  pmt_timer_.arm();
  scan_timer_.arm();
}

void Kelvo::Scan_loop::tell_change(int code) {
  if (kelvo_.db_change_callback_ != nullptr)
    kelvo_.db_change_callback_(code);
}

void Kelvo::Scan_loop::tell_host(int result) {
  if (request_.data != nullptr && request_.done != nullptr)
    request_.done(request_.data, result);
}

void Kelvo::Scan_loop::take_request() {
  {
    const std::lock_guard<std::mutex> lock(kelvo_.lock_);
    if (!kelvo_.request_.pending)
      return;
    kelvo_.request_.pending = false;
    request_ = kelvo_.request_;
    kelvo_.filters_taken_ = false;
  }
  begin_request();
}

void Kelvo::Scan_loop::begin_request() {
  filter_.remove_all();
  kelvo_.database_->clear_temp_tables(kelvo_.adapter_);
  kelvo_.database_->flush();
  if (request_.channel != -1)
    (void)kelvo_.tune(request_.freq);  // without a lock the scan finds nothing and goes on trying
  KLOG(VERB_WARNING, "WARNING: Loop init, local channel is %d\n", request_.channel);
  kelvo_.scan_requested_ = true;
  kelvo_.message_state_ = false;
  eit_restarted_ = false;
  arm_timers();

  const int tuned_freq = freq();
  (void)filter_.addfilter(pid::TIME, table::TOT, tuned_freq);
  (void)parser_.init_cache_list(tuned_freq, SCAN_EIT);
  if (request_.channel != -1) {
    KLOG(VERB_INFO, "starting scan from PMT");
    scan_mode_ = SCAN_PMT;
    (void)parser_.init_pmt_table_scan_from_database(tuned_freq);
  } else {
    KLOG(VERB_INFO, "Starting scan from PAT");
    scan_mode_ = SCAN_PAT;
    (void)filter_.addfilter(pid::PAT, table::PAT, tuned_freq);
  }
  data_seen_ = false;
  loop_counter_ = 0;
  wait_counter_ = 0;
}

void Kelvo::Scan_loop::apply_scan_switch() {
  const bool on = kelvo_.scan_requested_;
  if (on == scan_applied_)
    return;
  if (on) {
    KLOG(VERB_WARNING, "WARNING: Starting kelvo PAT/PMT");
    if (eit_restarted_) {
      KLOG(VERB_WARNING, "WARNING: Restarting EPG\n");
      start_eit();
    }
    arm_timers();
    filter_.start_filters();
  } else {
    KLOG(VERB_WARNING, "WARNING: Stopping kelvo scanner\n");
    filter_.stop_filters();
  }
  scan_applied_ = on;
}

void Kelvo::Scan_loop::run_export() {
  if (!kelvo_.export_pending_)
    return;
  KLOG(VERB_WARNING, "WARNING: Running backup\n");
  if (scan_applied_)
    filter_.stop_filters();
  kelvo_.database_->backup_database(kelvo_.export_full_);
  kelvo_.export_pending_ = false;
  eit_restarted_ = false;
  tell_change(DB_EXPORTED);
  if (scan_applied_) {
    arm_timers();
    filter_.start_filters();
  }
}

void Kelvo::Scan_loop::wait_and_parse() {
  filter_.check_feed_activation();
  (void)filter_.recalculate_filters();  // the highest handle, which the wait knows as well
  const int ready = filter_.wait_for_data(WAIT_MS);
  if (ready < 0) {
    kelvo_log::print_errno("Select: ");
  } else if (ready == 0) {
    KLOG(VERB_TRACE, "wait loop nr %d\n", wait_counter_);
    ++wait_counter_;
  } else {
    KLOG(VERB_TRACE, "Data scan loop\n");
    parse_ready_sections();
  }
  ++loop_counter_;
}

void Kelvo::Scan_loop::parse_ready_sections() {
  const bool seen_before = data_seen_;
  // The parser appends filters while the list is walked; they have no data yet.
  for (dvb_filter_desc* filter : *filter_.flist()) {
    const unsigned length = filter_.get_section_data(filter, section_);
    if (length == 0)
      continue;
    data_seen_ = true;
    if (!kelvo_.scan_requested_)
      continue;
    std::memset(section_ + length, 0, sizeof section_ - length);
    int pid = 0;
    int tagged_freq = 0;
    filter_.parts().get_tags(filter, &pid, &tagged_freq);
    (void)parser_.scan_assembled_section(section_, pid, tagged_freq, request_.data, scan_mode_);
  }
  if (data_seen_ && !seen_before)
    KLOG(VERB_PROGRESS, "M:%d\t", loop_counter_);
}

void Kelvo::Scan_loop::send_test_signal() {
  const int file = open(TEST_SIGNAL_FILE, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0)
    return;
  struct stat state {};
  if (fstat(file, &state) == 0 && S_ISREG(state.st_mode)) {
    char text[64]{};
    (void)!read(file, text, sizeof text - 1);  // nothing read counts as no number
    unsigned code = 0;
    (void)std::sscanf(text, "%x", &code);  // without a number the code is 0
    KLOG(VERB_WARNING, "WARNING: Sending callback signal %x ", code);
    tell_change(static_cast<int>(code));
    (void)unlink(TEST_SIGNAL_FILE);  // a file that stays is sent again
  }
  (void)close(file);  // nothing was written to it
}

bool Kelvo::Scan_loop::complete_scan() {
  const bool timed_out = scan_timer_.expired();
  const bool incomplete = filter_.eit_or_time_only_in_filter_list() == 0;
  // Asked after the list was looked at: a list emptied by a host's request is no complete scan.
  if (kelvo_.request_under_way())
    return false;
  if (incomplete && !timed_out) {
    timed_out_ = false;
  } else if (scan_mode_ == SCAN_PMT || scan_mode_ == SCAN_PAT) {
    finish_scan(timed_out);
  } else {
    timed_out_ = false;
  }
  return true;
}

void Kelvo::Scan_loop::finish_scan(bool timed_out) {
  const int scanned_freq = freq();
  timed_out_ = timed_out;
  if (timed_out) {
    KLOG(VERB_WARNING, "WARNING: mode %d scan timed out for frequency %d\n", scan_mode_, scanned_freq);
    filter_.print_filter_list();
  }
  const int result = merge(scanned_freq, timed_out);
  kelvo_.filters_taken_ = false;
  // What stays are the guide on PID 18 and the time on PID 20.
  (void)filter_.remove_filter_pid_range(pid::PAT, pid::EIT - 1);
  (void)filter_.remove_filter_pid_range(pid::EIT + 1, pid::TIME - 1);
  (void)filter_.remove_filter_pid_range(pid::TIME + 1, pid::LAST);
  kelvo_.database_->clear_temp_tables(kelvo_.adapter_);
  if (result != 0)
    kelvo_.database_->flush();
  scan_mode_ = SCAN_EIT;

  const int code = change_code(scanned_freq, result);
  if (code != 0) {
    KLOG(VERB_WARNING, "WARNING: db_change_callback %x, retval %x\n", static_cast<unsigned>(code),
         static_cast<unsigned>(result));
    tell_change(code);
  }
}

int Kelvo::Scan_loop::merge(int scanned_freq, bool timed_out) {
  if (scan_mode_ == SCAN_PMT && parser_.parts().pmt_versions_match() && !timed_out) {
    KLOG(VERB_TRACE, "PMT version match, skipping db recalc\n");
    return 0;
  }
  // Without the services' list and names a full scan is of no use.
  if (scan_mode_ == SCAN_PAT && timed_out &&
      (filter_.pid_tid_in_list(pid::PAT, table::PAT) != 0 || filter_.pid_tid_in_list(pid::SDT, table::SDT_ACTUAL) != 0))
    return 0;
  // A request has taken the filters away: one that failed, or one that began during this pass.
  if (kelvo_.request_under_way() || kelvo_.filters_taken_)
    return 0;
  return kelvo_.database_->update_master_scan_data(kelvo_.adapter_, kelvo_.type_, kelvo_.connector_, scanned_freq,
                                                   scan_mode_);
}

int Kelvo::Scan_loop::change_code(int scanned_freq, int result) {
  int code = 0;
  if (request_.channel == -1) {
    (void)parser_.start_eit_scan(scanned_freq, SCAN_EIT);
  } else {
    if ((result & CHANNELS_CHANGED_BITS) != 0) {
      code = DB_CHANNELS_CHANGED;
      if (eit_restarted_) {
        KLOG(VERB_PROGRESS, "Channel changed EIT scan\n");
        eit_restarted_ = false;
      }
    }
    if ((result & STREAMS_CHANGED_BITS) != 0)
      code |= DB_STREAMS_CHANGED;
  }
  const int eit_count = parser_.get_eit_stored();
  if (eit_count > last_eit_count_ + EIT_REPORT_STEP) {
    code |= DB_EPG_GROWN;
    last_eit_count_ = eit_count;
  }
  return code;
}

void Kelvo::Scan_loop::answer_request() {
  if (request_.channel != -1 || request_.data == nullptr || kelvo_.message_state_ || scan_mode_ != SCAN_EIT)
    return;
  KLOG(VERB_TRACE, "MSG: Captured channel eit info\n");
  KLOG(VERB_PROGRESS, "OK MSG at loop %d\t", loop_counter_);
  tell_host(0);
  kelvo_.message_state_ = true;
}

void Kelvo::Scan_loop::check_for_stream(bool scanning) {
  bool dvbh = false;
  {
    const Tuner_slot::Use tuner(*kelvo_.tuner_);
    dvbh = tuner && tuner->mux_is_dvbh();
  }
  const bool silent = scanning && scan_timer_.elapsed() >= NO_STREAM_S && !data_seen_ && !kelvo_.message_state_ &&
                      request_.channel == -1;
  // Deliberate: on DVB-H this repeats every pass.
  if (!dvbh && !silent)
    return;
  kelvo_.message_state_ = true;
  filter_.remove_all();
  KLOG(VERB_PROGRESS, "Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n");
  tell_host(-1);
}

void Kelvo::Scan_loop::rescan() {
  if (!eit_restarted_ && autoscan_timer_.elapsed() >= EIT_RESTART_S) {
    KLOG(VERB_WARNING, "WARNING: Restarting EIT scan\n");
    eit_restarted_ = true;
    parser_.reset_cache_list();
    start_eit();
  }
  if (autoscan_timer_.expired() || timed_out_)
    restart_from_pat();
  else if (pmt_timer_.expired())
    restart_from_pmt();
}

void Kelvo::Scan_loop::restart_from_pat() {
  KLOG(VERB_PROGRESS, "Restarting autoscan from PAT\n");
  autoscan_timer_.arm();
  scan_timer_.arm();
  const int tuned_freq = freq();
  (void)filter_.remove_filter_pid_range(pid::TIME, pid::TIME);
  (void)filter_.addfilter(pid::TIME, table::TOT, tuned_freq);
  (void)filter_.addfilter(pid::PAT, table::PAT, tuned_freq);
  scan_mode_ = SCAN_PAT;
}

void Kelvo::Scan_loop::restart_from_pmt() {
  KLOG(VERB_PROGRESS, "Restarting autoscan from PMT\n");
  pmt_timer_.arm();
  scan_timer_.arm();
  scan_mode_ = SCAN_PMT;
  (void)parser_.init_pmt_table_scan_from_database(freq());
}

void Kelvo::Scan_loop::start_eit() {
  (void)parser_.start_eit_scan(freq(), SCAN_EIT);
}
