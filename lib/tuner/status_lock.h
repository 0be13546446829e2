// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>

#include "base/receiver_profile.h"
#include "tuner/device.h"
#include "tuner/lock_rule.h"
#include "tuner/readings.h"

// FE_HAS_LOCK and nothing else, read every 50 ms for as long as a Lock_times says. Not installed. The one bit that
// means the same with every driver: frequency and strength are not looked at.
class Status_lock final : public Lock_rule {
 public:
  // `receives_t2`: whether the frontend receives DVB-T2 as well as DVB-T. None is owned.
  Status_lock(Device& device, Readings& readings, const Receiver_profile::Lock_times& times,
              const std::atomic<bool>& receives_t2)
      : device_(device), readings_(readings), times_(times), receives_t2_(receives_t2) {}

  Lock_wait wait(const Attempt& attempt, bool taken, int64_t begun_ms, const Turn& turn) override;
  bool tuned_to(int freq, int last_key) override;

 private:
  int limit_ms(int system, bool silent) const;

  Device& device_;
  Readings& readings_;
  const Receiver_profile::Lock_times times_;
  const std::atomic<bool>& receives_t2_;
};
