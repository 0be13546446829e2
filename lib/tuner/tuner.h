// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>  // the bits of fe_status()

#include <memory>
#include <string>

#include "base/export.h"
#include "base/receiver_profile.h"
#include "base/types.h"
#include "tuner/reception.h"

class Sdbl;

// Events of the signal monitor, as handed to the event callback.
enum : unsigned {
  STB_EVENT_QUALITY_LOST = 0,  // no full lock, or BER quality below 10
  STB_EVENT_QUALITY_OK = 1,    // full lock and BER quality 11 or more again
};

// One DVB-T frontend device and its signal monitor.
//
// Kelvo creates one when a tuner is connected and deletes it; a host may also use one alone, to measure a signal.
// The constructor opens the device and tunes it to 474 MHz, so that frequency counts as tuned from the start. A device
// that is missing, or is no DVB-T frontend, still yields an object: each operation then prints its error and answers
// with the last good value (status 0 and frequency 0 at first).
//
// That is Receiver_profile::box(). With another profile the constructor may tune nothing, tuning may take seconds and
// try several systems. With Readings::STATISTICS fe_freq(), fe_status(), fe_strength(), fe_snr() and fe_ber() answer
// what the monitor read last, without device access or messages: strength in percent, where -100 to -20 dBm are 0 to
// 100 and a scale that only the driver knows is 0; SNR in dB, 0 where the device gives none in dB; BER quality 0
// without lock, else from uncorrected blocks, bit errors or SNR, whichever the device has first. signal() has the
// values themselves.
//
// Threads: the monitor thread refreshes strength and BER quality about five times a second. All operations are
// any-thread; of two threads that tune at the same time, the later one wins. The event callback is called on the
// monitor thread, must not destroy the tuner and should return soon: the readings stand still meanwhile.
//
// Messages name the device by its path. Errors appear at verbosity 0 and above, warnings at 1, progress at 3, raw
// readings at 4.
class KELVO_EXPORT Tuner {
 public:
  // `data` is always null.
  using event_callback_t = void (*)(unsigned int event, void* data);

  // Opens `path` (copied; up to 255 characters are kept) for reading and writing, applies the default parameters (see
  // tunetofreq) with 8 MHz and starts the monitor. `db` is asked for the tuning parameters that are stored for
  // `connector` and `type`; it is not owned and must outlive the tuner.
  // Prints "ERROR: ..." when the device cannot be opened, does not answer or is no OFDM frontend, and when the
  // monitor's thread cannot be started, and goes on: without its monitor a tuner sends no events, and strength and BER
  // quality change only when they are read.
  Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type);

  // The same with a profile. With profile.search the first PAT is looked for at demux0 beside `path`. With
  // profile.watch_device nothing is printed for a device that cannot be opened: frontend_state() tells.
  Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type, const Receiver_profile& profile);

  // Closes the device first and joins the monitor then, so a pass of the monitor that is under way may print that its
  // readings failed. Takes at most about 200 ms, and as long as an event callback that is running takes to return:
  // after the destructor the callback is not called any more. REQUIRES: no other thread uses the object any more.
  ~Tuner();

  Tuner(const Tuner&) = delete;
  Tuner& operator=(const Tuner&) = delete;

  // Tunes to `freq` (Hz) and tests for lock up to three times in 150 ms. Parameters that an earlier scan has stored for
  // the frequency take the place of the defaults, which are: bandwidth 7 MHz up to 399999999 Hz and 8 MHz above, no
  // inversion, no hierarchy, transmission mode 3, and code rates, constellation and guard interval automatic.
  // Returns `freq` when locked, else 0. A refused tuning is printed and leaves the device as it was; the test for lock
  // is made all the same. The monitor counts `freq` as tuned in either case. Blocks its caller for up to 150 ms,
  // besides the device. A database that somebody else keeps is not waited for: the parameters read last count then.
  int tunetofreq(int freq);

  // The same for a request with more than a frequency, as far as the profile can ask for it: VERSION_3 tunes DVB-T and
  // refuses DVB-T2, and only profile.search waits for a PAT. Blocks its caller for as long as the profile waits for a
  // lock, times the systems, pipes and offsets to be tried: 2 to 20 s. Returns the frequency that the multiplex is
  // known by (Tuning_result::key), or 0; last_tuning() says why. Of two threads that tune, the first one's ends with
  // TUNING_CANCELLED. Any-thread.
  int tune(const Tuning_request& request);

  // Ends a tuning that waits, within 100 ms and as long as the driver blocks; without one it does nothing. Any-thread.
  void cancel_tuning();

  // How the last tuning ended; TUNING_NONE before the first. No device access. Any-thread.
  Tuning_result last_tuning() const;

  // The device as it was found, and whether it has gone since. No device access. Any-thread.
  Frontend_state frontend_state() const;

  // The frequency in Hz that the multiplex is known by: with Key::REPORTED what fe_freq() reads, with Key::ASKED what
  // was asked for last, plus the number of its pipe. Any-thread.
  int tuned_freq();

  // The readings as the monitor took them last, with scale and age; absent is what the device does not have. With
  // Readings::DRIVER the SNR is that of the last fe_snr(), absent before the first. No device access. Any-thread.
  Signal_readings signal() const;

  // Asks a frontend what it is, by a read-only open that neither disturbs its user nor loads firmware; by one for
  // writing, closed again, where the driver answers nothing else. Prints nothing. Any-thread.
  static Frontend_state probe(const char* path);

  // The same, and opens it for writing, as tuning does: `error` says when another program has it (EBUSY) or there is no
  // right to, and `firmware_missing` what its driver says. Loads the firmware, so it may take seconds; tunes nothing.
  // Prints nothing. Any-thread.
  static Frontend_state check(const char* path);

  // The frontend of /dev/dvb/adapterN that Receiver_profile::Frontend::BEST stands for, as probed; frontend0 with its
  // error when there is none. Any-thread.
  static Frontend_state best_frontend(int adapter);

  // True when the frontend reports `freq` (Hz), all five lock bits, and a fresh strength of at least 40. At verbosity 3
  // says why not. A reading that fails counts with its last good value.
  bool tuned_to(int freq);

  // Frequency that the frontend reports, in Hz. With a real frontend that is the one asked for, or the one found,
  // offset included. A failing read is printed and answers the last good value.
  int fe_freq();

  // fe_status_t bits (linux/dvb/frontend.h). A failing read is printed and answers the last good value.
  int fe_status();

  // True when the status has bit 0x80 or 0x100: the frontend driver of DVB-T/H boxes sets them on a DVB-H multiplex.
  // A failing read is printed and the last good status counts.
  bool mux_is_dvbh();

  // Reads the signal strength and scales it into the field that fe_strength() answers. The driver's low byte is what
  // counts; see docs/quirks.md for the scale's edges. A failing read is printed and keeps the old value.
  void fe_strength_local();

  // Reads the bit error count and scales it to a quality, 100 (no errors) to 0, kept for fe_ber() and returned.
  // A failing read is printed and keeps the old value.
  int fe_ber_local();

  // The last strength, usually 0 to 100, and the last BER quality, 0 to 100 (higher is better). No device access, so
  // they cannot fail. Both are 0 at first, and while a frequency is tuned that the frontend does not receive.
  float fe_strength() const;
  float fe_ber() const;

  // Signal to noise ratio in dB, 0 (also without full lock) to about 24.1, read now. A failing read is printed and
  // answers the previous value.
  float fe_snr();

  // Channel and frequency (Hz) of the last request that Kelvo was given: -1, "no channel", and 0 at first. They are
  // only kept; neither the device nor the library's scan loop looks at them.
  int get_channel() const;
  void set_channel(int channel);
  int get_next_freq() const;
  void set_next_freq(int freq);

  // Who is told of quality lost and regained; null for nobody. Nothing is sent before the first
  // reset_signal_monitor_loop(). A call of the callback before that is under way, or about to begin, may still follow.
  void set_stb_event_callback(event_callback_t callback);

  // No more events, but for one that is under way: it may still arrive after this has returned. The monitor goes on;
  // its lines at verbosity 1 stay.
  void disable_tunerevents();

  // Restarts the monitor's statistics from "quality OK" and switches events on. Acts with the monitor's next pass.
  // Returns 1.
  int reset_signal_monitor_loop();

  // Waits up to `seconds` for the BER quality to be below `max_ber`, strength above `min_strength` and SNR (dB) above
  // `min_snr`, testing every 100 ms. Note that the first is a quality of 0 to 100 that is compared as if it were an
  // error count. Strength and BER quality are those of the monitor; the SNR is read, once the two are good, and when
  // that fails (printed) the previous one counts. Returns the number of the test (from 1) that succeeded, or 0. Writes
  // "." to standard output after every fifth failing test.
  int wait_signal_quality(int seconds, int max_ber, int min_snr, int min_strength);

  // What the monitor's thread does: `self` is its Tuner. Returns 0 when the tuner is being destroyed.
  // TunerMonitorThread calls it; a host has no need to.
  static int tuner_main_thread(void* self);

  class Parts;
  // For the library's own use; Parts is not installed.
  Parts& parts() const { return *parts_; }

 private:
  std::unique_ptr<Parts> parts_;
};
