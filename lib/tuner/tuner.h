#pragma once

#include <linux/dvb/frontend.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "base/export.h"
#include "base/types.h"

class Sdbl;
class TunerMonitorThread;

// Events of the signal monitor, as handed to the event callback.
enum : unsigned {
  STB_EVENT_QUALITY_LOST = 0,  // no full lock, or BER quality below 10
  STB_EVENT_QUALITY_OK = 1,    // full lock and BER quality 11 or more again
};

// One DVB-T frontend device and its signal monitor.
//
// Kelvo creates one when a tuner is connected and deletes it; a host may also use one alone, to measure a signal.
// The constructor opens the device and tunes it to 474 MHz with everything on automatic, so that frequency counts as
// tuned from the start. A device that is missing, or is no DVB-T frontend, still yields an object: each operation then
// prints its error and answers with the last good value (status 0 and frequency 0 at first).
//
// Threads: the monitor thread refreshes strength and BER quality about five times a second. All operations are
// any-thread; of two threads that tune at the same time, the later one wins. The event callback is called on the
// monitor thread, must not destroy the tuner and should return soon. One lock guards the device's descriptor, so that
// it is not closed under a thread that uses it; everything else that threads share is atomic.
//
// Messages name the device by its path. Errors appear at verbosity 0 and above, warnings at 1, progress at 3, raw
// readings at 4.
class KELVO_EXPORT Tuner {
 public:
  using event_callback_t = void (*)(unsigned int event, void* data);

  // Opens `path` (up to 255 characters are kept) for reading and writing, applies the default parameters and starts the
  // monitor. `db` is asked for stored tuning parameters; it is not owned and must outlive the tuner.
  // Prints "ERROR: ..." when the device cannot be opened, does not answer or is no OFDM frontend, and goes on.
  Tuner(const char* path, Sdbl* db, HF_CONN_ID connector, DVB_TYPE_ID type);

  // Closes the device first and joins the monitor then, so a pass of the monitor that is under way may print that its
  // readings failed. Takes at most about 200 ms.
  ~Tuner();

  Tuner(const Tuner&) = delete;
  Tuner& operator=(const Tuner&) = delete;

  // Tunes to `freq` (Hz), with the parameters stored for it by an earlier scan, else with defaults (bandwidth 7 MHz up
  // to 399999999 Hz, 8 MHz above, all else automatic), and tests for lock up to three times in 150 ms.
  // Returns `freq` when locked, else 0. A refused tuning is printed; the test for lock is made all the same.
  // Blocks its caller for up to 150 ms.
  int tunetofreq(int freq);

  // True when the frontend reports `freq` (Hz), all five lock bits, and a fresh strength of at least 40. At verbosity 3
  // says why not.
  bool tuned_to(int freq);

  // Frequency that the frontend reports, in Hz. With a real frontend that is the one asked for, or the one found,
  // offset included. A failing read is printed and answers the last good value.
  int fe_freq();

  // fe_status_t bits (linux/dvb/frontend.h). A failing read is printed and answers the last good value.
  int fe_status();

  // True when the status has bit 0x80 or 0x100: the frontend driver of DVB-T/H boxes sets them on a DVB-H multiplex.
  bool mux_is_dvbh();

  // Reads the signal strength and scales it into the field that fe_strength() answers. The driver's low byte is what
  // counts; see docs/quirks.md for the scale's edges. A failing read is printed and keeps the old value.
  void fe_strength_local();

  // Reads the bit error count and scales it to a quality, 100 (no errors) to 0, kept for fe_ber() and returned.
  // A failing read is printed and keeps the old value.
  int fe_ber_local();

  // The last strength, usually 0 to 100, and the last BER quality, 0 to 100 (higher is better). No device access.
  float fe_strength() const;
  float fe_ber() const;

  // Signal to noise ratio in dB, 0 (also without full lock) to about 24.1, read now. A failing read is printed and
  // answers the previous value.
  float fe_snr();

  // Channel and frequency of the request being served: kept for the scan loop, without effect on the device.
  // -1 stands for "no channel".
  int get_channel() const;
  void set_channel(int channel);
  int get_next_freq() const;
  void set_next_freq(int freq);

  // Who is told of quality lost and regained; null for nobody. `data` of the callback is always null.
  // Nothing is sent before the first reset_signal_monitor_loop().
  void set_stb_event_callback(event_callback_t callback);

  // No more events. The monitor goes on; its lines at verbosity 1 stay.
  void disable_tunerevents();

  // Restarts the monitor's statistics from "quality OK" and switches events on. Returns 1.
  int reset_signal_monitor_loop();

  // Waits up to `seconds` for the BER quality to be below `max_ber`, strength above `min_strength` and SNR (dB) above
  // `min_snr`, testing every 100 ms. Note that the first is a quality of 0 to 100 that is compared as if it were an
  // error count. Returns the number of the test (from 1) that succeeded, or 0. Writes "." to standard output after
  // every fifth failing test.
  int wait_signal_quality(int seconds, int max_ber, int min_snr, int min_strength);

 private:
  friend class TunerMonitorThread;
  static int tuner_main_thread(void* self);

  struct Monitor_state;
  void monitor();
  void watch_quality(Monitor_state& state, int status, int quality);
  void send_event(unsigned event);
  void wait_for_frontend_event();
  bool frequency_in_range() const;

  void open_device();
  void close_device();
  int control(unsigned long request, void* argument);
  void apply(dvb_frontend_parameters& parameters, bool say_why);

  char path_[256]{};
  std::mutex device_lock_;  // held around each ioctl and while the device is closed
  std::atomic<int> device_{-1};
  int monitor_wake_ = -1;                // eventfd; readable when the monitor is to end
  dvb_frontend_info info_{};             // constant once the monitor runs
  std::atomic<unsigned> tuned_freq_{0};  // Hz; the last frequency asked for
  std::atomic<event_callback_t> event_callback_{nullptr};
  std::atomic<int> channel_{-1};
  std::atomic<int> next_freq_{0};
  std::atomic<bool> monitor_running_{false};
  std::atomic<bool> monitor_reset_{true};
  std::atomic<bool> events_enabled_{false};
  std::atomic<int> ber_quality_{0};
  std::atomic<int> strength_{0};
  std::atomic<float> snr_{0.0F};
  std::atomic<int> last_freq_{0};    // Hz; the last good reading
  std::atomic<int> last_status_{0};  // the last good reading
  Sdbl* db_;
  HF_CONN_ID connector_;
  DVB_TYPE_ID type_;
  std::unique_ptr<TunerMonitorThread> monitor_;
  bool monitor_started_ = false;
};
