// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>

// Everything that hostile bytes reach, each as an entry that takes any: it returns 0, or aborts where something came
// out of them that may not be. A memory checker sees the rest. docs/reliability.md says how they are run.
namespace fuzz {

using Entry = int (*)(const uint8_t* data, size_t size);

int section(const uint8_t* data, size_t size);      // the classes of sections
int descriptor(const uint8_t* data, size_t size);   // the classes of descriptors, in every loop that holds some
int siparse(const uint8_t* data, size_t size);      // the parser with a database, through all its states
int text(const uint8_t* data, size_t size);         // DVB texts to UTF-8
int tuner_line(const uint8_t* data, size_t size);   // stored tuning parameters
int packets(const uint8_t* data, size_t size);      // transport packets into the software adapter
int description(const uint8_t* data, size_t size);  // what softdvb-mux makes streams of
int trace(const uint8_t* data, size_t size);        // records of traces
int database(const uint8_t* data, size_t size);     // readers of damaged databases
int imports(const uint8_t* data, size_t size);      // files that the commands read

}  // namespace fuzz
