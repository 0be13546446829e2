// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/play/dvr_reader.h"

#include <base/ids.h>
#include <fcntl.h>
#include <linux/dvb/dmx.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/engine/tuning_text.h"

namespace {

// The kernel's own is 1.9 MB; this is 1.5 s of the fastest multiplex.
constexpr size_t DEVICE_BUFFER = size_t{32} * 1024 * Transport_packet::SIZE;
constexpr size_t READ_SIZE = size_t{1024} * Transport_packet::SIZE;
constexpr int MOST_READS = 64;
constexpr int PATIENCE_MS = 500;
// Packets come by the thousand a second; whoever wakes for each has nothing else to do.
constexpr int NAP_MS = 20;
// One above the last PID is the whole stream.
constexpr int ALL_PIDS = 0x2000;

std::string device_of(int adapter, const char* name) {
  return fmt::format("/dev/dvb/adapter{}/{}", adapter, name);
}

}  // namespace

Pid_filters::Pid_filters(int adapter) : path_(device_of(adapter, "demux0")) {}

Pid_filters::~Pid_filters() {
  close_all();
}

void Pid_filters::close_all() {
  for (const auto& [pid, fd] : fds_) {
    (void)close(fd);
  }
  fds_.clear();
}

int Pid_filters::open_one(int pid) {
  const int fd = open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  dmx_pes_filter_params filter{};
  filter.pid = static_cast<uint16_t>(pid);
  filter.input = DMX_IN_FRONTEND;
  filter.output = DMX_OUT_TS_TAP;
  filter.pes_type = DMX_PES_OTHER;  // the others are for one filter each
  filter.flags = DMX_IMMEDIATE_START;
  if (ioctl(fd, DMX_SET_PES_FILTER, &filter) != 0) {
    const int error = errno;
    (void)close(fd);
    return error;
  }
  fds_[pid] = fd;
  return 0;
}

void Pid_filters::set(const std::set<int>& pids) {
  if (all_) {
    return;
  }
  for (auto at = fds_.begin(); at != fds_.end();) {
    if (pids.contains(at->first)) {
      ++at;
      continue;
    }
    (void)close(at->second);
    at = fds_.erase(at);
  }
  for (const int pid : pids) {
    const int error = fds_.contains(pid) ? 0 : open_one(pid);
    if (error == EMFILE || error == ENFILE || error == ENOSPC) {
      set_all();
      return;
    }
    if (error != 0) {
      throw Failure(fmt::format("{}: {}", path_, strerror(error)));
    }
  }
}

// One filter makes room: that of the time, which is sent least often. The others stay until everything is received, so
// that nothing is missed; a packet that comes by both is one that comes twice.
void Pid_filters::set_all() {
  if (const auto time = fds_.find(pid::TIME); time != fds_.end()) {
    (void)close(time->second);
    fds_.erase(time);
  }
  int error = open_one(ALL_PIDS);
  if (error != 0 && !fds_.empty()) {
    close_all();
    error = open_one(ALL_PIDS);
  }
  if (error != 0) {
    throw Failure(fmt::format("{}: {}", path_, error == EMFILE ? "no filter is left" : strerror(error)));
  }
  const int all = fds_[ALL_PIDS];
  fds_.erase(ALL_PIDS);
  close_all();
  fds_[ALL_PIDS] = all;
  all_ = true;
}

Dvr_reader::Dvr_reader(int adapter, std::optional<int> service_id, Packet_queue* queue)
    : path_(device_of(adapter, "dvr0")), queue_(*queue), filters_(adapter) {
  if (service_id) {
    service_.emplace(*service_id);
  }
  raw_.resize(READ_SIZE);
  dvr_ = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (dvr_ < 0) {
    throw Failure(frontend_failure(path_, errno));
  }
  stop_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  try {
    if (stop_ < 0) {
      throw Failure("cannot make an event descriptor: too many open files?");
    }
    (void)ioctl(dvr_, DMX_SET_BUFFER_SIZE, DEVICE_BUFFER);  // without it there is less time
    if (service_) {
      filters_.set(service_->wanted());
      filters_of_ = service_->changed();
      received_ = service_->wanted();
    } else {
      filters_.set_all();
    }
  } catch (const Failure&) {
    (void)close(dvr_);
    (void)close(stop_);
    throw;
  }
  thread_ = std::thread([this] { run(); });
}

Dvr_reader::~Dvr_reader() {
  stop();
  (void)close(dvr_);
  (void)close(stop_);
}

void Dvr_reader::stop() {
  if (thread_.joinable()) {
    (void)eventfd_write(stop_, 1);
    thread_.join();
  }
}

Play_counts Dvr_reader::reception() const {
  const std::lock_guard lock(mutex_);
  return shown_;
}

std::vector<std::string> Dvr_reader::take_news() {
  const std::lock_guard lock(mutex_);
  return std::exchange(news_, {});
}

std::string Dvr_reader::failure() const {
  const std::lock_guard lock(mutex_);
  return failure_;
}

void Dvr_reader::fail(std::string text) {
  const std::lock_guard lock(mutex_);
  failure_ = std::move(text);
}

void Dvr_reader::run() {
  pollfd waits[] = {{stop_, POLLIN, 0}, {dvr_, POLLIN, 0}};
  try {
    while (failure().empty()) {
      (void)poll(waits, 2, PATIENCE_MS);
      if ((waits[0].revents & POLLIN) != 0) {
        break;
      }
      if (waits[1].revents != 0) {
        read_all();
        if (service_ && service_->changed() != filters_of_) {
          filters_of_ = service_->changed();
          filters_.set(service_->wanted());
          for (const int pid : service_->wanted()) {
            if (!received_.contains(pid)) {
              continuity_.forget(pid);
            }
          }
          received_ = service_->wanted();
        }
        (void)poll(waits, 1, NAP_MS);
      }
    }
    // What has come up to now belongs to it.
    read_all();
  } catch (const Failure& error) {
    fail(error.what());
  }
  hand_on();
}

void Dvr_reader::read_all() {
  // A stream that comes faster than it is read has no end, and something else may be wanted.
  for (int reads = 0; reads < MOST_READS; ++reads) {
    const ssize_t n = read(dvr_, raw_.data() + filled_, raw_.size() - filled_);
    if (n > 0) {
      filled_ += static_cast<size_t>(n);
      take_packets();
      continue;
    }
    if (n < 0 && errno == EOVERFLOW) {
      ++counts_.overflows;
      filled_ = 0;  // what comes next begins with a packet
      continue;
    }
    if (n < 0 && errno == ENODEV) {
      fail(GONE);
    } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
      fail(fmt::format("{}: {}", path_, strerror(errno)));
    }
    break;
  }
  hand_on();
}

void Dvr_reader::take_packets() {
  size_t at = 0;
  while (at + Transport_packet::SIZE <= filled_) {
    if (raw_[at] == Transport_packet::SYNC) {
      packet(&raw_[at]);
      at += Transport_packet::SIZE;
    } else {
      ++counts_.unsynced;
      ++at;
    }
  }
  std::copy(raw_.begin() + static_cast<std::ptrdiff_t>(at), raw_.begin() + static_cast<std::ptrdiff_t>(filled_),
            raw_.begin());
  filled_ -= at;
  if (batch_.size() >= READ_SIZE) {
    hand_on();
  }
}

void Dvr_reader::packet(const uint8_t* bytes) {
  const Transport_packet packet(bytes);
  ++counts_.packets;
  if (!service_) {
    (void)continuity_.look(packet);
    batch_.insert(batch_.end(), bytes, bytes + Transport_packet::SIZE);
  } else if (received_.contains(packet.pid())) {
    service_->packet(packet, continuity_.look(packet), &batch_);
  }
}

void Dvr_reader::hand_on() {
  const uint64_t packets = batch_.size() / Transport_packet::SIZE;
  counts_.begun = counts_.begun || packets > 0;
  if (packets > 0 && !queue_.put(&batch_)) {
    counts_.dropped += packets;
  }
  counts_.gaps = continuity_.gaps();
  counts_.lost = continuity_.lost();
  counts_.damaged = continuity_.damaged();
  counts_.waits_for = service_ ? service_->waits_for() : "";
  std::vector<std::string> news;
  if (service_) {
    news = service_->take_news();
  }
  const std::lock_guard lock(mutex_);
  shown_ = counts_;
  news_.insert(news_.end(), news.begin(), news.end());
}
