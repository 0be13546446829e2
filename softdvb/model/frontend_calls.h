// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include "softdvb/model/shared.h"

// The records of the frontend's ioctls of the old interface: parameters and capabilities. REQUIRES the shared lock.
namespace softdvb {

// What Linux's DVB core answers to a call that it or the driver does not have (ENOTSUPP, without a name here).
inline constexpr int ERROR_NOT_SUPPORTED = 524;

bool is_frontend_call(unsigned long request);

dvb_frontend_info frontend_info(const Adapter& a);
dvb_frontend_parameters to_parameters(const Tuning& t, int fe_type);
// The core's parameters with those that the old interface has for the type of the frontend.
Tuning from_parameters(const dvb_frontend_parameters& p, const Adapter& a);
// Everything automatic, as after DTV_CLEAR.
Tuning untuned(const Adapter& a, uint32_t delivery);

// What a program that knows the adapter would ask for on a frequency.
Tuning tuning_to(const Adapter& a, uint32_t freq);

// enum fe_type: follows the delivery system in the core's cache.
int frontend_type(const Adapter& a);
int type_of_system(uint32_t delivery);
// The delivery system of a frontend that nobody has used.
uint32_t first_delivery(const Adapter& a);
// Puts a system that the old interface knows into the core's cache, for a tuning by that.
void choose_old_system(Adapter& a);

// -EINVAL where the core refuses a tuning: only limits of frequency and symbol rate are its own business.
int check_tuning(const Adapter& a, const Tuning& t);

}  // namespace softdvb
