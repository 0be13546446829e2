// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/database/channel_db.h"
#include "tools/database/guide_db.h"

// The guide as XMLTV, valid by its public DTD: all channels of `services`, which hold at least those of `events`, and
// the events in their order. Of services with the same id (channel_id.h) the one that was found and has events speaks
// for all.
std::string guide_xmltv(const std::vector<Guide_event>& events, const std::vector<Service>& services);

// What begins ends what was on before: shortens events that overlap the next one of their channel, since readers of
// XMLTV take a channel to send one programme at a time. `events` come by start.
void end_at_the_next(std::vector<Guide_event>* events);
