// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/dvb_text.h"

#include "base/receiver_profile.h"
#include "si/plain_text.h"
#include "si/standard_text.h"

Dvb_text::Dvb_text() : way_(std::make_unique<Plain_text>()) {}

void Dvb_text::read_as(const Receiver_profile& profile) {
  if (profile.texts == Receiver_profile::Texts::STANDARD)
    way_ = std::make_unique<Standard_text>(profile.charset);
}
