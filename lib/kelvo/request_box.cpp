// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/request_box.h"

void Request_box::post(const Request& request) {
  const std::lock_guard<Mutex> lock(lock_);
  request_ = request;
  pending_ = true;
}

bool Request_box::take(Request* request) {
  const std::lock_guard<Mutex> lock(lock_);
  if (!pending_)
    return false;
  pending_ = false;
  *request = request_;
  filters_taken_ = false;  // the scan that lost them is over
  return true;
}

bool Request_box::under_way() const {
  if (takings_ > 0)
    return true;
  // Asked after the count: a request is posted before its taking ends, so one of the two shows it.
  return pending();
}

bool Request_box::pending() const {
  const std::lock_guard<Mutex> lock(lock_);
  return pending_;
}

void Request_box::post_export(const Export_request& request) {
  const std::lock_guard<Mutex> lock(lock_);
  exports_.push_back(request);
}

bool Request_box::export_pending() const {
  const std::lock_guard<Mutex> lock(lock_);
  return !exports_.empty();
}

bool Request_box::next_export(Export_request* request) const {
  const std::lock_guard<Mutex> lock(lock_);
  if (exports_.empty())
    return false;
  *request = exports_.front();
  return true;
}

void Request_box::export_is_done() {
  const std::lock_guard<Mutex> lock(lock_);
  exports_.pop_front();
}
