// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/thread.h"

// The signal monitor's thread of one Tuner: runs Tuner::tuner_main_thread until the Tuner is destroyed. Created and
// deleted by Tuner, which is its owner, and as its base class used by one thread: the Tuner's owner.
class KELVO_EXPORT TunerMonitorThread final : public COrbelThreadKelvo {
 public:
  using COrbelThreadKelvo::COrbelThreadKelvo;

  void Execute(void* arg) override;
};
