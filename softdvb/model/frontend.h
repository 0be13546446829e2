// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "softdvb/model/handles.h"

// The frontend of an adapter: one state for all processes, in the shared record. The core's and the driver's own
// threads do not exist; settle() works out what they would have done up to now.
namespace softdvb {

class Frontend_handle : public Handle {
 public:
  // `lock_fd`: for a writer, the open file whose lock makes it the only one; -1 else. Owned.
  Frontend_handle(int adapter_index, int open_flags, int lock_fd);

  // -errno or 0. FE_GET_EVENT may sleep; nothing else does. Called without Device_lock.
  int request(unsigned long request, void* argument);

  short ready() override;
  void closed() override;

 private:
  int lock_fd_;
};

// Opens frontend0; the handle, or null with errno. REQUIRES Device_lock.
std::shared_ptr<Handle> open_frontend(int adapter_index, int open_flags);

// What arrives at the demultiplexer.
struct On_air {
  int mux = -1;  // index in Adapter::mux, -1: nothing
  uint64_t since_ns = 0;
  uint32_t generation = 0;  // changes with every tuning
};
On_air frontend_on_air(Adapter& adapter, uint64_t now_ns);

// When the core looks at the driver again; 0: not at all, nobody has the frontend open for writing.
uint64_t frontend_next_look(Adapter& adapter);

// Brings events up to date.
void frontend_settle(Adapter& adapter, uint64_t now_ns);

// Tunes as FE_SET_FRONTEND does, without checks. REQUIRES the shared lock.
void frontend_tune(Adapter& adapter, const Tuning& tuning, uint64_t now_ns);

// The readings of a locked frontend on `freq` at a time.
uint32_t signal_value(const Adapter& adapter, uint32_t freq, Reading reading, uint64_t now_ns);

}  // namespace softdvb
