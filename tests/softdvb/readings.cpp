// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Prints the signal strength of adapter 0, without tuning.

#include "softdvb/device_support.h"

int main() {
  const device::Fd fd(device::open_frontend(O_RDONLY));
  uint16_t strength = 0;
  if (ioctl(fd, FE_READ_SIGNAL_STRENGTH, &strength) != 0) {
    std::perror("FE_READ_SIGNAL_STRENGTH");
    return 1;
  }
  std::printf("strength %x\n", static_cast<unsigned>(strength));
  return 0;
}
