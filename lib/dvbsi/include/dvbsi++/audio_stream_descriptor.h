// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <dvbsi++/descriptor.h>

// Audio stream descriptor, 0x03 (ISO/IEC 13818-1, 2.6.4). Valid from 1 byte on.
class AudioStreamDescriptor : public Descriptor {
 public:
  AudioStreamDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~AudioStreamDescriptor() override;

  uint8_t getFreeFormatFlag() const { return static_cast<uint8_t>(bits(0, 7, 1)); }
  // As in the audio frames: the ID bit, and the layer, of which 3 is I, 2 is II and 1 is III.
  uint8_t getId() const { return static_cast<uint8_t>(bits(0, 6, 1)); }
  uint8_t getLayer() const { return static_cast<uint8_t>(bits(0, 4, 2)); }
  uint8_t getVariableRateAudioIndicator() const { return static_cast<uint8_t>(bits(0, 3, 1)); }
};
