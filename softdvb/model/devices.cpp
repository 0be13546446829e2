// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/devices.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "softdvb/model/call_log.h"
#include "softdvb/model/demux.h"
#include "softdvb/model/faults.h"
#include "softdvb/model/frontend.h"
#include "softdvb/model/ioctl_names.h"
#include "softdvb/model/player.h"
#include "softdvb/model/real.h"

namespace softdvb {

// A place among the adapter's handles, or -1 when all are taken. Those of processes that died are free.
static int take_demux_slot(Adapter& a) {
  const Shared_lock lock(*shared());
  // The owners are asked whether they live only when all places are taken, because that costs a system call for each.
  for (const bool look_closer : {false, true}) {
    for (int i = 0; i < a.filters; ++i) {
      if (a.demux_owner[i] != 0 && (!look_closer || is_process_alive(a.demux_owner[i])))
        continue;
      a.demux_owner[i] = getpid();
      return i;
    }
  }
  return -1;
}

static std::shared_ptr<Handle> make_handle(const Device_path& device, const char* path, int flags) {
  Adapter& a = shared()->adapter[device.adapter_index];
  if (device.device == Device::FRONTEND)
    return open_frontend(device.adapter_index, flags);
  // As long as somebody holds one of these, they are there but cannot be opened.
  if (a.unplugged.load() != 0) {
    errno = SOFTDVB_REAL(access)(Path(path), F_OK) == 0 ? ENODEV : ENOENT;
    return nullptr;
  }
  if (device.device == Device::DVR) {
    // The kernel that this imitates has been built without the memory that could be written and read at once.
    if ((flags & O_ACCMODE) == O_RDWR) {
      errno = EOPNOTSUPP;
      return nullptr;
    }
    // What was on the air until now is past, also for a process that looks for the first time.
    player_advance();
    const Shared_lock lock(*shared());
    if (is_process_alive(a.dvr_owner)) {
      errno = EBUSY;
      return nullptr;
    }
    a.dvr_owner = getpid();
    return std::make_shared<Dvr_handle>(device.adapter_index, flags);
  }
  const int slot = take_demux_slot(a);
  // The kernel has as many filters for an adapter, and says so with this error.
  if (slot < 0) {
    errno = EMFILE;
    return nullptr;
  }
  return std::make_shared<Demux_handle>(device.adapter_index, flags, slot);
}

// errno where the open is over before it has begun.
static bool is_path_free(const Device_path& device) {
  if (device.device != Device::FRONTEND)
    return true;
  const int result = wait_for_other_frontend(device.adapter_index);
  errno = -result;
  return result == 0;
}

int open_device(const Device_path& device, const char* path, int flags) {
  int fd = -1;
  if (!call_fails("open", path) && is_path_free(device)) {
    // Held over all of it, so that the player never meets a handle without a descriptor.
    const Device_lock lock;
    if (const auto handle = make_handle(device, path, flags)) {
      fd = register_handle(handle);
      if (fd < 0) {
        // A place or a lock that the handle has taken must be free again when no descriptor could be had.
        const int error = errno;
        handle->closed();
        errno = error;
      } else {
        handle->sync();
        player_wake();
      }
    }
  }
  log_call(fd, "open %s 0x%x", path, static_cast<unsigned>(flags));
  return fd;
}

// The model answers like the kernel, with the error as a negative number; programs expect errno.
static ssize_t result_of(ssize_t result) {
  if (result >= 0)
    return result;
  errno = static_cast<int>(-result);
  return -1;
}

// The kernel lets one call at a time onto a demultiplexer's handle, and a read that blocks keeps the others out.
// Programs that stop a filter from another thread must meet that here.
class Call_lock {
 public:
  explicit Call_lock(Handle& handle) : handle_(handle) { SOFTDVB_REAL(pthread_mutex_lock)(&handle_.call_lock); }
  ~Call_lock() { SOFTDVB_REAL(pthread_mutex_unlock)(&handle_.call_lock); }
  Call_lock(const Call_lock&) = delete;
  Call_lock& operator=(const Call_lock&) = delete;

 private:
  Handle& handle_;
};

static std::string full_name(const Handle& handle) {
  return "/dev/dvb/adapter" + std::to_string(handle.adapter().number) + "/" +
         device_name(handle.adapter(), handle.device());
}

// A fault "read=EOVERFLOW" is the real thing: the queue is gone with it.
static bool read_fails(Handle& handle) {
  if (!have_faults())
    return false;
  const int error = fault_for("read", full_name(handle).c_str());
  if (error == 0)
    return false;
  if (error == EOVERFLOW && handle.device() != Device::FRONTEND) {
    const Device_lock lock;
    if (handle.device() == Device::DEMUX)
      static_cast<Demux_handle&>(handle).overflow();
    else
      static_cast<Dvr_handle&>(handle).overflow();
    return false;
  }
  errno = error;
  return true;
}

ssize_t read_device(Handle& handle, int fd, void* to, size_t n) {
  ssize_t result = -1;
  if (!read_fails(handle)) {
    // A frontend has no read; its events come by ioctl.
    if (handle.device() == Device::FRONTEND) {
      result = -EINVAL;
    } else {
      const Call_lock lock(handle);
      result = handle.device() == Device::DEMUX ? static_cast<Demux_handle&>(handle).read(to, n)
                                                : static_cast<Dvr_handle&>(handle).read(to, n);
    }
    result = result_of(result);
  }
  if (log_enabled())
    log_call(result, "read %s %d %zu", device_name(handle.adapter(), handle.device()).c_str(), fd, n);
  return result;
}

int ioctl_device(Handle& handle, int fd, unsigned long request, void* argument) {
  // Programs that pass the number as an int extend its sign, which the kernel cuts off.
  request &= 0xFFFFFFFFul;
  int result = -1;
  const bool faulty =
      have_faults() && call_fails(ioctl_name(handle.device(), request).c_str(), full_name(handle).c_str());
  if (!faulty) {
    // No call lock here: waiting for an event must not hold up tuning, as it does not in the kernel.
    if (handle.device() == Device::FRONTEND) {
      result = static_cast<Frontend_handle&>(handle).request(request, argument);
    } else {
      const Call_lock lock(handle);
      result = handle.device() == Device::DEMUX ? static_cast<Demux_handle&>(handle).request(request, argument)
                                                : static_cast<Dvr_handle&>(handle).request(request, argument);
    }
    result = static_cast<int>(result_of(result));
  }
  if (log_enabled()) {
    // Describing a call takes memory and may change errno, which the program is about to read.
    const int saved = errno;
    const std::string text = describe_ioctl(handle.device(), request, argument, result == 0);
    errno = saved;
    log_call(result, "ioctl %s.%d %d %s", device_name(handle.adapter(), handle.device()).c_str(),
             handle.adapter().number, fd, text.c_str());
  }
  return result;
}

}  // namespace softdvb
