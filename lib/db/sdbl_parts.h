#pragma once

#include <vector>

#include "base/multiplex.h"
#include "db/errors.h"
#include "db/guide_services.h"
#include "db/sdbl.h"

// What stands behind an Sdbl; not installed.
class Sdbl::Parts {
 public:
  explicit Parts(Sdbl& owner) : shell(owner) {}

  std::vector<sdbl::Guide_service> guide_services(int dvbnr, const Multiplex& multiplex, SCAN_STATE state);

  Sdbl& shell;
  sdbl::Errors errors;
};
