// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Writes the small stream that the tests of tuning and playing use: two seconds of 1000 packets a second by its clock
// (PID 0x200), on PID 0x100 every 100 ms a section whose extension, and every byte of
// the body, counts from 0.
#include <fstream>

#include "base/ids.h"
#include "support/ts_writer.h"

static constexpr int PACKETS = 2000;
static constexpr int PACKETS_A_SECTION = 100;
static constexpr int PCR_EVERY = 20;
static constexpr int64_t TICKS_A_PACKET = 27000;

int main(int argc, char** argv) {
  if (argc != 3)
    return 2;
  const size_t packet_size = std::stoul(argv[2]);
  support::Ts_writer ts;
  for (int i = 0; i < PACKETS; ++i) {
    const int number = i / PACKETS_A_SECTION;
    if (i % PACKETS_A_SECTION == 0)
      ts.section(0x100, support::long_section(table::SDT_ACTUAL, static_cast<uint16_t>(number), 0,
                                              support::Bytes(28, static_cast<uint8_t>(number))));
    else if (i % PCR_EVERY == 1)
      ts.adaptation_only(0x200, (i - 1) * TICKS_A_PACKET);
    else
      ts.null_packets(1);
  }
  support::Bytes out;
  for (size_t at = 0; at < ts.bytes.size(); at += 188) {
    if (packet_size == 192)
      out.resize(out.size() + 4);
    out.insert(out.end(), ts.bytes.begin() + static_cast<std::ptrdiff_t>(at),
               ts.bytes.begin() + static_cast<std::ptrdiff_t>(at + 188));
    if (packet_size == 204)
      out.resize(out.size() + 16);
  }
  std::ofstream file(argv[1], std::ios::binary);
  file.write(reinterpret_cast<const char*>(out.data()), static_cast<std::streamsize>(out.size()));
  return file.flush() ? 0 : 1;
}
