// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <vector>

// What the SDT of the multiplex says of one service, beside what the scan's tables keep (EN 300 468, 5.2.3).
struct Service_found {
  int service_id = 0;
  bool eit_schedule = false;           // EIT_schedule_flag: its schedule is sent on this multiplex
  bool eit_present_following = false;  // EIT_present_following_flag
  int version = -1;                    // of the SDT that said so
};

// The services of the multiplex that is tuned, as its SDT has named them since the last request; not installed. They
// stay through rescans, in which the SDT replaces them. Worker-only.
class Services_found {
 public:
  // Another multiplex is tuned: nothing is known.
  void clear() { services_.clear(); }

  // One service of an SDT section; replaces what was known of it. Services above MOST are left out.
  void sdt(const Service_found& service);
  // All sections of an SDT of this version have come: services that only an earlier one named are gone.
  void sdt_is_complete(int version);

  // Null when no SDT has named it. Valid until the next call that changes something.
  const Service_found* find(int service_id) const;
  // By service_id, each once.
  const std::vector<Service_found>& all() const { return services_; }

  // More do not fit into a multiplex.
  static constexpr size_t MOST = 1024;

 private:
  std::vector<Service_found> services_;
};
