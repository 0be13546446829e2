// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <list>
#include <string>

#include "base/mutex.h"
#include "kelvo/kelvo.h"

// A host's request for a scan.
struct Request {
  int freq = 0;      // Hz, that the multiplex is known by
  int channel = -1;  // row of kanalid, -1 for none
  void* data = nullptr;
  Kelvo::request_callback_t done = nullptr;
  Tuning_request tuning{};  // what a channel's request asks the tuner for
};

// A host's request for an export of the guide; see Sdbl::backup_database.
struct Export_request {
  std::string file;
  bool full = false;
};

// What hosts leave for the worker of a Kelvo, and the flags that the two of them share. Any-thread, but for what says
// that it is the worker's.
//
// A request without a channel takes the filters of the scan under way off the list, on the host's thread, and tunes;
// only then is it posted, or has failed. An emptied list looks like a finished scan, so the worker asks under_way()
// before it believes the list, and filters_taken() before it merges.
class Request_box {
 public:
  // Lives as long as a host's thread is between taking the filters and the request.
  class Taking {
   public:
    explicit Taking(Request_box& box) : box_(box) { ++box_.takings_; }
    ~Taking() { --box_.takings_; }
    Taking(const Taking&) = delete;
    Taking& operator=(const Taking&) = delete;

    // To be said when the filters are gone.
    void filters_are_gone() { box_.filters_taken_ = true; }

   private:
    Request_box& box_;
  };

  // Replaces a request that has not been picked up.
  void post(const Request& request);

  // The worker's: moves the request that waits into `*request`; false, and nothing is changed, when there is none.
  bool take(Request* request);

  // True while a host's request takes filters away or waits for the worker.
  bool under_way() const;

  // True while a request waits for the worker.
  bool pending() const;

  // True while a host's request without a channel is on its way: it is tuning, and newer than what the worker has.
  bool host_tunes() const { return takings_ > 0; }

  // True when the scan under way has lost its filters to a host. The worker says when it is over.
  bool filters_taken() const { return filters_taken_; }
  void scan_is_over() { filters_taken_ = false; }

  // Exports are run in the order in which they were asked for. One that runs stays in the box until it is done.
  void post_export(const Export_request& request);
  bool export_pending() const;
  bool next_export(Export_request* request) const;  // false, and nothing is changed, when there is none
  void export_is_done();

  std::atomic<bool> running{true};          // cleared when the Kelvo is being destroyed
  std::atomic<bool> message_state{true};    // the last request has been answered, or there was none
  std::atomic<bool> scan_requested{false};  // by set_scan() or by a request

 private:
  mutable Mutex lock_{Lock_rank::ALONE, "requests"};  // guards the request and the exports; a leaf
  bool pending_ = false;
  Request request_;
  std::list<Export_request> exports_;

  std::atomic<int> takings_{0};
  std::atomic<bool> filters_taken_{false};
};
