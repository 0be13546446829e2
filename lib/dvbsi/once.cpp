// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <dvbsi++/own.h>

namespace dvbsi_own {

bool Once::claim() {
  for (;;) {
    int state = EMPTY;
    if (state_.compare_exchange_strong(state, BUSY, std::memory_order_acquire))
      return true;
    if (state == DONE)
      return false;
    state_.wait(BUSY, std::memory_order_acquire);
  }
}

void Once::leave(int state) {
  state_.store(state, std::memory_order_release);
  state_.notify_all();
}

}  // namespace dvbsi_own
