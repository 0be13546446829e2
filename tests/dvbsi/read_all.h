// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <dvbsi++/descriptor.h>

namespace dvbsi_test {

// A hash of every value that the classes tell about a section. Two parsers, or one parser in two surroundings, agree
// when their hashes do. Lays each class of section over bytes of its table id, LongCrcSection over all others.
uint64_t read_all(const uint8_t* section);

// The values behind the head of a section, in the order of their bytes: "1234 100 <0e> [1b 201 <52>] []". Numbers in
// hexadecimal, each entry in brackets, of a loop of descriptors the tags. An extended event, multilingual network or
// service name is followed by the number of its entries: "<52 4e(1)>".
std::string values(const uint8_t* section);

// Shows `look` every descriptor of a section, in order.
void look_at_descriptors(const uint8_t* section, const std::function<void(const Descriptor&)>& look);

// A word for the class of a descriptor and its values: "ca b02 1ffe {0908}", with bytes in braces, texts as 'text' with
// \xNN for what cannot be printed. Empty for one of no class.
std::string values(const Descriptor& descriptor);

}  // namespace dvbsi_test
