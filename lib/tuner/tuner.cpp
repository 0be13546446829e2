// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/tuner.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>

#include "base/log.h"
#include "db/sdbl.h"
#include "tuner/frontend_probe.h"
#include "tuner/tuner_parts.h"

namespace {

constexpr int DEFAULT_FREQ = 474000000;
constexpr int STATUS_DVBH = 0x80 | 0x100;  // bits of the box's driver, beyond those of linux/dvb/frontend.h
constexpr std::chrono::milliseconds QUALITY_TEST_PERIOD{100};
constexpr int QUALITY_TESTS_A_SECOND = 10;
constexpr int QUALITY_TESTS_A_DOT = 5;

}  // namespace

Tuner::Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type)
    : Tuner(path, db, connector, type, Receiver_profile::box()) {}

Tuner::Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type, const Receiver_profile& profile)
    : parts_(std::make_unique<Parts>(this, path, db, Input{Connector{connector}, Delivery{type}}, profile)) {
  if (profile.tune_at_start) {
    parts_->monitor.watch(DEFAULT_FREQ);
    if (!parts_->frontend->tune({.freq = DEFAULT_FREQ}, nullptr))
      kelvo_log::print_errno("Tuner::");
  }
  const int result = parts_->thread.Start(nullptr);
  parts_->thread_started = result == 0;
  if (!parts_->thread_started)
    KLOG(VERB_ERROR, "ERROR: Cannot start the signal monitor of %s: %s\n", parts_->device.path(),
         std::strerror(result));
}

Tuner::~Tuner() {
  parts_->device.close();  // first, so that the device is free although an event callback may take its time
  parts_->monitor.stop();
  if (parts_->thread_started)
    (void)parts_->thread.Stop();  // nothing left to do for a thread that cannot be joined
  parts_->save_tunings();
}

int Tuner::tuner_main_thread(void* self) {
  Parts& parts = *static_cast<Tuner*>(self)->parts_;
  parts.monitor.run([&parts] { parts.save_tunings(); });
  return 0;
}

void TunerMonitorThread::Execute(void* arg) {
  (void)Tuner::tuner_main_thread(owner());  // always 0
  COrbelThreadKelvo::Execute(arg);
}

int Tuner::tunetofreq(int freq) {
  return tune({.freq = freq});
}

int Tuner::tune(const Tuning_request& request) {
  const Tuning_result tuned = parts_->tune(request);
  return tuned.outcome == TUNING_LOCKED ? tuned.key : 0;
}

void Tuner::cancel_tuning() {
  parts_->turns.cancel();
}

Tuning_result Tuner::last_tuning() const {
  const std::lock_guard lock(parts_->result_lock);
  return parts_->result;
}

Frontend_state Tuner::frontend_state() const {
  const Parts& parts = *parts_;
  Frontend_state state;
  state.path = parts.device.path();
  state.name = parts.device.name();
  state.error = parts.device.error();
  state.firmware_missing = parts.firmware_missing;
  {
    const std::lock_guard lock(parts.result_lock);
    state.all_systems = parts.systems;
  }
  state.systems = frontend_probe::terrestrial(state.all_systems);
  state.lowest_hz = parts.device.lowest_hz();
  state.highest_hz = parts.device.highest_hz();
  return state;
}

int Tuner::tuned_freq() {
  if (parts_->profile.key == Receiver_profile::Key::REPORTED)
    return fe_freq();
  const std::lock_guard lock(parts_->result_lock);
  return parts_->result.key;
}

Signal_readings Tuner::signal() const {
  return parts_->readings->signal();
}

bool Tuner::tuned_to(int freq) {
  return parts_->lock->tuned_to(freq, parts_->locked_key);
}

int Tuner::wait_signal_quality(int seconds, int max_ber, int min_snr, int min_strength) {
  const int64_t tests = int64_t{seconds} * QUALITY_TESTS_A_SECOND;
  for (int64_t test = 1; test <= tests; ++test) {
    std::this_thread::sleep_for(QUALITY_TEST_PERIOD);
    // Deliberate: the quality, which is better when higher, is compared as if it counted errors.
    if (fe_ber() < static_cast<float>(max_ber) && fe_strength() > static_cast<float>(min_strength) &&
        fe_snr() > static_cast<float>(min_snr))
      return static_cast<int>(test);
    if (test % QUALITY_TESTS_A_DOT == 0) {
      (void)std::fputs(".", stdout);  // only shows that the wait goes on
      (void)std::fflush(stdout);
    }
  }
  return 0;
}

bool Tuner::mux_is_dvbh() {
  const int status = fe_status();
  if ((status & STATUS_DVBH) == 0)
    return false;
  KLOG(VERB_TRACE, "DVB-H channel, status is %x", static_cast<unsigned>(status));
  return true;
}

int Tuner::fe_freq() {
  return parts_->readings->freq();
}

int Tuner::fe_status() {
  return parts_->readings->status();
}

void Tuner::fe_strength_local() {
  parts_->readings->read_strength();
}

int Tuner::fe_ber_local() {
  return parts_->readings->read_ber_quality();
}

float Tuner::fe_strength() const {
  return static_cast<float>(parts_->readings->strength());
}

float Tuner::fe_ber() const {
  return static_cast<float>(parts_->readings->ber_quality());
}

float Tuner::fe_snr() {
  return parts_->readings->snr();
}

int Tuner::get_channel() const {
  return parts_->channel;
}

void Tuner::set_channel(int channel) {
  parts_->channel = channel;
}

int Tuner::get_next_freq() const {
  return parts_->next_freq;
}

void Tuner::set_next_freq(int freq) {
  parts_->next_freq = freq;
}

void Tuner::set_stb_event_callback(event_callback_t callback) {
  parts_->monitor.set_callback(callback);
}

void Tuner::disable_tunerevents() {
  parts_->monitor.disable_events();
}

int Tuner::reset_signal_monitor_loop() {
  parts_->monitor.reset();
  return 1;
}
