// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "base/multiplex.h"
#include "base/mutex.h"
#include "db/guide_events.h"
#include "db/sdbl.h"
#include "filter/section_filter.h"
#include "si/guide_change.h"
#include "si/guide_reader.h"
#include "si/siparse.h"
#include "si/visible_events.h"
#include "si/whole_guide.h"

// Collects all tables of the guide at once, of all services (Receiver_profile::Guide::WHOLE): one filter from a
// request, beside its scan, until the next one. After sections that are new the events of their services that should
// stand in the database (visible_events()) are compared with those that do, and the difference is written and told: at
// once, or together where more sections are waiting to be read. Sections of services that the database does not have
// yet wait until a scan has brought them.
class Whole_guide_reader : public Guide_reader {
 public:
  // `parser`, `filter` and `db` are not owned and outlive the object. `others`: the guide of other multiplexes, too.
  Whole_guide_reader(Siparse::Parts& parser, Section_filter& filter, Sdbl& db, int adapter, Input input, bool others);

  void begin(int freq) override;
  void scan_ended(int freq, bool merged) override;
  void catch_up() override;
  void start(int freq) override;
  void announced(int service_id, bool present_following, bool schedule) override;
  bool takes(unsigned table_id) const override;
  void section(const uint8_t* bytes, size_t size, int freq) override;
  bool seen_once() const override { return seen_once_; }
  void progress(std::vector<EIT_progress>* progress) const override;

 private:
  // One channel whose guide is stored.
  struct Channel {
    Guide_key key;
    int pat_prnr = 0;
    bool loaded = false;  // the rows are those of the database
    bool waits = false;   // not all is stored
    bool complete = false;
    std::vector<sdbl::Guide_row> rows;  // by start
    std::vector<sdbl::Guide_row> own;   // what its own multiplex has said, where another one is heard: by start
  };
  // What the sections say of an event that is to be written.
  struct Reading;
  // An event in a section, to be read into one.
  struct Wanted {
    const Event_heard* event;
    Reading* into;
  };

  void open(int freq);
  void load(int freq);
  Channel* channel_of(const Guide_key& key);
  bool load_rows(int channel, Channel& state);
  void put_off(Channel& state, int64_t ms);
  void store(int channel, Channel& state);
  void store_waiting();
  bool read(const Guide_key& key, const std::vector<Event_shown>& shown, const sdbl::Guide_plan& plan,
            std::vector<Reading>* readings);
  void read_section(const Guide_key& key, const std::vector<Wanted>& wanted);
  sdbl::Guide_write write_of(int channel, const Channel& state, const Event_shown& shown, const Reading& reading,
                             const sdbl::Guide_row* row, int64_t digest) const;
  void publish();

  Siparse::Parts& parser_;
  Section_filter& filter_;
  sdbl::Guide_events& events_;
  const int adapter_;
  const Input input_;
  const bool others_;

  Whole_guide guide_;
  int freq_ = 0;
  bool seen_once_ = false;
  bool any_waits_ = false;
  int64_t retry_ms_ = 0;
  int64_t looked_ms_ = 0;  // when what waits was stored last
  std::map<int, Channel> channels_;
  std::map<Guide_key, int> channel_of_;  // 0 for a service that the database does not have

  mutable Mutex lock_{Lock_rank::ALONE, "progress of the whole guide"};  // guards what follows; a leaf
  std::vector<EIT_progress> published_;
  std::vector<bool> absent_;   // of these: something may still come
  std::vector<bool> awaited_;  // and was announced
  int64_t absent_from_ms_ = 0;
};
