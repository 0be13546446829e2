// The list of wanted filters: adding, removing, asking.
#include "filter/section_filter.h"

#include <linux/dvb/dmx.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/ids.h"
#include "base/log.h"
#include "base/polled_timer.h"

namespace {

constexpr int PARSER_TIMEOUT_S = 2;

bool is_free(const dvb_filter_desc* f) {
  return f->state == FILTER_FREE;
}

}  // namespace

Section_filter::Section_filter(const char* device) {
  std::snprintf(device_, sizeof device_, "%s", device);
  FD_ZERO(&demux_.read_set);
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ >= FD_SETSIZE) {
    (void)close(wake_fd_);  // select cannot wait on it
    wake_fd_ = -1;
  }
}

Section_filter::~Section_filter() {
  remove_all();
  for (dvb_filter_desc* f : filters_) {
    // Deliberate: the timer of a slot that never got a handle is not deleted.
    if (f->fd > 0) {
      set_dvbfilter_reuse(f);
      if (close(f->fd) < 0)
        KLOG(VERB_ERROR, "ERROR: Filter close failed, %s \n", std::strerror(errno));
      polled_timer::remove(f->timer);
    }
    delete f;
  }
  filters_.clear();
  if (wake_fd_ >= 0)
    (void)close(wake_fd_);
}

int Section_filter::addfilter(int pid, int freq, const unsigned char* filter, const unsigned char* mask, int len,
                              int flags, int timeout_s) {
  const std::lock_guard lock(mutex_);
  const auto reusable = std::find_if(filters_.begin(), filters_.end(), is_free);
  const bool is_new = reusable == filters_.end();
  dvb_filter_desc* f = nullptr;
  if (is_new) {
    f = new dvb_filter_desc{};
    f->fd = -1;
    f->timer = polled_timer::create();
  } else {
    f = *reusable;
  }
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
         static_cast<int>(filters_.size()) + 1, demux_.nr_opened);
    filters_.push_back(f);
    KLOG(VERB_TRACE, "+Fl%03X.%03X", static_cast<unsigned>(pid), static_cast<unsigned>(f->filter[0]));
  }
  return 0;
}

int Section_filter::addfilter(int pid, int tid, int freq) {
  const unsigned char filter = static_cast<unsigned char>(tid);
  const unsigned char mask = 0xFF;
  // Deliberate: the kernel alone checks, and it believes every TOT, which has no syntax indicator.
  return addfilter(pid, freq, &filter, &mask, 1, FILTER_FLAG_HW_CRC, PARSER_TIMEOUT_S);
}

int Section_filter::removefilter(int pid, int tid) {
  const std::lock_guard lock(mutex_);
  KLOG(VERB_PROGRESS, "Removing filter pid %x tid %x\n", static_cast<unsigned>(pid), static_cast<unsigned>(tid));
  int removed = 0;
  for (dvb_filter_desc* f : filters_) {
    if (f->pid != pid || f->filter[0] != tid)
      continue;
    KLOG(VERB_PROGRESS, "-Fi%03X.%03X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
    set_dvbfilter_reuse(f);
    ++removed;
  }
  if (removed != 1)
    KLOG(VERB_ERROR, "ERROR: Removed %d instances of pid %x, Tid %x\n", removed, static_cast<unsigned>(pid),
         static_cast<unsigned>(tid));
  return 0;
}

int Section_filter::remove_filter_pid_range(int pid_lo, int pid_hi) {
  const std::lock_guard lock(mutex_);
  KLOG(VERB_TRACE, "Removing filters from pid %x-%x :", static_cast<unsigned>(pid_lo), static_cast<unsigned>(pid_hi));
  for (dvb_filter_desc* f : filters_) {
    if (f->pid < pid_lo || f->pid > pid_hi)
      continue;
    KLOG(VERB_PROGRESS, "-Fpr%03X.%03X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
    set_dvbfilter_reuse(f);
  }
  KLOG(VERB_TRACE, "\n");
  return 0;
}

int Section_filter::remove_filter_range(int pid, int tid_lo, int tid_hi) {
  const std::lock_guard lock(mutex_);
  KLOG(VERB_TRACE, "Removing filters from pid %x, tid %x-%x :", static_cast<unsigned>(pid),
       static_cast<unsigned>(tid_lo), static_cast<unsigned>(tid_hi));
  for (dvb_filter_desc* f : filters_) {
    if (f->pid != pid || f->filter[0] < tid_lo || f->filter[0] > tid_hi)
      continue;
    KLOG(VERB_PROGRESS, "-Fr%03X.%03X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
    set_dvbfilter_reuse(f);
  }
  KLOG(VERB_TRACE, "\n");
  return 0;
}

int Section_filter::remove_filter_freq(int freq) {
  const std::lock_guard lock(mutex_);
  KLOG(VERB_PROGRESS, "Removing filter freq %d\n", freq);
  for (dvb_filter_desc* f : filters_) {
    if (f->freq != freq)
      continue;
    // Deliberate: the token is the one of removefilter().
    KLOG(VERB_PROGRESS, "-Fi%03X.%03X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
    set_dvbfilter_reuse(f);
  }
  return 0;
}

void Section_filter::remove_all() {
  {
    const std::lock_guard lock(mutex_);
    for (dvb_filter_desc* f : filters_)
      set_dvbfilter_reuse(f);
  }
  KLOG(VERB_PROGRESS, "Removed all filters\n");
}

void Section_filter::set_dvbfilter_reuse(dvb_filter_desc* f) {
  if (is_free(f))
    return;
  if (f->fd > 0) {
    if (ioctl(f->fd, DMX_STOP) < 0)
      KLOG(VERB_ERROR, "ERROR: Filter stop failed for demux file nr %d, error %s \n", f->fd, std::strerror(errno));
    FD_CLR(f->fd, &demux_.read_set);
  }
  f->pid = -1;
  f->captured = 0;
  f->state = FILTER_FREE;
  f->freq = 0;
  f->open_retries = 0;
}

int Section_filter::pid_in_list(int pid) const {
  const std::lock_guard lock(mutex_);
  return std::any_of(filters_.begin(), filters_.end(), [=](auto* f) { return !is_free(f) && f->pid == pid; }) ? 1 : 0;
}

int Section_filter::pid_tid_in_list(int pid, int tid) const {
  const std::lock_guard lock(mutex_);
  const auto same = [=](auto* f) { return !is_free(f) && f->pid == pid && f->filter[0] == tid; };
  return std::any_of(filters_.begin(), filters_.end(), same) ? 1 : 0;
}

void Section_filter::get_tags(const dvb_filter_desc* f, int* pid, int* freq) {
  const std::lock_guard lock(mutex_);
  *pid = f->pid;
  *freq = f->freq;
}

int Section_filter::eit_or_time_only_in_filter_list() {
  KLOG(VERB_TRACE, "Filter list contains: ");
  int result = 0;
  {
    const std::lock_guard lock(mutex_);
    result = filters_.empty() ? 0 : 1;
    for (const dvb_filter_desc* f : filters_) {
      if (f->state != FILTER_WANTED && f->state != FILTER_RUNNING)
        continue;
      KLOG(VERB_TRACE, "%x.%x ", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]));
      if (f->pid != pid::TIME && f->pid != pid::EIT)
        result = 0;
    }
  }
  KLOG(VERB_TRACE, " Eit_or_time_only_in_list is %x\n", static_cast<unsigned>(result));
  return result;
}

void Section_filter::print_filter_list() const {
  const std::lock_guard lock(mutex_);
  int index = 0;
  for (const dvb_filter_desc* f : filters_) {
    if (is_free(f))
      continue;
    KLOG_ALWAYS("F%d-S%d-P%x-T%x ", index++, f->state, static_cast<unsigned>(f->pid),
                static_cast<unsigned>(f->filter[0]));
  }
  KLOG_ALWAYS(". Total %d\n", static_cast<int>(filters_.size()));
}
