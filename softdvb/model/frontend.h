// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/handles.h"

// The frontend of an adapter as programs see it: one state for all processes, in the shared record.
namespace softdvb {

class Frontend_handle : public Handle {
 public:
  // `lock_fd`: for a writer, the open file whose lock makes it the only one; -1 else. `user_fd`: the lock that keeps
  // the adapter's other frontend from being opened; -1 where there is none. Both owned.
  Frontend_handle(int adapter_index, int open_flags, int lock_fd, int user_fd);

  // -errno or 0. Sleeps while the driver keeps everybody waiting, FE_GET_EVENT also for an event. Called without
  // Device_lock.
  int request(unsigned long request, void* argument);

  short ready() override;
  void closed() override;

 private:
  int wait_for_driver();
  int lock_fd_;
  int user_fd_;
};

// The core lets one frontend of an adapter be open at a time. Waits up to 5 s of the adapters' time for another one to
// be closed and to sleep, whoever opens this one and how; 0, -EBUSY, or -EINTR. Called without locks.
int wait_for_other_frontend(int adapter_index);

// Opens a frontend; the handle, or null with errno. REQUIRES Device_lock.
std::shared_ptr<Handle> open_frontend(int adapter_index, int open_flags);

}  // namespace softdvb
