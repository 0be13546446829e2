// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// "DVB-T", "DVB-T2" of SYS_DVBT, SYS_DVBT2; "QPSK", "QAM-16", ... of enum fe_modulation. Empty for what is not known,
// and for what DVB-T does not have.
const char* delivery_system_name(int system);
const char* modulation_name(int modulation);
