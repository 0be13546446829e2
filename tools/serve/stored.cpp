// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/serve/stored.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>

#include <fmt/format.h>
#include <kelvo/kelvo.h>

#include "tools/cli/failure.h"
#include "tools/cli/local_time.h"
#include "tools/database/service_json.h"
#include "tools/epg/event_words.h"
#include "tools/epg/guide_json.h"
#include "tools/serve/request_check.h"

namespace {

constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

// Which file has the name; none and one that cannot be looked at are alike.
struct stat status_of(const std::string& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) {
    status = {};
  }
  return status;
}

}  // namespace

Stored::Version Stored::file_of(const std::string& name) {
  const struct stat status = status_of(name);
  return {status.st_dev, status.st_ino, 0};
}

Stored::Stored(std::string channel_file, bool must_exist)
    : file_(std::move(channel_file)),
      must_exist_(must_exist),
      changed_(Clock::now() - LOOK_INTERVAL),
      seed_(new_token().substr(0, 8)) {
  std::array<char, 4096 + 16> name{};
  Sdbl::mapto_epg_filename(name.data(), file_.c_str());
  guide_file_ = name.data();
  open_channels();
  open_guide();
}

// A new connection after each change: the file may have been replaced, and tables that were missing may have been made.
// The other file's stays, or a change of it that comes in between would go unseen.
void Stored::open_channels() {
  Version version = file_of(file_);
  std::unique_ptr<Channel_db> channels;
  if (must_exist_ || version.inode != 0) {
    channels = std::make_unique<Channel_db>(file_);
    version.data = channels->version();
  }
  channels_ = std::move(channels);
  channels_version_ = version;
}

void Stored::open_guide() {
  Version version = file_of(guide_file_);
  auto guide = std::make_unique<Guide_db>(file_);
  version.data = guide->version();
  guide_ = std::move(guide);
  guide_version_ = version;
}

Stored::Changes Stored::look() {
  Changes out;
  if (Clock::now() - changed_ < LOOK_INTERVAL) {
    return out;
  }
  try {
    Version version = file_of(file_);
    version.data = channels_ == nullptr ? 0 : channels_->version();
    if (!(version == channels_version_)) {
      open_channels();
      out.channels = true;
    }
    version = file_of(guide_file_);
    version.data = guide_->version();
    if (!(version == guide_version_)) {
      open_guide();
      out.guide = true;
    } else if (version.data == 0) {
      open_guide();
      out.guide = guide_version_.data != 0;  // It has been made.
    }
  } catch (const Failure&) {
    // Whoever asks for it next is told why.
  }
  if (out.channels) {
    channels_document_.reset();
    services_.reset();
  }
  // The guide names the channels.
  if (out.channels || out.guide) {
    changed_ = Clock::now();
    guide_document_.reset();
    multiplexes_.reset();
    now_until_ = 0;
  }
  return out;
}

const std::vector<Service>& Stored::services() {
  if (!services_) {
    std::vector<Service> services;
    if (channels_ != nullptr) {
      services = channels_->services(true);
    }
    sort_by_number(&services);
    services_ = std::move(services);
  }
  return *services_;
}

const Document& Stored::channels_document() {
  if (!channels_document_) {
    std::string text = channels_json(services()).dump() + "\n";
    channels_document_ = {std::make_shared<const std::string>(std::move(text)),
                          fmt::format("\"{}-{}\"", seed_, ++documents_)};
  }
  return *channels_document_;
}

const Document& Stored::guide_document() {
  if (!guide_document_) {
    std::map<int, Service> by_row;
    for (const Service& service : services()) {
      by_row[service.channel] = service;
    }
    std::vector<Guide_event> events = guide_->events(parse_day("yesterday").first, NEVER, {});
    std::erase_if(events, [&by_row](const Guide_event& event) { return !by_row.contains(event.channel); });
    std::string text = guide_json(events, by_row).dump() + "\n";
    guide_document_ = {std::make_shared<const std::string>(std::move(text)),
                       fmt::format("\"{}-{}\"", seed_, ++documents_)};
  }
  return *guide_document_;
}

const std::map<int, Stored_multiplex>& Stored::multiplexes() {
  if (!multiplexes_) {
    std::map<int, Stored_multiplex> out;
    const std::vector<Service>& all = services();
    const std::map<int, Guide_extent> extents = guide_->extents();
    for (const Service& service : all) {
      Stored_multiplex& multiplex = out[service.freq];
      if (multiplex.network.empty()) {
        multiplex.network = service.network;
      }
      multiplex.transport_stream_id = service.transport_stream_id;
      ++multiplex.channels;
      if (const auto extent = extents.find(service.channel); extent != extents.end()) {
        multiplex.events += extent->second.events;
        multiplex.guide_end = std::max(multiplex.guide_end, extent->second.end);
      }
    }
    multiplexes_ = std::move(out);
  }
  return *multiplexes_;
}

const std::map<int, Stored::On_now>& Stored::now() {
  const int64_t time_now = time(nullptr);
  if (time_now < now_until_) {
    return now_;
  }
  now_.clear();
  now_until_ = time_now + 60;
  // Sorted by start: a later one takes the place of an earlier one.
  for (const Guide_event& event : guide_->events(time_now, now_until_, {})) {
    if (event.start > time_now) {
      now_until_ = std::min(now_until_, event.start);
    } else if (event.end() > time_now) {
      now_[event.channel] = {best_text(event).title, event.end()};
      now_until_ = std::min(now_until_, event.end());
    }
  }
  return now_;
}

std::optional<int64_t> Stored::guide_changed() const {
  const struct stat file = status_of(guide_file_);
  if (file.st_ino == 0) {
    return std::nullopt;
  }
  // What was committed last may stand in the log.
  const struct stat log = status_of(guide_file_ + "-wal");
  return std::max<int64_t>(file.st_mtime, log.st_size > 0 ? log.st_mtime : 0);
}

void Stored::close() {
  channels_.reset();
  guide_.reset();
}
