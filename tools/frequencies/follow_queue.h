// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <si/announced_multiplex.h>
#include <tuner/reception.h>

#include <map>
#include <set>
#include <utility>
#include <vector>

// What is known of frequencies during a scan that follows announcements: each is visited once, and nothing that nobody
// asked for or announced. A multiplex's "key" is its frequency, plus the number of its pipe if that is above 0. One
// thread at a time.
class Follow_queue {
 public:
  explicit Follow_queue(const std::vector<Tuning_request>& asked);

  // What is to be visited as well after `from` (a key) was scanned, where this transport stream was found (-1: not
  // known): announced frequencies more than 500 kHz beside all that are known, and pipes of known ones unless their
  // stream was found there. Nonsense off the air (no DVB-T frequency, no such pipe, hundreds of them) is left out.
  std::vector<Tuning_request> announced(int from, int original_network_id, int transport_stream_id,
                                        const std::vector<Announced_multiplex>& list);

  // One more that is visited, whoever asked for it.
  void add(const Tuning_request& request) { requests_.push_back(request); }

  // The key of the multiplex that announced this one; 0 when it was asked for.
  int announced_by(int key) const;

 private:
  using Stream = std::pair<int, int>;  // original network, transport stream
  bool known(const Announced_multiplex& one) const;

  std::vector<Tuning_request> requests_;   // asked for, and added
  std::map<int, int> announced_by_;        // keys
  std::map<Stream, std::set<int>> found_;  // keys of where a stream was found
};

// The frequency that rows and results carry.
int key_of(const Tuning_request& request);
