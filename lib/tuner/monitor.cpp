#include <poll.h>
#include <sys/ioctl.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <thread>

#include "base/log.h"
#include "db/sdbl.h"
#include "tuner/monitor_thread.h"
#include "tuner/tuner.h"

namespace {

constexpr int LOCK_BITS = 0x1F;
constexpr int QUALITY_LOST_BELOW = 10;
constexpr int QUALITY_REGAINED_AT = 11;
constexpr int POLL_TIMEOUT_MS = 200;
constexpr std::chrono::milliseconds OUT_OF_RANGE_SLEEP{10};
constexpr std::chrono::milliseconds QUALITY_TEST_PERIOD{100};
constexpr int QUALITY_TESTS_A_SECOND = 10;
constexpr int QUALITY_TESTS_A_DOT = 5;

}  // namespace

// What one round of the monitor hands to the next. Times in milliseconds, wide enough for years of reception.
struct Tuner::Monitor_state {
  bool quality_ok = true;
  int64_t locked_ms = 0;
  int64_t unlocked_ms = 0;
  int64_t quality_sum = 0;
  float working = 0.0F;
};

void TunerMonitorThread::Execute(void* arg) {
  (void)Tuner::tuner_main_thread(owner());  // always 0
  COrbelThreadKelvo::Execute(arg);
}

int Tuner::tuner_main_thread(void* self) {
  static_cast<Tuner*>(self)->monitor();
  return 0;
}

void Tuner::monitor() {
  Monitor_state state;
  while (monitor_running_) {
    if (!frequency_in_range()) {
      ber_quality_ = 0;
      strength_ = 0;
      std::this_thread::sleep_for(OUT_OF_RANGE_SLEEP);
      continue;
    }
    timespec pass_start{};
    (void)clock_gettime(CLOCK_REALTIME, &pass_start);  // cannot fail for this clock
    wait_for_frontend_event();

    const int status = fe_status();
    fe_strength_local();
    const int quality = fe_ber_local();
    if (monitor_reset_.exchange(false))
      state = Monitor_state{.working = state.working};

    const int elapsed_ms = Sdbl::usec_to_now(&pass_start) / 1000;
    ((status & LOCK_BITS) == 0 ? state.unlocked_ms : state.locked_ms) += elapsed_ms;
    state.quality_sum += quality;
    watch_quality(state, status, quality);
    // Deliberate: a ratio of the two times, not a share of their sum.
    if (state.unlocked_ms > 0)
      state.working = static_cast<float>(state.locked_ms) * 100 / static_cast<float>(state.unlocked_ms);
    KLOG(VERB_PROGRESS, "Locked %d, not_locked %d, working %4.2f %%, quality_sum %d\n",
         static_cast<int>(state.locked_ms), static_cast<int>(state.unlocked_ms), static_cast<double>(state.working),
         static_cast<int>(state.quality_sum));
  }
}

bool Tuner::frequency_in_range() const {
  const unsigned freq = tuned_freq_;
  return freq >= info_.frequency_min && freq <= info_.frequency_max;
}

void Tuner::wait_for_frontend_event() {
  pollfd entries[] = {{device_, POLLIN, 0}, {monitor_wake_, POLLIN, 0}};
  const int ready = poll(entries, 2, POLL_TIMEOUT_MS);
  if (ready < 0) {
    kelvo_log::print_errno("Lock poll thread: ");
  } else if ((entries[0].revents & POLLIN) != 0) {
    dvb_frontend_event event{};  // only wakes the pass
    if (control(FE_GET_EVENT, &event) < 0)
      KLOG(VERB_WARNING, "WARNING: Failed to read fe event\n");
  } else if (ready > 0 && monitor_running_) {
    // The device is gone: poll will not wait any more, so the pace is kept here.
    std::this_thread::sleep_for(std::chrono::milliseconds(POLL_TIMEOUT_MS));
  }
}

void Tuner::watch_quality(Monitor_state& state, int status, int quality) {
  const bool full_lock = (status & LOCK_BITS) == LOCK_BITS;
  if (!state.quality_ok && full_lock && quality >= QUALITY_REGAINED_AT) {
    KLOG(VERB_WARNING, "WARNING: FE quality OK\n");
    send_event(STB_EVENT_QUALITY_OK);
    state.quality_ok = true;
  } else if (state.quality_ok && !(full_lock && quality >= QUALITY_LOST_BELOW)) {
    KLOG(VERB_WARNING, "WARNING: FE quality lost\n");
    send_event(STB_EVENT_QUALITY_LOST);
    state.quality_ok = false;
  }
}

void Tuner::send_event(unsigned event) {
  const event_callback_t callback = event_callback_;
  if (callback != nullptr && events_enabled_)
    callback(event, nullptr);
}

void Tuner::set_stb_event_callback(event_callback_t callback) {
  event_callback_ = callback;
}

void Tuner::disable_tunerevents() {
  events_enabled_ = false;
}

int Tuner::reset_signal_monitor_loop() {
  KLOG(VERB_WARNING, "WARNING: Resetting signal monitor\n");
  monitor_reset_ = true;
  events_enabled_ = true;
  return 1;
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
