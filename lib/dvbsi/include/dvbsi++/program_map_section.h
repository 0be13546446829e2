// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor_container.h>
#include <dvbsi++/long_crc_section.h>

// One elementary stream of a PMT, whose getDescriptors() is the stream's loop. Made by the section; whoever makes one
// by hand gives it a whole entry.
class ElementaryStreamInfo : public DescriptorContainer {
 public:
  ElementaryStreamInfo(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);

  uint8_t getType() const { return type_; }  // stream_type, 2.4.4.9
  uint16_t getPid() const { return pid_; }

 private:
  uint16_t pid_;
  uint8_t type_;
};

using ElementaryStreamInfoList = std::list<ElementaryStreamInfo*>;
using ElementaryStreamInfoIterator = ElementaryStreamInfoList::iterator;
using ElementaryStreamInfoConstIterator = ElementaryStreamInfoList::const_iterator;

// PMT (ISO/IEC 13818-1, 2.4.4.8). getDescriptors() is the program loop. When that loop does not end where
// program_info_length says, there are no streams; when program_info_length passes the section, there are no descriptors
// either. The first stream that does not fit and all after it are left out. What holds for all sections stands in
// short_section.h.
class ProgramMapSection : public LongCrcSection, public DescriptorContainer {
 public:
  ProgramMapSection(const uint8_t* const buffer);
  ~ProgramMapSection() override;

  uint16_t getProgramNumber() const { return getTableIdExtension(); }
  uint16_t getPcrPid() const { return pcr_pid_; }  // 0x1FFF for none; 0 in a section too short for it
  const ElementaryStreamInfoList* getEsInfo() const { return streams_.get(); }

  static constexpr TableId TID = TID_PMT;
  static constexpr uint32_t TIMEOUT = 600;

 private:
  dvbsi_own::Section_bytes bytes_;
  dvbsi_own::Owned_list<ElementaryStreamInfo> streams_;
  uint16_t pcr_pid_;
};

using ProgramMapSectionList = std::list<ProgramMapSection*>;
using ProgramMapSectionIterator = ProgramMapSectionList::iterator;
using ProgramMapSectionConstIterator = ProgramMapSectionList::const_iterator;
