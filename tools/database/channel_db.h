// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/database/open_to_read.h"

// One language of a stream, or one page of teletext or subtitles: a row of table stream_language.
struct Language_role {
  std::string language;
  std::string role;  // empty for the main one
  int page = 0;      // of teletext; else a number of the subtitles, or 0
};

// A conditional-access system of a service: a row of table stream_ca.
struct Service_ca {
  int stream = 0;  // PID; 0 for the whole service
  int system = 0;
  int pid = 0;
};

// A stream of a service: the rows of one PID in table estreams, joined.
struct Stream {
  int pid = 0;
  int stream_type = 0;  // ISO/IEC 13818-1, table 2-34
  std::string kind;     // "video", "audio", "teletext", "subtitles", "data", "application"
  std::string codec;    // "H.264", "AC-3", ...; empty where none is known
  std::vector<std::string> languages;
  int ca_system = 0;
  int ca_pid = 0;
  // Only where the database has the stream in words:
  bool described = false;
  std::string profile;
  int component_tag = -1;
  std::vector<Language_role> roles;
};

// How a service's multiplex was received: its row of table tuned_multiplex. Without one little is known.
struct Delivery {
  int system = 0;        // SYS_DVBT or SYS_DVBT2 of linux/dvb/frontend.h; 0: not known
  int freq = 0;          // what to tune to, Hz: the carrier's, also where the service is known by another one
  int bandwidth_hz = 0;  // 0: not known
  int modulation = -1;   // enum fe_modulation; -1: not known
  int pipe = -1;         // DVB-T2's PLP; -1: received without a filter
};

// A service: a row of table kanalid. All texts are clean.
struct Service {
  int channel = 0;
  int lcn = 0;  // NO_LCN: none
  std::string name;
  std::map<std::string, std::string> names;  // by language
  int type = 0;                              // service_type, EN 300 468, table 87
  std::string provider;
  std::string network;
  int freq = 0;
  int program_number = 0;
  int network_id = 0;
  int original_network_id = 0;
  int transport_stream_id = 0;
  int pmt_pid = 0;
  int pcr_pid = 0;
  bool scrambled = false;
  bool visible = true;  // false: its network asks receivers not to list it
  int scan_state = 0;
  int row_status = 0;
  Delivery delivery;
  std::vector<Stream> streams;
  std::vector<Service_ca> ca;  // all systems, where the database has them
};

// The local time of a multiplex: a row of table broadcast_zone.
struct Broadcast_zone {
  int offset_min = 0;  // east of UTC
  int64_t change = 0;  // when the next one holds, seconds since 1970; 0 for never
  int next_offset_min = 0;
  int offset_at(int64_t time) const { return change != 0 && time >= change ? next_offset_min : offset_min; }
};

inline constexpr int NO_LCN = 65535;

// By number, those without one last; those of equal number by row, which is the order in which they were found.
void sort_by_number(std::vector<Service>* services);

// In words: "TV", "radio", ...; "found", "lost", "timed out" or "no streams" (named by the multiplex, never complete).
std::string type_text(const Service& service);
std::string state_text(const Service& service);

// What people watch, and what they listen to: by service_type, by the streams where that is of the user defined range.
bool is_tv(const Service& service);
bool is_radio(const Service& service);
// The channel's number, or a dash.
std::string lcn_text(const Service& service);

// The library cuts the extension off at the last dot of the whole path to name the guide file, so there must be one in
// the name. Throws Failure.
void check_database_name(const std::string& file);

// $XDG_DATA_HOME/kelvo/dvb.db or its fallback below the home folder. Throws Failure when there is no home folder.
std::string default_database();

// Makes the folders that `file` is in. Throws Failure.
void make_folders_for(const std::string& file);

// Looks whether `file`, and the guide's file beside it, can be handed to the library: a channel database that is whole
// and may be written, or nothing where one can be made. Returns true when it exists. Throws Failure; changes nothing.
bool check_database(const std::string& file);

// Removes `file` and the guide's file.
void remove_database(const std::string& file);

// A read-only connection of the command's own.
class Channel_db {
 public:
  // Throws Failure when `file` is missing, damaged or no channel database.
  explicit Channel_db(const std::string& file);

  // All services by row number; with their streams and names by language, or without.
  std::vector<Service> services(bool with_streams) const;

  // The DVB-T2 pipes above 0 that were received, each as what to ask for. Nothing where none can be.
  std::vector<Tuning_request> stored_pipes() const;

  // By frequency; of those whose time table has been seen by a receiver that stores it.
  std::map<int, Broadcast_zone> zones() const;

  // How many services of this frequency the last scan found.
  int services_found(int freq) const;

  // Another number after any change of the file by somebody else.
  int version() const;

  // False when the file's structure is broken.
  bool is_whole() const;

 private:
  friend bool check_database(const std::string& file);
  void check_layout() const;
  void read_deliveries(std::vector<Service>* services, const std::map<int, size_t>& places) const;
  void read_stream_words(std::vector<Service>* services, const std::map<int, size_t>& places) const;

  std::string file_;
  Connection connection_;
};
