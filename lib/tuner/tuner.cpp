#include "tuner/tuner.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "base/log.h"
#include "db/sdbl.h"
#include "tuner/monitor_thread.h"
#include "tuner/tuner_quality.h"

namespace {

constexpr unsigned DEFAULT_FREQ = 474000000;
constexpr unsigned HIGHEST_VHF_FREQ = 399999999;  // the band with channels of 7 MHz
constexpr int FULL_LOCK = FE_HAS_SIGNAL | FE_HAS_CARRIER | FE_HAS_VITERBI | FE_HAS_SYNC | FE_HAS_LOCK;
constexpr int STATUS_DVBH = 0x80 | 0x100;  // bits of the box's driver, beyond those of linux/dvb/frontend.h
constexpr float LOWEST_STRENGTH = 40.0F;
constexpr int TUNE_CHECKS = 3;
constexpr std::chrono::microseconds TUNE_CHECK_SLEEP{50000};

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
    : db_(db), connector_(connector), type_(type), monitor_(std::make_unique<TunerMonitorThread>(this)) {
  (void)std::snprintf(path_, sizeof path_, "%s", path);  // longer paths are cut
  open_device();

  dvb_frontend_parameters parameters = default_parameters(DEFAULT_FREQ, BANDWIDTH_8_MHZ);
  tuned_freq_ = DEFAULT_FREQ;
  apply(parameters, true);

  monitor_wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  monitor_running_ = true;
  const int result = monitor_->Start(nullptr);
  monitor_started_ = result == 0;
  if (!monitor_started_)
    KLOG(VERB_ERROR, "ERROR: Cannot start the signal monitor of %s: %s\n", path_, std::strerror(result));
}

Tuner::~Tuner() {
  close_device();
  monitor_running_ = false;
  (void)eventfd_write(monitor_wake_, 1);  // without it the monitor ends within 200 ms all the same
  if (monitor_started_)
    (void)monitor_->Stop();  // nothing left to do for a thread that cannot be joined
  if (monitor_wake_ >= 0)
    (void)close(monitor_wake_);
}

void Tuner::open_device() {
  KLOG(VERB_TRACE, "Opening %s\n", path_);
  // Not blocking only concerns FE_GET_EVENT, which must never wait while it holds the device's lock.
  device_ = open(path_, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (device_ < 0)
    KLOG(VERB_ERROR, "ERROR: Failed to  open %s\n", path_);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is glibc's
  if (control(FE_GET_INFO, &info_) < 0)
    KLOG(VERB_ERROR, "ERROR: FE_GET_INFO failed: %d %m\n", errno);
#pragma GCC diagnostic pop
  info_.name[sizeof info_.name - 1] = '\0';
  KLOG(VERB_PROGRESS, " Front end name is %s, type is %d\n  Freq min: %u Freq max: %u\n", info_.name,
       static_cast<int>(info_.type), info_.frequency_min, info_.frequency_max);
  KLOG(VERB_PROGRESS, "  Freq step: %u, Tolerance: %u\n", info_.frequency_stepsize, info_.frequency_tolerance);
  if (info_.type != FE_OFDM)
    KLOG(VERB_ERROR, "ERROR: Fronetnd %s cannot OFDM", info_.name);
}

void Tuner::close_device() {
  const std::lock_guard<std::mutex> lock(device_lock_);
  const int device = device_.exchange(-1);
  if (device >= 0)
    (void)close(device);  // nothing was written to it
}

int Tuner::control(unsigned long request, void* argument) {
  const std::lock_guard<std::mutex> lock(device_lock_);
  return ioctl(device_.load(), request, argument);
}

void Tuner::apply(dvb_frontend_parameters& parameters, bool say_why) {
  if (control(FE_SET_FRONTEND, &parameters) >= 0)
    return;
  KLOG(VERB_ERROR, "ERROR: Setting frontend parameters for %s failed\n", path_);
  if (say_why)
    kelvo_log::print_errno("Tuner::");
}

int Tuner::tunetofreq(int freq) {
  const auto hz = static_cast<unsigned>(freq);
  dvb_frontend_parameters parameters =
      default_parameters(hz, hz <= HIGHEST_VHF_FREQ ? BANDWIDTH_7_MHZ : BANDWIDTH_8_MHZ);
  tuned_freq_ = hz;
  if (db_->fill_frontend_control(type_, connector_, freq, &parameters) != 0)
    KLOG(VERB_WARNING, "WARNING: Using FE data from scanned db for freq %d\n", freq);
  else
    KLOG(VERB_WARNING, "WARNING: Using default fe data for freq %d\n", freq);
  apply(parameters, false);

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
  if ((status & FULL_LOCK) != FULL_LOCK) {
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

int Tuner::fe_freq() {
  dvb_frontend_parameters parameters{};
  if (control(FE_GET_FRONTEND, &parameters) < 0) {
    KLOG(VERB_ERROR, "ERROR: Getting frontend parameters for %s failed\n", path_);
    return last_freq_;
  }
  last_freq_ = static_cast<int>(parameters.frequency);
  return static_cast<int>(parameters.frequency);
}

int Tuner::fe_status() {
  // Not the enum type: the box's driver sets bits that it does not have.
  uint32_t status = 0;
  static_assert(sizeof status == sizeof(fe_status_t));
  if (control(FE_READ_STATUS, &status) < 0) {
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
    return last_status_;
  }
  last_status_ = static_cast<int>(status);
  return static_cast<int>(status);
}

bool Tuner::mux_is_dvbh() {
  const int status = fe_status();
  if ((status & STATUS_DVBH) == 0)
    return false;
  KLOG(VERB_TRACE, "DVB-H channel, status is %x", static_cast<unsigned>(status));
  return true;
}

void Tuner::fe_strength_local() {
  uint16_t raw = 1;
  const int result = control(FE_READ_SIGNAL_STRENGTH, &raw);
  if (result < 0) {
    KLOG(VERB_ERROR, "ERROR: FE_READ_STRENGTH failed for %s failed, rc is %d\n", path_, result);
    return;
  }
  strength_ = tuner_quality::strength(raw);
}

int Tuner::fe_ber_local() {
  uint32_t raw = 1;
  if (control(FE_READ_BER, &raw) < 0) {
    // Deliberate: this and fe_snr() say FE_READ_STATUS.
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
    return ber_quality_;
  }
  KLOG(VERB_TRACE, "BER readback is %08x", raw);
  const int quality = tuner_quality::ber_quality(raw);
  ber_quality_ = quality;
  return quality;
}

float Tuner::fe_strength() const {
  return static_cast<float>(strength_.load());
}

float Tuner::fe_ber() const {
  return static_cast<float>(ber_quality_.load());
}

float Tuner::fe_snr() {
  uint16_t raw = 1;
  if (control(FE_READ_SNR, &raw) < 0) {
    KLOG(VERB_ERROR, "ERROR: FE_READ_STATUS failed for %s failed\n", path_);
    return snr_;
  }
  KLOG(VERB_TRACE, "SNR readback is %04x", static_cast<unsigned>(raw));
  const int noise = tuner_quality::noise(raw, fe_status() == FULL_LOCK);
  const float snr = tuner_quality::snr_db(noise);
  KLOG(VERB_TRACE, "corrected snr %d log value %3.2f\n", noise, static_cast<double>(snr));
  snr_ = snr;
  return snr;
}

int Tuner::get_channel() const {
  return channel_;
}

void Tuner::set_channel(int channel) {
  channel_ = channel;
}

int Tuner::get_next_freq() const {
  return next_freq_;
}

void Tuner::set_next_freq(int freq) {
  next_freq_ = freq;
}
