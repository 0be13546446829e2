// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/engine/table_name.h"

#include <base/ids.h>

std::string table_name(int id) {
  switch (id) {
    case table::PAT:
      return "PAT";
    case table::CAT:
      return "CAT";
    case table::PMT:
      return "PMT";
    case table::NIT_ACTUAL:
      return "NIT";
    case table::SDT_ACTUAL:
      return "SDT";
    case table::TDT:
      return "TDT";
    case table::TOT:
      return "TOT";
    default:
      return id >= table::EIT_PRESENT_FOLLOWING && id <= table::EIT_LAST ? "EIT" : "other";
  }
}
