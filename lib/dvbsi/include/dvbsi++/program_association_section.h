// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/long_crc_section.h>

// Entry of the PAT with program_number 0: the PID of the NIT. The entries are made by the section, from 4 bytes each.
class NetworkAssociation {
 public:
  NetworkAssociation(const uint8_t* const buffer);

  uint16_t getNetworkPid() const { return pid_; }

 private:
  uint16_t pid_;
};

using NetworkAssociationList = std::list<NetworkAssociation*>;
using NetworkAssociationIterator = NetworkAssociationList::iterator;
using NetworkAssociationConstIterator = NetworkAssociationList::const_iterator;

// Any other entry of the PAT: a service and the PID of its PMT.
class ProgramAssociation {
 public:
  ProgramAssociation(const uint8_t* const buffer);

  uint16_t getProgramNumber() const { return number_; }  // the service_id; never 0 in a section
  uint16_t getProgramMapPid() const { return pid_; }

 private:
  uint16_t number_;
  uint16_t pid_;
};

using ProgramAssociationList = std::list<ProgramAssociation*>;
using ProgramAssociationIterator = ProgramAssociationList::iterator;
using ProgramAssociationConstIterator = ProgramAssociationList::const_iterator;

// PAT (ISO/IEC 13818-1, 2.4.4.3). The transport stream id is getTableIdExtension(). One to three bytes left over behind
// the last entry are ignored, and the lists are empty when the section is too short for one. What holds for all
// sections stands in short_section.h.
class ProgramAssociationSection : public LongCrcSection {
 public:
  ProgramAssociationSection(const uint8_t* const buffer);
  ~ProgramAssociationSection() override;

  const NetworkAssociationList* getNetworks() const { return networks_.get(); }
  const ProgramAssociationList* getPrograms() const { return programs_.get(); }

  static constexpr PacketId PID = PID_PAT;
  static constexpr TableId TID = TID_PAT;
  static constexpr uint32_t TIMEOUT = 1200;

 private:
  dvbsi_own::Owned_list<NetworkAssociation> networks_;
  dvbsi_own::Owned_list<ProgramAssociation> programs_;
};

using ProgramAssociationSectionList = std::list<ProgramAssociationSection*>;
using ProgramAssociationSectionIterator = ProgramAssociationSectionList::iterator;
using ProgramAssociationSectionConstIterator = ProgramAssociationSectionList::const_iterator;
