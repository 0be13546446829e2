// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The passes of the scan loop, from the end of a scan on: merge, answers, rescans.
#include "base/ids.h"
#include "base/log.h"
#include "db/sdbl_parts.h"
#include "filter/section_filter_parts.h"
#include "kelvo/scan_loop.h"
#include "si/siparse_parts.h"

namespace {

constexpr int NO_STREAM_S = 6;
constexpr int EIT_RESTART_S = 6;
constexpr int GIVEN_UP_PAUSE_S = 40;  // before PMTs that never came are waited for again
constexpr int EIT_REPORT_STEP = 20;
constexpr int MERGE_TRIES = 15;  // of 2 s, a pass apart, while another program has the channels locked

constexpr int CHANNELS_CHANGED_BITS = 0x0F;  // of Sdbl::update_master_scan_data's result
constexpr int STREAMS_CHANGED_BITS = 0xF0;

}  // namespace

bool Scan_loop::complete_scan() {
  parser_.parts().end_other_tables();
  const bool timed_out = scan_timer_.expired();
  const bool incomplete = filter_.eit_or_time_only_in_filter_list() == 0;
  // Asked after the list was looked at: a list emptied by a host's request is no complete scan.
  if (requests_.under_way())
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

void Scan_loop::finish_scan(bool timed_out) {
  const int scanned_freq = freq();
  timed_out_ = timed_out;
  if (timed_out) {
    KLOG(VERB_WARNING, "WARNING: mode %d scan timed out for frequency %d\n", scan_mode_, scanned_freq);
    filter_.print_filter_list();
  }
  for (const int pid : filter_.parts().take_given_up())
    given_up_.push_back(pid);
  // A service that has gone shows itself in the PAT.
  if (scan_mode_ == SCAN_PMT && !given_up_.empty())
    timed_out_ = true;
  const int outcome = how_it_ended(timed_out);
  if (outcome == SCAN_TIMED_OUT)
    note_missing_tables();
  if (outcome != SCAN_REPLACED && has_news(timed_out) && !merge(scanned_freq))
    return;  // the next pass tries again
  const int result = scan_.changes;
  requests_.scan_is_over();
  remove_scan_filters();
  kelvo_.database.clear_temp_tables(kelvo_.adapter);
  if (result != 0)
    kelvo_.database.flush();
  scan_mode_ = SCAN_EIT;
  if (outcome != SCAN_REPLACED)
    parser_.parts().guide_reader().scan_ended(scanned_freq, result != 0);
  if (follows_table_)
    pace_.ended(result != 0);
  follows_table_ = false;
  end_scan(outcome);

  untold_code_ |= change_code(scanned_freq, result);
  // A request that came with the merge, or from the listener, makes an end of this one. Its next scan tells the rest.
  if (requests_.under_way())
    return;
  open_watch();
  const int eit_count = parser_.get_eit_stored();
  // What an earlier request's channel has changed waits for the next channel; what has become of names does not.
  int code = request_.channel != -1 ? untold_code_ : untold_code_ & DB_CHANNELS_REFRESHED;
  untold_code_ &= ~code;
  if (eit_count > last_eit_count_ + EIT_REPORT_STEP) {
    code |= DB_EPG_GROWN;
    last_eit_count_ = eit_count;
  }
  if (code != 0) {
    KLOG(VERB_WARNING, "WARNING: db_change_callback %x, retval %x\n", static_cast<unsigned>(code),
         static_cast<unsigned>(result));
    tell_change(code);
  }
}

int Scan_loop::how_it_ended(bool timed_out) {
  // Looked at again, right before the merge: a request that began during this pass, or one that failed meanwhile, has
  // taken the filters away.
  if (requests_.under_way() || requests_.filters_taken())
    return SCAN_REPLACED;
  if (is_dvbh())
    return SCAN_NO_STREAM;
  if (timed_out)
    return SCAN_TIMED_OUT;
  // A filter that was given up is gone from the list, which looks as if its table had been read.
  if (filter_.parts().dropped() > dropped_before_)
    return SCAN_NO_DEMUX;
  return given_up_.empty() ? SCAN_COMPLETE : SCAN_TIMED_OUT;
}

bool Scan_loop::has_news(bool timed_out) {
  if (scan_mode_ == SCAN_PMT && parser_.parts().pmt_versions_match() && !timed_out) {
    KLOG(VERB_TRACE, "PMT version match, skipping db recalc\n");
    return false;
  }
  // Without the services' list and names a full scan is of no use.
  // Whole tables are believed one by one: what did not come stays as it is known, or empty.
  return scan_mode_ != SCAN_PAT || !timed_out ||
         (filter_.pid_tid_in_list(pid::PAT, table::PAT) == 0 &&
          (kelvo_.profile.whole_tables || filter_.pid_tid_in_list(pid::SDT, table::SDT_ACTUAL) == 0));
}

// False when another program has the channels locked and is to be waited for.
bool Scan_loop::merge(int scanned_freq) {
  const Activity_listener activity = kelvo_.listeners.activity();
  activity.tell(ACTIVITY_MERGE_BEGIN, scanned_freq);
  const sdbl::Merge_end end = merger_->merge(kelvo_.adapter, {kelvo_.input, scanned_freq}, scan_mode_,
                                             parser_.parts().details(), &scan_.channel_changes);
  activity.tell(ACTIVITY_MERGE_END, end.changes);
  scan_.merged = end.outcome == sdbl::Merge_outcome::DONE;
  scan_.changes = end.changes;
  return end.outcome != sdbl::Merge_outcome::BUSY || ++merge_tries_ >= MERGE_TRIES;
}

// What stays are the guide on PID 18 and the time on PID 20.
void Scan_loop::remove_scan_filters() {
  (void)filter_.remove_filter_pid_range(pid::PAT, pid::EIT - 1);
  (void)filter_.remove_filter_pid_range(pid::EIT + 1, pid::TIME - 1);
  (void)filter_.remove_filter_pid_range(pid::TIME + 1, pid::LAST);
}

int Scan_loop::change_code(int scanned_freq, int result) {
  int code = (result & sdbl::CHANNELS_REFRESHED) != 0 ? DB_CHANNELS_REFRESHED : 0;
  if (request_.channel == -1) {
    if (!guide_begun_)
      (void)parser_.start_eit_scan(scanned_freq, SCAN_EIT);
    guide_begun_ = true;
    return code;
  }
  if ((result & CHANNELS_CHANGED_BITS) != 0) {
    code |= DB_CHANNELS_CHANGED;
    if (eit_restarted_) {
      KLOG(VERB_PROGRESS, "Channel changed EIT scan\n");
      eit_restarted_ = false;
    }
  }
  if ((result & STREAMS_CHANGED_BITS) != 0)
    code |= DB_STREAMS_CHANGED;
  return code;
}

void Scan_loop::begin_scan() {
  scan_open_ = true;  // first: what has no memory below gives a scan up, see survive()
  scan_.adapter = kelvo_.adapter;
  scan_.freq = request_.freq;
  scan_.channel = request_.channel;
  scan_.stage = scan_mode_;
  scan_.merged = false;
  scan_.changes = 0;
  merge_tries_ = 0;
  scan_.channel_changes.clear();
  scan_.missing.clear();  // keeps its room
  parser_.parts().begin_network();
  kelvo_.database.parts().errors.watch(kelvo_.adapter);
  dropped_before_ = filter_.parts().dropped();
  (void)filter_.parts().take_given_up();  // of no scan
  given_up_.clear();
}

void Scan_loop::end_scan(int outcome) {
  if (!scan_open_)
    return;
  scan_open_ = false;
  scan_.outcome = outcome;
  filter_.parts().lost(&scan_.lost);
  const Network_found& network = parser_.parts().network();
  scan_.original_network_id = network.original_network_id();
  scan_.transport_stream_id = network.transport_stream_id();
  scan_.announced = network.announced();
  (void)kelvo_.database.parts().errors.first_since_watch(kelvo_.adapter, &scan_.error);
  kelvo_.listeners.tell(scan_);
}

void Scan_loop::note_missing_table(int pid, int table_id) {
  const std::vector<int> services =
      table_id == table::PMT ? parser_.parts().services_awaited_on(pid) : std::vector<int>{};
  for (const int service_id : services)
    scan_.missing.push_back({pid, table_id, service_id});
  if (services.empty())
    scan_.missing.push_back({pid, table_id});
}

void Scan_loop::note_missing_tables() {
  scan_.missing.clear();  // keeps its room
  for (const int pid : given_up_)
    note_missing_table(pid, table::PMT);
  for (const dvb_filter_desc* filter : *filter_.flist()) {
    int pid = 0;
    int tagged_freq = 0;
    filter_.parts().get_tags(filter, &pid, &tagged_freq);
    const int table_id = filter->filter[0];  // written by the worker only
    if (pid != pid::EIT && pid != pid::TIME && filter_.pid_tid_in_list(pid, table_id) != 0)
      note_missing_table(pid, table_id);
  }
}

void Scan_loop::answer_request() {
  if (request_.channel != -1 || request_.data == nullptr || requests_.message_state || scan_mode_ != SCAN_EIT)
    return;
  KLOG(VERB_TRACE, "MSG: Captured channel eit info\n");
  KLOG(VERB_PROGRESS, "OK MSG at loop %d\t", loop_counter_);
  tell_host(0);
  requests_.message_state = true;
}

// False when there is no stream.
bool Scan_loop::check_for_stream(bool scanning) {
  const bool silent = scanning && scan_timer_.elapsed() >= NO_STREAM_S && !data_seen_ && !requests_.message_state &&
                      request_.channel == -1;
  // Deliberate: on DVB-H this repeats every pass.
  if (!is_dvbh() && !silent)
    return true;
  requests_.message_state = true;
  filter_.remove_all();
  KLOG(VERB_PROGRESS, "Mux is DVB-H or NO MPEG stream decoded, clearing filters and exiting scan loop\n");
  end_scan(SCAN_NO_STREAM);
  // The listener may have made a request, which makes an end of this one.
  if (!requests_.under_way())
    tell_host(-1);
  return false;
}

void Scan_loop::rescan() {
  if (!eit_restarted_ && autoscan_timer_.elapsed() >= EIT_RESTART_S) {
    KLOG(VERB_WARNING, "WARNING: Restarting EIT scan\n");
    eit_restarted_ = true;
    parser_.reset_cache_list();
    start_eit();
  }
  if (autoscan_timer_.expired() || timed_out_)
    restart_from_pat();
  else if (pmt_timer_.expired() && (given_up_.empty() || autoscan_timer_.elapsed() >= GIVEN_UP_PAUSE_S))
    restart_from_pmt();
}

bool Scan_loop::follow_tables() {
  Table_watch* watch = parser_.parts().watch();
  const auto now = Rescan_pace::Clock::now();
  if (watch == nullptr || !watch->changed() || !pace_.may_begin(now))
    return false;
  watch->looked();
  KLOG(VERB_INFO, "A table has changed\n");
  pace_.begun(now);
  restart_from_pat();
  follows_table_ = true;
  return true;
}

void Scan_loop::open_watch() {
  if (parser_.parts().watch() == nullptr)
    return;
  const int tuned_freq = freq();
  (void)filter_.addfilter(pid::PAT, table::PAT, tuned_freq);
  (void)filter_.addfilter(pid::SDT, table::SDT_ACTUAL, tuned_freq);
  (void)filter_.addfilter(parser_.parts().network_pid(), table::NIT_ACTUAL, tuned_freq);
}

// A scan waits for these tables itself, or not at all.
void Scan_loop::close_watch() {
  if (parser_.parts().watch() == nullptr)
    return;
  (void)filter_.remove_filter_range(pid::PAT, table::PAT, table::PAT);
  (void)filter_.remove_filter_range(pid::SDT, table::SDT_ACTUAL, table::SDT_ACTUAL);
  (void)filter_.remove_filter_range(parser_.parts().network_pid(), table::NIT_ACTUAL, table::NIT_ACTUAL);
}

void Scan_loop::restart_from_pat() {
  close_watch();
  KLOG(VERB_PROGRESS, "Restarting autoscan from PAT\n");
  autoscan_timer_.arm();
  scan_timer_.arm();
  scan_mode_ = SCAN_PAT;
  begin_scan();
  const int tuned_freq = freq();
  (void)filter_.remove_filter_pid_range(pid::TIME, pid::TIME);
  (void)filter_.addfilter(pid::TIME, table::TOT, tuned_freq);
  (void)filter_.addfilter(pid::PAT, table::PAT, tuned_freq);
}

void Scan_loop::restart_from_pmt() {
  close_watch();
  KLOG(VERB_PROGRESS, "Restarting autoscan from PMT\n");
  pmt_timer_.arm();
  scan_timer_.arm();
  scan_mode_ = SCAN_PMT;
  begin_scan();
  (void)parser_.init_pmt_table_scan_from_database(freq());
}

void Scan_loop::start_eit() {
  (void)parser_.start_eit_scan(freq(), SCAN_EIT);
}
