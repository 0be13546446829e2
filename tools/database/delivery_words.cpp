// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/delivery_words.h"

#include <linux/dvb/frontend.h>

const char* delivery_system_name(int system) {
  switch (system) {
    case SYS_DVBT:
      return "DVB-T";
    case SYS_DVBT2:
      return "DVB-T2";
    default:
      return "";
  }
}

const char* modulation_name(int modulation) {
  switch (modulation) {
    case QPSK:
      return "QPSK";
    case QAM_16:
      return "QAM-16";
    case QAM_64:
      return "QAM-64";
    case QAM_256:
      return "QAM-256";
    default:
      return "";
  }
}
