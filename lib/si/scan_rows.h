// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <list>
#include <string>

#include "db/sdbl.h"
#include "si/found.h"
#include "si/place.h"

struct SQL_cache;

namespace sdbl {
class Guide_section;
}

// One event as its EIT section gives it, beside what its descriptors say.
struct Event_times {
  int event_id;
  int ymd_bcd;  // UTC
  int hms_bcd;
  int duration_bcd;
  int start;     // seconds since 1970
  int duration;  // seconds
  int running_status;
  int free_ca_mode;
};

// Hands what was found at one place to the database. Failures are printed there.
class Scan_rows {
 public:
  Scan_rows(Sdbl& db, const Place& place) : sdbl_(db), db_(db.parts()), place_(place) {}

  const Place& place() const { return place_; }

  // PAT: a programme gets its row.
  void programme(int number, int ts_id, int pmt_pid);

  // PMT: the row of a programme, 0 when there is none; and one stream of it. Takes the entries of `subtitles` away.
  int channel_of(int programme, int pcr_pid);
  void stream(int channel, int pid, int type, const Stream_found& stream, std::list<PMT_subtxt_lang*>* subtitles);

  // PMT: all that it says of a programme's streams, in words.
  void streams(int programme, Programme_streams streams);

  // NIT: a column of all services of the multiplex; the result is the first one's row.
  int network(const char* column, int value);
  void network_name(int network_id, const std::string& name);
  void network_name(int network_id, const std::string& language, const std::string& name);
  void channel_number(int ts_id, int orig_network_id, int service_id, int lcn);
  void delivery(const Delivery_found& delivery);

  // SDT: the row of a service, 0 when the PAT has not named it; its type and names, also in one language; and whether
  // any service of this frequency still waits for its provider's name.
  int service(int service_id, int running_status, int free_ca_mode);
  void service_type(int row, int type);
  void service_name(int row, const std::string& name);
  void provider_name(int row, const std::string& name);
  void service_name(int row, const std::string& language, const std::string& name);
  void provider_name(int row, const std::string& language, const std::string& name);
  bool provider_missing();

  // EIT: stores an event of the service of `cache` with its texts, which are taken out of `event`, as one of a section.
  // Returns what Guide_section::store does.
  static int event(sdbl::Guide_section& section, const Place& place, int service_id, const SQL_cache& cache,
                   const Event_times& times, Event_found* event);

  // TOT: the network that the database knows the multiplex by, below 0 for none.
  int original_network_id();

  // TOT: an offset from UTC in minutes, for this frequency. Returns what became of the system's zone, ZONE_..., which
  // is set if `sets_zone`, else compared.
  int local_offset(int freq, int minutes, const std::string& country, int region, bool sets_zone);
  // The same for the one that was chosen, at a time in seconds since 1970; it is stored, too.
  int zone(const Zone_found& zone, int64_t utc, bool sets_zone);

 private:
  std::string table(const char* base) const;

  Sdbl& sdbl_;
  Sdbl::Parts& db_;
  const Place place_;
};
