// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// How the filters of one demultiplexer are treated; not installed. Every value has the one that changes nothing.
struct Filter_options {
  // Bytes of the kernel's buffer of each handle, set before its first filter; 0 for the kernel's own. A refusal is
  // printed once, as a warning, and the handle is used as it is.
  int buffer_bytes = 0;

  // True: a device that has gone is noticed; see Section_filter::Parts::device_gone().
  bool watch_device = false;

  // True: addfilter() of a table id has the CRC checked here and not by the kernel, so that wrong ones are counted. The
  // kernel drops them silently, and it does as the first filter on a PID says, also when that is another program's: a
  // check here holds either way.
  bool check_crc = false;

  // Above 0: filters of PMTs that have had a handle for so long give it to others that wait for one, and one that has
  // listened for `pmt_patience_ms` in all since the last PMT came is given up (Section_filter::Parts::take_given_up()).
  // Both in milliseconds.
  int pmt_turn_ms = 0;
  int pmt_patience_ms = 0;

  // How often a filter that the device refuses to set or to start is set again, with a pause in between, before it
  // counts as running all the same.
  int set_again = 0;
};
