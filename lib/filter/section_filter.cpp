// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The list of wanted filters: adding, removing, asking.
#include "filter/section_filter.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/ids.h"
#include "base/log.h"
#include "base/monotonic.h"
#include "base/polled_timer.h"
#include "filter/section_filter_parts.h"

namespace {

constexpr int PARSER_TIMEOUT_S = 2;

bool is_free(const dvb_filter_desc* f) {
  return f->state == FILTER_FREE;
}

// The names by which the trace knows a slot.
unsigned pid_of(const dvb_filter_desc* f) {
  return static_cast<unsigned>(f->pid);
}

unsigned tid_of(const dvb_filter_desc* f) {
  return f->filter[0];
}

}  // namespace

Section_filter::Section_filter(const char* device) : parts_(std::make_unique<Parts>(device)) {}

Section_filter::~Section_filter() {
  remove_all();
}

Section_filter::Parts::~Parts() {
  for (dvb_filter_desc* f : slots_) {
    const bool has_handle = f->fd > 0;
    if (has_handle && !demux_.close(*f))
      KLOG(VERB_ERROR, "ERROR: Filter close failed, %s \n", std::strerror(errno));
    // Deliberate: the timer of a slot that never got a handle is not deleted. Where the device is watched, all are:
    // slots lose their handles with the device.
    if (has_handle || demux_.options().watch_device)
      polled_timer::remove(f->timer);
    delete f;
  }
}

std::list<dvb_filter_desc*>* Section_filter::flist() {
  return &parts_->slots_;
}

dvb_filter_desc* Section_filter::Parts::add_slot() {
  auto* f = new dvb_filter_desc{};
  f->fd = -1;
  f->timer = polled_timer::create();
  slots_.push_back(f);
  return f;
}

int Section_filter::addfilter(int pid, int freq, const unsigned char* filter, const unsigned char* mask, int len,
                              int flags, int timeout_s) {
  const std::lock_guard lock(parts_->mutex_);
  const auto& slots = parts_->slots_;
  const auto reusable = std::find_if(slots.begin(), slots.end(), is_free);
  const bool is_new = reusable == slots.end();
  dvb_filter_desc* f = is_new ? parts_->add_slot() : *reusable;
  f->state = FILTER_WANTED;
  f->pid = pid;
  if (len > FILTER_LENGTH)
    KLOG(VERB_WARNING, "WARNING: Filter length too long %d > %d, remaining discarded\n", len, FILTER_LENGTH);
  const size_t used = static_cast<size_t>(std::clamp(len, 0, FILTER_LENGTH));
  std::memset(f->filter, 0, sizeof f->filter);
  std::memset(f->mask, 0, sizeof f->mask);
  std::copy_n(filter, used, f->filter);
  std::copy_n(mask, used, f->mask);
  f->timeout_s = timeout_s;
  f->freq = freq;
  f->flags = flags;
  f->open_retries = 0;
  f->captured = 0;
  f->restarts = 0;
  if (is_new) {
    KLOG(VERB_PROGRESS, "Adding new filter for pid %d to list, filter list size %d, nr_opened %d\n", pid,
         static_cast<int>(slots.size()), parts_->demux_.nr_opened());
    KLOG(VERB_TRACE, "+Fl%03X.%03X", pid_of(f), tid_of(f));
  }
  return 0;
}

int Section_filter::addfilter(int pid, int tid, int freq) {
  const unsigned char filter = static_cast<unsigned char>(tid);
  const unsigned char mask = 0xFF;
  return addfilter(pid, freq, &filter, &mask, 1, parts_->crc_flags(), PARSER_TIMEOUT_S);
}

int Section_filter::Parts::crc_flags() const {
  // Deliberate: the kernel alone checks, and it believes every TOT, which has no syntax indicator.
  return demux_.options().check_crc ? FILTER_FLAG_SOFT_CRC : FILTER_FLAG_HW_CRC;
}

namespace {

// How the removals announce a slot; which one it was can be read from the token.
void announce_one(const dvb_filter_desc* f) {
  KLOG(VERB_PROGRESS, "-Fi%03X.%03X.%d", pid_of(f), tid_of(f), f->fd);
}

void announce_pid_range(const dvb_filter_desc* f) {
  KLOG(VERB_PROGRESS, "-Fpr%03X.%03X.%d", pid_of(f), tid_of(f), f->fd);
}

void announce_range(const dvb_filter_desc* f) {
  KLOG(VERB_PROGRESS, "-Fr%03X.%03X.%d", pid_of(f), tid_of(f), f->fd);
}

}  // namespace

template <typename Matches, typename Announce>
int Section_filter::Parts::free_slots(Matches matches, Announce announce) {
  int freed = 0;
  for (dvb_filter_desc* f : slots_) {
    if (!matches(*f))
      continue;
    announce(f);
    free_slot(f);
    ++freed;
  }
  return freed;
}

int Section_filter::removefilter(int pid, int tid) {
  const std::lock_guard lock(parts_->mutex_);
  KLOG(VERB_PROGRESS, "Removing filter pid %x tid %x\n", static_cast<unsigned>(pid), static_cast<unsigned>(tid));
  const int removed =
      parts_->free_slots([=](const dvb_filter_desc& f) { return f.pid == pid && f.filter[0] == tid; }, announce_one);
  if (removed != 1)
    KLOG(VERB_ERROR, "ERROR: Removed %d instances of pid %x, Tid %x\n", removed, static_cast<unsigned>(pid),
         static_cast<unsigned>(tid));
  return 0;
}

int Section_filter::remove_filter_pid_range(int pid_lo, int pid_hi) {
  const std::lock_guard lock(parts_->mutex_);
  KLOG(VERB_TRACE, "Removing filters from pid %x-%x :", static_cast<unsigned>(pid_lo), static_cast<unsigned>(pid_hi));
  (void)parts_->free_slots([=](const dvb_filter_desc& f) { return f.pid >= pid_lo && f.pid <= pid_hi; },
                           announce_pid_range);
  KLOG(VERB_TRACE, "\n");
  return 0;
}

int Section_filter::remove_filter_range(int pid, int tid_lo, int tid_hi) {
  const std::lock_guard lock(parts_->mutex_);
  KLOG(VERB_TRACE, "Removing filters from pid %x, tid %x-%x :", static_cast<unsigned>(pid),
       static_cast<unsigned>(tid_lo), static_cast<unsigned>(tid_hi));
  (void)parts_->free_slots(
      [=](const dvb_filter_desc& f) { return f.pid == pid && f.filter[0] >= tid_lo && f.filter[0] <= tid_hi; },
      announce_range);
  KLOG(VERB_TRACE, "\n");
  return 0;
}

int Section_filter::remove_filter_freq(int freq) {
  const std::lock_guard lock(parts_->mutex_);
  KLOG(VERB_PROGRESS, "Removing filter freq %d\n", freq);
  // Deliberate: the token is the one of removefilter().
  (void)parts_->free_slots([=](const dvb_filter_desc& f) { return f.freq == freq; }, announce_one);
  return 0;
}

void Section_filter::remove_all() {
  {
    const std::lock_guard lock(parts_->mutex_);
    for (dvb_filter_desc* f : parts_->slots_)
      parts_->free_slot(f);
    parts_->dropped_ = 0;
    parts_->given_up_.clear();
  }
  KLOG(VERB_PROGRESS, "Removed all filters\n");
}

void Section_filter::set_dvbfilter_reuse(dvb_filter_desc* f) {
  parts_->free_slot(f);
}

void Section_filter::Parts::free_slot(dvb_filter_desc* f) {
  if (is_free(f))
    return;
  if (f->fd > 0) {
    (void)demux_.stop(*f);
    (void)demux_.unwatch(f->fd);  // a wait that is over may have found data on it
  }
  activity_.ended(f);
  refusals_.erase(f);
  if (turns_.on()) {
    if (f->captured > 0 && Filter_turns::has_turns(f))
      turns_.note_sign_of_life(monotonic_ms());
    turns_.forget(f);
  }
  f->pid = -1;
  f->captured = 0;
  f->state = FILTER_FREE;
  f->freq = 0;
  f->open_retries = 0;
}

int Section_filter::pid_in_list(int pid) const {
  const std::lock_guard lock(parts_->mutex_);
  const auto same = [=](const dvb_filter_desc* f) { return !is_free(f) && f->pid == pid; };
  return std::any_of(parts_->slots_.begin(), parts_->slots_.end(), same) ? 1 : 0;
}

int Section_filter::pid_tid_in_list(int pid, int tid) const {
  const std::lock_guard lock(parts_->mutex_);
  const auto same = [=](const dvb_filter_desc* f) { return !is_free(f) && f->pid == pid && f->filter[0] == tid; };
  return std::any_of(parts_->slots_.begin(), parts_->slots_.end(), same) ? 1 : 0;
}

int Section_filter::eit_or_time_only_in_filter_list() {
  KLOG(VERB_TRACE, "Filter list contains: ");
  int result = 0;
  {
    const std::lock_guard lock(parts_->mutex_);
    result = parts_->slots_.empty() ? 0 : 1;
    for (const dvb_filter_desc* f : parts_->slots_) {
      if (f->state != FILTER_WANTED && f->state != FILTER_RUNNING)
        continue;
      KLOG(VERB_TRACE, "%x.%x ", pid_of(f), tid_of(f));
      if (f->pid != pid::TIME && f->pid != pid::EIT)
        result = 0;
    }
  }
  KLOG(VERB_TRACE, " Eit_or_time_only_in_list is %x\n", static_cast<unsigned>(result));
  return result;
}

void Section_filter::print_filter_list() const {
  const std::lock_guard lock(parts_->mutex_);
  int index = 0;
  for (const dvb_filter_desc* f : parts_->slots_) {
    if (!is_free(f))
      KLOG_ALWAYS("F%d-S%d-P%x-T%x ", index++, f->state, pid_of(f), tid_of(f));
  }
  KLOG_ALWAYS(". Total %d\n", static_cast<int>(parts_->slots_.size()));
}

void Section_filter::Parts::get_tags(const dvb_filter_desc* f, int* pid, int* freq) const {
  const std::lock_guard lock(mutex_);
  *pid = f->pid;
  *freq = f->freq;
}

void Section_filter::Parts::set_activity(const Activity_listener* listener) {
  const std::lock_guard lock(mutex_);
  activity_.set(listener);
}

int Section_filter::Parts::dropped() const {
  const std::lock_guard lock(mutex_);
  return dropped_;
}

void Section_filter::Parts::configure(const Filter_options& options) {
  const std::lock_guard lock(mutex_);
  demux_.configure(options);
  turns_.configure(options);
}

std::vector<int> Section_filter::Parts::take_given_up() {
  const std::lock_guard lock(mutex_);
  return std::exchange(given_up_, {});
}

// --- Losses ----------------------------------------------------------------------------------------------------------

Section_filter::Parts::Loss& Section_filter::Parts::loss_of(int pid) {
  const auto at = std::find_if(losses_.begin(), losses_.end(), [=](const Loss& loss) { return loss.since.pid >= pid; });
  return at != losses_.end() && at->since.pid == pid ? *at : *losses_.insert(at, Loss{{pid, 0, 0}, 0});
}

void Section_filter::Parts::count_overflow(int pid) {
  Loss& loss = loss_of(pid);
  ++loss.since.overflows;
  ++loss.all;
}

void Section_filter::Parts::count_broken(int pid) {
  Loss& loss = loss_of(pid);
  ++loss.since.crc_errors;
  ++loss.all;
}

void Section_filter::Parts::lost(std::vector<Lost_sections>* lost) const {
  lost->clear();
  const std::lock_guard lock(mutex_);
  for (const Loss& loss : losses_)
    if (loss.since.overflows + loss.since.crc_errors != 0)
      lost->push_back(loss.since);
}

void Section_filter::Parts::forget_lost() {
  const std::lock_guard lock(mutex_);
  for (Loss& loss : losses_)
    loss.since = {loss.since.pid, 0, 0};
}

int Section_filter::Parts::losses(int pid) const {
  const std::lock_guard lock(mutex_);
  const auto same = [=](const Loss& loss) { return loss.since.pid == pid; };
  const auto known = std::find_if(losses_.begin(), losses_.end(), same);
  return known == losses_.end() ? 0 : known->all;
}
