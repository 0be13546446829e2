// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "base/export.h"

// How an adapter is treated: which calls tune it, what counts as locked, what its readings mean, and what the library
// does to the system besides. A plain record of switches, each of which can be set alone; chosen once, when a Kelvo or
// a Tuner is made, which keeps a copy. docs/profiles.md has the reasons.
//
//   Receiver_profile profile = Receiver_profile::any_linux();
//   profile.set_clock = true;
//   Kelvo kelvo(0, 0, 0, &database, true, on_change, profile);
struct KELVO_EXPORT Receiver_profile {
  // The receiver that the library was made for; the same as Receiver_profile{}. Every switch has its first value.
  static Receiver_profile box();
  // Any DVB-T or DVB-T2 device that Linux has a driver for. What each switch is then is said behind its text.
  static Receiver_profile any_linux();

  // --- Opening -----------------------------------------------------------------------------------------------------

  // Which frontend of the adapter a Kelvo uses.
  enum class Frontend {
    FIRST,  // frontend0
    BEST,   // any_linux: the first one with DVB-T2, else with DVB-T; demux0 in any case
  };
  Frontend frontend = Frontend::FIRST;

  // True: the constructor tunes to 474 MHz. any_linux: false.
  bool tune_at_start = true;

  // --- Tuning ------------------------------------------------------------------------------------------------------

  // The calls that tune.
  enum class Tuning {
    VERSION_3,   // FE_SET_FRONTEND with the parameters stored from the NIT, else defaults: DVB-T only
    PROPERTIES,  // any_linux: FE_SET_PROPERTY with delivery system, frequency, bandwidth and pipe, all else automatic
  };
  Tuning tuning = Tuning::VERSION_3;

  // What counts as locked.
  enum class Lock {
    EXACT,   // within 150 ms: the frequency asked for is reported, all five bits, strength 40 or more
    STATUS,  // any_linux: FE_HAS_LOCK, within lock_times
  };
  Lock lock = Lock::EXACT;

  // How long Lock::STATUS waits, in milliseconds, from the call that tunes.
  struct Lock_times {
    int silent_t = 2000;          // DVB-T, no bit of the status seen, on a frontend without DVB-T2
    int silent_t_of_both = 1200;  // the same, on a frontend with DVB-T2
    int silent_t2 = 2000;         // DVB-T2, no bit seen
    int signal_t = 3000;          // DVB-T, some bit seen
    int signal_t2 = 4000;         // DVB-T2, some bit seen
    int first_pat = 3000;         // from the lock to the first PAT; a request may ask for up to 10 s
  };
  Lock_times lock_times;

  // True: a frequency without lock is tried as the other delivery system, where bits were seen also offset_hz beside
  // it, and a lock counts only with a PAT; DVB-T2 without one is tried as pipes 0 to 3. any_linux: true.
  bool search = false;
  int offset_hz = 166667;  // of broadcasts beside their channel's centre; 125000 in Australia

  // The frequency that filters, rows and messages carry.
  enum class Key {
    REPORTED,  // what the frontend reports
    ASKED,     // any_linux: what was asked for, plus the number of the pipe
  };
  Key key = Key::REPORTED;

  // True: what was found is stored for each frequency and tried first the next time. any_linux: true.
  bool remember_tunings = false;

  // --- Receiving ---------------------------------------------------------------------------------------------------

  // Where readings come from.
  enum class Readings {
    DRIVER,      // FE_READ_*, on the scales of the box's driver
    STATISTICS,  // any_linux: DTV_STAT_* with their scale, else FE_READ_* as they are
  };
  Readings readings = Readings::DRIVER;

  // Bytes of the kernel's buffer of each section filter; 0 for the kernel's own 8192. any_linux: 262144.
  int demux_buffer = 0;

  // True: once sections of the guide were lost, each service's last one has to come twice again. any_linux: true.
  bool repeat_lost = false;

  // True: all sections of a NIT are read, not one alone, so that all that the network announces is known. any_linux:
  // true.
  bool whole_nit = false;

  // True: a device that has gone ends the scan, and is opened again when it is back. any_linux: true.
  bool watch_device = false;

  // True: a section filter that the demultiplexer refuses to set or to start is set again after a moment, up to ten
  // times. any_linux: true.
  bool set_filters_again = false;

  // --- Reading -----------------------------------------------------------------------------------------------------

  // How texts become UTF-8.
  enum class Texts {
    PLAIN,     // the tables of ISO 8859, ISO 6937 and UCS-2; what cannot be converted is stored as it was broadcast
    STANDARD,  // any_linux: all of EN 300 468, Annex A; always valid UTF-8, with U+FFFD for what cannot be converted
  };
  Texts texts = Texts::PLAIN;
  // Texts::STANDARD only: the table of texts that announce none, by a name that iconv knows ("ISO-8859-2", "UTF-8").
  // Empty: ISO 6937.
  std::string charset;

  // True: a PAT and an SDT are read in all their sections, and a PMT's PID until all programmes on it have come; a
  // service without a name or an SDT entry does not hold up the others. any_linux: true.
  bool whole_tables = false;

  // True: PMTs that are waited for take turns on the handles of the demultiplexer where there are more of them than
  // handles, and those that do not come are given up; without them the scan ends as timed out, but sooner. any_linux:
  // true.
  bool pmt_turns = false;

  // True: while the guide is collected, another version of PAT or SDT begins a new scan at once. any_linux: true.
  bool watch_tables = false;

  // True: NITs and SDTs of other networks and multiplexes are read, too. any_linux: false.
  bool other_networks = false;

  // Which logical channel numbers are read.
  enum class Channel_numbers {
    PLAIN,  // descriptor 0x83, whoever defined it
    ALL,    // any_linux: every flavour by its private data specifier, with visibility; clashes are resolved
  };
  Channel_numbers channel_numbers = Channel_numbers::PLAIN;

  // True: streams are named by their descriptors, and all CA systems and teletext pages of a stream kept. any_linux:
  // true.
  bool name_streams = false;

  // True: what is stored of a known service follows the air, a service that has moved keeps its number, and hosts are
  // told what changed. any_linux: true.
  bool refresh = false;

  // How the guide is collected.
  enum class Guide {
    BY_TABLE,  // one table after the other, of the services that were known at the tuning; first come, first kept
    WHOLE,  // any_linux: all tables at once, of all services, until every section has come; the newest section counts
  };
  Guide guide = Guide::BY_TABLE;
  // Guide::WHOLE only. True: the guide of other multiplexes as well, for known services, where their own has said
  // nothing for that time, in this run or before. any_linux: false.
  bool other_guides = false;

  // Whose local time offset counts, where several countries stand in one table.
  enum class Zone_country {
    PREFERRED_PROVIDER,  // every one of a multiplex of the preferred provider's network
    COUNTRY,  // any_linux: that of `country`, else of the network's country, else of the system's zone's, else of the
              // only country in the table; of its regions the system's, else the first
  };
  Zone_country zone_country = Zone_country::PREFERRED_PROVIDER;
  std::string country;  // ISO 3166, two or three letters ("EE", "EST"); empty when the host does not say

  // --- The system --------------------------------------------------------------------------------------------------

  // True: the system's clock is set when a time table shows that it is more than 10 s off. any_linux: false.
  bool set_clock = true;
  // True: the preferred provider's local time offset becomes the system's zone. any_linux: false.
  bool set_zone = true;
};
