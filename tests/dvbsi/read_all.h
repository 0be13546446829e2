#pragma once

#include <cstdint>

#include <dvbsi++/descriptor.h>

namespace dvbsi_test {

// A hash of every value that the classes tell about a section, or about a single descriptor. Two parsers, or one parser
// in two surroundings, agree when their hashes do. Lays each class of section over bytes of its table id,
// LongCrcSection over all others.
uint64_t read_all(const uint8_t* section);
uint64_t read_all(const Descriptor& descriptor);

}  // namespace dvbsi_test
