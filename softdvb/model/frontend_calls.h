// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include "softdvb/model/shared.h"

// The records of the frontend's ioctls: old parameters, properties, capabilities.
namespace softdvb {

// What Linux's DVB core answers to a call that it or the driver does not have (ENOTSUPP, without a name here).
inline constexpr int ERROR_NOT_SUPPORTED = 524;

bool is_frontend_call(unsigned long request);

dvb_frontend_info frontend_info(const Adapter& a);
dvb_frontend_parameters to_parameters(const Tuning& t, int fe_type);
Tuning from_parameters(const dvb_frontend_parameters& p, int fe_type);
Tuning untuned(int fe_type);

// The delivery system that the old interface means for a type of frontend.
uint32_t default_delivery(int fe_type);

// Properties that the next DTV_TUNE will take; set by FE_SET_PROPERTY. `tune`: the list contained DTV_TUNE.
int set_properties(Adapter& a, const dtv_properties& list, bool* tune);
const Tuning& requested_tuning(const Adapter& a);
int get_properties(Adapter& a, const dtv_properties& list, uint32_t status, uint64_t now_ns);

// What FE_GET_FRONTEND tells. REQUIRES the shared lock.
Tuning reported_tuning(Adapter& a, uint64_t now_ns);

}  // namespace softdvb
