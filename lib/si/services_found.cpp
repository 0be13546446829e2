// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/services_found.h"

#include <algorithm>

namespace {

bool is_before(const Service_found& service, int service_id) {
  return service.service_id < service_id;
}

}  // namespace

void Services_found::sdt(const Service_found& service) {
  const auto at = std::lower_bound(services_.begin(), services_.end(), service.service_id, is_before);
  if (at != services_.end() && at->service_id == service.service_id)
    *at = service;
  else if (services_.size() < MOST)
    services_.insert(at, service);
}

void Services_found::sdt_is_complete(int version) {
  std::erase_if(services_, [=](const Service_found& service) { return service.version != version; });
}

const Service_found* Services_found::find(int service_id) const {
  const auto at = std::lower_bound(services_.begin(), services_.end(), service_id, is_before);
  return at != services_.end() && at->service_id == service_id ? &*at : nullptr;
}
