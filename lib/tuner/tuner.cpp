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
#include "tuner/tuner_parts.h"

namespace {

constexpr unsigned DEFAULT_FREQ = 474000000;
constexpr unsigned HIGHEST_VHF_FREQ = 399999999;  // the band with channels of 7 MHz
constexpr int STATUS_DVBH = 0x80 | 0x100;         // bits of the box's driver, beyond those of linux/dvb/frontend.h
constexpr float LOWEST_STRENGTH = 40.0F;
constexpr int TUNE_CHECKS = 3;
constexpr std::chrono::milliseconds TUNE_CHECK_SLEEP{50};
constexpr std::chrono::milliseconds QUALITY_TEST_PERIOD{100};
constexpr int QUALITY_TESTS_A_SECOND = 10;
constexpr int QUALITY_TESTS_A_DOT = 5;

// Deliberate: the transmission mode is 3, whatever that number means to the driver.
constexpr auto DEFAULT_TRANSMISSION_MODE = static_cast<fe_transmit_mode_t>(3);

dvb_frontend_parameters default_parameters(unsigned freq, fe_bandwidth_t bandwidth) {
  dvb_frontend_parameters parameters{};
  parameters.frequency = freq;
  parameters.inversion = INVERSION_OFF;
  parameters.u.ofdm.bandwidth = bandwidth;
  parameters.u.ofdm.code_rate_HP = FEC_AUTO;
  parameters.u.ofdm.code_rate_LP = FEC_AUTO;
  parameters.u.ofdm.constellation = QAM_AUTO;
  parameters.u.ofdm.transmission_mode = DEFAULT_TRANSMISSION_MODE;
  parameters.u.ofdm.guard_interval = GUARD_INTERVAL_AUTO;
  parameters.u.ofdm.hierarchy_information = HIERARCHY_NONE;
  return parameters;
}

}  // namespace

Tuner::Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type)
    : parts_(std::make_unique<Parts>(this, path, db, Input{Connector{connector}, Delivery{type}})) {
  parts_->monitor.watch(DEFAULT_FREQ);
  if (!parts_->frontend.tune(default_parameters(DEFAULT_FREQ, BANDWIDTH_8_MHZ)))
    kelvo_log::print_errno("Tuner::");

  const int result = parts_->thread.Start(nullptr);
  parts_->thread_started = result == 0;
  if (!parts_->thread_started)
    KLOG(VERB_ERROR, "ERROR: Cannot start the signal monitor of %s: %s\n", parts_->frontend.path(),
         std::strerror(result));
}

Tuner::~Tuner() {
  parts_->frontend.close();  // first, so that the device is free although an event callback may take its time
  parts_->monitor.stop();
  if (parts_->thread_started)
    (void)parts_->thread.Stop();  // nothing left to do for a thread that cannot be joined
}

int Tuner::tuner_main_thread(void* self) {
  static_cast<Tuner*>(self)->parts_->monitor.run();
  return 0;
}

void TunerMonitorThread::Execute(void* arg) {
  (void)Tuner::tuner_main_thread(owner());  // always 0
  COrbelThreadKelvo::Execute(arg);
}

int Tuner::tunetofreq(int freq) {
  const auto hz = static_cast<unsigned>(freq);
  dvb_frontend_parameters parameters =
      default_parameters(hz, hz <= HIGHEST_VHF_FREQ ? BANDWIDTH_7_MHZ : BANDWIDTH_8_MHZ);
  parts_->monitor.watch(hz);
  // A stored line replaces what it names, so the defaults stand for the rest.
  const Input& input = parts_->input;
  if (parts_->db->fill_frontend_control(number(input.delivery), number(input.connector), freq, &parameters) != 0)
    KLOG(VERB_WARNING, "WARNING: Using FE data from scanned db for freq %d\n", freq);
  else
    KLOG(VERB_WARNING, "WARNING: Using default fe data for freq %d\n", freq);
  (void)parts_->frontend.tune(parameters);  // refused or not, what counts is whether it is locked

  if (tuned_to(freq))
    return freq;
  for (int check = 1; check <= TUNE_CHECKS; ++check) {
    KLOG(VERB_PROGRESS, "%d ", check);
    std::this_thread::sleep_for(TUNE_CHECK_SLEEP);
    // Deliberate: the last sleep is not followed by a test.
    if (check < TUNE_CHECKS && tuned_to(freq))
      return freq;
  }
  return 0;
}

bool Tuner::tuned_to(int freq) {
  const int reported_freq = fe_freq();
  if (reported_freq != freq) {
    KLOG(VERB_PROGRESS, "Tuner freq %d != in freq %d. ", reported_freq, freq);
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  const int status = fe_status();
  if ((status & Frontend::FULL_LOCK) != Frontend::FULL_LOCK) {
    KLOG(VERB_PROGRESS, "No Lock, Status %x ", static_cast<unsigned>(status));
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  fe_strength_local();
  const float strength = fe_strength();
  if (strength < LOWEST_STRENGTH) {
    KLOG(VERB_PROGRESS, "Strength %f below accepted %f ", static_cast<double>(strength),
         static_cast<double>(LOWEST_STRENGTH));
    KLOG(VERB_TRACE, "\n");
    return false;
  }
  return true;
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
  return parts_->readings.freq();
}

int Tuner::fe_status() {
  return parts_->readings.status();
}

void Tuner::fe_strength_local() {
  parts_->readings.read_strength();
}

int Tuner::fe_ber_local() {
  return parts_->readings.read_ber_quality();
}

float Tuner::fe_strength() const {
  return static_cast<float>(parts_->readings.strength());
}

float Tuner::fe_ber() const {
  return static_cast<float>(parts_->readings.ber_quality());
}

float Tuner::fe_snr() {
  return parts_->readings.read_snr();
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
