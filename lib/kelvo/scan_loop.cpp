// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The passes of the scan loop, up to the sections' parsing.
#include "kelvo/scan_loop.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "base/ids.h"
#include "base/lock_order.h"
#include "base/log.h"
#include "base/uninterrupted.h"
#include "filter/section_filter_parts.h"
#include "si/siparse_parts.h"

namespace {

constexpr char TEST_SIGNAL_FILE[] = "/tmp/testsig";
constexpr int WAIT_MS = 1000;

// The file opened for reading, -1 when there is none. Everybody may make things in /tmp: no link is followed, and what
// is no plain file is not opened, because opening alone acts on a device or a pipe.
int open_test_signal() {
  struct stat state {};
  if (lstat(TEST_SIGNAL_FILE, &state) != 0 || !S_ISREG(state.st_mode))
    return -1;
  // What stands there by now may be something else: a place in the file system is held first, looked at, then opened.
  const int place = uninterrupted([] { return open(TEST_SIGNAL_FILE, O_PATH | O_NOFOLLOW | O_CLOEXEC); });
  if (place < 0)
    return -1;
  int file = -1;
  if (fstat(place, &state) == 0 && S_ISREG(state.st_mode)) {
    char held[32];
    (void)std::snprintf(held, sizeof held, "/proc/self/fd/%d", place);  // always fits
    file = uninterrupted([&held] { return open(held, O_RDONLY | O_NONBLOCK | O_CLOEXEC); });
  }
  (void)close(place);  // nothing was written to it
  return file;
}

}  // namespace

void Scan_loop::run() {
  while (requests_.running) {
    try {
      pass();
    } catch (const std::bad_alloc&) {
      survive();
    }
  }
}

// Whatever threw has let go of its locks. What a scan has found until then is not to be merged; the guide lacks a
// section, which comes again.
void Scan_loop::survive() {
  const bool beginning = std::exchange(beginning_, false);
  if (!scan_open_ && !beginning) {
    KLOG(VERB_ERROR, "ERROR: Out of memory, adapter %d goes on without what it was at\n", kelvo_.adapter);
    (void)filter_.wait_for_data(WAIT_MS);  // so that there is time for others to free some
    return;
  }
  KLOG(VERB_ERROR, "ERROR: Out of memory, the scan of %d Hz on adapter %d is given up\n", request_.freq,
       kelvo_.adapter);
  scan_open_ = false;
  scan_mode_ = SCAN_EIT;
  filter_.remove_all();
  requests_.scan_is_over();
  // One that was only beginning has not been answered yet, whatever the flag says of the one before; and its host may
  // still be inside the call that left it.
  if ((requests_.message_state && !beginning) || requests_.pending())
    return;
  requests_.message_state = true;
  tell_host(-1);
}

void Scan_loop::pass() {
  take_request();
  if (!device_is_there())
    return;
  apply_scan_switch();
  run_export();
  wait_and_parse();
  // Stopped filters look like a complete scan, so a paused one is left alone, and so is one whose filters are only
  // started by the next pass.
  const bool scanning = scan_applied_ && requests_.scan_requested;
  if (scanning) {
    parser_.parts().guide_reader().catch_up();
    send_test_signal();
    if (!complete_scan())
      return;
  }
  // Callbacks may make requests, and so may other threads while one runs: each step looks anew.
  if (requests_.under_way())
    return;
  answer_request();
  if (requests_.under_way() || !check_for_stream(scanning))
    return;
  if (!scanning || scan_mode_ != SCAN_EIT || requests_.under_way() || follow_tables())
    return;
  if (request_.channel != -1)
    rescan();
}

int Scan_loop::freq() {
  const Tuner_slot::Use tuner(kelvo_.tuner);
  return tuner ? tuner->tuned_freq() : request_.freq;
}

bool Scan_loop::is_dvbh() {
  const Tuner_slot::Use tuner(kelvo_.tuner);
  return tuner && tuner->mux_is_dvbh();
}

void Scan_loop::arm_timers() {
  autoscan_timer_.arm();
  pmt_timer_.arm();
  scan_timer_.arm();
}

void Scan_loop::tell_change(int code) {
  lock_order::hold_none("change callback");
  if (kelvo_.change_callback != nullptr)
    kelvo_.change_callback(code);
}

void Scan_loop::tell_host(int result) {
  lock_order::hold_none("request callback");
  if (request_.data != nullptr && request_.done != nullptr)
    request_.done(request_.data, result);
}

void Scan_loop::take_request() {
  Request request;
  if (!requests_.take(&request))
    return;
  request_ = request;
  beginning_ = true;
  end_scan(SCAN_REPLACED);  // of the old request
  begin_request();
}

void Scan_loop::begin_request() {
  beginning_ = true;
  filter_.remove_all();
  filter_.parts().forget_lost();
  kelvo_.database.clear_temp_tables(kelvo_.adapter);
  kelvo_.database.flush();
  // A tuning ends the one before: this one, which was asked for earlier, must not end that of a host.
  if (request_.channel != -1 && !requests_.host_tunes())
    tune();
  KLOG(VERB_WARNING, "WARNING: Loop init, local channel is %d\n", request_.channel);
  requests_.scan_requested = true;
  requests_.message_state = false;
  eit_restarted_ = false;
  guide_begun_ = false;
  follows_table_ = false;
  pace_ = {};
  arm_timers();

  const int tuned_freq = freq();
  (void)filter_.addfilter(pid::TIME, table::TOT, tuned_freq);
  (void)parser_.init_cache_list(tuned_freq, SCAN_EIT);
  scan_mode_ = request_.channel != -1 ? SCAN_PMT : SCAN_PAT;
  parser_.parts().begin_multiplex();
  begin_scan();
  if (request_.channel != -1) {
    KLOG(VERB_INFO, "starting scan from PMT");
    (void)parser_.init_pmt_table_scan_from_database(tuned_freq);
  } else {
    KLOG(VERB_INFO, "Starting scan from PAT");
    (void)filter_.addfilter(pid::PAT, table::PAT, tuned_freq);
  }
  data_seen_ = false;
  loop_counter_ = 0;
  wait_counter_ = 0;
  beginning_ = false;
}

// Without a lock the scan finds nothing and goes on trying.
void Scan_loop::tune() {
  const int known_by = kelvo_.tune(request_.tuning);
  if (known_by != 0)
    request_.freq = known_by;
}

bool Scan_loop::device_is_there() {
  if (!kelvo_.device_gone())
    return true;
  if (!device_lost_)
    lose_device();
  if (!requests_.under_way() && kelvo_.open_device_again()) {
    regain_device();
    return true;
  }
  (void)filter_.wait_for_data(WAIT_MS);  // of no filter: a request ends it
  return false;
}

void Scan_loop::lose_device() {
  device_lost_ = true;
  KLOG(VERB_WARNING, "WARNING: The device of adapter %d is gone\n", kelvo_.adapter);
  filter_.remove_all();
  kelvo_.release_device();
  end_scan(SCAN_DEVICE_GONE);
  kelvo_.listeners.tell(Device_event{kelvo_.adapter, DEVICE_GONE, request_.freq});
  if (requests_.message_state || requests_.under_way())
    return;
  requests_.message_state = true;
  tell_host(-1);
  request_.data = nullptr;  // answered: what begins anew with the device is told to nobody
}

void Scan_loop::regain_device() {
  device_lost_ = false;
  KLOG(VERB_WARNING, "WARNING: The device of adapter %d is back\n", kelvo_.adapter);
  // A request without a channel that has come meanwhile, and is to be answered, has been tuned by its host.
  const bool anew = request_.channel != -1 || requests_.message_state;
  if (request_.freq != 0 && anew) {
    if (request_.channel == -1)
      tune();
    begin_request();
    requests_.message_state = true;
  }
  kelvo_.listeners.tell(Device_event{kelvo_.adapter, DEVICE_BACK, request_.freq});
}

void Scan_loop::apply_scan_switch() {
  const bool on = requests_.scan_requested;
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

void Scan_loop::run_export() {
  Export_request request;
  if (!requests_.next_export(&request))
    return;
  KLOG(VERB_WARNING, "WARNING: Running backup\n");
  if (scan_applied_)
    filter_.stop_filters();
  // Another export may have been asked for since, with another name.
  kelvo_.database.set_backup_file_name(request.file.c_str());
  kelvo_.database.backup_database(request.full);
  requests_.export_is_done();
  eit_restarted_ = false;
  tell_change(DB_EXPORTED);
  if (scan_applied_) {
    arm_timers();
    filter_.start_filters();
  }
  if (requests_.export_pending())
    kelvo_.wake();  // the next pass runs it, without waiting for sections before
}

void Scan_loop::wait_and_parse() {
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

void Scan_loop::parse_ready_sections() {
  const bool seen_before = data_seen_;
  const Activity_listener activity = kelvo_.listeners.activity();
  activity.tell(ACTIVITY_SECTIONS_BEGIN, 0);
  // The parser appends filters while the list is walked; they have no data yet.
  for (dvb_filter_desc* filter : *filter_.flist()) {
    const Section_filter::Parts::Section read = filter_.parts().read(filter, section_);
    if (read.length == 0)
      continue;
    data_seen_ = true;
    if (!requests_.scan_requested)
      continue;
    std::memset(section_ + read.length, 0, sizeof section_ - read.length);
    const int table_id = static_cast<unsigned char>(section_[0]);
    activity.tell(ACTIVITY_PARSE_BEGIN, table_id);
    (void)parser_.scan_assembled_section(section_, read.pid, read.freq, request_.data, scan_mode_);
    activity.tell(ACTIVITY_PARSE_END, table_id);
  }
  activity.tell(ACTIVITY_SECTIONS_END, 0);
  if (data_seen_ && !seen_before)
    KLOG(VERB_PROGRESS, "M:%d\t", loop_counter_);
}

void Scan_loop::send_test_signal() {
  const int file = open_test_signal();
  if (file < 0)
    return;
  char text[64]{};
  (void)!uninterrupted([&] { return read(file, text, sizeof text - 1); });  // nothing read counts as no number
  unsigned code = 0;
  (void)std::sscanf(text, "%x", &code);  // without a number the code is 0
  KLOG(VERB_WARNING, "WARNING: Sending callback signal %x ", code);
  tell_change(static_cast<int>(code));
  (void)unlink(TEST_SIGNAL_FILE);  // a file that stays is sent again
  (void)close(file);               // nothing was written to it
}
