// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tuner/status_lock.h"

#include <chrono>
#include <thread>

#include "base/monotonic.h"
#include "tuner/turn.h"

namespace {

constexpr int PERIOD_MS = 50;

}  // namespace

int Status_lock::limit_ms(int system, bool silent) const {
  if (system == SYS_DVBT2)
    return silent ? times_.silent_t2 : times_.signal_t2;
  if (!silent)
    return times_.signal_t;
  return receives_t2_ ? times_.silent_t_of_both : times_.silent_t;
}

Lock_wait Status_lock::wait(const Attempt& attempt, bool taken, int64_t begun_ms, const Turn& turn) {
  Lock_wait wait;
  if (!taken)  // the frontend goes on with what it had, and may be locked on that
    return wait;
  bool asked_late = false;
  while (true) {
    const int64_t asked = monotonic_ms();
    uint32_t status = 0;
    if (device_.control(FE_READ_STATUS, &status) < 0)
      status = 0;
    const int64_t now = monotonic_ms();
    wait.status |= status;
    wait.ms = static_cast<int>(now - begun_ms);
    wait.locked = (status & FE_HAS_LOCK) != 0;
    wait.cancelled = turn.over();
    if (wait.locked || wait.cancelled || device_.gone())
      return wait;
    const bool blocked = now - asked >= PERIOD_MS;
    if (wait.ms >= limit_ms(attempt.system, wait.status == 0)) {
      // A driver that was busy inside the reading has its answer only now: it is asked once more, whatever the time.
      if (!blocked || asked_late)
        return wait;
      asked_late = true;
    }
    if (!blocked)
      std::this_thread::sleep_for(std::chrono::milliseconds(PERIOD_MS));
  }
}

bool Status_lock::tuned_to(int freq, int last_key) {
  return freq == last_key && (readings_.status() & FE_HAS_LOCK) != 0;
}
