// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/paths.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "softdvb/model/real.h"

namespace softdvb {

// The folder itself counts, a neighbour whose name only begins like it does not.
static bool is_below(const char* path, const char* folder) {
  const size_t n = strlen(folder);
  return strncmp(path, folder, n) == 0 && (path[n] == '\0' || path[n] == '/');
}

Path::Path(const char* path) : result_(path) {
  // Nearly every path is none of ours; two letters tell, before the record is looked up.
  if (path == nullptr || path[0] != '/' || (path[1] != 'd' && path[1] != 't'))
    return;
  const Shared* s = shared();
  if (s == nullptr)
    return;
  const char* into = nullptr;
  // Devices belong to the run and go with it; the other folders may be kept and looked at.
  if (is_below(path, "/dev/dvb")) {
    into = s->run_dir;
  } else {
    for (const char* folder : {"/dvbfiles", "/tmp/zoneinfo", "/tmp/testsig"})
      if (is_below(path, folder))
        into = s->root_dir;
  }
  if (into == nullptr)
    return;
  // No memory is taken here: paths are also rewritten in children between fork and exec.
  const int n = snprintf(buffer_, sizeof buffer_, "%s%s", into, path);
  if (n > 0 && static_cast<size_t>(n) < sizeof buffer_)
    result_ = buffer_;
}

bool is_frontend_name(const char* name) {
  constexpr size_t LENGTH = 8;
  return strncmp(name, "frontend", LENGTH) == 0 && name[LENGTH] >= '0' && name[LENGTH] <= '9' &&
         name[LENGTH + 1] == '\0';
}

Device_path parse_device_path(const char* path) {
  Device_path result;
  Shared* s = shared();
  if (s == nullptr || path == nullptr || strncmp(path, "/dev/dvb/adapter", 16) != 0)
    return result;
  int number = -1;
  char name[16] = "";
  int used = 0;
  // A path with anything behind the name is no device, nor is one with three digits.
  if (sscanf(path + 16, "%2d/%15[a-z0-9]%n", &number, name, &used) != 2 || path[16 + used] != '\0')
    return result;
  int frontend = 0;
  if (strcmp(name, "demux0") == 0) {
    result.device = Device::DEMUX;
  } else if (strcmp(name, "dvr0") == 0) {
    result.device = Device::DVR;
  } else if (is_frontend_name(name)) {
    result.device = Device::FRONTEND;
    frontend = name[strlen(name) - 1] - '0';
  } else {
    return result;
  }
  // None for an adapter that does not exist: then the caller lets the kernel say so.
  for (int i = 0; i < s->adapter_count; ++i)
    if (s->adapter[i].number == number && s->adapter[i].frontend == frontend)
      result.adapter_index = i;
  return result;
}

Path_in_folder::Path_in_folder(int folder, const char* path) : result_(path) {
  const Shared* s = shared();
  if (s == nullptr || path == nullptr || path[0] == '/' || folder == AT_FDCWD)
    return;
  // Few names are those of devices; only for them it is looked up which folder that is.
  if (strstr(path, "frontend") == nullptr && strstr(path, "demux") == nullptr && strstr(path, "dvr") == nullptr)
    return;
  // No memory is taken here, either.
  char link[32];
  (void)snprintf(link, sizeof link, "/proc/self/fd/%d", folder);  // always fits
  char place[2 * MAX_PATH];
  const ssize_t n = SOFTDVB_REAL(readlink)(link, place, sizeof place - 1);
  if (n <= 0)
    return;
  place[n] = '\0';
  if (!is_below(place, s->run_dir))
    return;
  const int length = snprintf(buffer_, sizeof buffer_, "%s/%s", place + strlen(s->run_dir), path);
  if (length > 0 && static_cast<size_t>(length) < sizeof buffer_)
    result_ = buffer_;
}

}  // namespace softdvb
