// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/long_crc_section.h>

// CAT (ISO/IEC 13818-1, 2.4.4.6). getDescriptors() is all that it has, empty when the section is too short for it. What
// holds for all sections stands in short_section.h.
class ConditionalAccessSection : public LongCrcSection, public DescriptorContainer {
 public:
  ConditionalAccessSection(const uint8_t* const buffer);
  ~ConditionalAccessSection() override;

  static constexpr PacketId PID = PID_CAT;
  static constexpr TableId TID = TID_CAT;
  static constexpr uint32_t TIMEOUT = 200;

 private:
  dvbsi_own::Section_bytes bytes_;
};

using ConditionalAccessSectionList = std::list<ConditionalAccessSection*>;
using ConditionalAccessSectionIterator = ConditionalAccessSectionList::iterator;
using ConditionalAccessSectionConstIterator = ConditionalAccessSectionList::const_iterator;
