// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/thread.h"

// The worker of one Kelvo: runs its scan loop until the Kelvo is destroyed. Created and deleted by Kelvo, and as its
// base class used by one thread, that of the host which creates and destroys the Kelvo.
class KELVO_EXPORT KelvoMainThread final : public COrbelThreadKelvo {
 public:
  using COrbelThreadKelvo::COrbelThreadKelvo;

  // Runs Kelvo::filter_read_thread for the owner, a Kelvo, then the base class's.
  void Execute(void* arg) override;
};
