// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/kelvo.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "base/log.h"
#include "db/sdbl_parts.h"
#include "filter/section_filter_parts.h"
#include "kelvo/kelvo_parts.h"
#include "kelvo/scan_loop.h"
#include "si/siparse_parts.h"
#include "tuner/tuner_parts.h"

namespace {

constexpr int MEMORY_PAUSE_MS = 100;

// A device's path. Adapter numbers are short, so this always fits.
struct Device_path {
  char text[64];
};

// Of the frontend that the profile chooses.
std::string frontend_path(int adapter, const Receiver_profile& profile) {
  if (profile.frontend == Receiver_profile::Frontend::BEST)
    return Tuner::best_frontend(adapter).path;
  Device_path path{};
  (void)std::snprintf(path.text, sizeof path.text, "/dev/dvb/adapter%i/frontend0", adapter);
  return path.text;
}

Device_path demux_path(int adapter) {
  Device_path path{};
  (void)std::snprintf(path.text, sizeof path.text, "/dev/dvb/adapter%i/demux0", adapter);
  return path;
}

const char* true_or_false(bool value) {
  return value ? "true" : "false";
}

// Readings without a tuner.
constexpr float NO_TUNER_STRENGTH = -24.0F;
constexpr int NO_TUNER_STATUS = FE_TIMEDOUT;
constexpr float NO_TUNER_SNR = 1.0F;
constexpr float NO_TUNER_BER = 0.1F;

// Networks send each PMT at least twice a second; TR 101 290 calls more an error.
constexpr int PMT_TURN_MS = 1000;
constexpr int PMT_PATIENCE_MS = 5000;
constexpr int SET_FILTERS_AGAIN = 10;

Filter_options filter_options(const Receiver_profile& profile) {
  Filter_options options;
  options.buffer_bytes = profile.demux_buffer;
  options.watch_device = profile.watch_device;
  options.check_crc = profile.repeat_lost;
  options.set_again = profile.set_filters_again ? SET_FILTERS_AGAIN : 0;
  if (profile.pmt_turns) {
    options.pmt_turn_ms = PMT_TURN_MS;
    options.pmt_patience_ms = PMT_PATIENCE_MS;
  }
  return options;
}

constexpr char WORKER_NAME[] = "kelvo_th";
constexpr int WORKER_PRIORITY = 10;

std::unique_ptr<Tuner> make_tuner(int adapter, Input input, Sdbl* database, const Receiver_profile& profile) {
  return std::make_unique<Tuner>(frontend_path(adapter, profile).c_str(), database, number(input.connector),
                                 number(input.delivery), profile);
}

// What the slot begins with.
std::unique_ptr<Tuner> first_tuner(bool connected, int adapter, Input input, Sdbl* database,
                                   const Receiver_profile& profile) {
  if (connected)
    return make_tuner(adapter, input, database, profile);
  KLOG_ALWAYS("Tuner disconnected, passive stream scan\n");
  return nullptr;
}

}  // namespace

// --- Parts -----------------------------------------------------------------------------------------------------------

Kelvo::Parts::Parts(Kelvo* kelvo, int adapter_number, Input its_input, Sdbl* its_database, bool tuner_connected,
                    change_callback_t on_change, const Receiver_profile& its_profile)
    : adapter(adapter_number),
      input(its_input),
      database(*its_database),
      change_callback(on_change),
      profile(its_profile),
      worker(kelvo),
      tuner(first_tuner(tuner_connected, adapter_number, its_input, its_database, its_profile)),
      filter(demux_path(adapter_number).text),
      parser(&filter, adapter_number, number(its_input.connector), number(its_input.delivery), its_database) {
  database.parts().remember_tunings();
  database.create_temp_tables(adapter);
  parser.parts().read_as(its_profile);
  filter.parts().configure(filter_options(its_profile));
}

void Kelvo::Parts::start_worker() {
  const int result = worker.Start(nullptr);
  worker_started_ = result == 0;
  if (worker_started_)
    worker.SetPrio(WORKER_PRIORITY);
  else
    KLOG(VERB_ERROR, "ERROR: Cannot start the worker of adapter %d: %s\n", adapter, std::strerror(result));
}

void Kelvo::Parts::end_worker() {
  requests.running = false;
  {
    const Tuner_slot::Use use(tuner);
    if (use)
      use->parts().turns.close();
  }
  wake();
  if (worker_started_)
    (void)worker.Stop();  // nothing left to do for a thread that cannot be joined
}

void Kelvo::Parts::connect_tuner() {
  std::unique_ptr<Tuner> made = make_tuner(adapter, input, &database, profile);
  (void)tuner.put(made);  // a tuner that another thread has put in meanwhile stays
}

bool Kelvo::Parts::tuned_to(int freq) {
  const Tuner_slot::Use use(tuner);
  return use && use->tuned_to(freq);
}

int Kelvo::Parts::tune(const Tuning_request& request) {
  const Tuner_slot::Use use(tuner);
  return use ? use->tune(request) : request.freq;
}

bool Kelvo::Parts::device_gone() {
  if (!profile.watch_device)
    return false;
  const Tuner_slot::Use use(tuner);
  return (use && use->parts().gone()) || filter.parts().device_gone();
}

void Kelvo::Parts::release_device() {
  filter.parts().set_gone();
  (void)filter.recalculate_filters();
  const Tuner_slot::Use use(tuner);
  if (use)
    use->parts().device.close_gone();
}

bool Kelvo::Parts::open_device_again() {
  if (!filter.parts().device_answers())
    return false;
  const Tuner_slot::Use use(tuner);
  // A host's request may have opened and tuned it already.
  if (use && use->parts().gone() && !use->parts().open_again())
    return false;
  filter.parts().close_all();
  return true;
}

void Kelvo::Parts::post(const Request& request) {
  {
    const Tuner_slot::Use use(tuner);
    if (use) {
      use->set_next_freq(request.freq);
      use->set_channel(request.channel);
      if (request.channel != -1)
        use->cancel_tuning();  // the worker's, for the channel before
    }
    requests.post(request);
  }
  wake();
}

void Kelvo::Parts::wake() {
  filter.parts().wake();
}

// --- Kelvo -----------------------------------------------------------------------------------------------------------

Kelvo::Kelvo(int adapter, HF_CONN_ID connector, DVB_TYPE_ID type, Sdbl* database, bool tuner_connected,
             change_callback_t db_change_callback)
    : Kelvo(adapter, connector, type, database, tuner_connected, db_change_callback, Receiver_profile::box()) {}

Kelvo::Kelvo(int adapter, HF_CONN_ID connector, DVB_TYPE_ID type, Sdbl* database, bool tuner_connected,
             change_callback_t db_change_callback, const Receiver_profile& profile)
    : parts_(std::make_unique<Parts>(this, adapter, Input{Connector{connector}, Delivery{type}}, database,
                                     tuner_connected, db_change_callback, profile)) {
  parts_->start_worker();
}

Kelvo::~Kelvo() {
  parts_->end_worker();
}

Kelvo::Parts& Kelvo::parts() const {
  return *parts_;
}

int Kelvo::filter_read_thread(void* self) {
  (void)prctl(PR_SET_NAME, WORKER_NAME);  // for debuggers only
  Parts& parts = static_cast<Kelvo*>(self)->parts();
  std::optional<Scan_loop> loop;
  while (!loop && parts.requests.running) {
    try {
      loop.emplace(parts);
    } catch (const std::bad_alloc&) {
      KLOG(VERB_ERROR, "ERROR: Out of memory, adapter %d begins later\n", parts.adapter);
      (void)usleep(MEMORY_PAUSE_MS * 1000);  // so that there is time for others to free some
    }
  }
  if (loop)
    loop->run();
  return 0;
}

void Kelvo::set_verbosity(int level) {
  verbosity_kelvo = level;
}

int Kelvo::tune_to_freq(int freq, int channel, void* data, request_callback_t done) {
  return tune_to({.freq = freq}, channel, data, done);
}

int Kelvo::tune_to(const Tuning_request& request, int channel, void* data, request_callback_t done) {
  const bool tuned = parts_->tuned_to(request.freq);
  if (channel != -1) {
    // Deliberate: a channel request does not hand its data on.
    if (!tuned)
      parts_->post({request.freq, channel, nullptr, done, request});
    return -1;
  }

  Request_box::Taking taking(parts_->requests);
  parts_->filter.remove_all();
  taking.filters_are_gone();
  const int freq = parts_->tune(request);
  if (freq == 0) {
    KLOG(VERB_TRACE, "dvb_tuner returned 0\n");
    return 0;
  }
  parts_->post({freq, -1, data, done, request});
  return -1;
}

int Kelvo::tune_to_freq(int freq, void* data, request_callback_t done) {
  return tune_to_freq(freq, -1, data, done);
}

void Kelvo::watch_again(int freq, int channel) {
  parts_->post({freq, channel, nullptr, nullptr, {.freq = freq}});
}

bool Kelvo::get_msg_state() const {
  return parts_->requests.message_state;
}

void Kelvo::set_scan(bool on) {
  const bool old = parts_->requests.scan_requested;
  KLOG(VERB_WARNING, "WARNING: #### Scan state from %s to %s. ", true_or_false(old), true_or_false(on));
  if (old == on) {
    KLOG(VERB_PROGRESS, "Same state, unchanged\n");
    return;
  }
  parts_->requests.scan_requested = on;
  KLOG(VERB_PROGRESS, " Done\n");
  parts_->wake();  // after the line is whole, so that the worker's does not break in
}

void Kelvo::set_tuner(bool connect) {
  // One at a time: a device that another thread's tuner still has, or has already, would be found busy. To connect
  // meanwhile is as if it had come before the other, so nobody who is called by a tuner that goes waits for its end.
  std::atomic_flag& switching = parts_->tuner_switches;
  while (switching.test_and_set()) {
    if (connect)
      return;
    switching.wait(true);
  }
  const struct End {
    std::atomic_flag& flag;
    ~End() {
      flag.clear();
      flag.notify_all();
    }
  } end{switching};
  if (connect != parts_->tuner.empty())
    return;
  if (connect) {
    KLOG(VERB_PROGRESS, "reconnecting tuner\n");
    parts_->connect_tuner();
  } else {
    KLOG(VERB_PROGRESS, "Disconnecting tuner\n");
    (void)parts_->tuner.take();  // deleted here, with nobody using it
  }
}

bool Kelvo::time_valid() const {
  return parts_->parser.systime_valid();
}

void Kelvo::eit_progress(std::vector<EIT_progress>* progress) const {
  parts_->parser.get_eit_progress(progress);
}

void Kelvo::export_channel_db(const char* file) {
  parts_->database.backup_channel_database(file);
}

bool Kelvo::export_db(const char* file, bool full) {
  parts_->database.set_backup_file_name(file);
  parts_->requests.post_export({file != nullptr ? file : "", full});
  parts_->wake();
  return true;
}

bool Kelvo::export_db_in_progress() const {
  return parts_->requests.export_pending();
}

int Kelvo::fe_freq() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->fe_freq() : 0;
}

float Kelvo::fe_strength() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->fe_strength() : NO_TUNER_STRENGTH;
}

int Kelvo::fe_status() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->fe_status() : NO_TUNER_STATUS;
}

float Kelvo::fe_snr() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->fe_snr() : NO_TUNER_SNR;
}

float Kelvo::fe_ber() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->fe_ber() : NO_TUNER_BER;
}

void Kelvo::cancel_tuning() {
  const Tuner_slot::Use tuner(parts_->tuner);
  if (tuner)
    tuner->cancel_tuning();
}

Tuning_result Kelvo::last_tuning() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->last_tuning() : Tuning_result{};
}

Frontend_state Kelvo::frontend_state() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->frontend_state() : Frontend_state{};
}

Signal_readings Kelvo::signal() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->signal() : Signal_readings{};
}

void Kelvo::lost_sections(std::vector<Lost_sections>* lost) const {
  parts_->filter.parts().lost(lost);
}

void Kelvo::set_device_listener(device_listener_t listener, void* data) {
  parts_->listeners.set_device(listener, data);
}

void Kelvo::set_stb_event_callback(Tuner::event_callback_t callback) {
  const Tuner_slot::Use tuner(parts_->tuner);
  if (tuner)
    tuner->set_stb_event_callback(callback);
}

int Kelvo::reset_signal_monitor() {
  const Tuner_slot::Use tuner(parts_->tuner);
  return tuner ? tuner->reset_signal_monitor_loop() : 0;
}

void Kelvo::disable_tunerevents() {
  const Tuner_slot::Use tuner(parts_->tuner);
  if (tuner)
    tuner->disable_tunerevents();
}

void Kelvo::set_scan_listener(scan_listener_t listener, void* data) {
  parts_->listeners.set_scan(listener, data);
}

void Kelvo::set_time_listener(time_listener_t listener, void* data) {
  parts_->parser.parts().set_time_listener(listener, data);
}

void Kelvo::set_guide_listener(guide_listener_t listener, void* data) {
  parts_->parser.parts().set_guide_listener(listener, data);
}

void Kelvo::set_activity_listener(const Activity_listener& listener) {
  parts_->listeners.set_activity(listener);
  parts_->filter.parts().set_activity(&listener);
}

void Kelvo::set_message_listener(const Message_listener& listener) {
  kelvo_log::set_listener(listener);
}
