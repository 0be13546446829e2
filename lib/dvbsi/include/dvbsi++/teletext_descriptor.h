#pragma once

#include <dvbsi++/vbi_teletext_descriptor.h>

// 0x56 (EN 300 468, 6.2.43): the same entries as in 0x46.
class TeletextDescriptor : public VbiTeletextDescriptor {
 public:
  TeletextDescriptor(const uint8_t* const buffer, dvbsi_own::Keep keep = dvbsi_own::Keep::COPY);
  ~TeletextDescriptor() override;
};
