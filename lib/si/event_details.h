// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <span>

#include "db/guide_events.h"

class Dvb_text;

// Reads what the added tables of the guide have from the descriptors of an event (the loop without its length). Of two
// CRIDs of a kind the first counts, of the other descriptors all; one that is broken is left out. CRIDs are taken from
// the descriptor alone: a reference to a content identifier table, which hardly anybody sends, is none.
void read_event_details(std::span<const uint8_t> loop, Dvb_text& text, sdbl::Guide_details* details);
