// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/tuner_parts.h"

#include <algorithm>
#include <cerrno>

#include "base/log.h"
#include "db/sdbl_parts.h"
#include "tuner/driver_readings.h"
#include "tuner/exact_lock.h"
#include "tuner/frontend_probe.h"
#include "tuner/property_frontend.h"
#include "tuner/statistics_readings.h"
#include "tuner/status_lock.h"
#include "tuner/version3_frontend.h"

namespace {

std::string demux_beside(const std::string& frontend) {
  return frontend.substr(0, frontend.rfind('/') + 1) + "demux0";
}

std::unique_ptr<Frontend> make_frontend(const Receiver_profile& profile, Device& device) {
  if (profile.tuning == Receiver_profile::Tuning::PROPERTIES)
    return std::make_unique<Property_frontend>(device);
  return std::make_unique<Version3_frontend>(device);
}

std::unique_ptr<Readings> make_readings(const Receiver_profile& profile, Device& device) {
  if (profile.readings == Receiver_profile::Readings::STATISTICS)
    return std::make_unique<Statistics_readings>(device);
  return std::make_unique<Driver_readings>(device);
}

std::unique_ptr<Lock_rule> make_lock(const Receiver_profile& profile, Device& device, Readings& readings,
                                     const std::atomic<bool>& receives_t2) {
  if (profile.lock == Receiver_profile::Lock::STATUS)
    return std::make_unique<Status_lock>(device, readings, profile.lock_times, receives_t2);
  return std::make_unique<Exact_lock>(readings);
}

// The calls of version 3 tune DVB-T whatever the device is, so only those of DVBv5 have to know.
std::vector<int> systems_for(const Receiver_profile& profile, Device& device) {
  if (profile.tuning == Receiver_profile::Tuning::PROPERTIES)
    return frontend_probe::systems(device);
  return {SYS_DVBT};
}

}  // namespace

Tuner::Parts::Parts(Tuner* tuner, const char* path, Sdbl* database, Input where_to_tune,
                    const Receiver_profile& its_profile)
    : profile(its_profile),
      device(path, !its_profile.watch_device),
      frontend(make_frontend(profile, device)),
      readings(make_readings(profile, device)),
      lock(make_lock(profile, device, *readings, receives_t2)),
      search(device, *frontend, *lock, Pat_probe(demux_beside(path))),
      monitor(device, *frontend, *readings),
      db(database),
      input(where_to_tune),
      thread(tuner) {
  ask_device();
}

void Tuner::Parts::ask_device() {
  std::vector<int> received = systems_for(profile, device);
  receives_t2 = std::find(received.begin(), received.end(), SYS_DVBT2) != received.end();
  const std::lock_guard guard(result_lock);
  systems = std::move(received);
}

bool Tuner::Parts::open_again() {
  firmware_asked = false;
  if (!device.open_again())
    return false;
  ask_device();
  return true;
}

bool Tuner::Parts::gone() const {
  return device.gone();
}

Known_tuning Tuner::Parts::known(const Tuning_request& request) {
  Known_tuning known;
  {
    const std::lock_guard guard(result_lock);
    known.systems = frontend_probe::terrestrial(systems);
  }
  known.last_system = last_system;
  dvb_frontend_parameters parameters =
      Version3_frontend::defaults(static_cast<unsigned>(request.freq), default_bandwidth_of_version_3(request.freq));
  // A stored line replaces what it names, so the defaults stand for the rest.
  if (db->parts().tuner_table.fill_at_once({input, request.freq}, &parameters) != 0) {
    KLOG(VERB_WARNING, "WARNING: Using FE data from scanned db for freq %d\n", request.freq);
    known.nit = parameters;
  } else {
    KLOG(VERB_WARNING, "WARNING: Using default fe data for freq %d\n", request.freq);
  }
  return known;
}

// What was found the last time. A frequency that a pipe's rows are known by becomes the one to be asked for.
void Tuner::Parts::recall(Tuning_request* request, Known_tuning* known) {
  const auto stored = db->parts().tunings.find_at_once({input, request->freq});
  if (!stored)
    return;
  if (stored->pipe > 0 && request->pipe < 0) {
    request->freq = stored->asked;
    request->pipe = stored->pipe;
  }
  known->stored_system = stored->system;
  known->stored_pipe = stored->pipe;
  known->stored_bandwidth_hz = stored->bandwidth_hz;
  known->stored_offset_hz = stored->offset_hz;
}

Tuning_result Tuner::Parts::tune(Tuning_request request) {
  const Turn turn(turns);
  monitor.watch(static_cast<unsigned>(request.freq));
  locked_key = 0;
  readings->begin_tuning();
  if (profile.watch_device && device.error() != 0)
    (void)open_again();  // it may be free, or back, by now; the search says when it is not
  // Asked again while it seems to be missing: a device may answer so for another reason, for a time.
  if (profile.watch_device && (!firmware_asked.exchange(true) || firmware_missing))
    firmware_missing = frontend_probe::misses_firmware(device);
  Tuning_result tuned;
  if (firmware_missing) {
    tuned.freq = request.freq;
    tuned.key = request.freq;
    tuned.outcome = TUNING_NO_FIRMWARE;
  } else {
    Known_tuning what = known(request);
    if (profile.remember_tunings)
      recall(&request, &what);
    const Search_plan plan = make_search_plan(profile, request, what);
    tuned = search.run(request, plan, turn);
    const bool silent = tuned.outcome == TUNING_NO_SIGNAL || tuned.outcome == TUNING_NO_LOCK;
    if (silent && !turn.over() && device.cure_missing_core())
      tuned = search.run(request, plan, turn);
  }
  keep(tuned, turn);
  return tuned;
}

void Tuner::Parts::keep(const Tuning_result& tuned, const Turn& turn) {
  if (!turn.newest())  // the later one's result counts
    return;
  const bool locked = tuned.outcome == TUNING_LOCKED;
  if (locked)
    readings->tuning_has_locked();
  {
    const std::lock_guard guard(result_lock);
    result = tuned;
  }
  if (!locked)
    return;
  locked_key = tuned.key;
  last_system = tuned.system;
  if (profile.remember_tunings)
    db->parts().tunings.store_at_once(input, {tuned.key, tuned.freq, tuned.system, tuned.pipe, tuned.bandwidth_hz,
                                              tuned.modulation, tuned.tuned_hz - tuned.freq, tuned.lock_ms});
}

void Tuner::Parts::save_tunings() {
  if (db == nullptr)
    return;
  db->parts().tuner_table.save_at_once();
  if (profile.remember_tunings)
    db->parts().tunings.save_at_once();
}
