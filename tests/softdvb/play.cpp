// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/session.h"

// Plays the steps of its argument on the adapters that it runs with, and prints them with what came out.
int main(int, char** arguments) {
  std::printf("%s\n", device::Session().play(arguments[1]).c_str());
  return 0;
}
