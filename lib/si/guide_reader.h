// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "si/eit_progress.h"

// A way to collect the guide. The parser has one, which the profile chooses (Receiver_profile::guide), and tells it
// what happens; it wants its own filters on the guide's PID. Worker-only, but progress().
class Guide_reader {
 public:
  Guide_reader() = default;
  virtual ~Guide_reader() = default;
  Guide_reader(const Guide_reader&) = delete;
  Guide_reader& operator=(const Guide_reader&) = delete;

  // A request has been picked up: from here on everything is of the multiplex on `freq` (Hz), and of no one before.
  virtual void begin(int freq) = 0;
  // A scan of it has ended, and may have changed its services (`merged`).
  virtual void scan_ended(int freq, bool merged) = 0;
  // Once a pass, behind the sections: what is to be stored, or could not be yet.
  virtual void catch_up() = 0;
  // Siparse::start_eit_scan().
  virtual void start(int freq) = 0;

  // What an SDT says of a service of the actual multiplex: which parts of the guide are sent for it.
  virtual void announced(int service_id, bool present_following, bool schedule) = 0;

  // Whether sections of this table id are of the guide; and one of them, which is whole and has come on the guide's
  // PID while `freq` was tuned.
  virtual bool takes(unsigned table_id) const = 0;
  virtual void section(const uint8_t* bytes, size_t size, int freq) = 0;

  // Siparse::get_eit_info_available() and get_eit_progress(). The latter is any-thread.
  virtual bool seen_once() const = 0;
  virtual void progress(std::vector<EIT_progress>* progress) const = 0;
};
