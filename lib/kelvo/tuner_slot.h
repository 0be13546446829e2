// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <condition_variable>
#include <memory>
#include <utility>

#include "base/mutex.h"
#include "tuner/tuner.h"

// Where a Kelvo keeps its tuner, so that it can be taken away while other threads work with it. Any-thread.
//
// Using the tuner holds no lock, only a count: the tuner's own operations may lock what they need.
class Tuner_slot {
 public:
  // Keeps the tuner, if there is one, alive as long as it exists. Do not keep it across a callback of the host.
  class Use {
   public:
    explicit Use(Tuner_slot& slot) : slot_(slot), tuner_(slot.enter()) {}
    ~Use() {
      if (tuner_ != nullptr)
        slot_.leave();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    explicit operator bool() const { return tuner_ != nullptr; }
    Tuner* operator->() const { return tuner_; }

   private:
    Tuner_slot& slot_;
    Tuner* tuner_;
  };

  // Begins with this tuner; null for an empty slot.
  explicit Tuner_slot(std::unique_ptr<Tuner> tuner) : tuner_(std::move(tuner)) {}

  // Puts a tuner in; false, and nothing is changed, when there is one already.
  bool put(std::unique_ptr<Tuner>& tuner);

  // Takes the tuner out, null when there is none, as soon as nobody uses it.
  std::unique_ptr<Tuner> take();

  bool empty();

 private:
  Tuner* enter();
  void leave();

  Mutex lock_{Lock_rank::ALONE, "tuner slot"};
  std::condition_variable_any unused_;
  int users_ = 0;
  std::unique_ptr<Tuner> tuner_;
};
