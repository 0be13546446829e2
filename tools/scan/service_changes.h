// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/database/channel_db.h"

// What has become of services between two readings of a database.
enum class Change { NEW, BACK, LOST, CHANGED };

struct Changed_service {
  Change change;
  const Service* service;
  const Service* before = nullptr;  // of what was there
};

// By kind, then by number; the pointers are into what is given.
std::vector<Changed_service> service_changes(const std::vector<Service>& before, const std::vector<Service>& after);

// What the air says otherwise of a service than before: "renamed", "now scrambled"; empty for nothing.
std::vector<std::string> differences(const Service& before, const Service& after);
