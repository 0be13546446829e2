// Filters on the demultiplexer device: opening, programming, starting, stopping.
#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/ids.h"
#include "base/log.h"
#include "base/polled_timer.h"
#include "filter/section_filter.h"

namespace {

constexpr int FIRST_RESTARTED_PID = 0x21;

}  // namespace

// The new handle, or -1 with errno. One that select cannot wait on is no handle.
int Section_filter::open_device(dvb_filter_desc* f) {
  f->fd = open(device_, O_RDONLY | O_NONBLOCK);
  if (f->fd >= FD_SETSIZE) {
    (void)close(f->fd);
    f->fd = -1;
    errno = EMFILE;
  }
  if (f->fd >= 0) {
    ++demux_.nr_opened;
    return f->fd;
  }
  KLOG(VERB_WARNING, "WARNING: Failed to  open %s, balance %d for pid %x tid %x, retcode %d\n", device_,
       demux_.nr_opened, static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
  kelvo_log::print_errno("fopen");
  if (++f->open_retries > MAX_OPEN_RETRIES) {
    KLOG(VERB_WARNING, "WARNING: Filter pid %x, tid %x open retries > %d, removing filter\n",
         static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), MAX_OPEN_RETRIES);
    f->state = FILTER_FREE;
  }
  f->fd = -1;
  return -1;
}

void Section_filter::program(dvb_filter_desc* f) {
  KLOG(VERB_TRACE, "setting HW for filter pid %d, fdes %d\n", f->pid, f->fd);
  dmx_sct_filter_params params{};
  params.pid = static_cast<__u16>(f->pid);
  std::copy_n(f->filter, FILTER_LENGTH, params.filter.filter);
  std::copy_n(f->mask, FILTER_LENGTH, params.filter.mask);
  params.flags = ((f->flags & FILTER_FLAG_HW_CRC) != 0 ? DMX_CHECK_CRC : 0u) |
                 ((f->flags & FILTER_FLAG_ONESHOT) != 0 ? DMX_ONESHOT : 0u);
  KLOG(VERB_TRACE, "Filter TID is %x", static_cast<unsigned>(f->filter[0]));
  ++demux_.started;
  if (ioctl(f->fd, DMX_SET_FILTER, &params) < 0)
    KLOG(VERB_ERROR, "ERROR: ioctl DMX_SET_FILTER failed");
  if (ioctl(f->fd, DMX_START) < 0)
    KLOG(VERB_ERROR, "ERROR: ioctl DMX_START FILTER failed");
  for (const int seconds : {0, f->timeout_s}) {
    if (polled_timer::arm(f->timer, seconds, 0) < 0)
      kelvo_log::print_errno("fail to set timer");
  }
  f->state = FILTER_RUNNING;
  if (f->pid == pid::EIT)
    KLOG(VERB_TRACE, " +Fo%03X.%02X.%d", static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]), f->fd);
}

int Section_filter::recalculate_filters() {
  const std::lock_guard lock(mutex_);
  if (demux_.nr_opened == MAX_OPEN_DEMUX) {
    for (dvb_filter_desc* f : filters_) {
      if (f->state != FILTER_FREE || f->fd <= 0)
        continue;
      FD_CLR(f->fd, &demux_.read_set);
      if (close(f->fd) < 0)
        KLOG(VERB_ERROR, "ERROR: Filter demux close failed\n");
      f->fd = -1;
      --demux_.nr_opened;
    }
  }
  for (dvb_filter_desc* f : filters_) {
    if (f->state != FILTER_WANTED)
      continue;
    // The limit is one of opening: a slot that has its handle runs in any case.
    if (f->fd == -1 && (demux_.nr_opened >= MAX_OPEN_DEMUX || open_device(f) < 0))
      continue;
    program(f);
  }
  demux_.max_fd = 0;
  for (const dvb_filter_desc* f : filters_) {
    if (f->state != FILTER_RUNNING)
      continue;
    FD_SET(f->fd, &demux_.read_set);
    demux_.max_fd = std::max(demux_.max_fd, f->fd);
  }
  return demux_.max_fd;
}

void Section_filter::check_feed_activation() {
  const std::lock_guard lock(mutex_);
  for (dvb_filter_desc* f : filters_) {
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
                       device_, f->restarts, static_cast<unsigned>(f->pid), static_cast<unsigned>(f->filter[0]),
                       demux_.started, demux_.restarted, f->captured);
      ++demux_.restarted;  // Deliberate: counted only while the line above is printed.
    }
    if (ioctl(f->fd, DMX_START) < 0)
      KLOG(VERB_ERROR, "ERROR: ioctl DMX_START FILTER failed");
    (void)polled_timer::arm(f->timer, f->timeout_s, 0);  // a timer that fails has been told above
  }
}

void Section_filter::start_filters() {
  const std::lock_guard lock(mutex_);
  for (dvb_filter_desc* f : filters_) {
    if (f->state == FILTER_STOPPED)
      f->state = FILTER_WANTED;
  }
}

void Section_filter::stop_filters() {
  const std::lock_guard lock(mutex_);
  for (dvb_filter_desc* f : filters_) {
    if (f->state != FILTER_RUNNING)
      continue;
    if (ioctl(f->fd, DMX_STOP) < 0)
      KLOG(VERB_ERROR, "ERROR: Filter stop failed for demux file nr %d, error %s \n", f->fd, std::strerror(errno));
    else
      f->state = FILTER_STOPPED;
  }
}

void Section_filter::restart_all_filters() {
  const std::lock_guard lock(mutex_);
  for (dvb_filter_desc* f : filters_) {
    if (f->state != FILTER_RUNNING)
      continue;
    KLOG(VERB_WARNING, "WARNING: Restarting filter for PID %x\n", static_cast<unsigned>(f->pid));
    if (ioctl(f->fd, DMX_START) < 0)
      KLOG(VERB_ERROR, "ERROR: Filter start failed for demux file nr %d, error %s \n", f->fd, std::strerror(errno));
    else
      f->state = FILTER_STOPPED;  // Deliberate: so that start_filters() programs it afresh.
  }
}
