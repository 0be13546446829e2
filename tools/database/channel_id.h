// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

#include "tools/database/channel_db.h"

// What programs know a service by, in the form of a domain name, as readers of XMLTV want it:
// "101.1.65281.dvb.guide", the decimal numbers of service, transport stream and original network. It is the same in
// every database, whatever the service's row, name or channel number; two rows have the same one where two transmitters
// send the service. Of a multiplex that never said its ids: "101.506000000hz.dvb.guide".
std::string channel_id(const Service& service);
