// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "softdvb/model/shared.h"

// The descriptors of this process that belong to an adapter. Each is an eventfd for the kernel, so that it has a number
// of its own, can be duplicated, inherited and waited for with anything; its readability follows that of the device.
// What a call on it does is decided here.
//
// One lock (`Device_lock`) guards all device state of the process. A blocking call never sleeps with it.
namespace softdvb {

class Device_lock {
 public:
  Device_lock();
  ~Device_lock();
  Device_lock(const Device_lock&) = delete;
  Device_lock& operator=(const Device_lock&) = delete;
};

enum class Device { FRONTEND, DEMUX, DVR };

// Of the file in the adapter's folder: "frontend0".
std::string device_name(const Adapter& adapter, Device device);

class Handle {
 public:
  Handle(Device device, int adapter_index, int open_flags);
  virtual ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  Device device() const { return device_; }
  int adapter_index() const { return adapter_; }
  Adapter& adapter() const { return shared()->adapter[adapter_]; }
  // The device was pulled out since the opening.
  bool gone() const { return adapter().plug_generation.load(std::memory_order_acquire) != plug_generation_; }
  // Nothing arrives at a handle that belongs to another process or to a device that is gone.
  bool listens() const { return !inherited && !gone(); }
  bool writable() const;
  bool non_blocking() const;
  int open_flags() const { return open_flags_; }

  // All below: REQUIRES Device_lock.
  virtual short ready() = 0;                  // poll's bits, POLLERR included
  virtual void closed() {}                    // the last descriptor of this process is gone
  void sync();                                // makes the kernel's readability follow ready()
  void consumed() { kernel_ready_ = false; }  // a blocking reader took the eventfd's count

  std::vector<int> fds;       // this process's descriptors for it
  bool inherited = false;     // came over a fork and was not used here since
  pthread_mutex_t call_lock;  // read and ioctl of one demultiplexer handle exclude each other

 private:
  Device device_;
  int adapter_;
  int open_flags_;
  uint32_t plug_generation_;
  bool kernel_ready_ = false;
};

// Fast and without a lock; false for almost every descriptor of a program.
bool maybe_ours(int fd);

// Null when it is not ours. Takes Device_lock for a moment; a handle that came over a fork is made this process's own.
std::shared_ptr<Handle> handle_of(int fd);

// Gives `handle` its descriptor. Returns it, or -1 with errno.
int register_handle(const std::shared_ptr<Handle>& handle);
// The registry's part of dup and close; the descriptors themselves were or will be made and closed by the caller.
void register_copy(int fd, int copy);
void forget(int fd);
// Closing of a range: calls forget for each.
void forget_range(unsigned first, unsigned last);

// Every handle of the process. REQUIRES Device_lock.
const std::vector<std::shared_ptr<Handle>>& all_handles();

}  // namespace softdvb
