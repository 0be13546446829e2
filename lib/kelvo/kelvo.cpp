#include "kelvo/kelvo.h"

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "filter/section_filter_parts.h"
#include "kelvo/scan_loop.h"
#include "kelvo/tuner_slot.h"

namespace {

// A device's path. Adapter numbers are short, so this always fits.
struct Device_path {
  char text[64];
};

Device_path frontend_path(int adapter) {
  Device_path path{};
  (void)std::snprintf(path.text, sizeof path.text, "/dev/dvb/adapter%i/frontend0", adapter);
  return path;
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

constexpr int WORKER_PRIORITY = 10;

}  // namespace

Kelvo::Kelvo(int adapter, HF_CONN_ID connector, DVB_TYPE_ID type, Sdbl* database, bool tuner_connected,
             change_callback_t db_change_callback)
    : database_(database),
      adapter_(adapter),
      connector_(connector),
      type_(type),
      db_change_callback_(db_change_callback),
      worker_(std::make_unique<KelvoMainThread>(this)),
      tuner_(std::make_unique<Tuner_slot>()) {
  if (tuner_connected) {
    auto tuner = std::make_unique<Tuner>(frontend_path(adapter).text, database, connector, type);
    (void)tuner_->put(tuner);  // the slot is empty
  } else {
    KLOG_ALWAYS("Tuner disconnected, passive stream scan\n");
  }
  filter_ = std::make_unique<Section_filter>(demux_path(adapter).text);
  parser_ = std::make_unique<Siparse>(filter_.get(), adapter, connector, type, database);
  database_->create_temp_tables(adapter);

  const int result = worker_->Start(nullptr);
  worker_started_ = result == 0;
  if (worker_started_)
    worker_->SetPrio(WORKER_PRIORITY);
  else
    KLOG(VERB_ERROR, "ERROR: Cannot start the worker of adapter %d: %s\n", adapter, std::strerror(result));
}

Kelvo::~Kelvo() {
  running_ = false;
  filter_->parts().wake();
  if (worker_started_)
    (void)worker_->Stop();  // nothing left to do for a thread that cannot be joined
}

int Kelvo::filter_read_thread(void* self) {
  Scan_loop loop(*static_cast<Kelvo*>(self));
  loop.run();
  return 0;
}

void Kelvo::set_verbosity(int level) {
  verbosity_kelvo = level;
}

bool Kelvo::tuned_to(int freq) {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner && tuner->tuned_to(freq);
}

bool Kelvo::tune(int freq) {
  const Tuner_slot::Use tuner(*tuner_);
  return !tuner || tuner->tunetofreq(freq) != 0;
}

void Kelvo::post(const Request& request) {
  {
    const Tuner_slot::Use tuner(*tuner_);
    const std::lock_guard<std::mutex> lock(lock_);
    if (tuner) {
      tuner->set_next_freq(request.freq);
      tuner->set_channel(request.channel);
    }
    request_ = request;
  }
  filter_->parts().wake();
}

int Kelvo::tune_to_freq(int freq, int channel, void* data, request_callback_t done) {
  const bool tuned = tuned_to(freq);
  if (channel != -1) {
    // Deliberate: a channel request does not hand its data on.
    if (!tuned)
      post({true, freq, channel, nullptr, done});
    return -1;
  }

  ++tunings_;
  filter_->remove_all();
  filters_taken_ = true;
  const bool locked = tune(freq);
  if (locked)
    post({true, freq, -1, data, done});
  else
    KLOG(VERB_TRACE, "dvb_tuner returned 0\n");
  --tunings_;
  return locked ? -1 : 0;
}

int Kelvo::tune_to_freq(int freq, void* data, request_callback_t done) {
  return tune_to_freq(freq, -1, data, done);
}

bool Kelvo::request_under_way() {
  if (tunings_ > 0)
    return true;
  const std::lock_guard<std::mutex> lock(lock_);
  return request_.pending;
}

bool Kelvo::get_msg_state() const {
  return message_state_;
}

void Kelvo::set_scan(bool on) {
  const bool old = scan_requested_;
  KLOG(VERB_WARNING, "WARNING: #### Scan state from %s to %s. ", true_or_false(old), true_or_false(on));
  if (old == on) {
    KLOG(VERB_PROGRESS, "Same state, unchanged\n");
    return;
  }
  scan_requested_ = on;
  KLOG(VERB_PROGRESS, " Done\n");
  filter_->parts().wake();  // after the line is whole, so that the worker's does not break in
}

void Kelvo::set_tuner(bool connect) {
  if (!connect) {
    if (tuner_->empty())
      return;
    KLOG(VERB_PROGRESS, "Disconnecting tuner\n");
    (void)tuner_->take();  // deleted here, with nobody using it
  } else if (tuner_->empty()) {
    KLOG(VERB_PROGRESS, "reconnecting tuner\n");
    auto tuner = std::make_unique<Tuner>(frontend_path(adapter_).text, database_, connector_, type_);
    (void)tuner_->put(tuner);  // a tuner that another thread has put in meanwhile stays
  }
}

bool Kelvo::time_valid() const {
  return parser_->systime_valid();
}

void Kelvo::eit_progress(std::vector<EIT_progress>* progress) const {
  parser_->get_eit_progress(progress);
}

void Kelvo::export_channel_db(const char* file) {
  database_->backup_channel_database(file);
}

bool Kelvo::export_db(const char* file, bool full) {
  database_->set_backup_file_name(file);
  export_full_ = full;
  export_pending_ = true;
  filter_->parts().wake();
  return true;
}

bool Kelvo::export_db_in_progress() const {
  return export_pending_;
}

int Kelvo::fe_freq() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->fe_freq() : 0;
}

float Kelvo::fe_strength() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->fe_strength() : NO_TUNER_STRENGTH;
}

int Kelvo::fe_status() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->fe_status() : NO_TUNER_STATUS;
}

float Kelvo::fe_snr() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->fe_snr() : NO_TUNER_SNR;
}

float Kelvo::fe_ber() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->fe_ber() : NO_TUNER_BER;
}

void Kelvo::set_stb_event_callback(Tuner::event_callback_t callback) {
  const Tuner_slot::Use tuner(*tuner_);
  if (tuner)
    tuner->set_stb_event_callback(callback);
}

int Kelvo::reset_signal_monitor() {
  const Tuner_slot::Use tuner(*tuner_);
  return tuner ? tuner->reset_signal_monitor_loop() : 0;
}

void Kelvo::disable_tunerevents() {
  const Tuner_slot::Use tuner(*tuner_);
  if (tuner)
    tuner->disable_tunerevents();
}

void Kelvo::set_message_listener(const Message_listener& listener) {
  kelvo_log::set_listener(listener);
}
