// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Video stream descriptor, 0x02 (ISO/IEC 13818-1, 2.6.2). Valid from 3 bytes on, of an MPEG-1 only stream from 1. The
// last three values are 0 for an MPEG-1 only stream, which does not broadcast them. Other implementations leave them,
// and getStillPictureFlag() always, undefined.
class VideoStreamDescriptor : public Descriptor {
 public:
  VideoStreamDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~VideoStreamDescriptor() override;

  uint8_t getMultipleFrameRateFlag() const { return static_cast<uint8_t>(bits(0, 7, 1)); }
  uint8_t getFrameRateCode() const { return static_cast<uint8_t>(bits(0, 3, 4)); }
  uint8_t getMpeg1OnlyFlag() const { return static_cast<uint8_t>(bits(0, 2, 1)); }
  uint8_t getConstrainedParameterFlag() const { return static_cast<uint8_t>(bits(0, 1, 1)); }
  uint8_t getStillPictureFlag() const { return static_cast<uint8_t>(bits(0, 0, 1)); }
  uint8_t getProfileAndLevelIndication() const { return mpeg2(bits(1, 0, 8)); }
  uint8_t getChromaFormat() const { return mpeg2(bits(2, 6, 2)); }
  uint8_t getFrameRateExtensionFlag() const { return mpeg2(bits(2, 5, 1)); }

 private:
  uint8_t mpeg2(unsigned value) const { return static_cast<uint8_t>(getMpeg1OnlyFlag() ? 0 : value); }
};
