// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The list on the demultiplexer: opening, programming, starting, stopping.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/ids.h"
#include "base/log.h"
#include "base/monotonic.h"
#include "base/polled_timer.h"
#include "filter/section_filter_parts.h"

namespace {

// Above the PIDs that the standards reserve, and one more.
constexpr int FIRST_RESTARTED_PID = pid::LAST_RESERVED + 2;

constexpr int SET_AGAIN_PAUSE_MS = 100;

}  // namespace

bool Section_filter::Parts::open(dvb_filter_desc* f) {
  if (demux_.open(*f))
    return true;
  if (demux_.gone())
    return false;
  if (++f->open_retries > MAX_OPEN_RETRIES) {
    KLOG(VERB_WARNING, "WARNING: Filter pid %x, tid %x open retries > %d, removing filter\n",
         static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), MAX_OPEN_RETRIES);
    f->state = FILTER_FREE;
    ++dropped_;
  }
  return false;
}

bool Section_filter::Parts::set(const dvb_filter_desc* f) {
  if (!demux_.program(*f) && demux_.options().set_again > 0) {
    Refusal& refusal = refusals_[f];
    refusal.again_ms = monotonic_ms() + SET_AGAIN_PAUSE_MS;
    if (++refusal.times <= demux_.options().set_again)
      return false;
  }
  refusals_.erase(f);
  return true;
}

bool Section_filter::Parts::is_set_later(const dvb_filter_desc* f, int64_t now_ms) const {
  const auto refusal = refusals_.find(f);
  return refusal != refusals_.end() && now_ms < refusal->second.again_ms;
}

int Section_filter::Parts::ms_until_set_again(int timeout_ms) const {
  int64_t left_ms = timeout_ms;
  for (const auto& [filter, refusal] : refusals_)
    left_ms = std::min(left_ms, std::max(refusal.again_ms - monotonic_ms(), int64_t{0}));
  return static_cast<int>(left_ms);
}

void Section_filter::Parts::run(dvb_filter_desc* f) {
  if (!set(f))
    return;
  // Disarmed, then armed anew: each step says when it fails.
  for (const int seconds : {0, f->timeout_s}) {
    if (polled_timer::arm(f->timer, seconds, 0) < 0)
      kelvo_log::print_errno("fail to set timer");
  }
  f->state = FILTER_RUNNING;
  if (turns_.on())
    turns_.began(f, monotonic_ms());
  activity_.started(f);
  if (f->pid == pid::EIT)
    KLOG(VERB_TRACE, " +Fo%03X.%02X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
}

// --- Turns -----------------------------------------------------------------------------------------------------------

void Section_filter::Parts::give_up_hopeless() {
  const int64_t now_ms = monotonic_ms();
  for (dvb_filter_desc* f : slots_) {
    if (f->state != FILTER_RUNNING || !turns_.is_hopeless(f, now_ms))
      continue;
    KLOG(VERB_INFO, "No PMT on PID %d: given up\n", f->pid);
    given_up_.push_back(f->pid);
    f->captured = 0;  // of other programmes on its PID: no sign that more will come
    free_slot(f);
  }
}

void Section_filter::Parts::take_turns() {
  std::vector<dvb_filter_desc*> waiting;
  for (dvb_filter_desc* f : slots_) {
    if (f->state == FILTER_WANTED && f->fd == -1)
      waiting.push_back(f);
  }
  const auto listened_less = [this](const dvb_filter_desc* a, const dvb_filter_desc* b) {
    return turns_.listened_ms(a) < turns_.listened_ms(b);
  };
  std::stable_sort(waiting.begin(), waiting.end(), listened_less);
  const int64_t now_ms = monotonic_ms();
  for (dvb_filter_desc* f : waiting) {
    dvb_filter_desc* done = nullptr;
    for (dvb_filter_desc* other : slots_) {
      if (other->state == FILTER_RUNNING && turns_.turn_is_over(other, now_ms) &&
          (done == nullptr || turns_.since_ms(other) < turns_.since_ms(done)))
        done = other;
    }
    if (done == nullptr)
      return;
    hand_over(done, f);
  }
}

// The filters change places, so that handles and timers stay with their slots.
void Section_filter::Parts::hand_over(dvb_filter_desc* from, dvb_filter_desc* to) {
  (void)demux_.stop(*from);
  (void)demux_.unwatch(from->fd);
  activity_.ended(from);
  turns_.ended(from, monotonic_ms());
  turns_.exchange(from, to);
  std::swap(*from, *to);
  std::swap(from->fd, to->fd);
  std::swap(from->timer, to->timer);
  to->state = FILTER_WANTED;
  run(from);
}

void Section_filter::Parts::close_handles() {
  for (dvb_filter_desc* f : slots_) {
    if (f->fd > 0)
      (void)demux_.close(*f);  // nothing was written to it
    turns_.ended(f, monotonic_ms());
    if (f->state == FILTER_RUNNING)
      f->state = FILTER_WANTED;
    f->open_retries = 0;
  }
  refusals_.clear();
  demux_.unwatch_all();
  counts_.max_fd = 0;
}

void Section_filter::Parts::set_gone() {
  demux_.set_gone();
  wake();
}

bool Section_filter::Parts::device_answers() const {
  const std::lock_guard lock(mutex_);
  return demux_.answers();
}

void Section_filter::Parts::close_all() {
  const std::lock_guard lock(mutex_);
  close_handles();
  demux_.come_back();
}

int Section_filter::recalculate_filters() {
  const std::lock_guard lock(parts_->mutex_);
  Demux& demux = parts_->demux_;
  if (demux.gone()) {
    parts_->close_handles();
    return 0;
  }
  if (parts_->turns_.on())
    parts_->give_up_hopeless();
  // Only the limit makes handles go: below it a free slot keeps its own, which spares the next filter the opening.
  if (demux.nr_opened() == MAX_OPEN_DEMUX) {
    for (dvb_filter_desc* f : parts_->slots_) {
      if (f->state == FILTER_FREE && f->fd > 0 && !demux.close(*f))
        KLOG(VERB_ERROR, "ERROR: Filter demux close failed\n");
    }
  }
  const int64_t now_ms = monotonic_ms();
  for (dvb_filter_desc* f : parts_->slots_) {
    if (f->state != FILTER_WANTED || parts_->is_set_later(f, now_ms))
      continue;
    // The limit is one of opening: a slot that has its handle runs in any case.
    if (f->fd == -1 && (demux.nr_opened() >= MAX_OPEN_DEMUX || !parts_->open(f)))
      continue;
    parts_->run(f);
  }
  if (parts_->turns_.on())
    parts_->take_turns();
  if (demux.gone()) {
    parts_->close_handles();
    return 0;
  }
  parts_->counts_.max_fd = 0;
  for (const dvb_filter_desc* f : parts_->slots_) {
    if (f->state != FILTER_RUNNING)
      continue;
    demux.watch(f->fd);
    parts_->counts_.max_fd = std::max(parts_->counts_.max_fd, f->fd);
  }
  return parts_->counts_.max_fd;
}

void Section_filter::check_feed_activation() {
  const std::lock_guard lock(parts_->mutex_);
  if (parts_->demux_.gone())
    return;
  for (dvb_filter_desc* f : parts_->slots_) {
    // Deliberate: silent filters on the fixed PIDs of SI are left as they are.
    if (f->state != FILTER_RUNNING || f->captured != 0 || f->pid < FIRST_RESTARTED_PID)
      continue;
    timespec left{};
    if (polled_timer::time_left(f->timer, &left) < 0)
      kelvo_log::print_errno("feed activation: ");
    if (left.tv_sec != 0)
      continue;
    ++f->restarts;
    if (kelvo_log::enabled(VERB_PROGRESS)) {
      kelvo_log::print(VERB_PROGRESS, "##Restart %s %d times: pid %x  tid %x. Started %d, restarted %d, captured %d\n",
                       parts_->demux_.device(), f->restarts, static_cast<unsigned>(f->pid),
                       static_cast<unsigned>(f->filter[0]), parts_->demux_.programmed(), parts_->counts_.restarted,
                       f->captured);
      ++parts_->counts_.restarted;  // Deliberate: counted only while the line above is printed.
    }
    if (!parts_->demux_.start(*f))
      KLOG(VERB_ERROR, "ERROR: ioctl DMX_START FILTER failed");
    (void)polled_timer::arm(f->timer, f->timeout_s, 0);  // a timer that fails has been told above
  }
}

void Section_filter::start_filters() {
  const std::lock_guard lock(parts_->mutex_);
  for (dvb_filter_desc* f : parts_->slots_) {
    if (f->state == FILTER_STOPPED)
      f->state = FILTER_WANTED;
  }
}

void Section_filter::stop_filters() {
  const std::lock_guard lock(parts_->mutex_);
  for (dvb_filter_desc* f : parts_->slots_) {
    if (f->state == FILTER_RUNNING && parts_->demux_.stop(*f)) {
      parts_->turns_.ended(f, monotonic_ms());
      f->state = FILTER_STOPPED;
    }
  }
}

void Section_filter::restart_all_filters() {
  const std::lock_guard lock(parts_->mutex_);
  for (dvb_filter_desc* f : parts_->slots_) {
    if (f->state != FILTER_RUNNING)
      continue;
    KLOG(VERB_WARNING, "WARNING: Restarting filter for PID %x\n", static_cast<unsigned>(f->pid));
    if (!parts_->demux_.start(*f))
      KLOG(VERB_ERROR, "ERROR: Filter start failed for demux file nr %d, error %s \n", f->fd, std::strerror(errno));
    else
      f->state = FILTER_STOPPED;  // Deliberate: so that start_filters() programs it afresh.
  }
}
