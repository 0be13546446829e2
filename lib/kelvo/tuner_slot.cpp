// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/tuner_slot.h"

#include <utility>

bool Tuner_slot::put(std::unique_ptr<Tuner>& tuner) {
  const std::lock_guard<Mutex> lock(lock_);
  if (tuner_ != nullptr)
    return false;
  tuner_ = std::move(tuner);
  return true;
}

std::unique_ptr<Tuner> Tuner_slot::take() {
  std::unique_lock<Mutex> lock(lock_);
  std::unique_ptr<Tuner> tuner = std::move(tuner_);
  // Users find the slot empty from now on, so the wait ends however busy they are.
  unused_.wait(lock, [this] { return users_ == 0; });
  return tuner;
}

bool Tuner_slot::empty() {
  const std::lock_guard<Mutex> lock(lock_);
  return tuner_ == nullptr;
}

Tuner* Tuner_slot::enter() {
  const std::lock_guard<Mutex> lock(lock_);
  if (tuner_ != nullptr)
    ++users_;
  return tuner_.get();
}

void Tuner_slot::leave() {
  const std::lock_guard<Mutex> lock(lock_);
  if (--users_ == 0)
    unused_.notify_all();
}
