// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/types.h>

#include "softdvb/model/paths.h"

// What the interposed functions do once they know that a path or descriptor is ours. Results and errno as libc's.
namespace softdvb {

int open_device(const Device_path& device, const char* path, int flags);
ssize_t read_device(Handle& handle, int fd, void* to, size_t n);
int ioctl_device(Handle& handle, int fd, unsigned long request, void* argument);

inline constexpr unsigned DEVICE_MAJOR = 212;

// Linux's: four bits of type below the device's and the adapter's number.
inline unsigned device_minor(const Adapter& adapter, Device device) {
  const unsigned type = device == Device::FRONTEND ? 3u : device == Device::DEMUX ? 4u : 5u;
  const unsigned number = device == Device::FRONTEND ? static_cast<unsigned>(adapter.frontend) : 0;
  return static_cast<unsigned>(adapter.number) << 6 | number << 4 | type;
}

// Fills in what stat tells of a DVB device: a character device.
template <typename Stat>
void make_device_stat(Stat& st, const Adapter& adapter, Device device) {
  st.st_mode = (st.st_mode & 07777u & ~static_cast<mode_t>(0111)) | 0020000u | 0660u;
  st.st_rdev = DEVICE_MAJOR << 8 | device_minor(adapter, device);
  st.st_size = 0;
}

}  // namespace softdvb
