// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Terrestrial delivery system descriptor, 0x5A (EN 300 468, 6.2.13.4). Valid from 7 bytes on. All values but the
// frequency are the codes of that clause's tables as broadcast, reserved ones included.
class TerrestrialDeliverySystemDescriptor : public Descriptor {
 public:
  TerrestrialDeliverySystemDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~TerrestrialDeliverySystemDescriptor() override;

  uint32_t getCentreFrequency() const { return two_bytes(0) << 16 | two_bytes(2); }  // units of 10 Hz
  uint8_t getBandwidth() const { return static_cast<uint8_t>(bits(4, 5, 3)); }
  uint8_t getPriority() const { return static_cast<uint8_t>(bits(4, 4, 1)); }
  uint8_t getTimeSlicingIndicator() const { return static_cast<uint8_t>(bits(4, 3, 1)); }
  uint8_t getMpeFecIndicator() const { return static_cast<uint8_t>(bits(4, 2, 1)); }
  uint8_t getConstellation() const { return static_cast<uint8_t>(bits(5, 6, 2)); }
  uint8_t getHierarchyInformation() const { return static_cast<uint8_t>(bits(5, 3, 3)); }
  uint8_t getCodeRateHpStream() const { return static_cast<uint8_t>(bits(5, 0, 3)); }
  uint8_t getCodeRateLpStream() const { return static_cast<uint8_t>(bits(6, 5, 3)); }
  uint8_t getGuardInterval() const { return static_cast<uint8_t>(bits(6, 3, 2)); }
  uint8_t getTransmissionMode() const { return static_cast<uint8_t>(bits(6, 1, 2)); }
  uint8_t getOtherFrequencyFlag() const { return static_cast<uint8_t>(bits(6, 0, 1)); }
};
