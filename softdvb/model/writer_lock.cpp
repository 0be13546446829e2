// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/model/writer_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

#include "softdvb/model/real.h"

namespace softdvb {

// `operation`: of flock().
static int take_lock(const char* name, const Adapter& a, int operation, bool close_on_exec) {
  const std::string file = std::string(shared()->run_dir) + "/" + name + std::to_string(a.number) + "." +
                           std::to_string(a.frontend) + "." + std::to_string(a.plug_generation.load());
  const int flags = O_RDWR | O_CREAT | O_CLOEXEC;
  int fd = SOFTDVB_REAL(open)(file.c_str(), flags, 0600);
  if (fd < 0)
    return -1;
  if (flock(fd, operation | LOCK_NB) != 0) {
    SOFTDVB_REAL(close)(fd);
    return -1;
  }
  // Out of the way: the program's next descriptor is the lowest free number, as it would be with a device.
  for (const int lowest : {900, 200, 100}) {
    const int high = SOFTDVB_REAL(fcntl)(fd, close_on_exec ? F_DUPFD_CLOEXEC : F_DUPFD, lowest);
    if (high < 0)
      continue;
    // The lock belongs to the open file, and the copy keeps it.
    SOFTDVB_REAL(close)(fd);
    return high;
  }
  return fd;
}

int take_writer_lock(const Adapter& a, bool close_on_exec) {
  return take_lock("writer", a, LOCK_EX, close_on_exec);
}

int take_user_lock(const Adapter& a, bool close_on_exec) {
  return take_lock("user", a, LOCK_SH, close_on_exec);
}

bool has_users(const Adapter& a) {
  const int fd = take_lock("user", a, LOCK_EX, true);
  if (fd < 0)
    return true;
  SOFTDVB_REAL(close)(fd);
  return false;
}

bool has_writer(Adapter& a, uint64_t now_ns) {
  Frontend& fe = a.fe;
  if (fe.writer_pid == 0)
    return false;
  // The usual answer costs one system call; files are looked at only after a death.
  if (is_process_alive(fe.writer_pid))
    return true;
  // It died without a close, but a child may have inherited the handle.
  const int free_lock = take_writer_lock(a, true);
  if (free_lock < 0)
    return true;
  SOFTDVB_REAL(close)(free_lock);
  fe.writer_pid = 0;
  fe.closed_at_ns = now_ns;
  return false;
}

}  // namespace softdvb
